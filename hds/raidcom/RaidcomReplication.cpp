#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "hds/common/HDSConstants.h"
#include "hds/common/internal/HDSText.h"
#include "hds/helper/CommandHelper.h"
#include "hds/platform/VTPlatformInfo.h"
#include "hds/platform/ZoSleep.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "hds/raidcom/internal/RaidcomArgs.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

namespace {

using hds::raidcom::raidcom;

using hds::raidcom::quoteArgument;

const int kVirtualizeAttempts = 5;
const unsigned long kRetryPauseMs = 2000;
// Virtual LDEV ids from here on mean "no virtual id" and are never mapped.
const int kFirstUnusableVirtualId = 65534;

// The P-VOL id of a pair map key "<P-VOL>-><S-VOL>"; a key without the separator is all P-VOL.
std::string pvolOf(std::string const& pairKey) {
  return pairKey.substr(0, pairKey.find(VT_HDS_PAIR_SEPARATOR));
}

bool contains(std::string const& text, const char* needle) {
  return text.find(needle) != std::string::npos;
}

// The sentence raidcom gives after "CAUSE :", to the end of the output; empty when there is none.
std::string causeIn(std::string const& output) {
  const size_t cause = output.find("CAUSE :");
  return cause == std::string::npos ? std::string() : output.substr(cause + 7);
}

// What createSvol did to one new LDEV, so that a failed call can undo it.
struct CreatedLdev {
  std::string ldevId;
  bool unmapped = false;  // its own id was taken away to make room for the virtual one
  bool addedToGroup = false;
  std::string mappedVirtualId;  // set when it was given its id in the virtual machine
};

}  // namespace

// ---- S-VOL lifecycle

unsigned int RaidcomCommandHandler::createSvol(std::map<std::string, hdsLdev_t> const& ldevs,
                                               std::string const& poolId) {
  // Held, when it can be had, until the call returns: another process moving LDEVs of the same
  // virtual storage machine must not interleave with the phases below.
  const std::string lockName = "VT_HDS_VSM_OP_LOCK_" + m_sSerialNumber;
  VTHDSLock vsmLock(*m_pSnapInfo);
  if (m_bVSM && !vsmLock.lock(lockName, 0)) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                     "Unable to get [%s] lock inorder to add LDEV(s) to the VSM. Continuing with "
                     "the LDEV creation...",
                     lockName.c_str());
  }

  int noMpBlade = 0;
  if (!VTPlatformInfo::getRegInt(VT_HDS_REG_SECTION_LOCAL, VT_HDS_RAIDCOM_MP_BLADE_DISABLE,
                                 &noMpBlade)) {
    noMpBlade = 0;
  }
  if (noMpBlade > 0) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Registry Key-[%s] is set. Value-[%d]",
                     VT_HDS_RAIDCOM_MP_BLADE_DISABLE, noMpBlade);
  }

  const std::string command = raidcom(" add ldev ");
  std::string rollbackScript;
  std::vector<CreatedLdev> created;
  bool failed = false;

  for (const auto& entry : ldevs) {
    const hdsLdev_t& ldev = entry.second;
    const std::string& id = ldev.ldevId;
    std::string arguments;
    if (!poolId.empty()) arguments += " -pool " + quoteArgument(poolId);
    if (noMpBlade == 0) arguments += " -mp_blade_id " + std::to_string(ldev.mpBladeId);
    char capacity[32];
    (void)std::snprintf(capacity, sizeof(capacity), "%lld", static_cast<long long>(ldev.capacity));
    arguments += " -ldev_id " + quoteArgument(id) + " -capacity " + capacity + m_sInstanceArgs;

    std::string output;
    int exitCode = 0;
    if (executeCommand(command, arguments, output, exitCode, true) != 0) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to create ldev [%s]", id.c_str());
      setErrorCodeAndString(VT_HDS_ERROR_COMMAND_FAILED, "Failed to create ldev.");
      failed = true;
      break;
    }
    rollbackScript += shellCCIInstallPath() + raidcom(" delete ldev -ldev_id ") +
                      quoteArgument(id) + m_sInstanceArgs + VT_HDS_NEW_LINE;
    created.push_back(CreatedLdev{id, false, false, ""});
    if (m_sResourceGroupName == VT_HDS_META_RESOURCE_NAME) continue;

    // The array refuses resource moves while other sessions move resources of the same group, so
    // each phase is tried a few times before the LDEV counts as failed.
    auto phase = [&](const std::function<int()>& attempt, const char* logFormat,
                     std::string const& errorText) {
      for (int round = 1; round <= kVirtualizeAttempts; ++round) {
        setErrorCodeAndString(0, "");
        if (attempt() == 0) return true;
        m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, logFormat, id.c_str(), m_sResourceGroupName.c_str(),
                         round, kVirtualizeAttempts);
        setErrorCodeAndString(VT_HDS_ERROR_COMMAND_FAILED, errorText);
        ZOSLEEP_InTeRnAl(kRetryPauseMs);
      }
      return false;
    };
    const char* const kVirtualizeLog =
        "Failed to virtualize LDEV-[%s] in resource group-[%s]. Retry-[%d/%d]...";
    const std::string virtualizeError = "Failed to virtualize LDEV-[" + id + "]";
    const bool low = hds::text::toInt(ldev.virtualLdevId) < kFirstUnusableVirtualId;
    CreatedLdev& done = created.back();

    if (m_bVSM && low) {
      const std::string vid = ldev.virtualLdevId.empty() ? id : ldev.virtualLdevId;
      if (!phase([&] { return unmapfromResourceGroup(id, vid, VT_HDS_RESOURCE_TYPE_LDEV); },
                 kVirtualizeLog, virtualizeError)) {
        failed = true;
        break;
      }
      done.unmapped = true;
    }
    if (!phase(
            [&] { return addtoResourceGroup(id, VT_HDS_RESOURCE_TYPE_LDEV); },
            "Failed to add LDEV-[%s] to resource group-[%s]. Retry-[%d/%d]...",
            "Failed to add LDEV-[" + id + "] to resource group-[" + m_sResourceGroupName + "]")) {
      failed = true;
      break;
    }
    done.addedToGroup = true;
    if (m_bVSM) {
      const std::string vid = !ldev.virtualLdevId.empty() && low ? ldev.virtualLdevId : id;
      if (!phase([&] { return maptoResourceGroup(id, vid, VT_HDS_RESOURCE_TYPE_LDEV); },
                 kVirtualizeLog, virtualizeError)) {
        failed = true;
        break;
      }
      done.mappedVirtualId = vid;
    }
  }
  if (!failed) return 0;

  // All or nothing. Resource moves are undone first, newest first: the array refuses to delete an
  // LDEV that carries a virtual id in a virtual storage machine, and deleting one that sits in a
  // resource group leaves its number reserved there. The caller sees the error that started it.
  int errorCode = 0;
  std::string errorText;
  getErrorCodeAndString(errorCode, errorText);
  for (auto it = created.rbegin(); it != created.rend(); ++it) {
    if (!it->mappedVirtualId.empty()) {
      unmapfromResourceGroup(it->ldevId, it->mappedVirtualId, VT_HDS_RESOURCE_TYPE_LDEV);
    }
    if (it->addedToGroup) deleteFromResourceGroup(it->ldevId, VT_HDS_RESOURCE_TYPE_LDEV);
    if (it->unmapped) maptoResourceGroup(it->ldevId, it->ldevId, VT_HDS_RESOURCE_TYPE_LDEV);
  }
  if (!rollbackScript.empty()) {
    std::string output;
    int exitCode = 0;
    executeScriptFile(rollbackScript, output, exitCode);
  }
  setErrorCodeAndString(errorCode, errorText);
  return 1;
}

unsigned int RaidcomCommandHandler::deleteSvol(std::string const& ldevId) {
  const std::string command = raidcom(" delete ldev ");
  const std::string arguments = " -ldev_id " + quoteArgument(ldevId) + m_sInstanceArgs;

  if (m_bVSM) {
    std::vector<hdsLdev_t> query(1);
    query[0].ldevId = ldevId;
    query[0].serialNumber = m_sSerialNumber;
    if (getLdevInfo(query) != 0) return 1;
    const std::string virtualId = query[0].virtualLdevId;
    if (!virtualId.empty() && unreserveFromVSM(ldevId, virtualId, VT_HDS_RESOURCE_TYPE_LDEV) != 0) {
      return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to unreserve ldev",
                  "Failed to unreserve ldev [%s] from resource group [%s]", ldevId.c_str(),
                  m_sResourceGroupName.c_str());
    }
  }

  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Going to delete SVOl [%s].", ldevId.c_str());
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, true) != 0) {
    if (contains(output, "LDEV is not installed")) {
      m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Ldev [%s] already deleted.", ldevId.c_str());
      setErrorCodeAndString(0, "");
      return 0;
    }
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to delete ldev.", "Failed to delete ldev [%s]",
                ldevId.c_str());
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Successfully deleted SVOl [%s].", ldevId.c_str());
  return 0;
}

unsigned int RaidcomCommandHandler::deleteAllSvolsInDeviceGroup(std::string const& deviceGroup) {
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Going to delete SVOLs from device group [%s]",
                   deviceGroup.c_str());
  std::string output;
  int exitCode = 0;
  if (executeCommand(
          raidcom(" delete ldev "),
          " -grp_opt ldev -device_grp_name " + quoteArgument(deviceGroup) + m_sInstanceArgs, output,
          exitCode, true) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to delete SVOLS belonging to device group " + deviceGroup,
                "Failed to delete ldev from device group [%s]", deviceGroup.c_str());
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Successfully deleted all SVOLs in device group [%s]",
                   deviceGroup.c_str());
  return 0;
}

unsigned int RaidcomCommandHandler::formatSvols(std::string const& deviceGroup) {
  std::string output;
  int exitCode = 0;
  if (executeCommand(raidcom(" initialize ldev "),
                     " -operation fmt -grp_opt ldev -device_grp_name " +
                         quoteArgument(deviceGroup) + m_sInstanceArgs,
                     output, exitCode, true) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to format SVOLs.",
                "Failed to format SVOls in device group [%s].", deviceGroup.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Successfully formated SVOLs in device group [%s]",
                   deviceGroup.c_str());
  return 0;
}

unsigned int RaidcomCommandHandler::modifySvolStatus(std::map<std::string, hdsLdev_t> const& ldevs,
                                                     bool unused) {
  std::string script;
  for (const auto& entry : ldevs) {
    script += shellCCIInstallPath() + raidcom(" modify ldev -ldev_id ") +
              quoteArgument(entry.second.ldevId) + " -status blk " + m_sInstanceArgs +
              VT_HDS_NEW_LINE;
    // Blocking completes in the background; its outcome shows only in the command status.
    script +=
        shellCCIInstallPath() + raidcom(" get command_status ") + m_sInstanceArgs + VT_HDS_NEW_LINE;
  }
  std::string output;
  int exitCode = 0;
  if (executeScriptFile(script, output, exitCode) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to block SVOL.");
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                   "Successfully modified SVOLs status to BLOCKED for [%d] vols",
                   static_cast<int>(ldevs.size()));
  return 0;
}

unsigned int RaidcomCommandHandler::modifySvolLabel(std::map<std::string, hdsLdev_t> const& ldevs,
                                                    bool restore) {
  auto line = [this](std::string const& id, std::string const& label) {
    return shellCCIInstallPath() + raidcom(" modify ldev -ldev_id ") + quoteArgument(id) +
           " -ldev_name " +
           quoteArgument(label.empty() ? std::string(VT_HDS_BLANK_LDEV_LABEL) : label) +
           m_sInstanceArgs + VT_HDS_NEW_LINE;
  };
  std::string newLabels;
  std::string currentLabels;
  for (const auto& entry : ldevs) {
    newLabels += line(entry.second.ldevId, entry.second.newLabel);
    currentLabels += line(entry.second.ldevId, entry.second.label);
  }
  const std::string& wanted = restore ? currentLabels : newLabels;
  const std::string& undo = restore ? newLabels : currentLabels;

  std::string output;
  int exitCode = 0;
  if (executeScriptFile(wanted, output, exitCode) != 0) {
    // Some lines may have run; putting every name back is the best that can be done.
    executeScriptFile(undo, output, exitCode);
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to modify SVOL labels.");
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Successfully modified SVOLs label for [%d] vols",
                   static_cast<int>(ldevs.size()));
  return 0;
}

unsigned int RaidcomCommandHandler::modifySvolLabel(std::string const& ldevId,
                                                    std::string const& label) {
  const std::string name = label.empty() ? std::string(VT_HDS_BLANK_LDEV_LABEL) : label;
  std::string output;
  int exitCode = 0;
  if (executeCommand(raidcom(" modify ldev "),
                     " -ldev_id " + quoteArgument(ldevId) + " -ldev_name " + quoteArgument(name) +
                         " " + m_sInstanceArgs,
                     output, exitCode, false) != 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to label SVOls [%s] to [%s].", ldevId.c_str(),
                     name.c_str());
    // Shared with formatSvols on purpose; callers match on it.
    setErrorCodeAndString(VT_HDS_ERROR_COMMAND_FAILED, "Failed to format SVOLs.");
    return 1;
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Successfully modified SVOLs [%s] label to [%s]",
                   ldevId.c_str(), name.c_str());
  return 0;
}

// ---- Device groups

int RaidcomCommandHandler::addVolsToDeviceGroup(std::map<std::string, hdsLdev_t> const& pairs,
                                                std::string const& svolGroup,
                                                std::string const& pvolGroup) {
  // Both sides name a pair's members alike, so the two groups line up pair by pair.
  std::string svolScript;
  std::string pvolScript;
  for (const auto& entry : pairs) {
    const std::string pvol = pvolOf(entry.first);
    const std::string deviceName = VT_HDS_PAIR_DEV_NAME_PREFIX + pvol;
    svolScript += shellCCIInstallPath() + raidcom(" add device_grp -device_grp_name ") +
                  quoteArgument(svolGroup) + " " + quoteArgument(deviceName) + " -ldev_id " +
                  quoteArgument(entry.second.ldevId) + m_sInstanceArgs + VT_HDS_NEW_LINE;
    if (!pvolGroup.empty()) {
      pvolScript += shellCCIInstallPath() + raidcom(" add device_grp -device_grp_name ") +
                    quoteArgument(pvolGroup) + " " + quoteArgument(deviceName) + " -ldev_id " +
                    quoteArgument(pvol) + m_sInstanceArgs + VT_HDS_NEW_LINE;
    }
  }
  const int count = static_cast<int>(pairs.size());

  std::string output;
  int exitCode = 0;
  if (executeScriptFile(svolScript, output, exitCode) != 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to add SVOLs to device group [%s]. Will retry.",
                     svolGroup.c_str());
    ZOSLEEP_InTeRnAl(kRetryPauseMs);
    if (executeScriptFile(svolScript, output, exitCode) != 0) {
      deleteDeviceGroup(pairs, svolGroup, false);
      std::string cause;
      if (output.find("CAUSE :") != std::string::npos) cause = causeIn(output) + "-";
      return fail(VT_HDS_ERROR_COMMAND_FAILED,
                  cause + "Failed to add SVOLs to device group " + svolGroup,
                  "Failed to add [%d] SVOLs to device group [%s] Error [%s]", count,
                  svolGroup.c_str(), cause.c_str());
    }
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Successfully added [%d] SVOLs to device group [%s]",
                   count, svolGroup.c_str());

  if (pvolGroup.empty()) return 0;
  if (executeScriptFile(pvolScript, output, exitCode) != 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to add PVOLs to device group [%s]",
                     pvolGroup.c_str());
    ZOSLEEP_InTeRnAl(kRetryPauseMs);
    if (executeScriptFile(pvolScript, output, exitCode) != 0) {
      deleteDeviceGroup(pairs, pvolGroup, true);
      deleteDeviceGroup(pairs, svolGroup, false);
      return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to add PVOLs to device group " + pvolGroup,
                  "Failed to add [%d] PVOLs to device group [%s]", count, pvolGroup.c_str());
    }
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Successfully added [%d] PVOLs to device group [%s]",
                   count, pvolGroup.c_str());
  return 0;
}

int RaidcomCommandHandler::getDeviceGroupList(std::vector<std::string>& groups) {
  std::string output;
  int exitCode = 0;
  if (executeCommand(raidcom(" get device_grp "), " " + m_sInstanceArgs, output, exitCode, false) !=
      0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get devices in device group list",
                "Failed to get device group list");
  }
  const size_t known = groups.size();
  parseGetDeviceGroupListOutput(output, groups);
  if (groups.size() == known && !hds::text::isEmptyTable(output, "LDEV_GROUP")) {
    setErrorCodeAndString(VT_HDS_ERROR_COMMAND_FAILED,
                          "Failed to get device group list: the output is not a listing.");
    return 1;
  }
  return 0;
}

int RaidcomCommandHandler::getVolsInDeviceGroup(std::vector<hdsLdev_t>& ldevs,
                                                std::string const& group) {
  std::string output;
  int exitCode = 0;
  if (executeCommand(raidcom(" get device_grp "),
                     " -device_grp_name " + quoteArgument(group) + " " + m_sInstanceArgs, output,
                     exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get devices in device group" + group,
                "Failed to get device group [%s] info", group.c_str());
  }
  return parseGetDeviceGroupOutput(output, ldevs) ? 0 : 1;
}

int RaidcomCommandHandler::deleteLdevFromDeviceGroup(std::string const& ldevId,
                                                     std::string const& group) {
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Going to delete LDEV [%s] from deviceGrp [%s].",
                   ldevId.c_str(), group.c_str());
  std::string output;
  int exitCode = 0;
  if (executeCommand(raidcom(" delete device_grp "),
                     " -device_grp_name " + quoteArgument(group) + " -ldev_id " +
                         quoteArgument(ldevId) + m_sInstanceArgs,
                     output, exitCode, false) != 0) {
    if (contains(output, "LDEV is not registered in the device group")) {
      m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Ldev [%s] already deleted from device group [%s]",
                       ldevId.c_str(), group.c_str());
      setErrorCodeAndString(0, "");
      return 0;
    }
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to delete ldev " + ldevId + " from device group " + group + ".] ",
                "Failed to delete ldev [%s] from device group [%s]", ldevId.c_str(), group.c_str());
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Successfully delete SVOl [%s] from deviceGrp [%s].",
                   ldevId.c_str(), group.c_str());
  return 0;
}

namespace {

// One script line per member; the array drops the group with its last member.
std::string deviceGroupDeleteLine(std::string const& installPath, std::string const& group,
                                  std::string const& ldevId, std::string const& instanceArgs) {
  return installPath + raidcom(" delete device_grp -device_grp_name ") + quoteArgument(group) +
         " -ldev_id " + quoteArgument(ldevId) + instanceArgs + VT_HDS_NEW_LINE;
}

}  // namespace

int RaidcomCommandHandler::deleteDeviceGroup(std::map<std::string, hdsLdev_t> const& pairs,
                                             std::string const& group, bool pvolSide) {
  std::string script;
  for (const auto& entry : pairs) {
    const std::string id = pvolSide ? pvolOf(entry.first) : entry.second.ldevId;
    script += deviceGroupDeleteLine(shellCCIInstallPath(), group, id, m_sInstanceArgs);
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Going to delete device group [%s]", group.c_str());
  std::string output;
  int exitCode = 0;
  if (executeScriptFile(script, output, exitCode) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to delete ldev from device group " + group,
                "Failed to delete ldev from device group [%s]", group.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Successfully deleted device group [%s]", group.c_str());
  return 0;
}

int RaidcomCommandHandler::deleteDeviceGroup(std::string const& group) {
  std::vector<hdsLdev_t> members;
  if (getVolsInDeviceGroup(members, group) != 0) return 1;
  if (members.empty()) return 0;
  std::string script;
  for (const hdsLdev_t& member : members) {
    script += deviceGroupDeleteLine(shellCCIInstallPath(), group, member.ldevId, m_sInstanceArgs);
  }
  std::string output;
  int exitCode = 0;
  if (executeScriptFile(script, output, exitCode) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to delete ldev from device group " + group,
                "Failed to delete ldev from device group [%s]", group.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Successfully deleted device group [%s]", group.c_str());
  return 0;
}

// ---- Snapshot groups

int RaidcomCommandHandler::addToSnapshotGroup(std::map<std::string, hdsLdev_t> const& pairs,
                                              std::string const& poolId, std::string const& group,
                                              bool consistencyGroup, bool clone) {
  const std::string command = raidcom(" add snapshot ");
  for (const auto& entry : pairs) {
    const std::string& svol = entry.second.ldevId;
    std::string arguments = " -ldev_id " + quoteArgument(pvolOf(entry.first)) + " " +
                            quoteArgument(svol) + " -pool " + quoteArgument(poolId) +
                            " -snapshotgroup " + quoteArgument(group);
    std::string mode;
    if (consistencyGroup) mode += " CTG ";
    if (entry.second.isCloneTarget) mode += clone ? " clone " : " cascade ";
    if (!mode.empty()) arguments += " -snap_mode " + mode;
    arguments += " " + m_sInstanceArgs;

    std::string output;
    int exitCode = 0;
    if (executeCommand(command, arguments, output, exitCode, true) != 0) {
      std::string text = "Failed to add snapshot-<LDEV-[" + svol + "], Pool-[" + poolId +
                         "], Mode-[" + mode + "], SnapshotGroup-[" + group + "]>.";
      if (output.find("CAUSE :") != std::string::npos) {
        std::string cause = causeIn(output);
        const size_t lastLineEnd = cause.rfind('\n');
        if (lastLineEnd != std::string::npos) cause.erase(lastLineEnd);
        if (!cause.empty()) text += " Error-[" + cause + "]";
      }
      return fail(VT_HDS_ERROR_COMMAND_FAILED, text);
    }
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Successfully added [%zu] SVOLs to snapshot group [%s]",
                   pairs.size(), group.c_str());
  return 0;
}

int RaidcomCommandHandler::operateOnSnapshotGroup(std::string const& group,
                                                  std::string const& svolId,
                                                  std::string const& operation) {
  std::string arguments;
  std::string target;
  if (!svolId.empty()) {
    arguments = " -ldev_id " + quoteArgument(svolId);
    target = "svol " + svolId;
  } else if (!group.empty()) {
    arguments = " -snapshotgroup " + quoteArgument(group);
    target = "snapshotgroup " + group;
  } else {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to perform operation on snapshot group.",
                "Both snapshot group and svol are empty.");
  }
  arguments += " -snapshot_data " + operation + m_sInstanceArgs;
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Going to %s snapshot data on %s.", operation.c_str(),
                   target.c_str());

  std::string output;
  int exitCode = 0;
  if (executeCommand(raidcom(" modify snapshot "), arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to " + operation + " snapshot data on " + target + ".",
                "Failed to [%s] snapshot group %s.", operation.c_str(), target.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "[%s] successfully on %s.", operation.c_str(),
                   target.c_str());
  return 0;
}

int RaidcomCommandHandler::getSnapshotGroupList(std::vector<hdsSnapshotGroupInfo>& pairs,
                                                std::string const& ldevId) {
  std::string arguments;
  if (!ldevId.empty()) arguments = " -ldev_id " + quoteArgument(ldevId);
  arguments += " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(raidcom(" get snapshot "), arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get snapshot group list.",
                "Failed to get snapshot group list");
  }
  const size_t known = pairs.size();
  parseGetSnapshotGroupOutput(output, pairs);
  if (pairs.size() == known && !hds::text::isEmptyTable(output, "SnapShot_name")) {
    setErrorCodeAndString(VT_HDS_ERROR_COMMAND_FAILED,
                          "Failed to get snapshot group list: the output is not a listing.");
    return 1;
  }
  return 0;
}

int RaidcomCommandHandler::getSnapshotGroupInfo(std::vector<hdsSnapshotGroupInfo>& pairs,
                                                std::string const& group) {
  std::string output;
  int exitCode = 0;
  if (executeCommand(raidcom(" get snapshot "),
                     " -snapshotgroup " + quoteArgument(group) + " " + m_sInstanceArgs, output,
                     exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get snapshot group list.",
                "Failed to get snapshot group list");
  }
  const size_t known = pairs.size();
  parseGetSnapshotGroupOutput(output, pairs);
  if (pairs.size() == known && !hds::text::isEmptyTable(output, "SnapShot_name")) {
    setErrorCodeAndString(VT_HDS_ERROR_COMMAND_FAILED,
                          "Failed to get snapshot group list: the output is not a listing.");
    return 1;
  }
  return 0;
}

int RaidcomCommandHandler::deleteSnapshot(std::string const& ldevId) {
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Going to delete snapshot ldev [%s]", ldevId.c_str());
  std::string output;
  int exitCode = 0;
  if (executeCommand(raidcom(" delete snapshot "),
                     " -ldev_id " + quoteArgument(ldevId) + " " + m_sInstanceArgs, output, exitCode,
                     false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to delete snapshot " + ldevId + ".",
                "Failed to delete snapshot [%s]", ldevId.c_str());
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Successfully deleted snapshot [%s]", ldevId.c_str());
  return 0;
}
