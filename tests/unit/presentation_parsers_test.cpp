// Edge cases of the copy group, raidscan pair, host group and WWN listings, and the quoting that
// carries user-chosen names through the shell.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "hds/raidcom/internal/RaidcomArgs.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

namespace {

hdsLdev_t ldev(const std::string& id) {
  hdsLdev_t l;
  l.ldevId = id;
  return l;
}

std::vector<std::string> names(const hdsPort_t& port) {
  std::vector<std::string> out;
  for (const auto& hg : port.hostGroups) out.push_back(hg.hostGroupId + "|" + hg.hostGroupName);
  return out;
}

TEST(CopyGroupListing, MirrorUnitJournalAndFilter) {
  const std::string output =
      "COPY_GROUP        LDEV_GROUP        MU# JID#  Serial#\n"
      "bkp_cg0           bkp_cg0_P           0    -   412345\n"
      "bkp_cg0           bkp_cg0_S           -    -   412345\n"
      "dr_cg0            dr_cg0_P           h1    7   412345\n"
      "odd_cg            odd_cg_P            h    x   412345\n"
      "cut_cg            cut_cg_P            2    -   412345";  // no newline: not read
  // Device group, mirror unit and journal of each line; a lone "h" is no remote mirror unit and
  // no number either.
  auto read = [&](const std::string& filter) {
    std::vector<hdsCopyGroup_t> groups;
    parseGetCopyGroupOutput(output, filter, groups);
    std::vector<std::string> out;
    for (const hdsCopyGroup_t& g : groups) {
      out.push_back(g.deviceGroupName + " " + std::to_string(g.mirrorUnit) + " " +
                    std::to_string(g.journalId));
    }
    return out;
  };
  EXPECT_EQ(read(""), (std::vector<std::string>{"bkp_cg0_P 0 -1", "bkp_cg0_S -1 -1", "dr_cg0_P 1 7",
                                                "odd_cg_P -1 -1"}));
  EXPECT_EQ(read("bkp_cg0"), (std::vector<std::string>{"bkp_cg0_P 0 -1", "bkp_cg0_S -1 -1"}));
}

const char* const kRaidscanHeader =
    "PORT#   /ALPA/C TID# LU#  MU#  Seq#   Num CM LDEV# P/S   Status Fence  P-Seq# P-LDEV# "
    "VOL_ATTR";

TEST(RaidscanListing, PairsOfTheGivenPvolsOnly) {
  const std::string local = kRaidscanHeader + std::string(R"(
CL1-A-3 ef 0    0    3    0   412345   1  -   4660 P-VOL PAIR   NEVER  412346    4672 HORC
CL1-A-3 ef 0    0    4    1   412345   1  -   4661 P-VOL PSUS   ASYNC  412346    4673 HORC
CL1-A-3 ef 0    0    5    0   412345   1  -   4662 SMPL  -      -      -         ---- -
CL1-A-3 ef 0    0    6    0   412345   1  -   4663 S-VOL PAIR   NEVER  412346    4674 HORC
CL1-A-3 ef 0    0    7    0   412345   1  -   4699 P-VOL PAIR   NEVER  412346    4675 HORC
)");
  std::map<int, std::vector<hdsPairStatus_t>> pairs;
  // 4662 and 4663 are asked for but are unpaired or secondary; 4699 is paired but not asked for.
  parseRaidscanPairOutput(local, {ldev("4660"), ldev("4661"), ldev("4662"), ldev("4663")}, pairs);
  ASSERT_EQ(pairs.size(), 2u);
  ASSERT_EQ(pairs[0].size() + pairs[1].size(), 2u);
  const hdsPairStatus_t& p = pairs[0][0];
  EXPECT_EQ(p.ldevId + " " + p.pairStatus + " " + p.fence + " " + p.rcuSerial + " " + p.details,
            "4660 PAIR NEVER 412346 4672 HORC");
  EXPECT_EQ(pairs[1][0].ldevId + " " + pairs[1][0].fence, "4661 ASYNC");

  // A remote pair needs its partner.
  const std::string remote = kRaidscanHeader + std::string(R"(
CL1-A-3 ef 0    0    3   h1   412345   1  -   4660 P-VOL PAIR   DATA   412346    4672 HORC
CL1-A-3 ef 0    0    4   h1   412345   1  -   4661 P-VOL PAIR   DATA   412346    ---- -
)");
  pairs.clear();
  parseRaidscanRemotePairOutput(remote, 1, {ldev("4660"), ldev("4661")}, pairs);
  ASSERT_EQ(pairs.size(), 1u);
  ASSERT_EQ(pairs[1].size(), 1u);
  const hdsPairStatus_t& r = pairs[1][0];
  EXPECT_EQ(r.partnerLdevId + " " + r.volAttr + " " + std::to_string(r.mirrorUnit), "4672 HORC 1");
}

TEST(HostGroupListing, NamesWithBlanksAndSerials) {
  hdsPort_t port;
  parseGetHostGroupOutput(
      "PORT   GID  GROUP_NAME                       Serial# HMD          HMO_BITs\n"
      "CL1-A    0  1A-G00                            412345 LINUX/IRIX\n"
      "CL1-A    3  esx cluster 7                     412345 VMWARE_EX    54 63\n"
      "CL1-A    4  KS_PSHG_412345                    412345 LINUX/IRIX   2 13 22\n"
      "CL1-A    5  412345                            412345 LINUX/IRIX\n"
      "CL1-A    6  tape  412345  host                412345 WIN_EX\n",
      "412345", port);
  EXPECT_EQ(names(port),
            (std::vector<std::string>{"0|1A-G00", "3|esx cluster 7", "4|KS_PSHG_412345", "5|412345",
                                      "6|tape  412345  host"}));

  // Without the serial in the line only the first word of the name can be told.
  hdsPort_t other;
  parseGetHostGroupOutput("header\nCL1-A    3  esx cluster 7   999999 VMWARE_EX\n", "412345",
                          other);
  EXPECT_EQ(names(other), (std::vector<std::string>{"3|esx"}));
}

TEST(HbaWwnListing, NameAndNicknameMayHoldBlanks) {
  hdsHostGroup_t hg;
  parseGetHbaWwnOutput(
      "PORT  GID GROUP_NAME            HWWN             Serial#  NICK_NAME\n"
      "CL1-A   3 esx cluster 7         10000090fa1b2c3d    412345 port zero of host 1\n"
      "CL1-A   3 esx cluster 7         10000090fa1b2c3e    412345 -\n",
      hg);
  EXPECT_EQ(hg.hostGroupId + "|" + hg.hostGroupName, "3|esx cluster 7");
  EXPECT_EQ(hg.wwns, (std::vector<std::string>{"10000090fa1b2c3d", "10000090fa1b2c3e"}));
}

// What the shell hands to a program for an argument text, each argument in brackets.
std::string shellWords(const std::string& arguments) {
  std::string text;
  FILE* p = popen(("printf '[%s]' " + arguments).c_str(), "r");
  if (p == nullptr) return text;
  char buf[256];
  for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;) text.append(buf, n);
  pclose(p);
  return text;
}

TEST(RaidcomArguments, NamesReachTheToolWhole) {
  EXPECT_EQ(hostGroupReference("CL1-A", "5"), "CL1-A-5");
  EXPECT_EQ(hostGroupReference("CL1-A", "12"), "CL1-A 12");
  EXPECT_EQ(quoteArgument("meta_resource"), "meta_resource");
  EXPECT_EQ(quoteArgument("backup rsg"), "'backup rsg'");
  EXPECT_EQ(quoteArgument("it's"), "'it'\\''s'");

  for (const std::string name :
       {"esx cluster 7", "a\"b", "it's $HOME `id` \\x", "semi;colon", "Pa$$w0rd!", "''", ""}) {
    EXPECT_EQ(shellWords(quoteArgument(name)), "[" + name + "]");
    EXPECT_EQ(shellWords(hostGroupReference("CL1-A", name)), "[CL1-A][" + name + "]");
    EXPECT_EQ(shellWords(portArgument("CL1-A " + name)), "[CL1-A][" + name + "]");
  }
  EXPECT_EQ(shellWords(quoteArgument("\\\\.\\CMD-412345:/dev/sdc")),
            "[\\\\.\\CMD-412345:/dev/sdc]");
}

}  // namespace
