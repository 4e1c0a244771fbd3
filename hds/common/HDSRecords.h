#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hds/common/HDSExport.h"

// Plain records through which the handlers hand the state of the array to their callers. Which
// column of which listing fills a member is the business of the parser that reads it. Members
// named caller... belong to the caller: the library neither reads nor fills them.

// One LU path: a port, host group and LUN through which an LDEV is presented.
struct hdsLun_t {
  std::string port;
  std::string hostGroupId;
  std::string lunId;
  std::string hostGroupName;
  std::string ldevId;  // filled by the host-group LUN listing
};

// One logical device of the array. createSvol reads ldevId, capacity, mpBladeId and
// virtualLdevId; addToSnapshotGroup reads isCloneTarget; modifySvolLabel reads newLabel and label.
struct HDS_API hdsLdev_t {
  std::string serialNumber;
  std::string ldevId;  // decimal
  std::string volType;
  uint64_t capacity;  // blocks
  int64_t callerValue;
  std::vector<hdsLun_t> lunPaths;
  std::string poolId;
  int volAttr;  // VT_HDS_VOL_ bits
  int callerInt;
  std::string newLabel;  // the label a caller wants applied
  std::vector<std::string> callerList;
  std::string label;       // LDEV_NAMING
  std::string deviceName;  // the name inside a device group
  int resourceGroupId;
  std::string virtualLdevId;  // empty when the LDEV is not virtualised
  std::string remoteSerial;
  int mpBladeId;
  bool isCloneTarget;

  hdsLdev_t();
  ~hdsLdev_t();
  hdsLdev_t(const hdsLdev_t&) = default;
  hdsLdev_t(hdsLdev_t&&) = default;
  hdsLdev_t& operator=(const hdsLdev_t&) = default;
  hdsLdev_t& operator=(hdsLdev_t&&) = default;

  // Back to the defaults: empty texts and vectors, zero numbers, marker false.
  void initialize();
};

// One host group of a port.
struct hdsHostGroup_t {
  std::string hostGroupId;
  std::string hostGroupName;
  std::string callerText;
  std::vector<std::string> wwns;  // registered in the group
};

// One array port.
struct hdsPort_t {
  std::string portName;
  std::string portType;
  std::string serialNumber;
  std::string wwn;
  std::vector<hdsHostGroup_t> hostGroups;
  std::vector<std::string> loginWwns;  // initiators logged in on the port
};

// One pool; poolStatus "POLN" (VT_HDS_POOL_STATUS_NORMAL) is normal.
struct hdsPool_t {
  std::string poolId;
  std::string poolName;
  std::string poolStatus;
  int usedPercent = 0;
  int thresholdPercent = 0;
  std::string poolType;
};

// One replication pair as seen from a port or host group.
struct hdsPairStatus_t {
  std::string rcuSerial;
  std::string ldevId;
  std::string details;  // the rest of the listing line
  std::string fence;
  std::string partnerLdevId;
  std::string pairStatus;
  int mirrorUnit = 0;
  std::string volAttr;
  int callerInt = 0;
};

// One raidcom copy group; -1 marks a mirror unit or journal id the listing did not give.
struct HDS_API hdsCopyGroup_t {
  std::string copyGroupName;
  std::string deviceGroupName;
  int mirrorUnit;
  int journalId;

  hdsCopyGroup_t();
  // Empty names, mirror unit and journal id -1.
  void initialize();
};

// One pair line of pairdisplay.
struct hdsCopyGroupInfo {
  std::string copyGroupName;
  std::string pairVolName;
  std::string port;
  std::string ldevId;
  std::string serialNumber;
  int isPrimary = 0;
  std::string pairStatus;
  int copyPercent = 0;
  std::string partnerLdevId;
};

// One snapshot pair of a snapshot group.
struct hdsSnapshotGroupInfo {
  std::string snapshotGroupName;
  std::string pairStatus;
  std::string serialNumber;
  std::string ldevId;
  std::string partnerLdevId;
  std::string mirrorUnit;
  std::string poolId;
  std::string mode;
  bool isPVol = false;
  int copyPercent = 0;
  int64_t splitTime = 0;
};

// The raidqry -l information of this host.
struct hdsRaidqry_t {
  std::string group;
  std::string hostName;
  std::string horcmVersion;
  std::string unitId;
  std::string serialNumber;
  std::string microVersion;
  int cacheSizeMB = 0;
};

// One row of the resource group listing; status is "Locked" or "Unlocked". Listed with
// "-key opt", status holds the virtual serial and lockOwner the array type instead.
struct ResourceGroupStatus {
  std::string status;
  std::string lockOwner;
  std::string lockHost;
  int resourceGroupId = 0;
  std::string serialNumber;
};
