#include "tools/hdsctl/Output.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "hds/common/HDSConstants.h"
#include "hds/platform/VtProcess.h"

namespace hdsctl {

using nlohmann::json;

namespace {

bool isNumber(const std::string& text) {
  if (text.empty()) return false;
  size_t start = text[0] == '-' && text.size() > 1 ? 1 : 0;
  return std::all_of(text.begin() + static_cast<long>(start), text.end(),
                     [](unsigned char c) { return std::isdigit(c) || c == '.'; });
}

}  // namespace

Table::Table(std::vector<std::string> headers) : m_oHeaders(std::move(headers)) {}

void Table::addRow(std::vector<std::string> cells) {
  cells.resize(m_oHeaders.size());
  for (std::string& c : cells) c = cell(c);
  m_oRows.push_back(std::move(cells));
}

void Table::print(std::ostream& out) const {
  size_t columns = m_oHeaders.size();
  std::vector<size_t> width(columns);
  std::vector<bool> numeric(columns, true);
  for (size_t c = 0; c < columns; ++c) {
    width[c] = m_oHeaders[c].size();
    bool any = false;
    for (const auto& row : m_oRows) {
      width[c] = std::max(width[c], row[c].size());
      if (row[c] == "-") continue;
      any = true;
      if (!isNumber(row[c])) numeric[c] = false;
    }
    numeric[c] = numeric[c] && any;
  }
  auto printLine = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (size_t c = 0; c < columns; ++c) {
      std::string pad(width[c] - cells[c].size(), ' ');
      bool last = c + 1 == columns;
      if (numeric[c]) {
        line += pad + cells[c];
      } else {
        line += cells[c] + (last ? "" : pad);
      }
      if (!last) line += "  ";
    }
    out << line << '\n';
  };
  printLine(m_oHeaders);
  for (const auto& row : m_oRows) printLine(row);
}

bool isDecimal(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

std::string cell(const std::string& text) { return text.empty() ? "-" : text; }

std::string fixed2(double value) {
  char buf[32];
  (void)snprintf(buf, sizeof(buf), "%.2f", value);
  return buf;
}

std::string joinWords(const std::vector<std::string>& words, const char* separator) {
  std::string text;
  for (const std::string& w : words) text += (text.empty() ? "" : separator) + w;
  return text;
}

std::vector<std::string> volumeAttributeNames(int volAttr) {
  static const std::pair<int, const char*> kNames[] = {
      {VT_HDS_VOL_CMD_DEV, "CMD"}, {VT_HDS_VOL_CVS, "CVS"},   {VT_HDS_VOL_LUSE, "LUSE"},
      {VT_HDS_VOL_ALUN, "ALUN"},   {VT_HDS_VOL_EXTN, "ELUN"}, {VT_HDS_VOL_VVOL, "VVOL"},
      {VT_HDS_VOL_QS, "QS"},       {VT_HDS_VOL_HDP, "HDP"},   {VT_HDS_VOL_POOL, "POOL"},
      {VT_HDS_VOL_REMOTE, "HORC"}, {VT_HDS_VOL_MRCF, "MRCF"}, {VT_HDS_VOL_ENCD, "ENCD"},
      {VT_HDS_VOL_SYSD, "SYSD"},   {VT_HDS_VOL_TSE, "TSE"},   {VT_HDS_VOL_HDT, "HDT"},
      {VT_HDS_VOL_OLG, "OLG"},     {VT_HDS_VOL_QRD, "QRD"},   {VT_HDS_VOL_JNL, "JNL"},
      {VT_HDS_VOL_CLUN, "CLUN"},   {VT_HDS_VOL_GAD, "GAD"},
  };
  if (volAttr == VT_HDS_VOL_NOT_DEFINED) return {"NOT DEFINED"};
  std::vector<std::string> names;
  for (const auto& [bit, name] : kNames) {
    if (volAttr & bit) names.push_back(name);
  }
  return names;
}

std::string lunPathText(const hdsLun_t& lun) {
  return lun.port + "-" + lun.hostGroupId + "-" + lun.lunId;
}

json toJson(const hdsLun_t& lun) {
  return {{"port", lun.port},
          {"hostGroupId", lun.hostGroupId},
          {"lunId", lun.lunId},
          {"hostGroupName", lun.hostGroupName},
          {"ldevId", lun.ldevId}};
}

json toJson(const hdsLdev_t& ldev) {
  json paths = json::array();
  for (const hdsLun_t& lun : ldev.lunPaths) paths.push_back(toJson(lun));
  return {{"serialNumber", ldev.serialNumber},
          {"ldevId", ldev.ldevId},
          {"volType", ldev.volType},
          {"capacity", ldev.capacity},
          {"poolId", ldev.poolId},
          {"volAttr", ldev.volAttr},
          {"attributes", volumeAttributeNames(ldev.volAttr)},
          {"label", ldev.label},
          {"deviceName", ldev.deviceName},
          {"resourceGroupId", ldev.resourceGroupId},
          {"virtualLdevId", ldev.virtualLdevId},
          {"mpBladeId", ldev.mpBladeId},
          {"lunPaths", paths}};
}

json toJson(const hdsPool_t& pool) {
  return {{"poolId", pool.poolId},
          {"poolName", pool.poolName},
          {"poolStatus", pool.poolStatus},
          {"usedPercent", pool.usedPercent},
          {"thresholdPercent", pool.thresholdPercent},
          {"poolType", pool.poolType}};
}

json toJson(const hdsHostGroup_t& hostGroup) {
  return {{"hostGroupId", hostGroup.hostGroupId},
          {"hostGroupName", hostGroup.hostGroupName},
          {"wwns", hostGroup.wwns}};
}

json toJson(const hdsPort_t& port) {
  json groups = json::array();
  for (const hdsHostGroup_t& hg : port.hostGroups) groups.push_back(toJson(hg));
  return {
      {"portName", port.portName}, {"portType", port.portType}, {"serialNumber", port.serialNumber},
      {"wwn", port.wwn},           {"hostGroups", groups},      {"loginWwns", port.loginWwns}};
}

json toJson(const hdsSnapshotGroupInfo& pair) {
  return {{"snapshotGroupName", pair.snapshotGroupName},
          {"pairStatus", pair.pairStatus},
          {"serialNumber", pair.serialNumber},
          {"ldevId", pair.ldevId},
          {"partnerLdevId", pair.partnerLdevId},
          {"mirrorUnit", pair.mirrorUnit},
          {"poolId", pair.poolId},
          {"mode", pair.mode},
          {"isPVol", pair.isPVol},
          {"copyPercent", pair.copyPercent},
          {"splitTime", pair.splitTime}};
}

json toJson(const hdsCopyGroup_t& group) {
  return {{"copyGroupName", group.copyGroupName},
          {"deviceGroupName", group.deviceGroupName},
          {"mirrorUnit", group.mirrorUnit},
          {"journalId", group.journalId}};
}

json toJson(const std::string& name, const ResourceGroupStatus& group) {
  return {{"resourceGroupName", name},
          {"status", group.status},
          {"lockOwner", group.lockOwner},
          {"lockHost", group.lockHost},
          {"resourceGroupId", group.resourceGroupId},
          {"serialNumber", group.serialNumber}};
}

void printJson(std::ostream& out, const json& value) {
  // Array texts are not guaranteed to be UTF-8; replace rather than refuse to print.
  out << value.dump(2, ' ', false, json::error_handler_t::replace) << '\n';
}

ProgramRun runProgram(std::vector<std::string> words, int timeoutSec) {
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  VtProcess process;
  process.TrapIO(true, true);
  ProgramRun run;
  std::string error;
  if (!process.StartProcess(argv.data(), &error, 0)) {
    run.err = "cannot run " + words[0] + ": " + error;
    return run;
  }
  run.ended = process.WaitForProcessToEnd(&run.exitCode, &error, timeoutSec);
  process.GetIO(&run.out, &run.err);
  if (!run.ended) run.err = words[0] + ": " + error;
  return run;
}

}  // namespace hdsctl
