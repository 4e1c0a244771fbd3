// What "raidscan -x findcmddev" prints, fed arbitrary text; the serial looked for is the first
// line of the input.
#include <cstddef>
#include <cstdint>
#include <string>

#include "hds/handler/internal/HandlerParsers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const size_t lineEnd = text.find('\n');
  const std::string serial = text.substr(0, lineEnd);
  const std::string output =
      lineEnd == std::string::npos ? std::string() : text.substr(lineEnd + 1);
  std::string device;
  hds::handler::parseFindCommandDeviceOutput(output, serial, device);
  return 0;
}
