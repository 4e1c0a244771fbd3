#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "hds/common/HDSConstants.h"
#include "hds/raidcom/RaidcomParsers.h"

namespace {

// A modern DP volume inside a virtual storage machine, an undefined number in the short form, and
// a parity-group LDEV of an older array without paths, blank lines between, as -ldev_list prints.
const char* const kLdevListing =
    "Serial#  : 412345\n"
    "LDEV : 4660 VIR_LDEV : 4700\n"
    "SL : 0\n"
    "CL : 0\n"
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
    "SSID : 0012\n"
    "RSGID : 3\n"
    "CL_MIG : N\n"
    "\n"
    "Serial#  : 412345\n"
    "LDEV : 4662 VIR_LDEV : 65534\n"
    "SL : -\n"
    "VOL_TYPE : NOT DEFINED\n"
    "RSGID : 0\n"
    "\n"
    "Serial#  : 412345\n"
    "LDEV : 0\n"
    "VOL_TYPE : OPEN-V-CVS\n"
    "VOL_Capacity(BLK) : 20972160\n"
    "NUM_PORT : 0\n"
    "PORTs :\n"
    "VOL_ATTR : CVS\n"
    "RAID_LEVEL  : RAID1\n"
    "DRIVE_TYPE  : DKS5G-J600SS\n"
    "LDEV_NAMING : vol_a0\n"
    "MP# : 0\n"
    "RSGID : 0\n";

TEST(LdevListing, RecordsOfTheRealLayout) {
  std::vector<hdsLdev_t> ldevs;
  parseGetLdevOutput(kLdevListing, ldevs, {});
  ASSERT_EQ(ldevs.size(), 3u);

  const hdsLdev_t& dp = ldevs[0];
  EXPECT_EQ(dp.serialNumber, "412345");
  EXPECT_EQ(dp.ldevId, "4660");
  EXPECT_EQ(dp.virtualLdevId, "4700");
  EXPECT_EQ(dp.volType, "OPEN-V-CVS");
  EXPECT_EQ(dp.capacity, 41943040u);
  EXPECT_EQ(dp.poolId, "5");
  EXPECT_EQ(dp.volAttr, VT_HDS_VOL_CVS | VT_HDS_VOL_HDP);
  EXPECT_EQ(dp.label, "KS_SVOL_4660");
  EXPECT_EQ(dp.mpBladeId, 2);
  EXPECT_EQ(dp.resourceGroupId, 3);
  ASSERT_EQ(dp.lunPaths.size(), 2u);
  EXPECT_EQ(dp.lunPaths[0].port, "CL1-A");
  EXPECT_EQ(dp.lunPaths[0].hostGroupId, "3");
  EXPECT_EQ(dp.lunPaths[0].lunId, "12");
  EXPECT_EQ(dp.lunPaths[0].hostGroupName, "mediahost01");
  EXPECT_EQ(dp.lunPaths[1].port, "CL2-A");
  EXPECT_EQ(dp.lunPaths[1].hostGroupId, "13");
  EXPECT_EQ(dp.lunPaths[1].hostGroupName, "mediahost_long_n");

  const hdsLdev_t& undefined = ldevs[1];
  EXPECT_EQ(undefined.ldevId, "4662");
  EXPECT_EQ(undefined.virtualLdevId, "65534");
  EXPECT_EQ(undefined.volType, "NOTDEFINED");  // the listing is compared without white space
  EXPECT_EQ(undefined.capacity, 0u);
  EXPECT_TRUE(undefined.lunPaths.empty());

  const hdsLdev_t& old = ldevs[2];
  EXPECT_EQ(old.ldevId, "0");
  EXPECT_EQ(old.virtualLdevId, "");
  EXPECT_TRUE(old.lunPaths.empty());
  EXPECT_EQ(old.label, "vol_a0");
  EXPECT_EQ(old.volAttr, VT_HDS_VOL_CVS);
}

TEST(LdevListing, SeparatorsLineEndingsAndEmptyOutput) {
  std::vector<hdsLdev_t> ldevs;
  parseGetLdevOutput("", ldevs, {});
  parseGetLdevOutput("\n\n", ldevs, {});
  EXPECT_TRUE(ldevs.empty());

  // CRLF endings, a trailing blank line, and records that follow each other without one.
  parseGetLdevOutput(
      "Serial#  : 1\r\nLDEV : 10\r\nLDEV_NAMING : a\r\nSerial#  : 1\r\nLDEV : 11\r\n\r\n", ldevs,
      {});
  ASSERT_EQ(ldevs.size(), 2u);
  EXPECT_EQ(ldevs[0].ldevId, "10");
  EXPECT_EQ(ldevs[0].label, "a");
  EXPECT_EQ(ldevs[1].ldevId, "11");
  EXPECT_EQ(ldevs[1].label, "");

  // The short undefined form has no Serial# line at all.
  ldevs.clear();
  parseGetLdevOutput("LDEV : 4662\nVOL_TYPE : NOT DEFINED\n", ldevs, {});
  ASSERT_EQ(ldevs.size(), 1u);
  EXPECT_EQ(ldevs[0].ldevId, "4662");
}

TEST(LdevListing, LongListingsOfUnevenRecords) {
  // Several hundred kilobytes, a short undefined record first and CRLF endings: no record may be
  // lost or split wherever the text is cut for reading.
  std::string text = "Serial#  : 412345\r\nLDEV : 0\r\nVOL_TYPE : NOT DEFINED\r\n\r\n";
  for (int id = 1; id < 3000; ++id) {
    text += "Serial#  : 412345\r\nLDEV : " + std::to_string(id) +
            "\r\nSL : 0\r\nVOL_TYPE : OPEN-V-CVS\r\nVOL_Capacity(BLK) : 2097152\r\n"
            "PORTs : CL1-A-1 " +
            std::to_string(id) + " h\r\nVOL_ATTR : CVS : HDP\r\nLDEV_NAMING : KS_SVOL_" +
            std::to_string(id) +
            "\r\nCSV_Status : DISABLED\r\nDEDUPLICATION_DATA : DISABLED\r\n\r\n";
  }
  ASSERT_GT(text.size(), 300000u);
  std::vector<hdsLdev_t> ldevs;
  parseGetLdevOutput(text, ldevs, {});
  ASSERT_EQ(ldevs.size(), 3000u);
  for (int id = 1; id < 3000; ++id) {
    const hdsLdev_t& ldev = ldevs[id];
    ASSERT_EQ(ldev.ldevId, std::to_string(id));
    ASSERT_EQ(ldev.label, "KS_SVOL_" + std::to_string(id));
    ASSERT_EQ(ldev.capacity, 2097152u);
    ASSERT_EQ(ldev.lunPaths.size(), 1u);
    ASSERT_EQ(ldev.lunPaths[0].lunId, std::to_string(id));
  }
  EXPECT_LE(ldevs.capacity(), ldevs.size() * 2);
}

TEST(LdevListing, LabelFilterKeepsOnlyThatLabel) {
  std::vector<hdsLdev_t> ldevs;
  parseGetLdevOutput(kLdevListing, ldevs, {{VT_HDS_LDEV_FILTER_LABEL, "vol_a0"}});
  ASSERT_EQ(ldevs.size(), 1u);
  EXPECT_EQ(ldevs[0].ldevId, "0");

  ldevs.clear();
  parseGetLdevOutput(kLdevListing, ldevs, {{VT_HDS_LDEV_FILTER_LABEL, ""}});
  EXPECT_EQ(ldevs.size(), 3u);
}

TEST(VolumeAttributes, SubstringBits) {
  EXPECT_EQ(volumeAttributemap("NOT DEFINED"), VT_HDS_VOL_NOT_DEFINED);
  EXPECT_EQ(volumeAttributemap("CVS : HDP"), 260);
  EXPECT_EQ(volumeAttributemap(""), VT_HDS_VOL_NOT_FOUND);
  EXPECT_EQ(volumeAttributemap("CVS:MRCF:QS"), VT_HDS_VOL_CVS | VT_HDS_VOL_MRCF | VT_HDS_VOL_QS);
  EXPECT_EQ(volumeAttributemap("THP"), VT_HDS_VOL_HDP);
  EXPECT_EQ(volumeAttributemap("SMRT"), VT_HDS_VOL_HDT);
  EXPECT_EQ(volumeAttributemap("CVS:HDP:HA"), 260 | VT_HDS_VOL_GAD);
  EXPECT_EQ(volumeAttributemap("ELUN"), VT_HDS_VOL_EXTN);
  // The NOT DEFINED word stands alone only as the whole text.
  EXPECT_EQ(volumeAttributemap("NOT DEFINED CMD"), VT_HDS_VOL_CMD_DEV);
}

TEST(PortList, EntriesAfterTheKey) {
  std::vector<hdsLun_t> luns(3);
  parsePortList("PORTs :", luns);
  EXPECT_TRUE(luns.empty());
  parsePortList("PORTs : ", luns);
  EXPECT_TRUE(luns.empty());

  parsePortList("PORTs : CL3-B-0 1 host a : CL4-C 7 h2", luns);
  ASSERT_EQ(luns.size(), 2u);
  EXPECT_EQ(luns[0].port, "CL3-B");
  EXPECT_EQ(luns[0].hostGroupId, "0");
  EXPECT_EQ(luns[0].lunId, "1");
  EXPECT_EQ(luns[0].hostGroupName, "host");  // PORTs carries no blank-safe names
  EXPECT_EQ(luns[1].port, "CL4");
  EXPECT_EQ(luns[1].hostGroupId, "C");
  EXPECT_EQ(luns[1].hostGroupName, "h2");
}

// Lines laid out on the cut positions: serial 0-8, LDEV 9-13, type 23-41, capacity 42-53,
// attribute 59-81, port list from 88.
std::string frontEndLine(const std::string& serial, const std::string& ldev,
                         const std::string& type, const std::string& capacity,
                         const std::string& attribute, const std::string& ports) {
  std::string line(88, ' ');
  line.replace(0, serial.size(), serial);
  line.replace(9, ldev.size(), ldev);
  line.replace(23, type.size(), type);
  line.replace(42, capacity.size(), capacity);
  line.replace(59, attribute.size(), attribute);
  return line + ports;
}

TEST(LdevFrontEnd, FixedColumns) {
  const std::string listing =
      " Serial# LDEV# SL CL VOL_TYPE VOL_Cap(BLK) PID ATTRIBUTE Ports PORT_No:LU#:GRPNAME\n" +
      frontEndLine(" 412345", " 4660", "OPEN-V-CVS", "41943040", "CVS : HDP",
                   "PORTs : CL1-A-3 0 h") +
      "\n" + frontEndLine(" 412345", " 4662", "NOT DEFINED", "-", "-", "") + "\n" +
      frontEndLine(" 412345", " 4663", "OPEN-V", "1", "CVS", "");  // no newline: not read
  std::vector<hdsLdev_t> ldevs;
  EXPECT_TRUE(parseGetLdevFrontEndOutput(listing, ldevs, {}));
  ASSERT_EQ(ldevs.size(), 2u);
  EXPECT_EQ(ldevs[0].serialNumber, "412345");
  EXPECT_EQ(ldevs[0].ldevId, "4660");
  EXPECT_EQ(ldevs[0].volType, "OPEN-V-CVS");
  EXPECT_EQ(ldevs[0].capacity, 41943040u);
  EXPECT_EQ(ldevs[0].volAttr, 260);
  EXPECT_TRUE(ldevs[1].lunPaths.empty());
  EXPECT_EQ(ldevs[1].volType, "NOTDEFINED");
  EXPECT_EQ(ldevs[1].capacity, 0u);

  // The label key also selects the control unit; the listing carries no label, so only an
  // empty label with control unit 0 keeps lines, and only LDEVs 0 to 255.
  const std::string cuListing = "header\n" + frontEndLine("1", "255", "OPEN-V", "1", "CVS", "") +
                                "\n" + frontEndLine("1", "256", "OPEN-V", "1", "CVS", "") + "\n";
  ldevs.clear();
  parseGetLdevFrontEndOutput(cuListing, ldevs, {{VT_HDS_LDEV_FILTER_LABEL, ""}});
  ASSERT_EQ(ldevs.size(), 1u);
  EXPECT_EQ(ldevs[0].ldevId, "255");
  ldevs.clear();
  parseGetLdevFrontEndOutput(cuListing, ldevs, {{VT_HDS_LDEV_FILTER_LABEL, "1"}});
  EXPECT_TRUE(ldevs.empty());
  parseGetLdevFrontEndOutput(cuListing, ldevs, {{VT_HDS_LDEV_FILTER_CU, "1"}});
  EXPECT_EQ(ldevs.size(), 2u);
}

TEST(DeviceGroupListings, NamesAndMembers) {
  std::vector<std::string> groups;
  parseGetDeviceGroupListOutput("LDEV_GROUP   Serial#\nKS_DEV_S_1   412345\nKS_DEV_P_1\nlast",
                                groups);
  EXPECT_EQ(groups, (std::vector<std::string>{"KS_DEV_S_1", "KS_DEV_P_1"}));

  std::vector<hdsLdev_t> ldevs;
  EXPECT_TRUE(
      parseGetDeviceGroupOutput("LDEV_GROUP      LDEV_NAME        LDEV#    Serial#\n"
                                "KS_DEV_S_1      Pair_4660         4700     412345\n"
                                "KS_DEV_S_1      Pair_4661         4701     412345\n",
                                ldevs));
  ASSERT_EQ(ldevs.size(), 2u);
  EXPECT_EQ(ldevs[1].deviceName, "Pair_4661");
  EXPECT_EQ(ldevs[1].ldevId, "4701");
  EXPECT_EQ(ldevs[1].serialNumber, "412345");

  // A line short of its serial stops the parse; what came before stays.
  ldevs.clear();
  EXPECT_FALSE(
      parseGetDeviceGroupOutput("h\ng Pair_1 1 412345\ng Pair_2 2\ng Pair_3 3 412345\n", ldevs));
  ASSERT_EQ(ldevs.size(), 1u);
  EXPECT_EQ(ldevs[0].ldevId, "1");
  EXPECT_TRUE(parseGetDeviceGroupOutput("", ldevs));
}

TEST(SnapshotListing, ElevenColumns) {
  std::vector<hdsSnapshotGroupInfo> pairs;
  parseGetSnapshotGroupOutput(
      "SnapShot_name                    P/S   STAT  Serial# LDEV#  MU# P-LDEV#  PID    % MODE "
      "SPLT-TIME\n"
      "nightly_db01                     P-VOL PSUS   412345  4660    3    4672    5  100 G--A "
      "65a1c3f0\n"
      "nightly_db01                     S-VOL SSUS   412345  4672    3    4660    5   97 G--A -\n"
      "nightly_db01                     -     -      412345     -    -       -    -    - ---- -\n"
      "cut_short                        P-VOL PAIR\n",
      pairs);
  ASSERT_EQ(pairs.size(), 4u);
  const hdsSnapshotGroupInfo& p = pairs[0];
  EXPECT_EQ(p.snapshotGroupName, "nightly_db01");
  EXPECT_TRUE(p.isPVol);
  EXPECT_EQ(p.pairStatus, "PSUS");
  EXPECT_EQ(p.serialNumber, "412345");
  EXPECT_EQ(p.ldevId, "4660");
  EXPECT_EQ(p.mirrorUnit, "3");
  EXPECT_EQ(p.partnerLdevId, "4672");
  EXPECT_EQ(p.poolId, "5");
  EXPECT_EQ(p.copyPercent, 100);
  EXPECT_EQ(p.mode, "G--A");
  EXPECT_EQ(p.splitTime, 65);  // read as a decimal number, as callers have always had it
  EXPECT_FALSE(pairs[1].isPVol);
  EXPECT_EQ(pairs[1].copyPercent, 97);
  EXPECT_EQ(pairs[2].ldevId, "-");
  EXPECT_EQ(pairs[3].pairStatus, "PAIR");
  EXPECT_EQ(pairs[3].ldevId, "");
  EXPECT_EQ(pairs[3].copyPercent, 0);

  pairs.clear();
  parseGetSnapshotGroupOutput("SnapShot_name P/S STAT\n", pairs);
  parseGetSnapshotGroupOutput("", pairs);
  parseGetSnapshotGroupOutput("header\ng P-VOL PAIR 1 2 0 3 4 100 G--A -", pairs);
  EXPECT_TRUE(pairs.empty());
}

}  // namespace
