// The command runner against the bare cost of starting a shell: CommandHelper's own work (argument
// vector, logging, printable command line, settings lookup) should add little to a spawn.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "hds/helper/CommandHelper.h"
#include "hds/platform/SnapInfo.h"
#include "hds/platform/VtProcess.h"

extern char** environ;

namespace {

// The runner reads the client settings on every command; point it at an empty private file.
class BenchEnvironment {
 public:
  BenchEnvironment() {
    char pattern[] = "/tmp/hds_core_bench_XXXXXX";
    if (mkdtemp(pattern) != nullptr) m_sDir = pattern;
    setenv("HDS_SETTINGS_FILE", (m_sDir + "/settings.conf").c_str(), 1);
    setenv("HDS_LOCK_DIR", (m_sDir + "/lock").c_str(), 1);
    setenv("HDS_TEMP_DIR", (m_sDir + "/tmp").c_str(), 1);
  }
  ~BenchEnvironment() {
    if (!m_sDir.empty()) rmdir(m_sDir.c_str());
  }

 private:
  std::string m_sDir;
};

BenchEnvironment g_environment;

void BM_BarePosixSpawnShellTrue(benchmark::State& state) {
  char sh[] = "/bin/sh";
  char dashC[] = "-c";
  char command[] = "true";
  char* argv[] = {sh, dashC, command, nullptr};
  for (auto _ : state) {
    pid_t pid = -1;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) != 0) {
      state.SkipWithError("posix_spawn failed");
      break;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    benchmark::DoNotOptimize(status);
  }
}

void BM_RunCommandWithTimeoutTrue(benchmark::State& state) {
  BasicSnapInfo snapInfo;
  CommandHelper helper(snapInfo);
  std::string output, error;
  int exitCode = -1;
  for (auto _ : state) {
    if (helper.RunCommandWithTimeout("true", output, exitCode, error, 60) != 0 || exitCode != 0) {
      state.SkipWithError("run failed");
      break;
    }
  }
}

// The platform runner alone, to tell its share from the helper's.
void BM_VtProcessTrue(benchmark::State& state) {
  char sh[] = "/bin/sh";
  char dashC[] = "-c";
  char command[] = "true";
  char* argv[] = {sh, dashC, command, nullptr};
  for (auto _ : state) {
    VtProcess process;
    process.TrapIO(true, true);
    std::string output, error;
    int exitCode = -1;
    if (!process.StartProcess(argv, &error, 0) ||
        !process.WaitForProcessToEnd(&exitCode, &error, 60)) {
      state.SkipWithError("run failed");
      break;
    }
    process.GetIO(&output, &error);
  }
}

void BM_BuildCommandToPrint(benchmark::State& state) {
  BasicSnapInfo snapInfo;
  CommandHelper helper(snapInfo);
  const std::string line = "/HORCM/usr/bin/raidcom  get ldev -ldev_id 4660 -IM3532 -s 412345";
  for (auto _ : state) benchmark::DoNotOptimize(helper.buildCommandToPrint(line, ""));
}

// Compare medians; run with --benchmark_enable_random_interleaving=true so that every variant
// sees the same machine load.
BENCHMARK(BM_BarePosixSpawnShellTrue)->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(BM_VtProcessTrue)->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(BM_RunCommandWithTimeoutTrue)->Repetitions(9)->ReportAggregatesOnly(true);
BENCHMARK(BM_BuildCommandToPrint);

}  // namespace

BENCHMARK_MAIN();
