// The tools that need no array objects: which horcm<N>.conf files start an instance, and the error
// shapes of malformed command lines.
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

TEST_F(CcisimHorcmTest, InstanceStartsOnlyWithACommandDeviceOfAKnownArray) {
  m_oSim.writeRaidcomHorcmConf(3530, {"/dev/sdc"});
  EXPECT_EQ(m_oSim.run("horcmstart.sh", {"3530"}).exitCode, 0);
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

  for (const char* line :
       {"raidcom get ldev -ldev_id", "raidcom add ldev -pool x -ldev_id 5 -capacity 1G",
        "raidcom add ldev -pool 0 -ldev_id 5 -capacity 9999999999T",
        "raidcom add device_grp -device_grp_name G -ldev_id 0xFFFFFFFFFFFFFFFFF",
        "raidcom get ldev -ldev_list sideways", "raidcom add lun -port",
        "raidcom add hba_wwn -port CL1-A-1 -hba_wwn 12345",
        "raidcom modify snapshot -snapshotgroup SG -snapshot_data explode", "raidcom -login",
        "raidscan -p CL1-A -CLI -m 99999999999", "raidscan -x findcmddev a-b", "pairdisplay -g",
        "pairevtwait -g CG -s pair -t soon -IM3532", "raidqry -q", "horcmstart.sh inst",
        "paircreate -g CG1 -vl -IM3532"}) {
    ToolResult r = m_oSim.shell(m_oSim.cciDir() + line + SimArray::instanceArgs());
    EXPECT_NE(r.exitCode, 0) << line;
    EXPECT_LT(r.exitCode, 256) << line;
    EXPECT_FALSE(r.err.empty()) << line;
    EXPECT_EQ(r.err.find("internal error"), std::string::npos) << line << ": " << r.err;
  }
}

}  // namespace
