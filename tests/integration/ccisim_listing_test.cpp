// The listings no library test reads on the simulator parse back, by the blank-separated columns
// readers use, to the objects the scenario put in.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/SimArray.h"

namespace {

using hdstest::lineWords;
using hdstest::outputLines;
using hdstest::SimArray;
using nlohmann::json;

TEST(CcisimListingTest, TablesReadBackByColumns) {
  hdstest::TestEnv env;
  SimArray sim(env);
  json s = json::parse(SimArray::defaultScenario());
  s["arrays"][0]["ports"].push_back(json::parse(R"({"name": "CL3-B", "type": "FIBRE",
    "attr": "TAR MCU", "speed": "32G", "lpid": "E4", "conn": "FCAL", "ssw": "N",
    "wwn": "50060e8012abcd20", "host_groups": [{"gid": 5, "name": "esx cluster 7",
    "host_mode": "VMWARE_EX", "host_mode_options": [54, 63], "luns": [{"lun": 12, "ldev": 100}]}]})"));
  sim.load(s.dump());
  sim.startRaidcomSession();
  // One data row of each table, and how many rows it has.
  struct Listing {
    const char* args;
    size_t row;
    const char* words;
    size_t rowCount;
  };
  for (const Listing& l : std::vector<Listing>{
           {"get host_grp -port CL3-B -key detail", 5,
            "CL3-B 5 0 \"esx cluster 7\" 412345 VMWARE_EX 54:63", 255},
           {"get ldev -ldev_id 100 -cnt 1 -key front_end", 0,
            "412345 100 0 0 OPEN-V-CVS 2097152 0 CVS:HDP 1 CL3-B-5:12:esx cluster 7", 1},
           {"get ldev -ldev_list undefined -cnt 2 -key front_end", 1,
            "412345 1 - - NOT DEFINED - - - -", 2}}) {
    hdstest::ToolResult r = sim.raidcom(l.args);
    EXPECT_EQ(r.exitCode, 0) << l.args << ": " << r.err;
    const std::vector<std::string> lines = outputLines(r.out);
    EXPECT_EQ(lines.size(), l.rowCount + 1) << l.args;
    ASSERT_GT(lines.size(), l.row + 1) << l.args;
    EXPECT_EQ(lineWords(lines[l.row + 1]), lineWords(l.words)) << l.args;
  }
}

}  // namespace
