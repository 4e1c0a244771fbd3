// parseGetHostGroupOutput over arbitrary text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  // The first line is the array serial that ends a host group name.
  const size_t nl = input.find('\n');
  const std::string serial = nl == std::string::npos ? std::string() : input.substr(0, nl);
  hdsPort_t port;
  parseGetHostGroupOutput(input, serial, port);
  return 0;
}
