// hdsctl job and hdsctl demo against ccisim: the whole lifecycle leaves the array as it found
// it, and so does a job that fails or is interrupted at any step.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/TestEnv.h"
#include "tests/support/ToolRun.h"

namespace {

using hdstest::hdsctlPath;
using hdstest::readFile;
using hdstest::runTool;
using hdstest::SimHost;
using hdstest::TestEnv;
using hdstest::ToolResult;
using hdstest::ToolRun;
using nlohmann::json;

std::string lastLine(const std::string& text) {
  std::string trimmed = text.substr(0, text.find_last_not_of('\n') + 1);
  return trimmed.substr(trimmed.rfind('\n') + 1);
}

TEST(HdsctlDemo, RunsSixteenPairsAndLeavesTheArrayAsItFoundIt) {
  TestEnv env;
  // The demo must find ccisim next to hdsctl by itself.
  env.setEnv("CCISIM", nullptr);
  std::string dir = env.root() + "/demo";
  ToolResult r = runTool({hdsctlPath(), "demo", "--dir", dir});
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("job demo: 16 pairs, 16 steps"), std::string::npos) << r.out;
  for (int pvol = 100; pvol <= 115; ++pvol) {
    EXPECT_NE(r.out.find("KS_SVOL_" + std::to_string(pvol) + "_demo  PSUS"), std::string::npos)
        << pvol;
  }
  EXPECT_NE(r.out.find("the library's log is " + dir + "/hdsctl.log"), std::string::npos);
  EXPECT_NE(readFile(dir + "/hdsctl.log").find("HDS  "), std::string::npos);

  env.setEnv("CCISIM_STATE", (dir + "/ccisim.db").c_str());
  SimHost probe(env, false);
  EXPECT_EQ(probe.arrays(), json::parse(readFile(dir + "/array-before.json"))["arrays"].dump(1));
  // No session, instance or command status of the job is left on the simulator either.
  std::string dump = probe.ccisim({"dump"});
  for (const char* kind : {"\nsession ", "\ninstance ", "\ncommand_status "}) {
    EXPECT_EQ(dump.find(kind), std::string::npos) << kind << " left in:\n" << dump;
  }
}

TEST(HdsctlDemo, JsonSummaryParses) {
  TestEnv env;
  ToolResult r =
      runTool({hdsctlPath(), "demo", "--pvols", "2", "--json", "--dir", env.root() + "/demo"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  json summary = json::parse(r.out);
  EXPECT_EQ(summary["result"], "ok");
  EXPECT_EQ(summary["pairs"].size(), 2u);
  EXPECT_EQ(summary["steps"].size(), 16u);
  EXPECT_EQ(summary["directory"], env.root() + "/demo");
  EXPECT_NE(r.err.find("[16/16] close session"), std::string::npos) << r.err;
}

class HdsctlJob : public ::testing::Test {
 protected:
  TestEnv env;
  SimHost host{env};
  std::string jobFile = env.root() + "/job.json";
  std::string before = host.arrays();

  void SetUp() override {
    hdstest::writeFile(jobFile,
                       R"({"name": "t", "pool": 0, "pvols": [100, 101, 102, 103],
                           "svol_first": 2000,
                           "present": {"port": "CL2-A", "host_group": "backup_host",
                                       "wwns": ["10000090fa1b2c4d"]}})");
  }

  void fault(const std::string& match, const std::string& times = "1") {
    host.ccisim({"fault", "add", "--tool", "raidcom", "--match", match, "--exit", "1", "--stderr",
                 "raidcom: [EX_CMDRJE] An order to the control/command device was rejected",
                 "--times", times});
  }
};

TEST_F(HdsctlJob, CompletesAndKeepsAnExistingHostGroup) {
  hdstest::writeFile(jobFile, R"({"name": "ok", "pool": 0, "pvols": ["104", 105],
                                  "svols": [3000, 3001],
                                  "present": {"port": "CL1-A", "host_group": "1A-G00"}})");
  ToolResult r = runTool({hdsctlPath(), "job", jobFile, "--json"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  json summary = json::parse(r.out);
  EXPECT_EQ(summary["pairs"][1]["svol"], "3001");
  EXPECT_EQ(summary["pairs"][1]["lun"], "CL1-A-0-1");
  EXPECT_EQ(host.arrays(), before);
}

// A step that fails ends the job with the library's error text, and what the job made up to
// then is removed: S-VOLs, labels, device groups, snapshot pairs, LUNs and the host group.
TEST_F(HdsctlJob, FailureAtAnyStepLeavesTheArrayAsBefore) {
  struct Case {
    const char* match;
    const char* times;  // scripts and retries run a command again: making fails every time
    const char* step;
  };
  const Case failures[] = {
      {"add ldev.*-ldev_id 2002", "-1", "create S-VOLs"},
      {"modify ldev.*-ldev_name", "-1", "label S-VOLs"},
      {"add device_grp.*KS_DEV_P_t", "-1", "device groups"},
      {"add snapshot -ldev_id 102", "-1", "snapshot group add"},
      {"modify snapshot.*split", "-1", "snapshot split"},
      {"add hba_wwn", "-1", "present"},
      // A failed resource group query leaves the handler's command suffix cut short; the clean-up
      // that follows must still send well-formed commands.
      {"get resource -key opt -IM3532$", "1", "present"},
      {"add lun", "-1", "present"},
      // A failure on the way back; the clean-up then finishes the work.
      {"delete lun", "1", "withdraw"},
      {"delete snapshot -ldev_id 2001", "1", "delete snapshots"},
      {"delete device_grp.*KS_DEV_P_t.*-ldev_id 103", "1", "delete device groups"},
      // A line of a script before its last: the script's exit status and output do not show it,
      // so the job checks what the step did.
      {"modify ldev -ldev_id 2001 ", "1", "label S-VOLs"},
      {"add device_grp.*KS_DEV_S_t.*-ldev_id 2001 ", "1", "device groups"},
      {"delete device_grp.*KS_DEV_P_t.*-ldev_id 101 ", "1", "delete device groups"},
      {"delete ldev -ldev_id 2003", "1", "delete S-VOLs"},
      // The logout: the session's end is reported, not only logged by the destructor.
      {"^-logout", "1", "close session"},
  };
  for (const Case& c : failures) {
    host.ccisim({"fault", "clear"});
    fault(c.match, c.times);
    ToolResult r = runTool({hdsctlPath(), "job", jobFile});
    EXPECT_EQ(r.exitCode, 1) << c.match;
    EXPECT_EQ(
        lastLine(r.err).rfind(std::string("hdsctl: job t failed at step '") + c.step + "': ", 0),
        0u)
        << c.match << "\n"
        << r.err;
    EXPECT_NE(r.out.find(std::string("] ") + c.step + ": FAILED"), std::string::npos)
        << c.match << "\n"
        << r.out;
    EXPECT_EQ(r.out.find("clean-up failed"), std::string::npos) << c.match << "\n" << r.out;
    EXPECT_EQ(host.arrays(), before) << "left behind after a failure at " << c.match;
  }
}

// Among several LDEVs read at once, one that could not be read is read once more on its own: the
// job then goes on, or names it with the library's error.
TEST_F(HdsctlJob, AnLdevNotReadAmongOthersIsReadAgain) {
  fault("get ldev -ldev_id 101 ");
  ToolResult r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(host.arrays(), before);

  fault("get ldev -ldev_id 101 ", "2");
  r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(lastLine(r.err).find("failed at step 'read P-VOLs': cannot read LDEV 101: Command"),
            std::string::npos)
      << r.err;
  EXPECT_NE(lastLine(r.err).find("(error 62601)"), std::string::npos) << r.err;
}

// An S-VOL whose creation ran but whose command status could not be read may be the job's or
// another process's: it is named, not deleted.
TEST_F(HdsctlJob, UnconfirmedSvolIsNamedNotDeleted) {
  fault("get command_status");
  ToolResult r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.out.find("left on array 412345: S-VOL 2000 (defined after its creation failed)"),
            std::string::npos)
      << r.out;
  EXPECT_NE(lastLine(r.err).find("failed at step 'create S-VOLs'"), std::string::npos) << r.err;
}

TEST_F(HdsctlJob, WhatCannotBeCleanedUpIsNamed) {
  fault("delete ldev -ldev_id 2003", "-1");
  ToolResult r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.out.find("left on array 412345: S-VOLs"), std::string::npos) << r.out;
  EXPECT_NE(lastLine(r.err).find("failed at step 'delete S-VOLs'"), std::string::npos) << r.err;
}

TEST_F(HdsctlJob, InterruptEndsTheJobAtTheNextStepAndCleansUp) {
  host.ccisim({"fault", "add", "--tool", "raidcom", "--match", "add snapshot", "--delay-ms", "1500",
               "--times", "1"});
  ToolRun job({hdsctlPath(), "job", jobFile, "--json"});
  // Wait until the job is inside the slow command, then interrupt it.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (host.ccisim({"journal", "--tool", "raidcom"}).find("add snapshot") == std::string::npos &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  kill(job.pid(), SIGINT);
  ToolResult r = job.finish();
  EXPECT_EQ(r.exitCode, 1) << r.err;
  json summary = json::parse(r.out);
  EXPECT_EQ(summary["error"], "interrupted by a signal");
  EXPECT_EQ(summary["failedStep"], "snapshot create");
  EXPECT_EQ(host.arrays(), before);
}

}  // namespace
