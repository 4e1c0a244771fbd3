// parsePortList over an arbitrary PORTs line.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<hdsLun_t> luns;
  parsePortList(input, luns);
  return 0;
}
