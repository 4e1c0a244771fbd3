// HORCM instance control, command device discovery and the version-based capability checks.
#include <dirent.h>
#include <gtest/gtest.h>

#include "tests/support/HandlerProbe.h"

namespace {

using hdstest::expectInChild;
using hdstest::HandlerEnv;

int countResponseFiles(const std::string& dir, std::string* onlyContent) {
  int count = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name.size() > 9 && name.compare(name.size() - 9, 9, "_resp.log") == 0) {
        ++count;
        if (onlyContent != nullptr) *onlyContent = hdstest::readFile(dir + "/" + name);
      }
    }
    closedir(d);
  }
  return count;
}

class Horcm : public ::testing::Test {
 protected:
  HandlerEnv h;
};

TEST_F(Horcm, StartOutcomes) {
  hdstest::writeFile(h.env.horcmDir() + "horcm3300.conf", "HORCM_MON\ntesthost 3300\n");
  expectInChild([&] {
    auto handler = h.handler();

    h.tools.add("horcmstart.sh",
                "starting HORCM inst 3300\nHORCM inst 3300 starts successfully.\n");
    EXPECT_EQ(handler->horcmStart(), 0);
    EXPECT_TRUE(h.log.contains("Successfully started horcm instance [3300].", 1));

    h.tools.add("horcmstart.sh", "HORCM inst 3300 has already been running.\n", 1);
    handler->setErrorCodeAndString(5, "stale");
    EXPECT_EQ(handler->horcmStart(), 0);
    EXPECT_EQ(handler->errorCode(), 0);
    EXPECT_EQ(handler->errorText(), "");
    EXPECT_TRUE(h.log.contains("Horcm instance [3300] is already running.", 2));

    // Ran, but did not say it started: the refused configuration is kept as a response log.
    h.tools.add("horcmstart.sh", "starting HORCM inst 3300\n");
    EXPECT_EQ(handler->horcmStart(), 1);
    EXPECT_EQ(handler->errorCode(), 62601);
    EXPECT_EQ(handler->errorText(), "Failed to start horcm instance3300");
    EXPECT_TRUE(h.log.contains(
        "Failed to start horcm instance [3300]. Output [starting HORCM inst 3300\n] ", 2));
    std::string saved;
    EXPECT_EQ(countResponseFiles(h.env.tempDir(), &saved), 1);
    EXPECT_EQ(saved, "HORCM_MON\ntesthost 3300\n");

    h.tools.add("horcmstart.sh", "HORCM inst 3300 has failed to start.\n", 3);
    EXPECT_EQ(handler->horcmStart(), 1);
    EXPECT_EQ(handler->errorCode(), 62600);
    EXPECT_TRUE(h.log.contains("Failed to start horcm instance [3300].", 2));
    EXPECT_EQ(countResponseFiles(h.env.tempDir(), nullptr), 2);

    // Another instance is started by its own number; the messages keep naming the handler's.
    h.tools.add("horcmstart.sh", "HORCM inst 3301 starts successfully.\n");
    EXPECT_EQ(handler->horcmStart("3301"), 0);
  });
  EXPECT_EQ(h.tools.argv("horcmstart.sh"),
            (std::vector<std::string>{"[3300]", "[3300]", "[3300]", "[3300]", "[3301]"}));
}

TEST_F(Horcm, ShutdownAndMissingInstance) {
  expectInChild([&] {
    auto handler = h.handler("");
    EXPECT_EQ(handler->horcmStart(), 1);
    EXPECT_EQ(handler->horcmShutdown(), 1);
    EXPECT_EQ(h.log.count("Horcm instance is not passed."), 2u);

    h.tools.add("horcmshutdown.sh", "inst 3302:\nhorcmshutdown inst 3302 !!!\n");
    EXPECT_EQ(handler->horcmShutdown("3302"), 0);
    EXPECT_TRUE(h.log.contains("Successfully stopped horcm instance [3302].", 2));

    h.tools.add("horcmshutdown.sh", "", 251, "[EX_ATTHOR] Can't be attached to HORC manager\n");
    EXPECT_EQ(handler->horcmShutdown("3302"), 1);
    EXPECT_EQ(handler->errorCode(), 62601);
    EXPECT_TRUE(h.log.contains("Failed to stop horcm instance [3302].", 2));
  });
  EXPECT_EQ(h.tools.calls("horcmstart.sh"), 0);
}

TEST_F(Horcm, CommandDeviceDiscovery) {
  expectInChild([&] {
    auto handler = h.handler();
    h.tools.add("raidscan",
                "cmddev of Ser# 412340 = \\\\.\\CMD-412340:/dev/sdb\n"
                "cmddev of Ser# 412345 = \\\\.\\CMD-412345:/dev/sdc\r\n"
                "cmddev of Ser# 412346 = \\\\.\\CMD-412346:/dev/sdd\n");
    EXPECT_EQ(handler->CheckIfCommandDeviceExist(), 0);
    EXPECT_EQ(handler->commandDevices(), std::vector<std::string>{"\\\\.\\CMD-412345:/dev/sdc"});

    // The serial number without a device name: found, but nothing to add.
    h.tools.add("raidscan", "cmddev of Ser# 412345 = /dev/sdc\n");
    EXPECT_EQ(handler->CheckIfCommandDeviceExist(), 0);
    EXPECT_EQ(handler->commandDevices().size(), 1u);

    h.tools.add("raidscan", "cmddev of Ser# 999999 = \\\\.\\CMD-999999:/dev/sdc\n");
    EXPECT_EQ(handler->CheckIfCommandDeviceExist(), 1);
    const std::string missing =
        "No command device from Hitachi storage array [412345] found on the host. Either "
        "allocate a command device from the storage array to this host or use any other media "
        "agent which already has command device allocated by providing snap configuration "
        "[Remote Snap MA (CCI engines)] in Array Management at array level or client level. "
        "Please refer to Vantrel documentation on Hitachi storage array for more details.";
    EXPECT_EQ(handler->errorCode(), 62601);
    EXPECT_EQ(handler->errorText(), missing);
    EXPECT_TRUE(h.log.contains(missing + ". Output [cmddev of Ser# 999999", 2));

    h.tools.add("raidscan", "cannot scan\n", 2);
    EXPECT_EQ(handler->CheckIfCommandDeviceExist(), 1);
    EXPECT_EQ(handler->errorText(),
              "The command [raidscan -x findcmddev] failed to run. Output-[cannot scan\n]. Please "
              "ensure that the Hitachi CCI is installed on the host. Please check the log folder "
              "under CCI installation directory to get more details relating to the command "
              "failure.");
  });
  h.settings("[~iHarbor]\nnVTHDSFindCmdDevMaxDeviceNumber=64\n");
  expectInChild([&] { h.handler()->CheckIfCommandDeviceExist(); });
  const auto calls = h.tools.argv("raidscan");
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_EQ(calls.front(), "[-x][findcmddev][0-255]");
  EXPECT_EQ(calls.back(), "[-x][findcmddev][0-64]");
}

TEST_F(Horcm, PairCommandCapabilityFollowsTheCciVersion) {
  const std::vector<std::pair<std::string, bool>> versions = {
      {"01-29-03/05", true},  {"01-30-00/00", true},  {"02-00-00/00", true},  {"01-29-04/00", true},
      {"01-29-03/04", false}, {"01-28-99/99", false}, {"00-99-99/99", false}, {"1.29.3", false},
      {"1.30.0", true},       {"garbage-x", false},
  };
  for (const auto& [version, supported] : versions) {
    h.tools.addRaidqry(version);
    expectInChild([&] {
      auto handler = h.handler();
      ASSERT_EQ(handler->ready(), 1);
      EXPECT_EQ(handler->isHTISupported(), supported) << version;
      EXPECT_EQ(handler->isSISupported(), supported) << version;
    });
  }
  // A configured format is used for the CCI version even when the text has dashes.
  h.tools.addRaidqry("01-29-03/05");
  h.settings("sVTHDSCCIVersionFormat=%d-%d\n");
  expectInChild([&] { EXPECT_FALSE(h.handler()->isHTISupported()); });
  // Only integer conversions are accepted from the settings file.
  h.settings("sVTHDSCCIVersionFormat=%s\n");
  expectInChild([&] { EXPECT_FALSE(h.handler()->isHTISupported()); });
}

TEST_F(Horcm, MultiLevelSnapshotsFollowTheMicrocode) {
  expectInChild([&] {
    auto handler = h.handler();
    const std::vector<std::pair<std::string, bool>> microcodes = {
        {"80-05-01/00", true},  {"83-01-00/00", true},  {"80-06-00/00", true},
        {"80-05-00/99", false}, {"73-03-00/00", false}, {"80.05.01", false},
        {"80.05.02", true},     {"81.00.00", true},
    };
    for (const auto& [microcode, supported] : microcodes) {
      EXPECT_EQ(handler->isMultiLevelSnapSupported(microcode), supported) << microcode;
    }
    EXPECT_FALSE(handler->isMultiLevelSnapSupported("80_05_01_00"));
    EXPECT_EQ(handler->errorCode(), 62601);
    EXPECT_EQ(handler->errorText(),
              "Unable to get the version details from microcode-[80_05_01_00]. The microcode "
              "format should be [xx-xx-xx/xx] or [xx.xx.xx]");

    // The text's own shape wins over a configured format; the format serves other shapes.
    h.settings("sVTHDSCCIVersionFormat=%d_%d_%d_%d\n");
    EXPECT_TRUE(handler->isMultiLevelSnapSupported("80_05_01_00"));
    EXPECT_TRUE(
        h.log.contains("Additional setting-[sVTHDSCCIVersionFormat] to customize the "
                       "CCI/microcode version format found. Value-[%d_%d_%d_%d]",
                       0));
    EXPECT_TRUE(handler->isMultiLevelSnapSupported("80-05-01/00"));
  });
}

}  // namespace
