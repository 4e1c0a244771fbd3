// Handler construction and initialisation against fake CCI tools. Every scenario runs in a fresh
// child process: the CCI directory, host name, version and temporary directory are settled once
// per process.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/support/HandlerProbe.h"

namespace {

using hdstest::expectInChild;
using hdstest::HandlerEnv;
using hdstest::HandlerProbe;

class HandlerInit : public ::testing::Test {
 protected:
  HandlerEnv h;
};

TEST_F(HandlerInit, ReadyHandlerSettlesTheProcessWideValues) {
  expectInChild([&] {
    auto handler = h.handler();
    EXPECT_EQ(handler->ready(), 1);
    EXPECT_EQ(handler->errorCode(), 0);
    EXPECT_EQ(HandlerProbe::cciPath(), h.env.cciDir());
    EXPECT_EQ(HandlerProbe::hostName(), "testhost");
    EXPECT_EQ(HandlerProbe::tempDir(), h.env.tempDir());
    EXPECT_EQ(HandlerProbe::cciVersion(), "01-29-03/05");
    EXPECT_TRUE(h.log.contains("Running CCI commands from [" + h.env.cciDir() + "]", 0));
    EXPECT_TRUE(h.log.contains("Using hostname [testhost] for client [testclient].", 2));
    EXPECT_TRUE(h.log.contains("CCI version [01-29-03/05] is installed.", 0));
    // raidqry is run as the CCI directory, raidqry, two blanks, -h and a blank.
    EXPECT_TRUE(h.log.contains("Command [" + h.env.cciDir() + "raidqry  -h ] succeeded", 0))
        << h.log.dump();
  });
}

TEST_F(HandlerInit, VersionIsAskedOncePerProcessEvenFromManyThreads) {
  h.tools.addRaidqry("01-39-03/03");
  expectInChild([&] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) {
      threads.emplace_back([&] { EXPECT_EQ(h.handler()->ready(), 1); });
    }
    for (auto& t : threads) t.join();
    auto later = h.handler();
    std::string version;
    EXPECT_EQ(later->getCCIVersionInstalled(version), 0);
    EXPECT_EQ(version, "01-39-03/03");
    EXPECT_EQ(h.tools.calls("raidqry"), 1);
    EXPECT_TRUE(h.log.contains("Got CCI version [01-39-03/03] from cache.", 0));
  });
  EXPECT_EQ(h.tools.argv("raidqry"), std::vector<std::string>{"[-h]"});
}

TEST_F(HandlerInit, VersionFailures) {
  struct Case {
    std::string output;
    int exit;
    std::string text;
  };
  const std::string noVersion =
      "Failed to get version of CCI command installed. Please check output of 'raidqry -h' "
      "command";
  const std::vector<Case> cases = {
      {"", 0, noVersion},
      {"Model  : RAID-Manager\nUsage  : raidqry\n", 0, noVersion},
      {"Ver&Rev:", 0, noVersion},
      {"Ver&Rev: 01-29-03/05\n", 1,
       "Command '" + h.env.cciDir() + "raidqry  -h  returned exit code [1]."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.output);
    h.tools.add("raidqry", c.output, c.exit);
    expectInChild([&] {
      auto handler = h.handler();
      EXPECT_EQ(handler->ready(), 0);
      EXPECT_EQ(handler->errorCode(), 62601);
      EXPECT_EQ(handler->errorText(), c.text);
      EXPECT_TRUE(h.log.contains("Failed to get CCI version installed.", 2));
      EXPECT_EQ(HandlerProbe::cciVersion(), "");
      // An unusable handler stays so, quietly.
      h.log.clear();
      EXPECT_EQ(handler->initialize(), 1);
      EXPECT_TRUE(h.log.lines().empty());
    });
  }
}

TEST_F(HandlerInit, MissingCciDirectory) {
  const std::string expectedText = [](const std::string& dir) {
    return "Hitachi CCI CLI not found in " + dir +
           ". Ensure that the Hitachi CCI CLI is installed on this client. If it is already "
           "installed in other folder, please set path in snap configuration [HORCM installation "
           "home directory path (CCI engines)] for Hitachi storage array [412345] in array "
           "management either at array level or at client level. Please refer to Vantrel "
           "documentation on Hitachi storage array for more details.";
  }(h.env.root() + "/nocci");
  h.env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + h.env.root() + "/nocci\n");
  expectInChild([&] {
    auto handler = h.handler();
    EXPECT_EQ(handler->ready(), 0);
    EXPECT_EQ(handler->errorCode(), 62601);
    EXPECT_EQ(handler->errorText(), expectedText);
    EXPECT_TRUE(h.log.contains("Hitachi CCI CLI not found in [" + h.env.root() +
                                   "/nocci]. Ensure that the Hitachi CCI CLI is installed on this "
                                   "client.",
                               2));
    EXPECT_EQ(HandlerProbe::cciPath(), "");
  });
  // With neither setting the production directory is looked for.
  h.env.writeSettings("");
  expectInChild([&] {
    auto handler = h.handler();
    EXPECT_NE(handler->errorText().find("not found in /HORCM/usr/bin/."), std::string::npos);
  });
}

TEST_F(HandlerInit, ClientDirectoryWinsAndGetsItsSlash) {
  const std::string cci = h.env.cciDir();
  h.log.setConfigString(SMCONFIG_NAME_HORCM_INSTALLATION_PATH, h.env.root() + "/array-level");
  h.env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + cci.substr(0, cci.size() - 1) +
                      "\nsClientHostName=testhost\n");
  expectInChild([&] {
    auto handler = h.handler();
    EXPECT_EQ(handler->ready(), 1) << handler->errorText();
    EXPECT_EQ(HandlerProbe::cciPath(), cci);
  });
  // Without the client setting the array-level one is used.
  h.env.writeSettings("[iHarbor]\nsClientHostName=testhost\n");
  h.log.setConfigString(SMCONFIG_NAME_HORCM_INSTALLATION_PATH, cci);
  expectInChild([&] {
    EXPECT_EQ(h.handler()->ready(), 1);
    EXPECT_EQ(HandlerProbe::cciPath(), cci);
  });
}

TEST_F(HandlerInit, HostName) {
  h.env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + h.env.cciDir() + "\n");
  // Execution mode 2 needs no host name and does not look for one.
  expectInChild([&] {
    HDSCLIInitParam param = h.param();
    param.executionMode = 2;
    HandlerProbe handler(h.log, param);
    EXPECT_EQ(handler.ready(), 1);
    EXPECT_EQ(HandlerProbe::hostName(), "");
    EXPECT_EQ(h.log.count("hostname"), 0u) << h.log.dump();
  });
  // Not in the settings: the network host name.
  expectInChild([&] {
    EXPECT_EQ(h.handler()->ready(), 1);
    EXPECT_TRUE(
        h.log.contains("Failed to read hostname for client [testclient] from registry.", 2));
    EXPECT_NE(HandlerProbe::hostName(), "");
  });
}

TEST_F(HandlerInit, NoTemporaryDirectory) {
  hdstest::writeFile(h.env.root() + "/file", "");
  h.env.setEnv("HDS_TEMP_DIR", (h.env.root() + "/file/tmp").c_str());
  expectInChild([&] {
    auto handler = h.handler();
    EXPECT_EQ(handler->ready(), 0);
    EXPECT_EQ(handler->errorCode(), 0);
    EXPECT_TRUE(h.log.contains("Failed to get Orrery Temp directory", 2));
  });
}

TEST_F(HandlerInit, CommandTimeOutSetting) {
  const std::vector<std::pair<std::string, int>> cases = {
      {"", 300},
      {"nVTHDSCCICommandTimeoutInSec=0\n", 300},
      {"nVTHDSCCICommandTimeoutInSec=-5\n", 300},
      {"nVTHDSCCICommandTimeoutInSec=1\n", 30},
      {"nVTHDSCCICommandTimeoutInSec=10\n", 30},
      {"nVTHDSCCICommandTimeoutInSec=30\n", 30},
      {"nVTHDSCCICommandTimeoutInSec=31\n", 31},
      {"nVTHDSCCICommandTimeoutInSec=7200\n", 7200},
  };
  expectInChild([&] {
    for (const auto& [setting, timeout] : cases) {
      h.settings("[~iHarbor]\n" + setting);
      EXPECT_EQ(h.handler()->timeout(), timeout) << setting;
    }
    // The agent's own section is not where this key lives.
    h.settings("nVTHDSCCICommandTimeoutInSec=100\n");
    EXPECT_EQ(h.handler()->timeout(), 300);
  });
}

TEST_F(HandlerInit, KeepCommandOutputSetting) {
  expectInChild([&] {
    EXPECT_FALSE(h.handler()->keepOutput());

    h.log.setConfigInt(SMCONFIG_NAME_ENABLE_COMMAND_LOGGING, 1);
    EXPECT_TRUE(h.handler()->keepOutput());
    EXPECT_TRUE(
        h.log.contains("Array Config [Enable CCI command logging] to keep command output "
                       "is set.",
                       0));

    // The client key wins over the array flag, also when it is 0.
    h.settings("[~iHarbor]\nnVTHDSKeepCmdOutput=0\n");
    EXPECT_FALSE(h.handler()->keepOutput());
    EXPECT_TRUE(h.log.contains("Reg key to keep command output is set to [0].", 0));

    h.log.setConfigInt(SMCONFIG_NAME_ENABLE_COMMAND_LOGGING, 0);
    h.settings("[~iHarbor]\nnVTHDSKeepCmdOutput=2\n");
    EXPECT_TRUE(h.handler()->keepOutput());
  });
}

}  // namespace
