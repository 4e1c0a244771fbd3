// The pair handler against small fake CCI tools: the exact command texts it runs, the HORCM files
// it writes, and the error state it leaves, each scenario in a child process of its own.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "hds/cci/CCICommandHandler.h"
#include "tests/support/FakeTools.h"
#include "tests/support/SimArray.h"

namespace {

using hdstest::expectInChild;
using hdstest::pathExists;

// A host with fake tools as the CCI directory and a pair handler of copy group CG1 on it.
struct Rig : hdstest::HandlerEnv {
  std::unique_ptr<CCICommandHandler> handler;

  explicit Rig(const std::string& instance = "3300", const std::string& peer = "3301",
               const std::string& copyGroup = "CG1") {
    HDSCLIInitParam param;
    param.serialNumber = "412345";
    param.copyGroupName = copyGroup;
    handler = std::make_unique<CCICommandHandler>(log, param, instance, peer);
  }

  bool ran(const std::string& commandLine) const {
    return log.contains("Command [" + env.cciDir() + commandLine + "] ");
  }

  void expectError(int code, const std::string& text) {
    int actualCode = 0;
    std::string actualText;
    handler->getErrorCodeAndString(actualCode, actualText);
    EXPECT_EQ(std::to_string(actualCode) + " " + actualText, std::to_string(code) + " " + text);
  }

  std::string horcmFile(int n) const {
    return env.horcmDir() + "horcm" + std::to_string(n) + ".conf";
  }
};

std::string expectedHorcmFile(int own, int other, const std::string& deviceGroup) {
  return hdstest::SimArray::raidcomHorcmConf(own) +
         "HORCM_LDEVG\n#Copy_Group\t\tDevice_Group\t\tserial\nCG1  " + deviceGroup +
         "  412345\n\nHORCM_INST\n#dev_group\t        ip_address    service\nCG1  testhost  " +
         std::to_string(other) + "\n\n";
}

TEST(CciHorcmFiles, WrittenByteForByteRemovedAndAllocatedAroundTakenNumbers) {
  expectInChild([] {
    Rig rig("-1", "-1");
    rig.tools.add("raidscan", "cmddev of Ser# 412345 = \\\\.\\CMD-412345:/dev/sdc\n");
    ASSERT_EQ(rig.handler->CheckIfCommandDeviceExist(), 0);
    rig.handler->setDeviceGroups("DG_L", "DG_P");

    ASSERT_EQ(rig.handler->createHorcmFiles(), 0) << rig.log.dump();
    EXPECT_EQ(rig.handler->getInstance() + rig.handler->getPeerInstance(), "33003301");
    EXPECT_EQ(hdstest::readFile(rig.horcmFile(3300)), expectedHorcmFile(3300, 3301, "DG_L"));
    EXPECT_EQ(hdstest::readFile(rig.horcmFile(3301)), expectedHorcmFile(3301, 3300, "DG_P"));
    EXPECT_EQ(rig.handler->readHorcmFile(), 0);

    ASSERT_EQ(rig.handler->removeHorcmFiles(), 0);
    EXPECT_FALSE(pathExists(rig.horcmFile(3300)) || pathExists(rig.horcmFile(3301)));
    EXPECT_TRUE(rig.log.contains(
        "Deleted horcm files [" + rig.horcmFile(3300) + "] and [" + rig.horcmFile(3301) + "].", 1));
    // Gone files are not an error the second time round.
    EXPECT_EQ(rig.handler->removeHorcmFiles(), 0);
    EXPECT_EQ(rig.handler->readHorcmFile(), 1);
    rig.expectError(62601, "Failed to read horcm file" + rig.horcmFile(3300));

    // 3300 taken and 3301 free: the pair starting at 3301 may use the free upper number of an
    // earlier pair whose lower file is gone.
    hdstest::writeFile(rig.horcmFile(3300), "taken");
    ASSERT_EQ(rig.handler->createHorcmFiles(), 0);
    EXPECT_EQ(rig.handler->getInstance() + rig.handler->getPeerInstance(), "33013302");
    EXPECT_EQ(hdstest::readFile(rig.horcmFile(3300)), "taken");
    // 3300 free, 3301 taken: neither [3300, 3301] nor [3301, 3302] is free.
    ASSERT_EQ(rig.handler->removeHorcmFiles(), 0);
    ASSERT_EQ(unlink(rig.horcmFile(3300).c_str()), 0);
    hdstest::writeFile(rig.horcmFile(3301), "taken");
    ASSERT_EQ(rig.handler->createHorcmFiles(), 0);
    EXPECT_EQ(rig.handler->getInstance() + rig.handler->getPeerInstance(), "33023303");
    ASSERT_EQ(rig.handler->removeHorcmFiles(), 0);
    for (int n = 3300; n < 3500; ++n) hdstest::writeFile(rig.horcmFile(n), "");
    EXPECT_EQ(rig.handler->createHorcmFiles(), 1);
    rig.expectError(62601, "Failed to find free horcm instance.");
    EXPECT_FALSE(pathExists(rig.horcmFile(3500)));
  });
}

TEST(CciHorcmInstances, StartStopAndPartialFailures) {
  expectInChild([] {
    Rig rig("-1", "-1");
    const std::string missingDir = rig.env.root() + "/gone/";
    rig.env.setEnv("HDS_HORCM_DIR", missingDir.c_str());
    EXPECT_EQ(rig.handler->startHorcm(), 1);
    rig.expectError(62601, "Unable to open horcm file " + missingDir + "horcm3300.conf");
    EXPECT_TRUE(
        rig.log.contains("Unable to create horcm file [" + missingDir + "horcm3300.conf]", 2));
    EXPECT_EQ(rig.handler->getInstance() + rig.handler->getPeerInstance(), "-1-1");
    rig.env.setEnv("HDS_HORCM_DIR", rig.env.horcmDir().c_str());

    rig.tools.add("horcmstart.sh", "HORCM inst 3300 has failed to start.\n", 3);
    rig.tools.add("horcmshutdown.sh", "", 251, "[EX_ATTHOR] Can't be attached to HORC manager\n");
    // Nothing to stop: no shutdown runs and no file is named.
    EXPECT_EQ(rig.handler->stopHorcm(), 0);
    EXPECT_TRUE(rig.log.contains("Deleted horcm files [N/A] and [N/A].", 1));
    // A failed start stops there and undoes nothing; a failed shutdown keeps its number, while
    // the files go all the same.
    EXPECT_EQ(rig.handler->startHorcm(), 1);
    EXPECT_EQ(rig.tools.argv("horcmstart.sh"), std::vector<std::string>{"[3300]"});
    EXPECT_EQ(rig.tools.calls("horcmshutdown.sh"), 0);
    EXPECT_TRUE(pathExists(rig.horcmFile(3301)));
    EXPECT_EQ(rig.handler->stopHorcm(), 0);
    EXPECT_EQ(rig.tools.argv("horcmshutdown.sh"), (std::vector<std::string>{"[3300]", "[3301]"}));
    EXPECT_EQ(rig.handler->getInstance() + rig.handler->getPeerInstance(), "33003301");
    EXPECT_FALSE(pathExists(rig.horcmFile(3301)) || pathExists(rig.horcmFile(3300)));
  });
}

// Each call, the command line it must run (after the CCI directory) and, when the tool fails
// with exit status 222, the error text and code it must leave (pairevtwait's: its exit status).
struct PairCall {
  std::function<int(CCICommandHandler&)> call;
  std::string commandLine;
  std::string errorText;
  int errorCode = 62601;
};

TEST(CciPairCommands, CommandLinesFailuresAndQmarkers) {
  static std::string qMarker;
  static bool committed = false;
  static std::vector<hdsCopyGroupInfo> pairs;
  const std::vector<PairCall> calls = {
      {[](CCICommandHandler& h) { return h.pairCreate(true, "Pair_1"); },
       "paircreate   -d Pair_1 -m grp  -g CG1 -vl  -IM3300",
       "Failed to create pair on copy group [CG1 Pair_1]."},
      {[](CCICommandHandler& h) { return h.pairCreate(false, ""); },
       "paircreate   -g CG1 -vl  -IM3300", "Failed to create pair on copy group [CG1 ]."},
      {[](CCICommandHandler& h) { return h.pairResync("Pair_1", true, true); },
       "pairresync   -g CG1 -d Pair_1 -restore  -fq quick  -IM3300",
       "Failed to resync pair in copy group [CG1 Pair_1]."},
      {[](CCICommandHandler& h) { return h.pairResync("", false, false); },
       "pairresync   -g CG1 -IM3300", "Failed to resync pair in copy group [CG1 ]."},
      {[](CCICommandHandler& h) { return h.pairSplit("Pair_1", true, true); },
       "pairsplit   -S  -d Pair_1 -fq quick  -g CG1 -IM3300",
       "Failed to split pair on copy group [CG1 Pair_1]."},
      {[](CCICommandHandler& h) { return h.pairSplit("Pair_1", false, false); },
       "pairsplit   -d Pair_1 -g CG1 -IM3300", "Failed to split pair on copy group [CG1 Pair_1]."},
      {[](CCICommandHandler& h) { return h.pairDisplay(pairs); },
       "pairdisplay   -g CG1 -fc -CLI  -IM3300", "Failed to get pair status of copy group [CG1]."},
      {[](CCICommandHandler& h) { return h.pairEvtWait("PSUS", 60, ""); },
       "pairevtwait   -g CG1 -ss psus -t 60 -IM3300",
       "Failed to get pair status on copy group CG1 .", 222},
      {[](CCICommandHandler& h) { return h.pairEvtWait("Pair", 5, "Pair_2"); },
       "pairevtwait   -g CG1 -d Pair_2 -ss pair -t 5 -IM3300",
       "Failed to get pair status on copy group CG1 Pair_2.", 222},
      {[](CCICommandHandler& h) { return h.getQmarker("DR1", qMarker); },
       "pairsyncwait   -g DR1 -nowait -t 99999 -IH3300",
       "Failed to latest Qmarker of copy group [DR1]."},
      {[](CCICommandHandler& h) { return h.pairSyncWait("DR1", "01003408ef", 30, committed); },
       "pairsyncwait   -g DR1 -q 01003408ef -t 30 -IH3300",
       "Failed to check Q-Marker [01003408ef]commit."}};
  const std::vector<std::string> tools = {"paircreate",  "pairresync",  "pairsplit",
                                          "pairdisplay", "pairevtwait", "pairsyncwait"};
  expectInChild([&] {
    Rig rig;
    for (const std::string& tool : tools) rig.tools.add(tool, "");
    for (const PairCall& c : calls) {
      EXPECT_EQ(c.call(*rig.handler), 0) << c.commandLine;
      EXPECT_TRUE(rig.ran(c.commandLine)) << c.commandLine << "\n" << rig.log.dump();
    }
    for (const std::string& tool : tools) {
      rig.tools.add(tool, "", 222, tool + ": [EX_INVVOL] Invalid volume status\n");
    }
    for (const PairCall& c : calls) {
      EXPECT_EQ(c.call(*rig.handler), 1) << c.commandLine;
      rig.expectError(c.errorCode, c.errorText);
    }
    // A failed suspend is logged as such, though its error text speaks of a split.
    EXPECT_TRUE(rig.log.contains("Failed to [suspended] pair on copy group [CG1 Pair_1].", 2));
    rig.tools.add("pairevtwait", "", 233, "pairevtwait: [EX_EWSTOT] Timeout waiting\n");
    EXPECT_EQ(rig.handler->pairEvtWait("PAIR", 1, "Pair_1"), 1);
    rig.expectError(233, "Failed to get pair status on copy group CG1 Pair_1.");
    EXPECT_TRUE(rig.log.contains("Pairevwait command timed out waiting for status.", 2));

    // What pairsyncwait printed decides the marker and whether it is committed.
    const std::string header = "UnitID CTGID  Q-Marker  Status Q-Num\n";
    rig.tools.add("pairsyncwait", header + "     0     3  01003408ef NOWAIT      2\n");
    ASSERT_EQ(rig.handler->getQmarker("DR1", qMarker), 0);
    EXPECT_EQ(qMarker, "01003408ef");
    rig.tools.add("pairsyncwait", header + "     0     3  01003408ef DONE        2\n");
    ASSERT_EQ(rig.handler->pairSyncWait("DR1", "01003408ef", 30, committed), 0);
    EXPECT_TRUE(committed);

    // Exit 1 is "not yet": the marker reached so far decides, compared as a number.
    rig.tools.add("pairsyncwait", header + "     0     3  0000000010 TIMEOUT     2\n", 1);
    ASSERT_EQ(rig.handler->pairSyncWait("DR1", "000000000F", 1, committed), 0);
    EXPECT_TRUE(committed);
    EXPECT_TRUE(rig.log.contains("Primary Snap Q-Marker [f] : Current Q-Marker [10] ", 0));
    ASSERT_EQ(rig.handler->pairSyncWait("DR1", "0000000011", 1, committed), 0);
    EXPECT_FALSE(committed);

    // No data line: the caller's marker stays as it was.
    rig.tools.add("pairsyncwait", header);
    ASSERT_EQ(rig.handler->getQmarker("DR1", qMarker), 0);
    EXPECT_EQ(qMarker, "01003408ef");
  });
  // Without an instance number the commands carry no instance option.
  expectInChild([] {
    Rig rig("", "");
    rig.tools.add("pairsplit", "");
    EXPECT_EQ(rig.handler->pairSplit("", false, false), 0);
    EXPECT_TRUE(rig.ran("pairsplit   -g CG1"));
  });
}

// Names a caller chose reach the tools as one argument each, however they are spelled; a control
// character, which would forge lines of a HORCM file, is refused before any file is written.
TEST(CciOperatorText, NamesReachTheToolsWholeAndLineBreaksAreRefused) {
  expectInChild([] {
    Rig rig;
    const std::string marker = rig.env.root() + "/marker";
    const std::string device = "Pair 1;touch " + marker + ";'$(touch " + marker + ")`id`";
    rig.tools.add("pairsplit", "");
    rig.tools.add("pairsyncwait", "");
    bool committed = false;
    EXPECT_EQ(rig.handler->pairSplit(device, false, false), 0);
    EXPECT_EQ(rig.handler->pairSyncWait("DR1", "0;touch " + marker, 1, committed), 0);
    EXPECT_EQ(rig.tools.argv("pairsplit"),
              std::vector<std::string>{"[-d][" + device + "][-g][CG1][-IM3300]"});
    EXPECT_FALSE(pathExists(marker));

    rig.handler->setDeviceGroups("DG1\nHORCM_INST", "DG2");
    EXPECT_EQ(rig.handler->createHorcmFiles(), 1);
    rig.expectError(62600,
                    "Invalid device group name. It must not hold a control character such as a "
                    "line feed.");
    EXPECT_FALSE(pathExists(rig.horcmFile(3300)));
  });
  expectInChild([] {
    Rig rig("-1", "-1", "CG1\r\nHORCM_INST");
    rig.expectError(62600,
                    "Invalid copy group name. It must not hold a control character such as a "
                    "line feed.");
    EXPECT_EQ(rig.tools.calls("raidqry"), 0);
    EXPECT_EQ(rig.handler->createHorcmFiles(), 1);
    EXPECT_FALSE(pathExists(rig.horcmFile(3300)));
  });
}

}  // namespace
