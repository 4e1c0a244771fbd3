// The resource group lock: taken on the array once per process and array, counted for the
// handlers of the process that share it.

#include <string>

#include "hds/common/HDSConstants.h"
#include "hds/helper/CommandHelper.h"
#include "hds/platform/VTPlatformInfo.h"
#include "hds/platform/ZoSleep.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "hds/raidcom/internal/RaidcomArgs.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

std::map<std::string, int> RaidcomCommandHandler::m_oArrayLockRefCntMap;

namespace {

using hds::raidcom::raidcom;

const char* const kResourceGroupLock = "VT_HDS_LOCK_RESOURCE_GROUP";
const char* const kArrayLockRetryKey = "nVTHDSSnapArrayLockRetryCount";
const int kDefaultArrayLockRounds = 50;
const unsigned long kArrayLockRoundPauseMs = 5000;
const char* const kStatusLocked = "Locked";
const char* const kStatusUnlocked = "Unlocked";

// Locking and unlocking on the array go through one host-wide lock, so that the processes of
// this host never race on the array's lock state and the per-process share count.
bool takeHostGroupLock(VTHDSLock& lock, VTSO::SnapInfo& snapInfo, std::string const& group) {
  if (lock.lock(kResourceGroupLock, 0)) return true;
  snapInfo.log(2, VT_HDS_LOG_MODULE, "Failed to lock resource [%s].", group.c_str());
  return false;
}

}  // namespace

int RaidcomCommandHandler::lockUnlockResourceGroup(bool unlock) {
  if (m_bResourceGroupLocked && !unlock) return 0;

  const std::string action = unlock ? "unlock" : "lock";
  const std::string name = hds::raidcom::quoteArgument(m_sResourceGroupName);
  const std::string command = raidcom(action + " resource ");
  const std::string arguments = "-resource_name " + name + " -time " +
                                std::to_string(m_iCmdRetryWait.load()) + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to " + action + "resource group " + name,
                "Failed to [%s] resource group [%s]", action.c_str(), name.c_str());
  }
  if (unlock) {
    m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Released lock on resource group [%s]", name.c_str());
    m_bResourceGroupLocked = false;
  } else {
    m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Acquired lock on resource group [%s]", name.c_str());
    m_bResourceGroupLocked = true;
  }
  return 0;
}

int RaidcomCommandHandler::getResourceGroup(std::map<std::string, ResourceGroupStatus>& groups,
                                            bool withKeyOption) {
  groups.clear();
  const std::string command = raidcom(" get resource ");
  std::string arguments;
  if (withKeyOption) {
    if (!isResourceKeyOptionSupported()) {
      return fail(VT_HDS_ERROR_COMMAND_FAILED,
                  "Failed to get status of resource group  " + m_sCCIVersion,
                  "Failed to get status of resource group ");
    }
    arguments = "-key opt ";
  }
  arguments += m_sInstanceArgs;

  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) return 1;
  parseGetResourceOutput(output, groups);
  return 0;
}

int RaidcomCommandHandler::lockResource() {
  VTHDSLock groupLock(*m_pSnapInfo);
  if (!takeHostGroupLock(groupLock, *m_pSnapInfo, m_sResourceGroupName)) {
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
  }

  // The array lock belongs to the shared session: a second handler of this process only counts.
  auto held = m_oArrayLockRefCntMap.find(m_sSerialNumber);
  if (held != m_oArrayLockRefCntMap.end() && held->second > 0) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Array resource lock count [%d].", held->second);
    ++held->second;
    m_bResourceGroupLocked = true;
    return 0;
  }

  hdsRaidqry_t raidqry;
  if (getCCIRaidqryInfo(raidqry) != 0) return 1;

  int limit = kDefaultArrayLockRounds;
  unsigned long configured = 0;
  if (VTPlatformInfo::getNumber(VT_HDS_REG_SECTION, kArrayLockRetryKey, &configured) &&
      configured != 0) {
    limit = configured > 1000000UL ? 1000000 : static_cast<int>(configured);
  }

  enum class Seen { Nothing, Missing, Locked, Other };
  Seen seen = Seen::Nothing;
  ResourceGroupStatus row;
  int rounds = 0;
  while (rounds < limit) {
    std::map<std::string, ResourceGroupStatus> groups;
    if (getResourceGroup(groups, false) != 0) return 1;

    auto found = groups.find(m_sResourceGroupName);
    if (found == groups.end()) {
      seen = Seen::Missing;
      m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                       "Failed to get status of resource [%s]. Retry lock count [%d].",
                       m_sResourceGroupName.c_str(), rounds + 1);
      ++rounds;
      ZOSLEEP_InTeRnAl(kArrayLockRoundPauseMs);
      continue;
    }
    row = found->second;
    ++rounds;

    if (row.status == kStatusUnlocked) {
      seen = Seen::Other;
      if (lockUnlockResourceGroup(false) == 0) {
        m_oArrayLockRefCntMap[m_sSerialNumber] = 1;
        return 0;
      }
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to lock resource [%s]. Retry lock count [%d].",
                       m_sResourceGroupName.c_str(), rounds + 1);
      ++rounds;
      ZOSLEEP_InTeRnAl(kArrayLockRoundPauseMs);
      continue;
    }
    if (row.status != kStatusLocked) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                       "Resource [%s] has unknown status [%s] with user [%s], host [%s]",
                       m_sResourceGroupName.c_str(), row.status.c_str(), row.lockOwner.c_str(),
                       row.lockHost.c_str());
      return 1;
    }
    if (row.lockOwner == m_sUserName && row.lockHost == raidqry.hostName) {
      // Another process of this host locked it in the session this handler shares.
      m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                       "Resource [%s] is already locked by user [%s] in host [%s]. No need to "
                       "relock.",
                       m_sResourceGroupName.c_str(), row.lockOwner.c_str(), row.lockHost.c_str());
      m_bResourceGroupLocked = true;
      m_oArrayLockRefCntMap[m_sSerialNumber] = 1;
      return 0;
    }
    seen = Seen::Locked;
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                     "Resource [%s] is locked by user [%s] from host [%s] retry lock count [%d]",
                     m_sResourceGroupName.c_str(), row.lockOwner.c_str(), row.lockHost.c_str(),
                     rounds);
    ZOSLEEP_InTeRnAl(kArrayLockRoundPauseMs);
  }

  if (seen == Seen::Missing) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get status of resource [%s].",
                     m_sResourceGroupName.c_str());
    m_sErrorString = "Failed to lock resource group." + m_sResourceGroupName;
  } else if (seen == Seen::Locked) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Resource [%s] is locked by user [%s] from host [%s].",
                     m_sResourceGroupName.c_str(), row.lockOwner.c_str(), row.lockHost.c_str());
    m_sErrorString = "Resource group " + m_sResourceGroupName + " is locked by user " +
                     row.lockOwner + " from host " + row.lockHost;
  } else {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to lock resource [%s] even after [%d] retries.",
                     m_sResourceGroupName.c_str(), rounds);
  }
  m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
  return 1;
}

int RaidcomCommandHandler::unlockResource() {
  VTHDSLock groupLock(*m_pSnapInfo);
  if (!takeHostGroupLock(groupLock, *m_pSnapInfo, m_sResourceGroupName)) {
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
  }

  int& count = m_oArrayLockRefCntMap[m_sSerialNumber];
  if (count > 1) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Array resource lock count [%d].", count);
    --count;
    m_bResourceGroupLocked = false;
    return 0;
  }

  std::map<std::string, ResourceGroupStatus> groups;
  if (getResourceGroup(groups, false) != 0) return 1;
  auto found = groups.find(m_sResourceGroupName);
  if (found == groups.end()) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to unlock resource group." + m_sResourceGroupName,
                "Failed to get status of resource [%s].", m_sResourceGroupName.c_str());
  }
  const ResourceGroupStatus& row = found->second;
  if (row.status == kStatusUnlocked) {
    m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Resource [%s] is already unlocked.",
                     m_sResourceGroupName.c_str());
    count = 0;
    // Nothing is held any more; the destructor need not ask the array again.
    m_bResourceGroupLocked = false;
    return 0;
  }
  if (row.status != kStatusLocked) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                     "Resource [%s] has unknown status [%s] with user [%s], host [%s]",
                     m_sResourceGroupName.c_str(), row.status.c_str(), row.lockOwner.c_str(),
                     row.lockHost.c_str());
    return 1;
  }
  // The session is shared by the processes of this host, so the owner is not checked.
  if (lockUnlockResourceGroup(true) != 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to unlock resource [%s].",
                     m_sResourceGroupName.c_str());
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
  }
  count = 0;
  return 0;
}
