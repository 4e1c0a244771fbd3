// The pair handler against the simulated array: a copy group taken through its whole life.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "hds/cci/CCICommandHandler.h"
#include "tests/support/FakeTools.h"
#include "tests/support/RaidcomKit.h"
#include "tests/support/RecordingSnapInfo.h"

namespace {

using nlohmann::json;

// pairdisplay's records, each as "group device ldev->partner P status" or "... S".
std::set<std::string> displayed(CCICommandHandler& handler) {
  std::vector<hdsCopyGroupInfo> records;
  EXPECT_EQ(handler.pairDisplay(records), 0);
  std::set<std::string> sides;
  for (const hdsCopyGroupInfo& r : records) {
    sides.insert(r.copyGroupName + " " + r.pairVolName + " " + r.ldevId + "->" + r.partnerLdevId +
                 (r.isPrimary == 1 ? " P " + r.pairStatus : " S"));
  }
  return sides;
}

TEST(CciSimWalk, CopyGroupFromCreateToSimplex) {
  hdstest::expectInChild([] {
    hdstest::TestEnv env;
    json scenario = json::parse(hdstest::SimArray::defaultScenario());
    scenario["arrays"][0].update(json::parse(R"({"device_groups": [
      {"name": "DG_P", "members": [{"device": "Pair_1", "ldev": 100}, {"device": "Pair_2", "ldev": 101}]},
      {"name": "DG_S", "members": [{"device": "Pair_1", "ldev": 110}, {"device": "Pair_2", "ldev": 111}]}],
      "copy_groups": [{"name": "CG1", "pvol_group": "DG_P", "svol_group": "DG_S"}]})"));
    hdstest::SimArray sim(env, scenario.dump());
    sim.setTimings(/*copyMs=*/300);
    hdstest::writeRaidcomSettings(env);
    hdstest::RecordingSnapInfo log;
    HDSCLIInitParam param;
    param.serialNumber = hdstest::SimArray::kSerial;
    param.copyGroupName = "CG1";
    CCICommandHandler handler(log, param, "-1", "-1");
    ASSERT_EQ(handler.CheckIfCommandDeviceExist(), 0) << log.dump();
    handler.setDeviceGroups("DG_P", "DG_S");
    ASSERT_EQ(handler.startHorcm(), 0) << log.dump();
    const std::vector<std::string> instances = {handler.getInstance(), handler.getPeerInstance()};

    // Each step reaches its status on the array, and pairdisplay reads it back on both sides.
    auto reach = [&](int result, const std::string& status, const std::string& device = "") {
      ASSERT_EQ(result, 0) << log.dump();
      ASSERT_EQ(handler.pairEvtWait(status, 30, device), 0) << status << log.dump();
      const std::string second = device.empty() ? status : "PAIR";
      EXPECT_EQ(
          displayed(handler),
          (std::set<std::string>{"CG1 Pair_1 100->110 P " + status, "CG1 Pair_1 110->100 S",
                                 "CG1 Pair_2 101->111 P " + second, "CG1 Pair_2 111->101 S"}));
    };
    reach(handler.pairCreate(false, ""), "PAIR");
    reach(handler.pairSplit("", false, false), "PSUS");
    reach(handler.pairResync("", false, false), "PAIR");
    reach(handler.pairSplit("Pair_1", false, true), "PSUS", "Pair_1");
    reach(handler.pairResync("Pair_1", true, false), "PAIR");

    ASSERT_EQ(handler.pairSplit("", true, false), 0) << log.dump();
    std::vector<hdsCopyGroupInfo> records;
    ASSERT_EQ(handler.pairDisplay(records), 0);
    EXPECT_FALSE(records.empty());
    for (const hdsCopyGroupInfo& r : records) EXPECT_EQ(r.pairStatus, "SMPL") << r.ldevId;
    EXPECT_TRUE(json::parse(sim.dumpJson())["arrays"][0]["pairs"].empty());

    EXPECT_EQ(handler.stopHorcm(), 0);
    EXPECT_EQ(handler.getInstance() + handler.getPeerInstance(), "-1-1");
    const std::string state = sim.dump();
    for (const std::string& instance : instances) {
      EXPECT_FALSE(hdstest::pathExists(env.horcmDir() + "horcm" + instance + ".conf"));
      EXPECT_EQ(state.find("instance " + instance + " "), std::string::npos) << state;
    }
  });
}

}  // namespace
