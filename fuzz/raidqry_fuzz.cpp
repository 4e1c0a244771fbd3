// What raidqry prints (-l and -h), fed arbitrary text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "hds/handler/internal/HandlerParsers.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  hdsRaidqry_t info;
  parseRaidqryOutput(text, info);
  std::string version;
  hds::handler::parseCciVersionOutput(text, version);
  return 0;
}
