#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <set>
#include <string>
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

// What a call leaves behind in this process: descriptors it opened and did not close, and
// children it started and neither ended nor reaped. Made before the call; leaks() after it.
class NoLeaks {
 public:
  NoLeaks();
  // "" when everything open now was open before and every child now was a child before; else a
  // line a leak: "fd 7 -> pipe:[1234]", "child 4321 (sleep) state S".
  std::string leaks() const;

 private:
  std::map<int, std::string> m_fds;  // descriptor -> what it refers to
  std::set<pid_t> m_children;
};

}  // namespace hdstest
