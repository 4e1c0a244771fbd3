// parseGetPortLoginOutput over arbitrary text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  hdsPort_t port;
  parseGetPortLoginOutput(input, port);
  return 0;
}
