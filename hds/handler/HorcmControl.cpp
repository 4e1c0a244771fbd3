#include <cstdio>

#include "hds/common/HDSConstants.h"
#include "hds/common/internal/HDSText.h"
#include "hds/handler/CommandHandler.h"
#include "hds/handler/internal/HandlerParsers.h"
#include "hds/platform/VTPlatformInfo.h"

int CommandHandler::horcmStart(const char* instance) {
  const std::string horcmInstance = instance != nullptr ? instance : m_sHorcmInstance;
  if (horcmInstance.empty()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Horcm instance is not passed.");
    return 1;
  }

  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_HORCMSTART_CMD_NAME, hds::text::quoteArgument(horcmInstance), output,
                     exitCode) != 0) {
    if (exitCode == 1 && output.find("already been running") != std::string::npos) {
      setErrorCodeAndString(0, "");
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Horcm instance [%s] is already running.",
                       m_sHorcmInstance.c_str());
      return 0;
    }
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to start horcm instance [%s].",
                     m_sHorcmInstance.c_str());
    m_iErrorCode = VT_HDS_ERROR_MISSING_INPUT;
    // The configuration the daemon refused is what a support engineer needs to see.
    saveFileAsLog(horcmFilePath(horcmInstance));
    return 1;
  }

  if (output.find("successfully") != std::string::npos) {
    m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Successfully started horcm instance [%s].",
                     m_sHorcmInstance.c_str());
    return 0;
  }
  m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to start horcm instance [%s]. Output [%s] ",
                   m_sHorcmInstance.c_str(), output.c_str());
  m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
  m_sErrorString = "Failed to start horcm instance" + m_sHorcmInstance;
  saveFileAsLog(horcmFilePath(horcmInstance));
  return 1;
}

int CommandHandler::horcmShutdown(const char* instance) {
  const std::string horcmInstance = instance != nullptr ? instance : m_sHorcmInstance;
  if (horcmInstance.empty()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Horcm instance is not passed.");
    return 1;
  }

  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_HORCMSHUTDOWN_CMD_NAME, hds::text::quoteArgument(horcmInstance), output,
                     exitCode) != 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to stop horcm instance [%s].",
                     horcmInstance.c_str());
    return 1;
  }
  m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Successfully stopped horcm instance [%s].",
                   horcmInstance.c_str());
  return 0;
}

int CommandHandler::CheckIfCommandDeviceExist() {
  int maxDeviceNumber = 255;
  int configured = 0;
  if (VTPlatformInfo::getRegInt(VT_HDS_REG_SECTION_LOCAL, "nVTHDSFindCmdDevMaxDeviceNumber",
                                &configured)) {
    maxDeviceNumber = configured;
  }
  char arguments[64];
  (void)std::snprintf(arguments, sizeof(arguments), " -x findcmddev 0-%d", maxDeviceNumber);

  std::string output;
  int exitCode = 0;
  if (executeCommand(VT_HDS_RAIDSCAN_CMD_NAME, arguments, output, exitCode) != 0) {
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    m_sErrorString =
        "The command [raidscan -x findcmddev] failed to run. Output-[" + output +
        "]. Please ensure that the Hitachi CCI is installed on the host. Please check the log "
        "folder under CCI installation directory to get more details relating to the command "
        "failure.";
    return 1;
  }

  std::string device;
  if (hds::handler::parseFindCommandDeviceOutput(output, m_sSerialNumber, device)) {
    if (!device.empty()) m_oCommandDevices.push_back(device);
    return 0;
  }

  m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
  m_sErrorString =
      "No command device from Hitachi storage array [" + m_sSerialNumber +
      "] found on the host. Either allocate a command device from the storage array to this host "
      "or use any other media agent which already has command device allocated by providing snap "
      "configuration [Remote Snap MA (CCI engines)] in Array Management at array level or client "
      "level. Please refer to Vantrel documentation on Hitachi storage array for more details.";
  m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "%s. Output [%s].", m_sErrorString.c_str(),
                   output.c_str());
  return 1;
}
