// The demo's snapshot job of 64 P-VOLs on the simulated array, run by hdsctl as an operator runs
// it: the share of the job's wall time spent outside the CCI tools (in the library, hdsctl, and
// the job's waits for the array) is reported as outside_pct; the goal is at most 2 %.
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <unistd.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "hds/platform/VtProcess.h"

namespace {

const std::string kHdsctl = HDS_BENCH_BINARY_DIR "/tools/hdsctl/hdsctl";

nlohmann::json runDemo(const std::string& dir) {
  std::string program = kHdsctl, demo = "demo", pvols = "--pvols", count = "64", json = "--json",
              dirOption = "--dir", where = dir;
  char* argv[] = {&program[0], &demo[0],      &pvols[0], &count[0],
                  &json[0],    &dirOption[0], &where[0], nullptr};
  VtProcess process;
  process.TrapIO(true, true);
  std::string error, out, err;
  int code = -1;
  if (!process.StartProcess(argv, &error, 0)) throw std::runtime_error("hdsctl: " + error);
  bool ended = process.WaitForProcessToEnd(&code, &error, 1800);
  process.GetIO(&out, &err);
  if (!ended || code != 0) throw std::runtime_error("hdsctl demo failed: " + err);
  return nlohmann::json::parse(out);
}

void BM_DemoJob64Pvols(benchmark::State& state) {
  double seconds = 0, tools = 0, calls = 0;
  for (auto _ : state) {
    char tmpl[] = "/tmp/job_accounting_bench.XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    nlohmann::json summary = runDemo(tmpl);
    nftw(
        tmpl, [](const char* p, const struct stat*, int, struct FTW*) { return remove(p); }, 8,
        FTW_DEPTH | FTW_PHYS);
    seconds += summary["seconds"].get<double>();
    tools += summary["toolSeconds"].get<double>();
    calls += summary["cciCalls"].get<double>();
  }
  state.counters["job_s"] = benchmark::Counter(seconds, benchmark::Counter::kAvgIterations);
  state.counters["tools_s"] = benchmark::Counter(tools, benchmark::Counter::kAvgIterations);
  state.counters["cci_calls"] = benchmark::Counter(calls, benchmark::Counter::kAvgIterations);
  state.counters["outside_pct"] = seconds > 0 ? 100.0 * (seconds - tools) / seconds : 0;
}
BENCHMARK(BM_DemoJob64Pvols)->Unit(benchmark::kSecond)->Iterations(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
