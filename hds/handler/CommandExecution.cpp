#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "hds/common/HDSConstants.h"
#include "hds/common/internal/HDSText.h"
#include "hds/handler/CommandHandler.h"
#include "hds/helper/CommandHelper.h"
#include "hds/platform/CZoFile.h"
#include "hds/platform/VTClient.h"
#include "hds/platform/ZoSleep.h"

namespace {

const char* const kScriptFailedText = "Failed to execute CCI command.";
const int kScriptOpenRetries = 4;
const unsigned long kScriptOpenRetryPauseMs = 2000;

// The named locks around the name counters exclude other processes, whose names the process id
// keeps apart anyway; this one keeps the counters of this process consistent even when a named
// lock could not be had.
std::mutex g_oNameCounterMutex;

using hds::text::Separator;

// <tempDir>/<pid>_<tid>_<seconds>_<index>_<suffix>: the process and thread ids keep names of
// different processes and threads apart, the index those one thread makes within a second.
std::string formUniqueFileName(VTSO::SnapInfo& snapInfo, const std::string& tempDir,
                               const char* lockName, const char* suffix, int64_t& lastTime,
                               int& lastIndex) {
  VTHDSLock guard(snapInfo, lockName, 0);
  std::lock_guard<std::mutex> counterGuard(g_oNameCounterMutex);

  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  if (now == lastTime) {
    ++lastIndex;
  } else {
    lastIndex = 1;
  }
  lastTime = now;

  char name[1024];
  const int length = std::snprintf(name, sizeof(name), "%s/%d_%d_%lld_%d_%s", tempDir.c_str(),
                                   EvDebug::getProcessId(), static_cast<int>(GetCurrentThreadId()),
                                   static_cast<long long>(now), lastIndex, suffix);
  if (length < 0 || static_cast<size_t>(length) >= sizeof(name)) {
    // A cut name could collide with another process's file or point somewhere else entirely.
    snapInfo.log(2, VT_HDS_LOG_MODULE,
                 "Temporary directory [%s] is too long to form a file name in it.",
                 tempDir.c_str());
    return std::string();
  }
  return name;
}

}  // namespace

std::string CommandHandler::formOutputFileName() {
  static int64_t lastTime = 0;
  static int lastIndex = 0;
  std::string path = formUniqueFileName(*m_pSnapInfo, m_sVTTempDir, "VT_HDS_OUTPUTFILE_LOCK",
                                        "resp.log", lastTime, lastIndex);
  if (!path.empty()) {
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Going to use output file [%s].", path.c_str());
  }
  return path;
}

std::string CommandHandler::formInputScriptFileName() {
  static int64_t lastTime = 0;
  static int lastIndex = 0;
  return formUniqueFileName(*m_pSnapInfo, m_sVTTempDir, "VT_HDS_INPUTFILE_LOCK", "script", lastTime,
                            lastIndex);
}

int CommandHandler::executeCommand(const std::string& commandName, const std::string& arguments,
                                   std::string& output, int& exitCode) {
  output.clear();
  exitCode = 0;
  m_iErrorCode = 0;
  m_sErrorString.clear();

  // Callers quote every value in the command and argument parts; the directory is a setting.
  const std::string commandLine = shellCCIInstallPath() + commandName + " " + arguments;
  CommandHelper helper(*m_pSnapInfo);
  const std::string printable = helper.buildCommandToPrint(commandLine, "");

  std::string error;
  if (helper.RunCommandWithTimeout(commandLine, printable, output, exitCode, error,
                                   m_iCommandTimeout) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED,
                "Failed to execute command '" + printable + "'. Error [" + error + "].",
                "Failed to execute command [%s]. Error [%s]. Output [%s]", printable.c_str(),
                error.c_str(), output.c_str());
  }
  if (exitCode != 0) {
    // 1 and 227 are how CCI tools report expected conditions that callers inspect and accept.
    const int level = (exitCode == 1 || exitCode == VT_HDS_CCI_ERROR_EX_ENLDEV) ? 0 : 2;
    m_pSnapInfo->log(level, VT_HDS_LOG_MODULE, "Command [%s] returned exitCode [%d]. Output [%s]",
                     printable.c_str(), exitCode, output.c_str());
    m_iErrorCode = VT_HDS_ERROR_COMMAND_FAILED;
    m_sErrorString =
        "Command '" + printable + " returned exit code [" + CommandHelper::itoa(exitCode) + "].";
    return 1;
  }
  return 0;
}

int CommandHandler::executeScriptFile(const std::string& scriptContent, std::string& output,
                                      int& exitCode) {
  const std::string path = formInputScriptFileName();
  output.clear();
  if (scriptContent.empty()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Scriptcontent is empty. Nothing to execute");
    return 1;
  }

  // The file is executed by its path, hence the execute bits. Opening never follows a symlink
  // planted at the path.
  CZoFile script;
  CZoError error;
  if (path.empty()) {
    error = CZoError(ENAMETOOLONG, "script file name");
  } else {
    error = script.Open(path, O_WRONLY | O_CREAT | O_TRUNC, 0777);
    for (int retry = 0; error.IsError() && retry < kScriptOpenRetries; ++retry) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                       "Failed to open script file [%s] . Error [%s]. Will retry after 5secs.",
                       path.c_str(), error.AsString().c_str());
      ZOSLEEP_InTeRnAl(kScriptOpenRetryPauseMs);
      error = script.Open(path, O_WRONLY | O_CREAT | O_TRUNC, 0777);
    }
  }
  if (error.IsError()) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to create script file [" + path + "]",
                "Failed to open script file [%s] . Error [%s]", path.c_str(),
                error.AsString().c_str());
  }

  error = script.Write(scriptContent.data(), scriptContent.size());
  if (error.IsError()) {
    script.Flush();
    script.Close();
    return fail(VT_HDS_ERROR_COMMAND_FAILED, "Failed to write to script file [" + path + "]",
                "Failed to write to script file [%s] . Error [%s]", path.c_str(),
                error.AsString().c_str());
  }
  script.Flush();
  script.Close();

  CommandHelper helper(*m_pSnapInfo);
  std::string runError;
  if (helper.RunCommandWithTimeout(hds::text::quoteArgument(path), output, exitCode, runError,
                                   m_iCommandTimeout) != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, kScriptFailedText,
                "Failed to execute script [%s]. Error [%s]. Output [%s]", path.c_str(),
                runError.c_str(), output.c_str());
  }
  if (exitCode != 0) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, kScriptFailedText,
                "Script [%s] returned exitCode [%d]. Output [%s]", path.c_str(), exitCode,
                output.c_str());
  }
  // raidcom reports on stderr, and the runner hands that text back only with a non-zero exit,
  // which for a script is its last line's. A line that failed earlier in the script shows only
  // on stderr, so it is judged here as the output would be, and kept in the output for callers.
  std::string errorPart;
  if (!didTheCommandFail(output, errorPart) && didTheCommandFail(runError, errorPart))
    output += runError;
  if (!errorPart.empty()) {
    return fail(VT_HDS_ERROR_COMMAND_FAILED, kScriptFailedText, "Script [%s] output has error [%s]",
                path.c_str(), output.c_str());
  }
  deleteCommandFiles(path);
  return 0;
}

bool CommandHandler::didTheCommandFail(const std::string& output, std::string& errorPart) {
  // A warning is looked for first and wins when both kinds occur.
  size_t pos = output.find("raidcom: [EW_");
  if (pos == std::string::npos) pos = output.find("raidcom: [EX_");
  if (pos == std::string::npos) return false;
  errorPart = output.substr(pos);
  return true;
}

// The odd sense is the established behaviour callers rely on: a file that is already gone is
// reported as a failure, and a file that cannot be removed for lack of rights is passed over.
int CommandHandler::deleteCommandFiles(const std::string& filePath) {
  if (filePath.empty() || m_bKeepCmdOutput) return 0;
  if (unlink(filePath.c_str()) == 0 || errno != ENOENT) return 0;
  if (chmod(filePath.c_str(), 0666) != 0) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to change permission to delete file [%s].",
                     filePath.c_str());
    return 1;
  }
  if (unlink(filePath.c_str()) != 0 && errno == ENOENT) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to delete file [%s].", filePath.c_str());
    return 1;
  }
  return 0;
}

int CommandHandler::saveFileAsLog(const std::string& filePath) {
  if (filePath.empty()) return 0;

  std::string content;
  CZoError error = CZoFile::ReadWholeFile(filePath, content);
  if (error.IsError()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to read file [%s]. Error [%s]", filePath.c_str(),
                     error.AsString().c_str());
    m_sErrorString = "Failed to read file [" + filePath + "]. Error [" + error.AsString() + "]";
    return 1;
  }
  if (content.empty()) return 0;

  const std::string newPath = formOutputFileName();
  CZoFile copy;
  error = newPath.empty() ? CZoError(ENAMETOOLONG, "response file name")
                          : copy.Open(newPath, O_WRONLY | O_CREAT | O_EXCL, 0777);
  if (error.IsError()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Unable to create file [%s]. Due to error [%s]",
                     newPath.c_str(), error.AsString().c_str());
    m_sErrorString = "Unable to open file " + newPath;
    return 1;
  }
  int result = 0;
  error = copy.Write(content.data(), content.size());
  if (error.IsError()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Unable to write to file [%s]. Due to error [%s]",
                     newPath.c_str(), error.AsString().c_str());
    m_sErrorString = "Unable to write to file " + newPath;
    result = 1;
  } else {
    m_pSnapInfo->log(1, VT_HDS_LOG_MODULE, "Saved file [%s] as [%s]", filePath.c_str(),
                     newPath.c_str());
  }
  copy.Flush();
  copy.Close();
  return result;
}

bool CommandHandler::getNextValueFromOutput(const std::string& output, unsigned long& position,
                                            std::string& value, const std::string& module) {
  if (position == std::string::npos || position >= output.size()) {
    m_pSnapInfo->log(2, module.c_str(), "Reached end of output [%s]. Index [%d].", output.c_str(),
                     static_cast<int>(position));
    return false;
  }
  size_t pos = position;
  value = std::string(hds::text::nextColumn(output, pos, Separator::Blank));
  position = pos;
  return true;
}

void CommandHandler::skipSpace(const char*& p) { p = hds::text::skipSeparators(p); }

void CommandHandler::skipSpace(char*& p) {
  p = const_cast<char*>(hds::text::skipSeparators(static_cast<const char*>(p)));
}

std::string CommandHandler::skipToSpace(const char*& p) {
  const char* start = p;
  p = hds::text::skipValue(p);
  return start != nullptr ? std::string(start, p) : std::string();
}

std::string CommandHandler::skipToSpace(char*& p) {
  const char* cursor = p;
  std::string word = skipToSpace(cursor);
  p = const_cast<char*>(cursor);
  return word;
}

bool CommandHandler::skipColumns(const char*& p, int columns) {
  skipSpace(p);
  for (int i = 0; i < columns; ++i) {
    skipToSpace(p);
    skipSpace(p);
  }
  return true;
}

bool CommandHandler::skipColumns(char*& p, int columns) {
  const char* cursor = p;
  skipColumns(cursor, columns);
  p = const_cast<char*>(cursor);
  return true;
}
