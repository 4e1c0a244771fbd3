#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "hds/common/HDSExport.h"
#include "hds/common/HDSRecords.h"
#include "hds/handler/CommandHandler.h"

// Kind of array resource that is moved between resource groups or given a virtual id.
enum HDSResourceType {
  VT_HDS_RESOURCE_TYPE_LDEV = 1,
  VT_HDS_RESOURCE_TYPE_DEVICE_GROUP = 2,  // map/unmap: SSID with emulation type
  VT_HDS_RESOURCE_TYPE_PORT = 3,
};

// Drives an array through raidcom over a HORCM instance of its own and a login session that all
// handlers of one array on this host share. Construction allocates the instance, writes its
// configuration file and logs in; destruction releases the resource group lock and logs out when
// this is the last session. Failures are reported through the error code and text of the base.
class HDS_API RaidcomCommandHandler : public CommandHandler {
 public:
  RaidcomCommandHandler(VTSO::SnapInfo& snapInfo, HDSCLIInitParam const& param);
  ~RaidcomCommandHandler() override;

  RaidcomCommandHandler(const RaidcomCommandHandler&) = delete;
  RaidcomCommandHandler& operator=(const RaidcomCommandHandler&) = delete;

  void getErrorCodeAndString(int& errorCode, std::string& errorString);

  // ---- Lifecycle and HORCM files
  using CommandHandler::initialize;
  int initialize(std::string const& serialNumber, std::vector<std::string> const& commandDevices);
  int createRaidcomHorcmFiles(std::string const& serialNumber, bool replaceExisting);
  int readRaidcomHorcmFiles(int instance, std::set<std::string>& serials);
  bool formatCommandDeviceName();
  bool LogoutRaidcomHandler();
  int getArrayLockTimeoutVal();
  // The arrays whose sessions the HORCM file this handler wrote for an instance serves; false
  // when the instance has no such file (absent, unreadable, or written by another program).
  static bool horcmFileSerials(int instance, std::set<std::string>& serials);

  // ---- Ending the session before destruction
  // Releases the resource group lock when this handler holds it, then logs out when this is the
  // last session of the array on the host: 0 when both went well. Either way the destructor asks
  // nothing more of the array for what this call gave back; a lock that could not be released
  // stays for the destructor to try again.
  int endSession();
  // The resource group lock stays on the array for the other sessions of this host; this handler
  // no longer counts as holding it, so its end does not release it.
  void leaveResourceLock();
  // Neither the resource group lock nor the session is given back when the handler goes: both
  // stay for whoever recovers them later.
  void abandonSession();

  // ---- Login and the shared login count
  int performLogin(bool forceLogin);
  int performLogout();
  int getLoginCount();

  // ---- Resource group locking
  int lockResource();
  int unlockResource();
  int lockUnlockResourceGroup(bool unlock);
  int getResourceGroup(std::map<std::string, ResourceGroupStatus>& groups, bool withKeyOption);

  // ---- Raidcom command execution and command status
  // The base executeCommand(name, arguments, output, exitCode) is deliberately not brought into
  // scope: a raidcom command run without this wrapper would miss the re-login on an expired
  // session. Call CommandHandler::executeCommand explicitly where that is wanted.
  int executeCommand(std::string const& command, std::string const& arguments, std::string& output,
                     int& exitCode, bool asyncCommand);
  int resetCommandStatus();
  int getCommandStatus(bool& hasError, std::string& statusText);
  int getCCIRaidqryInfo(hdsRaidqry_t& info);

  // ---- LDEV queries
  int getLdevlList(std::vector<hdsLdev_t>& ldevs, std::map<int, std::string> const& filters);
  int getLdevInfo(std::vector<hdsLdev_t>& ldevs);
  void parseGetLdevOutput(std::string const& output, std::vector<hdsLdev_t>& ldevs,
                          std::map<int, std::string> const& filters);
  bool parseGetLdevFrontEndOutput(std::string const& output, std::vector<hdsLdev_t>& ldevs,
                                  std::map<int, std::string> const& filters);
  int getMaxLdevNumber(int& maxLdev);

  // ---- S-VOL lifecycle
  unsigned int createSvol(std::map<std::string, hdsLdev_t> const& ldevs, std::string const& poolId);
  unsigned int deleteSvol(std::string const& ldevId);
  unsigned int deleteAllSvolsInDeviceGroup(std::string const& deviceGroup);
  unsigned int formatSvols(std::string const& deviceGroup);
  unsigned int modifySvolStatus(std::map<std::string, hdsLdev_t> const& ldevs, bool unused);
  unsigned int modifySvolLabel(std::map<std::string, hdsLdev_t> const& ldevs, bool restore);
  unsigned int modifySvolLabel(std::string const& ldevId, std::string const& label);

  // ---- Device groups (pair map: "<P-VOL id>-><S-VOL id>" -> S-VOL record)
  int addVolsToDeviceGroup(std::map<std::string, hdsLdev_t> const& pairs,
                           std::string const& svolGroup, std::string const& pvolGroup);
  int getDeviceGroupList(std::vector<std::string>& groups);
  int getVolsInDeviceGroup(std::vector<hdsLdev_t>& ldevs, std::string const& group);
  int deleteLdevFromDeviceGroup(std::string const& ldevId, std::string const& group);
  int deleteDeviceGroup(std::map<std::string, hdsLdev_t> const& pairs, std::string const& group,
                        bool pvolSide);
  int deleteDeviceGroup(std::string const& group);

  // ---- Snapshot groups
  int addToSnapshotGroup(std::map<std::string, hdsLdev_t> const& pairs, std::string const& poolId,
                         std::string const& group, bool consistencyGroup, bool clone);
  int operateOnSnapshotGroup(std::string const& group, std::string const& svolId,
                             std::string const& operation);
  int getSnapshotGroupList(std::vector<hdsSnapshotGroupInfo>& pairs, std::string const& ldevId);
  int getSnapshotGroupInfo(std::vector<hdsSnapshotGroupInfo>& pairs, std::string const& group);
  int deleteSnapshot(std::string const& ldevId);

  // ---- Copy groups, pools and pair information
  int addCopyGroup(std::string const& copyGroup, std::string const& pvolDeviceGroup,
                   std::string const& svolDeviceGroup, int mirrorId);
  int getCopyGroup(std::vector<hdsCopyGroup_t>& groups, std::string const& copyGroup);
  int deleteCopyGroup(std::string const& copyGroup);
  int getPoolList(std::vector<hdsPool_t>& pools);
  int getPairInfoForHostGroup(std::string const& portOrHostGroup,
                              std::vector<hdsLdev_t> const& ldevs,
                              std::map<int, std::vector<hdsPairStatus_t>>& pairs);
  int getRemotePairInfoForHostGroup(std::string const& portOrHostGroup,
                                    std::vector<hdsLdev_t> const& ldevs,
                                    std::map<int, std::vector<hdsPairStatus_t>>& pairs);
  int getRemoteReplicationInfo(std::string const& portOrHostGroup, std::vector<hdsLdev_t>& ldevs,
                               std::map<int, std::vector<hdsPairStatus_t>>& pairs,
                               std::vector<int>& mirrorUnits);

  // ---- Resource group membership and virtual storage machines
  int addtoResourceGroup(std::string const& resourceId, HDSResourceType type);
  int deleteFromResourceGroup(std::string const& resourceId, HDSResourceType type);
  int maptoResourceGroup(std::string const& resourceId, std::string const& virtualId,
                         HDSResourceType type);
  int unmapfromResourceGroup(std::string const& resourceId, std::string const& virtualId,
                             HDSResourceType type);
  int getResourceGroupInfo(std::map<std::string, ResourceGroupStatus>& groups, bool withKeyOption);
  int unreserveFromVSM(const std::string& ldevId, const std::string& virtualLdevId,
                       HDSResourceType type);

  // ---- Ports and host groups
  int getPortList(std::vector<hdsPort_t>& ports);
  int getPortLoginWWNList(std::string const& port, hdsPort_t& portRec);
  int getPortHostGroupList(std::string const& port, std::string const& hostGroup,
                           hdsPort_t& portRec, bool withWWNs, std::string const& wwn, bool vsm);
  int createHostGroup(std::string const& port, std::string const& hostGroup);
  int deleteHostGroup(std::string const& port, std::string const& hostGroup);
  int addWWNToHostGroup(std::string const& port, std::string const& hostGroup,
                        std::string const& wwn);
  int getHostGroupInfo(std::string const& port, std::string const& hostGroup, hdsHostGroup_t& hg);
  int findHostGroup(std::string const& port, std::string& hostGroup);
  int getHostGroupOfCommandDevice(std::string& hostGroup);

  // ---- LUN mapping
  int mapLdevToHostGroup(std::string const& ldev, std::string const& P, std::string const& G);
  int mapDeviceGroupToHostGroup(std::string const& deviceGroup, std::string const& P,
                                std::string const& G);
  int unmapLdevFromHostGroup(std::string const& ldev, std::string const& P, std::string const& G);
  int unmapDeviceGroupFromHostGroup(std::string const& deviceGroup, std::string const& P,
                                    std::string const& G);
  int getLunsForHostGroup(std::string const& P, std::string const& G, std::vector<hdsLun_t>& luns);

 protected:
  std::string m_sUserName;
  std::string m_sPassword;  // travels only in the argument part of -login; never logged
  std::string m_sResourceGroupName;
  bool m_bLoggedIn = false;
  bool m_bResourceGroupLocked = false;
  // " -IM<instance> -s <serial>", appended to every raidcom command; only " -IM<instance>" while
  // initialize logs in.
  std::string m_sInstanceArgs;
  bool m_bVSM = false;
  bool m_bForceLogout = false;
  std::string m_sVirtualStorageSerial;

  // Starts the handler's HORCM instance again after a command found it down; the command's
  // error stays when that fails.
  int restartHorcmInstance(std::string const& command);

  // Process-wide raidcom settings. Every initialize rewrites them from the client settings
  // without a lock (last writer wins); atomic so that concurrent handlers stay well defined.
  static std::atomic<int> m_iCmdRetryWait;  // -time of get command_status and lock resource
  static std::atomic<int> m_iCmdRetryCnt;   // rounds of get command_status after a time-out
  // Serial number -> handlers of this process that hold the array's resource group lock. Only
  // touched under the host-wide lock "VT_HDS_LOCK_RESOURCE_GROUP".
  static std::map<std::string, int> m_oArrayLockRefCntMap;
};
