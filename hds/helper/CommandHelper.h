#pragma once

#include <string>

#include "hds/common/HDSExport.h"
#include "hds/platform/CZoFile.h"
#include "hds/platform/SnapInfo.h"

class VtNamedMutex;

// Runs one shell command line ("/bin/sh -c") as a child process with a time-out and captures
// what it prints; every run is reported to the process observer (VtSetProcessObserver) when one
// is installed. Made on the stack for each command; it holds nothing but the job context it logs
// to.
//
// Thread safety: safe to use from many threads at once, since it keeps no state of its own.
class HDS_API CommandHelper {
 public:
  explicit CommandHelper(VTSO::SnapInfo& snapInfo);

  // Blocks until the child ends or timeoutSec passes (<= 0: no time-out); on a time-out the
  // child's process group is killed and reaped. 0 when the child ran to its end, whatever its
  // exit code: output is replaced by its stdout, with its stderr appended after a non-zero exit,
  // and error holds the stderr. -1 when it could not be started, timed out or its end was not
  // observed: error holds the reason (naming the loggable command line), output and exit code
  // are left as they were.
  int RunCommandWithTimeout(const std::string& commandLine, std::string& output, int& exitCode,
                            std::string& error, int timeoutSec);
  // The same with the loggable form of the command line (buildCommandToPrint) made by the
  // caller, which then forms it, and reads the settings for it, once per call.
  int RunCommandWithTimeout(const std::string& commandLine, const std::string& printable,
                            std::string& output, int& exitCode, std::string& error, int timeoutSec);
  // The same; outputFile is not used.
  int RunCommandWithFileOutput(const std::string& commandLine, std::string& output, int& exitCode,
                               std::string& error, int timeoutSec, const std::string& outputFile);
  // Without a time-out: blocks until the child ends. 0 with the exit code, stdout in output and
  // stderr in error; -1 when the command could not be run (error says why, exit code untouched).
  int RunCommand(const std::string& commandLine, std::string& output, int& exitCode,
                 std::string& error, const std::string& unused1, const std::string& unused2,
                 const std::string& unused3);

  // The form of a command line that may be logged: a line holding "login" is cut just after it
  // (and the one character that follows), so the user name and password never reach a log.
  // Other lines get the suffix unless "SNAP_HDS_DO_NOT_PRINT_FULL_COMMAND" ("iHarbor") is set;
  // that setting is read on every call.
  std::string buildCommandToPrint(const std::string& commandLine, const std::string& suffix);

  // 0 on success or for an empty input (plain untouched then), 1 when decryption fails (plain
  // untouched). Texts longer than 2047 characters are cut; no copy of the secret stays behind.
  int decryptPassword(const std::string& encrypted, std::string& plain);

  static std::string itoa(int value);

  // Kept for callers of the historic interface; they do nothing.
  void stringToWchar(const std::string& text, wchar_t* out);
  int getEnv(const std::string& name, std::string& value);
  void setEnv(const std::string& name, const std::string& value);

 private:
  VTSO::SnapInfo* m_pSnapInfo;
};

// A named, host-wide lock (a VtNamedMutex) held for a scope and released by the destructor.
// Used as a guard (name and retry count in the constructor; check isLocked() when it matters),
// or built with the job context alone when the caller must know whether lock() succeeded.
//
// Thread safety: one object belongs to one thread; the lock excludes other threads and
// processes alike and is not recursive, so a thread asking for a name it already holds fails.
class HDS_API VTHDSLock {
 public:
  explicit VTHDSLock(VTSO::SnapInfo& snapInfo);
  // Calls lock(lockName, retryCount).
  VTHDSLock(VTSO::SnapInfo& snapInfo, const std::string& lockName, int retryCount);
  ~VTHDSLock();
  VTHDSLock(const VTHDSLock&) = delete;
  VTHDSLock& operator=(const VTHDSLock&) = delete;

  // Forgets the mutex without releasing it: only for an object that holds nothing, since a held
  // lock would stay held until the thread ends.
  void init();
  // Up to retryCount timed waits of 5 s each (retryCount <= 0: "nVTHDSSnapLockRetryCount" in
  // "iHarbor", at most 1,000,000, else 50), so it blocks at most rounds x 5 s, scaled by
  // ZoSetTimeScale. A lock this object already holds is released first. false when the lock file
  // cannot be made (logged with the reason) or every wait ran out.
  bool lock(const std::string& lockName, int retryCount);
  bool isLocked() const;
  // Releases the lock when held; harmless otherwise.
  void unlock();

 private:
  VTSO::SnapInfo* m_pSnapInfo;
  VtNamedMutex* m_pMutex;
  [[maybe_unused]] CZoError m_oError;
  bool m_bLocked;
  std::string m_sLockName;
};
