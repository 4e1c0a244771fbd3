// Parsers of the copy group, pool and pair listings. Every listing starts with one header line;
// the tables are read by column position.

#include <map>
#include <set>
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
using text::toInt;

bool startsWithDigit(std::string_view value) {
  return !value.empty() && value[0] >= '0' && value[0] <= '9';
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

// Each P-VOL line of a raidscan listing that names one of the LDEVs, read as readPairLine reads it.
template <typename Fn>
void forEachPairLine(std::string const& output, std::vector<hdsLdev_t> const& ldevs, Fn&& fn) {
  const std::set<std::string> wanted = ldevIds(ldevs);
  std::vector<std::string_view> cols;
  for (std::string_view line : text::dataLines(output, LastLine::Drop)) {
    hdsPairStatus_t rec;
    if (readPairLine(line, wanted, rec, cols)) fn(rec, cols);
  }
}

}  // namespace

void parseGetCopyGroupOutput(std::string const& output, std::string const& copyGroup,
                             std::vector<hdsCopyGroup_t>& groups) {
  for (std::string_view line : text::dataLines(output, LastLine::Drop)) {
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
  for (std::string_view line : text::dataLines(output, LastLine::Keep)) {
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
  forEachPairLine(output, ldevs,
                  [&](hdsPairStatus_t& rec, const std::vector<std::string_view>& cols) {
                    rec.mirrorUnit = toInt(cols[5]);
                    pairs[rec.mirrorUnit].push_back(rec);
                  });
}

void parseRaidscanRemotePairOutput(std::string const& output, int mirrorUnit,
                                   std::vector<hdsLdev_t> const& ldevs,
                                   std::map<int, std::vector<hdsPairStatus_t>>& pairs) {
  forEachPairLine(output, ldevs, [&](hdsPairStatus_t& rec, const std::vector<std::string_view>&) {
    // "----" in the partner LDEV column: the volume has no partner on this mirror unit.
    if (rec.partnerLdevId.empty() || rec.partnerLdevId.find("----") != std::string::npos) return;
    rec.mirrorUnit = mirrorUnit;
    pairs[mirrorUnit].push_back(rec);
  });
}

}  // namespace hds::raidcom
