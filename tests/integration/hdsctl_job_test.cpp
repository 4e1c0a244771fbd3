// hdsctl job and hdsctl demo against ccisim: the whole lifecycle leaves the array as it found
// it, and so does a job that fails or is interrupted at any step.
#include <gtest/gtest.h>
#include <signal.h>

#include <cctype>
#include <chrono>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "tests/support/TestEnv.h"
#include "tests/support/ToolRun.h"

namespace {

using hdstest::arrayState;
using hdstest::hdsctlPath;
using hdstest::readFile;
using hdstest::runTool;
using hdstest::SimArray;
using hdstest::SimFault;
using hdstest::TestEnv;
using hdstest::ToolResult;
using hdstest::ToolRun;
using nlohmann::json;

// hdsctl's closing message: from "hdsctl: job" to the end, as the library's error text that it
// carries may span several lines of the tool's own output.
std::string failureMessage(const std::string& err) {
  const size_t at = err.rfind("hdsctl: job ");
  return at == std::string::npos ? "" : err.substr(at);
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
  ToolResult after = runTool({SimArray::ccisimPath(), "dump", "--json"});
  ASSERT_EQ(after.exitCode, 0) << after.err;
  EXPECT_EQ(json::parse(after.out)["arrays"],
            json::parse(readFile(dir + "/array-before.json"))["arrays"]);
  // No session, instance or command status of the job is left on the simulator either.
  std::string dump = runTool({SimArray::ccisimPath(), "dump"}).out;
  for (const char* kind : {"\nsession ", "\ninstance ", "\ncommand_status "}) {
    EXPECT_EQ(dump.find(kind), std::string::npos) << kind << " left in:\n" << dump;
  }
}

TEST(HdsctlDemo, JsonSummaryParsesAndAccountsTheCciCalls) {
  TestEnv env;
  const std::string trace = env.root() + "/trace.jsonl";
  ToolResult r = runTool({hdsctlPath(), "--trace", trace, "demo", "--pvols", "2", "--json", "--dir",
                          env.root() + "/demo"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  json summary = json::parse(r.out);
  EXPECT_EQ(summary["result"], "ok");
  EXPECT_EQ(summary["pairs"].size(), 2u);
  EXPECT_EQ(summary["steps"].size(), 16u);
  EXPECT_EQ(summary["directory"], env.root() + "/demo");
  EXPECT_NE(r.err.find("[16/16] close session"), std::string::npos) << r.err;
  // The job's calls are the trace's first ones (the demo then stops its HORCM instances); the
  // summary counts them and adds up their time.
  const long calls = summary["cciCalls"].get<long>();
  std::istringstream in(readFile(trace));
  double tracedMs = 0;
  long lines = 0;
  for (std::string line; std::getline(in, line); ++lines) {
    if (lines < calls) tracedMs += json::parse(line)["ms"].get<double>();
  }
  EXPECT_GT(calls, 10);
  EXPECT_LE(calls, lines);
  EXPECT_NEAR(summary["toolSeconds"].get<double>(), tracedMs / 1000, 0.01);
  EXPECT_NEAR(summary["toolSeconds"].get<double>() + summary["outsideSeconds"].get<double>(),
              summary["seconds"].get<double>(), 1e-6);
  EXPECT_GT(summary["outsideSeconds"].get<double>(), 0);
}

class HdsctlJob : public ::testing::Test {
 protected:
  TestEnv env;
  SimArray sim{env};
  std::string jobFile = env.root() + "/job.json";
  std::string before = arrayState(sim);

  void SetUp() override {
    hdstest::useSimArray(env, sim);
    hdstest::writeFile(jobFile,
                       R"({"name": "t", "pool": 0, "pvols": [100, 101, 102],
                           "svol_first": 2000,
                           "present": {"port": "CL2-A", "host_group": "backup_host",
                                       "wwns": ["10000090fa1b2c4d"]}})");
  }

  void fault(const std::string& match, int times) {
    SimFault f;
    f.match = match;
    f.exitCode = 1;
    f.err = "raidcom: [EX_CMDRJE] An order to the control/command device was rejected";
    f.times = times;
    sim.addFault(f);
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
  EXPECT_EQ(arrayState(sim), before);
}

struct FailurePoint {
  const char* match;
  int times;  // scripts and retries run a command again: while making, it fails every time
  const char* step;
};

// A step that fails ends the job with the library's error text, and what the job made up to
// then is removed: S-VOLs, labels, device groups, snapshot pairs, LUNs and the host group.
void PrintTo(const FailurePoint& p, std::ostream* os) { *os << "raidcom " << p.match; }

class HdsctlJobFailure : public HdsctlJob, public ::testing::WithParamInterface<FailurePoint> {};

std::string failureName(const ::testing::TestParamInfo<FailurePoint>& info) {
  std::string name = std::to_string(info.index) + "_" + info.param.step;
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return name;
}

TEST_P(HdsctlJobFailure, LeavesTheArrayAsBefore) {
  const FailurePoint& c = GetParam();
  fault(c.match, c.times);
  ToolResult r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(failureMessage(r.err).rfind(
                std::string("hdsctl: job t failed at step '") + c.step + "': ", 0),
            0u)
      << r.err;
  EXPECT_NE(r.out.find(std::string("] ") + c.step + ": FAILED"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("clean-up failed"), std::string::npos) << r.out;
  EXPECT_EQ(arrayState(sim), before);
}

INSTANTIATE_TEST_SUITE_P(
    WhileMaking, HdsctlJobFailure,
    ::testing::Values(FailurePoint{"add ldev.*-ldev_id 2002", -1, "create S-VOLs"},
                      FailurePoint{"modify ldev.*-ldev_name", -1, "label S-VOLs"},
                      FailurePoint{"add device_grp.*KS_DEV_P_t", -1, "device groups"},
                      FailurePoint{"add snapshot -ldev_id 102", -1, "snapshot group add"},
                      FailurePoint{"modify snapshot.*split", -1, "snapshot split"},
                      FailurePoint{"add hba_wwn", -1, "present"},
                      // A failed resource group query leaves the handler's command suffix cut
                      // short; the clean-up that follows must still send well-formed commands.
                      FailurePoint{"get resource -key opt -IM3532$", 1, "present"},
                      FailurePoint{"add lun", -1, "present"}),
    failureName);

// A line of a script before its last: the script's exit status is that of its last line, so the
// failure shows only in what the line printed.
INSTANTIATE_TEST_SUITE_P(
    InsideAScript, HdsctlJobFailure,
    ::testing::Values(FailurePoint{"modify ldev -ldev_id 2001 ", 1, "label S-VOLs"},
                      FailurePoint{"add device_grp.*KS_DEV_S_t.*-ldev_id 2001 ", 1,
                                   "device groups"}),
    failureName);

// A failure on the way back, once; the clean-up then finishes the work.
INSTANTIATE_TEST_SUITE_P(
    OnTheWayBack, HdsctlJobFailure,
    ::testing::Values(FailurePoint{"delete lun", 1, "withdraw"},
                      FailurePoint{"delete snapshot -ldev_id 2001", 1, "delete snapshots"},
                      // A line in the middle of the device group script.
                      FailurePoint{"delete device_grp.*KS_DEV_P_t.*-ldev_id 101 ", 1,
                                   "delete device groups"},
                      FailurePoint{"delete ldev -ldev_id 2002", 1, "delete S-VOLs"},
                      // The logout: the session's end is reported, not only logged.
                      FailurePoint{"^-logout", 1, "close session"}),
    failureName);

// Among several LDEVs read at once, one that could not be read is read once more on its own: the
// job then goes on, or names it with the library's error.
TEST_F(HdsctlJob, AnLdevNotReadAmongOthersIsReadAgain) {
  fault("get ldev -ldev_id 101 ", 1);
  ToolResult r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(arrayState(sim), before);

  fault("get ldev -ldev_id 101 ", 2);
  r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(
      failureMessage(r.err).find("failed at step 'read P-VOLs': cannot read LDEV 101: Command"),
      std::string::npos)
      << r.err;
  EXPECT_NE(failureMessage(r.err).find("(error 62601)"), std::string::npos) << r.err;
}

// An S-VOL whose creation ran but whose command status could not be read may be the job's or
// another process's: it is named, not deleted.
TEST_F(HdsctlJob, UnconfirmedSvolIsNamedNotDeleted) {
  fault("get command_status", 1);
  ToolResult r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.out.find("left on array 412345: S-VOL 2000 (defined after its creation failed)"),
            std::string::npos)
      << r.out;
  EXPECT_NE(failureMessage(r.err).find("failed at step 'create S-VOLs'"), std::string::npos)
      << r.err;
}

TEST_F(HdsctlJob, WhatCannotBeCleanedUpIsNamed) {
  fault("delete ldev -ldev_id 2002", -1);
  ToolResult r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.out.find("left on array 412345: S-VOLs"), std::string::npos) << r.out;
  EXPECT_NE(failureMessage(r.err).find("failed at step 'delete S-VOLs'"), std::string::npos)
      << r.err;
}

TEST_F(HdsctlJob, InterruptEndsTheJobAtTheNextStepAndCleansUp) {
  SimFault slow;
  slow.match = "add snapshot";
  slow.delayMs = 1500;
  sim.addFault(slow);
  ToolRun job({hdsctlPath(), "job", jobFile, "--json"});
  // Wait until the job is inside the slow command, then interrupt it.
  auto inSlowCommand = [this] {
    for (const hdstest::SimJournalEntry& e : sim.journal()) {
      if (e.args.size() > 1 && e.args[0] == "add" && e.args[1] == "snapshot") return true;
    }
    return false;
  };
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!inSlowCommand() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  kill(job.pid(), SIGINT);
  ToolResult r = job.finish();
  EXPECT_EQ(r.exitCode, 1) << r.err;
  json summary = json::parse(r.out);
  EXPECT_EQ(summary["error"], "interrupted by a signal");
  EXPECT_EQ(summary["failedStep"], "snapshot create");
  EXPECT_EQ(arrayState(sim), before);
}

}  // namespace
