// The listings the raidcom session reads: HORCM file markers, resource groups, command status,
// raidqry and the command device scan.
#include <gtest/gtest.h>

#include "hds/handler/internal/HandlerParsers.h"
#include "hds/raidcom/internal/RaidcomParsers.h"

using namespace hds::raidcom;

namespace {

TEST(HorcmFileSerials, FiveAndSixDigitMarkersCommentedOrNot) {
  std::set<std::string> serials;
  parseHorcmFileSerials(
      "HORCM_CMD\n#\\\\.\\CMD-41234\n#\\\\.\\CMD-412345\n\\\\.\\CMD-499999:/dev/sdc \n", serials);
  EXPECT_EQ(serials, (std::set<std::string>{"41234", "412345", "499999"}));

  serials.clear();
  parseHorcmFileSerials("", serials);
  parseHorcmFileSerials("#\\\\.\\CMD-", serials);
  parseHorcmFileSerials("\\\\.\\CMD-12", serials);
  EXPECT_EQ(serials, std::set<std::string>{"12"});
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

  // With -key opt the model identifier stands where the lock owner stands otherwise.
  groups.clear();
  parseGetResourceOutput(
      "RS_GROUP            RGID  V_Serial#  V_ID  V_IF  Serial#\n"
      "meta_resource          0     412345  M850M3    Y      412345\n",
      groups);
  EXPECT_EQ(groups["meta_resource"].lockOwner, "M850M3");
}

TEST(CommandStatus, ErrorCountAndDescription) {
  bool hasError = false;
  std::string text;
  std::string line;
  EXPECT_TRUE(
      parseCommandStatusOutput("HANDLE   SSB1    SSB2    ERR_CNT        Serial#     Description\n"
                               "00c3       -       -          0         412345     -\n",
                               hasError, text, line));
  EXPECT_FALSE(hasError);
  EXPECT_EQ(line, "00c3       -       -          0         412345     -");

  EXPECT_TRUE(parseCommandStatusOutput("H\n00c3 2ef3 b9a0 1 412345 Invalid resource\n", hasError,
                                       text, line));
  EXPECT_TRUE(hasError);
  EXPECT_EQ(text, "Invalid resource");

  // The status line must end in a line feed to count.
  EXPECT_FALSE(parseCommandStatusOutput("HANDLE SSB1\n00c3 - - 1 412345 x", hasError, text, line));
  EXPECT_FALSE(parseCommandStatusOutput("", hasError, text, line));
}

TEST(ToolScans, WholeRecordsOrAClearNo) {
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

  std::string version = "x";
  EXPECT_TRUE(hds::handler::parseCciVersionOutput(
      "Model  : RAID-Manager/Linux/x64\nVer&Rev: 01-39-03/03\nUsage  : raidqry\n", version));
  EXPECT_EQ(version, "01-39-03/03");
  EXPECT_TRUE(hds::handler::parseCciVersionOutput("Ver&Rev:   \n01-39-03/03\n", version));
  EXPECT_EQ(version, "");
  EXPECT_FALSE(hds::handler::parseCciVersionOutput("raidqry: not found\n", version));

  std::string device = "stale";
  EXPECT_TRUE(hds::handler::parseFindCommandDeviceOutput(
      "cmddev of Ser# 412346 = \\\\.\\CMD-412346:/dev/sdd\r\n"
      "cmddev of Ser# 412345 = \\\\.\\CMD-412345:/dev/sdc\r\n",
      "412345", device));
  EXPECT_EQ(device, "\\\\.\\CMD-412345:/dev/sdc");
  EXPECT_TRUE(hds::handler::parseFindCommandDeviceOutput("cmddev of Ser# 412345 = /dev/sdc\n",
                                                         "412345", device));
  EXPECT_EQ(device, "");
  EXPECT_FALSE(hds::handler::parseFindCommandDeviceOutput("", "412345", device));
}

}  // namespace
