#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hds/cci/CCICommandHandler.h"

namespace {

// pairdisplay -g <group> -fc -CLI of an in-system copy group, as the tools print it.
const char* const kPairDisplayHeader =
    "Group   PairVol L/R   Port# TID  LU-M   Seq# LDEV# P/S Status    %  P-LDEV# M\n";

// Each pair read from the rows under the header, as "group vol port ldev primary status % partner
// serial".
std::vector<std::string> parse(const std::string& rows, std::vector<hdsCopyGroupInfo> pairs = {}) {
  parsePairDisplayOutput(kPairDisplayHeader + rows, pairs);
  std::vector<std::string> out;
  for (const hdsCopyGroupInfo& p : pairs) {
    out.push_back(p.copyGroupName + " " + p.pairVolName + " " + p.port + " " + p.ldevId + " " +
                  std::to_string(p.isPrimary) + " " + p.pairStatus + " " +
                  std::to_string(p.copyPercent) + " " + p.partnerLdevId + " " + p.serialNumber);
  }
  return out;
}

TEST(PairDisplayParser, ReadsEachSideOfEachPair) {
  EXPECT_EQ(
      parse("bkp_cg0 db01_data L   CL1-A-3  0   0 0  412345  4660 P-VOL PAIR   100    4672 -\n"
            "bkp_cg0 db01_data R   CL1-A-3  0   1 0  412345  4672 S-VOL COPY    37    4660 -\n"),
      (std::vector<std::string>{"bkp_cg0 db01_data CL1-A-3 4660 1 PAIR 100 4672 ",
                                "bkp_cg0 db01_data CL1-A-3 4672 0 COPY 37 4660 "}));
  // The role column decides which side is primary, not the local/remote column.
  EXPECT_EQ(parse("cg db R CL1-A-3 0 1 0 412345 4660 P-VOL PSUS 100 4672 W\n"
                  "cg db L CL1-A-3 0 0 0 412345 4672 S-VOL SSUS 100 4660 -\n"),
            (std::vector<std::string>{"cg db CL1-A-3 4660 1 PSUS 100 4672 ",
                                      "cg db CL1-A-3 4672 0 SSUS 100 4660 "}));
  // A simplex line stops at the role; a tab after the group name and a percent that is no number.
  EXPECT_EQ(parse("bkp_cg0 db02 L   CL1-A-3  0   2 0  412345  4661 SMPL -      -       - -\n"
                  "cg\tdb L CL1-A 0 0 0 412345 10 P-VOL PAIR - 11 -\r\n"),
            (std::vector<std::string>{"bkp_cg0 db02 CL1-A-3 4661 1 SMPL 0  ",
                                      "cg db CL1-A 10 1 PAIR 0 11 "}));
  // What the vector held stays in front.
  std::vector<hdsCopyGroupInfo> earlier(1);
  earlier[0].copyGroupName = "earlier";
  EXPECT_EQ(parse("cg db L CL1-A 0 0 0 412345 10 P-VOL PAIR 100 11 -\n", earlier),
            (std::vector<std::string>{"earlier    0  0  ", "cg db CL1-A 10 1 PAIR 100 11 "}));
}

TEST(PairDisplayParser, DropsEmptyAndIncompleteOutputAndLinesOfOtherLayouts) {
  // The remote-copy layout has no mirror column, so its role sits one token earlier.
  std::vector<hdsCopyGroupInfo> pairs;
  parsePairDisplayOutput(
      "Group   PairVol     L/R Port#   TID  LU Seq#    LDEV# P/S Status Fence    % P-LDEV# M\n"
      "dr_cg0  db01_data   L   CL1-A-3  0    0 412345  4660 P-VOL PAIR ASYNC      0  4660 -\n",
      pairs);
  parsePairDisplayOutput("pairdisplay: [EX_ENOGRP] No such group\nRefer to the command log\n",
                         pairs);
  EXPECT_TRUE(pairs.empty());
  EXPECT_TRUE(parse("").empty());
  EXPECT_TRUE(parse("bkp_cg0 db01_data L CL1-A-3\n").empty());
  // The last line is still being written when it has no newline.
  EXPECT_TRUE(parse("bkp_cg0 db01_data L CL1-A-3 0 0 0 412345 4660 P-VOL PAIR 100 4672 -").empty());
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
  // Nothing to read gives an empty marker.
  for (const char* text :
       {"", "UnitID CTGID  Q-Marker  Status Q-Num\n", "     0     3  01003408ef NOWAIT      2",
        "UnitID CTGID  Q-Marker  Status Q-Num\n   0  3\n"}) {
    EXPECT_EQ(parseQmarkerOutput(text), "") << text;
  }
}

}  // namespace
