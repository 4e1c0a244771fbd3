// parseGetLdevFrontEndOutput over arbitrary text, without and with the label (control unit) filter.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "hds/common/HDSConstants.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<hdsLdev_t> ldevs;
  parseGetLdevFrontEndOutput(input, ldevs, {});
  const std::map<int, std::string> filters = {
      {VT_HDS_LDEV_FILTER_LABEL, input.substr(0, input.find('\n'))}};
  parseGetLdevFrontEndOutput(input, ldevs, filters);
  return 0;
}
