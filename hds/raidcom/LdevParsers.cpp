// Parsers of the LDEV listings, full and front-end, and of the port list and volume attribute
// fields they hold.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "hds/common/HDSConstants.h"
#include "hds/common/internal/HDSText.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

namespace hds::raidcom {

namespace {

using hds::text::LastLine;
using namespace std::string_view_literals;

// The white space of Separator::Space, spelled out inline: the LDEV listing of a full array runs
// two million lines through the loops that test it.
inline bool isWhiteSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool hasWhiteSpace(std::string_view text) {
  for (char c : text) {
    if (isWhiteSpace(c)) return true;
  }
  return false;
}

// The text with every white-space character taken out, the form in which the listings compare
// keys and values ("CVS : HDP" reads "CVS:HDP"). Most texts only need trimming, which costs no
// scan of its own.
void assignCompact(std::string& target, std::string_view text) {
  text = hds::text::trim(text);
  if (!hasWhiteSpace(text)) {
    target.assign(text.data(), text.size());
    return;
  }
  target.clear();
  for (char c : text) {
    if (!isWhiteSpace(c)) target.push_back(c);
  }
}

std::string compact(std::string_view text) {
  std::string result;
  assignCompact(result, text);
  return result;
}

std::string_view cut(std::string_view line, size_t start, size_t length) {
  if (start >= line.size()) return std::string_view();
  return line.substr(start, length);
}

// Every line of the text, split in blocks of some 64 KiB that each end at a line end: the views
// of all lines of a large listing never exist at once.
template <typename Fn>
void forEachLine(std::string_view text, Fn&& fn) {
  const size_t kBlock = size_t(1) << 16;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.size();
    if (text.size() - start > kBlock) {
      const size_t lineEnd = text.find('\n', start + kBlock);
      if (lineEnd != std::string_view::npos) end = lineEnd + 1;
    }
    for (const std::string_view line : hds::text::splitLines(text.substr(start, end - start))) {
      fn(line);
    }
    start = end;
  }
}

}  // namespace

int volumeAttributemap(std::string const& volAttr) {
  if (volAttr == "NOT DEFINED") return VT_HDS_VOL_NOT_DEFINED;

  struct Word {
    std::string_view text;
    int bit;
  };
  // Plain substring tests: "HA" anywhere sets the GAD bit, "MRCF" and "QS" side by side set both.
  static const Word kWords[] = {
      {"CMD", VT_HDS_VOL_CMD_DEV}, {"CVS", VT_HDS_VOL_CVS},     {"LUSE", VT_HDS_VOL_LUSE},
      {"ALUN", VT_HDS_VOL_ALUN},   {"ELUN", VT_HDS_VOL_EXTN},   {"VVOL", VT_HDS_VOL_VVOL},
      {"QS", VT_HDS_VOL_QS},       {"HDP", VT_HDS_VOL_HDP},     {"THP", VT_HDS_VOL_HDP},
      {"POOL", VT_HDS_VOL_POOL},   {"HORC", VT_HDS_VOL_REMOTE}, {"MRCF", VT_HDS_VOL_MRCF},
      {"ENCD", VT_HDS_VOL_ENCD},   {"SYSD", VT_HDS_VOL_SYSD},   {"TSE", VT_HDS_VOL_TSE},
      {"HDT", VT_HDS_VOL_HDT},     {"SMRT", VT_HDS_VOL_HDT},    {"OLG", VT_HDS_VOL_OLG},
      {"QRD", VT_HDS_VOL_QRD},     {"JNL", VT_HDS_VOL_JNL},     {"CLUN", VT_HDS_VOL_CLUN},
      {"GAD", VT_HDS_VOL_GAD},     {"HA", VT_HDS_VOL_GAD},
  };
  int bits = VT_HDS_VOL_NOT_FOUND;
  for (const Word& word : kWords) {
    if (std::string_view(volAttr).find(word.text) != std::string_view::npos) bits |= word.bit;
  }
  return bits;
}

void parsePortList(std::string const& text, std::vector<hdsLun_t>& luns) {
  luns.clear();
  // The text still carries its "PORTs : " key; the entries start after those eight characters.
  if (text.size() < 9) return;
  std::string_view rest = std::string_view(text).substr(8);
  for (;;) {
    const size_t end = rest.find(':');
    const std::string_view entry = rest.substr(0, end);
    size_t pos = 0;
    const std::string_view portAndGroup = hds::text::nextColumn(entry, pos);
    const std::string_view lun = hds::text::nextColumn(entry, pos);
    const std::string_view groupName = hds::text::nextColumn(entry, pos);
    if (!portAndGroup.empty()) {
      hdsLun_t path;
      const size_t dash = portAndGroup.rfind('-');
      if (dash == std::string_view::npos) {
        path.port = std::string(portAndGroup);
      } else {
        path.port = std::string(portAndGroup.substr(0, dash));
        path.hostGroupId = std::string(portAndGroup.substr(dash + 1));
      }
      path.lunId = std::string(lun);
      path.hostGroupName = std::string(groupName);
      luns.push_back(std::move(path));
    }
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
}

// Runs over tens of megabytes for a full array (65,280 LDEVs of some 33 lines each), so most
// lines are passed over on their first character, keys are matched in place and only the values
// of the keys kept are copied.
void parseGetLdevOutput(std::string const& output, std::vector<hdsLdev_t>& ldevs,
                        std::map<int, std::string> const& filters) {
  const auto labelFilter = filters.find(VT_HDS_LDEV_FILTER_LABEL);
  const bool filterByLabel = labelFilter != filters.end() && !labelFilter->second.empty();

  hdsLdev_t current;
  bool inHand = false;  // a record has begun; blank separator lines and empty output make none
  bool reserved = false;
  auto finish = [&]() {
    if (inHand && !(filterByLabel && current.label != labelFilter->second)) {
      ldevs.push_back(std::move(current));
    }
    current.initialize();
    inHand = false;
  };

  std::string keyBuffer;
  std::string value;  // scratch for values that are converted rather than kept
  forEachLine(output, [&](const std::string_view line) {
    size_t first = 0;
    while (first < line.size() && isWhiteSpace(line[first])) ++first;
    if (first == line.size()) return;
    switch (line[first]) {  // the first letters of the keys kept
      case 'B':
      case 'L':
      case 'M':
      case 'P':
      case 'Q':
      case 'R':
      case 'S':
      case 'V':
        break;
      default:
        return;
    }
    const size_t colon = line.find(':', first);
    if (colon == std::string_view::npos) return;
    std::string_view key = hds::text::trim(line.substr(first, colon - first));
    if (hasWhiteSpace(key)) {
      keyBuffer = compact(key);
      key = keyBuffer;
    }
    const std::string_view rawValue = line.substr(colon + 1);

    if (key == "Serial#"sv) {
      if (inHand && !reserved) {
        // A listing is mostly records of one shape: room for as many as the first one fits
        // into the text saves growing the vector (and touching its memory twice) 16 times over.
        const size_t firstRecord = static_cast<size_t>(line.data() - output.data());
        if (firstRecord > 0) {
          const size_t estimate = output.size() / firstRecord + 1;
          ldevs.reserve(ldevs.size() + estimate + estimate / 8);
        }
        reserved = true;
      }
      if (inHand) finish();
      assignCompact(current.serialNumber, rawValue);
    } else if (key == "LDEV"sv) {
      assignCompact(current.ldevId, rawValue);
      const size_t virtualMark = current.ldevId.find("VIR_LDEV");
      if (virtualMark == std::string::npos) {
        current.virtualLdevId.clear();
      } else {
        if (virtualMark + 9 <= current.ldevId.size()) {
          current.virtualLdevId.assign(current.ldevId, virtualMark + 9, std::string::npos);
        } else {
          current.virtualLdevId.clear();
        }
        current.ldevId.resize(virtualMark);
      }
    } else if (key == "VOL_TYPE"sv) {
      assignCompact(current.volType, rawValue);
    } else if (key == "VOL_Capacity(BLK)"sv) {
      assignCompact(value, rawValue);
      const int64_t blocks = hds::text::toInt64(value);
      current.capacity = blocks > 0 ? static_cast<uint64_t>(blocks) : 0;
    } else if (key == "PORTs"sv) {
      parsePortList(std::string(line), current.lunPaths);
    } else if (key == "B_POOLID"sv) {
      assignCompact(current.poolId, rawValue);
    } else if (key == "VOL_ATTR"sv) {
      assignCompact(value, rawValue);
      current.volAttr = volumeAttributemap(value);
    } else if (key == "LDEV_NAMING"sv) {
      assignCompact(current.label, rawValue);
    } else if (key == "QRP_Serial#"sv) {
      assignCompact(current.remoteSerial, rawValue);
    } else if (key == "RSGID"sv) {
      assignCompact(value, rawValue);
      current.resourceGroupId = hds::text::toInt(value);
    } else if (key == "MP#"sv) {
      assignCompact(value, rawValue);
      current.mpBladeId = hds::text::toInt(value);
    } else {
      return;
    }
    inHand = true;
  });
  finish();
  // Records of uneven shape may have left the estimate far above the count.
  if (reserved && ldevs.capacity() > ldevs.size() + ldevs.size() / 2) ldevs.shrink_to_fit();
}

// The fixed-width form of "get ldev -key front_end": serial 0-8, LDEV 9-13, volume type 23-41,
// capacity 42-53, attribute 59-81, port list from 88 on. The listing has no label column.
bool parseGetLdevFrontEndOutput(std::string const& output, std::vector<hdsLdev_t>& ldevs,
                                std::map<int, std::string> const& filters) {
  const auto labelFilter = filters.find(VT_HDS_LDEV_FILTER_LABEL);
  const bool filtered = !filters.empty() && labelFilter != filters.end();
  // The label key doubles as the control unit number here; callers depend on that pairing.
  const int64_t controlUnit = filtered ? hds::text::toInt64(labelFilter->second) : 0;

  for (const std::string_view line : hds::text::dataLines(output, LastLine::Drop)) {
    hdsLdev_t ldev;
    ldev.serialNumber = compact(cut(line, 0, 9));
    ldev.ldevId = compact(cut(line, 9, 5));
    ldev.volType = compact(cut(line, 23, 19));
    const int64_t blocks = hds::text::toInt64(compact(cut(line, 42, 12)));
    ldev.capacity = blocks > 0 ? static_cast<uint64_t>(blocks) : 0;
    ldev.volAttr = volumeAttributemap(compact(cut(line, 59, 23)));
    parsePortList(compact(cut(line, 88, std::string_view::npos)), ldev.lunPaths);

    if (filtered) {
      if (ldev.label != labelFilter->second) continue;
      const int64_t id = hds::text::toInt64(ldev.ldevId);
      if (id < controlUnit * 256 || id > (controlUnit + 1) * 256 - 1) continue;
    }
    ldevs.push_back(std::move(ldev));
  }
  return true;
}

}  // namespace hds::raidcom
