#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>

#include "hds/common/HDSArrayModels.h"
#include "hds/common/HDSRecords.h"

namespace {

TEST(Records, DefaultsOfTheRecordsWithOperations) {
  hdsCopyGroup_t copyGroup;
  EXPECT_EQ(copyGroup.mirrorUnit, -1);
  EXPECT_EQ(copyGroup.journalId, -1);
  copyGroup.copyGroupName = "cg";
  copyGroup.mirrorUnit = 3;
  copyGroup.initialize();
  EXPECT_EQ(copyGroup.copyGroupName, "");
  EXPECT_EQ(copyGroup.mirrorUnit, -1);

  hdsLdev_t ldev;
  EXPECT_EQ(ldev.capacity, 0u);
  EXPECT_EQ(ldev.callerValue, 0);
  EXPECT_EQ(ldev.mpBladeId, 0);
  EXPECT_FALSE(ldev.isCloneTarget);
  EXPECT_TRUE(ldev.lunPaths.empty());

  hdsSnapshotGroupInfo snapshot;
  EXPECT_FALSE(snapshot.isPVol);
  EXPECT_EQ(snapshot.splitTime, 0);
  EXPECT_EQ(hdsRaidqry_t{}.cacheSizeMB, 0);
  EXPECT_EQ(ResourceGroupStatus{}.resourceGroupId, 0);
}

TEST(Records, LdevInitializeEmptiesAFilledRecord) {
  hdsLdev_t ldev;
  ldev.serialNumber = "412345";
  ldev.ldevId = "4660";
  ldev.volType = "OPEN-V";
  ldev.capacity = 1u << 30;
  ldev.callerValue = -7;
  ldev.lunPaths.push_back(hdsLun_t{"CL1-A", "3", "0", "hg", "4660"});
  ldev.poolId = "1";
  ldev.volAttr = 256;
  ldev.callerInt = 2;
  ldev.newLabel = "KS_SVOL_1";
  ldev.callerList = {"x"};
  ldev.label = "lbl";
  ldev.deviceName = "Pair_4660";
  ldev.resourceGroupId = 4;
  ldev.virtualLdevId = "100";
  ldev.remoteSerial = "412346";
  ldev.mpBladeId = 3;
  ldev.isCloneTarget = true;

  hdsLdev_t copy = ldev;
  ldev.initialize();

  for (const std::string* text :
       {&ldev.serialNumber, &ldev.ldevId, &ldev.volType, &ldev.poolId, &ldev.newLabel, &ldev.label,
        &ldev.deviceName, &ldev.virtualLdevId, &ldev.remoteSerial}) {
    EXPECT_EQ(*text, "");
  }
  EXPECT_EQ(ldev.capacity, 0u);
  EXPECT_EQ(ldev.callerValue, 0);
  EXPECT_EQ(ldev.volAttr, 0);
  EXPECT_EQ(ldev.callerInt, 0);
  EXPECT_EQ(ldev.resourceGroupId, 0);
  EXPECT_TRUE(ldev.lunPaths.empty());
  EXPECT_TRUE(ldev.callerList.empty());
  EXPECT_EQ(ldev.mpBladeId, 0);
  EXPECT_FALSE(ldev.isCloneTarget);

  // The copy made before is independent of the cleared original, and moves keep everything.
  EXPECT_EQ(copy.lunPaths.at(0).ldevId, "4660");
  hdsLdev_t moved = std::move(copy);
  EXPECT_EQ(moved.deviceName, "Pair_4660");
  EXPECT_TRUE(moved.isCloneTarget);
}

TEST(Records, PortCopiesHostGroupsAndTheirWwnsByValue) {
  hdsPort_t port;
  port.portName = "CL1-A";
  port.hostGroups.push_back(hdsHostGroup_t{"3", "hg", "", {"10000000c9aabbcc"}});
  hdsPort_t copy = port;
  port.hostGroups[0].wwns[0] = "changed";
  port.hostGroups.push_back(hdsHostGroup_t{});
  ASSERT_EQ(copy.hostGroups.size(), 1u);
  EXPECT_EQ(copy.hostGroups[0].wwns.at(0), "10000000c9aabbcc");
}

TEST(ArrayModels, LookupIsExactAndFallsBackToTheLargestRange) {
  EXPECT_EQ(getMaxLdevIdForArrayType("M850S2F"), 32767);
  EXPECT_EQ(getMaxLdevIdForArrayType("R9"), 65279);
  EXPECT_EQ(getMaxLdevIdForArrayType("M8S"), 2047);
  EXPECT_EQ(getMaxLdevIdForArrayType("M8M"), 4095);
  EXPECT_EQ(getMaxLdevIdForArrayType("M850M3F"), 49151);
  EXPECT_EQ(getMaxLdevIdForArrayType("M7"), 16383);
  // Prefixes and other cases are different types.
  EXPECT_EQ(getMaxLdevIdForArrayType("M850S"), 65279);
  EXPECT_EQ(getMaxLdevIdForArrayType("r9"), 65279);
  EXPECT_EQ(getMaxLdevIdForArrayType(""), 65279);
  EXPECT_EQ(getMaxLdevIdForArrayType("unknown"), 65279);
}

TEST(ArrayModels, EveryRowIsReachable) {
  std::set<std::string> codes;
  for (const HDSArrayTypes& row : HDSArrayMaxLdevTable) {
    EXPECT_TRUE(codes.insert(row.typeCode).second) << "duplicate type " << row.typeCode;
    EXPECT_EQ(getMaxLdevIdForArrayType(row.typeCode), row.maxLdevId) << row.typeCode;
    EXPECT_NE(std::string(row.modelName), "");
  }
  EXPECT_EQ(codes.size(), 17u);
}

}  // namespace
