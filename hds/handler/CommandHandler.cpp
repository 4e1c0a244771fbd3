#include "hds/handler/CommandHandler.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "hds/common/HDSConstants.h"
#include "hds/common/internal/HDSText.h"
#include "hds/handler/internal/HandlerParsers.h"
#include "hds/handler/internal/InstanceArgs.h"
#include "hds/platform/VTClient.h"
#include "hds/platform/VTPI_Base.h"
#include "hds/platform/VTPlatformInfo.h"

std::string CommandHandler::m_sCCIInstallPath;
std::string CommandHandler::m_sLocalHostName;
std::string CommandHandler::m_sVTTempDir;
std::string CommandHandler::m_sCCIVersion;

namespace {

// Several threads may construct the first handlers of a process at once; the class-wide values
// are written only under this lock, and only while still empty.
std::mutex g_oProcessWideInitMutex;

const char* const kVersionFormatKey = "sVTHDSCCIVersionFormat";
const char* const kDashedVersionFormat = "%d-%d-%d/%d";
const char* const kDottedVersionFormat = "%d.%d.%d";

// A version format comes from the settings file, so it is checked before it reaches sscanf:
// only integer conversions, at most four of them, may appear.
bool isSafeVersionFormat(const char* format) {
  int conversions = 0;
  for (const char* p = format; *p != '\0'; ++p) {
    if (*p != '%') continue;
    ++p;
    if (*p == '%') continue;
    const bool suppressed = *p == '*';
    if (suppressed) ++p;
    while (std::isdigit(static_cast<unsigned char>(*p))) ++p;
    if (*p != 'd' && *p != 'i') return false;
    if (!suppressed && ++conversions > 4) return false;
  }
  return true;
}

struct VersionQuad {
  int part[4] = {-1, -1, -1, -1};

  void scan(const std::string& text, const char* format) {
    if (!isSafeVersionFormat(format)) return;
    (void)std::sscanf(text.c_str(), format, &part[0], &part[1], &part[2], &part[3]);
  }

  // Compared part by part, so a part the text did not supply (-1) never reaches a threshold of 0
  // or more.
  bool atLeast(int a, int b, int c, int d) const {
    const int min[4] = {a, b, c, d};
    for (int i = 0; i < 4; ++i) {
      if (part[i] != min[i]) return part[i] > min[i];
    }
    return true;
  }
};

bool readClientString(const char* section, const char* key, std::string& value) {
  char buf[1024] = {};
  if (!VTPlatformInfo::getString(section, key, buf, sizeof(buf))) return false;
  buf[sizeof(buf) - 1] = '\0';
  value = buf;
  return true;
}

// The one reading of the installed CCI version: in the configured format when one is set, else
// in the shape the text has. Every capability check compares against what this gives.
VersionQuad installedCciVersion(const std::string& text) {
  VersionQuad version;
  std::string format;
  if (readClientString(VT_HDS_REG_SECTION, kVersionFormatKey, format)) {
    version.scan(text, format.c_str());
  } else if (text.find('-') != std::string::npos) {
    version.scan(text, kDashedVersionFormat);
  } else if (text.find('.') != std::string::npos) {
    version.scan(text, kDottedVersionFormat);
  }
  return version;
}

}  // namespace

CommandHandler::CommandHandler(VTSO::SnapInfo& snapInfo, const HDSCLIInitParam& param)
    : m_bKeepCmdOutput(false),
      m_sSerialNumber(param.serialNumber),
      m_sHorcmInstance(param.horcmInstance),
      m_pSnapInfo(&snapInfo),
      m_iReady(1),
      m_iErrorCode(0),
      m_iJobId(param.jobId),
      m_iExecutionMode(param.executionMode),
      m_iCommandTimeout(VT_HDS_COMMAND_TIMEOUT_DEFAULT),
      m_sCopyGroupName(param.copyGroupName),
      m_iOperationType(param.operationType) {
  int timeout = 0;
  if (VTPlatformInfo::getRegInt(VT_HDS_REG_SECTION_LOCAL, "nVTHDSCCICommandTimeoutInSec",
                                &timeout)) {
    if (timeout > VT_HDS_COMMAND_TIMEOUT_MIN) {
      m_iCommandTimeout = timeout;
    } else if (timeout > 0) {
      m_iCommandTimeout = VT_HDS_COMMAND_TIMEOUT_MIN;
    }
  }
  // A handler refused here never becomes ready, so nothing it would have run runs.
  if (refuseUnsafeInput(param)) {
    m_iReady = 0;
    return;
  }
  initialize();
}

CommandHandler::~CommandHandler() = default;

void CommandHandler::getErrorCodeAndString(int& errorCode, std::string& errorString) {
  errorCode = m_iErrorCode;
  errorString = m_sErrorString;
}

void CommandHandler::setErrorCodeAndString(int errorCode, const std::string& errorString) {
  m_iErrorCode = errorCode;
  m_sErrorString = errorString;
}

int CommandHandler::fail(int errorCode, const std::string& errorText) {
  m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "%s", errorText.c_str());
  setErrorCodeAndString(errorCode, errorText);
  return 1;
}

int CommandHandler::fail(int errorCode, const std::string& errorText, const char* logFormat, ...) {
  va_list args;
  va_start(args, logFormat);
  m_pSnapInfo->vlog(2, VT_HDS_LOG_MODULE, logFormat, args);
  va_end(args);
  setErrorCodeAndString(errorCode, errorText);
  return 1;
}

int CommandHandler::initialize() {
  if (m_iReady != 1) return 1;
  m_iReady = 0;

  if (initializeProcessWide() != 0) return 1;

  int keepOutput = 0;
  if (VTPlatformInfo::getRegInt(VT_HDS_REG_SECTION_LOCAL, "nVTHDSKeepCmdOutput", &keepOutput)) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Reg key to keep command output is set to [%d].",
                     keepOutput);
    m_bKeepCmdOutput = keepOutput != 0;
  } else {
    int arrayFlag = 0;
    if (m_pSnapInfo->getSnapConfigInt(SMCONFIG_NAME_ENABLE_COMMAND_LOGGING, arrayFlag) &&
        arrayFlag != 0) {
      m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Array Config [%s] to keep command output is set.",
                       SMCONFIG_NAME_ENABLE_COMMAND_LOGGING);
      m_bKeepCmdOutput = true;
    }
  }

  m_iErrorCode = 0;
  m_iReady = 1;
  return 0;
}

int CommandHandler::initializeProcessWide() {
  std::lock_guard<std::mutex> guard(g_oProcessWideInitMutex);

  // Every setting read below reports a file it cannot use as "not set"; a job run on defaults
  // would then fail far from the cause (the CCI directory, a wrong time-out).
  std::string settingsProblem;
  if (!VTPlatformInfo::checkSettingsFile(settingsProblem)) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, settingsProblem + ".", "%s", settingsProblem.c_str());
  }

  if (m_sCCIInstallPath.empty()) {
    std::string directory = cciDirectory(*m_pSnapInfo);

    if (access(directory.c_str(), F_OK) != 0) {
      return fail(
          VT_HDS_ERROR_COMMAND_FAILED,
          "Hitachi CCI CLI not found in " + directory +
              ". Ensure that the Hitachi CCI CLI is installed on this client. If it is already "
              "installed in other folder, please set path in snap configuration [" +
              SMCONFIG_NAME_HORCM_INSTALLATION_PATH + "] for Hitachi storage array [" +
              m_sSerialNumber +
              "] in array management either at array level or at client level. Please refer to "
              "Vantrel documentation on Hitachi storage array for more details.",
          "Hitachi CCI CLI not found in [%s]. Ensure that the Hitachi CCI CLI is installed on "
          "this client. If it is already installed in other folder, please set path in snap "
          "configuration [%s] for Hitachi storage array [%s] in array management either at "
          "array level or at client level.",
          directory.c_str(), SMCONFIG_NAME_HORCM_INSTALLATION_PATH, m_sSerialNumber.c_str());
    }
    if (directory.back() != '/') directory += '/';
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Running CCI commands from [%s]", directory.c_str());
    m_sCCIInstallPath = directory;
  }

  if (m_iExecutionMode != 2 && m_sLocalHostName.empty()) {
    const std::string clientName = EvDebug::getClientName();
    std::string hostName;
    if (!VTPlatformInfo::getClientHostName(clientName, hostName) || hostName.empty()) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                       "Failed to read hostname for client [%s] from registry.",
                       clientName.c_str());
      hostName = VTClient(clientName).getNetworkHostname();
      if (hostName.empty()) {
        m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get hostname for client [%s] from HQ.",
                         clientName.c_str());
        return 1;
      }
    }
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Using hostname [%s] for client [%s].", hostName.c_str(),
                     clientName.c_str());
    m_sLocalHostName = hostName;
  }

  if (getCCIVersionInstalled(m_sCCIVersion) != 0) return 1;

  if (m_sVTTempDir.empty()) {
    const char* tempDir = VTPI_Base::getOrreryTempDirectory();
    if (tempDir == nullptr) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "%s", VTPI_Base::tempDirectoryProblem().c_str());
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get Orrery Temp directory");
      return 1;
    }
    m_sVTTempDir = tempDir;
  }
  return 0;
}

int CommandHandler::getCCIVersionInstalled(std::string& version) {
  if (!m_sCCIVersion.empty()) {
    version = m_sCCIVersion;
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Got CCI version [%s] from cache.",
                     m_sCCIVersion.c_str());
    return 0;
  }

  std::string output;
  int exitCode = 0;
  if (executeCommand("raidqry", " -h ", output, exitCode) != 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get CCI version installed.");
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    return 1;
  }

  std::string found;
  if (!hds::handler::parseCciVersionOutput(output, found)) {
    return fail(
        VT_HDS_ERROR_COMMAND_FAILED,
        "Failed to get version of CCI command installed. Please check output of 'raidqry -h' "
        "command",
        "Failed to get CCI version installed. 'raidqry -h' output doesn't have "
        "'Ver&Rev' string.");
  }
  // A label followed only by blanks gives an empty version: the handler still works, and the
  // capability checks report the newer commands as unsupported.
  m_sCCIVersion = found;
  version = m_sCCIVersion;
  m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "CCI version [%s] is installed.", m_sCCIVersion.c_str());
  return 0;
}

bool CommandHandler::isHTISupported() {
  return installedCciVersion(m_sCCIVersion).atLeast(1, 29, 3, 5);
}

bool CommandHandler::isSISupported() { return isHTISupported(); }

// The CCI minor version is the two characters after "01-", whatever format the rest of the
// version is read in; "-key opt" and "get host_grp -resource" arrived with 01-32.
bool CommandHandler::isResourceKeyOptionSupported() {
  const int kResourceOptionMinorVersion = 32;
  return m_sCCIVersion.size() >= 5 &&
         hds::text::toInt(m_sCCIVersion.substr(3, 2)) >= kResourceOptionMinorVersion;
}

bool CommandHandler::isMultiLevelSnapSupported(const std::string& microcodeVersion) {
  VersionQuad version;
  // Unlike the CCI version, the microcode text's own shape wins over the configured format.
  if (microcodeVersion.find('-') != std::string::npos) {
    version.scan(microcodeVersion, kDashedVersionFormat);
  } else if (microcodeVersion.find('.') != std::string::npos) {
    version.scan(microcodeVersion, kDottedVersionFormat);
  } else {
    std::string format;
    if (!readClientString(VT_HDS_REG_SECTION, kVersionFormatKey, format)) {
      m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
      m_sErrorString = "Unable to get the version details from microcode-[" + microcodeVersion +
                       "]. The microcode format should be [xx-xx-xx/xx] or [xx.xx.xx]";
      return false;
    }
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                     "Additional setting-[%s] to customize the CCI/microcode version format "
                     "found. Value-[%s]",
                     kVersionFormatKey, format.c_str());
    version.scan(microcodeVersion, format.c_str());
  }
  return version.atLeast(80, 5, 1, 0);
}

std::string CommandHandler::horcmFilePath(const std::string& instance) {
  return VTPI_Base::getHorcmDirectory() + "horcm" + instance + ".conf";
}

std::string CommandHandler::horcmFileInstance(const std::string& fileName) {
  const std::string prefix = "horcm";
  const std::string suffix = ".conf";
  if (fileName.size() <= prefix.size() + suffix.size() ||
      fileName.compare(0, prefix.size(), prefix) != 0 ||
      fileName.compare(fileName.size() - suffix.size(), suffix.size(), suffix) != 0) {
    return std::string();
  }
  return fileName.substr(prefix.size(), fileName.size() - prefix.size() - suffix.size());
}

std::string CommandHandler::cciDirectory(VTSO::SnapInfo& snapInfo) {
  // The client setting wins over the array-level one when it is set.
  std::string directory;
  char arrayValue[1024] = {};
  if (snapInfo.getSnapConfigString(SMCONFIG_NAME_HORCM_INSTALLATION_PATH, arrayValue,
                                   sizeof(arrayValue))) {
    arrayValue[sizeof(arrayValue) - 1] = '\0';
    directory = arrayValue;
  }
  std::string clientValue;
  if (readClientString(VT_HDS_REG_SECTION, "sVTHDSHorcmDirectory", clientValue) &&
      !clientValue.empty()) {
    directory = clientValue;
  }
  if (directory.empty()) directory = VT_HDS_DEFAULT_CCI_PATH;
  return directory;
}

std::string CommandHandler::formInstanceOption(const std::string& instance) {
  return " " + hds::handler::instanceArguments(hds::handler::InstanceMode::Raidcom, instance);
}

std::string CommandHandler::shellCCIInstallPath() {
  return hds::text::quoteArgument(m_sCCIInstallPath);
}

bool CommandHandler::refuseUnlessDigits(const char* field, const std::string& value) {
  if (hds::text::isDigits(value)) return false;
  m_iErrorCode = VT_HDS_ERROR_MISSING_INPUT;
  m_sErrorString = std::string("Invalid ") + field + ". It must be made of digits only.";
  m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "%s", m_sErrorString.c_str());
  return true;
}

bool CommandHandler::refuseControlCharacters(const char* field, const std::string& value) {
  if (!hds::text::hasControlCharacter(value)) return false;
  // The value itself stays out of the text: a line feed in it would forge lines of the log.
  m_iErrorCode = VT_HDS_ERROR_MISSING_INPUT;
  m_sErrorString = std::string("Invalid ") + field +
                   ". It must not hold a control character such as a line feed.";
  m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "%s", m_sErrorString.c_str());
  return true;
}

bool CommandHandler::refuseUnsafeInput(const HDSCLIInitParam& param) {
  if (!param.serialNumber.empty() && refuseUnlessDigits("serial number", param.serialNumber)) {
    return true;
  }
  if (!param.horcmInstance.empty() && refuseUnlessDigits("HORCM instance", param.horcmInstance)) {
    return true;
  }
  for (const std::string& device : param.commandDevices) {
    if (refuseControlCharacters("command device name", device)) return true;
  }
  return refuseControlCharacters("copy group name", param.copyGroupName);
}
