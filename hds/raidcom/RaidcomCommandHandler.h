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
//
// Thread safety: a handler is not safe to share between threads; handlers in many threads and
// processes may run at once, the shared session being guarded by host-wide named locks:
// "RAIDCOM_LOGIN_LOCK" (login count, HORCM instance), "VT_HDS_LOCK_RESOURCE_GROUP" (resource
// group lock), "VT_HDS_SYNC_COMMANDS" (command status) and "VT_HDS_VSM_OP_LOCK_<serial>" (moves
// into and out of a virtual storage machine).
//
// Unless an operation says otherwise: 0 is success and 1 failure with 62601
// (VT_HDS_ERROR_COMMAND_FAILED) and a text; a vector or map argument is appended to, not cleared,
// and keeps what it held when the command fails; every tool call goes through executeCommand
// below, and a named lock is waited for at most its rounds x 5 s (VTHDSLock::lock).
class HDS_API RaidcomCommandHandler : public CommandHandler {
 public:
  // Calls initialize(param.serialNumber, param.commandDevices); the error code tells the outcome.
  RaidcomCommandHandler(VTSO::SnapInfo& snapInfo, HDSCLIInitParam const& param);
  // Releases the resource group lock when this handler holds it, then logs out when it is logged
  // in, unless it is a prepare step (operation type 1) and "nVTHDSEnableDelayedLogoutForSnapCreate"
  // keeps the session for the create step. Failures are only logged.
  ~RaidcomCommandHandler() override;

  RaidcomCommandHandler(const RaidcomCommandHandler&) = delete;
  RaidcomCommandHandler& operator=(const RaidcomCommandHandler&) = delete;

  void getErrorCodeAndString(int& errorCode, std::string& errorString);

  // ---- Lifecycle and HORCM files
  using CommandHandler::initialize;
  // 1 at once for a handler that is not ready (error fields untouched). Refuses a missing serial,
  // or missing command devices without a custom instance (62600), and a missing user name or
  // password (62602); reads the raidcom settings. Unless it is a create step (operation type 2),
  // then under the login lock: takes or shares a HORCM instance (createRaidcomHorcmFiles) unless
  // a custom one was given, and starts it when no session of the array is counted. Then logs in,
  // except in a create step that works in the session its prepare step kept. A failed start or
  // login removes the HORCM file written (stopping the instance started) unless another session
  // of the array came meanwhile. On success the handler is logged in, the instance suffix is
  // " -IM<instance> -s <serial>" and the error code is 0.
  int initialize(std::string const& serialNumber, std::vector<std::string> const& commandDevices);
  // For the caller holding the login lock. Searches instances 3532 down to 3500 for the first
  // without a file, or the first whose file names this serial: that one is shared as it is (0,
  // nothing written) unless replaceExisting, when it is rewritten. Writes the file naming the host,
  // the instance and the command devices. 1 with 62600 for a control character in the host name,
  // 62601 when a file cannot be read, removed or written or no instance is free.
  int createRaidcomHorcmFiles(std::string const& serialNumber, bool replaceExisting);
  // Adds the serials named in the instance's HORCM file to serials; 1 when it cannot be read.
  int readRaidcomHorcmFiles(int instance, std::set<std::string>& serials);
  // Gives the command devices named /dev/dsk..., /dev/disk... or /dev/hdisk... their raw form by
  // inserting "r" after "/dev/". Always true.
  bool formatCommandDeviceName();
  // performLogout, in the historic sense: true when the logout failed.
  bool LogoutRaidcomHandler();
  // The -time, in seconds, of resource locks and command status reads ("sVTHDSRaidcomTimeoutInSecs"
  // in "~iHarbor", default 30); one value for the process, set by the latest initialize.
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
  // Under the login lock, counts this session in the array's login count (kept in the settings
  // with the boot of the host it was counted in); only the first session runs "raidcom -login".
  // forceLogin does not read the count: it stores 1 and always logs in (a session that expired, or
  // a count a crash left too high). 1 with 62602 "Failed to login to array." when the lock or the
  // count cannot be had, 62602 with the command's text when the login fails (the count is then
  // stored as 0). 1 with the error fields untouched when this thread already holds the login lock
  // (a login or logout that found the session expired): the lock is not recursive.
  int performLogin(bool forceLogin);
  // Under the login lock, counts this session out; only the last one runs "raidcom -logout". 1
  // with 62601 when the lock cannot be had (text untouched) or the logout fails (the count is
  // lowered already), 62602 when the count cannot be read or stored. It does not change whether the
  // handler counts as logged in: the destructor would count it out a second time.
  int performLogout();
  // The array's login count read under the login lock; -1 when the lock or the count cannot be
  // had (error fields untouched). A count from an earlier boot of the host reads, and is stored, 0.
  int getLoginCount();

  // ---- Resource group locking
  // Locks the handler's resource group on the array for the session this host shares. Holds
  // "VT_HDS_LOCK_RESOURCE_GROUP" throughout; when another handler of this process holds the array's
  // lock, it only counts. Otherwise reads raidqry -l (getCCIRaidqryInfo), then in up to
  // "nVTHDSSnapArrayLockRetryCount" ("iHarbor", default 50) rounds reads the group's status: an
  // unlocked group is locked (a failed lock uses two rounds), one locked by the same user from
  // this host counts as held, one locked by another owner or not listed is read again after 5 s.
  // Blocks for the named lock plus rounds x (5 s + the reading and locking commands). On failure
  // the text names the owner and host that kept it locked, or the group that was not listed; the
  // error fields are clear when the status read is neither "Locked" nor "Unlocked".
  int lockResource();
  // Under the same named lock: counts down while other handlers of this process hold the lock,
  // else reads the group's status and unlocks it when it is locked (whoever locked it: the session
  // is shared); already unlocked is 0. Does not check that this handler holds the lock. On
  // success the handler no longer holds it; after a failed unlock it still does (the destructor
  // tries again). Error fields as for lockResource.
  int unlockResource();
  // One "raidcom lock resource" (unlock) of the handler's group with -time
  // getArrayLockTimeoutVal(); a lock asked for while this handler holds it is 0 at once. Sets
  // whether the handler holds the lock, and nothing else: no named lock, no count.
  int lockUnlockResourceGroup(bool unlock);
  // Clears groups, then lists the resource groups by name ("get resource"). With withKeyOption
  // ("-key opt") the status column holds the virtual serial and the owner column the array type;
  // with a CCI older than 01-32 that is 1 with nothing run.
  int getResourceGroup(std::map<std::string, ResourceGroupStatus>& groups, bool withKeyOption);

  // ---- Raidcom command execution and command status
  // The base executeCommand(name, arguments, output, exitCode) is deliberately not brought into
  // scope: a raidcom command run without this wrapper would miss the re-login on an expired
  // session. Call CommandHandler::executeCommand explicitly where that is wanted.
  //
  // Runs the command as the base does, with two repairs, each at most once: an answer that shows
  // the HORCM instance down (exit 250, 251 or 255 with EX_ATTDBG, EX_ATTHOR or EX_COMERR) starts
  // it again, an expired session (EX_ENAUTH, 202) logs in again with force; then the command runs
  // again. A failed start leaves the command's own error, a failed login its own. With
  // asyncCommand the whole runs under "VT_HDS_SYNC_COMMANDS" between "reset command_status" and
  // getCommandStatus, and an error in the status fails the call ("Command status has error.").
  // With command output kept, the output is also written to a response file (1 when it cannot
  // be). May block for three runs of the command, a start, a login and, with asyncCommand, the
  // status reads.
  int executeCommand(std::string const& command, std::string const& arguments, std::string& output,
                     int& exitCode, bool asyncCommand);
  int resetCommandStatus();
  // Reads "get command_status -time <getArrayLockTimeoutVal()>", again after each EX_EWSTOT (233)
  // time-out, in up to "sVTHDSRaidcomMaxRetryCount" ("~iHarbor", default 50) rounds. 0 with
  // hasError false when the status shows no error; 0 with hasError and statusText (the error's
  // description, or "Command timeout." when the rounds ran out) when it does. 1 with 62601 when
  // the command fails otherwise, and 1 when no status line could be read at all.
  int getCommandStatus(bool& hasError, std::string& statusText);
  // This host's "raidqry -l" line, read once per process and kept: the group, host name, versions,
  // serial and microcode are those of the array first asked about. 1 with 62601 when raidqry
  // fails; 1 with the error fields clear when its line is short, and what was read of it is kept
  // all the same: a later call returns it with 0 once the host name was read.
  int getCCIRaidqryInfo(hdsRaidqry_t& info);

  // ---- LDEV queries
  // "get ldev" for the filters (VT_HDS_LDEV_FILTER_ bit -> value): one list kind (undefined,
  // unmapped, mapped, defined, quorum; the first present wins), else a control unit (decimal, or a
  // hexadecimal range "a-b" of units), then a pool and a resource group; a label filter picks
  // among the records read. Nothing matching (EX_ENODEV, 246) is 0 with nothing appended and the
  // error fields cleared.
  int getLdevlList(std::vector<hdsLdev_t>& ldevs, std::map<int, std::string> const& filters);
  // Refreshes each record in place (ldevId and serialNumber set by the caller) from its own "get
  // ldev": a record is replaced whole when the answer names the same LDEV and serial, and left as
  // it was otherwise. 0 when all were refreshed (an empty vector too), 2 when some were, 1 when
  // none was. A failed record sets 62601, but the next record's command clears the error fields
  // again, so after 2 they may be clear.
  int getLdevInfo(std::vector<hdsLdev_t>& ldevs);
  // The LDEV listing parsers, for callers of the historic interface; the second is always true.
  void parseGetLdevOutput(std::string const& output, std::vector<hdsLdev_t>& ldevs,
                          std::map<int, std::string> const& filters);
  bool parseGetLdevFrontEndOutput(std::string const& output, std::vector<hdsLdev_t>& ldevs,
                                  std::map<int, std::string> const& filters);
  // The highest LDEV id to use: with CCI 01-32 or later the array type ("get resource -key opt")
  // picks its model's limit (65279 when unknown), which one "get ldev" then probes. Always 0; a
  // failed probe gives 16383 and leaves its error fields set.
  int getMaxLdevNumber(int& maxLdev);

  // ---- S-VOL lifecycle
  // One LDEV per record (ldevId, capacity in blocks, mpBladeId unless "nVTHDSDontUseMPBladeId"),
  // in the pool when poolId is given, each an async command. Outside meta_resource each is moved
  // into the handler's resource group and, on a virtual storage machine, given its virtual id
  // (virtualLdevId when below 65534, else its own id); each move is tried 5 times 2 s apart. All
  // or nothing: on failure the moves are undone newest first, the LDEVs made are deleted by one
  // script, and the first failure's error is reported. On a virtual storage machine
  // "VT_HDS_VSM_OP_LOCK_<serial>" is held for the call when it can be had.
  unsigned int createSvol(std::map<std::string, hdsLdev_t> const& ldevs, std::string const& poolId);
  // Deletes the LDEV (async). On a virtual storage machine it is read first and, when it has a
  // virtual id, released from the machine (unreserveFromVSM). An LDEV already gone ("LDEV is not
  // installed") is 0 with the error fields cleared.
  unsigned int deleteSvol(std::string const& ldevId);
  // Every LDEV of the device group, in one async command.
  unsigned int deleteAllSvolsInDeviceGroup(std::string const& deviceGroup);
  // initialize ldev -operation fmt on every LDEV of the device group (async).
  unsigned int formatSvols(std::string const& deviceGroup);
  // Blocks the LDEVs (-status blk) in one script, each line followed by a command status read.
  unsigned int modifySvolStatus(std::map<std::string, hdsLdev_t> const& ldevs, bool unused);
  // Names each LDEV newLabel (restore: label) in one script; an empty name is written "BLANK". On
  // failure a second script writes the other names back, as far as it can.
  unsigned int modifySvolLabel(std::map<std::string, hdsLdev_t> const& ldevs, bool restore);
  // One LDEV, "BLANK" for an empty label; fails with the text "Failed to format SVOLs.".
  unsigned int modifySvolLabel(std::string const& ldevId, std::string const& label);

  // ---- Device groups (pair map: "<P-VOL id>-><S-VOL id>" -> S-VOL record)
  // Adds each pair's S-VOL to svolGroup and, when pvolGroup is given, its P-VOL to pvolGroup, both
  // under the device name "Pair_<P-VOL id>"; one script per side, each tried twice 2 s apart. A
  // side that fails twice is taken out again, the S-VOL side with it; the S-VOL side's text
  // starts with raidcom's CAUSE.
  int addVolsToDeviceGroup(std::map<std::string, hdsLdev_t> const& pairs,
                           std::string const& svolGroup, std::string const& pvolGroup);
  int getDeviceGroupList(std::vector<std::string>& groups);
  // One record (deviceName, ldevId, serialNumber) per member. Also 1 when a line lacks one of its
  // values: the records before it stay and the error fields are clear.
  int getVolsInDeviceGroup(std::vector<hdsLdev_t>& ldevs, std::string const& group);
  // An LDEV that is not in the group is 0 with the error fields cleared.
  int deleteLdevFromDeviceGroup(std::string const& ldevId, std::string const& group);
  // Removes each pair's S-VOL (pvolSide: P-VOL) from the group in one script; the array drops the
  // group with its last member.
  int deleteDeviceGroup(std::map<std::string, hdsLdev_t> const& pairs, std::string const& group,
                        bool pvolSide);
  // Reads the members and removes them all in one script; 0 for an empty group.
  int deleteDeviceGroup(std::string const& group);

  // ---- Snapshot groups
  // One async "add snapshot" per pair; -snap_mode CTG with consistencyGroup, and for a record
  // marked isCloneTarget "clone" (clone) or "cascade". Stops at the first failure with a text
  // naming the S-VOL, pool, mode and group and raidcom's CAUSE; pairs added before it stay.
  int addToSnapshotGroup(std::map<std::string, hdsLdev_t> const& pairs, std::string const& poolId,
                         std::string const& group, bool consistencyGroup, bool clone);
  // "modify snapshot -snapshot_data <operation>" on one S-VOL when svolId is given, else on the
  // group; 1 when both are empty. operation goes into the command line unquoted: only the
  // VT_HDS_SNAP_OP_ words belong there.
  int operateOnSnapshotGroup(std::string const& group, std::string const& svolId,
                             std::string const& operation);
  // The snapshot pairs of the LDEV, or of every group when ldevId is empty.
  int getSnapshotGroupList(std::vector<hdsSnapshotGroupInfo>& pairs, std::string const& ldevId);
  int getSnapshotGroupInfo(std::vector<hdsSnapshotGroupInfo>& pairs, std::string const& group);
  int deleteSnapshot(std::string const& ldevId);

  // ---- Copy groups, pools and pair information
  int addCopyGroup(std::string const& copyGroup, std::string const& pvolDeviceGroup,
                   std::string const& svolDeviceGroup, int mirrorId);
  // Clears groups first; every copy group when copyGroup is empty.
  int getCopyGroup(std::vector<hdsCopyGroup_t>& groups, std::string const& copyGroup);
  int deleteCopyGroup(std::string const& copyGroup);
  int getPoolList(std::vector<hdsPool_t>& pools);
  // Clears pairs, then files the local pairs of the given LDEVs (raidscan -p <port or port and
  // host group> -CLI) by mirror unit; SMPL and S-VOL lines are left out.
  int getPairInfoForHostGroup(std::string const& portOrHostGroup,
                              std::vector<hdsLdev_t> const& ldevs,
                              std::map<int, std::vector<hdsPairStatus_t>>& pairs);
  // Clears pairs, then files the remote pairs of the given LDEVs that have a partner, under mirror
  // units 0, 1 and 2 (one raidscan each, through the instance in HORC mode, -IH). After a failed
  // raidscan pairs keeps what the units before it gave.
  int getRemotePairInfoForHostGroup(std::string const& portOrHostGroup,
                                    std::vector<hdsLdev_t> const& ldevs,
                                    std::map<int, std::vector<hdsPairStatus_t>>& pairs);
  // getRemotePairInfoForHostGroup, then appends to mirrorUnits every unit whose pairs are all in
  // PAIR with one fence and one remote serial and cover every LDEV (for active-active
  // replication, replication type 4: at least one). ldevs is not changed.
  int getRemoteReplicationInfo(std::string const& portOrHostGroup, std::vector<hdsLdev_t>& ldevs,
                               std::map<int, std::vector<hdsPairStatus_t>>& pairs,
                               std::vector<int>& mirrorUnits);

  // ---- Resource group membership and virtual storage machines
  // Adds the resource to the handler's resource group, or takes it out (worded as the addition).
  int addtoResourceGroup(std::string const& resourceId, HDSResourceType type);
  int deleteFromResourceGroup(std::string const& resourceId, HDSResourceType type);
  // Gives the resource its virtual id in the virtual storage machine: an LDEV its virtual LDEV
  // id, an SSID its emulation type, a port its virtual port. unmap cancels that (an SSID needs no
  // virtual id).
  int maptoResourceGroup(std::string const& resourceId, std::string const& virtualId,
                         HDSResourceType type);
  int unmapfromResourceGroup(std::string const& resourceId, std::string const& virtualId,
                             HDSResourceType type);
  // getResourceGroup through the instance alone ("-IM<instance>", no -s), each status cut to six
  // characters ("Unlocked" reads "Unlock"). On failure the instance suffix of this handler stays
  // "-IM<instance>", without the serial and without its leading blank, for every later command.
  int getResourceGroupInfo(std::map<std::string, ResourceGroupStatus>& groups, bool withKeyOption);
  // Takes the LDEV out of the virtual storage machine, back to meta_resource under its own id:
  // cancels its virtual id (when below 65534), removes it from the handler's resource group and
  // maps it to its own id, under "VT_HDS_VSM_OP_LOCK_<serial>" (1 when that cannot be had). Stops
  // at the first failed step; the steps before it stay done.
  int unreserveFromVSM(const std::string& ldevId, const std::string& virtualLdevId,
                       HDSResourceType type);

  // ---- Ports and host groups
  // One record per port not yet in the vector (a port listed once per attribute counts once).
  int getPortList(std::vector<hdsPort_t>& ports);
  // Appends the WWNs logged in on the port to portRec.loginWwns (portName set when empty).
  int getPortLoginWWNList(std::string const& port, hdsPort_t& portRec);
  // Appends the port's host groups to portRec.hostGroups (portName set when empty). Reads the
  // resource groups first (getResourceGroupInfo, with -key opt from CCI 01-32 on): with vsm the
  // listing is limited to the handler's resource group (1 when that is not listed), without it and
  // from CCI 01-32 on to the physical machine's groups. With withWWNs each new host group (only the
  // one named hostGroup, when given) gets its WWNs, unless hostGroup is the pre-snap host group;
  // with a wwn, only the new host groups holding it (case-insensitive) are kept. A failed WWN read
  // is 1 with the host groups appended so far.
  int getPortHostGroupList(std::string const& port, std::string const& hostGroup,
                           hdsPort_t& portRec, bool withWWNs, std::string const& wwn, bool vsm);
  // Outside meta_resource the new host group is moved into the handler's resource group; one
  // that cannot be moved is deleted again.
  int createHostGroup(std::string const& port, std::string const& hostGroup);
  // These two take a single digit as a host group number and anything else as its name.
  int deleteHostGroup(std::string const& port, std::string const& hostGroup);
  int addWWNToHostGroup(std::string const& port, std::string const& hostGroup,
                        std::string const& wwn);
  // hostGroup is a number. Appends the group's WWNs to hg.wwns and, when the listing has lines,
  // sets its name (and its number when empty).
  int getHostGroupInfo(std::string const& port, std::string const& hostGroup, hdsHostGroup_t& hg);
  // Replaces hostGroup, a name (case-insensitive) or number, with the number of that host group
  // of the port. The pre-snap host group ("KS_PRE_SNAP_HOST_GROUP", on a virtual storage machine
  // "KS_PSHG_<virtual serial>") is created when missing. hostGroup is unchanged on failure.
  int findHostGroup(std::string const& port, std::string& hostGroup);
  // raidscan -pdg of the first command device: the first column of its first data line; 0 with
  // hostGroup untouched when there is none, 1 when the handler has no command device.
  int getHostGroupOfCommandDevice(std::string& hostGroup);

  // ---- LUN mapping
  // P is the port, G the host group number.
  // An LDEV already mapped ("An LU path has already defined in the relevant LDEV") is 0 with the
  // error fields cleared.
  int mapLdevToHostGroup(std::string const& ldev, std::string const& P, std::string const& G);
  int mapDeviceGroupToHostGroup(std::string const& deviceGroup, std::string const& P,
                                std::string const& G);
  // An LU path that is not there (EX_ENOOBJ, 205) is 0 with the error fields cleared. The error
  // code tells the caller what to do: VT_HDS_CCI_SVOL_BUSY (2) while the LU is executing host
  // I/O, VT_HDS_CCI_LAST_PATH_FOR_SNAP (3) for the last path of a snapshot, else 62601.
  int unmapLdevFromHostGroup(std::string const& ldev, std::string const& P, std::string const& G);
  // VT_HDS_CCI_SVOL_BUSY (2) while an LU is executing host I/O, else 62601.
  int unmapDeviceGroupFromHostGroup(std::string const& deviceGroup, std::string const& P,
                                    std::string const& G);
  // Appends the LU paths of the host group (G all digits: a number, else a name).
  int getLunsForHostGroup(std::string const& P, std::string const& G, std::vector<hdsLun_t>& luns);

 protected:
  std::string m_sUserName;
  std::string m_sPassword;  // travels only in the argument part of -login; never logged
  std::string m_sResourceGroupName;
  bool m_bLoggedIn = false;
  bool m_bResourceGroupLocked = false;
  // " -IM<instance> -s <serial>", appended to every raidcom command; only " -IM<instance>" while
  // initialize logs in, and "-IM<instance>" after a failed getResourceGroupInfo.
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
