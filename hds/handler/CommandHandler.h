#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hds/common/HDSExport.h"
#include "hds/platform/SnapInfo.h"

// What the caller tells a handler about the array and the job. Names and numbers here end up in
// command lines and HORCM files: the constructor refuses what no quoting makes safe.
struct HDSCLIInitParam {
  std::string serialNumber;   // array serial number
  std::string horcmInstance;  // digits or ""; the raidcom handler then allocates its own
  int64_t jobId = 0;          // carried for the derived handlers
  int executionMode = 0;      // 2 = no host name needed
  std::string copyGroupName;  // copy group the pair handler works on; no control characters
  int operationType = 0;      // 1 = prepare step, 2 = create step
  std::string userName;
  std::string password;
  std::string resourceGroupName;
  bool isVirtualStorage = false;
  std::string virtualStorageSerial;
  std::vector<std::string> commandDevices;  // no control characters
};

// The base of the two command handlers: finds the CCI tools, the host name, the CCI version and
// the temporary directory, runs CCI commands and raidcom scripts with a time-out and judges them,
// starts and stops HORCM instances and finds the array's command device.
//
// Thread safety: a handler is not safe to share between threads; separate handlers may run in
// many threads and processes at once, the process-wide values below being set once under a mutex
// and the host-wide state (file names, HORCM files) guarded by named locks.
//
// Operations return 0 for success and 1 for failure. The error code and text describe the last
// failure: executeCommand clears them before each tool it runs, so after a success they are clear
// unless said otherwise. Every tool or script run may block for the command time-out
// ("nVTHDSCCICommandTimeoutInSec" in "~iHarbor", default 300 s, never below 30 s); a run that
// outlasts it has its process group killed.
class HDS_API CommandHandler {
 public:
  // Reads the command time-out and refuses unsafe input (error 62600, see refuseUnlessDigits):
  // a refused handler never becomes ready. Otherwise it initializes.
  CommandHandler(VTSO::SnapInfo& snapInfo, const HDSCLIInitParam& param);
  virtual ~CommandHandler();
  CommandHandler(const CommandHandler&) = delete;
  CommandHandler& operator=(const CommandHandler&) = delete;

  // 0 when the handler is ready. A handler whose initialisation once failed stays unusable. Each
  // call checks the settings file; the first handlers of the process find what is still unknown:
  // the CCI directory (the client setting "sVTHDSHorcmDirectory" over the array-level one, else
  // /HORCM/usr/bin/), the host name (not in execution mode 2), the CCI version (one raidqry) and
  // the temporary directory. An unusable settings file or a missing CCI directory give 62601 and
  // a text; a host name or temporary directory that cannot be found is only logged, and the error
  // code stays as it was.
  int initialize();

  void getErrorCodeAndString(int& errorCode, std::string& errorString);
  void setErrorCodeAndString(int errorCode, const std::string& errorString);

  // Runs CCI directory + commandName + " " + arguments through "/bin/sh -c"; callers quote every
  // value. Clears output, exit code and the error fields first; 0 only for exit status 0. On 1
  // the error is 62601 with a text naming the loggable command line, and output and exit code
  // hold the tool's answer (stdout, then stderr) since a non-zero exit is often a normal answer.
  // The exit code stays 0 when the tool could not be started, timed out or its end was not seen.
  int executeCommand(const std::string& commandName, const std::string& arguments,
                     std::string& output, int& exitCode);
  // Writes the content to a new script file (mode 0777, temporary directory) and runs it by its
  // path within one command time-out. 1 when the script is empty (error fields untouched); 1 with
  // 62601 and a text naming the file when it cannot be made (four more tries 2 s apart) or
  // written; 1 with 62601 and "Failed to execute CCI command." when the run fails or times out,
  // exits non-zero (the exit status of its last line) or prints a raidcom error or warning on
  // stdout or stderr (then appended to the output). The error fields are not cleared on success.
  // The file is removed after a clean run and kept for diagnosis after any failure.
  int executeScriptFile(const std::string& scriptContent, std::string& output, int& exitCode);
  // True when the output holds "raidcom: [EW_" or "raidcom: [EX_"; errorPart (untouched when
  // false) is the output from the first warning on, else from the first error on.
  bool didTheCommandFail(const std::string& output, std::string& errorPart);
  // Removes a script or response file unless command output is kept ("nVTHDSKeepCmdOutput", or
  // command logging of the array). 1 only when the file did not exist; a file that cannot be
  // removed for lack of rights is passed over with 0.
  int deleteCommandFiles(const std::string& filePath);
  // Keeps a copy of the file under a new response-file name in the temporary directory; an empty
  // path or file is no failure and makes no copy. On 1 only the error text is set.
  int saveFileAsLog(const std::string& filePath);
  // Unique names in the temporary directory, <pid>_<tid>_<seconds>_<n>_resp.log or _script; ""
  // when the directory name is too long for one. Each waits for a host-wide named lock.
  std::string formOutputFileName();
  std::string formInputScriptFileName();

  // Reads the next blank-separated value at or after position (tabs and newlines are part of a
  // value) and moves position just past it; the value is empty when only blanks are left. false,
  // logged under module, when position is at or past the end.
  bool getNextValueFromOutput(const std::string& output, unsigned long& position,
                              std::string& value, const std::string& module);
  // Scanners over a zero-terminated text; white space of any kind separates columns.
  static void skipSpace(const char*& p);
  static void skipSpace(char*& p);
  static std::string skipToSpace(const char*& p);
  static std::string skipToSpace(char*& p);
  // Leaves p at the first character of column columns + 1 (counting from 1). Always true.
  static bool skipColumns(const char*& p, int columns);
  static bool skipColumns(char*& p, int columns);

  // The installed CCI version ("01-29-03/05"): "raidqry -h" runs once per process and the answer
  // is kept. 1, with 62601, when raidqry fails or prints no "Ver&Rev"; a label followed by blanks
  // only gives 0 and an empty version, which the capability checks below take as too old.
  int getCCIVersionInstalled(std::string& version);
  // Whether the newer form of the in-system copy pair commands may be used: CCI 01-29-03/05 or
  // later, read with the format in "sVTHDSCCIVersionFormat" when that is set.
  bool isHTISupported();
  bool isSISupported();
  // Whether "raidcom get resource -key opt" prints the model column and "get host_grp" takes
  // -resource: CCI minor version (the two characters after "01-") 32 or later.
  bool isResourceKeyOptionSupported();
  // Whether the array's microcode supports cascaded snapshots (80-05-01/00 on). A version that
  // is neither dashed nor dotted needs "sVTHDSCCIVersionFormat"; without it: false, with 62601 and
  // a text (the only answer that sets the error fields).
  bool isMultiLevelSnapSupported(const std::string& microcodeVersion);

  // A null instance means the handler's own; without any, 1 with the error fields untouched.
  // Start: 0 when horcmstart.sh reports success or, with exit status 1, that the instance is
  // already running (error fields cleared). On failure the code is 62600 when the script failed
  // and 62601 when it ran without reporting success, and the instance's HORCM file is copied
  // to a response file for diagnosis.
  int horcmStart(const char* instance = nullptr);
  // 0 when horcmshutdown.sh exits 0; otherwise 1 with the command's error.
  int horcmShutdown(const char* instance = nullptr);
  // Asks "raidscan -x findcmddev 0-<n>" (n: "nVTHDSFindCmdDevMaxDeviceNumber", default 255).
  // 0 when the answer names the array's serial; the device named after it (\\.\CMD-<serial>:...)
  // is appended to m_oCommandDevices when there is one. Otherwise 1 with 62601 and a text.
  int CheckIfCommandDeviceExist();

  // <HORCM directory>horcm<instance>.conf (VTPI_Base::getHorcmDirectory()).
  static std::string horcmFilePath(const std::string& instance);
  // The instance whose configuration file has this name ("horcm3532.conf" gives "3532"); "" for
  // any other name.
  static std::string horcmFileInstance(const std::string& fileName);
  // The CCI directory the handlers run the tools from: the client setting sVTHDSHorcmDirectory
  // when set, else the array-level snap configuration of snapInfo, else the default. Whether it
  // exists is not checked; the handler adds the final "/" itself.
  static std::string cciDirectory(VTSO::SnapInfo& snapInfo);
  // The option that directs a CCI command to a HORCM instance: " -IM" + instance.
  static std::string formInstanceOption(const std::string& instance);

 protected:
  // The shape of a failure: logs the error text at level 2, sets it with the code as the
  // handler's error and returns 1.
  int fail(int errorCode, const std::string& errorText);
  // The same where the log line says more than, or other than, the error text.
  int fail(int errorCode, const std::string& errorText, const char* logFormat, ...)
      __attribute__((format(printf, 4, 5)));

  // The CCI directory as the start of a shell command line, quoted when it needs it.
  static std::string shellCCIInstallPath();
  // Values that no quoting makes safe are refused before any command runs or file is written:
  // a serial number or instance that is not all digits, a control character in a text that is
  // written as one value of a HORCM file. Both set error code 62600 and a text that names the
  // field, and return true when the value is refused.
  bool refuseUnlessDigits(const char* field, const std::string& value);
  bool refuseControlCharacters(const char* field, const std::string& value);

  bool m_bKeepCmdOutput;
  std::string m_sSerialNumber;
  std::string m_sHorcmInstance;
  std::string m_sCustomHorcmInstance;  // empty here; the raidcom handler keeps its own instance
  VTSO::SnapInfo* m_pSnapInfo;         // not owned
  int m_iReady;
  int m_iErrorCode;
  std::string m_sErrorString;
  int64_t m_iJobId;
  int m_iExecutionMode;
  int m_iCommandTimeout;  // seconds
  std::vector<std::string> m_oCommandDevices;
  std::string m_sCopyGroupName;
  int m_iOperationType;  // carried for the raidcom handler

  // One value per process, set by the first handler that finds it and never cleared.
  static std::string m_sCCIInstallPath;  // ends in "/"
  static std::string m_sLocalHostName;
  static std::string m_sVTTempDir;
  static std::string m_sCCIVersion;

 private:
  int initializeProcessWide();
  bool refuseUnsafeInput(const HDSCLIInitParam& param);
};
