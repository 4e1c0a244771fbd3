// parseGetCopyGroupOutput over arbitrary text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  // The first line chooses the copy group filter (empty keeps every group).
  const size_t nl = input.find('\n');
  const std::string filter = nl == std::string::npos ? std::string() : input.substr(0, nl);
  std::vector<hdsCopyGroup_t> groups;
  parseGetCopyGroupOutput(input, filter, groups);
  return 0;
}
