#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "hds/common/HDSConstants.h"
#include "hds/common/internal/HDSText.h"
#include "hds/helper/CommandHelper.h"
#include "hds/platform/CZoFile.h"
#include "hds/platform/VTPlatformInfo.h"
#include "hds/platform/ZoSleep.h"
#include "hds/raidcom/LoginCount.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "hds/raidcom/internal/RaidcomArgs.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

std::atomic<int> RaidcomCommandHandler::m_iCmdRetryWait{VT_HDS_RAIDCOM_TIMEOUT_IN_SEC};
std::atomic<int> RaidcomCommandHandler::m_iCmdRetryCnt{VT_HDS_RAIDCOM_RETRY_COUNT};
std::map<std::string, int> RaidcomCommandHandler::m_oArrayLockRefCntMap;

namespace {

const char* const kLoginFailedText = "Failed to login to array.";
const char* const kSyncCommandsLock = "VT_HDS_SYNC_COMMANDS";
const char* const kResourceGroupLock = "VT_HDS_LOCK_RESOURCE_GROUP";
const char* const kArrayLockRetryKey = "nVTHDSSnapArrayLockRetryCount";
const char* const kCustomInstanceSetting =
    "HORCM instance number to be used for Raidcom commands (CCI engines)";
const int kDefaultArrayLockRounds = 50;
const unsigned long kArrayLockRoundPauseMs = 5000;
const char* const kStatusLocked = "Locked";
const char* const kStatusUnlocked = "Unlocked";

// A login asked for while this thread holds the login lock (the -login itself, or a -logout,
// found the session expired) cannot be served: the lock is not recursive, and asking for it again
// would only be refused as a lock failure. The mark is per thread, so that a login running in
// another thread is never taken for such a re-entry.
thread_local bool t_bInsideLoginLock = false;

class LoginLockScope {
 public:
  LoginLockScope() { t_bInsideLoginLock = true; }
  ~LoginLockScope() { t_bInsideLoginLock = false; }
  LoginLockScope(const LoginLockScope&) = delete;
  LoginLockScope& operator=(const LoginLockScope&) = delete;
};

bool readLocalInt(const char* key, int& value) {
  return VTPlatformInfo::getRegInt(VT_HDS_REG_SECTION_LOCAL, key, &value);
}

// The settings store says which file and why; the messages that follow keep their own words.
void logSettingsProblem(VTSO::SnapInfo& snapInfo) {
  const std::string problem = VTPlatformInfo::lastError();
  if (!problem.empty()) snapInfo.log(2, VT_HDS_LOG_MODULE, "%s", problem.c_str());
}

// A setting for which no rule of its own exists is taken at its default when it is out of any
// sane range: a negative -time makes a job wait minutes, no status round at all leaves the
// array's work unjudged.
int boundedSetting(VTSO::SnapInfo& snapInfo, const char* key, int fallback) {
  int value = 0;
  if (!readLocalInt(key, value)) return fallback;
  if (value >= 1) return value;
  snapInfo.log(1, VT_HDS_LOG_MODULE, "Setting [%s] has value [%d], below 1. Using [%d].", key,
               value, fallback);
  return fallback;
}

// The stored count, void (and stored as 0) when it was kept in an earlier boot of the host.
// Callers hold the login lock.
bool readLoginCount(VTSO::SnapInfo& snapInfo, const std::string& serialNumber, int& count) {
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

// What the tools answer when the HORCM instance is not there to serve them: the debug layer
// (250) or the manager (251) cannot be attached, or the manager does not answer (255).
bool horcmInstanceDown(int exitCode, const std::string& output) {
  switch (exitCode) {
    case 250:
      return output.find("[EX_ATTDBG]") != std::string::npos;
    case 251:
      return output.find("[EX_ATTHOR]") != std::string::npos;
    case 255:
      return output.find("[EX_COMERR]") != std::string::npos;
    default:
      return false;
  }
}

}  // namespace

RaidcomCommandHandler::RaidcomCommandHandler(VTSO::SnapInfo& snapInfo, HDSCLIInitParam const& param)
    : CommandHandler(snapInfo, param),
      m_sUserName(param.userName),
      m_sPassword(param.password),
      m_sResourceGroupName(param.resourceGroupName),
      m_bVSM(param.isVirtualStorage),
      m_sVirtualStorageSerial(param.virtualStorageSerial) {
  m_sInstanceArgs.clear();
  if (!param.horcmInstance.empty()) {
    m_sCustomHorcmInstance = param.horcmInstance;
  } else {
    m_sCustomHorcmInstance.clear();
  }
  initialize(param.serialNumber, param.commandDevices);
}

RaidcomCommandHandler::~RaidcomCommandHandler() {
  // The session and the resource group lock are shared with other processes of this host; both
  // must be given back however the job went, and nothing may escape a destructor.
  try {
    if (m_bResourceGroupLocked) {
      if (unlockResource() == 0) {
        m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                         "Released lock on resource group [%s] during destruction.",
                         m_sResourceGroupName.c_str());
      } else {
        m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                         "Failed to release lock on resource group [%s] during destruction.",
                         m_sResourceGroupName.c_str());
      }
    }

    int delayedLogout = 0;
    if (m_iOperationType == 1) {
      readLocalInt(VT_HDS_RAIDCOM_DELAYED_LOGOUT, delayedLogout);
      if (m_bForceLogout) delayedLogout = 0;
    }
    if (m_bLoggedIn && delayedLogout == 0 && performLogout() != 0) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                       "Failed to logout using username [%s] during destruction.",
                       m_sUserName.c_str());
    }
  } catch (...) {
  }
}

void RaidcomCommandHandler::getErrorCodeAndString(int& errorCode, std::string& errorString) {
  CommandHandler::getErrorCodeAndString(errorCode, errorString);
}

int RaidcomCommandHandler::initialize(std::string const& serialNumber,
                                      std::vector<std::string> const& commandDevices) {
  m_bResourceGroupLocked = false;
  m_bLoggedIn = false;
  if (m_iReady != 1) return 1;
  m_iReady = 0;

  if (serialNumber.empty()) {
    m_iErrorCode = VT_HDS_ERROR_MISSING_INPUT;
    m_sErrorString = "Serial number not passed to raidcom handler.";
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "%s", m_sErrorString.c_str());
    return 1;
  }
  if (m_sCustomHorcmInstance.empty() && commandDevices.empty()) {
    m_iErrorCode = VT_HDS_ERROR_MISSING_INPUT;
    m_sErrorString = std::string(
                         "Command device list not passed to raidcom handler. Either provision a "
                         "command device from storage array-[") +
                     serialNumber +
                     "] to this host or provide a custom HORCM instance at Array Management snap "
                     "configuration-[" +
                     kCustomInstanceSetting + "] for the array";
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "%s", m_sErrorString.c_str());
    return 1;
  }

  m_oCommandDevices = commandDevices;
  formatCommandDeviceName();

  if (m_sUserName.empty() || m_sPassword.empty()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                     "Command handler initialization failed, userName or password not set.");
    m_iErrorCode = VT_HDS_ERROR_LOGIN_FAILED;
    m_sErrorString = "User name or password is invalid.";
    return 1;
  }
  if (m_sResourceGroupName.empty()) m_sResourceGroupName = VT_HDS_META_RESOURCE_NAME;

  // A session that never started must not keep the instance it took: 33 of them and no array
  // could be reached from this host any more.
  bool wroteHorcmFile = false;
  bool startedInstance = false;
  auto giveBackHorcmInstance = [this](bool stop) {
    const int errorCode = m_iErrorCode;
    const std::string errorText = m_sErrorString;
    const std::string fileName = horcmFilePath(m_sHorcmInstance);
    if (stop) horcmShutdown(nullptr);
    if (unlink(fileName.c_str()) == 0) {
      m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Removed horcm file [%s] of a session that failed.",
                       fileName.c_str());
    }
    m_iErrorCode = errorCode;
    m_sErrorString = errorText;
  };

  m_iCmdRetryWait =
      boundedSetting(*m_pSnapInfo, VT_HDS_RAIDCOM_TIMEOUT_REGKEY, VT_HDS_RAIDCOM_TIMEOUT_IN_SEC);
  m_iCmdRetryCnt =
      boundedSetting(*m_pSnapInfo, VT_HDS_RAIDCOM_RETRY_REGKEY, VT_HDS_RAIDCOM_RETRY_COUNT);

  if (m_iOperationType != 2) {
    VTHDSLock loginLock(*m_pSnapInfo);
    if (!loginLock.lock(VT_HDS_RAIDCOM_LOGIN_LOCK, 0)) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get mutex. Unable to acquire login lock.");
      m_iErrorCode = VT_HDS_ERROR_LOGIN_FAILED;
      m_sErrorString = kLoginFailedText;
      return 1;
    }
    LoginLockScope insideLoginLock;

    int count = 0;
    if (!readLoginCount(*m_pSnapInfo, serialNumber, count)) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get login count for array [%s].",
                       serialNumber.c_str());
      count = 0;
      if (!storeLoginCount(serialNumber, 0)) {
        logSettingsProblem(*m_pSnapInfo);
        m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to set login count for array [%s]",
                         serialNumber.c_str());
        m_iErrorCode = VT_HDS_ERROR_LOGIN_FAILED;
        m_sErrorString = kLoginFailedText;
        return 1;
      }
    }

    if (m_sCustomHorcmInstance.empty() && createRaidcomHorcmFiles(serialNumber, count < 1) != 0) {
      return 1;
    }
    wroteHorcmFile = m_sCustomHorcmInstance.empty() && count < 1;
    // Only the first handler of the array starts the instance; later ones share it.
    if (count == 0 && horcmStart(nullptr) != 0) {
      if (wroteHorcmFile) giveBackHorcmInstance(false);
      return 1;
    }
    startedInstance = count == 0;
  }

  m_sInstanceArgs = formInstanceOption(m_sHorcmInstance);

  int delayedLogout = 0;
  if (m_iOperationType == 2 && readLocalInt(VT_HDS_RAIDCOM_DELAYED_LOGOUT, delayedLogout)) {
    m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                     "Setting to perform prepare-create in single session is set. Value-[%d]",
                     delayedLogout);
  }
  // With delayed logout the create step works in the session the prepare step left open.
  if (delayedLogout == 0 && performLogin(false) != 0) {
    if (wroteHorcmFile) {
      // Another handler of the array may have come in since the login lock was let go; its
      // session keeps the instance.
      VTHDSLock loginLock(*m_pSnapInfo);
      int count = 0;
      if (loginLock.lock(VT_HDS_RAIDCOM_LOGIN_LOCK, 0) &&
          readLoginCount(*m_pSnapInfo, serialNumber, count) && count == 0) {
        giveBackHorcmInstance(startedInstance);
      }
    }
    return 1;
  }

  m_sInstanceArgs += " -s " + hds::raidcom::quoteArgument(m_sSerialNumber);
  m_bLoggedIn = true;
  m_iReady = 1;
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Raidcom command handler initialized for local execution");
  m_bForceLogout = false;
  m_iErrorCode = 0;
  return 0;
}

int RaidcomCommandHandler::createRaidcomHorcmFiles(std::string const& serialNumber,
                                                   bool replaceExisting) {
  // The host name comes from a setting and is written as a value of the file.
  if (refuseControlCharacters("host name", m_sLocalHostName)) return 1;
  m_sHorcmInstance.clear();
  std::string fileName;
  for (int instance = VT_HDS_RAIDCOM_HORCM_INST_START; instance >= VT_HDS_RAIDCOM_HORCM_INST_END;
       --instance) {
    const std::string candidate = horcmFilePath(std::to_string(instance));
    if (CZoFile::Stat(candidate).IsError()) {
      m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Horcm instance [%d] is avaliable for use.", instance);
      m_sHorcmInstance = std::to_string(instance);
      fileName = candidate;
      break;
    }

    std::set<std::string> serials;
    if (readRaidcomHorcmFiles(instance, serials) != 0) return 1;
    if (serials.count(serialNumber) == 0) continue;

    m_sHorcmInstance = std::to_string(instance);
    fileName = candidate;
    // Another handler of this array holds a session on the running instance: share both.
    if (!replaceExisting) return 0;

    if (unlink(candidate.c_str()) != 0 && errno == ENOENT) {
      if (chmod(candidate.c_str(), 0666) == 0 && unlink(candidate.c_str()) != 0 &&
          errno == ENOENT) {
        m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Unable to delete horcm file [%s].",
                         candidate.c_str());
        m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
        m_sErrorString = "Unable to delete horcm file " + candidate;
        return 1;
      }
    }
    break;
  }

  if (m_sHorcmInstance.empty()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Couldn't find a free horcm instance to use");
    m_sErrorString = "Failed to create horcm file.";
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
  }

  std::string text;
  text +=
      "#HORCM file create by Tessaly Kestrel. Do not alter the file content or delete the "
      "file.\n";
  text += "HORCM_MON\n";
  text += "#ip_address                  service         poll(10ms)     timeout(10ms)\n";
  text += m_sLocalHostName + "\t\t" + m_sHorcmInstance + "\t1000           3000\n";
  text += "\n";
  text += "HORCM_CMD\n";
  text += "#dev_name               dev_name                dev_name\n";
  text += "#\\\\.\\CMD-" + serialNumber + "\n";
  for (const std::string& device : m_oCommandDevices) text += device + " ";
  text += "\n";

  CZoFile file;
  CZoError error = file.Open(fileName, O_WRONLY | O_CREAT, 0777);
  if (error.IsError()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Unable to open horcm file [%s]. Due to error [%s]",
                     fileName.c_str(), error.AsString().c_str());
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    m_sErrorString = "Unable to open horcm file " + fileName;
    return 1;
  }
  error = file.Write(text.data(), text.size());
  if (error.IsError()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Unable to write to horcm file [%s]. Due to error [%s]",
                     fileName.c_str(), error.AsString().c_str());
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    m_sErrorString = "Unable to write to horcm file " + fileName;
    file.Close();
    return 1;
  }
  file.Close();
  return 0;
}

int RaidcomCommandHandler::readRaidcomHorcmFiles(int instance, std::set<std::string>& serials) {
  const std::string fileName = horcmFilePath(std::to_string(instance));
  std::string content;
  const CZoError error = CZoFile::ReadWholeFile(fileName, content);
  if (error.IsError()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to read horcm file [%s]. Error [%s]",
                     fileName.c_str(), error.AsString().c_str());
    m_sErrorString = "Failed to read horcm file" + fileName;
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
  }
  parseHorcmFileSerials(content, serials);
  return 0;
}

bool RaidcomCommandHandler::formatCommandDeviceName() {
  for (std::string& device : m_oCommandDevices) {
    if (device.find("/dev/dsk") != std::string::npos ||
        device.find("/dev/disk") != std::string::npos ||
        device.find("/dev/hdisk") != std::string::npos) {
      device.insert(5, "r");
    }
  }
  return true;
}

bool RaidcomCommandHandler::LogoutRaidcomHandler() { return performLogout() == 1; }

int RaidcomCommandHandler::getArrayLockTimeoutVal() { return m_iCmdRetryWait; }

int RaidcomCommandHandler::performLogin(bool forceLogin) {
  if (t_bInsideLoginLock) return 1;

  VTHDSLock loginLock(*m_pSnapInfo);
  if (!loginLock.lock(VT_HDS_RAIDCOM_LOGIN_LOCK, 0)) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get mutex. Unable to acquire lock.");
    m_iErrorCode = VT_HDS_ERROR_LOGIN_FAILED;
    m_sErrorString = kLoginFailedText;
    return 1;
  }
  LoginLockScope insideLoginLock;

  int count = 0;
  if (!forceLogin && !readLoginCount(*m_pSnapInfo, m_sSerialNumber, count)) {
    logSettingsProblem(*m_pSnapInfo);
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get login count.");
    m_iErrorCode = VT_HDS_ERROR_LOGIN_FAILED;
    m_sErrorString = kLoginFailedText;
    return 1;
  }
  if (count < 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "login count is -ve [%d]. Something is wrong.", count);
    count = 0;
  }
  // The count is raised before the command runs; a failed login puts it back below.
  if (!storeLoginCount(m_sSerialNumber, count + 1, forceLogin)) {
    logSettingsProblem(*m_pSnapInfo);
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to set login count.");
    m_iErrorCode = VT_HDS_ERROR_LOGIN_FAILED;
    m_sErrorString = kLoginFailedText;
    return 1;
  }
  if (count > 0) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Already logged in. Count [%d]", count);
    return 0;
  }

  const std::string command = std::string(VT_HDS_RAIDCOM_CMD_NAME) + " -login ";
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
  LoginLockScope insideLoginLock;

  int count = 0;
  if (!readLoginCount(*m_pSnapInfo, m_sSerialNumber, count)) {
    logSettingsProblem(*m_pSnapInfo);
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get login count.");
    m_iErrorCode = VT_HDS_ERROR_LOGIN_FAILED;
    m_sErrorString = kLoginFailedText;
    return 1;
  }
  if (count < 1) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "login count is -ve [%d]. Something is wrong.", count);
    count = 1;
  }
  if (!storeLoginCount(m_sSerialNumber, count - 1)) {
    logSettingsProblem(*m_pSnapInfo);
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to set login count.");
    m_iErrorCode = VT_HDS_ERROR_LOGIN_FAILED;
    m_sErrorString = kLoginFailedText;
    return 1;
  }
  if (count >= 2) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "login count [%d]. No logout needed.", count);
    return 0;
  }

  // The session belongs to the instance, so the logout names the instance only.
  const std::string command = std::string(VT_HDS_RAIDCOM_CMD_NAME) + " -logout " + "-IM" +
                              hds::raidcom::quoteArgument(m_sHorcmInstance);
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
  if (!readLoginCount(*m_pSnapInfo, m_sSerialNumber, count)) {
    logSettingsProblem(*m_pSnapInfo);
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get login count.");
    return -1;
  }
  return count;
}

int RaidcomCommandHandler::lockUnlockResourceGroup(bool unlock) {
  if (m_bResourceGroupLocked && !unlock) return 0;

  const std::string action = unlock ? "unlock" : "lock";
  const std::string name = hds::raidcom::quoteArgument(m_sResourceGroupName);
  const std::string command = std::string(VT_HDS_RAIDCOM_CMD_NAME) + action + " resource ";
  const std::string arguments = "-resource_name " + name + " -time " +
                                std::to_string(m_iCmdRetryWait.load()) + m_sInstanceArgs;
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, arguments, output, exitCode, false) != 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to [%s] resource group [%s]", action.c_str(),
                     name.c_str());
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    m_sErrorString = "Failed to " + action + "resource group " + name;
    return 1;
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
  const std::string command = std::string(VT_HDS_RAIDCOM_CMD_NAME) + " get resource ";
  std::string arguments;
  if (withKeyOption) {
    // The model column of "-key opt" arrived with CCI 01-32.
    const int minor = m_sCCIVersion.size() >= 5 ? std::atoi(m_sCCIVersion.substr(3, 2).c_str()) : 0;
    if (minor <= 31) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get status of resource group ");
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      m_sErrorString = "Failed to get status of resource group  " + m_sCCIVersion;
      return 1;
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
  if (!groupLock.lock(kResourceGroupLock, 0)) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to lock resource [%s].",
                     m_sResourceGroupName.c_str());
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
  if (!groupLock.lock(kResourceGroupLock, 0)) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to lock resource [%s].",
                     m_sResourceGroupName.c_str());
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
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get status of resource [%s].",
                     m_sResourceGroupName.c_str());
    m_sErrorString = "Failed to unlock resource group." + m_sResourceGroupName;
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
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

int RaidcomCommandHandler::executeCommand(std::string const& command, std::string const& arguments,
                                          std::string& output, int& exitCode, bool asyncCommand) {
  VTHDSLock syncLock(*m_pSnapInfo);
  if (asyncCommand) {
    // The array keeps one command status per session, and the session is shared by every
    // process of this host: reset, command and status read must not interleave with another's.
    if (!syncLock.lock(kSyncCommandsLock, 0)) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                       "Command handler initialization failed, unable to acquire lock.");
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      m_sErrorString = "Failed to execute raidcom command.";
      return 1;
    }
    if (resetCommandStatus() != 0) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to reset command status for command [%s]",
                       command.c_str());
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      m_sErrorString = "Failed to reset command status.";
      return 1;
    }
  }

  bool restarted = false;
  bool relogged = false;
  while (CommandHandler::executeCommand(command, arguments, output, exitCode) != 0) {
    if (!restarted && horcmInstanceDown(exitCode, output)) {
      // The instance died, or the host restarted under it: one start, then the command again.
      restarted = true;
      if (restartHorcmInstance(command) != 0) return 1;
    } else if (!relogged && exitCode == VT_HDS_CCI_ERROR_EX_ENAUTH) {
      // The session expired (or a crash left the shared count too high): one forced login.
      relogged = true;
      if (performLogin(true) != 0) return 1;
    } else {
      return 1;
    }
  }

  if (m_bKeepCmdOutput && !output.empty()) {
    const std::string fileName = formOutputFileName();
    CZoFile file;
    CZoError error = fileName.empty() ? CZoError(ENAMETOOLONG, "output file name")
                                      : file.Open(fileName, O_WRONLY | O_CREAT | O_TRUNC, 0777);
    if (error.IsError()) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to open optput file [%s] . Error [%s]",
                       fileName.c_str(), error.AsString().c_str());
      m_sErrorString = "Failed to create file [" + fileName + "]";
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      return 1;
    }
    error = file.Write(output.data(), output.size());
    if (error.IsError()) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to write to output file [%s] . Error [%s]",
                       fileName.c_str(), error.AsString().c_str());
      m_sErrorString = "Failed to write to file [" + fileName + "]";
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      file.Close();
      return 1;
    }
    file.Close();
  }

  if (asyncCommand) {
    bool hasError = false;
    std::string statusText;
    if (getCommandStatus(hasError, statusText) != 0) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get command status for command [%s]",
                       command.c_str());
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      m_sErrorString = "Failed get command status.";
      return 1;
    }
    if (hasError) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                       "Get command status for command [%s] returned error [%s]", command.c_str(),
                       statusText.c_str());
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      m_sErrorString = "Command status has error.";
      return 1;
    }
  }
  return 0;
}

int RaidcomCommandHandler::restartHorcmInstance(std::string const& command) {
  m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                   "Horcm instance [%s] is not running. Starting it again for command [%s].",
                   m_sHorcmInstance.c_str(), command.c_str());
  const int errorCode = m_iErrorCode;
  const std::string errorText = m_sErrorString;
  // Instances are started under the login lock; a login or logout of this thread holds it.
  VTHDSLock loginLock(*m_pSnapInfo);
  if ((t_bInsideLoginLock || loginLock.lock(VT_HDS_RAIDCOM_LOGIN_LOCK, 0)) &&
      horcmStart(nullptr) == 0) {
    return 0;
  }
  // The command's own failure is what the caller reports.
  m_iErrorCode = errorCode;
  m_sErrorString = errorText;
  return 1;
}

int RaidcomCommandHandler::resetCommandStatus() {
  const std::string command = std::string(VT_HDS_RAIDCOM_CMD_NAME) + " reset command_status ";
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, m_sInstanceArgs, output, exitCode, false) != 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to reset command status.");
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    m_sErrorString = "Failed to reset command status.";
    return 1;
  }
  return 0;
}

int RaidcomCommandHandler::getCommandStatus(bool& hasError, std::string& statusText) {
  hasError = false;
  const std::string command = std::string(VT_HDS_RAIDCOM_CMD_NAME) + " get command_status ";
  char timeOption[32];
  (void)std::snprintf(timeOption, sizeof(timeOption), " -time %d", m_iCmdRetryWait.load());
  const std::string arguments = timeOption + m_sInstanceArgs;

  const int maxRounds = m_iCmdRetryCnt;
  std::string output;
  int exitCode = 0;
  int round = 0;
  // The -time wait inside the command is the pause between rounds.
  for (; round < maxRounds; ++round) {
    if (executeCommand(command, arguments, output, exitCode, false) == 0) break;
    if (exitCode != VT_HDS_CCI_ERROR_EX_EWSTOT) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get command status.");
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      m_sErrorString = "Failed to get command status.";
      return 1;
    }
    m_pSnapInfo->log(1, VT_HDS_LOG_MODULE,
                     "Failed to get command status. Command timeout. RetryCnt [%d]", round);
  }
  if (round >= maxRounds) {
    m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Failed to get command status after [%d] retry.", round);
    hasError = true;
    statusText = "Command timeout.";
  }

  bool lineHasError = false;
  std::string lineText;
  std::string statusLine;
  // raidcom prints a time-out on standard error only, so the last round may have left no status
  // line at all: then no status was read, whether or not the rounds ran out.
  if (!parseCommandStatusOutput(output, lineHasError, lineText, statusLine)) return 1;
  if (lineHasError) {
    hasError = true;
    statusText = lineText;
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Command status [%s]", statusLine.c_str());
  }
  return 0;
}

int RaidcomCommandHandler::getCCIRaidqryInfo(hdsRaidqry_t& info) {
  static std::mutex cacheMutex;
  static hdsRaidqry_t cache;
  std::lock_guard<std::mutex> guard(cacheMutex);
  if (!cache.hostName.empty()) {
    info = cache;
    return 0;
  }

  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_RAIDQRY_CMD_NAME, "-l " + m_sInstanceArgs, output, exitCode, false) !=
      0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get hostname used by CCI.");
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    m_sErrorString = "Failed to get hostname used by CCI.";
    return 1;
  }

  const size_t headerEnd = output.find('\n');
  unsigned long position = headerEnd == std::string::npos ? output.size() : headerEnd + 1;
  std::string* const fields[] = {
      nullptr,       &cache.group,        &cache.hostName,    &cache.horcmVersion,
      &cache.unitId, &cache.serialNumber, &cache.microVersion};
  std::string value;
  for (std::string* field : fields) {
    if (!getNextValueFromOutput(output, position, value, VT_HDS_LOG_MODULE)) return 1;
    if (field != nullptr) *field = value;
  }
  if (!getNextValueFromOutput(output, position, value, VT_HDS_LOG_MODULE)) return 1;
  cache.cacheSizeMB = std::atoi(value.c_str());
  info = cache;
  return 0;
}
