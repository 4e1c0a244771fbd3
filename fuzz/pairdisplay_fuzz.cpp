#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "hds/cci/CCICommandHandler.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string output(reinterpret_cast<const char*>(data), size);
  std::vector<hdsCopyGroupInfo> pairs;
  parsePairDisplayOutput(output, pairs);
  // Every record comes from a line after the header, and each line ends in a newline.
  size_t lines = 0;
  for (char c : output) lines += c == '\n';
  if (pairs.size() > (lines > 0 ? lines - 1 : 0)) __builtin_trap();
  return 0;
}
