// The login count: one raidcom session per array is shared by every handler of this host, and
// the count of handlers in it decides who logs in and who logs out.

#include "hds/common/HDSConstants.h"
#include "hds/handler/internal/InstanceArgs.h"
#include "hds/helper/CommandHelper.h"
#include "hds/platform/VTPlatformInfo.h"
#include "hds/raidcom/LoginCount.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "hds/raidcom/internal/RaidcomArgs.h"
#include "hds/raidcom/internal/RaidcomSessionState.h"

namespace hds {
namespace raidcom {

const char* const kLoginFailedText = "Failed to login to array.";

namespace {
thread_local bool t_bInsideLoginLock = false;
}  // namespace

bool insideLoginLock() { return t_bInsideLoginLock; }

LoginLockScope::LoginLockScope() { t_bInsideLoginLock = true; }

LoginLockScope::~LoginLockScope() { t_bInsideLoginLock = false; }

void logSettingsProblem(VTSO::SnapInfo& snapInfo) {
  const std::string problem = VTPlatformInfo::lastError();
  if (!problem.empty()) snapInfo.log(2, VT_HDS_LOG_MODULE, "%s", problem.c_str());
}

bool loadLoginCount(VTSO::SnapInfo& snapInfo, const std::string& serialNumber, int& count) {
  int voided = -1;
  if (!::readLoginCount(serialNumber, count, &voided)) return false;
  if (voided < 0) return true;
  snapInfo.log(1, VT_HDS_LOG_MODULE,
               "Login count [%d] of array [%s] was kept before the host last started. Taking it "
               "as 0.",
               voided, serialNumber.c_str());
  // Should this fail, the next reader voids it again.
  if (!storeLoginCount(serialNumber, 0)) logSettingsProblem(snapInfo);
  return true;
}

}  // namespace raidcom
}  // namespace hds

using hds::raidcom::kLoginFailedText;
using hds::raidcom::loadLoginCount;
using hds::raidcom::logSettingsProblem;
using hds::raidcom::raidcom;

int RaidcomCommandHandler::performLogin(bool forceLogin) {
  if (hds::raidcom::insideLoginLock()) return 1;

  VTHDSLock loginLock(*m_pSnapInfo);
  if (!loginLock.lock(VT_HDS_RAIDCOM_LOGIN_LOCK, 0)) {
    return fail(VT_HDS_ERROR_LOGIN_FAILED, kLoginFailedText,
                "Failed to get mutex. Unable to acquire lock.");
  }
  hds::raidcom::LoginLockScope insideLoginLock;

  int count = 0;
  if (!forceLogin && !loadLoginCount(*m_pSnapInfo, m_sSerialNumber, count)) {
    logSettingsProblem(*m_pSnapInfo);
    return fail(VT_HDS_ERROR_LOGIN_FAILED, kLoginFailedText, "Failed to get login count.");
  }
  if (count < 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "login count is -ve [%d]. Something is wrong.", count);
    count = 0;
  }
  // The count is raised before the command runs; a failed login puts it back below.
  if (!storeLoginCount(m_sSerialNumber, count + 1, forceLogin)) {
    logSettingsProblem(*m_pSnapInfo);
    return fail(VT_HDS_ERROR_LOGIN_FAILED, kLoginFailedText, "Failed to set login count.");
  }
  if (count > 0) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Already logged in. Count [%d]", count);
    return 0;
  }

  const std::string command = raidcom(" -login ");
  // Quoted, the password reaches raidcom as typed and can never end the command early; the
  // logged form of this line stops after "-login" whatever follows.
  const std::string arguments = hds::raidcom::quoteArgument(m_sUserName) + " " +
                                hds::raidcom::quoteArgument(m_sPassword) + " " + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to login using userName [%s]",
                     m_sUserName.c_str());
    m_iErrorCode = VT_HDS_ERROR_LOGIN_FAILED;
    if (!storeLoginCount(m_sSerialNumber, 0)) {
      logSettingsProblem(*m_pSnapInfo);
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to reset login count.");
    }
    return 1;
  }
  return 0;
}

int RaidcomCommandHandler::performLogout() {
  VTHDSLock loginLock(*m_pSnapInfo);
  if (!loginLock.lock(VT_HDS_RAIDCOM_LOGIN_LOCK, 0)) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to logout, unable to acquire lock.");
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
  }
  hds::raidcom::LoginLockScope insideLoginLock;

  int count = 0;
  if (!loadLoginCount(*m_pSnapInfo, m_sSerialNumber, count)) {
    logSettingsProblem(*m_pSnapInfo);
    return fail(VT_HDS_ERROR_LOGIN_FAILED, kLoginFailedText, "Failed to get login count.");
  }
  if (count < 1) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "login count is -ve [%d]. Something is wrong.", count);
    count = 1;
  }
  if (!storeLoginCount(m_sSerialNumber, count - 1)) {
    logSettingsProblem(*m_pSnapInfo);
    return fail(VT_HDS_ERROR_LOGIN_FAILED, kLoginFailedText, "Failed to set login count.");
  }
  if (count >= 2) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "login count [%d]. No logout needed.", count);
    return 0;
  }

  // The session belongs to the instance, so the logout names the instance only.
  const std::string command =
      raidcom(" -logout ") +
      hds::handler::instanceArguments(hds::handler::InstanceMode::Raidcom, m_sHorcmInstance);
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, "", output, exitCode, false) != 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to logout. Logged in with userName [%s]",
                     m_sUserName.c_str());
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
  }
  return 0;
}

int RaidcomCommandHandler::getLoginCount() {
  VTHDSLock loginLock(*m_pSnapInfo);
  if (!loginLock.lock(VT_HDS_RAIDCOM_LOGIN_LOCK, 0)) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Unable to acquire lock.");
    return -1;
  }
  int count = 0;
  if (!loadLoginCount(*m_pSnapInfo, m_sSerialNumber, count)) {
    logSettingsProblem(*m_pSnapInfo);
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get login count.");
    return -1;
  }
  return count;
}
