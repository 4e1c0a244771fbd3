#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "hds/platform/SnapInfo.h"
#include "hds/raidcom/RaidcomCommandHandler.h"

namespace CLI {
class App;
}

namespace hdsctl {

// How to reach the array; every field can also come from an HDSCTL_* environment variable.
// An empty field is one that was not given.
struct ArrayOptions {
  std::string serial;
  std::string user;
  std::string password;
  std::vector<std::string> commandDevices;
  std::string horcmInstance;
  std::string resourceGroup;
  std::string cciDir;
};

// Adds the array options to a subcommand; all subcommands share the one ArrayOptions, which
// then holds what the command line gave.
void addArrayOptions(CLI::App* command, ArrayOptions& options);

// What the HDSCTL_* variables give. Call it once, before any child process starts: it removes
// HDSCTL_PASSWORD from this process's environment.
ArrayOptions takeArrayEnvironment();

// Each field that `over` gives replaces that of `into`.
void mergeArrayOptions(ArrayOptions& into, const ArrayOptions& over);

// The options in force: the command line beats the job file, which beats the environment.
ArrayOptions resolveArrayOptions(const ArrayOptions& environment, const ArrayOptions& jobFile,
                                 const ArrayOptions& commandLine);

// The library's log (see BasicSnapInfo for the line format) written to a file, to stderr, to
// both or nowhere.
class LogSink {
 public:
  LogSink();
  ~LogSink();
  LogSink(const LogSink&) = delete;
  LogSink& operator=(const LogSink&) = delete;

  // Appends to path from now on; a Failure when it cannot be opened.
  void openFile(const std::string& path);
  void setVerbose(bool verbose);
  bool hasFile() const { return !m_sFilePath.empty(); }
  const std::string& filePath() const { return m_sFilePath; }

  BasicSnapInfo& snapInfo() { return *m_pSnapInfo; }

 private:
  std::string m_sFilePath;
  std::unique_ptr<BasicSnapInfo> m_pSnapInfo;
};

// The handler's error text and code after a failed operation; when the handler set no text, the
// last error the library logged.
std::string handlerError(RaidcomCommandHandler& handler);

// One raidcom session on the array for the life of the object: construction logs in (or joins
// the session that other processes of this host hold), destruction releases the resource group
// lock when it is held and logs out when this is the last session.
class ArraySession {
 public:
  // UsageError when an option the session needs is missing, Failure when the library cannot
  // open the session.
  ArraySession(LogSink& log, const ArrayOptions& options);
  ~ArraySession();
  ArraySession(const ArraySession&) = delete;
  ArraySession& operator=(const ArraySession&) = delete;

  RaidcomCommandHandler& handler();
  const std::string& serial() const { return m_sSerial; }
  // Failure with the library's error text when rc is not 0.
  void require(int rc, const std::string& what);
  // The names of the array's resource groups.
  std::vector<std::string> resourceGroupNames();
  // The sessions of this host on the array, this one included.
  int loginCount();
  // Keeps the resource group locked when the session ends, for the other sessions of the host.
  void leaveResourceLock();
  // Leaves the session counted and the resource group lock held, for whoever gives them back
  // later (hdsctl recover): the session's end then calls nothing on the array.
  void abandon();
  // Ends the session now: releases the resource group lock when it is held and logs out when
  // this is the last session. A Failure when either fails; the destructor could only log it.
  void close();

 private:
  std::unique_ptr<RaidcomCommandHandler> m_pHandler;
  std::string m_sSerial;
};

// The number of a host group of port given by its number or name (names compare without regard
// to case, as the library compares them); "" when the port has no such group.
std::string lookUpHostGroup(ArraySession& session, const std::string& port,
                            const std::string& numberOrName);

// The array-level CCI directory setting, when --cci-dir or HDSCTL_CCI_DIR gives one.
void applyCciDirOption(LogSink& log, const ArrayOptions& options);

}  // namespace hdsctl
