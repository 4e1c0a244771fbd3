#include "sim/SimListings.h"

#include <ctime>

#include "sim/SimInvocation.h"

namespace ccisim {

namespace {

std::string rtrim(std::string line) {
  size_t end = line.find_last_not_of(' ');
  line.erase(end == std::string::npos ? 0 : end + 1);
  return line + "\n";
}

std::string joinInts(const std::vector<int>& values, const char* sep) {
  std::string text;
  for (int v : values) {
    if (!text.empty()) text += sep;
    text += std::to_string(v);
  }
  return text;
}

std::string orDash(const std::optional<int>& v) { return v ? std::to_string(*v) : "-"; }

// Real listings show at most this much of a host group name inside an LDEV's port list.
constexpr size_t kPortListNameWidth = 16;

std::string pathText(const LunPathView& p, const char* sep) {
  return p.port + "-" + std::to_string(p.gid) + sep + std::to_string(p.lun) + sep +
         p.hostGroupName.substr(0, kPortListNameWidth);
}

}  // namespace

std::string formatSsid(int ldevId) { return strprintf("%04X", 0x0004 + (ldevId >> 8)); }

std::string formatLdevRecord(const LdevView& l, bool hex) {
  std::string id = hex ? strprintf("%x", l.id) : std::to_string(l.id);
  std::string text = "Serial#  : " + l.serial + "\n";
  text += "LDEV : " + id;
  if (l.virtualId) text += " VIR_LDEV : " + std::to_string(*l.virtualId);
  text += "\n";
  if (!l.defined) {
    text += "SL : -\nCL : -\nVOL_TYPE : NOT DEFINED\n";
    text += "SSID : " + formatSsid(l.id) + "\n";
    text += "RSGID : " + std::to_string(l.rsgid) + "\n";
    return text;
  }
  text += "SL : 0\nCL : 0\n";
  text += "VOL_TYPE : " + l.volType + "\n";
  text += "VOL_Capacity(BLK) : " + std::to_string(l.capacity) + "\n";
  if (!l.pool) text += "NUM_LDEV : 1\nLDEVs : " + id + "\n";
  text += "NUM_PORT : " + std::to_string(l.paths.size()) + "\n";
  text += "PORTs :";
  for (size_t i = 0; i < l.paths.size(); ++i) {
    text += (i == 0 ? " " : " : ") + pathText(l.paths[i], " ");
  }
  text += "\n";
  text += "F_POOLID : NONE\n";
  text += "VOL_ATTR :";
  for (size_t i = 0; i < l.attrs.size(); ++i) text += (i == 0 ? " " : " : ") + l.attrs[i];
  text += "\n";
  text += "CMP : -\nEXP_SPACE : -\n";
  if (l.pool) {
    text += "B_POOLID : " + std::to_string(*l.pool) + "\n";
  } else {
    text +=
        "RAID_LEVEL  : RAID5\nRAID_TYPE   : 3D+1P\nNUM_GROUP : 1\nRAID_GROUPs : 01-01\n"
        "DRIVE_TYPE  : DKS5G-J600SS\nDRIVE_Capa : 1143358736\n";
  }
  text += l.name.empty() ? "LDEV_NAMING :\n" : "LDEV_NAMING : " + l.name + "\n";
  text += l.status.empty() ? "STS :\n" : "STS : " + l.status + "\n";
  text += "OPE_TYPE : " + l.operation + "\n";
  text += "OPE_RATE : " + std::to_string(l.operationRate) + "\n";
  text += "MP# : " + std::to_string(l.mp) + "\n";
  text += "SSID : " + formatSsid(l.id) + "\n";
  if (l.pool) {
    text += "Used_Block(BLK) : " + std::to_string(l.usedBlocks) + "\n";
    text +=
        "FLA(MB) : Disable\nRSV(MB) : 0\nCSV_Status : DISABLED\nCSV_PROGRESS(%) : -\n"
        "CSV_Mode : DISABLED\nCOMPRESSION_ACCELERATION : -\n"
        "COMPRESSION_ACCELERATION_STATUS : -\nCSV_PROCESS_MODE : -\nDEDUPLICATION_DATA : "
        "DISABLED\n";
  }
  text += "ALUA : Disable\n";
  text += "RSGID : " + std::to_string(l.rsgid) + "\n";
  text += "PWSV_S : -\n";
  if (l.snapshotPvol) text += "Snap_Used_Pool(MB) : 0\n";
  if (l.pool) text += "CL_MIG : N\n";
  if (l.quorumId) text += "QRDID : " + std::to_string(*l.quorumId) + "\n";
  if (l.quorumSerial) text += "QRP_Serial# : " + *l.quorumSerial + "\n";
  return text;
}

std::string formatLdevFrontEndHeader() {
  return " Serial# LDEV# SL CL VOL_TYPE    VOL_Cap(BLK) PID ATTRIBUTE Ports PORT_No:LU#:GRPNAME\n";
}

std::string formatLdevFrontEndLine(const LdevView& l) {
  if (!l.defined) {
    return rtrim(strprintf(" %6s %5d %2s %2s %-11s %11s %3s %-9s %5s", l.serial.c_str(), l.id, "-",
                           "-", "NOT DEFINED", "-", "-", "-", "-"));
  }
  std::string attr;
  for (const std::string& a : l.attrs) attr += (attr.empty() ? "" : ":") + a;
  std::string line =
      strprintf(" %6s %5d %2s %2s %-11s %11lld %3s %-9s %5zu", l.serial.c_str(), l.id, "0", "0",
                l.volType.c_str(), static_cast<long long>(l.capacity), orDash(l.pool).c_str(),
                attr.c_str(), l.paths.size());
  for (const LunPathView& p : l.paths) line += " " + pathText(p, ":");
  return rtrim(line);
}

std::string formatPortHeader() {
  return "PORT   TYPE  ATTR   SPD  LPID  FAB  CONN  SSW   SL   Serial#  WWN               "
         "PHY_PORT\n";
}

std::string formatPortLine(const PortView& p) {
  return rtrim(strprintf("%-6s %-5s %-6s %-4s %4s  %-4s %-5s %-5s %2s%10s  %-16s  %s",
                         p.name.c_str(), p.type.c_str(), p.attr.c_str(), p.speed.c_str(),
                         p.lpid.c_str(), p.fab.c_str(), p.conn.c_str(), p.ssw.c_str(), "0",
                         p.serial.c_str(), p.wwn.c_str(), "-"));
}

std::string formatPortLoginHeader() { return "PORT   LOGIN_WWN         Serial#  -\n"; }

std::string formatPortLoginLine(const std::string& port, const std::string& wwn,
                                const std::string& serial) {
  return rtrim(strprintf("%-6s %-16s %8s  %s", port.c_str(), wwn.c_str(), serial.c_str(), "-"));
}

std::string formatHostGroupHeader() {
  return "PORT   GID  GROUP_NAME                       Serial# HMD          HMO_BITs\n";
}

std::string formatHostGroupLine(const HostGroupView& h) {
  return rtrim(strprintf("%-6s %3d  %-32s %7s %-12s %s", h.port.c_str(), h.gid, h.name.c_str(),
                         h.serial.c_str(), h.hostMode.c_str(),
                         joinInts(h.hostModeOptions, " ").c_str()));
}

std::string formatHostGroupDetailHeader() {
  return "PORT   GID RGID GROUP_NAME                       Serial# HMD          HMO_BITs\n";
}

std::string formatHostGroupDetailLine(const HostGroupView& h) {
  bool used = !h.name.empty();
  std::string hmo = h.hostModeOptions.empty() ? "-" : joinInts(h.hostModeOptions, ":");
  return rtrim(strprintf("%-6s %3d %4d %-33s%7s %-12s %s", h.port.c_str(), h.gid, h.rsgid,
                         used ? ("\"" + h.name + "\"").c_str() : "-", h.serial.c_str(),
                         used ? h.hostMode.c_str() : "-", used ? hmo.c_str() : "-"));
}

std::string formatHbaWwnHeader() {
  return "PORT  GID GROUP_NAME            HWWN             Serial#  NICK_NAME\n";
}

std::string formatHbaWwnLine(const HbaWwnView& w) {
  return rtrim(strprintf("%-5s %3d %-21s %-16s%10s %s", w.port.c_str(), w.gid, w.groupName.c_str(),
                         w.wwn.c_str(), w.serial.c_str(),
                         w.nickname.empty() ? "-" : w.nickname.c_str()));
}

std::string formatLunHeader() {
  return "PORT   GID  HMD            LUN  NUM     LDEV  CM    Serial#  HMO_BITs\n";
}

std::string formatLunLine(const LunView& l) {
  return rtrim(strprintf("%-6s%4d  %-14s %3d %4d %8d %3s %10s  %s", l.port.c_str(), l.gid,
                         l.hostMode.c_str(), l.lun, 1, l.ldev, l.commandDevice ? "CM" : "-",
                         l.serial.c_str(), joinInts(l.hostModeOptions, " ").c_str()));
}

std::string formatResourceHeader() {
  return "RS_GROUP            RGID   stat      Lock_owner     Lock_host      Serial#\n";
}

std::string formatResourceLine(const ResourceView& r) {
  return rtrim(strprintf("%-19s %4d   %-9s %-14s %-14s %7s", r.name.c_str(), r.id,
                         r.locked ? "Locked" : "Unlocked", r.locked ? r.owner.c_str() : "-",
                         r.locked ? r.host.c_str() : "-", r.serial.c_str()));
}

std::string formatResourceOptHeader() {
  return "RS_GROUP            RGID  V_Serial#  V_ID  V_IF  Serial#\n";
}

std::string formatResourceOptLine(const ResourceView& r) {
  return rtrim(strprintf("%-19s %4d %10s  %-5s %-5s %7s", r.name.c_str(), r.id,
                         r.virtualSerial.c_str(), r.virtualType.c_str(),
                         r.virtualInterface ? "Y" : "N", r.serial.c_str()));
}

std::string formatCommandStatusHeader() {
  return "HANDLE   SSB1    SSB2    ERR_CNT        Serial#     Description\n";
}

std::string formatCommandStatusLine(const CommandStatusView& s) {
  return rtrim(strprintf("%04x%9s%8s%11d%15s     %s", s.handle & 0xFFFF, s.ssb1.c_str(),
                         s.ssb2.c_str(), s.errorCount, s.serial.c_str(),
                         s.description.empty() ? "-" : s.description.c_str()));
}

std::string formatPoolOptHeader() {
  return "PID  POLS U(%) POOL_NAME                            Seq# Num LDEV# H(%) VCAP(%) TYPE PM "
         "PT\n";
}

std::string formatPoolOptLine(const PoolView& p) {
  return rtrim(strprintf("%03d  %-4s %4d %-32s%9s %3d %5d %4d %7s %-4s %-2s %s", p.id,
                         p.status.c_str(), p.usedPercent, p.name.c_str(), p.serial.c_str(),
                         p.numVols, p.firstLdev, p.threshold, "-", "OPEN", "N", p.type.c_str()));
}

std::string formatPoolHeader() {
  return "PID  POLS U(%)  SSCNT Available(MB) Capacity(MB)     Seq# Num LDEV# H(%) FMT_CAP(MB)\n";
}

std::string formatPoolLine(const PoolView& p) {
  int64_t available = p.capacityMb - p.capacityMb * p.usedPercent / 100;
  std::string sscnt = p.type == "HTI" ? std::to_string(p.snapshotCount) : "-";
  return rtrim(strprintf("%03d  %-4s %4d %6s %13lld %12lld %8s %3d %5d %4d %11s", p.id,
                         p.status.c_str(), p.usedPercent, sscnt.c_str(),
                         static_cast<long long>(available), static_cast<long long>(p.capacityMb),
                         p.serial.c_str(), p.numVols, p.firstLdev, p.threshold, "-"));
}

std::string formatCopyGroupHeader() {
  return "COPY_GROUP        LDEV_GROUP        MU# JID#  Serial#\n";
}

std::string formatCopyGroupLine(const CopyGroupRow& r) {
  return rtrim(strprintf("%-17s %-17s %3s %4s %8s", r.copyGroup.c_str(), r.deviceGroup.c_str(),
                         r.mirror.c_str(), r.journal.c_str(), r.serial.c_str()));
}

std::string formatDeviceGroupListHeader() { return "LDEV_GROUP   Serial#\n"; }

std::string formatDeviceGroupListLine(const std::string& group, const std::string& serial) {
  return rtrim(strprintf("%-12s %7s", group.c_str(), serial.c_str()));
}

std::string formatDeviceGroupHeader() {
  return "LDEV_GROUP      LDEV_NAME        LDEV#    Serial#\n";
}

std::string formatDeviceGroupLine(const std::string& group, const std::string& device, int ldev,
                                  const std::string& serial) {
  return rtrim(
      strprintf("%-15s %-16s %5d %10s", group.c_str(), device.c_str(), ldev, serial.c_str()));
}

std::string formatSnapshotHeader() {
  return "SnapShot_name                    P/S   STAT  Serial# LDEV#  MU# P-LDEV#  PID    % MODE "
         "SPLT-TIME\n";
}

std::string formatSnapshotLine(const SnapshotView& s, bool formatTime) {
  std::string split = "-";
  if (s.splitTime) {
    if (formatTime) {
      std::time_t t = static_cast<std::time_t>(*s.splitTime);
      struct tm tmv;
      localtime_r(&t, &tmv);
      char buf[32];
      std::strftime(buf, sizeof(buf), "%Y-%m-%dT%H:%M:%S", &tmv);
      split = buf;
    } else {
      split = strprintf("%08llx", static_cast<unsigned long long>(*s.splitTime));
    }
  }
  return rtrim(strprintf("%-32s %-5s %-4s %8s %5s %4s %7s %4s %4s %-4s %s", s.group.c_str(),
                         s.role.c_str(), s.status.c_str(), s.serial.c_str(), orDash(s.ldev).c_str(),
                         orDash(s.mu).c_str(), orDash(s.partner).c_str(), orDash(s.pool).c_str(),
                         orDash(s.percent).c_str(), s.mode.c_str(), split.c_str()));
}

std::string formatRaidscanHeader() {
  return "PORT#   /ALPA/C TID# LU#  MU#  Seq#   Num CM LDEV# P/S   Status Fence  P-Seq# P-LDEV# "
         "VOL_ATTR\n";
}

std::string formatRaidscanLine(const RaidscanView& r) {
  return rtrim(strprintf(
      "%-7s %-2s %-4s %-4s %-4d %-3s %6s %3s  %-2s %5d %-5s %-6s %-6s %-6s%8s %s",
      r.portGid.c_str(), "ef", "0", "0", r.lun, r.mu.c_str(), r.serial.c_str(), "1",
      r.commandDevice ? "CM" : "-", r.ldev, r.role.c_str(), r.status.c_str(), r.fence.c_str(),
      r.partnerSerial.c_str(), r.partnerLdev.c_str(), r.volAttr.c_str()));
}

std::string formatPairDisplayHeader(bool percentForm) {
  return percentForm
             ? "Group   PairVol L/R   Port# TID  LU-M   Seq# LDEV# P/S Status    %  P-LDEV# M\n"
             : "Group   PairVol       L/R Port#    TID LU-M Seq#       LDEV# P/S   Status  Seq#    "
               "   P-LDEV# M\n";
}

std::string formatPairDisplayLine(const PairDisplayView& p, bool percentForm) {
  if (percentForm) {
    return rtrim(strprintf("%-7s %-9s %-3s %-7s%3s%4s %s%8s%6d %-5s %-6s%4s%8s %s", p.group.c_str(),
                           p.device.c_str(), p.side.c_str(), p.port.c_str(), p.tid.c_str(),
                           p.lun.c_str(), p.mu.c_str(), p.serial.c_str(), p.ldev, p.role.c_str(),
                           p.status.c_str(), p.percent.c_str(), p.partnerLdev.c_str(),
                           p.mark.c_str()));
  }
  return rtrim(strprintf("%-7s %-13s %-3s %-8s %3s %3s %s %-10s %5d %-5s %-7s %-10s %7s %s",
                         p.group.c_str(), p.device.c_str(), p.side.c_str(), p.port.c_str(),
                         p.tid.c_str(), p.lun.c_str(), p.mu.c_str(), p.serial.c_str(), p.ldev,
                         p.role.c_str(), p.status.c_str(), p.partnerSerial.c_str(),
                         p.partnerLdev.c_str(), p.mark.c_str()));
}

std::string formatSyncWaitHeader() { return "UnitID CTGID  Q-Marker  Status Q-Num\n"; }

std::string formatSyncWaitLine(int unit, int ctg, uint64_t marker, const std::string& status,
                               int64_t queued) {
  return rtrim(strprintf("%6d %5d  %010llx %-6s %6lld", unit, ctg,
                         static_cast<unsigned long long>(marker & 0xFFFFFFFFFFULL), status.c_str(),
                         static_cast<long long>(queued)));
}

std::string formatRaidqryHeader() {
  return "  No  Group    Hostname     HORCM_ver   Uid   Serial#   Micro_ver     Cache(MB)\n";
}

std::string formatRaidqryLine(const RaidqryView& r) {
  return rtrim(strprintf("%4d%7s %11s%14s%6d%9s%15s%12lld", r.no, "---", r.host.c_str(),
                         r.horcmVersion.c_str(), r.unit, r.serial.c_str(), r.microcode.c_str(),
                         static_cast<long long>(r.cacheMb)));
}

std::string formatRaidqryUsage(const std::string& cciVersion, const std::string& instance) {
  std::string text = "Model  : RAID-Manager/Linux/x64\n";
  text += "Ver&Rev: " + cciVersion + "\n";
  text += "Usage  : raidqry [options] for HORC[" + (instance.empty() ? "0" : instance) + "]\n";
  text +=
      " -h     Help/Usage\n"
      " -I[#]  Set to HORCMINST#\n"
      " -IH[#] or -ITC[#] Set to HORC mode [and HORCMINST#]\n"
      " -IM[#] or -ISI[#] Set to MRCF mode [and HORCMINST#]\n"
      " -z     Set to the interactive mode\n"
      " -zx    Set to the interactive mode and HORCM monitoring\n"
      " -q     Quit(Return to main())\n"
      " -g            Specify for getting all group name on local\n"
      " -l            Specify the local query\n"
      " -lm           Specify the local query with full micro version\n"
      " -r <group>    Specify the remote query\n"
      " -f            Specify display for floatable host\n";
  return text;
}

}  // namespace ccisim
