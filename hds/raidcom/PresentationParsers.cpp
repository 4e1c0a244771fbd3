// Parsers of the port, host group, WWN and LUN listings and of the host group raidscan reports.
// Every listing starts with one header line; the tables are read by column position, except
// where a column can hold blanks (host group names), which is anchored on the columns around it.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "hds/common/internal/HDSText.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

namespace hds::raidcom {

namespace {

namespace text = hds::text;
using text::LastLine;
using text::Separator;

bool isWwn(std::string_view value) {
  return value.size() == 16 && std::all_of(value.begin(), value.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
         });
}

size_t offsetIn(std::string_view line, std::string_view part) {
  return static_cast<size_t>(part.data() - line.data());
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

void parseGetPortOutput(std::string const& output, std::vector<hdsPort_t>& ports) {
  for (std::string_view line : text::dataLines(output, LastLine::Drop)) {
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
  for (std::string_view line : text::dataLines(output, LastLine::Keep)) {
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
  for (std::string_view line : text::dataLines(output, LastLine::Keep)) {
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
  for (std::string_view line : text::dataLines(output, LastLine::Keep)) {
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
  for (std::string_view line : text::dataLines(output, LastLine::Drop)) {
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
  for (std::string_view line : text::dataLines(output, LastLine::Keep)) {
    std::string_view first = text::column(line, 0);
    if (first.empty()) continue;
    hostGroup = std::string(first);
    return true;
  }
  return false;
}

}  // namespace hds::raidcom
