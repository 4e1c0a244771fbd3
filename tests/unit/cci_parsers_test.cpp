#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hds/cci/CCICommandHandler.h"

namespace {

// pairdisplay -g <group> -fc -CLI of an in-system copy group, as the tools print it.
const char* const kPairDisplayHeader =
    "Group   PairVol L/R   Port# TID  LU-M   Seq# LDEV# P/S Status    %  P-LDEV# M\n";

std::vector<hdsCopyGroupInfo> parse(const std::string& output) {
  std::vector<hdsCopyGroupInfo> pairs;
  parsePairDisplayOutput(output, pairs);
  return pairs;
}

TEST(PairDisplayParser, ReadsBothSidesOfEachPair) {
  const auto pairs =
      parse(std::string(kPairDisplayHeader) +
            "bkp_cg0 db01_data L   CL1-A-3  0   0 0  412345  4660 P-VOL PAIR   100    4672 -\n"
            "bkp_cg0 db01_data R   CL1-A-3  0   1 0  412345  4672 S-VOL COPY    37    4660 -\n");
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0].copyGroupName, "bkp_cg0");
  EXPECT_EQ(pairs[0].pairVolName, "db01_data");
  EXPECT_EQ(pairs[0].port, "CL1-A-3");
  EXPECT_EQ(pairs[0].ldevId, "4660");
  EXPECT_EQ(pairs[0].isPrimary, 1);
  EXPECT_EQ(pairs[0].pairStatus, "PAIR");
  EXPECT_EQ(pairs[0].copyPercent, 100);
  EXPECT_EQ(pairs[0].partnerLdevId, "4672");
  EXPECT_EQ(pairs[0].serialNumber, "");

  EXPECT_EQ(pairs[1].ldevId, "4672");
  EXPECT_EQ(pairs[1].isPrimary, 0);
  EXPECT_EQ(pairs[1].pairStatus, "COPY");
  EXPECT_EQ(pairs[1].copyPercent, 37);
  EXPECT_EQ(pairs[1].partnerLdevId, "4660");
}

TEST(PairDisplayParser, RoleColumnDecidesPrimaryOverLocalRemoteColumn) {
  // The remote line of a pair whose P-VOL is on the remote side.
  const auto pairs = parse(std::string(kPairDisplayHeader) +
                           "cg db R CL1-A-3 0 1 0 412345 4660 P-VOL PSUS 100 4672 W\n"
                           "cg db L CL1-A-3 0 0 0 412345 4672 S-VOL SSUS 100 4660 -\n");
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0].isPrimary, 1);
  EXPECT_EQ(pairs[1].isPrimary, 0);
}

TEST(PairDisplayParser, SimplexLineStopsAtTheRole) {
  const auto pairs =
      parse(std::string(kPairDisplayHeader) +
            "bkp_cg0 db02 L   CL1-A-3  0   2 0  412345  4661 SMPL -      -       - -\n");
  ASSERT_EQ(pairs.size(), 1u);
  EXPECT_EQ(pairs[0].pairStatus, "SMPL");
  EXPECT_EQ(pairs[0].port, "CL1-A-3");
  EXPECT_EQ(pairs[0].ldevId, "4661");
  EXPECT_EQ(pairs[0].isPrimary, 1);
  EXPECT_EQ(pairs[0].copyPercent, 0);
  EXPECT_EQ(pairs[0].partnerLdevId, "");
}

TEST(PairDisplayParser, DropsEmptyAndIncompleteOutputAndLinesOfOtherLayouts) {
  // The remote-copy layout has no mirror column, so its role sits one token earlier.
  const std::string remoteCopy =
      "Group   PairVol     L/R Port#   TID  LU Seq#    LDEV# P/S Status Fence    % P-LDEV# M\n"
      "dr_cg0  db01_data   L   CL1-A-3  0    0 412345  4660 P-VOL PAIR ASYNC      0  4660 -\n";
  EXPECT_TRUE(parse(remoteCopy).empty());
  EXPECT_TRUE(parse("pairdisplay: [EX_ENOGRP] No such group\nRefer to the command log\n").empty());
  EXPECT_TRUE(parse("").empty());
  EXPECT_TRUE(parse(kPairDisplayHeader).empty());
  EXPECT_TRUE(parse(std::string(kPairDisplayHeader) + "bkp_cg0 db01_data L CL1-A-3\n").empty());
  // The last line is still being written when it has no newline.
  EXPECT_TRUE(parse(std::string(kPairDisplayHeader) +
                    "bkp_cg0 db01_data L CL1-A-3 0 0 0 412345 4660 P-VOL PAIR 100 4672 -")
                  .empty());
}

TEST(PairDisplayParser, AppendsToWhatTheVectorHeld) {
  std::vector<hdsCopyGroupInfo> pairs(1);
  pairs[0].copyGroupName = "earlier";
  parsePairDisplayOutput(
      std::string(kPairDisplayHeader) + "cg db L CL1-A 0 0 0 412345 10 P-VOL PAIR 100 11 -\n",
      pairs);
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0].copyGroupName, "earlier");
  EXPECT_EQ(pairs[1].copyGroupName, "cg");
}

TEST(PairDisplayParser, TabAfterGroupNameAndNonNumericPercent) {
  const auto pairs = parse(std::string(kPairDisplayHeader) +
                           "cg\tdb L CL1-A 0 0 0 412345 10 P-VOL PAIR - 11 -\r\n");
  ASSERT_EQ(pairs.size(), 1u);
  EXPECT_EQ(pairs[0].copyGroupName, "cg");
  EXPECT_EQ(pairs[0].pairVolName, "db");
  EXPECT_EQ(pairs[0].copyPercent, 0);
  EXPECT_EQ(pairs[0].partnerLdevId, "11");
}

TEST(QmarkerParser, ThirdColumnOfTheLastCompleteLine) {
  EXPECT_EQ(parseQmarkerOutput("UnitID CTGID  Q-Marker  Status Q-Num\n"
                               "     0     3  01003408ef NOWAIT      2\n"),
            "01003408ef");
  EXPECT_EQ(parseQmarkerOutput("UnitID CTGID  Q-Marker  Status Q-Num QM-Cnt\n"
                               "     0     3  01003408ef NOWAIT      2    120\n"
                               "     0     4  0200000010 NOWAIT      0      0\n"),
            "0200000010");
  EXPECT_EQ(parseQmarkerOutput("UnitID CTGID  Q-Marker  Status Q-Num\n"
                               "     0     3  01003408ef DONE        2\n"
                               "     0     4  0200000010 DONE        0"),
            "01003408ef");
}

TEST(QmarkerParser, NothingToReadGivesEmpty) {
  EXPECT_EQ(parseQmarkerOutput(""), "");
  EXPECT_EQ(parseQmarkerOutput("UnitID CTGID  Q-Marker  Status Q-Num\n"), "");
  EXPECT_EQ(parseQmarkerOutput("     0     3  01003408ef NOWAIT      2"), "");
  EXPECT_EQ(parseQmarkerOutput("UnitID CTGID  Q-Marker  Status Q-Num\n   0  3\n"), "");
}

}  // namespace
