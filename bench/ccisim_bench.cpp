// Cost of one simulated `raidcom get port`, spawned through /bin/sh -c as the library spawns CCI
// tools, against a bare `/bin/sh -c true` spawn in the same run. Both go through the library's
// process runner; the ratio of the medians is printed at the end.
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "hds/platform/VtProcess.h"

namespace {

const std::string kCcisim = HDS_BENCH_BINARY_DIR "/sim/ccisim";

int spawn(const std::string& line) {
  std::string sh = "/bin/sh", c = "-c", cmd = line;
  char* argv[] = {&sh[0], &c[0], &cmd[0], nullptr};
  VtProcess process;
  process.TrapIO(true, true);
  std::string error;
  int code = -1;
  if (!process.StartProcess(argv, &error, 0)) return -1;
  if (!process.WaitForProcessToEndMs(&code, &error, 30000)) return -1;
  return code;
}

// A simulated array in a temporary directory, with instance 3532 started and logged in.
class Array {
 public:
  Array() {
    char tmpl[] = "/tmp/ccisim_bench.XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    m_sRoot = tmpl;
    setenv("CCISIM_STATE", (m_sRoot + "/state.db").c_str(), 1);
    setenv("HDS_HORCM_DIR", (m_sRoot + "/").c_str(), 1);
    std::ofstream(m_sRoot + "/horcm3532.conf")
        << "HORCM_MON\nbench\t\t3532\t1000           3000\n\nHORCM_CMD\n#\\\\.\\CMD-412345\n"
           "\\\\.\\CMD-412345:/dev/sdc \n";
    for (const std::string& step : {kCcisim + " install " + m_sRoot + "/cci", kCcisim + " init",
                                    m_sRoot + "/cci/horcmstart.sh 3532",
                                    m_sRoot + "/cci/raidcom -login admin admin123 -IM3532"}) {
      if (spawn(step + " >/dev/null") != 0) throw std::runtime_error("setup failed: " + step);
    }
  }
  ~Array() {
    nftw(
        m_sRoot.c_str(),
        [](const char* p, const struct stat*, int, struct FTW*) { return remove(p); }, 8,
        FTW_DEPTH | FTW_PHYS);
  }
  std::string getPort() const { return m_sRoot + "/cci/raidcom get port -IM3532 -s 412345"; }

 private:
  std::string m_sRoot;
};

Array* g_pArray = nullptr;

void BM_ShTrue(benchmark::State& state) {
  for (auto _ : state) {
    if (spawn("true") != 0) state.SkipWithError("sh -c true failed");
  }
}

void BM_RaidcomGetPort(benchmark::State& state) {
  std::string line = g_pArray->getPort() + " >/dev/null";
  for (auto _ : state) {
    if (spawn(line) != 0) state.SkipWithError("raidcom get port failed");
  }
}

BENCHMARK(BM_ShTrue)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_RaidcomGetPort)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->Repetitions(9)
    ->ReportAggregatesOnly(true);

// Keeps the median of each benchmark while printing as usual.
class MedianReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.aggregate_name == "median") {
        m_oMedians[run.run_name.function_name] = run.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> m_oMedians;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Array array;
  g_pArray = &array;
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double sh = reporter.m_oMedians["BM_ShTrue"];
  double getPort = reporter.m_oMedians["BM_RaidcomGetPort"];
  if (sh > 0 && getPort > 0) {
    std::printf(
        "median /bin/sh -c true: %.0f us; median raidcom get port: %.0f us; ratio %.2f "
        "(limit 4)\n",
        sh, getPort, getPort / sh);
  }
  benchmark::Shutdown();
  return 0;
}
