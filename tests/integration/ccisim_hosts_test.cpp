// Host presentation objects, LDEV list filters, and an instance that reaches two arrays.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/SimArray.h"

namespace {

using hdstest::lineWords;
using hdstest::outputLines;
using hdstest::SimArray;
using hdstest::ToolResult;
using Words = std::vector<std::string>;

class CcisimHostsTest : public ::testing::Test {
 protected:
  void SetUp() override { m_oSim.startRaidcomSession(); }

  ToolResult ok(const std::string& line) {
    ToolResult r = m_oSim.raidcom(line);
    EXPECT_EQ(r.exitCode, 0) << line << ": " << r.err;
    return r;
  }
  // One column of every data line of a listing.
  std::vector<std::string> column(const std::string& line, size_t col) {
    std::vector<std::string> values;
    std::vector<std::string> lines = outputLines(m_oSim.raidcom(line).out);
    for (size_t i = 1; i < lines.size(); ++i) {
      Words w = lineWords(lines[i]);
      if (w.size() > col) values.push_back(w[col]);
    }
    return values;
  }
  // LDEV numbers of a key : value listing.
  std::vector<int> ldevIds(const std::string& line) {
    std::vector<int> ids;
    for (const std::string& l : outputLines(m_oSim.raidcom(line).out)) {
      if (l.compare(0, 7, "LDEV : ") == 0) ids.push_back(std::stoi(l.substr(7)));
    }
    return ids;
  }

  hdstest::TestEnv m_oEnv;
  SimArray m_oSim{m_oEnv};
};

TEST_F(CcisimHostsTest, HostGroupsTakeFreeIdsAndKeepNamesAndWwnsUnique) {
  EXPECT_EQ(ok("add host_grp -port CL1-A -host_grp_name KS_PRE_SNAP_HOST_GROUP").out,
            "raidcom: Host group ID 2(0x2) will be used for adding.\n");
  EXPECT_NE(m_oSim.raidcom("add host_grp -port CL1-A -host_grp_name KS_PRE_SNAP_HOST_GROUP")
                .err.find("SSB=0xB956,0x3174"),
            std::string::npos);
  EXPECT_NE(m_oSim.raidcom("add host_grp -port CL1-A-1 -host_grp_name other")
                .err.find("SSB=0xB956,0x3173"),
            std::string::npos);
  EXPECT_EQ(ok("add host_grp -port CL1-A-7 -host_grp_name seven").out,
            "raidcom: Host group ID 7(0x7) will be used for adding.\n");
  EXPECT_EQ(column("get host_grp -port CL1-A", 1), (Words{"0", "1", "2", "7"}));

  ok("add hba_wwn -port CL1-A KS_PRE_SNAP_HOST_GROUP -hba_wwn 10:00:00:90:FA:1B:2C:3E");
  EXPECT_EQ(column("get hba_wwn -port CL1-A-2", 3), (Words{"10000090fa1b2c3e"}));
  EXPECT_NE(m_oSim.raidcom("add hba_wwn -port CL1-A-7 -hba_wwn 10000090fa1b2c3e")
                .err.find("SSB=0xB957,0x4188"),
            std::string::npos);
  ok("add lun -port CL1-A-2 -ldev_id 100 -lun_id 5");
  EXPECT_NE(
      m_oSim.raidcom("add lun -port CL1-A-2 -ldev_id 101 -lun_id 5").err.find("SSB=0xB958,0x0947"),
      std::string::npos);

  ok("delete host_grp -port CL1-A KS_PRE_SNAP_HOST_GROUP");
  EXPECT_EQ(column("get host_grp -port CL1-A", 1), (Words{"0", "1", "7"}));
  EXPECT_EQ(m_oSim.raidcom("get lun -port CL1-A-2").exitCode, 205);
  EXPECT_NE(ok("get ldev -ldev_id 100").out.find("NUM_PORT : 0\n"), std::string::npos);
  ok("delete host_grp -port CL1-A-0");  // group 0 stays, with its initial name
  EXPECT_EQ(column("get host_grp -port CL1-A", 2), (Words{"1A-G00", "cmd_dev_host", "seven"}));
}

TEST_F(CcisimHostsTest, HostGroupsFollowTheirResourceGroup) {
  ok("add resource -resource_name rsg_a");
  ok("add host_grp -port CL2-A -host_grp_name backup01");
  ok("add resource -resource_name rsg_a -port CL2-A backup01");
  EXPECT_EQ(column("get host_grp -port CL2-A -resource 1", 2), (Words{"backup01"}));
  EXPECT_EQ(column("get host_grp -port CL2-A -resource 0", 2), (Words{"2A-G00"}));
  EXPECT_NE(m_oSim.raidcom("delete resource -resource_name rsg_a")
                .err.find("The resource group has resources."),
            std::string::npos);

  m_oSim.lockResourceGroup("rsg_a", "other", "otherhost");
  EXPECT_EQ(m_oSim.raidcom("add hba_wwn -port CL2-A-1 -hba_wwn 10000090fa1b2c4d").exitCode, 221);
  EXPECT_EQ(m_oSim.raidcom("add hba_wwn -port CL2-A-0 -hba_wwn 10000090fa1b2c4d").exitCode, 0);
  m_oSim.admin({"resource", "unlock", "rsg_a"});
  ok("delete resource -resource_name rsg_a -port CL2-A backup01");
  ok("delete resource -resource_name rsg_a");
}

TEST_F(CcisimHostsTest, LdevListsSelectByState) {
  ok("add lun -port CL1-A-0 -ldev_id 103");
  ok("add ldev -pool 0 -ldev_id 0 -capacity 1G");
  ok("add resource -resource_name rsg_b");
  ok("add resource -resource_name rsg_b -ldev_id 104 -cnt 2");
  EXPECT_EQ(ldevIds("get ldev -ldev_list mapped"), (std::vector<int>{103, 4095}));
  EXPECT_EQ(ldevIds("get ldev -ldev_list unmapped -cnt 3"), (std::vector<int>{0, 100, 101}));
  EXPECT_EQ(ldevIds("get ldev -ldev_list defined -resource 1"), (std::vector<int>{104, 105}));
  EXPECT_EQ(ldevIds("get ldev -ldev_list undefined -cnt 2"), (std::vector<int>{1, 2}));
  EXPECT_EQ(ldevIds("get ldev pool -pool_id 0").size(), 17u);  // 0 and 100..115
  EXPECT_EQ(ldevIds("get ldev -ldev_list dp_volume -pool_id 1").size(), 0u);
  EXPECT_EQ(m_oSim.raidcom("get ldev -ldev_list dp_volume -pool_id 1").exitCode, 246);

  EXPECT_EQ(ldevIds("get ldev -ldev_id 0x0064 -cnt 2"), (std::vector<int>{100, 101}));
  EXPECT_EQ(ldevIds("get ldev -ldev_id 00:65"), (std::vector<int>{101}));
  EXPECT_EQ(m_oSim.raidcom("get ldev -ldev_id 65279").exitCode, 0);
  EXPECT_EQ(m_oSim.raidcom("get ldev -ldev_id 65280").exitCode, 227);
  ToolResult past = m_oSim.raidcom("get ldev -ldev_id 65278 -cnt 5 -key front_end");
  EXPECT_EQ(past.exitCode, 227);
  EXPECT_EQ(outputLines(past.out).size(), 3u);  // header, 65278, 65279
}

TEST_F(CcisimHostsTest, CommandStatusCountsBackgroundFailuresUntilReset) {
  ok("reset command_status");
  std::string before = column("get command_status", 0).at(0);
  ok("add ldev -pool 9 -ldev_id 300 -capacity 1G");
  ok("add ldev -pool 1 -ldev_id 301 -capacity 1G");
  Words status = lineWords(outputLines(ok("get command_status").out).at(1));
  EXPECT_EQ(std::stoi(status[0], nullptr, 16), std::stoi(before, nullptr, 16) + 2);
  EXPECT_EQ(status[3], "2");
  EXPECT_EQ(Words(status.begin() + 5, status.end()),
            (Words{"The", "pool", "type", "is", "not", "supported."}));
  ok("reset command_status");
  EXPECT_EQ(column("get command_status", 3), (Words{"0"}));
}

TEST(CcisimTwoArrays, InstanceReachesBothArraysAndPairsAcrossThem) {
  hdstest::TestEnv env;
  SimArray sim(env);
  nlohmann::json s = nlohmann::json::parse(SimArray::defaultScenario());
  nlohmann::json remote = s["arrays"][0];
  remote["serial"] = "412346";
  remote["command_devices"] = {{{"ldev", 4095}, {"device", "/dev/sdd"}}};
  remote["users"] = {{{"name", "remote"}, {"password", "pw"}}};
  remote["device_groups"] = {
      {{"name", "DG_S"}, {"members", {{{"device", "Pair_100"}, {"ldev", 100}}}}}};
  s["arrays"][0]["device_groups"] = {
      {{"name", "DG_P"}, {"members", {{{"device", "Pair_100"}, {"ldev", 100}}}}}};
  s["arrays"][0]["copy_groups"] = {
      {{"name", "TC1"}, {"pvol_group", "DG_P"}, {"svol_group", "DG_S"}, {"mirror", 0}}};
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
  EXPECT_EQ(sim.run("raidcom", {"-login", "admin", "admin123", "-IH3300"}).exitCode, 0);
  EXPECT_EQ(sim.run("raidcom", {"get", "port", "-IH3300", "-s", "412346"}).exitCode, 202);
  EXPECT_EQ(sim.run("raidcom", {"-login", "remote", "pw", "-IH3300", "-s", "412346"}).exitCode, 0);
  EXPECT_EQ(sim.run("raidcom", {"add", "lun", "-port", "CL2-A-0", "-ldev_id", "100", "-IH3300",
                                "-s", "412346"})
                .exitCode,
            0);

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
