// The largest listings a port produces: 255 host groups with names of several words, and a
// raidscan of 2048 LUs of which the caller asks about 256 P-VOLs.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

namespace {

std::string hostGroupListing() {
  std::string text = "PORT   GID  GROUP_NAME                       Serial# HMD          HMO_BITs\n";
  char line[160];
  for (int gid = 0; gid < 255; ++gid) {
    std::snprintf(line, sizeof(line), "CL1-A  %3d  esx cluster %-20d 412345 VMWARE_EX    54 63\n",
                  gid, gid);
    text += line;
  }
  return text;
}

std::string raidscanListing() {
  std::string text =
      "PORT#   /ALPA/C TID# LU#  MU#  Seq#   Num CM LDEV# P/S   Status Fence  P-Seq# P-LDEV# "
      "VOL_ATTR\n";
  char line[200];
  for (int lu = 0; lu < 2048; ++lu) {
    std::snprintf(line, sizeof(line),
                  "CL1-A-3 ef 0    0 %4d    0   412345   1  - %5d P-VOL PAIR   NEVER  412346 "
                  "%5d HORC\n",
                  lu, 4000 + lu, 8000 + lu);
    text += line;
  }
  return text;
}

void BM_HostGroupListing(benchmark::State& state) {
  const std::string text = hostGroupListing();
  for (auto _ : state) {
    hdsPort_t port;
    parseGetHostGroupOutput(text, "412345", port);
    benchmark::DoNotOptimize(port.hostGroups.data());
  }
  state.SetItemsProcessed(state.iterations() * 255);
}
BENCHMARK(BM_HostGroupListing);

void BM_RaidscanPairListing(benchmark::State& state) {
  const std::string text = raidscanListing();
  std::vector<hdsLdev_t> ldevs(256);
  for (size_t i = 0; i < ldevs.size(); ++i) ldevs[i].ldevId = std::to_string(4000 + 8 * i);
  for (auto _ : state) {
    std::map<int, std::vector<hdsPairStatus_t>> pairs;
    parseRaidscanPairOutput(text, ldevs, pairs);
    benchmark::DoNotOptimize(pairs.size());
  }
  state.SetItemsProcessed(state.iterations() * 2048);
}
BENCHMARK(BM_RaidscanPairListing);

}  // namespace

BENCHMARK_MAIN();
