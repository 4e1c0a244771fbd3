#pragma once

#include <string>

#include "hds/common/HDSExport.h"
#include "hds/platform/CZoFile.h"
#include "hds/platform/SnapInfo.h"

class VtNamedMutex;

// Runs one shell command line as a child process with a time-out and captures what it prints.
// Made on the stack for each command; it holds nothing but the job context it logs to.
class HDS_API CommandHelper {
 public:
  explicit CommandHelper(VTSO::SnapInfo& snapInfo);

  // 0 when the child ran to its end, whatever its exit code (a non-zero exit appends the standard
  // error text to the output); -1 when it could not be started, timed out or its end was not
  // observed, with the reason in error.
  int RunCommandWithTimeout(const std::string& commandLine, std::string& output, int& exitCode,
                            std::string& error, int timeoutSec);
  // The same with the loggable form of the command line (buildCommandToPrint) made by the
  // caller, which then forms it, and reads the settings for it, once per call.
  int RunCommandWithTimeout(const std::string& commandLine, const std::string& printable,
                            std::string& output, int& exitCode, std::string& error, int timeoutSec);
  int RunCommandWithFileOutput(const std::string& commandLine, std::string& output, int& exitCode,
                               std::string& error, int timeoutSec, const std::string& outputFile);
  // Without a time-out; 0 with the exit code, -1 when the command could not be run.
  int RunCommand(const std::string& commandLine, std::string& output, int& exitCode,
                 std::string& error, const std::string& unused1, const std::string& unused2,
                 const std::string& unused3);

  // The form of a command line that may be logged: a login command is cut just after "login",
  // so the user name and password that follow never reach a log.
  std::string buildCommandToPrint(const std::string& commandLine, const std::string& suffix);

  // 0 on success or for an empty input (output untouched then), 1 when decryption fails.
  int decryptPassword(const std::string& encrypted, std::string& plain);

  static std::string itoa(int value);

  // Kept for callers of the historic interface; they do nothing.
  void stringToWchar(const std::string& text, wchar_t* out);
  int getEnv(const std::string& name, std::string& value);
  void setEnv(const std::string& name, const std::string& value);

 private:
  VTSO::SnapInfo* m_pSnapInfo;
};

// A named, host-wide lock held for a scope. Used as a guard (name and retry count 0 in the
// constructor, nothing checked, released at the end of the scope), or built with the job context
// alone when the caller must know whether lock() succeeded.
class HDS_API VTHDSLock {
 public:
  explicit VTHDSLock(VTSO::SnapInfo& snapInfo);
  // retryCount 0 uses "nVTHDSSnapLockRetryCount" or the default of 50 timed waits of 5 s.
  VTHDSLock(VTSO::SnapInfo& snapInfo, const std::string& lockName, int retryCount);
  ~VTHDSLock();
  VTHDSLock(const VTHDSLock&) = delete;
  VTHDSLock& operator=(const VTHDSLock&) = delete;

  void init();
  bool lock(const std::string& lockName, int retryCount);
  bool isLocked() const;
  void unlock();

 private:
  VTSO::SnapInfo* m_pSnapInfo;
  VtNamedMutex* m_pMutex;
  [[maybe_unused]] CZoError m_oError;
  bool m_bLocked;
  std::string m_sLockName;
};
