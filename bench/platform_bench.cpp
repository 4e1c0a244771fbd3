// Platform services against their bare system-call equivalents, measured in the same run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "hds/platform/VtNamedMutex.h"
#include "hds/platform/VtProcess.h"

extern char** environ;

namespace {

const char kCaptureBytes[] = "268435456";

double monotonicSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

// A lock directory of the benchmark's own, removed at exit.
struct BenchLockDir {
  std::string sPath;
  BenchLockDir() {
    char tmpl[] = "/tmp/hdsbench.XXXXXX";
    sPath = mkdtemp(tmpl);
    setenv("HDS_LOCK_DIR", sPath.c_str(), 1);
  }
  ~BenchLockDir() {
    std::string cmd = "rm -rf '" + sPath + "'";
    if (::system(cmd.c_str()) != 0) {
    }
  }
};
BenchLockDir g_lockDir;

void BM_VtProcess_ShTrue(benchmark::State& state) {
  for (auto _ : state) {
    VtProcess proc;
    proc.TrapIO(true, true);
    proc.SetSilence(true);
    char sh[] = "/bin/sh", c[] = "-c", line[] = "true";
    char* argv[] = {sh, c, line, nullptr};
    std::string error, out, err;
    int code = -1;
    if (!proc.StartProcess(argv, &error, 0) || !proc.WaitForProcessToEnd(&code, &error, 60))
      state.SkipWithError(error.c_str());
    proc.GetIO(&out, &err);
    benchmark::DoNotOptimize(code);
  }
}
BENCHMARK(BM_VtProcess_ShTrue)->Unit(benchmark::kMicrosecond);

void BM_BarePosixSpawn_ShTrue(benchmark::State& state) {
  for (auto _ : state) {
    char sh[] = "/bin/sh", c[] = "-c", line[] = "true";
    char* argv[] = {sh, c, line, nullptr};
    pid_t pid;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) != 0) {
      state.SkipWithError("posix_spawn");
      break;
    }
    int status;
    waitpid(pid, &status, 0);
  }
}
BENCHMARK(BM_BarePosixSpawn_ShTrue)->Unit(benchmark::kMicrosecond);

void BM_VtProcess_Capture256MiB(benchmark::State& state) {
  for (auto _ : state) {
    VtProcess proc;
    char head[] = "/usr/bin/head", c[] = "-c", n[sizeof(kCaptureBytes)], zero[] = "/dev/zero";
    memcpy(n, kCaptureBytes, sizeof(kCaptureBytes));
    char* argv[] = {head, c, n, zero, nullptr};
    std::string error, out, err;
    int code = -1;
    if (!proc.StartProcess(argv, &error, 0) || !proc.WaitForProcessToEnd(&code, &error, 120))
      state.SkipWithError(error.c_str());
    proc.GetIO(&out, &err);
    if (out.size() != 268435456u) state.SkipWithError("short capture");
  }
  state.SetBytesProcessed(state.iterations() * 268435456LL);
}
BENCHMARK(BM_VtProcess_Capture256MiB)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_PlainReadLoop_256MiB(benchmark::State& state) {
  static char buf[1 << 16];
  for (auto _ : state) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) break;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
    char head[] = "/usr/bin/head", c[] = "-c", n[sizeof(kCaptureBytes)], zero[] = "/dev/zero";
    memcpy(n, kCaptureBytes, sizeof(kCaptureBytes));
    char* argv[] = {head, c, n, zero, nullptr};
    pid_t pid;
    int rc = posix_spawn(&pid, head, &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    close(fds[1]);
    if (rc != 0) {
      close(fds[0]);
      state.SkipWithError("posix_spawn");
      break;
    }
    size_t total = 0;
    std::string kept;
    ssize_t got;
    while ((got = read(fds[0], buf, sizeof(buf))) > 0) {
      total += static_cast<size_t>(got);
      if (state.range(0) != 0) kept.append(buf, static_cast<size_t>(got));
    }
    close(fds[0]);
    int status;
    waitpid(pid, &status, 0);
    benchmark::DoNotOptimize(total);
  }
  state.SetBytesProcessed(state.iterations() * 268435456LL);
}
// Arg 0 discards what it reads; arg 1 keeps it in a string, as a capture must.
BENCHMARK(BM_PlainReadLoop_256MiB)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_NamedMutex_LockUnlock(benchmark::State& state) {
  VtNamedMutex m("VT_HDS_BENCH_UNCONTENDED");
  for (auto _ : state) {
    if (!m.lock(5000)) state.SkipWithError(m.lastError().c_str());
    m.unlock();
  }
}
BENCHMARK(BM_NamedMutex_LockUnlock)->Unit(benchmark::kMicrosecond);

// The way a scoped guard uses it: a new object for every lock.
void BM_NamedMutex_ConstructLockUnlock(benchmark::State& state) {
  for (auto _ : state) {
    VtNamedMutex m("VT_HDS_BENCH_UNCONTENDED");
    if (!m.lock(5000)) state.SkipWithError(m.lastError().c_str());
    m.unlock();
  }
}
BENCHMARK(BM_NamedMutex_ConstructLockUnlock)->Unit(benchmark::kMicrosecond);

// Time from the holder's unlock to the moment a process blocked in lock() holds the mutex.
struct Handover {
  std::atomic<int> iRound;    // set by the parent: the child may start waiting for this round
  std::atomic<int> iWaiting;  // set by the child: about to block for this round
  std::atomic<int> iDone;     // set by the child: acquired and released this round
  std::atomic<bool> bStop;
  double dReleasedAt;
  double dLatency;
};

void BM_NamedMutex_HandoverToProcess(benchmark::State& state) {
  void* mem =
      mmap(nullptr, sizeof(Handover), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Handover* h = new (mem) Handover{};
  VtNamedMutex holder("VT_HDS_BENCH_HANDOVER");
  holder.lock(5000);
  pid_t child = fork();
  if (child == 0) {
    VtNamedMutex waiter("VT_HDS_BENCH_HANDOVER");
    for (int round = 1;; ++round) {
      while (h->iRound.load() < round)
        if (h->bStop.load()) _exit(0);
      h->iWaiting.store(round);
      if (!waiter.lock(60000)) _exit(1);
      h->dLatency = monotonicSeconds() - h->dReleasedAt;
      waiter.unlock();
      h->iDone.store(round);
    }
  }
  int round = 0;
  for (auto _ : state) {
    ++round;
    h->iRound.store(round);
    while (h->iWaiting.load() < round) std::this_thread::yield();
    // Give the child time to block in the kernel, so that the wake-up is what is measured.
    timespec pause = {0, 2000000};
    nanosleep(&pause, nullptr);
    h->dReleasedAt = monotonicSeconds();
    holder.unlock();
    while (h->iDone.load() < round) std::this_thread::yield();
    state.SetIterationTime(h->dLatency);
    holder.lock(5000);
  }
  h->bStop.store(true);
  holder.unlock();
  int status;
  waitpid(child, &status, 0);
  munmap(mem, sizeof(Handover));
}
BENCHMARK(BM_NamedMutex_HandoverToProcess)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
