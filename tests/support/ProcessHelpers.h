#pragma once

#include <sys/types.h>

#include <functional>
#include <vector>

namespace hdstest {

// Runs fn(i) in n forked children at once and returns their exit codes in order (128 + signal
// number for a child a signal ended). A child that throws exits with 99.
std::vector<int> runInChildren(int n, const std::function<int(int index)>& fn);

// Forks one child running fn; its exit code is its return value.
pid_t forkChild(const std::function<int()>& fn);
// Waits for a child forked above; its exit code, or 128 + signal.
int waitChild(pid_t pid);

// True while some process of group pgid is alive (zombies excluded).
bool processGroupAlive(pid_t pgid);
// Polls processGroupAlive until it turns false or timeoutMs passes; the final answer.
bool processGroupGone(pid_t pgid, long timeoutMs);

}  // namespace hdstest
