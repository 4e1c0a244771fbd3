#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hds/handler/CommandHandler.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/TestEnv.h"

namespace hdstest {

// A directory of executable shell scripts named like the CCI tools: each records its arguments,
// prints fixed text on stdout and stderr and exits with a fixed code.
class FakeTools {
 public:
  explicit FakeTools(std::string dir);  // dir must exist
  void add(const std::string& name, const std::string& stdoutText, int exitCode = 0,
           const std::string& stderrText = "");
  // raidqry printing its help page with this version on the "Ver&Rev:" line.
  void addRaidqry(const std::string& version = "01-29-03/05");
  // One entry per call, each argument in brackets: "[-x][findcmddev][0-255]".
  std::vector<std::string> argv(const std::string& name) const;
  int calls(const std::string& name) const { return static_cast<int>(argv(name).size()); }

 private:
  std::string m_dir;
};

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
  static const std::string& cciVersion() { return m_sCCIVersion; }
};

// A temporary environment whose client settings point handlers at fake tools (raidqry included)
// and give the host name "testhost"; array serial 412345, HORCM instance 3300.
struct HandlerEnv {
  HandlerEnv() : tools(env.cciDir()) {
    tools.addRaidqry();
    settings("");
  }
  void settings(const std::string& extraIni) {
    env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + env.cciDir() +
                      "\nsClientHostName=testhost\n" + extraIni);
  }
  std::unique_ptr<HandlerProbe> handler(const std::string& instance = "3300", int mode = 0) {
    HDSCLIInitParam param;
    param.serialNumber = "412345";
    param.horcmInstance = instance;
    param.executionMode = mode;
    return std::make_unique<HandlerProbe>(log, param);
  }
  std::vector<std::string> tempFiles(const std::string& suffix) const;

  TestEnv env;
  RecordingSnapInfo log;
  FakeTools tools;
};

// Runs body in a forked child and expects it to end without a test failure. Handlers settle the
// CCI directory, host name, version and temporary directory once per process, so every scenario
// that constructs one starts from a fresh process this way.
void expectInChild(const std::function<void()>& body);

}  // namespace hdstest
