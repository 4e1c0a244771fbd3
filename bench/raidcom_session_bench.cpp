// Cost of the raidcom session layer around the commands themselves: a handler's life when it
// joins a session another process holds (named lock and settings store only), the first
// handler's life (HORCM file, instance start, -login and -logout through fake tools), the
// per-process share of a resource group lock, and the resource listing parser.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "hds/platform/SnapInfo.h"
#include "hds/platform/VTPlatformInfo.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

namespace {

void writeTextFile(const std::string& path, const std::string& text, mode_t mode) {
  std::ofstream(path) << text;
  chmod(path.c_str(), mode);
}

// A private root with every HDS_* location inside it and silent fake CCI tools. It lives for the
// whole benchmark process and is removed at exit.
struct BenchRoot {
  BenchRoot() {
    char pattern[] = "/tmp/hds_raidcom_bench_XXXXXX";
    root = mkdtemp(pattern);
    for (const char* sub : {"/lock", "/etc", "/tmp", "/horcm", "/cci"}) {
      mkdir((root + sub).c_str(), 0700);
    }
    setenv("HDS_LOCK_DIR", (root + "/lock").c_str(), 1);
    setenv("HDS_SETTINGS_FILE", (root + "/etc/settings.conf").c_str(), 1);
    setenv("HDS_TEMP_DIR", (root + "/tmp").c_str(), 1);
    setenv("HDS_HORCM_DIR", (root + "/horcm/").c_str(), 1);
    const std::string cci = root + "/cci/";
    writeTextFile(cci + "raidqry",
                  "#!/bin/sh\ncase \"$1\" in -l) printf 'No Group Hostname\\n 1 --- host 01 0 "
                  "412345 93-07-22/00 1024\\n';; *) echo 'Ver&Rev: 01-39-03/03';; esac\n",
                  0755);
    writeTextFile(cci + "horcmstart.sh", "#!/bin/sh\necho started successfully\n", 0755);
    writeTextFile(cci + "raidcom",
                  "#!/bin/sh\n[ \"$1_$2\" = get_resource ] && printf 'RS_GROUP RGID stat "
                  "Lock_owner Lock_host Serial#\\nmeta_resource 0 Unlocked - - 412345\\n'\n"
                  "exit 0\n",
                  0755);
    VTPlatformInfo::setString("iHarbor", "sVTHDSHorcmDirectory", cci);
    VTPlatformInfo::setString("iHarbor", "sClientHostName", "benchhost");
  }
  ~BenchRoot() { std::system(("rm -rf '" + root + "'").c_str()); }

  HDSCLIInitParam param() const {
    HDSCLIInitParam p;
    p.serialNumber = "412345";
    p.userName = "bench";
    p.password = "pw";
    p.operationType = 1;
    p.commandDevices = {"/dev/sdc"};
    return p;
  }

  std::string root;
  BasicSnapInfo log;
};

BenchRoot& benchRoot() {
  static BenchRoot root;
  return root;
}

void setLoginCount(int count) {
  VTPlatformInfo::setRegInt("~iHarbor", "sVTHDSRaidcomLockCount_412345", count);
}

void BM_JoinSharedSession(benchmark::State& state) {
  BenchRoot& root = benchRoot();
  setLoginCount(1);
  { RaidcomCommandHandler warm(root.log, root.param()); }
  for (auto _ : state) {
    RaidcomCommandHandler handler(root.log, root.param());
    benchmark::DoNotOptimize(handler.getArrayLockTimeoutVal());
  }
}
BENCHMARK(BM_JoinSharedSession)->Unit(benchmark::kMillisecond);

void BM_FirstAndLastSession(benchmark::State& state) {
  BenchRoot& root = benchRoot();
  setLoginCount(0);
  for (auto _ : state) {
    RaidcomCommandHandler handler(root.log, root.param());
    benchmark::DoNotOptimize(handler.getArrayLockTimeoutVal());
  }
}
BENCHMARK(BM_FirstAndLastSession)->Unit(benchmark::kMillisecond);

void BM_ShareResourceLockInProcess(benchmark::State& state) {
  BenchRoot& root = benchRoot();
  setLoginCount(1);
  RaidcomCommandHandler holder(root.log, root.param());
  RaidcomCommandHandler sharer(root.log, root.param());
  if (holder.lockResource() != 0) state.SkipWithError("lock failed");
  for (auto _ : state) {
    sharer.lockResource();
    sharer.unlockResource();
  }
  holder.unlockResource();
}
BENCHMARK(BM_ShareResourceLockInProcess)->Unit(benchmark::kMicrosecond);

void BM_ParseResourceListing(benchmark::State& state) {
  std::string output =
      "RS_GROUP            RGID   stat      Lock_owner     Lock_host      Serial#\n";
  for (int i = 0; i < state.range(0); ++i) {
    output += "rsg " + std::to_string(i) +
              "                 7   Locked    admin          Storage Navigator 412345\n";
  }
  for (auto _ : state) {
    std::map<std::string, ResourceGroupStatus> groups;
    parseGetResourceOutput(output, groups);
    benchmark::DoNotOptimize(groups.size());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ParseResourceListing)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();
