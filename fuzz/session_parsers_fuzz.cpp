// The HORCM files and resource listings the raidcom session reads, fed arbitrary text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::set<std::string> serials;
  parseHorcmFileSerials(text, serials);
  std::map<std::string, ResourceGroupStatus> groups;
  parseGetResourceOutput(text, groups);
  return 0;
}
