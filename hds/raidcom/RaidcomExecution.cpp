// The command execution every raidcom operation goes through: the command status round of
// asynchronous commands, the restart of a HORCM instance found down, the forced login after an
// expired session, and the output kept on request.

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "hds/common/HDSConstants.h"
#include "hds/helper/CommandHelper.h"
#include "hds/platform/CZoFile.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "hds/raidcom/internal/RaidcomArgs.h"
#include "hds/raidcom/internal/RaidcomParsers.h"
#include "hds/raidcom/internal/RaidcomSessionState.h"

using namespace hds::raidcom;

namespace {

using hds::raidcom::raidcom;

const char* const kSyncCommandsLock = "VT_HDS_SYNC_COMMANDS";

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

int RaidcomCommandHandler::executeCommand(std::string const& command, std::string const& arguments,
                                          std::string& output, int& exitCode, bool asyncCommand) {
  VTHDSLock syncLock(*m_pSnapInfo);
  if (asyncCommand) {
    // The array keeps one command status per session, and the session is shared by every
    // process of this host: reset, command and status read must not interleave with another's.
    if (!syncLock.lock(kSyncCommandsLock, 0)) {
      return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to execute raidcom command.",
                  "Command handler initialization failed, unable to acquire lock.");
    }
    if (resetCommandStatus() != 0) {
      return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to reset command status.",
                  "Failed to reset command status for command [%s]", command.c_str());
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
      return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to create file [" + fileName + "]",
                  "Failed to open optput file [%s] . Error [%s]", fileName.c_str(),
                  error.AsString().c_str());
    }
    error = file.Write(output.data(), output.size());
    if (error.IsError()) {
      file.Close();
      return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to write to file [" + fileName + "]",
                  "Failed to write to output file [%s] . Error [%s]", fileName.c_str(),
                  error.AsString().c_str());
    }
    file.Close();
  }

  if (asyncCommand) {
    bool hasError = false;
    std::string statusText;
    if (getCommandStatus(hasError, statusText) != 0) {
      return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed get command status.",
                  "Failed to get command status for command [%s]", command.c_str());
    }
    if (hasError) {
      return fail(VT_HDS_ERROR_COMMAND_FAILED, "Command status has error.",
                  "Get command status for command [%s] returned error [%s]", command.c_str(),
                  statusText.c_str());
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
  if ((hds::raidcom::insideLoginLock() || loginLock.lock(VT_HDS_RAIDCOM_LOGIN_LOCK, 0)) &&
      horcmStart(nullptr) == 0) {
    return 0;
  }
  // The command's own failure is what the caller reports.
  m_iErrorCode = errorCode;
  m_sErrorString = errorText;
  return 1;
}

int RaidcomCommandHandler::resetCommandStatus() {
  const std::string command = raidcom(" reset command_status ");
  std::string output;
  int exitCode = 0;
  if (executeCommand(command, m_sInstanceArgs, output, exitCode, false) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to reset command status.");
  }
  return 0;
}

int RaidcomCommandHandler::getCommandStatus(bool& hasError, std::string& statusText) {
  hasError = false;
  const std::string command = raidcom(" get command_status ");
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
      return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get command status.");
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
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get hostname used by CCI.");
  }

  // Nothing half read is kept: the cache is filled only from a whole line.
  if (!parseRaidqryOutput(output, cache)) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to get hostname used by CCI.",
                "No host line in the output of raidqry [%s].", output.c_str());
  }
  info = cache;
  return 0;
}
