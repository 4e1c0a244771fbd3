// volumeAttributemap over an arbitrary VOL_ATTR value.
#include <cstddef>
#include <cstdint>
#include <string>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  volumeAttributemap(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
