// Lifecycle of the raidcom handler: the HORCM instance and its file, the session opened at
// construction and given back at destruction.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "hds/common/HDSConstants.h"
#include "hds/handler/internal/InstanceArgs.h"
#include "hds/helper/CommandHelper.h"
#include "hds/platform/CZoFile.h"
#include "hds/platform/VTPlatformInfo.h"
#include "hds/raidcom/LoginCount.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "hds/raidcom/internal/RaidcomArgs.h"
#include "hds/raidcom/internal/RaidcomParsers.h"
#include "hds/raidcom/internal/RaidcomSessionState.h"

using namespace hds::raidcom;

std::atomic<int> RaidcomCommandHandler::m_iCmdRetryWait{VT_HDS_RAIDCOM_TIMEOUT_IN_SEC};
std::atomic<int> RaidcomCommandHandler::m_iCmdRetryCnt{VT_HDS_RAIDCOM_RETRY_COUNT};

namespace {

using hds::handler::instanceArguments;
using hds::handler::InstanceMode;

using hds::raidcom::kLoginFailedText;
using hds::raidcom::loadLoginCount;
using hds::raidcom::logSettingsProblem;

// How every HORCM file this handler writes begins.
const char* const kHorcmFileMark = "#HORCM file create by ";
const char* const kCustomInstanceSetting =
    "HORCM instance number to be used for Raidcom commands (CCI engines)";

bool readLocalInt(const char* key, int& value) {
  return VTPlatformInfo::getRegInt(VT_HDS_REG_SECTION_LOCAL, key, &value);
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
    return fail(VT_HDS_ERROR_MISSING_INPUT, "Serial number not passed to raidcom handler.");
  }
  if (m_sCustomHorcmInstance.empty() && commandDevices.empty()) {
    return fail(VT_HDS_ERROR_MISSING_INPUT,
                std::string("Command device list not passed to raidcom handler. Either provision a "
                            "command device from storage array-[") +
                    serialNumber +
                    "] to this host or provide a custom HORCM instance at Array Management snap "
                    "configuration-[" +
                    kCustomInstanceSetting + "] for the array");
  }

  m_oCommandDevices = commandDevices;
  formatCommandDeviceName();

  if (m_sUserName.empty() || m_sPassword.empty()) {
    return fail(VT_HDS_ERROR_LOGIN_FAILED, "User name or password is invalid.",
                "Command handler initialization failed, userName or password not set.");
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
      return fail(VT_HDS_ERROR_LOGIN_FAILED, kLoginFailedText,
                  "Failed to get mutex. Unable to acquire login lock.");
    }
    hds::raidcom::LoginLockScope insideLoginLock;

    int count = 0;
    if (!loadLoginCount(*m_pSnapInfo, serialNumber, count)) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get login count for array [%s].",
                       serialNumber.c_str());
      count = 0;
      if (!storeLoginCount(serialNumber, 0)) {
        logSettingsProblem(*m_pSnapInfo);
        return fail(VT_HDS_ERROR_LOGIN_FAILED, kLoginFailedText,
                    "Failed to set login count for array [%s]", serialNumber.c_str());
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

  m_sInstanceArgs = " " + instanceArguments(InstanceMode::Raidcom, m_sHorcmInstance);

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
          loadLoginCount(*m_pSnapInfo, serialNumber, count) && count == 0) {
        giveBackHorcmInstance(startedInstance);
      }
    }
    return 1;
  }

  m_sInstanceArgs =
      " " + instanceArguments(InstanceMode::Raidcom, m_sHorcmInstance, m_sSerialNumber);
  m_bLoggedIn = true;
  m_iReady = 1;
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Raidcom command handler initialized for local execution");
  m_bForceLogout = false;
  m_iErrorCode = 0;
  return 0;
}

int RaidcomCommandHandler::endSession() {
  if (m_bResourceGroupLocked && unlockResource() != 0) return 1;
  if (!m_bLoggedIn) return 0;
  // Whatever the logout gives, the session is no longer counted; the destructor must not log out
  // a second time.
  m_bLoggedIn = false;
  return performLogout();
}

void RaidcomCommandHandler::leaveResourceLock() { m_bResourceGroupLocked = false; }

void RaidcomCommandHandler::abandonSession() {
  m_bResourceGroupLocked = false;
  m_bLoggedIn = false;
}

bool RaidcomCommandHandler::horcmFileSerials(int instance, std::set<std::string>& serials) {
  std::string text;
  if (CZoFile::ReadWholeFile(horcmFilePath(std::to_string(instance)), text).IsError()) return false;
  if (text.rfind(kHorcmFileMark, 0) != 0) return false;
  parseHorcmFileSerials(text, serials);
  return true;
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
        return fail(VT_HDS_ERROR_COMMAND_FAILED, "Unable to delete horcm file " + candidate,
                    "Unable to delete horcm file [%s].", candidate.c_str());
      }
    }
    break;
  }

  if (m_sHorcmInstance.empty()) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to create horcm file.",
                "Couldn't find a free horcm instance to use");
  }

  std::string text;
  text += kHorcmFileMark;
  text += "Tessaly Kestrel. Do not alter the file content or delete the file.\n";
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
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Unable to open horcm file " + fileName,
                "Unable to open horcm file [%s]. Due to error [%s]", fileName.c_str(),
                error.AsString().c_str());
  }
  error = file.Write(text.data(), text.size());
  if (error.IsError()) {
    file.Close();
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Unable to write to horcm file " + fileName,
                "Unable to write to horcm file [%s]. Due to error [%s]", fileName.c_str(),
                error.AsString().c_str());
  }
  file.Close();
  return 0;
}

int RaidcomCommandHandler::readRaidcomHorcmFiles(int instance, std::set<std::string>& serials) {
  const std::string fileName = horcmFilePath(std::to_string(instance));
  std::string content;
  const CZoError error = CZoFile::ReadWholeFile(fileName, content);
  if (error.IsError()) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to read horcm file" + fileName,
                "Failed to read horcm file [%s]. Error [%s]", fileName.c_str(),
                error.AsString().c_str());
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
