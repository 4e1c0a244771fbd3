// The listings the raidcom session reads: HORCM files, resource groups, command status, raidqry.
#include <gtest/gtest.h>

#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

namespace {

TEST(HorcmFileSerials, FiveAndSixDigitMarkersCommentedOrNot) {
  std::set<std::string> serials;
  // A marker cut short at the end of the text gives what it has, an empty one nothing.
  for (const char* text :
       {"HORCM_CMD\n#\\\\.\\CMD-41234\n#\\\\.\\CMD-412345\n\\\\.\\CMD-499999:/dev/sdc \n", "",
        "#\\\\.\\CMD-", "\\\\.\\CMD-12"}) {
    parseHorcmFileSerials(text, serials);
  }
  EXPECT_EQ(serials, (std::set<std::string>{"12", "41234", "412345", "499999"}));
}

TEST(ResourceListing, ColumnsAreReadFromTheRight) {
  std::map<std::string, ResourceGroupStatus> groups;
  parseGetResourceOutput(
      "RS_GROUP            RGID   stat      Lock_owner     Lock_host      Serial#\n"
      "meta_resource          0   Unlocked  -              -               412345\n"
      "backup rsg  two       3   Locked    admin          Storage Navigator 412345\n"
      "ups                   4   Locked    svc            User Program    412345\n"
      "rmi\t7\tLocked\tsvc\tweb1 RMI\t412345\r\n"
      "short 1 Locked x 412345\n"
      "\n",
      groups);
  std::vector<std::string> read;
  for (const auto& [name, g] : groups) {
    read.push_back(name + "|" + std::to_string(g.resourceGroupId) + "|" + g.status + "|" +
                   g.lockOwner + "|" + g.lockHost + "|" + g.serialNumber);
  }
  EXPECT_EQ(read, (std::vector<std::string>{
                      "backup rsg  two|3|Locked|admin|Storage Navigator|412345",
                      "meta_resource|0|Unlocked|-|-|412345", "rmi|7|Locked|svc|web1 RMI|412345",
                      "ups|4|Locked|svc|User Program|412345"}));
}

TEST(CommandStatus, ErrorCountAndDescription) {
  bool hasError = false;
  std::string text;
  std::string line;
  const std::string status = "00c3    2ef3    b9a0          1         412345     Invalid resource";
  EXPECT_TRUE(parseCommandStatusOutput(
      "HANDLE   SSB1    SSB2    ERR_CNT        Serial#     Description\n" + status + "\n", hasError,
      text, line));
  EXPECT_TRUE(hasError);
  EXPECT_EQ(text + "|" + line, "Invalid resource|" + status);
  // The status line must end in a line feed to count.
  EXPECT_FALSE(parseCommandStatusOutput("HANDLE SSB1\n00c3 - - 1 412345 x", hasError, text, line));
}

TEST(RaidqryListing, WholeRecordOrAClearNo) {
  hdsRaidqry_t info;
  EXPECT_TRUE(parseRaidqryOutput(
      "  No  Group    Hostname     HORCM_ver   Uid   Serial#   Micro_ver     Cache(MB)\n"
      "   1    --- mediahost01   01-74-03/00     0   412345    93-07-22/00      524288\n",
      info));
  EXPECT_EQ(info.hostName + "|" + info.serialNumber + "|" + info.microVersion,
            "mediahost01|412345|93-07-22/00");
  EXPECT_EQ(info.cacheSizeMB, 524288);
  // A cut or foreign text leaves the record as it was rather than half overwritten.
  for (const char* bad : {"", "No Group Hostname\n", "No Group\n   1 --- otherhost 01-74\n"}) {
    EXPECT_FALSE(parseRaidqryOutput(bad, info)) << bad;
    EXPECT_EQ(info.hostName, "mediahost01") << bad;
  }
}

}  // namespace
