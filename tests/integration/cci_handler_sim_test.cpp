// The pair handler against the simulated array: a copy group taken through its whole life.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hds/cci/CCICommandHandler.h"
#include "tests/support/FakeTools.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/SimArray.h"
#include "tests/support/TestEnv.h"

namespace {

using nlohmann::json;

// The default array with copy group CG1 pairing LDEVs 100 and 101 with 110 and 111.
std::string copyGroupScenario() {
  json scenario = json::parse(hdstest::SimArray::defaultScenario());
  scenario["arrays"][0].update(json::parse(R"({"device_groups": [
    {"name": "DG_P", "members": [{"device": "Pair_1", "ldev": 100},
                                 {"device": "Pair_2", "ldev": 101}]},
    {"name": "DG_S", "members": [{"device": "Pair_1", "ldev": 110},
                                 {"device": "Pair_2", "ldev": 111}]}],
    "copy_groups": [{"name": "CG1", "pvol_group": "DG_P", "svol_group": "DG_S"}]})"));
  return scenario.dump();
}

// Checks that pairdisplay's records are the simulator's pairs of CG1, seen from both sides, and
// returns the P-VOL status they share.
std::string expectDisplayMatchesArray(CCICommandHandler& handler, const hdstest::SimArray& sim) {
  std::vector<hdsCopyGroupInfo> records;
  EXPECT_EQ(handler.pairDisplay(records), 0);
  const json pairs = json::parse(sim.dumpJson())["arrays"][0]["pairs"];
  EXPECT_EQ(records.size(), 2 * pairs.size());
  std::string status;
  for (const json& pair : pairs) {
    const std::string pvol = std::to_string(pair["pvol"].get<int>());
    const std::string svol = std::to_string(pair["svol"].get<int>());
    int seen = 0;
    for (const hdsCopyGroupInfo& r : records) {
      if (r.ldevId != pvol && r.ldevId != svol) continue;
      ++seen;
      EXPECT_EQ(r.copyGroupName, "CG1");
      EXPECT_EQ(r.pairVolName, pair["device"].get<std::string>());
      EXPECT_EQ(r.isPrimary, r.ldevId == pvol ? 1 : 0);
      EXPECT_EQ(r.partnerLdevId, r.ldevId == pvol ? svol : pvol);
      if (r.isPrimary) EXPECT_EQ(r.pairStatus, pair["status"].get<std::string>());
    }
    EXPECT_EQ(seen, 2) << "LDEV " << pvol;
    status = pair["status"].get<std::string>();
  }
  return status;
}

TEST(CciSimWalk, CopyGroupFromCreateToSimplex) {
  hdstest::expectInChild([] {
    hdstest::TestEnv env;
    hdstest::SimArray sim(env, copyGroupScenario());
    sim.setTimings(/*copyMs=*/300);
    env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + sim.cciDir() +
                      "\nsClientHostName=localhost\n");
    hdstest::RecordingSnapInfo log;
    HDSCLIInitParam param;
    param.serialNumber = hdstest::SimArray::kSerial;
    param.copyGroupName = "CG1";
    CCICommandHandler handler(log, param, "-1", "-1");
    ASSERT_EQ(handler.CheckIfCommandDeviceExist(), 0) << log.dump();
    handler.setDeviceGroups("DG_P", "DG_S");
    ASSERT_EQ(handler.startHorcm(), 0) << log.dump();
    const std::string own = handler.getInstance();
    const std::string peer = handler.getPeerInstance();

    ASSERT_EQ(handler.pairCreate(false, ""), 0) << log.dump();
    ASSERT_EQ(handler.pairEvtWait("PAIR", 30, ""), 0) << log.dump();
    EXPECT_EQ(expectDisplayMatchesArray(handler, sim), "PAIR");

    ASSERT_EQ(handler.pairSplit("", false, false), 0) << log.dump();
    ASSERT_EQ(handler.pairEvtWait("PSUS", 30, ""), 0) << log.dump();
    EXPECT_EQ(expectDisplayMatchesArray(handler, sim), "PSUS");

    ASSERT_EQ(handler.pairResync("", false, false), 0) << log.dump();
    ASSERT_EQ(handler.pairEvtWait("PAIR", 30, ""), 0) << log.dump();
    ASSERT_EQ(handler.pairSplit("Pair_1", false, true), 0) << log.dump();
    ASSERT_EQ(handler.pairEvtWait("PSUS", 30, "Pair_1"), 0) << log.dump();
    ASSERT_EQ(handler.pairResync("Pair_1", true, false), 0) << log.dump();
    ASSERT_EQ(handler.pairEvtWait("PAIR", 30, ""), 0) << log.dump();
    EXPECT_EQ(expectDisplayMatchesArray(handler, sim), "PAIR");

    ASSERT_EQ(handler.pairSplit("", true, false), 0) << log.dump();
    std::vector<hdsCopyGroupInfo> records;
    ASSERT_EQ(handler.pairDisplay(records), 0);
    EXPECT_FALSE(records.empty());
    for (const hdsCopyGroupInfo& r : records) EXPECT_EQ(r.pairStatus, "SMPL") << r.ldevId;
    EXPECT_TRUE(json::parse(sim.dumpJson())["arrays"][0]["pairs"].empty());

    EXPECT_EQ(handler.stopHorcm(), 0);
    EXPECT_EQ(handler.getInstance() + handler.getPeerInstance(), "-1-1");
    EXPECT_FALSE(hdstest::pathExists(env.horcmDir() + "horcm" + own + ".conf"));
    EXPECT_FALSE(hdstest::pathExists(env.horcmDir() + "horcm" + peer + ".conf"));
    const std::string state = sim.dump();
    EXPECT_EQ(state.find("instance " + own + " "), std::string::npos) << state;
    EXPECT_EQ(state.find("instance " + peer + " "), std::string::npos) << state;
  });
}

}  // namespace
