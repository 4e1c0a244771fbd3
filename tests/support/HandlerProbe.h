#pragma once

#include <memory>
#include <string>

#include "hds/handler/CommandHandler.h"
#include "tests/support/FakeTools.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/TestEnv.h"

namespace hdstest {

// A CommandHandler whose state tests may read.
class HandlerProbe : public CommandHandler {
 public:
  using CommandHandler::CommandHandler;
  bool keepOutput() const { return m_bKeepCmdOutput; }
  int timeout() const { return m_iCommandTimeout; }
  int ready() const { return m_iReady; }
  int errorCode() const { return m_iErrorCode; }
  const std::string& errorText() const { return m_sErrorString; }
  const std::vector<std::string>& commandDevices() const { return m_oCommandDevices; }
  static const std::string& cciPath() { return m_sCCIInstallPath; }
  static const std::string& hostName() { return m_sLocalHostName; }
  static const std::string& tempDir() { return m_sVTTempDir; }
  static const std::string& cciVersion() { return m_sCCIVersion; }
};

// A temporary environment with fake CCI tools (raidqry answering with a version) in its CCI
// directory, which the client settings point the handlers at.
class HandlerEnv {
 public:
  HandlerEnv() : tools(env.cciDir()) {
    tools.addRaidqry();
    settings("");
  }
  // Client settings: the CCI directory and host name, followed by extra INI text.
  void settings(const std::string& extra) {
    env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + env.cciDir() +
                      "\nsClientHostName=testhost\n" + extra);
  }
  HDSCLIInitParam param(const std::string& instance = "3300") const {
    HDSCLIInitParam p;
    p.serialNumber = "412345";
    p.horcmInstance = instance;
    return p;
  }
  std::unique_ptr<HandlerProbe> handler(const std::string& instance = "3300") {
    return std::make_unique<HandlerProbe>(log, param(instance));
  }

  TestEnv env;
  RecordingSnapInfo log;
  FakeTools tools;
};

}  // namespace hdstest
