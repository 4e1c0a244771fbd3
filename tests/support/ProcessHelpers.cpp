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

namespace {

struct ProcStat {
  pid_t pid;
  std::string name;
  char state;
  long ppid, pgrp;
};

// Every process /proc shows, with the fields of its stat line the helpers here need.
std::vector<ProcStat> processes() {
  std::vector<ProcStat> all;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return all;
  while (dirent* e = readdir(proc)) {
    if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
    std::ifstream in(std::string("/proc/") + e->d_name + "/stat");
    std::string line;
    if (!std::getline(in, line)) continue;
    // The command is parenthesised and may hold blanks; state, ppid and pgrp follow it.
    const size_t open = line.find('('), close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos) continue;
    ProcStat p{static_cast<pid_t>(atol(e->d_name)), line.substr(open + 1, close - open - 1), 0, 0,
               0};
    if (sscanf(line.c_str() + close + 1, " %c %ld %ld", &p.state, &p.ppid, &p.pgrp) == 3) {
      all.push_back(p);
    }
  }
  closedir(proc);
  return all;
}

std::map<int, std::string> openDescriptors() {
  std::map<int, std::string> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return fds;
  while (dirent* e = readdir(dir)) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9' || atoi(e->d_name) == dirfd(dir)) continue;
    char target[512] = {};
    const ssize_t n = readlinkat(dirfd(dir), e->d_name, target, sizeof(target) - 1);
    fds[atoi(e->d_name)] = n > 0 ? std::string(target, n) : "?";
  }
  closedir(dir);
  return fds;
}

}  // namespace

bool processGroupAlive(pid_t pgid) {
  for (const ProcStat& p : processes()) {
    if (p.pgrp == pgid && p.state != 'Z' && p.state != 'X') return true;
  }
  return false;
}

NoLeaks::NoLeaks() : m_fds(openDescriptors()) {
  for (const ProcStat& p : processes()) {
    if (p.ppid == getpid()) m_children.insert(p.pid);
  }
}

std::string NoLeaks::leaks() const {
  std::string found;
  for (const auto& [fd, target] : openDescriptors()) {
    const auto before = m_fds.find(fd);
    if (before == m_fds.end() || before->second != target) {
      found += "fd " + std::to_string(fd) + " -> " + target + "\n";
    }
  }
  for (const ProcStat& p : processes()) {
    if (p.ppid == getpid() && m_children.count(p.pid) == 0) {
      found += "child " + std::to_string(p.pid) + " (" + p.name + ") state " + p.state + "\n";
    }
  }
  return found;
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
