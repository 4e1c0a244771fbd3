#include "hds/platform/VtProcess.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "hds/platform/internal/PlatformInternal.h"

extern char** environ;

namespace {

// How long a child that has exited may still hold us reading: a background process it left
// behind (a daemon it started, say) can keep the pipes open for ever.
constexpr long kDrainAfterExitMs = 200;
// Between SIGTERM and SIGKILL for the group of a child that timed out.
constexpr long kTermGraceMs = 100;
constexpr size_t kReadChunk = 1 << 16;
constexpr size_t kHugePage = 2 << 20;
constexpr size_t kHugeAdviceFrom = 8 << 20;

long long nowMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void closeFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Keeps a descriptor off 0..2, where dup2 onto itself would leave it close-on-exec in the child.
int moveAboveStdio(int fd) {
  if (fd > 2) return fd;
  int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  close(fd);
  return moved;
}

int openPipe(int fds[2]) {
  if (pipe2(fds, O_CLOEXEC) != 0) return errno;
  fds[0] = moveAboveStdio(fds[0]);
  fds[1] = moveAboveStdio(fds[1]);
  if (fds[0] < 0 || fds[1] < 0) {
    int err = errno;
    closeFd(fds[0]);
    closeFd(fds[1]);
    return err;
  }
  return 0;
}

int openPidFd(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  errno = ENOSYS;
  return -1;
#endif
}

int decodeStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Waits up to ms (or for ever when ms < 0) for a pidfd to report the end of its process.
bool waitPidFd(int pidFd, long long ms) {
  long long deadline = ms < 0 ? -1 : nowMs() + ms;
  for (;;) {
    int timeout = -1;
    if (deadline >= 0) {
      long long left = deadline - nowMs();
      if (left <= 0) return false;
      timeout = static_cast<int>(left);
    }
    pollfd p = {pidFd, POLLIN, 0};
    int n = poll(&p, 1, timeout);
    if (n > 0) return true;
    if (n < 0 && errno != EINTR) return false;
  }
}

}  // namespace

struct VtProcess::Impl {
  bool bTrapOut = true;
  bool bTrapErr = true;
  bool bSilent = false;
  pid_t iPid = -1;
  int iPidFd = -1;
  int iOutFd = -1;
  int iErrFd = -1;
  bool bEnded = false;  // reaped, or known to be gone
  bool bStatusKnown = false;
  int iExitCode = -1;
  std::string sOut;
  std::string sErr;
  std::unique_ptr<char[]> pChunk;

  bool start(char* const argv[], std::string* error);
  bool wait(int* exitCode, std::string* error, long timeoutMs);
  void readSome(int& fd, std::string& buf);
  bool reap(bool block);
  void killGroupAndReap();
};

bool VtProcess::Impl::start(char* const argv[], std::string* error) {
  auto fail = [&](const std::string& what, int err) {
    if (error != nullptr) *error = what + ": " + hds::platform::errnoText(err);
    return false;
  };
  if (iPid > 0) return fail("A process was already started", EBUSY);
  if (argv == nullptr || argv[0] == nullptr) return fail("No program to start", EINVAL);

  int outPipe[2] = {-1, -1};
  int errPipe[2] = {-1, -1};
  int err = 0;
  if (bTrapOut && (err = openPipe(outPipe)) != 0) return fail("Failed to create a pipe", err);
  if (bTrapErr && (err = openPipe(errPipe)) != 0) {
    closeFd(outPipe[0]);
    closeFd(outPipe[1]);
    return fail("Failed to create a pipe", err);
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  if (bTrapOut)
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  else if (bSilent)
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  if (bTrapErr)
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  else if (bSilent)
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  // Descriptors the host opened without close-on-exec must not reach the tools either.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);

  // The child starts a process group of its own, with no blocked signals and every disposition
  // at its default, whatever the host has done to its own signal state.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setflags(&attr,
                           POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawnattr_setpgroup(&attr, 0);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attr, &none);
  sigset_t all;
  sigfillset(&all);
  sigdelset(&all, SIGKILL);
  sigdelset(&all, SIGSTOP);
  posix_spawnattr_setsigdefault(&attr, &all);

  // CCI output is parsed as printed in the C locale.
  std::vector<char*> env;
  static char lcAll[] = "LC_ALL=C";
  for (char** e = environ; e != nullptr && *e != nullptr; ++e)
    if (strncmp(*e, "LC_ALL=", 7) != 0) env.push_back(*e);
  env.push_back(lcAll);
  env.push_back(nullptr);

  pid_t pid = -1;
  hds::platform::lockExecFilesShared();
  int rc = posix_spawn(&pid, argv[0], &actions, &attr, argv, env.data());
  hds::platform::unlockExecFilesShared();
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  closeFd(outPipe[1]);
  closeFd(errPipe[1]);
  if (rc != 0) {
    closeFd(outPipe[0]);
    closeFd(errPipe[0]);
    return fail(std::string("Failed to start [") + argv[0] + "]", rc);
  }
  iPid = pid;
  iOutFd = outPipe[0];
  iErrFd = errPipe[0];
  iPidFd = openPidFd(pid);
  bEnded = false;
  bStatusKnown = false;
  sOut.clear();
  sErr.clear();
  return true;
}

namespace {

// Grows buf to hold at least need bytes. Big outputs are costly mostly through the kernel
// zeroing fresh pages: past a few MiB the buffer grows eightfold (untouched capacity costs no
// memory, and the pages of outgrown buffers add up to an eighth of the output instead of all of
// it) and is advised onto huge pages before first use.
void reserveFor(std::string& buf, size_t need) {
  if (need <= buf.capacity()) return;
  size_t cap = std::max(need, buf.capacity() * 2);
  if (cap < kHugeAdviceFrom) {
    buf.reserve(cap);
    return;
  }
  cap = std::max(need, buf.capacity() * 8);
  std::string bigger;
  bigger.reserve(cap);
  uintptr_t begin = reinterpret_cast<uintptr_t>(&bigger[0]);
  uintptr_t first = (begin + kHugePage - 1) & ~(kHugePage - 1);
  uintptr_t last = (begin + cap) & ~(kHugePage - 1);
  if (last > first) madvise(&bigger[0] + (first - begin), last - first, MADV_HUGEPAGE);
  bigger.append(buf);
  buf.swap(bigger);
}

}  // namespace

void VtProcess::Impl::readSome(int& fd, std::string& buf) {
  // On the heap: the host's threads may have small stacks.
  if (!pChunk) pChunk.reset(new char[kReadChunk]);
  char* chunk = pChunk.get();
  ssize_t n;
  do {
    n = read(fd, chunk, kReadChunk);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) {
    closeFd(fd);
    return;
  }
  reserveFor(buf, buf.size() + static_cast<size_t>(n));
  buf.append(chunk, static_cast<size_t>(n));
}

// Collects the exit status. false while the child is still running (block == false only).
bool VtProcess::Impl::reap(bool block) {
  if (bEnded) return true;
  int status = 0;
  pid_t r;
  do {
    r = waitpid(iPid, &status, block ? 0 : WNOHANG);
  } while (r < 0 && errno == EINTR);
  if (r == 0) return false;
  bEnded = true;
  closeFd(iPidFd);
  if (r == iPid) {
    bStatusKnown = true;
    iExitCode = decodeStatus(status);
  }
  // r < 0 (ECHILD): the host reaps children itself or ignores SIGCHLD; the status is lost.
  return true;
}

void VtProcess::Impl::killGroupAndReap() {
  // The unreaped leader keeps the group id from being reused while we signal it.
  kill(-iPid, SIGTERM);
  if (iPidFd >= 0) {
    waitPidFd(iPidFd, kTermGraceMs);
  } else {
    long long until = nowMs() + kTermGraceMs;
    while (!reap(false) && nowMs() < until) {
      timespec ts = {0, 5 * 1000000L};
      nanosleep(&ts, nullptr);
    }
  }
  if (!bEnded) kill(-iPid, SIGKILL);
  reap(true);
}

bool VtProcess::Impl::wait(int* exitCode, std::string* error, long timeoutMs) {
  auto fail = [&](const std::string& text) {
    if (error != nullptr) *error = text;
    return false;
  };
  if (iPid <= 0) return fail("No process was started");
  long long deadline = timeoutMs > 0 ? nowMs() + timeoutMs : -1;
  bool exited = bEnded;
  long long drainUntil = exited ? nowMs() + kDrainAfterExitMs : -1;
  bool timedOut = false;

  while (iOutFd >= 0 || iErrFd >= 0 || !exited) {
    pollfd fds[3];
    int nfds = 0;
    int outIdx = -1, errIdx = -1, pidIdx = -1;
    if (iOutFd >= 0) {
      outIdx = nfds;
      fds[nfds++] = {iOutFd, POLLIN, 0};
    }
    if (iErrFd >= 0) {
      errIdx = nfds;
      fds[nfds++] = {iErrFd, POLLIN, 0};
    }
    if (!exited && iPidFd >= 0) {
      pidIdx = nfds;
      fds[nfds++] = {iPidFd, POLLIN, 0};
    }
    long long now = nowMs();
    long long until = deadline;
    if (exited && (until < 0 || drainUntil < until)) until = drainUntil;
    int timeout = -1;
    if (until >= 0) {
      if (now >= until) {
        timedOut = !exited;
        break;
      }
      timeout = static_cast<int>(std::min<long long>(until - now, INT_MAX));
    }
    // Without a pidfd (old kernels) the end of the child is noticed by asking now and then.
    if (!exited && iPidFd < 0 && (timeout < 0 || timeout > 20)) timeout = 20;
    int n = nfds > 0 ? poll(fds, static_cast<nfds_t>(nfds), timeout) : 0;
    if (nfds == 0 && timeout != 0) {
      timespec ts = {timeout / 1000, (timeout % 1000) * 1000000L};
      nanosleep(&ts, nullptr);
    }
    if (n < 0) {
      if (errno == EINTR) continue;
      return fail("Failed to wait for the process: " + hds::platform::errnoText(errno));
    }
    if (outIdx >= 0 && fds[outIdx].revents != 0) readSome(iOutFd, sOut);
    if (errIdx >= 0 && fds[errIdx].revents != 0) readSome(iErrFd, sErr);
    if (!exited && ((pidIdx >= 0 && fds[pidIdx].revents != 0) || (iPidFd < 0 && reap(false)))) {
      exited = true;
      drainUntil = nowMs() + kDrainAfterExitMs;
    }
  }
  closeFd(iOutFd);
  closeFd(iErrFd);

  if (timedOut) {
    killGroupAndReap();
    return fail("timedout");
  }
  reap(true);
  if (!bStatusKnown)
    return fail("Failed to get the exit status of process [" + std::to_string(iPid) + "]");
  if (exitCode != nullptr) *exitCode = iExitCode;
  return true;
}

VtProcess::VtProcess() : m_pImpl(new Impl) {}

VtProcess::~VtProcess() {
  if (m_pImpl->iPid > 0 && !m_pImpl->bEnded) {
    kill(-m_pImpl->iPid, SIGKILL);
    m_pImpl->reap(true);
  }
  closeFd(m_pImpl->iOutFd);
  closeFd(m_pImpl->iErrFd);
  closeFd(m_pImpl->iPidFd);
  delete m_pImpl;
}

void VtProcess::TrapIO(bool trapStdout, bool trapStderr) {
  m_pImpl->bTrapOut = trapStdout;
  m_pImpl->bTrapErr = trapStderr;
}

void VtProcess::SetSilence(bool silent) { m_pImpl->bSilent = silent; }

bool VtProcess::StartProcess(char* const argv[], std::string* error, int) {
  return m_pImpl->start(argv, error);
}

bool VtProcess::WaitForProcessToEnd(int* exitCode, std::string* error, int timeoutSec) {
  return m_pImpl->wait(exitCode, error, timeoutSec > 0 ? timeoutSec * 1000L : 0);
}

bool VtProcess::WaitForProcessToEndMs(int* exitCode, std::string* error, long timeoutMs) {
  return m_pImpl->wait(exitCode, error, timeoutMs);
}

void VtProcess::GetIO(std::string* out, std::string* err) {
  if (out != nullptr) *out = std::move(m_pImpl->sOut);
  if (err != nullptr) *err = std::move(m_pImpl->sErr);
  m_pImpl->sOut.clear();
  m_pImpl->sErr.clear();
}

int VtProcess::system(const char* cmd, std::string* out, std::string* err, int flags, bool trapIO) {
  if (cmd == nullptr) {
    if (err != nullptr) *err = "No command given";
    return -1;
  }
  TrapIO(trapIO, trapIO);
  std::string line(cmd);
  char sh[] = "/bin/sh";
  char dashC[] = "-c";
  char* argv[] = {sh, dashC, &line[0], nullptr};
  std::string error;
  if (!StartProcess(argv, &error, flags)) {
    if (err != nullptr) *err = error;
    return -1;
  }
  int code = -1;
  if (!WaitForProcessToEndMs(&code, &error, 0)) {
    if (err != nullptr) *err = error;
    return -1;
  }
  GetIO(out, err);
  return code;
}

pid_t VtProcess::pid() const { return m_pImpl->iPid; }

namespace {
std::atomic<VtProcessObserver> g_pObserver{nullptr};
std::atomic<void*> g_pObserverContext{nullptr};
}  // namespace

void VtSetProcessObserver(VtProcessObserver observer, void* context) {
  g_pObserver.store(nullptr, std::memory_order_release);
  g_pObserverContext.store(context, std::memory_order_release);
  g_pObserver.store(observer, std::memory_order_release);
}

VtProcessObserver VtGetProcessObserver(void** context) {
  VtProcessObserver observer = g_pObserver.load(std::memory_order_acquire);
  if (context != nullptr) *context = g_pObserverContext.load(std::memory_order_acquire);
  return observer;
}
