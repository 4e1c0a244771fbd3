// LDEV queries, S-VOLs, device groups and snapshot groups against fake CCI tools: the command
// texts, the retried and undone steps, and the texts raidcom's failures leave in the error. Every
// scenario runs in a child process, because handlers keep per-process caches.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "hds/common/HDSConstants.h"
#include "hds/platform/ZoSleep.h"
#include "tests/support/RaidcomProbe.h"

namespace {

using hdstest::expectInChild;
using hdstest::RaidcomEnv;
using Calls = std::vector<std::string>;

const char kSuffix[] = "[-IM3532][-s][412345]";

std::map<std::string, hdsLdev_t> svols(const std::vector<std::string>& ids,
                                       const std::vector<std::string>& virtualIds = {}) {
  std::map<std::string, hdsLdev_t> pairs;
  for (size_t i = 0; i < ids.size(); ++i) {
    hdsLdev_t ldev;
    ldev.ldevId = ids[i];
    ldev.capacity = 2097152;
    ldev.mpBladeId = 1;
    if (i < virtualIds.size()) ldev.virtualLdevId = virtualIds[i];
    pairs[std::to_string(10 + i) + "->" + ids[i]] = ldev;
  }
  return pairs;
}

// The raidcom calls whose argument vector starts with this verb pair, e.g. "[add][ldev]".
Calls callsOf(const RaidcomEnv& r, const std::string& verb) {
  Calls found;
  for (const std::string& call : r.fakes.calls()) {
    if (call.compare(0, verb.size(), verb) == 0) found.push_back(call);
  }
  return found;
}

class ReplicationHandler : public ::testing::Test {
 protected:
  RaidcomEnv r;
};

TEST_F(ReplicationHandler, CreateSvolUndoesEveryLdevOfAFailedCall) {
  r.fakes.exits("add_ldev", {0, 0, 221});
  expectInChild([&] {
    auto h = r.handler();
    EXPECT_EQ(h->createSvol(svols({"100", "101", "102", "103", "104"}), "5"), 1u);
    EXPECT_EQ(h->errorCode(), 62601);
    EXPECT_EQ(h->errorText(), "Failed to create ldev.");
    EXPECT_TRUE(r.log.contains("Failed to create ldev [102]", 2));
  });
  EXPECT_EQ(callsOf(r, "[add][ldev]").size(), 3u);
  EXPECT_EQ(callsOf(r, "[add][ldev]")[0],
            "[add][ldev][-pool][5][-mp_blade_id][1][-ldev_id][100]"
            "[-capacity][2097152]" +
                std::string(kSuffix));
  EXPECT_EQ(callsOf(r, "[delete][ldev]"),
            (Calls{"[delete][ldev][-ldev_id][100]" + std::string(kSuffix),
                   "[delete][ldev][-ldev_id][101]" + std::string(kSuffix)}));
  EXPECT_TRUE(callsOf(r, "[add][resource]").empty());

  // Told not to pin LDEVs to MP blades, the creation leaves the option out.
  r.settings("[~iHarbor]\nnVTHDSDontUseMPBladeId=1\n");
  expectInChild([&] {
    auto h = r.handler();
    EXPECT_EQ(h->createSvol(svols({"200"}), ""), 0u);
    EXPECT_TRUE(r.log.contains("Registry Key-[nVTHDSDontUseMPBladeId] is set. Value-[1]", 0));
  });
  EXPECT_EQ(callsOf(r, "[add][ldev]").back(),
            "[add][ldev][-ldev_id][200][-capacity][2097152]" + std::string(kSuffix));
}

TEST_F(ReplicationHandler, CreateSvolRetriesVirtualisationThenUndoesIt) {
  // LDEV 100 is virtualised after one refused unmap; LDEV 101 never gets its virtual id.
  r.fakes.exits("unmap_resource", {221});
  r.fakes.exits("map_resource", {0, 221, 221, 221, 221, 221});
  expectInChild([&] {
    ZoSetTimeScale(0.001);
    HDSCLIInitParam p = r.param();
    p.resourceGroupName = "vsm_rg";
    p.isVirtualStorage = true;
    auto h = r.handler(p);
    EXPECT_EQ(h->createSvol(svols({"100", "101"}, {"300", ""}), "5"), 1u);
    EXPECT_EQ(h->errorText(), "Failed to virtualize LDEV-[101]");
    EXPECT_TRUE(r.log.contains(
        "Failed to virtualize LDEV-[100] in resource group-[vsm_rg]. Retry-[1/5]...", 2));
    EXPECT_TRUE(r.log.contains("Retry-[5/5]", 2));
  });
  const std::string rg = "[-resource_name][vsm_rg]";
  EXPECT_EQ(
      callsOf(r, "[unmap][resource]"),
      (Calls{"[unmap][resource][-ldev_id][100][-virtual_ldev_id][300]" + std::string(kSuffix),
             "[unmap][resource][-ldev_id][100][-virtual_ldev_id][300]" + std::string(kSuffix),
             "[unmap][resource][-ldev_id][101][-virtual_ldev_id][101]" + std::string(kSuffix),
             "[unmap][resource][-ldev_id][100][-virtual_ldev_id][300]" + std::string(kSuffix)}));
  EXPECT_EQ(callsOf(r, "[add][resource]").size(), 2u);
  EXPECT_EQ(callsOf(r, "[delete][resource]"),
            (Calls{"[delete][resource]" + rg + "[-ldev_id][101]" + kSuffix,
                   "[delete][resource]" + rg + "[-ldev_id][100]" + kSuffix}));
  // Five refused maps of 101, then both given back their own ids.
  const Calls maps = callsOf(r, "[map][resource]");
  ASSERT_EQ(maps.size(), 8u);
  EXPECT_EQ(maps[6],
            "[map][resource][-ldev_id][101][-virtual_ldev_id][101]" + std::string(kSuffix));
  EXPECT_EQ(maps[7],
            "[map][resource][-ldev_id][100][-virtual_ldev_id][100]" + std::string(kSuffix));
  EXPECT_EQ(callsOf(r, "[delete][ldev]").size(), 2u);
}

TEST_F(ReplicationHandler, DeleteSvolReleasesTheVirtualIdAndToleratesAGoneLdev) {
  r.fakes.output("get_ldev", "Serial#  : 412345\nLDEV : 100 VIR_LDEV : 300\nVOL_TYPE : OPEN-V\n");
  r.fakes.output("delete_ldev",
                 "raidcom: [EX_CMDRJE] An order to the control/command device was rejected\n"
                 "CAUSE : LDEV is not installed.\n");
  r.fakes.exits("delete_ldev", {0, 221, 221});
  expectInChild([&] {
    HDSCLIInitParam p = r.param();
    p.resourceGroupName = "vsm_rg";
    p.isVirtualStorage = true;
    auto h = r.handler(p);
    EXPECT_EQ(h->deleteSvol("100"), 0u);
    EXPECT_EQ(h->deleteSvol("100"), 0u);
    EXPECT_TRUE(r.log.contains("Ldev [100] already deleted.", 1));
    EXPECT_EQ(h->errorCode(), 0);
    // Another LDEV than the one asked for came back: nothing is deleted.
    EXPECT_EQ(h->deleteSvol("101"), 1u);
    EXPECT_TRUE(r.log.contains("Failed to get info for ldev [101]. Got ldev [412345:100]", 2));
  });
  EXPECT_EQ(callsOf(r, "[unmap][resource]").size(), 2u);
  EXPECT_EQ(callsOf(r, "[map][resource]")[0],
            "[map][resource][-ldev_id][100][-virtual_ldev_id][100]" + std::string(kSuffix));
  EXPECT_EQ(callsOf(r, "[delete][ldev]").size(), 2u);
  EXPECT_EQ(callsOf(r, "[get][ldev]").size(), 3u);
}

TEST_F(ReplicationHandler, LdevQueries) {
  r.fakes.exits("get_ldev", {0, 0, 0, 246, 227});
  r.fakes.output("get_resource",
                 "RS_GROUP RGID V_Serial# V_ID V_IF Serial#\n"
                 "meta_resource 0 412345 M850M3 Y 412345\n");
  expectInChild([&] {
    auto h = r.handler();
    std::vector<hdsLdev_t> ldevs;
    EXPECT_EQ(h->getLdevlList(ldevs, {{VT_HDS_LDEV_FILTER_CU, "10"}}), 0);
    EXPECT_EQ(h->getLdevlList(ldevs,
                              {{VT_HDS_LDEV_FILTER_CU, "0a-0b"}, {VT_HDS_LDEV_FILTER_POOLID, "5"}}),
              0);
    EXPECT_EQ(h->getLdevlList(ldevs, {{VT_HDS_LDEV_FILTER_CU, "1"},
                                      {VT_HDS_LDEV_FILTER_UNMAPPED, ""},
                                      {VT_HDS_LDEV_FILTER_DEFINED, ""}}),
              0);
    ldevs.clear();
    EXPECT_EQ(h->getLdevlList(ldevs, {{VT_HDS_LDEV_FILTER_UNDEFINED, ""}}), 0);  // 246: none
    EXPECT_TRUE(ldevs.empty());
    EXPECT_EQ(h->errorCode(), 0);
    EXPECT_EQ(h->getLdevlList(ldevs, {}), 1);
    EXPECT_TRUE(r.log.contains("Failed to get ldev list", 2));

    // The array type of meta_resource bounds the probe; a refused probe falls back.
    int maxLdev = 0;
    EXPECT_EQ(h->getMaxLdevNumber(maxLdev), 0);
    EXPECT_EQ(maxLdev, 49151);
    r.fakes.exits("get_ldev", {227});
    EXPECT_EQ(h->getMaxLdevNumber(maxLdev), 0);
    EXPECT_EQ(maxLdev, 16383);
    EXPECT_TRUE(r.log.contains("Failed to query ldev [65279]. Will use [16383] as maximum", 0));
  });
  const Calls gets = callsOf(r, "[get][ldev]");
  ASSERT_EQ(gets.size(), 7u);
  EXPECT_EQ(gets[0], "[get][ldev][-ldev_id][2560][-cnt][256]" + std::string(kSuffix));
  EXPECT_EQ(gets[1], "[get][ldev][-ldev_id][2560][-cnt][2][-ldev_list][pool][-pool_id][5]" +
                         std::string(kSuffix));
  EXPECT_EQ(gets[2], "[get][ldev][-ldev_list][unmapped]" + std::string(kSuffix));
  EXPECT_EQ(gets[5], "[get][ldev][-ldev_id][49151]" + std::string(kSuffix));
}

TEST_F(ReplicationHandler, DeviceGroupFailuresCarryTheCauseAndUndoTheAdditions) {
  r.fakes.output("add_device_grp",
                 "raidcom: [EX_CMDRJE] An order to the control/command device was rejected\n"
                 "CAUSE : LDEV is not installed.\n");
  r.fakes.exits("add_device_grp", {221, 221});
  r.fakes.output("delete_device_grp", "CAUSE : LDEV is not registered in the device group.\n");
  r.fakes.exits("delete_device_grp", {0, 221});
  expectInChild([&] {
    ZoSetTimeScale(0.001);
    auto h = r.handler();
    EXPECT_EQ(h->addVolsToDeviceGroup(svols({"100"}), "KS_DEV_S_1", "KS_DEV_P_1"), 1);
    EXPECT_EQ(h->errorText(),
              " LDEV is not installed.\n-Failed to add SVOLs to device group KS_DEV_S_1");
    EXPECT_FALSE(r.log.contains("PVOLs"));
    EXPECT_EQ(h->deleteLdevFromDeviceGroup("100", "KS_DEV_S_1"), 0);
    EXPECT_TRUE(r.log.contains("Ldev [100] already deleted from device group [KS_DEV_S_1]", 1));
  });
  EXPECT_EQ(callsOf(r, "[add][device_grp]")[0],
            "[add][device_grp][-device_grp_name][KS_DEV_S_1][Pair_10][-ldev_id][100]" +
                std::string(kSuffix));
  EXPECT_EQ(callsOf(r, "[add][device_grp]").size(), 2u);  // one retry
  EXPECT_EQ(
      callsOf(r, "[delete][device_grp]")[0],
      "[delete][device_grp][-device_grp_name][KS_DEV_S_1][-ldev_id][100]" + std::string(kSuffix));
}

TEST_F(ReplicationHandler, SnapshotGroupCommandsAndTheirErrors) {
  r.fakes.output("add_snapshot",
                 "raidcom: [EX_CMDRJE] An order to the control/command device was rejected\n"
                 "CAUSE : LDEV is not installed.\nsecond line");
  r.fakes.exits("add_snapshot", {0, 221});
  expectInChild([&] {
    auto h = r.handler();
    auto pairs = svols({"100", "101"});
    pairs.begin()->second.isCloneTarget = true;
    EXPECT_EQ(h->addToSnapshotGroup(pairs, "5", "snap_1", true, true), 1);
    EXPECT_EQ(
        h->errorText(),
        "Failed to add snapshot-<LDEV-[101], Pool-[5], Mode-[ CTG ], SnapshotGroup-[snap_1]>. "
        "Error-[ LDEV is not installed.]");
    EXPECT_EQ(h->operateOnSnapshotGroup("", "", VT_HDS_SNAP_OP_SPLIT), 1);
    EXPECT_EQ(h->errorText(), "Failed to perform operation on snapshot group.");
    EXPECT_EQ(h->operateOnSnapshotGroup("snap_1", "", VT_HDS_SNAP_OP_SPLIT), 0);
    EXPECT_TRUE(r.log.contains("[ split ] successfully on snapshotgroup snap_1.", 0));
  });
  EXPECT_EQ(callsOf(r, "[add][snapshot]")[0],
            "[add][snapshot][-ldev_id][10][100][-pool][5][-snapshotgroup][snap_1][-snap_mode][CTG]"
            "[clone]" +
                std::string(kSuffix));
  EXPECT_EQ(callsOf(r, "[modify][snapshot]"),
            Calls{"[modify][snapshot][-snapshotgroup][snap_1][-snapshot_data][split]" +
                  std::string(kSuffix)});
}

}  // namespace
