// parseGetSnapshotGroupOutput over arbitrary text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<hdsSnapshotGroupInfo> pairs;
  parseGetSnapshotGroupOutput(std::string(reinterpret_cast<const char*>(data), size), pairs);
  return 0;
}
