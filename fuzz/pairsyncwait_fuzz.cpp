#include <cstddef>
#include <cstdint>
#include <string>

#include "hds/cci/CCICommandHandler.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string output(reinterpret_cast<const char*>(data), size);
  const std::string qMarker = parseQmarkerOutput(output);
  // The marker is one column of the output: never longer than it, never holding a separator.
  if (qMarker.size() > output.size()) __builtin_trap();
  if (qMarker.find_first_of(" \t\n") != std::string::npos) __builtin_trap();
  return 0;
}
