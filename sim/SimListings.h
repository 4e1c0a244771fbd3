#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The tables and listings the CCI tools print, one formatter per listing. Each takes plain
// values and returns finished lines, so that the layout of a listing lives in one place.
namespace ccisim {

struct LunPathView {
  std::string port;  // CL1-A
  int gid = 0;
  int lun = 0;
  std::string hostGroupName;
};

struct LdevView {
  std::string serial;
  int id = 0;
  bool defined = false;
  std::optional<int> virtualId;  // shown as VIR_LDEV when set
  std::string volType;
  int64_t capacity = 0;
  std::vector<LunPathView> paths;
  std::optional<int> pool;  // DP volume when set
  std::vector<std::string> attrs;
  std::string name;
  std::string status;
  std::string operation;
  int operationRate = 100;
  int mp = 0;
  int64_t usedBlocks = 0;
  int rsgid = 0;
  bool snapshotPvol = false;
  std::optional<std::string> quorumSerial;
  std::optional<int> quorumId;
};

std::string formatSsid(int ldevId);
// One key : value block, without the blank line that separates blocks.
std::string formatLdevRecord(const LdevView& ldev, bool hex);
std::string formatLdevFrontEndHeader();
std::string formatLdevFrontEndLine(const LdevView& ldev);

struct PortView {
  std::string name, type, attr, speed, lpid, fab, conn, ssw, serial, wwn;
};
std::string formatPortHeader();
std::string formatPortLine(const PortView& port);
std::string formatPortLoginHeader();
std::string formatPortLoginLine(const std::string& port, const std::string& wwn,
                                const std::string& serial);

struct HostGroupView {
  std::string port;
  int gid = 0;
  int rsgid = 0;
  std::string name;  // empty: an unused GID (detail form)
  std::string serial;
  std::string hostMode;
  std::vector<int> hostModeOptions;
};
std::string formatHostGroupHeader();
std::string formatHostGroupLine(const HostGroupView& hg);
std::string formatHostGroupDetailHeader();
std::string formatHostGroupDetailLine(const HostGroupView& hg);

struct HbaWwnView {
  std::string port;
  int gid = 0;
  std::string groupName, wwn, serial, nickname;
};
std::string formatHbaWwnHeader();
std::string formatHbaWwnLine(const HbaWwnView& w);

struct LunView {
  std::string port;
  int gid = 0;
  std::string hostMode;
  int lun = 0;
  int ldev = 0;
  bool commandDevice = false;
  std::string serial;
  std::vector<int> hostModeOptions;
};
std::string formatLunHeader();
std::string formatLunLine(const LunView& l);

struct ResourceView {
  std::string name;
  int id = 0;
  bool locked = false;
  std::string owner, host, serial;
  std::string virtualSerial, virtualType;
  bool virtualInterface = true;
};
std::string formatResourceHeader();
std::string formatResourceLine(const ResourceView& r);
std::string formatResourceOptHeader();
std::string formatResourceOptLine(const ResourceView& r);

struct CommandStatusView {
  int handle = 0;
  std::string ssb1, ssb2;  // "-" when clear
  int errorCount = 0;
  std::string serial;
  std::string description;
};
std::string formatCommandStatusHeader();
std::string formatCommandStatusLine(const CommandStatusView& s);

struct PoolView {
  int id = 0;
  std::string status, name, serial, type;
  int usedPercent = 0;
  int threshold = 80;
  int numVols = 0;
  int firstLdev = 0;
  int64_t capacityMb = 0;
  int snapshotCount = 0;
};
std::string formatPoolOptHeader();
std::string formatPoolOptLine(const PoolView& p);
std::string formatPoolHeader();
std::string formatPoolLine(const PoolView& p);

struct CopyGroupRow {
  std::string copyGroup, deviceGroup, mirror, journal, serial;
};
std::string formatCopyGroupHeader();
std::string formatCopyGroupLine(const CopyGroupRow& r);

std::string formatDeviceGroupListHeader();
std::string formatDeviceGroupListLine(const std::string& group, const std::string& serial);
std::string formatDeviceGroupHeader();
std::string formatDeviceGroupLine(const std::string& group, const std::string& device, int ldev,
                                  const std::string& serial);

struct SnapshotView {
  std::string group;
  std::string role;  // P-VOL, S-VOL, or "-" for the one-line group summary
  std::string status;
  std::string serial;
  std::optional<int> ldev;
  std::optional<int> mu;
  std::optional<int> partner;
  std::optional<int> pool;
  std::optional<int> percent;
  std::string mode;
  std::optional<int64_t> splitTime;  // seconds since the epoch
};
std::string formatSnapshotHeader();
std::string formatSnapshotLine(const SnapshotView& s, bool formatTime);

struct RaidscanView {
  std::string portGid;
  int lun = 0;
  std::string mu;
  std::string serial;
  bool commandDevice = false;
  int ldev = 0;
  std::string role;  // P-VOL, S-VOL, SMPL
  std::string status, fence, partnerSerial, partnerLdev, volAttr;
};
std::string formatRaidscanHeader();
std::string formatRaidscanLine(const RaidscanView& r);

struct PairDisplayView {
  std::string group, device, side, port, tid, lun, mu, serial;
  int ldev = 0;
  std::string role, status, percent, partnerSerial, partnerLdev, mark;
};
std::string formatPairDisplayHeader(bool percentForm);
std::string formatPairDisplayLine(const PairDisplayView& p, bool percentForm);

std::string formatSyncWaitHeader();
std::string formatSyncWaitLine(int unit, int ctg, uint64_t marker, const std::string& status,
                               int64_t queued);

struct RaidqryView {
  int no = 1;
  std::string host, horcmVersion, serial, microcode;
  int unit = 0;
  int64_t cacheMb = 0;
};
std::string formatRaidqryHeader();
std::string formatRaidqryLine(const RaidqryView& r);
std::string formatRaidqryUsage(const std::string& cciVersion, const std::string& instance);

}  // namespace ccisim
