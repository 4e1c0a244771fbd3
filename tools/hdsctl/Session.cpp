#include "tools/hdsctl/Session.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "tools/hdsctl/Output.h"

namespace hdsctl {

void addArrayOptions(CLI::App* command, ArrayOptions& options) {
  // No CLI11 environment names: CLI11 fills them in for every subcommand that shares these
  // fields, so a variable would overwrite what the command line gave (see resolveArrayOptions).
  auto* group = command->add_option_group(
      "array", "How to reach the array; each option beats its HDSCTL_ variable");
  group->add_option("--serial", options.serial, "Array serial number (HDSCTL_SERIAL)");
  group->add_option("--user", options.user, "Array user for the raidcom session (HDSCTL_USER)");
  group->add_option("--password", options.password,
                    "That user's password (HDSCTL_PASSWORD keeps it out of the process list)");
  group
      ->add_option("--cmddev", options.commandDevices,
                   "Command device of the array on this host (repeat, or comma-separated; "
                   "HDSCTL_CMDDEV)")
      ->delimiter(',');
  group->add_option("--horcm-instance", options.horcmInstance,
                    "Use this HORCM instance instead of allocating one (HDSCTL_HORCM_INSTANCE)");
  group->add_option("--resource-group", options.resourceGroup,
                    "Resource group to work in (HDSCTL_RESOURCE_GROUP)");
  group->add_option("--cci-dir", options.cciDir,
                    "CCI program directory (HDSCTL_CCI_DIR; the client setting "
                    "sVTHDSHorcmDirectory wins)");
}

ArrayOptions takeArrayEnvironment() {
  auto text = [](const char* name) {
    const char* value = getenv(name);
    return std::string(value == nullptr ? "" : value);
  };
  ArrayOptions options;
  options.serial = text("HDSCTL_SERIAL");
  options.user = text("HDSCTL_USER");
  options.password = text("HDSCTL_PASSWORD");
  options.horcmInstance = text("HDSCTL_HORCM_INSTANCE");
  options.resourceGroup = text("HDSCTL_RESOURCE_GROUP");
  options.cciDir = text("HDSCTL_CCI_DIR");
  std::string devices = text("HDSCTL_CMDDEV");
  for (size_t start = 0; start < devices.size();) {
    size_t comma = std::min(devices.find(',', start), devices.size());
    if (comma > start) options.commandDevices.push_back(devices.substr(start, comma - start));
    start = comma + 1;
  }
  // Every CCI tool and script the library starts inherits this environment.
  unsetenv("HDSCTL_PASSWORD");
  return options;
}

void mergeArrayOptions(ArrayOptions& into, const ArrayOptions& over) {
  auto take = [](std::string& field, const std::string& given) {
    if (!given.empty()) field = given;
  };
  take(into.serial, over.serial);
  take(into.user, over.user);
  take(into.password, over.password);
  take(into.horcmInstance, over.horcmInstance);
  take(into.resourceGroup, over.resourceGroup);
  take(into.cciDir, over.cciDir);
  if (!over.commandDevices.empty()) into.commandDevices = over.commandDevices;
}

ArrayOptions resolveArrayOptions(const ArrayOptions& environment, const ArrayOptions& jobFile,
                                 const ArrayOptions& commandLine) {
  ArrayOptions options = environment;
  mergeArrayOptions(options, jobFile);
  mergeArrayOptions(options, commandLine);
  return options;
}

namespace {

// The text of the last error line (level 2 and above) of the library's log. Some failures of
// the library log their reason but set no error text; a message that only said "error 0"
// would leave the operator nothing to act on.
std::string& lastLoggedError() {
  static std::string text;
  return text;
}

// The log's sink that also keeps the text of the last error (level 2 and above).
class KeepingSnapInfo : public BasicSnapInfo {
 public:
  void vlog(int level, const char* module, const char* format, va_list args) override {
    if (level >= 2) {
      va_list copy;
      va_copy(copy, args);
      char text[2048];
      if (vsnprintf(text, sizeof(text), format, copy) >= 0) lastLoggedError() = text;
      va_end(copy);
    }
    BasicSnapInfo::vlog(level, module, format, args);
  }
};

}  // namespace

LogSink::LogSink() : m_pSnapInfo(new KeepingSnapInfo()) {}

LogSink::~LogSink() = default;

void LogSink::openFile(const std::string& path) {
  if (!m_pSnapInfo->openLogFile(path)) {
    throw Failure("cannot open the log file " + path + ": " + strerror(errno));
  }
  m_sFilePath = path;
}

void LogSink::setVerbose(bool verbose) { m_pSnapInfo->setStream(verbose ? &std::cerr : nullptr); }

std::string handlerError(RaidcomCommandHandler& handler) {
  int code = 0;
  std::string text;
  handler.getErrorCodeAndString(code, text);
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  if (text.empty() && !lastLoggedError().empty())
    text = "the library logged \"" + lastLoggedError() + "\"";
  if (text.empty()) {
    return code == 0 ? "the library gave no reason (its log, with -v or --log FILE, may)"
                     : "the library reported error " + std::to_string(code);
  }
  return code == 0 ? text : text + " (error " + std::to_string(code) + ")";
}

void applyCciDirOption(LogSink& log, const ArrayOptions& options) {
  if (!options.cciDir.empty()) {
    log.snapInfo().setConfigString(SMCONFIG_NAME_HORCM_INSTALLATION_PATH, options.cciDir);
  }
}

ArraySession::ArraySession(LogSink& log, const ArrayOptions& options) : m_sSerial(options.serial) {
  if (options.serial.empty()) throw UsageError("--serial (or HDSCTL_SERIAL) is required");
  if (options.user.empty()) throw UsageError("--user (or HDSCTL_USER) is required");
  if (options.password.empty()) throw UsageError("--password (or HDSCTL_PASSWORD) is required");
  if (options.commandDevices.empty() && options.horcmInstance.empty()) {
    throw UsageError("--cmddev or --horcm-instance (or HDSCTL_CMDDEV) is required");
  }
  applyCciDirOption(log, options);
  HDSCLIInitParam param;
  param.serialNumber = options.serial;
  param.horcmInstance = options.horcmInstance;
  param.jobId = getpid();
  param.userName = options.user;
  param.password = options.password;
  param.resourceGroupName = options.resourceGroup;
  param.commandDevices = options.commandDevices;
  m_pHandler.reset(new RaidcomCommandHandler(log.snapInfo(), param));
  int code = 0;
  std::string text;
  m_pHandler->getErrorCodeAndString(code, text);
  if (code != 0) {
    std::string error = handlerError(*m_pHandler);
    m_pHandler.reset();
    throw Failure("cannot open a raidcom session on array " + options.serial + ": " + error);
  }
  // The library waits up to 50 rounds of 5 s for a resource group it does not find; a misspelt
  // name fails here at once instead. The default group exists on every array.
  if (!options.resourceGroup.empty()) {
    std::vector<std::string> names = resourceGroupNames();
    if (std::find(names.begin(), names.end(), options.resourceGroup) == names.end()) {
      m_pHandler.reset();
      throw Failure("array " + m_sSerial + " has no resource group " + options.resourceGroup +
                    "; it has " + joinWords(names, ", "));
    }
  }
}

std::vector<std::string> ArraySession::resourceGroupNames() {
  std::map<std::string, ResourceGroupStatus> groups;
  require(handler().getResourceGroupInfo(groups, false),
          "cannot read the resource groups of array " + m_sSerial);
  std::vector<std::string> names;
  names.reserve(groups.size());
  for (const auto& entry : groups) names.push_back(entry.first);
  return names;
}

int ArraySession::loginCount() {
  int count = handler().getLoginCount();
  if (count < 0) {
    throw Failure("cannot read the login count of array " + m_sSerial +
                  " in the settings store (see hdsctl check)");
  }
  return count;
}

void ArraySession::leaveResourceLock() { m_pHandler->leaveResourceLock(); }

void ArraySession::abandon() { m_pHandler->abandonSession(); }

ArraySession::~ArraySession() = default;

RaidcomCommandHandler& ArraySession::handler() { return *m_pHandler; }

void ArraySession::close() {
  require(m_pHandler->endSession(), "cannot close the session on array " + m_sSerial);
}

void ArraySession::require(int rc, const std::string& what) {
  if (rc != 0) throw Failure(what + ": " + handlerError(*m_pHandler));
}

std::string lookUpHostGroup(ArraySession& session, const std::string& port,
                            const std::string& numberOrName) {
  hdsPort_t rec;
  rec.portName = port;
  session.require(session.handler().getPortHostGroupList(port, "", rec, false, "", false),
                  "cannot list the host groups of port " + port);
  auto upper = [](std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
  };
  for (const hdsHostGroup_t& hg : rec.hostGroups) {
    if (hg.hostGroupId == numberOrName || upper(hg.hostGroupName) == upper(numberOrName)) {
      return hg.hostGroupId;
    }
  }
  return "";
}

}  // namespace hdsctl
