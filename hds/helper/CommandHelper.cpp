#include "hds/helper/CommandHelper.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "hds/common/HDSConstants.h"
#include "hds/platform/VTPassword.h"
#include "hds/platform/VTPlatformInfo.h"
#include "hds/platform/VtNamedMutex.h"
#include "hds/platform/VtProcess.h"

namespace {

const char* const kShell = "/bin/sh";
const char* const kTimedOutMarker = "timedout";

// The argument vector handed to the platform: separately duplicated strings, so that a failed
// allocation is a result and not an exception.
class ShellArgv {
 public:
  explicit ShellArgv(const std::string& commandLine) {
    m_pArgv = static_cast<char**>(std::calloc(4, sizeof(char*)));
    if (m_pArgv == nullptr) return;
    m_pArgv[0] = strdup(kShell);
    m_pArgv[1] = strdup("-c");
    m_pArgv[2] = strdup(commandLine.c_str());
  }
  ~ShellArgv() { release(); }
  ShellArgv(const ShellArgv&) = delete;
  ShellArgv& operator=(const ShellArgv&) = delete;

  bool ok() const {
    return m_pArgv != nullptr && m_pArgv[0] != nullptr && m_pArgv[1] != nullptr &&
           m_pArgv[2] != nullptr;
  }
  char* const* get() const { return m_pArgv; }

  void release() {
    if (m_pArgv == nullptr) return;
    for (int i = 0; i < 3; ++i) std::free(m_pArgv[i]);
    std::free(m_pArgv);
    m_pArgv = nullptr;
  }

 private:
  char** m_pArgv = nullptr;
};

// Hands one call to the process-wide observer when one is installed; without one it reads no
// clock.
class CallReport {
 public:
  explicit CallReport(const std::string& printable)
      : m_pObserver(VtGetProcessObserver(&m_pContext)), m_rPrintable(printable) {
    if (m_pObserver == nullptr) return;
    m_oWallStart = std::chrono::system_clock::now();
    m_oStart = std::chrono::steady_clock::now();
  }

  void send(bool started, int exitCode, bool timedOut, const std::string& out = std::string(),
            const std::string& err = std::string()) {
    if (m_pObserver == nullptr) return;
    using namespace std::chrono;
    VtProcessCall call{};
    call.command = m_rPrintable.c_str();
    call.startUnixMs = duration_cast<milliseconds>(m_oWallStart.time_since_epoch()).count();
    call.durationMs = duration<double, std::milli>(steady_clock::now() - m_oStart).count();
    call.exitCode = exitCode;
    call.started = started;
    call.timedOut = timedOut;
    call.out = out.data();
    call.outSize = out.size();
    call.err = err.data();
    call.errSize = err.size();
    m_pObserver(m_pContext, call);
  }

 private:
  void* m_pContext = nullptr;
  VtProcessObserver m_pObserver;
  const std::string& m_rPrintable;
  std::chrono::system_clock::time_point m_oWallStart;
  std::chrono::steady_clock::time_point m_oStart;
};

bool commandLoggingEnabled(VTSO::SnapInfo& snapInfo) {
  int value = 0;
  return snapInfo.getSnapConfigInt(SMCONFIG_NAME_ENABLE_COMMAND_LOGGING, value) && value != 0;
}

}  // namespace

CommandHelper::CommandHelper(VTSO::SnapInfo& snapInfo) : m_pSnapInfo(&snapInfo) {}

std::string CommandHelper::buildCommandToPrint(const std::string& commandLine,
                                               const std::string& suffix) {
  const size_t loginPos = commandLine.find("login");
  if (loginPos != std::string::npos) return commandLine.substr(0, loginPos + 6);

  unsigned long doNotPrintFull = 0;
  VTPlatformInfo::getNumber(VT_HDS_REG_SECTION, "SNAP_HDS_DO_NOT_PRINT_FULL_COMMAND",
                            &doNotPrintFull);
  if (doNotPrintFull != 0) return commandLine;
  return commandLine + suffix;
}

int CommandHelper::RunCommandWithTimeout(const std::string& commandLine, std::string& output,
                                         int& exitCode, std::string& error, int timeoutSec) {
  return RunCommandWithTimeout(commandLine, buildCommandToPrint(commandLine, ""), output, exitCode,
                               error, timeoutSec);
}

int CommandHelper::RunCommandWithTimeout(const std::string& commandLine,
                                         const std::string& printable, std::string& output,
                                         int& exitCode, std::string& error, int timeoutSec) {
  CallReport report(printable);
  VtProcess process;
  process.TrapIO(true, true);
  process.SetSilence(true);

  ShellArgv argv(commandLine);
  if (!argv.ok()) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to allocate memory");
    error = "Failed to launch command" + printable;
    return -1;
  }
  const bool started = process.StartProcess(argv.get(), &error, 0);
  argv.release();
  if (!started) {
    report.send(false, -1, false);
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to execute Command [%s]. Error [%s]",
                     printable.c_str(), error.c_str());
    error = "Failed to launch command" + printable;
    return -1;
  }

  if (process.WaitForProcessToEnd(&exitCode, &error, timeoutSec)) {
    process.GetIO(&output, &error);
    report.send(true, exitCode, false, output, error);
    m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Command [%s] succeeded with exitCode [%d]",
                     printable.c_str(), exitCode);
    if (exitCode != 0) output += error;
    return 0;
  }
  report.send(true, -1, error == kTimedOutMarker);
  if (error == kTimedOutMarker) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Command [%s] timed out. Error [%s]", printable.c_str(),
                     error.c_str());
    error = "Command " + printable + " timedout.";
    return -1;
  }
  m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to get status of Command [%s]", printable.c_str());
  error = "Failed to get status of command" + printable;
  return -1;
}

int CommandHelper::RunCommandWithFileOutput(const std::string& commandLine, std::string& output,
                                            int& exitCode, std::string& error, int timeoutSec,
                                            const std::string& /*outputFile*/) {
  return RunCommandWithTimeout(commandLine, output, exitCode, error, timeoutSec);
}

int CommandHelper::RunCommand(const std::string& commandLine, std::string& output, int& exitCode,
                              std::string& error, const std::string&, const std::string&,
                              const std::string&) {
  error.clear();
  const std::string printable = buildCommandToPrint(commandLine, "");
  CallReport report(printable);
  VtProcess process;
  const int result = process.system(commandLine.c_str(), &output, &error, 0, true);
  report.send(result != -1, result, false, output, error);
  if (result == -1) {
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to execute command [%s]. Error [%s]",
                     printable.c_str(), error.c_str());
    return -1;
  }
  exitCode = result;
  m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Successfully executed command [%s] with exitCode [%d]",
                   printable.c_str(), exitCode);
  return 0;
}

int CommandHelper::decryptPassword(const std::string& encrypted, std::string& plain) {
  if (encrypted.empty()) return 0;
  char in[COMMAND_MAX_PASSWORDLEN] = {};
  char out[COMMAND_MAX_PASSWORDLEN] = {};
  std::strncpy(in, encrypted.c_str(), sizeof(in));
  in[sizeof(in) - 1] = '\0';
  int size = COMMAND_MAX_PASSWORDLEN;
  const int ok = VTPassword::decrypt(in, out, &size);
  out[sizeof(out) - 1] = '\0';
  if (ok != 0) plain = out;
  // Neither copy of the secret may linger on the stack.
  explicit_bzero(in, sizeof(in));
  explicit_bzero(out, sizeof(out));
  return ok != 0 ? 0 : 1;
}

std::string CommandHelper::itoa(int value) {
  char buf[1024];
  (void)std::snprintf(buf, sizeof(buf), "%d", value);
  return buf;
}

void CommandHelper::stringToWchar(const std::string&, wchar_t*) {}

int CommandHelper::getEnv(const std::string&, std::string&) { return 0; }

void CommandHelper::setEnv(const std::string&, const std::string&) {}

VTHDSLock::VTHDSLock(VTSO::SnapInfo& snapInfo)
    : m_pSnapInfo(&snapInfo), m_pMutex(nullptr), m_bLocked(false) {}

VTHDSLock::VTHDSLock(VTSO::SnapInfo& snapInfo, const std::string& lockName, int retryCount)
    : VTHDSLock(snapInfo) {
  lock(lockName, retryCount);
}

VTHDSLock::~VTHDSLock() { unlock(); }

void VTHDSLock::init() {
  m_bLocked = false;
  m_pMutex = nullptr;
}

bool VTHDSLock::isLocked() const { return m_bLocked; }

bool VTHDSLock::lock(const std::string& lockName, int retryCount) {
  int attempts = VT_HDS_MAX_LOCK_RETRY_COUNT;
  unsigned long configured = 0;
  if (VTPlatformInfo::getNumber(VT_HDS_REG_SECTION, "nVTHDSSnapLockRetryCount", &configured) &&
      configured != 0) {
    attempts = configured > 1000000UL ? 1000000 : static_cast<int>(configured);
  }
  if (retryCount > 0) attempts = retryCount;

  const bool logProgress = commandLoggingEnabled(*m_pSnapInfo);

  // A second lock() on one object replaces its mutex. Dropping the first one here releases it:
  // left behind, it would hold the name for the rest of the process and a lock on the same name
  // would wait on itself.
  unlock();
  m_pMutex = new (std::nothrow) VtNamedMutex(lockName);
  if (m_pMutex == nullptr || !m_pMutex->isValid()) {
    // The mutex's own text names the lock directory or file and the system's reason.
    if (m_pMutex != nullptr) {
      m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "%s", m_pMutex->lastError().c_str());
    }
    delete m_pMutex;
    m_pMutex = nullptr;
    m_pSnapInfo->log(2, VT_HDS_LOG_MODULE, "Failed to create mutex [%s].", lockName.c_str());
    return false;
  }

  const unsigned long waitMs = VT_HDS_DEFAULT_LOCK_TIME_OUT * 1000UL;
  for (int attempt = 1; attempt <= attempts; ++attempt) {
    if (m_pMutex->lock(waitMs)) {
      if (logProgress) {
        m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Acquired mutex [%s].", lockName.c_str());
      }
      m_sLockName = lockName;
      m_bLocked = true;
      return true;
    }
    if (logProgress) {
      m_pSnapInfo->log(0, VT_HDS_LOG_MODULE,
                       "Mutex [%s] could not be acquired, shall retry after [%d] seconds.",
                       lockName.c_str(), VT_HDS_DEFAULT_LOCK_TIME_OUT);
    }
  }
  m_pSnapInfo->log(2, VT_HDS_LOG_MODULE,
                   "Mutex [%s] could not be acquired even after [%d] attempts.", lockName.c_str(),
                   attempts);
  return false;
}

void VTHDSLock::unlock() {
  if (m_pMutex != nullptr) {
    if (m_bLocked) {
      const bool logProgress = commandLoggingEnabled(*m_pSnapInfo);
      m_pMutex->unlock();
      if (logProgress) {
        m_pSnapInfo->log(0, VT_HDS_LOG_MODULE, "Released mutex [%s].", m_sLockName.c_str());
      }
    }
    delete m_pMutex;
    m_pMutex = nullptr;
  }
  m_bLocked = false;
}
