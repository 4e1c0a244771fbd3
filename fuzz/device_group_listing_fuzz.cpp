// The two device group listing parsers over arbitrary text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> groups;
  parseGetDeviceGroupListOutput(input, groups);
  std::vector<hdsLdev_t> ldevs;
  parseGetDeviceGroupOutput(input, ldevs);
  return 0;
}
