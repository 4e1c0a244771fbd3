// Copy groups, pools, local and remote pair information, resource group membership and the
// release of LDEVs from a virtual storage machine.

#include <cstdlib>
#include <set>
#include <string>

#include "hds/common/HDSConstants.h"
#include "hds/common/internal/HDSText.h"
#include "hds/handler/internal/InstanceArgs.h"
#include "hds/helper/CommandHelper.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "hds/raidcom/internal/RaidcomArgs.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

namespace {

using hds::handler::instanceArguments;
using hds::handler::InstanceMode;

using hds::raidcom::raidcom;

using hds::raidcom::portArgument;
using hds::raidcom::quoteArgument;

// Remote mirror units a raidscan of remote pairs looks at.
const int kRemoteMirrorUnits = 3;
// Replication kind of active-active pairs, as the job context reports it.
const int kReplicationTypeActiveActive = 4;
const char* const kVsmLockPrefix = "VT_HDS_VSM_OP_LOCK_";

std::string membershipArgument(std::string const& id, HDSResourceType type) {
  switch (type) {
    case VT_HDS_RESOURCE_TYPE_LDEV:
      return " -ldev_id " + quoteArgument(id);
    case VT_HDS_RESOURCE_TYPE_DEVICE_GROUP:
      return " -device_grp_name " + quoteArgument(id);
    case VT_HDS_RESOURCE_TYPE_PORT:
      return " -port " + portArgument(id);
  }
  return std::string();
}

std::string arrangementArgument(std::string const& id, std::string const& virtualId,
                                HDSResourceType type, bool unmap) {
  switch (type) {
    case VT_HDS_RESOURCE_TYPE_LDEV:
      return " -ldev_id " + quoteArgument(id) + " -virtual_ldev_id " + quoteArgument(virtualId);
    case VT_HDS_RESOURCE_TYPE_DEVICE_GROUP:
      // Unmapping an SSID needs no resource argument at all.
      if (unmap) return std::string();
      return " -ssid " + quoteArgument(id) + " -emulation_type " + quoteArgument(virtualId);
    case VT_HDS_RESOURCE_TYPE_PORT:
      return " -port " + portArgument(id) + " -virtual_port " + portArgument(virtualId);
  }
  return std::string();
}

}  // namespace

// ---- Copy groups and pools

int RaidcomCommandHandler::addCopyGroup(std::string const& copyGroup,
                                        std::string const& pvolDeviceGroup,
                                        std::string const& svolDeviceGroup, int mirrorId) {
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Going to add copy group [%s]", copyGroup.c_str());
  const std::string command = raidcom(" add copy_grp ");
  const std::string arguments = " -copy_grp_name " + quoteArgument(copyGroup) + " " +
                                quoteArgument(pvolDeviceGroup) + " " +
                                quoteArgument(svolDeviceGroup) + " " + " -mirror_id " +
                                std::to_string(mirrorId) + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to add copy group " + copyGroup,
                "Failed to add copy group [%s].", copyGroup.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                   "Successfully added copy group [%s] with PVOL [%s] and svol [%s]",
                   copyGroup.c_str(), pvolDeviceGroup.c_str(), svolDeviceGroup.c_str());
  return 0;
}

int RaidcomCommandHandler::getCopyGroup(std::vector<hdsCopyGroup_t>& groups,
                                        std::string const& copyGroup) {
  groups.clear();
  const std::string command = raidcom(" get copy_grp ");
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, m_sInstanceArgs, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get copy group list.");
  }
  parseGetCopyGroupOutput(output, copyGroup, groups);
  return 0;
}

int RaidcomCommandHandler::deleteCopyGroup(std::string const& copyGroup) {
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Going to delete copy group [%s]", copyGroup.c_str());
  const std::string command = raidcom(" delete copy_grp ");
  const std::string arguments =
      " -copy_grp_name " + quoteArgument(copyGroup) + " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to delete copy group [" + copyGroup + "].",
                "Failed to delete copy group [%s]", copyGroup.c_str());
  }
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Successfully deleted copy group [%s]", copyGroup.c_str());
  return 0;
}

int RaidcomCommandHandler::getPoolList(std::vector<hdsPool_t>& pools) {
  const std::string command = raidcom(" get pool ");
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, " -key opt " + m_sInstanceArgs, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get pool list.");
  }
  parseGetPoolOutput(output, pools);
  return 0;
}

// ---- Pair information

int RaidcomCommandHandler::getPairInfoForHostGroup(
    std::string const& portOrHostGroup, std::vector<hdsLdev_t> const& ldevs,
    std::map<int, std::vector<hdsPairStatus_t>>& pairs) {
  pairs.clear();
  const std::string arguments = " -p " + portArgument(portOrHostGroup) + " -CLI " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_RAIDSCAN_CMD_NAME, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get pair list using raidscan command.",
                "Failed to get pair info using raidscan command.");
  }
  parseRaidscanPairOutput(output, ldevs, pairs);
  return 0;
}

int RaidcomCommandHandler::getRemotePairInfoForHostGroup(
    std::string const& portOrHostGroup, std::vector<hdsLdev_t> const& ldevs,
    std::map<int, std::vector<hdsPairStatus_t>>& pairs) {
  pairs.clear();
  // Remote pairs are seen through the instance in HORC mode (-IH) rather than -IM.
  for (int mirrorUnit = 0; mirrorUnit < kRemoteMirrorUnits; ++mirrorUnit) {
    const std::string arguments =
        " -p " + portArgument(portOrHostGroup) + " -CLI -m " + std::to_string(mirrorUnit) + " " +
        instanceArguments(InstanceMode::Horc, m_sHorcmInstance, m_sSerialNumber);
    std::string output;
    int exitCode = 0;
    if (executeCommand(VT_HDS_RAIDSCAN_CMD_NAME, arguments, output, exitCode, false) != 0) {
      return fail(VT_HDS_ERROR_COMMAND_FAILED,
                  "Failed to get replication pair list using raidscan command.",
                  "Failed to get replication pair info using raidscan command.");
    }
    parseRaidscanRemotePairOutput(output, mirrorUnit, ldevs, pairs);
  }
  return 0;
}

int RaidcomCommandHandler::getRemoteReplicationInfo(
    std::string const& portOrHostGroup, std::vector<hdsLdev_t>& ldevs,
    std::map<int, std::vector<hdsPairStatus_t>>& pairs, std::vector<int>& mirrorUnits) {
  // Active-active pairs may be spread over several mirror units, each holding some P-VOLs.
  const bool activeActive = m_pSnapInfo->getReplicationType() == kReplicationTypeActiveActive;
  if (getRemotePairInfoForHostGroup(portOrHostGroup, ldevs, pairs) != 0) return 1;
  const int pvolCount = static_cast<int>(ldevs.size());
  for (int mirrorUnit = 0; mirrorUnit < kRemoteMirrorUnits; ++mirrorUnit) {
    auto found = pairs.find(mirrorUnit);
    if (found == pairs.end() || found->second.empty()) {
      m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "MU [%d] is empty and can't be used.", mirrorUnit);
      continue;
    }
    const std::vector<hdsPairStatus_t>& muPairs = found->second;
    const int pairCount = static_cast<int>(muPairs.size());
    if (pairCount < pvolCount) {
      m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                       "Only [%d] SVOLs are found in mirror [%d] for [%d] pvols. Need to add more "
                       "pairs to the MU.",
                       pairCount, mirrorUnit, pvolCount);
    }

    const hdsPairStatus_t& first = muPairs.front();
    bool usable = true;
    std::set<std::string> covered;  // P-VOLs with a valid pair; an LDEV seen twice counts once
    for (const hdsPairStatus_t& pair : muPairs) {
      m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                       "LDEV [%s] Partner LDEV [%s] RCU [%s] FENCE [%s] PAIR STATUS [%s] VolAttr "
                       "[%s] ",
                       pair.ldevId.c_str(), pair.partnerLdevId.c_str(), pair.rcuSerial.c_str(),
                       pair.fence.c_str(), pair.pairStatus.c_str(), pair.volAttr.c_str());
      if (pair.pairStatus != VT_HDS_PAIR_STATUS_PAIR) {
        m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                         "MU [%d] will not be used as PVOL [%s] is not in PAIR state.", mirrorUnit,
                         pair.ldevId.c_str());
        usable = false;
        break;
      }
      if (pair.fence != first.fence) {
        m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                         "MU [%d] PVOL LDEV [%s] has a diff SYNC type than other devices in this "
                         "backup",
                         mirrorUnit, pair.ldevId.c_str());
        usable = false;
        break;
      }
      if (pair.rcuSerial != first.rcuSerial) {
        m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                         "MU [%d] PVOL LDEV [%s] is paired to a different RCU than other devices "
                         "in this backup",
                         mirrorUnit, pair.ldevId.c_str());
        usable = false;
        break;
      }
      covered.insert(pair.ldevId);
    }
    if (!usable) continue;

    const int validCount = static_cast<int>(covered.size());
    if (activeActive && validCount > 0) {
      mirrorUnits.push_back(mirrorUnit);
      m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                       "Found MU [%d] which contains GAD pairs for some of the source P-VOLs",
                       mirrorUnit);
    } else if (validCount >= pvolCount) {
      mirrorUnits.push_back(mirrorUnit);
      m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                       "Found MU [%d] which contains TC/HUR/GAD pairs for all the the source "
                       "P-VOLs",
                       mirrorUnit);
    } else {
      m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                       "Only [%d] valid SVOLs are found in mirror [%d] for [%d] pvols, need to "
                       "add more pairs to the MU.",
                       validCount, mirrorUnit, pvolCount);
      continue;
    }
    m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "REPLICATION INFO-MU [%d] RCU [%s] Fence [%s] ",
                     mirrorUnit, first.rcuSerial.c_str(), first.fence.c_str());
  }
  return 0;
}

// ---- Resource group membership

int RaidcomCommandHandler::addtoResourceGroup(std::string const& resourceId, HDSResourceType type) {
  const std::string command = raidcom(" add resource ");
  const std::string arguments = " -resource_name " + quoteArgument(m_sResourceGroupName) +
                                membershipArgument(resourceId, type) + " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed add resource " + resourceId + " to resource group " + m_sResourceGroupName,
                "Failed to add resource [%s] to resource group [%s]", resourceId.c_str(),
                m_sResourceGroupName.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Successfully added resource [%s] to resource group [%s]",
                   resourceId.c_str(), m_sResourceGroupName.c_str());
  return 0;
}

// Reports itself in the words of the addition: callers and log readers know both as one step.
int RaidcomCommandHandler::deleteFromResourceGroup(std::string const& resourceId,
                                                   HDSResourceType type) {
  const std::string command = raidcom(" delete resource ");
  const std::string arguments = " -resource_name " + quoteArgument(m_sResourceGroupName) +
                                membershipArgument(resourceId, type) + " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed add resource " + resourceId + " to resource group " + m_sResourceGroupName,
                "Failed to add resource [%s] to resource group [%s]", resourceId.c_str(),
                m_sResourceGroupName.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Successfully added resource [%s] to resource group [%s]",
                   resourceId.c_str(), m_sResourceGroupName.c_str());
  return 0;
}

int RaidcomCommandHandler::maptoResourceGroup(std::string const& resourceId,
                                              std::string const& virtualId, HDSResourceType type) {
  const std::string command = raidcom(" map resource ");
  const std::string arguments =
      arrangementArgument(resourceId, virtualId, type, false) + " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(
        VT_HDS_ERROR_COMMAND_FAILED,
        "Failed to arrange resource " + resourceId + " in resource group " + m_sResourceGroupName,
        "Failed to arrange resource [%s] in resource group [%s]", resourceId.c_str(),
        m_sResourceGroupName.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                   "Successfully arranged resource [%s] in resource group [%s]", resourceId.c_str(),
                   m_sResourceGroupName.c_str());
  return 0;
}

int RaidcomCommandHandler::unmapfromResourceGroup(std::string const& resourceId,
                                                  std::string const& virtualId,
                                                  HDSResourceType type) {
  const std::string command = raidcom(" unmap resource ");
  const std::string arguments =
      arrangementArgument(resourceId, virtualId, type, true) + " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to cancel the arrangement of resource " + resourceId +
                    " in resource group " + m_sResourceGroupName,
                "Failed to cancel the arrangement of resource [%s] in resource group [%s]",
                resourceId.c_str(), m_sResourceGroupName.c_str());
  }
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                   "Successfully canceled the arrangement of resource [%s] in resource group [%s]",
                   resourceId.c_str(), m_sResourceGroupName.c_str());
  return 0;
}

int RaidcomCommandHandler::getResourceGroupInfo(std::map<std::string, ResourceGroupStatus>& groups,
                                                bool withKeyOption) {
  const std::string savedArgs = m_sInstanceArgs;
  m_sInstanceArgs = instanceArguments(InstanceMode::Raidcom, m_sHorcmInstance);
  const int result = getResourceGroup(groups, withKeyOption);
  // Put back on both paths: every later argument part of this handler relies on the blank and
  // the serial the query went without, a clean-up after a failed query included.
  m_sInstanceArgs = savedArgs;
  if (result != 0) return 1;
  for (auto& entry : groups) {
    if (entry.second.status.size() > 5) entry.second.status.resize(6);
  }
  return 0;
}

int RaidcomCommandHandler::unreserveFromVSM(const std::string& ldevId,
                                            const std::string& virtualLdevId,
                                            HDSResourceType type) {
  // Moves between a virtual storage machine and meta_resource must not interleave on one array.
  const std::string lockName = kVsmLockPrefix + m_sSerialNumber;
  VTHDSLock lock(*m_pSnapInfo, lockName, 0);
  if (!lock.isLocked()) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                     "Failed to acquire [%s] lock inorder to unreserve resource-[%s] from VSM.",
                     lockName.c_str(), ldevId.c_str());
    setErrorCodeAndString(
        VT_HDS_ERROR_COMMAND_FAILED,
        "Failed to acquire mutex-[" + lockName + "] to un-reserve [" + ldevId + "] from VSM");
    return 1;
  }

  // 65534 and above: the LDEV carries no virtual id, so there is no arrangement to cancel.
  if (hds::text::toInt(virtualLdevId) < 65534) {
    if (unmapfromResourceGroup(ldevId, virtualLdevId, type) != 0) {
      return fail(VT_HDS_ERROR_COMMAND_FAILED,
                  "Failed to cancel resource arrangement of LDEV-[" + ldevId + "]",
                  "Failed to cancel resource arrangement of LDEV-[%s] in resource group-[%s]",
                  ldevId.c_str(), m_sResourceGroupName.c_str());
    }
  }
  if (deleteFromResourceGroup(ldevId, type) != 0) {
    return fail(
        VT_HDS_ERROR_COMMAND_FAILED,
        "Failed to remove LDEV-[" + ldevId + "] from resource group-[" + m_sResourceGroupName + "]",
        "Failed to remove LDEV-[%s] from resource group-[%s]", ldevId.c_str(),
        m_sResourceGroupName.c_str());
  }
  // Back in meta_resource the LDEV is known under its own id.
  if (maptoResourceGroup(ldevId, ldevId, type) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to set resource arrangement of LDEV-[" + ldevId + "]",
                "Failed to set resource arrangement of LDEV-[%s] in resource group-[%s]",
                ldevId.c_str(), m_sResourceGroupName.c_str());
  }
  return 0;
}
