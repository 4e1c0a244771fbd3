// What of the simulated array no handler test reaches: formatting in the background, Q-markers,
// the LDEV list filters, and an instance that reaches two arrays.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/SimArray.h"

namespace {

using hdstest::lineWords;
using hdstest::outputLines;
using hdstest::SimArray;
using hdstest::ToolResult;
using Words = std::vector<std::string>;

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
  // LDEV numbers of a key : value listing.
  std::vector<int> ldevIds(const std::string& line) {
    std::vector<int> ids;
    for (const std::string& l : outputLines(m_oSim.raidcom(line).out)) {
      if (l.compare(0, 7, "LDEV : ") == 0) ids.push_back(std::stoi(l.substr(7)));
    }
    return ids;
  }
  // A pair tool on copy group CG1 through the pair-handler instance 3300.
  ToolResult pair(const std::string& tool, std::vector<std::string> args,
                  const char* mode = "-IM") {
    args.insert(args.end(), {"-g", "CG1", mode + std::string("3300")});
    return m_oSim.run(tool, args);
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

// Background work is given minutes here, so that its in-between states are seen however slowly
// the tools start; the test then finishes it at once.
constexpr int kLongMs = 600000;

TEST_F(CcisimBehaviourTest, FormattingRunsInTheBackgroundUntilCommandStatusSeesItDone) {
  m_oSim.setTimings(0, kLongMs);
  ok("initialize ldev -operation fmt -ldev_id 101");  // not blocked
  EXPECT_EQ(lineWords(outputLines(ok("get command_status").out).at(1))[2], "9710");
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

TEST_F(CcisimBehaviourTest, QMarkersAdvanceAndCommitBehindTheWrites) {
  makeCopyGroup();
  ASSERT_EQ(pair("paircreate", {"-vl"}).exitCode, 0);
  auto marker = [this](const std::vector<std::string>& args, int& code) {
    ToolResult r = pair("pairsyncwait", args, "-IH");
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

TEST_F(CcisimBehaviourTest, LdevListsSelectByState) {
  ok("add lun -port CL1-A-0 -ldev_id 103");
  ok("add ldev -pool 0 -ldev_id 0 -capacity 1G");
  ok("add resource -resource_name rsg_b");
  ok("add resource -resource_name rsg_b -ldev_id 104 -cnt 2");
  EXPECT_EQ(ldevIds("get ldev -ldev_list mapped"), (std::vector<int>{103, 4095}));
  EXPECT_EQ(ldevIds("get ldev -ldev_list unmapped -cnt 3"), (std::vector<int>{0, 100, 101}));
  EXPECT_EQ(ldevIds("get ldev -ldev_list defined -resource 1"), (std::vector<int>{104, 105}));
  EXPECT_EQ(ldevIds("get ldev -ldev_list undefined -cnt 2"), (std::vector<int>{1, 2}));
  EXPECT_EQ(ldevIds("get ldev pool -pool_id 0").size(), 17u);  // 0 and 100..115
  EXPECT_EQ(m_oSim.raidcom("get ldev -ldev_list dp_volume -pool_id 1").exitCode, 246);

  EXPECT_EQ(ldevIds("get ldev -ldev_id 0x0064 -cnt 2"), (std::vector<int>{100, 101}));
  EXPECT_EQ(ldevIds("get ldev -ldev_id 00:65"), (std::vector<int>{101}));
  EXPECT_EQ(m_oSim.raidcom("get ldev -ldev_id 65279").exitCode, 0);
  EXPECT_EQ(m_oSim.raidcom("get ldev -ldev_id 65280").exitCode, 227);
  ToolResult past = m_oSim.raidcom("get ldev -ldev_id 65278 -cnt 5 -key front_end");
  EXPECT_EQ(past.exitCode, 227);
  EXPECT_EQ(outputLines(past.out).size(), 3u);  // header, 65278, 65279
}

TEST(CcisimTwoArrays, InstanceReachesBothArraysAndPairsAcrossThem) {
  hdstest::TestEnv env;
  SimArray sim(env);
  nlohmann::json s = nlohmann::json::parse(SimArray::defaultScenario());
  nlohmann::json remote = s["arrays"][0];
  remote.update(nlohmann::json::parse(R"({"serial": "412346",
    "command_devices": [{"ldev": 4095, "device": "/dev/sdd"}],
    "users": [{"name": "remote", "password": "pw"}],
    "device_groups": [{"name": "DG_S", "members": [{"device": "Pair_100", "ldev": 100}]}]})"));
  s["arrays"][0].update(nlohmann::json::parse(R"({
    "device_groups": [{"name": "DG_P", "members": [{"device": "Pair_100", "ldev": 100}]}],
    "copy_groups": [{"name": "TC1", "pvol_group": "DG_P", "svol_group": "DG_S", "mirror": 0}]})"));
  s["arrays"].push_back(remote);
  sim.load(s.dump());
  hdstest::writeFile(env.horcmDir() + "horcm3300.conf",
                     "HORCM_MON\nhost\t\t3300\t1000           3000\n\nHORCM_CMD\n"
                     "\\\\.\\CMD-412345:/dev/sd\n\\\\.\\CMD-412346:/dev/sd\nHORCM_LDEVG\n"
                     "TC1  DG_P  412345\n");
  ASSERT_EQ(sim.run("horcmstart.sh", {"3300"}).exitCode, 0);
  std::vector<std::string> units = outputLines(sim.run("raidqry", {"-l", "-IH3300"}).out);
  ASSERT_EQ(units.size(), 3u);
  EXPECT_EQ(lineWords(units[2])[5], "412346");

  // A session is per array: the remote one needs its own user.
  for (const auto& [line, code] : std::vector<std::pair<std::string, int>>{
           {"-login admin admin123", 0},
           {"get port -s 412346", 202},
           {"-login remote pw -s 412346", 0},
           {"add lun -port CL2-A-0 -ldev_id 100 -s 412346", 0}}) {
    EXPECT_EQ(sim.shell(sim.toolPath("raidcom") + " " + line + " -IH3300").exitCode, code) << line;
  }

  ASSERT_EQ(sim.run("paircreate", {"-g", "TC1", "-vl", "-f", "data", "-IH3300"}).exitCode, 0);
  std::vector<std::string> scan =
      outputLines(sim.run("raidscan", {"-p", "CL2-A-0", "-CLI", "-IH3300", "-s", "412346"}).out);
  ASSERT_EQ(scan.size(), 2u);
  Words svol = lineWords(scan[1]);
  EXPECT_EQ(Words(svol.begin() + 9, svol.end()),
            (Words{"100", "S-VOL", "PAIR", "DATA", "412345", "100", "HORC"}));
  // An in-system copy view of the same LU sees no pair on it.
  scan = outputLines(sim.run("raidscan", {"-p", "CL2-A-0", "-CLI", "-IM3300", "-s", "412346"}).out);
  EXPECT_EQ(lineWords(scan.at(1))[10], "SMPL");
}

}  // namespace
