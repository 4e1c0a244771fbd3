// The handler base against fake CCI tools. Each scenario runs in a fresh child process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <thread>

#include "hds/platform/ZoSleep.h"
#include "tests/support/FakeTools.h"
#include "tests/support/ProcessHelpers.h"

namespace {

using hdstest::expectInChild;
using hdstest::HandlerProbe;

class Handler : public ::testing::Test {
 protected:
  // A handler on the settings and tools as they are now, in a fresh process.
  void withHandler(const std::function<void(HandlerProbe&)>& body) {
    expectInChild([&] { body(*h.handler()); });
  }
  hdstest::HandlerEnv h;
  std::string output;
  int exitCode = -1;
};

TEST_F(Handler, InitialisationSettlesProcessWideValuesOnce) {
  expectInChild([&] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back([&] { EXPECT_EQ(h.handler()->ready(), 1); });
    for (auto& t : threads) t.join();
    EXPECT_EQ(HandlerProbe::cciPath(), h.env.cciDir());
    EXPECT_EQ(HandlerProbe::hostName(), "testhost");
    EXPECT_EQ(HandlerProbe::cciVersion(), "01-29-03/05");
    std::string version;
    EXPECT_EQ(h.handler()->getCCIVersionInstalled(version), 0);
    EXPECT_EQ(version, "01-29-03/05");
    EXPECT_TRUE(h.log.contains("Got CCI version [01-29-03/05] from cache.", 0));
    // The CCI directory, raidqry, two blanks, -h and a blank.
    EXPECT_TRUE(h.log.contains("Command [" + h.env.cciDir() + "raidqry  -h ] succeeded", 0));
  });
  EXPECT_EQ(h.tools.argv("raidqry"), std::vector<std::string>{"[-h]"});

  // A client directory without its slash, and execution mode 2, which needs no host name.
  h.env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + h.env.root() + "/cci\n");
  expectInChild([&] {
    EXPECT_EQ(h.handler("", 2)->ready(), 1);
    EXPECT_EQ(HandlerProbe::cciPath(), h.env.cciDir());
    EXPECT_EQ(HandlerProbe::hostName(), "");
  });
}

TEST_F(Handler, SettingsAndInitialisationFailures) {
  expectInChild([&] {
    for (const auto& [value, timeout] :
         std::vector<std::pair<std::string, int>>{{"", 300}, {"-5", 300}, {"10", 30}, {"31", 31}}) {
      h.settings("[~iHarbor]\nnVTHDSCCICommandTimeoutInSec=" + value + "\n");
      EXPECT_EQ(h.handler()->timeout(), timeout) << value;
    }
    h.settings("");
    EXPECT_FALSE(h.handler()->keepOutput());
    h.log.setConfigInt(SMCONFIG_NAME_ENABLE_COMMAND_LOGGING, 1);
    EXPECT_TRUE(h.handler()->keepOutput());
    // The client key wins over the array flag, also when it is 0.
    h.settings("[~iHarbor]\nnVTHDSKeepCmdOutput=0\n");
    EXPECT_FALSE(h.handler()->keepOutput());
    EXPECT_TRUE(h.log.contains("Reg key to keep command output is set to [0].", 0));
  });

  const std::vector<std::pair<std::string, std::string>> raidqry = {
      {"Model  : RAID-Manager\n",
       "Failed to get version of CCI command installed. Please check output of 'raidqry -h' "
       "command"},
      {"FAIL", "Command '" + h.env.cciDir() + "raidqry  -h  returned exit code [1]."}};
  for (const auto& c : raidqry) {
    h.tools.add("raidqry", c.first, c.first == "FAIL" ? 1 : 0);
    withHandler([&](HandlerProbe& handler) {
      EXPECT_EQ(handler.errorCode(), 62601);
      EXPECT_EQ(handler.errorText(), c.second);
      EXPECT_TRUE(h.log.contains("Failed to get CCI version installed.", 2));
      h.log.clear();
      EXPECT_EQ(handler.initialize(), 1);  // unusable for good, quietly
      EXPECT_TRUE(h.log.lines().empty());
    });
  }

  h.tools.addRaidqry();
  h.env.writeSettings("");  // the production directory, absent here
  withHandler([&](HandlerProbe& handler) {
    EXPECT_EQ(handler.errorCode(), 62601);
    EXPECT_EQ(handler.errorText(),
              "Hitachi CCI CLI not found in /HORCM/usr/bin/. Ensure that the Hitachi CCI CLI is "
              "installed on this client. If it is already installed in other folder, please set "
              "path in snap configuration [HORCM installation home directory path (CCI engines)] "
              "for Hitachi storage array [412345] in array management either at array level or "
              "at client level. Please refer to Vantrel documentation on Hitachi storage array "
              "for more details.");
    EXPECT_TRUE(h.log.contains("Hitachi CCI CLI not found in [/HORCM/usr/bin/]. Ensure", 2));
  });
}

TEST_F(Handler, CommandsScriptsAndTheirFiles) {
  h.tools.add("quiet", "no such ldev\n", 227);
  withHandler([&](HandlerProbe& handler) {
    EXPECT_EQ(handler.executeCommand("quiet", " -ldev_id 1", output, exitCode), 1);
    const std::string line = h.env.cciDir() + "quiet  -ldev_id 1";
    EXPECT_EQ(exitCode, 227);
    EXPECT_EQ(output, "no such ldev\n");
    EXPECT_EQ(handler.errorCode(), 62601);
    EXPECT_EQ(handler.errorText(), "Command '" + line + " returned exit code [227].");
    EXPECT_TRUE(h.log.contains("Command [" + line + "] returned exitCode [227]. Output [no", 0));
    // A success clears the last failure.
    EXPECT_EQ(handler.executeCommand("raidqry", " -h", output, exitCode), 0);
    EXPECT_EQ(handler.errorCode(), 0);
    EXPECT_EQ(handler.executeCommand("absent", "", output, exitCode), 1);
    EXPECT_TRUE(h.log.contains("returned exitCode [127]", 2));

    std::string part;
    EXPECT_FALSE(handler.didTheCommandFail("Serial#  LDEV#\n", part));
    EXPECT_TRUE(handler.didTheCommandFail(
        "x\nraidcom: [EX_CMDRJE] Rejected\nraidcom: [EW_INCOMP] Not completed\ntail\n", part));
    EXPECT_EQ(part, "raidcom: [EW_INCOMP] Not completed\ntail\n");

    hdstest::NoLeaks noLeaks;
    ASSERT_EQ(handler.executeScriptFile("#!/bin/sh\necho one\n", output, exitCode), 0);
    EXPECT_EQ(output, "one\n");
    EXPECT_TRUE(h.tempFiles("_script").empty());

    const std::string failing = "#!/bin/sh\necho a\necho 'raidcom: [EX_ENOOBJ] No such Object'\n";
    EXPECT_EQ(handler.executeScriptFile(failing, output, exitCode), 1);
    EXPECT_EQ(handler.errorCode(), 62601);
    EXPECT_EQ(handler.errorText(), "Failed to execute CCI command.");
    ASSERT_EQ(h.tempFiles("_script").size(), 1u);
    EXPECT_EQ(hdstest::readFile(h.tempFiles("_script")[0]), failing);
    // A failed line before a good last line still fails the script: raidcom writes to stderr.
    const std::string middle = "#!/bin/sh\necho 'raidcom: [EX_CMDRJE] Rejected' >&2\necho done\n";
    EXPECT_EQ(handler.executeScriptFile(middle, output, exitCode), 1);
    EXPECT_EQ(exitCode, 0);
    EXPECT_NE(output.find("raidcom: [EX_CMDRJE]"), std::string::npos);
    EXPECT_EQ(h.tempFiles("_script").size(), 2u);

    handler.setErrorCodeAndString(7, "before");
    EXPECT_EQ(handler.executeScriptFile("", output, exitCode), 1);
    EXPECT_EQ(handler.errorCode(), 7);

    // Deleting: a file already gone is a failure, one that cannot go for another reason is not.
    const std::string gone = h.env.tempDir() + "/gone";
    EXPECT_EQ(handler.deleteCommandFiles(gone), 1);
    EXPECT_TRUE(h.log.contains("Failed to change permission to delete file [" + gone + "].", 2));
    EXPECT_EQ(handler.deleteCommandFiles(h.env.tempDir()), 0);
    EXPECT_TRUE(hdstest::pathExists(h.env.tempDir()));
    EXPECT_EQ(noLeaks.leaks(), "");
  });
  h.settings("[~iHarbor]\nnVTHDSKeepCmdOutput=1\n");
  const size_t kept = h.tempFiles("_script").size();
  expectInChild([&] {
    ASSERT_EQ(h.handler()->executeScriptFile("#!/bin/sh\necho kept\n", output, exitCode), 0);
    EXPECT_EQ(h.tempFiles("_script").size(), kept + 1);
  });
}

TEST_F(Handler, PlantedSymlinksAreNotFollowed) {
  const std::string victim = h.env.root() + "/victim";
  hdstest::writeFile(victim, "precious\n");
  withHandler([&](HandlerProbe& handler) {
    ZoSetTimeScale(0.001);
    // Links at every name the next script can get in the next seconds.
    const std::string last = handler.formInputScriptFileName();  // <pid>_<tid>_<time>_<index>_
    long long pid, tid, now, index;
    ASSERT_EQ(std::sscanf(last.substr(last.rfind('/') + 1).c_str(), "%lld_%lld_%lld_%lld", &pid,
                          &tid, &now, &index),
              4);
    const std::string stem = last.substr(0, last.find("_" + std::to_string(now) + "_"));
    for (long long t = now; t < now + 3; ++t) {
      for (long long i = 1; i <= index + 1; ++i) {
        const std::string name = stem + "_" + std::to_string(t) + "_" + std::to_string(i);
        symlink(victim.c_str(), (name + "_script").c_str());
      }
    }
    EXPECT_EQ(handler.executeScriptFile("#!/bin/sh\necho x\n", output, exitCode), 1);
    EXPECT_EQ(handler.errorText().rfind("Failed to create script file [" + stem, 0), 0u);
  });
  EXPECT_EQ(hdstest::readFile(victim), "precious\n");

  // A temporary directory too long for a file name gives no name rather than a cut one.
  std::string longDir = h.env.root();
  while (longDir.size() < 1030) longDir += "/" + std::string(100, 'd');
  h.env.setEnv("HDS_TEMP_DIR", longDir.c_str());
  withHandler([&](HandlerProbe& handler) {
    EXPECT_EQ(handler.formOutputFileName(), "");
    EXPECT_EQ(handler.executeScriptFile("#!/bin/sh\n", output, exitCode), 1);
    EXPECT_EQ(handler.errorText(), "Failed to create script file []");
  });
}

TEST_F(Handler, HorcmStartAndCommandDeviceDiscovery) {
  h.settings("[~iHarbor]\nnVTHDSFindCmdDevMaxDeviceNumber=64\n");
  hdstest::writeFile(h.env.horcmDir() + "horcm3300.conf", "HORCM_MON\ntesthost 3300\n");
  withHandler([&](HandlerProbe& handler) {
    h.tools.add("horcmstart.sh", "HORCM inst 3300 has already been running.\n", 1);
    handler.setErrorCodeAndString(5, "stale");
    EXPECT_EQ(handler.horcmStart(), 0);
    EXPECT_EQ(handler.errorCode(), 0);
    EXPECT_EQ(handler.errorText(), "");
    EXPECT_TRUE(h.log.contains("Horcm instance [3300] is already running.", 2));

    // It ran but did not say it started: the configuration is kept as a response log.
    h.tools.add("horcmstart.sh", "starting HORCM inst 3300\n");
    EXPECT_EQ(handler.horcmStart(), 1);
    EXPECT_EQ(handler.errorCode(), 62601);
    EXPECT_EQ(handler.errorText(), "Failed to start horcm instance3300");
    ASSERT_EQ(h.tempFiles("_resp.log").size(), 1u);
    EXPECT_EQ(hdstest::readFile(h.tempFiles("_resp.log")[0]), "HORCM_MON\ntesthost 3300\n");

    h.tools.add("horcmstart.sh", "HORCM inst 3301 has failed to start.\n", 3);
    EXPECT_EQ(handler.horcmStart("3301"), 1);
    EXPECT_EQ(handler.errorCode(), 62600);
    EXPECT_TRUE(h.log.contains("Failed to start horcm instance [3300].", 2));

    EXPECT_EQ(h.handler("")->horcmStart(), 1);
    EXPECT_TRUE(h.log.contains("Horcm instance is not passed.", 2));

    h.tools.add("raidscan",
                "cmddev of Ser# 412340 = \\\\.\\CMD-412340:/dev/sdb\n"
                "cmddev of Ser# 412345 = \\\\.\\CMD-412345:/dev/sdc\r\n");
    EXPECT_EQ(handler.CheckIfCommandDeviceExist(), 0);
    EXPECT_EQ(handler.commandDevices(), std::vector<std::string>{"\\\\.\\CMD-412345:/dev/sdc"});

    h.tools.add("raidscan", "");
    EXPECT_EQ(handler.CheckIfCommandDeviceExist(), 1);
    EXPECT_EQ(handler.errorText().rfind(
                  "No command device from Hitachi storage array [412345] found on the host.", 0),
              0u);
    h.tools.add("raidscan", "cannot scan\n", 2);
    EXPECT_EQ(handler.CheckIfCommandDeviceExist(), 1);
    EXPECT_EQ(
        handler.errorText().rfind(
            "The command [raidscan -x findcmddev] failed to run. Output-[cannot scan\n]. ", 0),
        0u);
  });
  EXPECT_EQ(h.tools.argv("horcmstart.sh"),
            (std::vector<std::string>{"[3300]", "[3300]", "[3301]"}));
  EXPECT_EQ(h.tools.argv("raidscan").front(), "[-x][findcmddev][0-64]");
}

TEST_F(Handler, CapabilityThresholds) {
  for (const std::string version : {"01-29-03/05", "01-29-03/04", "1.30.0", "1.29.3", "   "}) {
    const bool supported = version == "01-29-03/05" || version == "1.30.0";
    h.tools.addRaidqry(version);
    withHandler([&](HandlerProbe& handler) {
      // A label with only blanks after it still leaves a working handler.
      EXPECT_EQ(handler.ready(), 1) << version;
      EXPECT_EQ(HandlerProbe::cciVersion(), version == "   " ? "" : version);
      EXPECT_EQ(handler.isHTISupported(), supported) << version;
    });
  }
  h.tools.addRaidqry("01-29-03/05");
  h.settings("sVTHDSCCIVersionFormat=%d-%d\n");  // the setting wins for the CCI version
  withHandler([&](HandlerProbe& handler) {
    EXPECT_FALSE(handler.isHTISupported());
    // From 80-05-01/00 on; a shape of its own is read with the configured format.
    for (const char* microcode : {"80-05-00/99", "80.05.01", "80_05_01_00"}) {
      EXPECT_FALSE(handler.isMultiLevelSnapSupported(microcode)) << microcode;
    }
    EXPECT_TRUE(handler.isMultiLevelSnapSupported("80-05-01/00"));
    EXPECT_TRUE(handler.isMultiLevelSnapSupported("80.05.02"));
    h.settings("sVTHDSCCIVersionFormat=%d_%d_%d_%d\n");
    EXPECT_TRUE(handler.isMultiLevelSnapSupported("80_05_01_00"));
    h.settings("");
    EXPECT_FALSE(handler.isMultiLevelSnapSupported("80_05_01_00"));
    EXPECT_EQ(handler.errorText(),
              "Unable to get the version details from microcode-[80_05_01_00]. The microcode "
              "format should be [xx-xx-xx/xx] or [xx.xx.xx]");
  });
}

}  // namespace
