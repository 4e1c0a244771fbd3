#include "tests/support/ProcessHelpers.h"

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

namespace hdstest {

pid_t forkChild(const std::function<int()>& fn) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int code = 99;
    try {
      code = fn();
    } catch (...) {
    }
    _exit(code);
  }
  return pid;
}

int waitChild(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

std::vector<int> runInChildren(int n, const std::function<int(int index)>& fn) {
  std::vector<pid_t> pids;
  for (int i = 0; i < n; ++i) pids.push_back(forkChild([&fn, i] { return fn(i); }));
  std::vector<int> codes;
  for (pid_t pid : pids) codes.push_back(pid > 0 ? waitChild(pid) : -1);
  return codes;
}

bool processGroupAlive(pid_t pgid) {
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return false;
  bool alive = false;
  while (dirent* e = readdir(proc)) {
    if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
    std::ifstream in(std::string("/proc/") + e->d_name + "/stat");
    std::string line;
    if (!std::getline(in, line)) continue;
    // Fields after the parenthesised command: state, ppid, pgrp.
    size_t close = line.rfind(')');
    if (close == std::string::npos) continue;
    char state = 0;
    long ppid = 0, pgrp = 0;
    if (sscanf(line.c_str() + close + 1, " %c %ld %ld", &state, &ppid, &pgrp) != 3) continue;
    if (pgrp == pgid && state != 'Z' && state != 'X') {
      alive = true;
      break;
    }
  }
  closedir(proc);
  return alive;
}

bool processGroupGone(pid_t pgid, long timeoutMs) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (processGroupAlive(pgid)) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace hdstest
