// Ports, host groups, LU paths, resource groups, copy groups and pair information against ccisim,
// each in a child process, because handlers keep per-process caches.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "hds/helper/CommandHelper.h"
#include "hds/platform/ZoSleep.h"
#include "tests/support/FakeTools.h"
#include "tests/support/RaidcomKit.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/ToolRun.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using hdstest::arrayState;
using hdstest::expectInChild;
using hdstest::failing;
using hdstest::SimArray;
using hdstest::simCalls;
using nlohmann::json;

// The default array, plus: CL1-A listed once per attribute; LDEV 120 under virtual id 2120 in
// the virtual storage machine "backup rsg"; host group CL2-A-3 presenting LDEVs 100-102 and 110;
// remote pairs of 100 and 101 on mirror units 0 (complete), 1 (partial) and 2 (101 suspended).
std::string scenario() {
  json s = json::parse(SimArray::defaultScenario());
  json& a = s["arrays"][0];
  a["ports"][0]["attr"] = "TAR MCU";
  a["resource_groups"].push_back(
      {{"id", 3}, {"name", "backup rsg"}, {"virtual_serial", "512345"}, {"virtual_type", "R9"}});
  a["ldevs"].push_back(
      {{"id", 120}, {"capacity", 2097152}, {"pool", 0}, {"rsgid", 3}, {"virtual_id", 2120}});
  a["ports"][1]["host_groups"].push_back(json::parse(R"({"gid": 3, "name": "prod hosts", "luns":
      [{"lun": 0, "ldev": 100}, {"lun": 1, "ldev": 101}, {"lun": 2, "ldev": 102},
       {"lun": 10, "ldev": 110}]})"));
  a.update(json::parse(R"({
    "device_groups": [{"name": "KS_DEV_S_1", "members": [{"device": "d104", "ldev": 104}]},
                      {"name": "KS_DEV_P_1", "members": [{"device": "d106", "ldev": 106}]}],
    "pairs": [{"pvol": 100, "svol": 200, "mirror": 0, "kind": "HORC", "status": "PAIR"},
              {"pvol": 101, "svol": 201, "mirror": 0, "kind": "HORC", "status": "PAIR"},
              {"pvol": 100, "svol": 210, "mirror": 1, "kind": "GAD", "status": "PAIR"},
              {"pvol": 100, "svol": 220, "mirror": 2, "kind": "HORC", "status": "PAIR"},
              {"pvol": 101, "svol": 221, "mirror": 2, "kind": "HORC", "status": "PSUS"},
              {"pvol": 102, "svol": 110, "mirror": 0, "kind": "MRCF", "status": "PAIR",
               "svol_serial": "412345"}]})"));
  for (json& pair : a["pairs"]) {
    if (pair["kind"] != "MRCF") pair.update({{"svol_serial", "412346"}, {"fence", "NEVER"}});
  }
  return s.dump();
}

class RaidcomPresentation : public ::testing::Test {
 protected:
  RaidcomPresentation() : sim(env, scenario()) { hdstest::writeRaidcomSettings(env); }
  std::unique_ptr<hdstest::RaidcomProbe> handler(const std::string& resourceGroup = "") {
    return hdstest::raidcomHandler(log, resourceGroup);
  }

  hdstest::TestEnv env;
  hdstest::RecordingSnapInfo log;
  SimArray sim;
};

TEST_F(RaidcomPresentation, PresentAndWithdrawLeavesTheArrayAsItWas) {
  const std::string before = arrayState(sim);
  expectInChild([&] {
    auto h = handler();
    std::string cmdGroup;
    ASSERT_EQ(h->getHostGroupOfCommandDevice(cmdGroup), 0);
    EXPECT_EQ(cmdGroup, "CL1-A-1");

    // Asked for in lower case, created once under its own name, found again by any case.
    std::string hg = "ks_pre_snap_host_group";
    ASSERT_EQ(h->findHostGroup("CL1-A", hg), 0) << h->errorText();
    EXPECT_EQ(hg, "2");
    EXPECT_TRUE(log.contains("Pre snap host group [ks_pre_snap_host_group] doesn't exist", 2));
    std::string again = "KS_PRE_SNAP_HOST_GROUP";
    ASSERT_EQ(h->findHostGroup("CL1-A", again), 0);
    EXPECT_EQ(again, "2");

    ASSERT_EQ(h->addWWNToHostGroup("CL1-A", hg, "10000090fa1b2c3e"), 0) << h->errorText();
    hdsPort_t withWwn;
    ASSERT_EQ(h->getPortHostGroupList("CL1-A", "", withWwn, true, "10000090fa1b2c3e", false), 0);
    ASSERT_EQ(withWwn.hostGroups.size(), 1u);
    EXPECT_EQ(withWwn.hostGroups[0].hostGroupName, "KS_PRE_SNAP_HOST_GROUP");

    ASSERT_EQ(h->addCopyGroup("KS_CG_1", "KS_DEV_P_1", "KS_DEV_S_1", 0), 0) << h->errorText();
    std::vector<hdsCopyGroup_t> groups;
    ASSERT_EQ(h->getCopyGroup(groups, "KS_CG_1"), 0);
    ASSERT_EQ(groups.size(), 2u);
    EXPECT_EQ(groups[0].mirrorUnit, 0);
    ASSERT_EQ(h->deleteCopyGroup("KS_CG_1"), 0) << h->errorText();

    ASSERT_EQ(h->deleteHostGroup("CL1-A", hg), 0) << h->errorText();

    EXPECT_EQ(h->mapLdevToHostGroup("100", "CL2-A", "3"), 0);
    EXPECT_TRUE(log.contains("Ldev [100] is already mapped to host group [CL2-A-3]", 2));
    EXPECT_EQ(h->errorCode(), 0);

    for (const auto& [cause, code] :
         std::vector<std::pair<std::string, int>>{{"LU is executing host I/O", 2},
                                                  {"It is the last path of Snapshot", 3},
                                                  {"Other", 62601}}) {
      sim.addFault(
          failing("delete lun", 221, "raidcom: [EX_CMDRJE] rejected\nCAUSE : " + cause + ".\n"));
      EXPECT_EQ(h->unmapLdevFromHostGroup("100", "CL2-A", "3"), 1);
      EXPECT_EQ(h->errorCode(), code) << cause;
      EXPECT_EQ(h->errorText(), "Failed to unmap ldev 100 from host group CL2-A 3");
    }

    EXPECT_EQ(h->unmapLdevFromHostGroup("100", "CL2-A", "3"), 0);
    EXPECT_EQ(h->unmapLdevFromHostGroup("100", "CL2-A", "3"), 0);  // exit 205: already gone
    EXPECT_TRUE(log.contains("Ldev [100] is already unmapped from host group [CL2-A-3]", 2));
    EXPECT_EQ(h->mapLdevToHostGroup("100", "CL2-A", "3"), 0);
  });
  EXPECT_EQ(simCalls(sim, {"add", "host_grp"}).size(), 1u);
  EXPECT_EQ(arrayState(sim), before);
}

TEST_F(RaidcomPresentation, HostGroupsJoinTheResourceGroupOrAreDeletedAgain) {
  sim.addFault(failing("add resource.*KS_X", 221, "raidcom: [EX_CMDRJE] rejected\n"));
  expectInChild([&] {
    auto h = handler("backup rsg");
    ASSERT_EQ(h->createHostGroup("CL2-A", "esx cluster 7"), 0) << h->errorText();
    // Limited to the handler's group, only the new host group is listed.
    hdsPort_t own;
    ASSERT_EQ(h->getPortHostGroupList("CL2-A", "", own, false, "", true), 0) << h->errorText();
    ASSERT_EQ(own.hostGroups.size(), 1u);
    EXPECT_EQ(own.hostGroups[0].hostGroupName, "esx cluster 7");

    EXPECT_EQ(h->createHostGroup("CL2-A", "KS_X"), 1);
    EXPECT_EQ(h->errorCode(), 62601);
    EXPECT_EQ(h->errorText(), "Failed to create host group CL2-A KS_X");
    EXPECT_TRUE(
        log.contains("Failed to move host group [CL2-A-KS_X] to resource group [backup rsg]", 2));
    // In meta_resource nothing is moved; how long a name may be is the array's to judge.
    handler()->createHostGroup("CL2-A", std::string(33, 'L'));
  });
  EXPECT_EQ(simCalls(sim, {"add", "resource"}),
            (std::vector<std::string>{"-resource_name 'backup rsg' -port CL2-A 'esx cluster 7'",
                                      "-resource_name 'backup rsg' -port CL2-A KS_X"}));
  EXPECT_EQ(simCalls(sim, {"delete", "host_grp"}), std::vector<std::string>{"-port CL2-A KS_X"});
  EXPECT_EQ(simCalls(sim, {"add", "host_grp"}).back(),
            "-port CL2-A -host_grp_name " + std::string(33, 'L'));
  EXPECT_THAT(sim.dump(), Not(HasSubstr("KS_X")));
}

TEST_F(RaidcomPresentation, LdevLeavesTheVirtualStorageMachineInOrderUnderItsLock) {
  expectInChild([&] {
    ZoSetTimeScale(0.001);  // the failed lock waits its rounds in milliseconds
    auto h = handler("backup rsg");
    {
      VTHDSLock held(log, "VT_HDS_VSM_OP_LOCK_412345", 0);
      ASSERT_TRUE(held.isLocked());
      EXPECT_EQ(h->unreserveFromVSM("120", "2120", VT_HDS_RESOURCE_TYPE_LDEV), 1);
      EXPECT_EQ(h->errorText(),
                "Failed to acquire mutex-[VT_HDS_VSM_OP_LOCK_412345] to un-reserve [120] from VSM");
    }
    // While the first command runs, nobody else gets the lock.
    sim.addFault(hdstest::delayed("unmap resource", 1500));
    bool heldMeanwhile = false;
    std::thread probe([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      VTHDSLock other(log);
      heldMeanwhile = !other.lock("VT_HDS_VSM_OP_LOCK_412345", 1);
    });
    EXPECT_EQ(h->unreserveFromVSM("120", "2120", VT_HDS_RESOURCE_TYPE_LDEV), 0) << h->errorText();
    probe.join();
    EXPECT_TRUE(heldMeanwhile);
  });
  std::vector<std::string> moves;
  for (const std::string& call : simCalls(sim, {})) {
    if (call.find("resource -") != std::string::npos) moves.push_back(call);
  }
  EXPECT_EQ(moves,
            (std::vector<std::string>{"unmap resource -ldev_id 120 -virtual_ldev_id 2120",
                                      "delete resource -resource_name 'backup rsg' -ldev_id 120",
                                      "map resource -ldev_id 120 -virtual_ldev_id 120"}));
}

TEST_F(RaidcomPresentation, UsableMirrorUnitsOfRemotePairs) {
  expectInChild([&] {
    auto h = handler();
    std::vector<hdsLdev_t> ldevs;
    for (const char* id : {"100", "101"}) ldevs.emplace_back().ldevId = id;
    std::map<int, std::vector<hdsPairStatus_t>> pairs;
    std::vector<int> mus;
    ASSERT_EQ(h->getRemoteReplicationInfo("CL2-A-3", ldevs, pairs, mus), 0) << h->errorText();
    EXPECT_EQ(mus, std::vector<int>{0});
    EXPECT_EQ(pairs[0].size(), 2u);
    EXPECT_EQ(pairs[1].size(), 1u);
    EXPECT_TRUE(log.contains("MU [2] will not be used as PVOL [101] is not in PAIR state.", 2));
    EXPECT_TRUE(log.contains(
        "Only [1] valid SVOLs are found in mirror [1] for [2] pvols, need to add more pairs", 1));

    log.setReplicationType(4);
    mus.clear();
    ASSERT_EQ(h->getRemoteReplicationInfo("CL2-A-3", ldevs, pairs, mus), 0);
    EXPECT_EQ(mus, (std::vector<int>{0, 1}));

    // Locally only the in-system pair of 102 shows; its S-VOL 110 is on the same host group.
    for (const char* id : {"102", "110"}) ldevs.emplace_back().ldevId = id;
    ASSERT_EQ(h->getPairInfoForHostGroup("CL2-A-3", ldevs, pairs), 0) << h->errorText();
    ASSERT_EQ(pairs.size(), 1u);
    ASSERT_EQ(pairs[0].size(), 1u);
    EXPECT_EQ(pairs[0][0].ldevId, "102");
  });
}

}  // namespace
