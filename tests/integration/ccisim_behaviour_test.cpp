// The simulated array behaves like one: objects exist or not, asynchronous work reports through
// command status, resource groups lock, virtual IDs move, and snapshot pairs, copy-group pairs
// and Q-markers move through their states.
#include <gtest/gtest.h>

#include "tests/support/SimArray.h"

namespace {

using hdstest::lineWords;
using hdstest::outputLines;
using hdstest::SimArray;
using hdstest::ToolResult;

class CcisimBehaviourTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_oEnv.setEnv("CCISIM_TIME_SCALE", "0.01");
    m_oSim.startRaidcomSession();
  }

  ToolResult ok(const std::string& line) {
    ToolResult r = m_oSim.raidcom(line);
    EXPECT_EQ(r.exitCode, 0) << line << ": " << r.err;
    return r;
  }
  std::vector<std::string> commandStatus() {
    return lineWords(outputLines(ok("get command_status").out).at(1));
  }
  // The word of an object's listing line at a column, e.g. a snapshot pair's status.
  std::string column(const std::string& line, size_t row, size_t col) {
    std::vector<std::string> lines = outputLines(ok(line).out);
    if (lines.size() <= row) return "";
    std::vector<std::string> words = lineWords(lines[row]);
    return words.size() > col ? words[col] : "";
  }
  ToolResult pair(const std::string& tool, const std::vector<std::string>& args) {
    std::vector<std::string> all = args;
    all.insert(all.end(), {"-g", "CG1", "-IM3300"});
    return m_oSim.run(tool, all);
  }
  // Device groups and a copy group for Pair_100/101 (P-VOLs 100, 101; S-VOLs 200, 201), and a
  // pair-handler instance 3300 whose HORCM_LDEVG names the copy group.
  void makeCopyGroup() {
    for (const char* line : {"add ldev -pool 0 -ldev_id 200 -capacity 2097152",
                             "add ldev -pool 0 -ldev_id 201 -capacity 2097152",
                             "add device_grp -device_grp_name DG_P Pair_100 -ldev_id 100",
                             "add device_grp -device_grp_name DG_P Pair_101 -ldev_id 101",
                             "add device_grp -device_grp_name DG_S Pair_100 -ldev_id 200",
                             "add device_grp -device_grp_name DG_S Pair_101 -ldev_id 201",
                             "add copy_grp -copy_grp_name CG1 DG_P DG_S  -mirror_id 0"}) {
      ok(line);
    }
    hdstest::writeFile(m_oEnv.horcmDir() + "horcm3300.conf",
                       "HORCM_MON\nhost\t\t3300\t1000           3000\n\nHORCM_CMD\n"
                       "#\\\\.\\CMD-412345\n\\\\.\\CMD-412345:/dev/sdc \nHORCM_LDEVG\n"
                       "#Copy_Group\t\tDevice_Group\t\tserial\nCG1    412345\n\nHORCM_INST\n"
                       "CG1  host  3301\n");
    ASSERT_EQ(m_oSim.run("horcmstart.sh", {"3300"}).exitCode, 0);
  }

  hdstest::TestEnv m_oEnv;
  SimArray m_oSim{m_oEnv};
};

TEST_F(CcisimBehaviourTest, LdevsAndLuPathsExistOrNot) {
  ok("reset command_status");
  ok("add ldev -pool 0 -ldev_id 100 -capacity 1G");  // already defined: fails in the background
  EXPECT_EQ(commandStatus()[3], "1");
  EXPECT_EQ(commandStatus()[1], "2e22");
  ok("reset command_status");
  EXPECT_EQ(commandStatus()[3], "0");

  ToolResult missing = m_oSim.raidcom("delete ldev -ldev_id 999");
  EXPECT_EQ(missing.exitCode, 221);
  EXPECT_EQ(outputLines(missing.err).at(2), "CAUSE : LDEV is not installed.");

  EXPECT_EQ(ok("add lun -port CL1-A-0 -ldev_id 100").out,
            "raidcom: LUN 0(0x0) will be used for adding.\n");
  ToolResult twice = m_oSim.raidcom("add lun -port CL1-A-0 -ldev_id 100");
  EXPECT_NE(twice.err.find("An LU path has already defined in the relevant LDEV"),
            std::string::npos);
  EXPECT_NE(m_oSim.raidcom("delete ldev -ldev_id 100").err.find("A path is defined in the volume."),
            std::string::npos);
  ToolResult noGroup = m_oSim.raidcom("add lun -port CL1-A-9 -ldev_id 101");
  EXPECT_EQ(noGroup.exitCode, 205);
  EXPECT_EQ(outputLines(noGroup.err).at(0), "raidcom: could not find the hstgrp# from CL1-A-9.");

  EXPECT_EQ(ok("delete lun -port CL1-A-0 -ldev_id 100").out,
            "raidcom: LUN 0(0x0) will be used for deleting.\n");
  ToolResult gone = m_oSim.raidcom("delete lun -port CL1-A-0 -ldev_id 100");
  EXPECT_EQ(gone.exitCode, 205);
  EXPECT_NE(gone.err.find("could not find an LUN for deleting"), std::string::npos);
  ok("delete ldev -ldev_id 100");
  EXPECT_EQ(column("get ldev -ldev_id 100 -key front_end", 1, 4), "NOT");

  ToolResult notMember = m_oSim.raidcom("delete device_grp -device_grp_name DG -ldev_id 101");
  EXPECT_NE(notMember.err.find("LDEV is not registered in the device group."), std::string::npos);
  EXPECT_EQ(m_oSim.raidcom("get ldev -ldev_list mapped -resource 5").exitCode, 246);
}

// Background work is given minutes here, so that its in-between states are seen however slowly
// the tools start; the test then finishes it at once.
constexpr int kLongMs = 600000;

TEST_F(CcisimBehaviourTest, FormattingRunsInTheBackgroundUntilCommandStatusSeesItDone) {
  m_oSim.setTimings(0, kLongMs);
  ok("initialize ldev -operation fmt -ldev_id 101");  // not blocked
  EXPECT_EQ(commandStatus()[2], "9710");
  ok("reset command_status");
  ok("modify ldev -ldev_id 101 -status blk");
  ok("initialize ldev -operation qfmt -ldev_id 101");
  EXPECT_NE(ok("get ldev -ldev_id 101").out.find("OPE_TYPE : QFMT"), std::string::npos);
  EXPECT_EQ(m_oSim.raidcom("get ldev -ldev_id 101 -check_status NML").exitCode, 1);
  EXPECT_EQ(m_oSim.raidcom("get command_status -time 1").exitCode, 233);
  m_oSim.finishBackgroundWork();
  EXPECT_EQ(ok("get command_status -time 30").exitCode, 0);
  EXPECT_NE(ok("get ldev -ldev_id 101").out.find("STS : NML"), std::string::npos);
}

TEST_F(CcisimBehaviourTest, ResourceGroupLockedFromAnotherHost) {
  m_oSim.lockResourceGroup("meta_resource", "admin", "Storage Navigator");
  ToolResult lock = m_oSim.raidcom("lock resource -resource_name meta_resource -time 30");
  EXPECT_EQ(lock.exitCode, 221);
  EXPECT_NE(lock.err.find("SSB=0x2E11,0x2205"), std::string::npos);
  EXPECT_EQ(m_oSim.raidcom("add ldev -pool 0 -ldev_id 300 -capacity 1G").exitCode, 221);
  EXPECT_EQ(m_oSim.raidcom("unlock resource -resource_name meta_resource").exitCode, 221);

  m_oSim.admin({"resource", "unlock", "meta_resource"});
  m_oEnv.setEnv("CCISIM_HOSTNAME", "mediahost01");
  ok("lock resource -resource_name meta_resource -time 30");
  EXPECT_EQ(
      lineWords(outputLines(ok("get resource").out).at(1)),
      (std::vector<std::string>{"meta_resource", "0", "Locked", "admin", "mediahost01", "412345"}));
  ok("add ldev -pool 0 -ldev_id 300 -capacity 1G");  // the holder may change it
  ok("unlock resource -resource_name meta_resource");
  EXPECT_EQ(column("get resource", 1, 2), "Unlocked");
}

TEST_F(CcisimBehaviourTest, LdevMovesIntoAVirtualStorageMachineAndBack) {
  ok("add resource -resource_name vsm_rsg -virtual_type 412399 M850M3");
  EXPECT_EQ(column("get resource -key opt", 2, 3), "M850M3");
  ok("add ldev -pool 0 -ldev_id 300 -capacity 1G");
  ok("unmap resource -ldev_id 300 -virtual_ldev_id 300");
  EXPECT_EQ(m_oSim.raidcom("unmap resource -ldev_id 300 -virtual_ldev_id 300").exitCode, 221);
  ok("add resource -resource_name vsm_rsg -ldev_id 300");
  ok("map resource -ldev_id 300 -virtual_ldev_id 1300");
  EXPECT_NE(ok("get ldev -ldev_id 300").out.find("LDEV : 300 VIR_LDEV : 1300\n"),
            std::string::npos);
  EXPECT_NE(m_oSim.raidcom("delete ldev -ldev_id 300").err.find("virtual storage machine"),
            std::string::npos);

  ok("unmap resource -ldev_id 300 -virtual_ldev_id 1300");
  ok("delete resource -resource_name vsm_rsg -ldev_id 300");
  ok("map resource -ldev_id 300 -virtual_ldev_id 300");
  EXPECT_NE(ok("get ldev -ldev_id 300").out.find("LDEV : 300\n"), std::string::npos);
  ok("delete ldev -ldev_id 300");
  ok("delete resource -resource_name vsm_rsg");
  EXPECT_EQ(m_oSim.raidcom("get resource -resource_name vsm_rsg").exitCode, 205);
}

TEST_F(CcisimBehaviourTest, SnapshotPairsMoveThroughTheirStates) {
  m_oSim.setTimings(kLongMs);
  ok("add ldev -pool 0 -ldev_id 200 -capacity 2097152");
  ok("add ldev -pool 0 -ldev_id 201 -capacity 2097152");
  ToolResult noPool = m_oSim.raidcom("add snapshot -ldev_id 100 200 -snapshotgroup SG1");
  EXPECT_NE(noPool.err.find("SSB=0x2E00,0x9701"), std::string::npos);
  ToolResult noSvol = m_oSim.raidcom("add snapshot -ldev_id 100 777 -pool 1 -snapshotgroup SG1");
  EXPECT_NE(noSvol.err.find("CAUSE : LDEV is not installed."), std::string::npos);
  ok("add snapshot -ldev_id 100 200 -pool 1 -snapshotgroup SG1");
  ok("add snapshot -ldev_id 101 201 -pool 1 -snapshotgroup SG1 -snap_mode  CTG  clone");
  EXPECT_EQ(m_oSim.raidcom("get snapshot -snapshotgroup sg1").exitCode, 205);

  ok("modify snapshot -snapshotgroup SG1 -snapshot_data create");
  EXPECT_EQ(column("get snapshot -snapshotgroup SG1", 1, 2), "PSUS");
  EXPECT_NE(column("get snapshot -snapshotgroup SG1", 1, 10), "-");
  EXPECT_EQ(m_oSim.raidcom("modify snapshot -snapshotgroup SG1 -snapshot_data create").exitCode,
            221);
  ok("modify snapshot -ldev_id 200 -snapshot_data resync");
  EXPECT_EQ(column("get snapshot -ldev_id 200", 1, 2), "COPY");
  EXPECT_EQ(m_oSim.raidcom("get snapshot -snapshotgroup SG1 -check_status PAIR -time 30").exitCode,
            233);  // SG1's other pair stays split
  ok("modify snapshot -ldev_id 201 -snapshot_data clone");
  EXPECT_EQ(column("get snapshot -ldev_id 101", 1, 2), "COPY");
  m_oSim.finishBackgroundWork();
  ok("get snapshot -snapshotgroup SG1 -check_status PAIR -time 30");
  EXPECT_EQ(ok("get snapshot -ldev_id 101").out, "");  // the clone finished and dissolved

  ok("delete snapshot -ldev_id 100");
  EXPECT_EQ(m_oSim.raidcom("delete snapshot -ldev_id 100").exitCode, 205);
  EXPECT_EQ(ok("get snapshot").out, "");
}

TEST_F(CcisimBehaviourTest, CopyGroupPairsMoveThroughTheirStates) {
  makeCopyGroup();
  m_oSim.setTimings(kLongMs);
  EXPECT_EQ(m_oSim.run("pairdisplay", {"-g", "CG9", "-fc", "-CLI", "-IM3300"}).exitCode, 239);
  EXPECT_EQ(pair("pairevtwait", {"-nowait"}).exitCode, 1);  // SMPL
  ASSERT_EQ(pair("paircreate", {"-vl"}).exitCode, 0);
  EXPECT_EQ(pair("paircreate", {"-vl"}).exitCode, 222);
  std::vector<std::string> copying =
      lineWords(outputLines(pair("pairdisplay", {"-fc", "-CLI"}).out).at(1));
  EXPECT_EQ(copying[10], "COPY");
  EXPECT_LT(std::stoi(copying[11]), 100);
  EXPECT_EQ(m_oSim.raidcom("delete ldev -ldev_id 200").exitCode, 221);  // a pair volume
  EXPECT_EQ(m_oSim.raidcom("delete copy_grp -copy_grp_name CG1").exitCode, 221);

  m_oSim.setTimings(200);  // copies that finish while pairevtwait waits
  m_oSim.finishBackgroundWork();
  ASSERT_EQ(pair("pairsplit", {}).exitCode, 0);
  ASSERT_EQ(pair("pairresync", {}).exitCode, 0);
  ToolResult waited = pair("pairevtwait", {"-ss", "pair", "-t", "3000"});
  EXPECT_EQ(waited.exitCode, 0);
  EXPECT_EQ(waited.out, "pairevtwait : Wait status done.\n");
  EXPECT_EQ(pair("pairsplit", {"-d", "Pair_100"}).exitCode, 0);
  EXPECT_EQ(pair("pairevtwait", {"-d", "Pair_100", "-ss", "psus", "-t", "30"}).exitCode, 0);
  std::vector<std::string> display = outputLines(pair("pairdisplay", {"-fc", "-CLI"}).out);
  EXPECT_EQ(lineWords(display.at(1))[10], "PSUS");
  EXPECT_EQ(lineWords(display.at(2))[10], "SSUS");
  EXPECT_EQ(pair("pairevtwait", {"-nowait"}).exitCode, 4);
  EXPECT_EQ(pair("pairevtwait", {"-d", "Pair_101", "-s", "psus", "-t", "1"}).exitCode, 233);

  m_oSim.admin({"pair", "fail", "CG1"});
  EXPECT_EQ(pair("pairevtwait", {"-s", "pair", "-t", "30"}).exitCode, 234);
  m_oSim.setTimings(kLongMs);
  EXPECT_EQ(pair("pairresync", {"-restore"}).exitCode, 0);
  EXPECT_EQ(lineWords(outputLines(pair("pairdisplay", {"-fc", "-CLI"}).out).at(1))[10], "RCPY");
  EXPECT_EQ(pair("pairsplit", {"-S"}).exitCode, 0);
  EXPECT_EQ(lineWords(outputLines(pair("pairdisplay", {"-fc", "-CLI"}).out).at(1))[9], "SMPL");
  EXPECT_EQ(pair("pairsplit", {}).exitCode, 222);
}

TEST_F(CcisimBehaviourTest, QMarkersAdvanceAndCommitBehindTheWrites) {
  makeCopyGroup();
  ASSERT_EQ(pair("paircreate", {"-vl"}).exitCode, 0);
  auto marker = [this](const std::vector<std::string>& args, int& code) {
    std::vector<std::string> all = args;
    all.insert(all.end(), {"-g", "CG1", "-IH3300"});
    ToolResult r = m_oSim.run("pairsyncwait", all);
    code = r.exitCode;
    return lineWords(outputLines(r.out).at(1));
  };
  int code = 0;
  std::string first = marker({"-nowait", "-t", "99999"}, code)[2];
  std::string second = marker({"-nowait", "-t", "99999"}, code)[2];
  EXPECT_EQ(std::stoll(second, nullptr, 16), std::stoll(first, nullptr, 16) + 1);
  EXPECT_EQ(marker({"-q", second, "-t", "10"}, code)[3], "DONE");
  EXPECT_EQ(code, 0);

  m_oSim.setTimings(0, 0, 60000);
  std::string fresh = marker({"-nowait"}, code)[2];
  std::vector<std::string> waiting = marker({"-q", fresh, "-t", "1"}, code);
  EXPECT_EQ(code, 1);
  EXPECT_EQ(waiting[3], "TIMEOUT");
  EXPECT_LT(std::stoll(waiting[2], nullptr, 16), std::stoll(fresh, nullptr, 16));

  ASSERT_EQ(pair("pairsplit", {}).exitCode, 0);
  EXPECT_EQ(marker({"-q", fresh, "-t", "1"}, code)[3], "BROKEN");
  ASSERT_EQ(pair("pairresync", {}).exitCode, 0);
  EXPECT_EQ(marker({"-q", fresh, "-t", "1"}, code)[3], "CHANGED");
  EXPECT_EQ(code, 3);
}

}  // namespace
