#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "hds/common/HDSConstants.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

namespace {

// A DP volume inside a virtual storage machine, an undefined number, and a parity-group LDEV of an
// older array without paths, blank lines between, as -ldev_list prints them.
const char* const kLdevListing =
    "Serial#  : 412345\n"
    "LDEV : 4660 VIR_LDEV : 4700\n"
    "SL : 0\n"
    "VOL_TYPE : OPEN-V-CVS\n"
    "VOL_Capacity(BLK) : 41943040\n"
    "NUM_PORT : 2\n"
    "PORTs : CL1-A-3 12 mediahost01 : CL2-A-13 0 mediahost_long_n\n"
    "F_POOLID : NONE\n"
    "VOL_ATTR : CVS : HDP\n"
    "B_POOLID : 5\n"
    "LDEV_NAMING : KS_SVOL_4660\n"
    "STS : NML\n"
    "MP# : 2\n"
    "RSGID : 3\n"
    "\n"
    "Serial#  : 412345\n"
    "LDEV : 4662 VIR_LDEV : 65534\n"
    "VOL_TYPE : NOT DEFINED\n"
    "RSGID : 0\n"
    "\n"
    "Serial#  : 412345\n"
    "LDEV : 0\n"
    "VOL_TYPE : OPEN-V-CVS\n"
    "PORTs :\n"
    "VOL_ATTR : CVS\n"
    "RAID_LEVEL  : RAID1\n"
    "LDEV_NAMING : vol_a0\n";

// An LDEV as "serial id virtual type capacity pool attributes label blade group" and its paths as
// "port/group/lun/name".
std::string describe(const hdsLdev_t& l) {
  std::string text = l.serialNumber + " " + l.ldevId + " " + l.virtualLdevId + " " + l.volType +
                     " " + std::to_string(l.capacity) + " " + l.poolId + " " +
                     std::to_string(l.volAttr) + " " + l.label + " " + std::to_string(l.mpBladeId) +
                     " " + std::to_string(l.resourceGroupId);
  for (const hdsLun_t& p : l.lunPaths) {
    text += " " + p.port + "/" + p.hostGroupId + "/" + p.lunId + "/" + p.hostGroupName;
  }
  return text;
}

std::vector<std::string> parse(const std::string& text,
                               const std::map<int, std::string>& filter = {},
                               bool frontEnd = false) {
  std::vector<hdsLdev_t> ldevs;
  if (frontEnd) {
    EXPECT_TRUE(parseGetLdevFrontEndOutput(text, ldevs, filter));
  } else {
    parseGetLdevOutput(text, ldevs, filter);
  }
  std::vector<std::string> out;
  for (const hdsLdev_t& l : ldevs) out.push_back(describe(l));
  return out;
}

TEST(LdevListing, RecordsOfTheRealLayout) {
  const hdsLdev_t none;
  const std::string rest = " " + std::to_string(none.mpBladeId) + " ";
  const std::string dp = "412345 4660 4700 OPEN-V-CVS 41943040 5 " +
                         std::to_string(VT_HDS_VOL_CVS | VT_HDS_VOL_HDP) +
                         " KS_SVOL_4660 2 3 CL1-A/3/12/mediahost01 CL2-A/13/0/mediahost_long_n";
  // Values are compared without white space ("NOTDEFINED").
  const std::string undefined = "412345 4662 65534 NOTDEFINED " + std::to_string(none.capacity) +
                                "  " + std::to_string(none.volAttr) + " " + rest + "0";
  const std::string group = "412345 0  OPEN-V-CVS " + std::to_string(none.capacity) + "  " +
                            std::to_string(VT_HDS_VOL_CVS) + " vol_a0" + rest +
                            std::to_string(none.resourceGroupId);
  EXPECT_EQ(parse(kLdevListing), (std::vector<std::string>{dp, undefined, group}));
  // Only that label; an empty label filters nothing.
  EXPECT_EQ(parse(kLdevListing, {{VT_HDS_LDEV_FILTER_LABEL, "vol_a0"}}),
            std::vector<std::string>{group});
  EXPECT_EQ(parse(kLdevListing, {{VT_HDS_LDEV_FILTER_LABEL, ""}}).size(), 3u);
  EXPECT_TRUE(parse("\n\n").empty());
}

TEST(LdevListing, LongListingsOfUnevenRecords) {
  // Hundreds of kilobytes, read in pieces, with a short record first, CRLF endings and records
  // without a blank line between: none may be lost or split.
  std::string text = "LDEV : 0\r\nVOL_TYPE : NOT DEFINED\r\n";
  for (int id = 1; id < 3000; ++id) {
    const std::string n = std::to_string(id);
    text += "Serial#  : 412345\r\nLDEV : " + n + "\r\nSL : 0\r\nPORTs : CL1-A-1 " + n +
            " h\r\nVOL_ATTR : CVS : HDP\r\nLDEV_NAMING : KS_SVOL_" + n +
            "\r\nCSV_Status : DISABLED\r\nDEDUPLICATION_DATA : DISABLED\r\n" +
            (id % 2 ? "\r\n" : "");
  }
  std::vector<hdsLdev_t> ldevs;
  parseGetLdevOutput(text, ldevs, {});
  ASSERT_EQ(ldevs.size(), 3000u);
  EXPECT_EQ(ldevs[0].volType, "NOTDEFINED");
  for (int id = 1; id < 3000; ++id) {
    const std::string n = std::to_string(id);
    ASSERT_EQ(ldevs[id].ldevId + " " + ldevs[id].label + " " + ldevs[id].lunPaths.at(0).lunId,
              n + " KS_SVOL_" + n + " " + n);
  }
  EXPECT_LE(ldevs.capacity(), ldevs.size() * 2);
}

TEST(LdevListing, AttributeBitsAndPortLists) {
  EXPECT_EQ(volumeAttributemap("NOT DEFINED"), VT_HDS_VOL_NOT_DEFINED);
  EXPECT_EQ(volumeAttributemap(""), VT_HDS_VOL_NOT_FOUND);
  EXPECT_EQ(volumeAttributemap("CVS:MRCF:QS"), VT_HDS_VOL_CVS | VT_HDS_VOL_MRCF | VT_HDS_VOL_QS);
  EXPECT_EQ(volumeAttributemap("THP:SMRT:HA"), VT_HDS_VOL_HDP | VT_HDS_VOL_HDT | VT_HDS_VOL_GAD);
  EXPECT_EQ(volumeAttributemap("NOT DEFINED CMD"), VT_HDS_VOL_CMD_DEV);

  std::vector<hdsLun_t> luns(3);
  parsePortList("PORTs : ", luns);
  EXPECT_TRUE(luns.empty());
  parsePortList("PORTs : CL3-B-0 1 host a : CL4 7 h2", luns);
  ASSERT_EQ(luns.size(), 2u);
  EXPECT_EQ(luns[0].hostGroupName, "host");  // PORTs carries no blank-safe names
  EXPECT_EQ(luns[1].port + "|" + luns[1].hostGroupId + "|" + luns[1].lunId, "CL4||7");
}

TEST(LdevFrontEnd, FixedColumns) {
  // Serial 0-8, LDEV 9-13, type 23-41, capacity 42-53, attribute 59-81; the last piece has no
  // line end.
  const std::string listing = R"(header
 412345  255           OPEN-V-CVS         41943040         CVS : HDP
 412345  256           NOT DEFINED        41943040         -
412345 4663)";
  const std::vector<std::string> both = parse(listing, {}, true);
  ASSERT_EQ(both.size(), 2u);
  EXPECT_EQ(both[0].rfind("412345 255  OPEN-V-CVS 41943040  260 ", 0), 0u) << both[0];
  // The label key also names a control unit; the listing has no label column.
  EXPECT_EQ(parse(listing, {{VT_HDS_LDEV_FILTER_LABEL, ""}}, true),
            std::vector<std::string>{both[0]});
}

TEST(GroupListings, DeviceGroupsAndSnapshots) {
  std::vector<std::string> groups;
  parseGetDeviceGroupListOutput("LDEV_GROUP   Serial#\nKS_DEV_S_1   412345\nKS_DEV_P_1\nlast",
                                groups);
  EXPECT_EQ(groups, (std::vector<std::string>{"KS_DEV_S_1", "KS_DEV_P_1"}));
  // A member line short of its serial stops the parse; what came before stays.
  std::vector<hdsLdev_t> ldevs;
  EXPECT_FALSE(
      parseGetDeviceGroupOutput("h\ng Pair_1 1 412345\ng Pair_2 2\ng Pair_3 3 9\n", ldevs));
  ASSERT_EQ(ldevs.size(), 1u);
  EXPECT_EQ(ldevs[0].deviceName, "Pair_1");

  std::vector<hdsSnapshotGroupInfo> pairs;
  parseGetSnapshotGroupOutput("", pairs);
  parseGetSnapshotGroupOutput("SnapShot_name P/S STAT\n", pairs);
  EXPECT_TRUE(pairs.empty());
  const std::string listing = R"(
SnapShot_name                    P/S   STAT  Serial# LDEV#  MU# P-LDEV#  PID    % MODE SPLT-TIME
nightly_db01                     P-VOL PSUS   412345  4660    3    4672    5   97 G--A 65a1c3f0
cut_short                        S-VOL SSUS
)";
  parseGetSnapshotGroupOutput(listing.substr(1), pairs);
  ASSERT_EQ(pairs.size(), 2u);
  const hdsSnapshotGroupInfo& p = pairs[0];
  // The split time is read as a decimal number, as callers have always had it.
  EXPECT_EQ(p.mirrorUnit + " " + p.partnerLdevId + " " + p.poolId + " " +
                std::to_string(p.copyPercent) + " " + p.mode + " " + std::to_string(p.splitTime),
            "3 4672 5 97 G--A 65");
  EXPECT_FALSE(pairs[1].isPVol);
  EXPECT_EQ(pairs[1].ldevId, "");
}

}  // namespace
