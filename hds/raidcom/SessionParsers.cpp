#include <cctype>
#include <string>

#include "hds/common/internal/HDSText.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

namespace hds::raidcom {

namespace {

using hds::text::Separator;

// The command device marker of a HORCM_CMD entry or of the comment line naming the array.
const char kCommandDeviceMarker[] = "\\\\.\\CMD";
const size_t kMarkerAndDashLength = 8;
const size_t kSerialLength = 6;

}  // namespace

void parseHorcmFileSerials(std::string const& fileText, std::set<std::string>& serials) {
  size_t pos = fileText.find(kCommandDeviceMarker);
  while (pos != std::string::npos) {
    const size_t start = pos + kMarkerAndDashLength;
    if (start >= fileText.size()) break;
    std::string serial = fileText.substr(start, kSerialLength);
    // Five-digit serial numbers are followed by the ':' or line end that ends the entry.
    if (serial.size() == kSerialLength &&
        !std::isdigit(static_cast<unsigned char>(serial[kSerialLength - 1]))) {
      serial.pop_back();
    }
    if (!serial.empty()) serials.insert(serial);
    pos = fileText.find(kCommandDeviceMarker, start);
  }
}

void parseGetResourceOutput(std::string const& output,
                            std::map<std::string, ResourceGroupStatus>& groups) {
  for (const std::string_view line : hds::text::dataLines(output)) {
    // Column positions are kept so that a group name with blanks inside survives whole.
    std::vector<std::pair<size_t, std::string_view>> cols;
    for (size_t pos = 0;;) {
      const size_t start = hds::text::skipSeparators(line, pos, Separator::Space);
      std::string_view value = hds::text::nextColumn(line, pos, Separator::Space);
      if (value.empty()) break;
      cols.emplace_back(start, value);
    }
    if (cols.size() < 6) continue;

    // Read from the right: serial, lock host (which may be two words), owner, status, id, name.
    size_t last = cols.size() - 1;
    ResourceGroupStatus row;
    row.serialNumber = std::string(cols[last].second);
    --last;
    std::string host(cols[last].second);
    if (last >= 5) {
      const std::string_view before = cols[last - 1].second;
      if ((host == "Navigator" && before == "Storage") || (host == "Program" && before == "User") ||
          host == "RMI") {
        host = std::string(before) + " " + host;
        --last;
      }
    }
    row.lockHost = host;
    row.lockOwner = std::string(cols[last - 1].second);
    row.status = std::string(cols[last - 2].second);
    row.resourceGroupId = hds::text::toInt(cols[last - 3].second);
    const std::string_view name =
        hds::text::trim(line.substr(0, cols[last - 3].first), Separator::Space);
    if (name.empty()) continue;
    groups[std::string(name)] = row;
  }
}

bool parseCommandStatusOutput(std::string const& output, bool& hasError, std::string& statusText,
                              std::string& statusLine) {
  const size_t first = output.find('\n');
  if (first == std::string::npos) return false;
  const size_t second = output.find('\n', first + 1);
  if (second == std::string::npos) return false;
  statusLine = output.substr(first + 1, second - first - 1);

  const std::string_view line(statusLine);
  if (hds::text::toInt(hds::text::column(line, 3, Separator::Space)) != 0) {
    hasError = true;
    statusText = std::string(hds::text::skipColumns(line, 5, Separator::Space));
  }
  return true;
}

bool parseRaidqryOutput(std::string const& output, hdsRaidqry_t& info) {
  const size_t headerEnd = output.find('\n');
  size_t pos = headerEnd == std::string::npos ? output.size() : headerEnd + 1;
  hdsRaidqry_t read;
  std::string* const fields[] = {
      nullptr,      &read.group,        &read.hostName,    &read.horcmVersion,
      &read.unitId, &read.serialNumber, &read.microVersion};
  // The columns are separated by blanks alone, as raidqry prints them.
  auto next = [&output, &pos](std::string& value) {
    if (pos >= output.size()) return false;
    value = std::string(hds::text::nextColumn(output, pos, Separator::Blank));
    return !value.empty();
  };
  std::string value;
  for (std::string* field : fields) {
    if (!next(value)) return false;
    if (field != nullptr) *field = value;
  }
  if (!next(value)) return false;
  read.cacheSizeMB = hds::text::toInt(value);
  info = read;
  return true;
}

}  // namespace hds::raidcom
