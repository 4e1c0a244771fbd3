// What "raidcom get command_status" prints, fed arbitrary text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  bool hasError = false;
  std::string statusText;
  std::string statusLine;
  parseCommandStatusOutput(text, hasError, statusText, statusLine);
  return 0;
}
