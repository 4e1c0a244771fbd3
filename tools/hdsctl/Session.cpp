#include "tools/hdsctl/Session.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "tools/hdsctl/Output.h"

namespace hdsctl {

void addArrayOptions(CLI::App* command, ArrayOptions& options) {
  auto* group = command->add_option_group(
      "array", "How to reach the array; each option can also be set by its HDSCTL_ variable");
  group->add_option("--serial", options.serial, "Array serial number")->envname("HDSCTL_SERIAL");
  group->add_option("--user", options.user, "Array user for the raidcom session")
      ->envname("HDSCTL_USER");
  group
      ->add_option("--password", options.password,
                   "That user's password (HDSCTL_PASSWORD keeps it out of the process list)")
      ->envname("HDSCTL_PASSWORD");
  group
      ->add_option("--cmddev", options.commandDevices,
                   "Command device of the array on this host (repeat, or comma-separated)")
      ->envname("HDSCTL_CMDDEV")
      ->delimiter(',');
  group
      ->add_option("--horcm-instance", options.horcmInstance,
                   "Use this HORCM instance instead of allocating one")
      ->envname("HDSCTL_HORCM_INSTANCE");
  group->add_option("--resource-group", options.resourceGroup, "Resource group to work in")
      ->envname("HDSCTL_RESOURCE_GROUP");
  group
      ->add_option("--cci-dir", options.cciDir,
                   "CCI program directory (the client setting sVTHDSHorcmDirectory wins)")
      ->envname("HDSCTL_CCI_DIR");
}

LogSink::LogSink() : m_pSnapInfo(new BasicSnapInfo()) {}

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
  if (text.empty()) return "the library reported error " + std::to_string(code);
  return text + " (error " + std::to_string(code) + ")";
}

void applyCciDirOption(LogSink& log, const ArrayOptions& options) {
  if (!options.cciDir.empty()) {
    log.snapInfo().setConfigString(SMCONFIG_NAME_HORCM_INSTALLATION_PATH, options.cciDir);
  }
}

// The handler with its end made explicit, so that a failed logout can be reported, and with its
// command suffix kept well formed.
class SessionHandler : public RaidcomCommandHandler {
 public:
  using RaidcomCommandHandler::RaidcomCommandHandler;

  // A failed resource group query leaves the suffix at "-IM<instance>", without the serial and
  // without the blank that every later argument part needs before it, so a clean-up after such
  // a failure would send malformed commands. The session puts it back before every use.
  void rememberInstanceArgs() { m_sReadyInstanceArgs = m_sInstanceArgs; }
  void restoreInstanceArgs() {
    if (!m_sReadyInstanceArgs.empty()) m_sInstanceArgs = m_sReadyInstanceArgs;
  }

  int end() {
    if (m_bResourceGroupLocked && unlockResource() != 0) return 1;
    if (!m_bLoggedIn) return 0;
    // Whatever the logout gives, the session is no longer counted; the destructor must not log
    // out a second time.
    m_bLoggedIn = false;
    return performLogout();
  }

 private:
  std::string m_sReadyInstanceArgs;
};

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
  m_pHandler.reset(new SessionHandler(log.snapInfo(), param));
  int code = 0;
  std::string text;
  m_pHandler->getErrorCodeAndString(code, text);
  if (code != 0) {
    std::string error = handlerError(*m_pHandler);
    m_pHandler.reset();
    throw Failure("cannot open a raidcom session on array " + options.serial + ": " + error);
  }
  m_pHandler->rememberInstanceArgs();
}

ArraySession::~ArraySession() = default;

RaidcomCommandHandler& ArraySession::handler() {
  m_pHandler->restoreInstanceArgs();
  return *m_pHandler;
}

void ArraySession::close() {
  m_pHandler->restoreInstanceArgs();
  require(m_pHandler->end(), "cannot close the session on array " + m_sSerial);
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
