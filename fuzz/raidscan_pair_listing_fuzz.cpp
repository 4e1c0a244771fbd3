// parseRaidscanPairOutput over arbitrary text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

namespace {

// LDEV ids that a mutated raidscan line can hit: short numbers, as the seeds carry them.
std::vector<hdsLdev_t> fuzzLdevs() {
  std::vector<hdsLdev_t> ldevs(3);
  ldevs[0].ldevId = "4660";
  ldevs[1].ldevId = "4661";
  ldevs[2].ldevId = "1";
  return ldevs;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::map<int, std::vector<hdsPairStatus_t>> pairs;
  parseRaidscanPairOutput(input, fuzzLdevs(), pairs);
  return 0;
}
