// Wall time of 1, 8 and 32 `hdsctl job` runs at once on one simulated array, each a demo-sized
// job (16 P-VOLs of its own, S-VOL numbers chosen by the job, presented on a host group of its
// own). The counter "vs_one_after_another" is that time over N times the time of one job alone:
// below 1 the host gains from running them together, at 1 they are in effect serialised.
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "hds/platform/VtProcess.h"

namespace {

const std::string kCcisim = HDS_BENCH_BINARY_DIR "/sim/ccisim";
const std::string kHdsctl = HDS_BENCH_BINARY_DIR "/tools/hdsctl/hdsctl";
constexpr int kPvolsPerJob = 16;

std::unique_ptr<VtProcess> start(const std::string& line) {
  std::string sh = "/bin/sh", c = "-c", cmd = line;
  char* argv[] = {&sh[0], &c[0], &cmd[0], nullptr};
  std::unique_ptr<VtProcess> process(new VtProcess);
  process->TrapIO(true, true);
  std::string error;
  if (!process->StartProcess(argv, &error, 0)) throw std::runtime_error("cannot start " + line);
  return process;
}

int finish(VtProcess& process) {
  int code = -1;
  std::string error;
  if (!process.WaitForProcessToEndMs(&code, &error, 30L * 60 * 1000)) return -1;
  return code;
}

// A host and a simulated array with room for `jobs` demo-sized jobs, in a temporary directory.
class Host {
 public:
  explicit Host(int jobs) {
    char tmpl[] = "/tmp/job_bench.XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    m_sRoot = tmpl;
    for (const char* sub : {"/cci", "/horcm", "/lock", "/tmp", "/etc"}) {
      mkdir((m_sRoot + sub).c_str(), 0755);
    }
    setenv("CCISIM_STATE", (m_sRoot + "/ccisim.db").c_str(), 1);
    setenv("HDS_LOCK_DIR", (m_sRoot + "/lock").c_str(), 1);
    setenv("HDS_TEMP_DIR", (m_sRoot + "/tmp").c_str(), 1);
    setenv("HDS_HORCM_DIR", (m_sRoot + "/horcm/").c_str(), 1);
    setenv("HDS_SETTINGS_FILE", (m_sRoot + "/etc/settings.conf").c_str(), 1);
    setenv("HDS_CLIENT_NAME", "bench", 1);
    std::ofstream(m_sRoot + "/etc/settings.conf")
        << "[iHarbor]\nsVTHDSHorcmDirectory = " << m_sRoot << "/cci/\n";
    const std::string last = std::to_string(99 + jobs * kPvolsPerJob);
    for (const std::string& step : {kCcisim + " install " + m_sRoot + "/cci",
                                    kCcisim + " init --ldevs 100-" + last + " --copy-ms 0"}) {
      auto p = start(step + " >/dev/null");
      if (finish(*p) != 0) throw std::runtime_error("setup failed: " + step);
    }
    for (int j = 0; j < jobs; ++j) {
      std::string pvols;
      for (int i = 0; i < kPvolsPerJob; ++i) {
        pvols += (i ? ", " : "") + std::to_string(100 + j * kPvolsPerJob + i);
      }
      std::ofstream(file(j)) << "{\"name\": \"b" << j
                             << "\", \"array\": {\"serial\": \"412345\", \"user\": \"admin\", "
                                "\"password\": \"admin123\", \"command_devices\": [\"/dev/sdc\"]}, "
                                "\"pool\": 0, \"pvols\": ["
                             << pvols << "], \"present\": {\"port\": \"CL1-A\", \"host_group\": "
                             << "\"HG_b" << j << "\"}}";
    }
  }
  ~Host() {
    nftw(
        m_sRoot.c_str(),
        [](const char* p, const struct stat*, int, struct FTW*) { return remove(p); }, 8,
        FTW_DEPTH | FTW_PHYS);
  }
  std::string file(int job) const { return m_sRoot + "/job" + std::to_string(job) + ".json"; }

  // Seconds for these jobs at once; throws when one fails.
  double runAtOnce(int jobs) const {
    const auto begin = std::chrono::steady_clock::now();
    std::vector<std::unique_ptr<VtProcess>> runs;
    runs.reserve(static_cast<size_t>(jobs));
    for (int j = 0; j < jobs; ++j)
      runs.push_back(start(kHdsctl + " job " + file(j) + " >/dev/null"));
    for (auto& r : runs) {
      if (finish(*r) != 0) throw std::runtime_error("a job failed");
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  }

 private:
  std::string m_sRoot;
};

double g_dOneJobSeconds = 0;

void BM_ConcurrentJobs(benchmark::State& state) {
  const int jobs = static_cast<int>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    Host host(jobs);
    state.ResumeTiming();
    const double seconds = host.runAtOnce(jobs);
    state.SetIterationTime(seconds);
    if (jobs == 1) g_dOneJobSeconds = seconds;
    if (g_dOneJobSeconds > 0) {
      state.counters["vs_one_after_another"] = seconds / (jobs * g_dOneJobSeconds);
    }
  }
}

BENCHMARK(BM_ConcurrentJobs)
    ->Arg(1)
    ->Arg(8)
    ->Arg(32)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
