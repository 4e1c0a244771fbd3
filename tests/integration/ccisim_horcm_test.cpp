// HORCM instances, sessions and the tools that need no array objects: instance start and stop
// from horcm<N>.conf files, login, raidqry, command device discovery, and the error shapes of
// malformed command lines.
#include <gtest/gtest.h>

#include "tests/support/SimArray.h"

namespace {

using hdstest::SimArray;
using hdstest::ToolResult;

class CcisimHorcmTest : public ::testing::Test {
 protected:
  hdstest::TestEnv m_oEnv;
  SimArray m_oSim{m_oEnv};
};

TEST_F(CcisimHorcmTest, InstanceAndSessionGateEveryRaidcomCommand) {
  EXPECT_EQ(m_oSim.raidcom("get port").exitCode, 251);
  ToolResult noFile = m_oSim.run("horcmstart.sh", {"3532"});
  EXPECT_EQ(noFile.exitCode, 3);
  EXPECT_NE(noFile.out.find("HORCM inst 3532 has failed to start."), std::string::npos);

  m_oSim.writeRaidcomHorcmConf(3532);
  ToolResult start = m_oSim.run("horcmstart.sh", {"3532"});
  EXPECT_EQ(start.exitCode, 0);
  EXPECT_EQ(start.out, "starting HORCM inst 3532\nHORCM inst 3532 starts successfully.\n");
  ToolResult again = m_oSim.run("horcmstart.sh", {"3532"});
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_EQ(again.out, "HORCM inst 3532 has already been running.\n");

  ToolResult notLoggedIn = m_oSim.raidcom("get port");
  EXPECT_EQ(notLoggedIn.exitCode, 202);
  EXPECT_EQ(notLoggedIn.err, "raidcom: [EX_ENAUTH] Authentication failed with User\n");
  EXPECT_EQ(m_oSim.run("raidcom", {"-login", "admin", "wrong", "-IM3532"}).exitCode, 202);
  EXPECT_EQ(m_oSim.run("raidcom", {"-login", "admin", "admin123", "-IM3532"}).exitCode, 0);
  EXPECT_EQ(m_oSim.raidcom("get port").exitCode, 0);
  EXPECT_EQ(m_oSim.raidcom("get port", 3533).exitCode, 251);

  m_oSim.expireSessions();
  EXPECT_EQ(m_oSim.raidcom("get port").exitCode, 202);
  EXPECT_EQ(m_oSim.shell(m_oSim.toolPath("raidcom") + " -login admin admin123 -IM3532 -s 412345")
                .exitCode,
            0);
  EXPECT_EQ(m_oSim.shell(m_oSim.toolPath("raidcom") + "  -logout -IM3532").exitCode, 0);
  EXPECT_EQ(m_oSim.raidcom("get port").exitCode, 202);

  ToolResult stop = m_oSim.run("horcmshutdown.sh", {"3532"});
  EXPECT_EQ(stop.exitCode, 0);
  EXPECT_EQ(stop.out, "inst 3532:\nhorcmshutdown inst 3532 !!!\n");
  ToolResult stopped = m_oSim.run("horcmshutdown.sh", {"3532"});
  EXPECT_EQ(stopped.exitCode, 251);
  EXPECT_NE(stopped.err.find("[EX_ATTHOR] Can't be attached to HORC manager"), std::string::npos);
}

TEST_F(CcisimHorcmTest, InstanceStartsOnlyWithACommandDeviceOfAKnownArray) {
  m_oSim.writeRaidcomHorcmConf(3530, {"/dev/sdc"});
  EXPECT_EQ(m_oSim.run("horcmstart.sh", {"3530"}).exitCode, 0);
  m_oSim.writeRaidcomHorcmConf(3531, {"\\\\.\\CMD-499999:/dev/sd"});
  EXPECT_EQ(m_oSim.run("horcmstart.sh", {"3531"}).exitCode, 3);
  // The pair handler's file when no command device was found: an empty HORCM_CMD line.
  hdstest::writeFile(
      m_oEnv.horcmDir() + "horcm3300.conf",
      "HORCM_MON\nhost\t\t3300\t1000           3000\n\nHORCM_CMD\n#\\\\.\\CMD-412345\n"
      "\nHORCM_LDEVG\nCG1  412345\n");
  EXPECT_EQ(m_oSim.run("horcmstart.sh", {"3300"}).exitCode, 3);
  // A service number that a running instance already uses.
  hdstest::writeFile(m_oEnv.horcmDir() + "horcm3301.conf",
                     "HORCM_MON\nhost\t\t3530\t1000           3000\n\nHORCM_CMD\n/dev/sdc\n");
  EXPECT_EQ(m_oSim.run("horcmstart.sh", {"3301"}).exitCode, 3);
}

TEST_F(CcisimHorcmTest, RaidqryReportsVersionAndArrays) {
  ToolResult help = m_oSim.shell(m_oSim.toolPath("raidqry") + "  -h ");
  EXPECT_EQ(help.exitCode, 0);
  std::vector<std::string> lines = hdstest::outputLines(help.out);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[1], "Ver&Rev: 01-74-03/00");

  m_oSim.startRaidcomSession();
  m_oEnv.setEnv("CCISIM_HOSTNAME", "mediahost01");
  ToolResult local = m_oSim.run("raidqry", {"-l", "-IM3532", "-s", SimArray::kSerial});
  lines = hdstest::outputLines(local.out);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            "  No  Group    Hostname     HORCM_ver   Uid   Serial#   Micro_ver     Cache(MB)");
  EXPECT_EQ(hdstest::lineWords(lines[1]),
            (std::vector<std::string>{"1", "---", "mediahost01", "01-74-03/00", "0", "412345",
                                      "93-07-22/00", "524288"}));
}

TEST_F(CcisimHorcmTest, FindCommandDevicesScansTheGivenRange) {
  ToolResult all = m_oSim.shell(m_oSim.toolPath("raidscan") + "  -x findcmddev 0-255");
  EXPECT_EQ(all.exitCode, 0);
  EXPECT_EQ(all.out, "cmddev of Ser# 412345 = \\\\.\\CMD-412345:/dev/sdc\n");
  ToolResult none = m_oSim.run("raidscan", {"-x", "findcmddev", "0-1"});
  EXPECT_EQ(none.exitCode, 0);
  EXPECT_EQ(none.out, "");
}

// Whatever a caller gets wrong, the tools answer with their own error shape and a failing exit
// status, never a crash or an internal error.
TEST_F(CcisimHorcmTest, MalformedCommandsGiveTheToolsErrorShapes) {
  m_oSim.startRaidcomSession();
  ToolResult unknown = m_oSim.raidcom("get ldev -ldev_id 100 -snap_group x");
  EXPECT_EQ(unknown.exitCode, 252);
  EXPECT_EQ(unknown.err,
            "raidcom: Arguments of an option is incorrect '-snap_group'\n"
            "raidcom: [EW_UNWOPT] Unknown option\n");
  ToolResult invalid = m_oSim.raidcom("get ldev -ldev_id 12:345:6");
  EXPECT_EQ(invalid.exitCode, 253);
  EXPECT_EQ(invalid.err,
            "raidcom: An option or arguments of an option are incorrect '-ldev_id'\n"
            "raidcom: [EW_INVOPT] Invalid option\n");
  EXPECT_EQ(m_oSim.raidcom("get ldev").err, "raidcom: [EX_REQARG] Required Arg list\n");
  EXPECT_EQ(m_oSim.raidcom("fly ldev").err, "raidcom: [EX_UNWCMD] Unknown command\n");
  EXPECT_EQ(m_oSim.run("raidcom", {"get", "port", "-IM3532", "-s", "999999"}).exitCode, 218);

  const std::vector<std::string> lines = {
      "raidcom get ldev -ldev_id",
      "raidcom add ldev -pool x -ldev_id 5 -capacity 1G",
      "raidcom add ldev -pool 0 -ldev_id 5 -capacity lots",
      "raidcom add ldev -pool 0 -ldev_id 5 -capacity 9999999999T",
      "raidcom delete ldev -ldev_id 5 -cnt 999999999999",
      "raidcom add device_grp -device_grp_name G -ldev_id 0xFFFFFFFFFFFFFFFFF",
      "raidscan -p CL1-A -CLI -m 99999999999",
      "raidcom get ldev -ldev_list sideways",
      "raidcom add lun -port",
      "raidcom add hba_wwn -port CL1-A-1 -hba_wwn 12345",
      "raidcom modify snapshot -snapshotgroup SG -snapshot_data explode",
      "raidcom get host_grp -port CL9-Z",
      "raidcom -login",
      "raidcom -s",
      "pairdisplay -g",
      "pairdisplay -IM3532",
      "pairevtwait -g CG -s pair -t soon -IM3532",
      "raidscan -p",
      "raidscan -x findcmddev a-b",
      "raidqry -q",
      "horcmstart.sh inst",
      "paircreate -g CG1 -vl -IM3532",
  };
  for (const std::string& line : lines) {
    ToolResult r = m_oSim.shell(m_oSim.cciDir() + line + SimArray::instanceArgs());
    EXPECT_NE(r.exitCode, 0) << line;
    EXPECT_LT(r.exitCode, 256) << line;
    EXPECT_FALSE(r.err.empty()) << line;
    EXPECT_EQ(r.err.find("internal error"), std::string::npos) << line << ": " << r.err;
  }
}

}  // namespace
