// LDEV queries, S-VOLs, device groups and snapshot groups against the simulated array, each
// handler in a child process, because handlers keep per-process caches.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hds/common/HDSConstants.h"
#include "hds/platform/ZoSleep.h"
#include "tests/support/FakeTools.h"
#include "tests/support/ProcessHelpers.h"
#include "tests/support/RaidcomKit.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/ToolRun.h"

namespace {

using hdstest::expectInChild;
using hdstest::failing;
using hdstest::SimArray;

const int kPairs = 64;
const char kSvolGroup[] = "KS_DEV_S_job1";
const char kPvolGroup[] = "KS_DEV_P_job1";
const char kSnapshotGroup[] = "KS_SNAP_job1";
const char kRejected[] =
    "raidcom: [EX_CMDRJE] An order to the control/command device was rejected\n";

using Calls = std::vector<std::string>;

// The default array with 64 P-VOLs (LDEVs 100-163) and a virtual storage machine's group.
std::string scenario() {
  nlohmann::json s = nlohmann::json::parse(SimArray::defaultScenario());
  nlohmann::json& array = s["arrays"][0];
  for (nlohmann::json& ldev : array["ldevs"]) {
    if (ldev.value("id", 0) == 100) ldev["count"] = kPairs;
  }
  array["resource_groups"].push_back(
      {{"id", 5}, {"name", "vsm_rg"}, {"virtual_serial", "512345"}, {"virtual_type", "M850M3"}});
  return s.dump();
}

// P-VOLs from 100 on, S-VOLs from firstSvol on, each with a virtual id from 7000 on.
std::map<std::string, hdsLdev_t> newPairs(int count, int firstSvol) {
  std::map<std::string, hdsLdev_t> pairs;
  for (int i = 0; i < count; ++i) {
    hdsLdev_t svol;
    svol.ldevId = std::to_string(firstSvol + i);
    svol.capacity = 2097152;
    svol.virtualLdevId = std::to_string(7000 + i);
    pairs[std::to_string(100 + i) + VT_HDS_PAIR_SEPARATOR + svol.ldevId] = svol;
  }
  return pairs;
}

class ReplicationOnSim : public ::testing::Test {
 protected:
  ReplicationOnSim() : sim(env, scenario()), before(hdstest::arrayState(sim)) {
    hdstest::writeRaidcomSettings(env);
  }
  std::unique_ptr<hdstest::RaidcomProbe> handler(bool vsm = false) {
    return hdstest::raidcomHandler(log, vsm ? "vsm_rg" : "");
  }
  Calls calls(const std::string& verb, const std::string& object) const {
    return hdstest::simCalls(sim, {verb, object});
  }

  hdstest::TestEnv env;
  SimArray sim;
  const std::string before;
  hdstest::RecordingSnapInfo log;
};

TEST_F(ReplicationOnSim, SnapshotJobOf64PairsLeavesNothingBehind) {
  expectInChild([&] {
    // The whole job, session and handler included, leaves no descriptor and no child.
    hdstest::NoLeaks noLeaks;
    {
      auto h = handler();
      const auto pairs = newPairs(kPairs, 1000);
      ASSERT_EQ(h->createSvol(pairs, "0"), 0u) << h->errorText();
      ASSERT_EQ(h->addVolsToDeviceGroup(pairs, kSvolGroup, kPvolGroup), 0) << h->errorText();
      std::vector<hdsLdev_t> members;
      ASSERT_EQ(h->getVolsInDeviceGroup(members, kSvolGroup), 0);
      ASSERT_EQ(members.size(), static_cast<size_t>(kPairs));
      EXPECT_EQ(members[5].deviceName, "Pair_105");
      EXPECT_EQ(members[5].ldevId, "1005");

      ASSERT_EQ(h->addToSnapshotGroup(pairs, "1", kSnapshotGroup, false, false), 0)
          << h->errorText();
      const char* const steps[][2] = {{VT_HDS_SNAP_OP_CREATE, "PSUS"},
                                      {VT_HDS_SNAP_OP_RESYNC, "PAIR"},
                                      {VT_HDS_SNAP_OP_SPLIT, "PSUS"},
                                      {VT_HDS_SNAP_OP_RESTORE, "PAIR"}};
      for (const auto& [operation, status] : steps) {
        ASSERT_EQ(h->operateOnSnapshotGroup(kSnapshotGroup, "", operation), 0) << h->errorText();
        std::vector<hdsSnapshotGroupInfo> listed;
        ASSERT_EQ(h->getSnapshotGroupInfo(listed, kSnapshotGroup), 0);
        ASSERT_EQ(listed.size(), static_cast<size_t>(kPairs));
        for (const auto& pair : listed) EXPECT_EQ(pair.pairStatus, status) << pair.ldevId;
      }
      for (int i = 0; i < kPairs; ++i) ASSERT_EQ(h->deleteSnapshot(std::to_string(100 + i)), 0);
      ASSERT_EQ(h->deleteDeviceGroup(kPvolGroup), 0) << h->errorText();
      ASSERT_EQ(h->deleteAllSvolsInDeviceGroup(kSvolGroup), 0) << h->errorText();
    }
    EXPECT_EQ(noLeaks.leaks(), "");
  });
  EXPECT_EQ(hdstest::arrayState(sim), before);
}

TEST_F(ReplicationOnSim, VirtualisationIsUndoneOnFailureAndReleasedOnDeletion) {
  // The first LDEV's virtual id is refused twice before it is taken; the third cannot be made.
  sim.addFault(failing("^map resource -ldev_id 2000 ", 221, kRejected, 2));
  sim.addFault(failing("add ldev .*-ldev_id 2002", 221, kRejected));
  expectInChild([&] {
    ZoSetTimeScale(0.001);
    auto h = handler(true);
    EXPECT_EQ(h->createSvol(newPairs(5, 2000), "0"), 1u);
    EXPECT_EQ(h->errorText(), "Failed to create ldev.");
    EXPECT_TRUE(log.contains(
        "Failed to virtualize LDEV-[2000] in resource group-[vsm_rg]. Retry-[2/5]...", 2));
    EXPECT_FALSE(log.contains("Retry-[3/5]"));

    // A virtualised S-VOL is released from the machine before it is deleted.
    ASSERT_EQ(h->createSvol(newPairs(1, 3000), "0"), 0u) << h->errorText();
    std::vector<hdsLdev_t> ldevs(1);
    ldevs[0].ldevId = "3000";
    ldevs[0].serialNumber = SimArray::kSerial;
    ASSERT_EQ(h->getLdevInfo(ldevs), 0);
    EXPECT_EQ(ldevs[0].virtualLdevId, "7000");
    EXPECT_EQ(ldevs[0].resourceGroupId, 5);
    EXPECT_EQ(h->deleteSvol("3000"), 0u) << h->errorText();
  });
  // Phases: own id off, into the group, virtual id on; undone newest first.
  const Calls unmaps = calls("unmap", "resource");
  EXPECT_EQ(Calls(unmaps.begin(), unmaps.begin() + 4),
            (Calls{"-ldev_id 2000 -virtual_ldev_id 7000", "-ldev_id 2001 -virtual_ldev_id 7001",
                   "-ldev_id 2001 -virtual_ldev_id 7001", "-ldev_id 2000 -virtual_ldev_id 7000"}));
  const Calls maps = calls("map", "resource");
  EXPECT_EQ(Calls(maps.begin(), maps.begin() + 6),
            (Calls{"-ldev_id 2000 -virtual_ldev_id 7000", "-ldev_id 2000 -virtual_ldev_id 7000",
                   "-ldev_id 2000 -virtual_ldev_id 7000", "-ldev_id 2001 -virtual_ldev_id 7001",
                   "-ldev_id 2001 -virtual_ldev_id 2001", "-ldev_id 2000 -virtual_ldev_id 2000"}));
  EXPECT_EQ(calls("add", "resource").size(), 3u);
  const Calls creations = calls("add", "ldev");
  EXPECT_EQ(creations.size(), 3u + 1u);
  EXPECT_EQ(creations[0], "-pool 0 -mp_blade_id 0 -ldev_id 2000 -capacity 2097152");
  EXPECT_EQ(hdstest::arrayState(sim), before);
}

TEST_F(ReplicationOnSim, LdevQueriesAndRefusals) {
  sim.addFault(failing("get ldev -ldev_list undefined", 246, ""));
  sim.addFault(failing("get ldev -ldev_id 65279", 253, ""));
  const std::string cause = std::string(kRejected) + "CAUSE : LDEV is not installed.\n";
  sim.addFault(failing("add device_grp", 221, cause, 2));
  sim.addFault(failing("add snapshot", 221, cause));
  expectInChild([&] {
    ZoSetTimeScale(0.001);
    auto h = handler();
    std::vector<hdsLdev_t> ldevs;
    ASSERT_EQ(h->getLdevlList(ldevs, {{VT_HDS_LDEV_FILTER_CU, "0"}}), 0);
    ASSERT_EQ(ldevs.size(), 256u);
    EXPECT_EQ(ldevs[0].volType, "NOTDEFINED");
    EXPECT_EQ(ldevs[100].label, "data_100");
    ldevs.clear();
    EXPECT_EQ(h->getLdevlList(ldevs, {{VT_HDS_LDEV_FILTER_UNDEFINED, ""}}), 0);
    EXPECT_TRUE(ldevs.empty());

    // The array's type (R9) allows 65279, but the probe of that number is refused.
    int maxLdev = 0;
    EXPECT_EQ(h->getMaxLdevNumber(maxLdev), 0);
    EXPECT_EQ(maxLdev, 16383);
    EXPECT_EQ(h->getMaxLdevNumber(maxLdev), 0);
    EXPECT_EQ(maxLdev, 65279);

    // A refusal carries its cause into the error.
    auto pairs = newPairs(1, 1000);
    EXPECT_EQ(h->addVolsToDeviceGroup(pairs, kSvolGroup, kPvolGroup), 1);
    EXPECT_EQ(h->errorText(), " LDEV is not installed.\n-Failed to add SVOLs to device group " +
                                  std::string(kSvolGroup));
    pairs.begin()->second.isCloneTarget = true;
    EXPECT_EQ(h->addToSnapshotGroup(pairs, "1", kSnapshotGroup, true, false), 1);
    EXPECT_EQ(h->errorText(),
              "Failed to add snapshot-<LDEV-[1000], Pool-[1], Mode-[ CTG  cascade ], "
              "SnapshotGroup-[KS_SNAP_job1]>. Error-[ LDEV is not installed.]");
    EXPECT_EQ(h->operateOnSnapshotGroup("", "", VT_HDS_SNAP_OP_SPLIT), 1);
  });
  EXPECT_EQ(calls("get", "ldev")[0], "-ldev_id 0 -cnt 256");
  EXPECT_EQ(calls("add", "snapshot")[0],
            "-ldev_id 100 1000 -pool 1 -snapshotgroup KS_SNAP_job1 -snap_mode CTG cascade");
  EXPECT_TRUE(calls("modify", "snapshot").empty());
}

}  // namespace
