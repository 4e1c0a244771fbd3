#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "hds/common/HDSExport.h"
#include "hds/platform/SnapInfo.h"

// What the caller tells a handler about the array and the job.
struct HDSCLIInitParam {
  std::string serialNumber;   // array serial number
  std::string horcmInstance;  // HORCM instance ("" = none; raidcom: custom instance)
  int64_t jobId = 0;          // carried for the derived handlers
  int executionMode = 0;      // 2 = no host name needed
  std::string copyGroupName;  // copy group the pair handler works on
  int operationType = 0;      // 1 = prepare step, 2 = create step
  std::string userName;
  std::string password;
  std::string resourceGroupName;
  bool isVirtualStorage = false;
  std::string virtualStorageSerial;
  std::vector<std::string> commandDevices;
};

// The base of the two command handlers: finds the CCI tools, the host name, the CCI version and
// the temporary directory, runs CCI commands and raidcom scripts with a time-out and judges them,
// starts and stops HORCM instances and finds the array's command device. Operations return 0 for
// success and 1 for failure; on failure the error code and text say why.
class HDS_API CommandHandler {
 public:
  CommandHandler(VTSO::SnapInfo& snapInfo, const HDSCLIInitParam& param);
  virtual ~CommandHandler();
  CommandHandler(const CommandHandler&) = delete;
  CommandHandler& operator=(const CommandHandler&) = delete;

  // 0 when the handler is ready. A handler whose initialisation once failed stays unusable.
  int initialize();

  void getErrorCodeAndString(int& errorCode, std::string& errorString);
  void setErrorCodeAndString(int errorCode, const std::string& errorString);

  // Runs CCI directory + commandName + " " + arguments through the shell. The output and exit
  // code are filled also when 1 is returned: a non-zero exit is often a normal answer.
  int executeCommand(const std::string& commandName, const std::string& arguments,
                     std::string& output, int& exitCode);
  // Writes the content to a new script file and runs it by its path. The file is removed after a
  // clean run and kept for diagnosis after any failure.
  int executeScriptFile(const std::string& scriptContent, std::string& output, int& exitCode);
  // True when the output carries a raidcom error or warning; errorPart is the output from it on.
  bool didTheCommandFail(const std::string& output, std::string& errorPart);
  int deleteCommandFiles(const std::string& filePath);
  // Keeps a copy of the file under a new response-file name in the temporary directory.
  int saveFileAsLog(const std::string& filePath);
  // Unique names in the temporary directory ("" if the directory name is too long for one).
  std::string formOutputFileName();
  std::string formInputScriptFileName();

  // Reads the next blank-separated value at or after position; blanks are the only separators.
  bool getNextValueFromOutput(const std::string& output, unsigned long& position,
                              std::string& value, const std::string& module);
  // Scanners over a zero-terminated text; white space of any kind separates columns.
  static void skipSpace(const char*& p);
  static void skipSpace(char*& p);
  static std::string skipToSpace(const char*& p);
  static std::string skipToSpace(char*& p);
  // Leaves p at the first character of column columns + 1 (counting from 1).
  static bool skipColumns(const char*& p, int columns);
  static bool skipColumns(char*& p, int columns);

  // The installed CCI version ("01-29-03/05"); raidqry runs once per process.
  int getCCIVersionInstalled(std::string& version);
  // Whether the newer form of the in-system copy pair commands may be used (CCI 01-29-03/05 on).
  bool isHTISupported();
  bool isSISupported();
  // Whether "raidcom get resource -key opt" prints the model column (CCI 01-32 on).
  bool isResourceKeyOptionSupported();
  // Whether the array's microcode supports cascaded snapshots (80-05-01/00 on).
  bool isMultiLevelSnapSupported(const std::string& microcodeVersion);

  // A null instance means the handler's own.
  int horcmStart(const char* instance = nullptr);
  int horcmShutdown(const char* instance = nullptr);
  // 0 when a command device of the array is visible; its name is added to m_oCommandDevices.
  int CheckIfCommandDeviceExist();

  // Path of the configuration file of a HORCM instance.
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
