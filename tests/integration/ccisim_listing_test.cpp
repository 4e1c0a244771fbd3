// Every listing the tools print parses back, by the blank-separated columns readers use, to the
// objects the scenario put in.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "tests/support/SimArray.h"

namespace {

using hdstest::lineWords;
using hdstest::outputLines;
using hdstest::SimArray;
using nlohmann::json;
using Words = std::vector<std::string>;

// Data lines of a table (the header dropped), each split into words.
std::vector<Words> rows(const hdstest::ToolResult& r) {
  EXPECT_EQ(r.exitCode, 0) << r.err;
  std::vector<Words> result;
  std::vector<std::string> lines = outputLines(r.out);
  for (size_t i = 1; i < lines.size(); ++i) result.push_back(lineWords(lines[i]));
  return result;
}

json scenario() {
  json s = json::parse(SimArray::defaultScenario());
  const json added = json::parse(R"({
    "resource_groups": [{"id": 3, "name": "backup rsg", "virtual_serial": "412399",
      "virtual_type": "M850M3", "lock_owner": "bkpadmin", "lock_host": "Storage Navigator"}],
    "ldevs": [{"id": 200, "count": 2, "capacity": 2097152, "pool": 0, "name": "snap_{id}",
      "rsgid": 3, "virtual_id": 900}],
    "ports": [{"name": "CL3-B", "type": "FIBRE", "attr": "TAR MCU", "speed": "32G", "lpid": "E4",
      "conn": "FCAL", "ssw": "N", "wwn": "50060e8012abcd20", "logins": ["10000090fa000001"],
      "host_groups": [{"gid": 5, "name": "esx cluster 7", "host_mode": "VMWARE_EX",
        "host_mode_options": [54, 63],
        "wwns": [{"wwn": "10000090fa000001", "nickname": "esx01_p0"}],
        "luns": [{"lun": 12, "ldev": 100}, {"lun": 13, "ldev": 200}]}]}],
    "device_groups": [{"name": "DG_P", "members": [{"device": "Pair_100", "ldev": 100}]},
      {"name": "DG_S", "members": [{"device": "Pair_100", "ldev": 200}]}],
    "copy_groups": [{"name": "CG1", "pvol_group": "DG_P", "svol_group": "DG_S", "mirror": 1,
      "journal": 4}],
    "snapshots": [{"group": "nightly", "pvol": 101, "svol": 201, "mirror": 3, "pool": 1,
      "status": "PSUS", "split_time": 1700000000}],
    "pairs": [{"copy_group": "CG1", "device": "Pair_100", "pvol": 100, "svol_serial": "412345",
      "svol": 200, "mirror": 1, "kind": "UR", "status": "PAIR", "fence": "ASYNC"}]})");
  for (const auto& [key, items] : added.items()) {
    for (const json& item : items) s["arrays"][0][key].push_back(item);
  }
  return s;
}

class CcisimListingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_oSim.load(scenario().dump());
    m_oSim.startRaidcomSession();
    hdstest::writeFile(m_oEnv.horcmDir() + "horcm3300.conf",
                       "HORCM_MON\nhost\t\t3300\t1000           3000\n\nHORCM_CMD\n"
                       "\\\\.\\CMD-412345:/dev/sdc \nHORCM_LDEVG\nCG1    412345\n");
    ASSERT_EQ(m_oSim.run("horcmstart.sh", {"3300"}).exitCode, 0);
  }

  // A raidcom command line, or another tool's blank-separated arguments.
  hdstest::ToolResult call(const std::string& tool, const std::string& args) const {
    if (tool == "raidcom") return m_oSim.raidcom(args);
    return m_oSim.run(tool, lineWords(args));
  }

  hdstest::TestEnv m_oEnv;
  SimArray m_oSim{m_oEnv};
};

// One data row of each table (and how many rows it has, where that is telling).
struct Listing {
  const char* tool;
  const char* args;
  size_t row;
  const char* words;
  size_t rowCount = 0;
};

TEST_F(CcisimListingTest, TablesReadBackByColumns) {
  const std::vector<Listing> listings = {
      {"raidcom", "get port", 0, "CL1-A FIBRE TAR AUT E8 Y PtoP Y 0 412345 50060e8012abcd00 -", 4},
      {"raidcom", "get port", 3, "CL3-B FIBRE MCU 32G E4 Y FCAL N 0 412345 50060e8012abcd20 -"},
      {"raidcom", "get port -port CL1-A", 1, "CL1-A 10000090fa1b2c3e 412345 -", 2},
      {"raidcom", "get host_grp -port CL3-B-5", 0, "CL3-B 5 esx cluster 7 412345 VMWARE_EX 54 63",
       1},
      {"raidcom", "get hba_wwn -port CL3-B-5", 0,
       "CL3-B 5 esx cluster 7 10000090fa000001 412345 esx01_p0", 1},
      {"raidcom", "get lun -port CL3-B 'esx cluster 7'", 1,
       "CL3-B 5 VMWARE_EX 13 1 200 - 412345 54 63", 2},
      {"raidcom", "get host_grp -port CL3-B -key detail", 5,
       "CL3-B 5 0 \"esx cluster 7\" 412345 VMWARE_EX 54:63", 255},
      {"raidcom", "get ldev -ldev_id 100 -cnt 1 -key front_end", 0,
       "412345 100 0 0 OPEN-V-CVS 2097152 0 CVS:HDP:UR 1 CL3-B-5:12:esx cluster 7", 1},
      {"raidcom", "get ldev -ldev_list undefined -cnt 2 -key front_end", 1,
       "412345 1 - - NOT DEFINED - - - -"},
      {"raidcom", "get resource", 1, "backup rsg 3 Locked bkpadmin Storage Navigator 412345", 2},
      {"raidcom", "get resource", 0, "meta_resource 0 Unlocked - - 412345"},
      {"raidcom", "get resource -key opt", 1, "backup rsg 3 412399 M850M3 Y 412345"},
      {"raidcom", "get pool -key opt", 1, "001 POLN 3 ti_pool_01 412345 1 8004 80 - OPEN N HTI", 2},
      {"raidcom", "get device_grp", 1, "DG_S 412345", 2},
      {"raidcom", "get device_grp -device_grp_name DG_S", 0, "DG_S Pair_100 200 412345", 1},
      {"raidcom", "get copy_grp", 0, "CG1 DG_P h1 4 412345", 2},
      {"raidcom", "get copy_grp", 1, "CG1 DG_S - - 412345"},
      {"raidcom", "get snapshot", 0, "nightly - - 412345 - - - - - ---- -", 1},
      {"raidcom", "get snapshot -snapshotgroup nightly", 0,
       "nightly P-VOL PSUS 412345 101 3 201 1 100 G--- 6553f100", 1},
      {"raidcom", "get snapshot -ldev_id 201", 0,
       "nightly S-VOL SSUS 412345 201 3 101 1 100 G--- 6553f100"},
      {"raidscan", "-p CL3-B-5 -CLI -m 1 -IH3532 -s 412345", 1,
       "CL3-B-5 ef 0 0 13 1 412345 1 - 200 S-VOL PAIR ASYNC 412345 100 UR", 2},
      {"raidscan", "-p CL3-B-5 -CLI -IH3532", 0,
       "CL3-B-5 ef 0 0 12 0 412345 1 - 100 SMPL - - - ---- -"},
      {"pairdisplay", "-g CG1 -fc -CLI -IH3300", 1,
       "CG1 Pair_100 R CL3-B-5 0 13 1 412345 200 S-VOL PAIR 100 100 -", 2},
      {"pairsyncwait", "-g CG1 -nowait -IH3300", 0, "0 0 0100000001 NOWAIT 0", 1}};
  for (const Listing& l : listings) {
    std::vector<Words> table = rows(call(l.tool, l.args));
    if (l.rowCount != 0) {
      EXPECT_EQ(table.size(), l.rowCount) << l.tool << " " << l.args;
    }
    ASSERT_GT(table.size(), l.row) << l.tool << " " << l.args;
    EXPECT_EQ(table[l.row], lineWords(l.words)) << l.tool << " " << l.args;
  }
  EXPECT_EQ(m_oSim.raidcom("get snapshot -ldev_id 102").out, "");
  std::vector<Words> byDevice = rows(call("raidscan", "-CLI -pdg \\.CMD-412345:/dev/sdc -IM3532"));
  ASSERT_FALSE(byDevice.empty());
  EXPECT_EQ(byDevice[0][0], "CL1-A-1");
}

TEST_F(CcisimListingTest, LdevRecordsAndCommandStatus) {
  // "KEY : VALUE" lines, compared by their blank-separated words.
  std::set<Words> ldev;
  for (const std::string& line : outputLines(m_oSim.raidcom("get ldev -ldev_id 200").out)) {
    ldev.insert(lineWords(line));
  }
  for (const char* expected :
       {"Serial# : 412345", "LDEV : 200 VIR_LDEV : 900", "VOL_TYPE : OPEN-V-CVS",
        "VOL_Capacity(BLK) : 2097152", "NUM_PORT : 1", "PORTs : CL3-B-5 13 esx cluster 7",
        "VOL_ATTR : CVS : HDP : UR", "B_POOLID : 0", "LDEV_NAMING : snap_200", "RSGID : 3"}) {
    EXPECT_EQ(ldev.count(lineWords(expected)), 1u) << expected;
  }

  std::string three = m_oSim.raidcom("get ldev -ldev_id 114 -cnt 3").out;
  EXPECT_EQ(outputLines(three).size(), 2 * 33 + 7 + 2u);  // two defined, one undefined, two blank
  EXPECT_NE(three.find("LDEV : 116\nSL : -\nCL : -\nVOL_TYPE : NOT DEFINED\n"), std::string::npos);

  m_oSim.raidcom("add ldev -pool 1 -ldev_id 300 -capacity 1G");
  std::vector<Words> status = rows(m_oSim.raidcom("get command_status"));
  ASSERT_EQ(status.size(), 1u);
  EXPECT_EQ(Words(status[0].begin() + 1, status[0].begin() + 5),
            (Words{"2e11", "0008", "1", "412345"}));
}

}  // namespace
