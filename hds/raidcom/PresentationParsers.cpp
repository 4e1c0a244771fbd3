// Parsers of the pool, copy group, pair, port, host group, WWN and LUN listings. Every listing
// starts with one header line; the tables are read by column position, except where a column can
// hold blanks (host group names), which is anchored on the columns around it.

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "hds/common/HDSConstants.h"
#include "hds/common/internal/HDSText.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

namespace {

namespace text = hds::text;
using text::LastLine;
using text::Separator;

int toInt(std::string_view value) { return std::atoi(std::string(value).c_str()); }

bool startsWithDigit(std::string_view value) {
  return !value.empty() && value[0] >= '0' && value[0] <= '9';
}

bool isWwn(std::string_view value) {
  return value.size() == 16 && std::all_of(value.begin(), value.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
         });
}

// The data lines of a listing: its header line dropped.
std::vector<std::string_view> dataLines(std::string const& output, LastLine last) {
  std::vector<std::string_view> lines = text::splitLines(output, last);
  if (!lines.empty()) lines.erase(lines.begin());
  return lines;
}

size_t offsetIn(std::string_view line, std::string_view part) {
  return static_cast<size_t>(part.data() - line.data());
}

// One raidscan line of a P-VOL of interest, read into rec; false for lines to pass over: unpaired
// volumes, secondary sides, and LDEVs the caller did not ask about. Columns: 1 port, 2 ALPA, 3 C,
// 4 TID, 5 LU, 6 MU, 7 serial, 8 Num, 9 CM, 10 LDEV, 11 P/S, 12 status, 13 fence, 14 partner
// serial, 15 partner LDEV, 16 volume attribute.
bool readPairLine(std::string_view line, std::set<std::string> const& wanted, hdsPairStatus_t& rec,
                  std::vector<std::string_view>& cols) {
  if (line.find(VT_HDS_PAIR_STATUS_SIMPLE) != std::string_view::npos) return false;
  if (line.find(VT_HDS_LDEV_SVOL) != std::string_view::npos) return false;
  cols = text::splitColumns(line);
  if (cols.size() < 10 || wanted.count(std::string(cols[9])) == 0) return false;
  auto col = [&cols](size_t i) { return i < cols.size() ? std::string(cols[i]) : std::string(); };
  rec = hdsPairStatus_t();
  rec.ldevId = col(9);
  rec.pairStatus = col(11);
  rec.fence = col(12);
  rec.rcuSerial = col(13);
  rec.details = std::string(text::trim(text::skipColumns(line, 14)));
  rec.partnerLdevId = col(14);
  rec.volAttr = col(15);
  return true;
}

std::set<std::string> ldevIds(std::vector<hdsLdev_t> const& ldevs) {
  std::set<std::string> ids;
  for (const hdsLdev_t& ldev : ldevs) {
    if (!ldev.ldevId.empty()) ids.insert(ldev.ldevId);
  }
  return ids;
}

// Where the Serial# column of a host group line starts: the last place at or after from where
// the serial stands as a column of its own. A name may contain the serial inside a word (the
// pre-snap group of a virtual storage machine is named after a serial), never after it.
size_t findSerialColumn(std::string_view line, size_t from, std::string const& serial) {
  if (serial.empty()) return std::string_view::npos;
  size_t pos = line.size();
  while (pos > from) {
    pos = line.rfind(serial, pos - 1);
    if (pos == std::string_view::npos || pos < from) return std::string_view::npos;
    const size_t end = pos + serial.size();
    const bool alone = pos > 0 && text::isSeparator(line[pos - 1], Separator::Space) &&
                       (end == line.size() || text::isSeparator(line[end], Separator::Space));
    if (alone) return pos;
  }
  return std::string_view::npos;
}

}  // namespace

void parseGetCopyGroupOutput(std::string const& output, std::string const& copyGroup,
                             std::vector<hdsCopyGroup_t>& groups) {
  for (std::string_view line : dataLines(output, LastLine::Drop)) {
    size_t pos = 0;
    std::string_view name = text::nextColumn(line, pos);
    if (name.empty()) continue;
    if (!copyGroup.empty() && name != copyGroup) continue;
    hdsCopyGroup_t rec;
    rec.copyGroupName = std::string(name);
    rec.deviceGroupName = std::string(text::nextColumn(line, pos));
    std::string_view mirror = text::nextColumn(line, pos);
    // Remote mirror units are printed "h0".."h3".
    if (mirror.size() > 1 && mirror[0] == 'h') mirror.remove_prefix(1);
    if (startsWithDigit(mirror)) rec.mirrorUnit = toInt(mirror);
    std::string_view journal = text::nextColumn(line, pos);
    if (startsWithDigit(journal)) rec.journalId = toInt(journal);
    groups.push_back(rec);
  }
}

void parseGetPoolOutput(std::string const& output, std::vector<hdsPool_t>& pools) {
  for (std::string_view line : dataLines(output, LastLine::Keep)) {
    std::vector<std::string_view> cols = text::splitColumns(line);
    if (cols.empty()) continue;
    auto col = [&cols](size_t i) { return i < cols.size() ? cols[i] : std::string_view(); };
    hdsPool_t pool;
    pool.poolId = std::string(col(0));
    pool.poolName = std::string(col(3));
    pool.poolStatus = std::string(col(1));
    pool.usedPercent = toInt(col(2));
    pool.thresholdPercent = toInt(col(7));
    pool.poolType = std::string(col(11));
    pools.push_back(pool);
  }
}

void parseRaidscanPairOutput(std::string const& output, std::vector<hdsLdev_t> const& ldevs,
                             std::map<int, std::vector<hdsPairStatus_t>>& pairs) {
  const std::set<std::string> wanted = ldevIds(ldevs);
  std::vector<std::string_view> cols;
  for (std::string_view line : dataLines(output, LastLine::Drop)) {
    hdsPairStatus_t rec;
    if (!readPairLine(line, wanted, rec, cols)) continue;
    rec.mirrorUnit = toInt(cols[5]);
    pairs[rec.mirrorUnit].push_back(rec);
  }
}

void parseRaidscanRemotePairOutput(std::string const& output, int mirrorUnit,
                                   std::vector<hdsLdev_t> const& ldevs,
                                   std::map<int, std::vector<hdsPairStatus_t>>& pairs) {
  const std::set<std::string> wanted = ldevIds(ldevs);
  std::vector<std::string_view> cols;
  for (std::string_view line : dataLines(output, LastLine::Drop)) {
    hdsPairStatus_t rec;
    if (!readPairLine(line, wanted, rec, cols)) continue;
    // "----" in the partner LDEV column: the volume has no partner on this mirror unit.
    if (rec.partnerLdevId.empty() || rec.partnerLdevId.find("----") != std::string::npos) continue;
    rec.mirrorUnit = mirrorUnit;
    pairs[mirrorUnit].push_back(rec);
  }
}

void parseGetPortOutput(std::string const& output, std::vector<hdsPort_t>& ports) {
  for (std::string_view line : dataLines(output, LastLine::Drop)) {
    std::vector<std::string_view> cols = text::splitColumns(line);
    if (cols.empty()) continue;
    auto col = [&cols](size_t i) { return i < cols.size() ? cols[i] : std::string_view(); };
    // A port with several attributes is listed once per attribute.
    const bool known = std::any_of(ports.begin(), ports.end(),
                                   [&cols](const hdsPort_t& p) { return p.portName == cols[0]; });
    if (known) continue;
    hdsPort_t port;
    port.portName = std::string(col(0));
    port.portType = std::string(col(1));
    port.serialNumber = std::string(col(9));
    port.wwn = std::string(col(10));
    ports.push_back(port);
  }
}

void parseGetPortLoginOutput(std::string const& output, hdsPort_t& portRec) {
  for (std::string_view line : dataLines(output, LastLine::Keep)) {
    size_t pos = 0;
    std::string_view port = text::nextColumn(line, pos);
    std::string_view wwn = text::nextColumn(line, pos);
    if (wwn.empty()) continue;
    if (portRec.portName.empty()) portRec.portName = std::string(port);
    portRec.loginWwns.emplace_back(wwn);
  }
}

void parseGetHostGroupOutput(std::string const& output, std::string const& serialNumber,
                             hdsPort_t& portRec) {
  for (std::string_view line : dataLines(output, LastLine::Keep)) {
    size_t pos = 0;
    text::nextColumn(line, pos);
    std::string_view number = text::nextColumn(line, pos);
    if (number.empty()) continue;
    const size_t nameStart = text::skipSeparators(line, pos);
    size_t nameEnd = findSerialColumn(line, nameStart, serialNumber);
    if (nameEnd == std::string_view::npos) nameEnd = text::skipValue(line, nameStart);
    hdsHostGroup_t hg;
    hg.hostGroupId = std::string(number);
    hg.hostGroupName = std::string(text::trim(line.substr(nameStart, nameEnd - nameStart)));
    portRec.hostGroups.push_back(hg);
  }
}

void parseGetHbaWwnOutput(std::string const& output, hdsHostGroup_t& hg) {
  for (std::string_view line : dataLines(output, LastLine::Keep)) {
    std::vector<std::string_view> cols = text::splitColumns(line);
    if (cols.size() < 4) continue;
    // PORT GID GROUP_NAME HWWN Serial# NICK_NAME: the name and the nickname may both hold blanks,
    // so the WWN is found as the 16 hex digits followed by the serial.
    size_t wwnIndex = 3;
    for (size_t i = 3; i + 1 < cols.size(); ++i) {
      if (isWwn(cols[i]) && hds::text::isDigits(cols[i + 1])) {
        wwnIndex = i;
        break;
      }
    }
    const size_t nameStart = offsetIn(line, cols[2]);
    const size_t nameEnd = offsetIn(line, cols[wwnIndex - 1]) + cols[wwnIndex - 1].size();
    if (hg.hostGroupId.empty()) hg.hostGroupId = std::string(cols[1]);
    hg.hostGroupName = std::string(line.substr(nameStart, nameEnd - nameStart));
    hg.wwns.emplace_back(cols[wwnIndex]);
  }
}

void parseGetLunOutput(std::string const& output, std::vector<hdsLun_t>& luns) {
  for (std::string_view line : dataLines(output, LastLine::Drop)) {
    std::vector<std::string_view> cols = text::splitColumns(line);
    if (cols.empty()) continue;
    auto col = [&cols](size_t i) { return i < cols.size() ? cols[i] : std::string_view(); };
    hdsLun_t lun;
    lun.port = std::string(col(0));
    lun.hostGroupId = std::string(col(1));
    // col(2) is the host mode, which the record does not keep; col(4) the LDEV count of the LU.
    lun.lunId = std::string(col(3));
    lun.ldevId = std::string(col(5));
    luns.push_back(lun);
  }
}

bool parseRaidscanPdgOutput(std::string const& output, std::string& hostGroup) {
  for (std::string_view line : dataLines(output, LastLine::Keep)) {
    std::string_view first = text::column(line, 0);
    if (first.empty()) continue;
    hostGroup = std::string(first);
    return true;
  }
  return false;
}
