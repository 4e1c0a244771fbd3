// Parsers of the device group and snapshot group listings. Both start with one header line and
// are read up to their last newline; a blank line is no record.

#include <string>
#include <string_view>
#include <vector>

#include "hds/common/HDSConstants.h"
#include "hds/common/internal/HDSText.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

namespace hds::raidcom {

namespace {

namespace text = hds::text;
using text::LastLine;
using text::Separator;

}  // namespace

void parseGetDeviceGroupListOutput(std::string const& output, std::vector<std::string>& groups) {
  for (std::string_view line : text::dataLines(output, LastLine::Drop)) {
    if (text::trim(line).empty()) continue;
    groups.emplace_back(line.substr(0, line.find(' ')));
  }
}

bool parseGetDeviceGroupOutput(std::string const& output, std::vector<hdsLdev_t>& ldevs) {
  for (std::string_view line : text::dataLines(output, LastLine::Drop)) {
    if (text::trim(line).empty()) continue;
    size_t pos = 0;
    std::string_view values[4];
    for (std::string_view& value : values) {
      value = text::nextColumn(line, pos, Separator::Blank);
      if (value.empty()) return false;
    }
    hdsLdev_t ldev;
    ldev.deviceName = std::string(values[1]);
    ldev.ldevId = std::string(values[2]);
    ldev.serialNumber = std::string(values[3]);
    ldevs.push_back(std::move(ldev));
  }
  return true;
}

void parseGetSnapshotGroupOutput(std::string const& output,
                                 std::vector<hdsSnapshotGroupInfo>& pairs) {
  for (std::string_view line : text::dataLines(output, LastLine::Drop)) {
    if (text::trim(line).empty()) continue;
    hdsSnapshotGroupInfo info;
    // The name column is read up to the first blank, not from the first word.
    size_t pos = text::skipValue(line, 0, Separator::Blank);
    const std::string_view name = line.substr(0, pos);
    auto next = [&]() { return std::string(text::nextColumn(line, pos, Separator::Blank)); };
    info.snapshotGroupName = std::string(name);
    info.isPVol = next() == VT_HDS_LDEV_PVOL;
    info.pairStatus = next();
    info.serialNumber = next();
    info.ldevId = next();
    info.mirrorUnit = next();
    info.partnerLdevId = next();
    info.poolId = next();
    info.copyPercent = text::toInt(next());
    info.mode = next();
    info.splitTime = text::toInt(next());
    pairs.push_back(std::move(info));
  }
}

}  // namespace hds::raidcom
