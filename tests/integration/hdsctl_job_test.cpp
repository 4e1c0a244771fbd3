// hdsctl job and hdsctl demo against ccisim: the whole lifecycle leaves the array as it found
// it, and so does a job that fails or is interrupted at any step.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>

#include "tests/support/Leftovers.h"
#include "tests/support/TestEnv.h"
#include "tests/support/ToolRun.h"

namespace {

using hdstest::arrayState;
using hdstest::hdsctlPath;
using hdstest::readFile;
using hdstest::runTool;
using hdstest::SimArray;
using hdstest::TestEnv;
using hdstest::ToolResult;
using hdstest::ToolRun;
using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(HdsctlDemo, RunsSixteenPairsAndLeavesTheArrayAsItFoundIt) {
  TestEnv env;
  env.setEnv("CCISIM", nullptr);  // the demo must find ccisim next to hdsctl by itself
  const std::string dir = env.root() + "/demo", trace = env.root() + "/trace.jsonl";
  ToolResult r = runTool({hdsctlPath(), "--trace", trace, "demo", "--json", "--dir", dir});
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  json summary = json::parse(r.out);
  ASSERT_EQ(summary["pairs"].size(), 16u);
  for (const json& pair : summary["pairs"]) EXPECT_EQ(pair["pairStatus"], "PSUS") << pair;
  EXPECT_THAT(readFile(dir + "/hdsctl.log"), HasSubstr("HDS  "));

  // The job's calls are the trace's first ones (the demo then stops its HORCM instances); the
  // summary counts them and adds up their time.
  const size_t calls = summary["cciCalls"].get<size_t>();
  const std::vector<std::string> lines = hdstest::outputLines(readFile(trace));
  double tracedMs = 0;
  for (size_t i = 0; i < calls && i < lines.size(); ++i)
    tracedMs += json::parse(lines[i])["ms"].get<double>();
  EXPECT_GT(calls, 10u);
  EXPECT_LE(calls, lines.size());
  EXPECT_NEAR(summary["toolSeconds"].get<double>(), tracedMs / 1000, 0.01);
  EXPECT_GT(summary["outsideSeconds"].get<double>(), 0);

  env.setEnv("CCISIM_STATE", (dir + "/ccisim.db").c_str());
  EXPECT_EQ(json::parse(runTool({SimArray::ccisimPath(), "dump", "--json"}).out)["arrays"],
            json::parse(readFile(dir + "/array-before.json"))["arrays"]);
  const std::string dump = runTool({SimArray::ccisimPath(), "dump"}).out;
  for (const char* kind : {"\nsession ", "\ninstance ", "\ncommand_status "}) {
    EXPECT_THAT(dump, Not(HasSubstr(kind)));
  }
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

  // hdsctl job --json, once it has started its first call matching `match` (whose first words
  // are `words`), which the array makes slow.
  std::unique_ptr<ToolRun> startJobIn(const std::string& match, const std::string& words = "") {
    sim.admin({"journal", "--clear"});
    sim.addFault(hdstest::delayed(match, 1500));
    auto job =
        std::make_unique<ToolRun>(std::vector<std::string>{hdsctlPath(), "job", jobFile, "--json"});
    const std::string call = words.empty() ? match : words;
    EXPECT_TRUE(hdstest::waitUntil([&] { return hdstest::hasCalled(sim, call); })) << call;
    return job;
  }

  // The tool a killed job had started runs to its end on its own.
  void waitForTools() {
    hdstest::waitUntil([&] {
      return hdstest::processesWithEnvironment("CCISIM_STATE=" + env.simState()).empty();
    });
  }

  void expectClean() {
    EXPECT_EQ(arrayState(sim), before);
    EXPECT_EQ(hdstest::loginCount(env), 0);
    EXPECT_FALSE(hdstest::pathExists(env.tempDir() + "/jobs/t.journal"));
  }

  // hdsctl recover, once the array answers again: it succeeds and leaves all clean. Its output.
  std::string recoverAll() {
    sim.admin({"fault", "clear"});
    waitForTools();
    ToolResult r = runTool({hdsctlPath(), "recover"});
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    expectClean();
    return r.out;
  }

  void fault(const std::string& match, int times) {
    sim.addFault(hdstest::failing(
        match, 1, "raidcom: [EX_CMDRJE] An order to the control/command device was rejected",
        times));
  }
};

TEST_F(HdsctlJob, CompletesAndKeepsAnExistingHostGroup) {
  // P-VOLs out of order: pairs are matched and reported in the job file's order.
  hdstest::writeFile(jobFile, R"({"name": "ok", "pool": 0, "pvols": [105, "104"],
                                  "svols": [3000, 3001],
                                  "present": {"port": "CL1-A", "host_group": "1A-G00"}})");
  ToolResult r = runTool({hdsctlPath(), "job", jobFile, "--json"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  json summary = json::parse(r.out);
  EXPECT_EQ(summary["pairs"][0]["pvol"], "105");
  EXPECT_EQ(summary["pairs"][0]["svol"], "3000");
  EXPECT_EQ(summary["pairs"][0]["lun"], "CL1-A-0-1");
  EXPECT_EQ(summary["pairs"][1]["svol"], "3001");
  EXPECT_EQ(arrayState(sim), before);
}

// Checked before the session opens, not after S-VOLs were made.
TEST_F(HdsctlJob, UnusableDirectoriesStopTheJobBeforeTheArrayIsTouched) {
  const std::string plain = env.root() + "/plain";
  hdstest::writeFile(plain, "");
  env.setEnv("HDS_TEMP_DIR", plain.c_str());
  env.setEnv("HDS_LOCK_DIR", (plain + "/lock").c_str());
  ToolResult r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_THAT(r.err, HasSubstr("hdsctl: job t cannot start: Temporary directory [" + plain +
                               "] cannot be used: Not a directory; Lock directory [" + plain +
                               "/lock] unusable: Not a directory\n"));
  EXPECT_TRUE(sim.journal().empty());
}

// A step that fails ends the job with the library's error text and removes what it made. These are
// the failures the fault matrix (each call of a one-P-VOL job failing once) cannot reach: after
// part of a step's objects were made, a retry failing again, a script line before its last
// (whose failure shows only in its output, as a script's status is its last line's), and WWNs.
struct FailurePoint {
  const char* match;
  int times;  // -1: scripts and retries run a command again
  const char* step;
};

void PrintTo(const FailurePoint& p, std::ostream* os) { *os << "raidcom " << p.match; }

class HdsctlJobFailure : public HdsctlJob, public ::testing::WithParamInterface<FailurePoint> {};

std::string failureName(const ::testing::TestParamInfo<FailurePoint>& info) {
  std::string name = std::to_string(info.index) + "_" + info.param.step;
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); }, '_');
  return name;
}

TEST_P(HdsctlJobFailure, LeavesTheArrayAsBefore) {
  const FailurePoint& c = GetParam();
  fault(c.match, c.times);
  ToolResult r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_THAT(r.err, HasSubstr(std::string("hdsctl: job t failed at step '") + c.step + "': "));
  EXPECT_THAT(r.out, Not(HasSubstr("not removed")));
  EXPECT_EQ(arrayState(sim), before);
  EXPECT_FALSE(hdstest::pathExists(env.tempDir() + "/jobs")) << "the journal of a clean end";
}

INSTANTIATE_TEST_SUITE_P(
    WhileMaking, HdsctlJobFailure,
    ::testing::Values(FailurePoint{"add ldev.*-ldev_id 2002", -1, "create S-VOLs"},
                      FailurePoint{"modify ldev -ldev_id 2001 ", 1, "label S-VOLs"},
                      FailurePoint{"add device_grp.*KS_DEV_S_t.*-ldev_id 2001 ", 1,
                                   "device groups"},
                      FailurePoint{"add device_grp.*KS_DEV_P_t", -1, "device groups"},
                      FailurePoint{"add snapshot -ldev_id 102", -1, "snapshot group add"},
                      FailurePoint{"add hba_wwn", -1, "present"},
                      // A failed resource group query leaves the handler's command suffix cut
                      // short; the clean-up that follows must still send well-formed commands.
                      FailurePoint{"get resource -key opt -IM3532$", 1, "present"}),
    failureName);

// A line in the middle of the device group script on the way back; the clean-up then finishes.
INSTANTIATE_TEST_SUITE_P(OnTheWayBack, HdsctlJobFailure,
                         ::testing::Values(FailurePoint{
                             "delete device_grp.*KS_DEV_P_t.*-ldev_id 101 ", 1,
                             "delete device groups"}),
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
  EXPECT_THAT(r.err, HasSubstr("failed at step 'read P-VOLs': cannot read LDEV 101: Command"));
  EXPECT_THAT(r.err, HasSubstr("(error 62601)"));
}

// An S-VOL number defined by another between the job's choice and its creation is rejected by the
// array as already defined: that LDEV is another's, never deleted nor named as left by the job,
// and the job goes on with the next free number. One that reads back as defined after a creation
// whose outcome is unknown may be the job's or another's: it is named as such, never deleted.
TEST_F(HdsctlJob, NumberDefinedMeanwhileIsNeverTakenForTheJobs) {
  auto job = startJobIn("add ldev.*-ldev_id 2000 ", "add ldev");
  sim.startRaidcomSession(3600);  // the other host
  ASSERT_EQ(sim.raidcom("add ldev -ldev_id 2000 -capacity 1024 -pool 0", 3600).exitCode, 0);
  ToolResult r = job->finish();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  json summary = json::parse(r.out);
  EXPECT_EQ(summary["leftOnArray"], json::array());
  EXPECT_EQ(summary["steps"][3]["detail"],
            "3 S-VOLs in pool 0 (LDEV 2000 defined by another meanwhile: skipped, not the job's)");
  EXPECT_EQ(summary["pairs"][0]["svol"], "2003");
  ASSERT_EQ(sim.raidcom("delete ldev -ldev_id 2000", 3600).exitCode, 0);
  EXPECT_EQ(arrayState(sim), before);

  fault("get command_status", 1);
  r = runTool({hdsctlPath(), "job", jobFile, "--json"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  summary = json::parse(r.out);
  EXPECT_EQ(summary["leftOnArray"],
            json::array({"LDEV 2000 (defined after the job's creation of it failed; not deleted, "
                         "as it may be another's)"}));
  EXPECT_EQ(summary["pairs"][0]["svol"], "2003");
}

TEST_F(HdsctlJob, WhatCannotBeCleanedUpIsLeftForRecover) {
  fault("delete ldev -ldev_id 2002", -1);
  ToolResult r = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_THAT(r.out, HasSubstr("left on array 412345: S-VOL 2002 (left for `hdsctl recover`)"));
  EXPECT_THAT(r.err, HasSubstr("failed at step 'delete S-VOLs'"));
  EXPECT_TRUE(hdstest::pathExists(env.tempDir() + "/jobs/t.journal"));
  r = runTool({hdsctlPath(), "recover", "t"});
  EXPECT_EQ(r.exitCode, 1) << r.out;
  EXPECT_THAT(r.out, HasSubstr("not removed: S-VOL 2002"));

  EXPECT_THAT(recoverAll(), HasSubstr("removed: S-VOL 2002"));
}

// SIGINT, SIGTERM and SIGHUP (a dropped session), however often they come, end the job at the
// next step, and its clean-up still runs and empties the journal.
TEST_F(HdsctlJob, SignalsEndTheJobAtTheNextStepAndCleanUp) {
  for (const std::vector<int>& signals :
       std::vector<std::vector<int>>{{SIGINT}, {SIGHUP}, {SIGINT, SIGINT, SIGTERM}}) {
    auto job = startJobIn("add snapshot");
    for (int signal : signals) kill(job->pid(), signal);
    ToolResult r = job->finish();
    EXPECT_EQ(r.exitCode, 1) << r.err;
    json summary = json::parse(r.out);
    EXPECT_EQ(summary["error"], "interrupted by a signal");
    EXPECT_EQ(summary["failedStep"], "snapshot create");
    expectClean();
  }
  // A reader that goes away ends nothing: the job runs to its end.
  EXPECT_EQ(runTool({"/bin/sh", "-c", hdsctlPath() + " job " + jobFile + " | head -1"}).exitCode,
            0);
  expectClean();
}

TEST_F(HdsctlJob, KilledInAnyStepIsRecovered) {
  for (const char* call : {"add ldev", "modify ldev", "add device_grp", "add snapshot",
                           "modify snapshot", "add host_grp", "add lun", "delete lun",
                           "delete snapshot", "delete device_grp", "delete ldev"}) {
    SCOPED_TRACE(call);
    auto job = startJobIn(call);
    kill(job->pid(), SIGKILL);
    EXPECT_EQ(job->finish().exitCode, 128 + SIGKILL);
    EXPECT_THAT(recoverAll(), HasSubstr("given back: the session of the dead job"));
    EXPECT_THAT(sim.dump(), Not(HasSubstr("\nsession ")));
  }
}

// One job of a name at a time: a twin of a live job is refused at once, and so is recover; a
// job of the name of a dead one gives back what that one made first.
TEST_F(HdsctlJob, TwinsDoNotShareTheirObjects) {
  auto first = startJobIn("add snapshot");
  ToolResult twin = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(twin.exitCode, 1);
  EXPECT_THAT(twin.err, HasSubstr("hdsctl: job t is already running on this host"));
  ToolResult recover = runTool({hdsctlPath(), "recover", "t"});
  EXPECT_EQ(recover.exitCode, 1);
  EXPECT_THAT(recover.err, HasSubstr("job t is running"));

  kill(first->pid(), SIGKILL);
  first->finish();
  waitForTools();
  twin = runTool({hdsctlPath(), "job", jobFile});
  EXPECT_EQ(twin.exitCode, 0) << twin.out << twin.err;
  EXPECT_THAT(twin.out, HasSubstr("recovering it first"));
  expectClean();
}

// A listing that keeps answering garbage proves nothing, be it rows that are not pairs or one
// line with no header, which must not pass for an empty listing: what it was to show gone is left
// for hdsctl recover, never reported removed.
TEST_F(HdsctlJob, GarbageListingsRemoveNothingUnverified) {
  for (const char* text : {"garbage line with many words and not one number in it\n"
                           "more garbage line with many words and not one number in it\n",
                           "garbage\n"}) {
    SCOPED_TRACE(text);
    sim.addFault(hdstest::answering("get snapshot -[ls]",
                                    text));  // past the check that the group's name is free
    ToolResult r = runTool({hdsctlPath(), "job", jobFile, "--json"});
    EXPECT_EQ(r.exitCode, 1);
    json summary = json::parse(r.out);
    EXPECT_EQ(summary["failedStep"], "snapshot create");
    EXPECT_THAT(summary["removed"].dump(), Not(HasSubstr("snapshot")));
    EXPECT_THAT(summary["leftOnArray"].dump(),
                HasSubstr("snapshot pairs of KS_SNAP_t (S-VOLs 2000, 2001, 2002) (left for "
                          "`hdsctl recover`)"));
    EXPECT_TRUE(summary["leftForRecover"].get<bool>());

    recoverAll();
  }

  // The list of device groups answers one line of garbage once the job has read it for its
  // P-VOLs; the groups' removal then cannot be read back.
  fault("add snapshot", -1);
  auto job = startJobIn("add ldev");
  sim.addFault(hdstest::answering("^get device_grp -I", "garbage\n"));
  ToolResult r = job->finish();
  EXPECT_EQ(r.exitCode, 1);
  json summary = json::parse(r.out);
  EXPECT_EQ(summary["failedStep"], "snapshot group add");
  EXPECT_THAT(summary["removed"].dump(), Not(HasSubstr("device groups")));
  EXPECT_THAT(summary["leftOnArray"].dump(), HasSubstr("device groups"));
  recoverAll();
}

// An array that stops answering: the clean-up stops at its first call that meets the command
// time-out, so the job ends within twice the time-out after the step that met it, and the rest,
// the session and the lock are left for recover.
TEST_F(HdsctlJob, DeadArrayEndsTheJobWithinTheCleanUpDeadline) {
  env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory = " + sim.cciDir() +
                    "\n[~iHarbor]\nnVTHDSCCICommandTimeoutInSec = 30\n");
  hdstest::writeFile(jobFile, R"({"name": "t", "pool": 0, "pvols": [100, 101, 102, 103]})");
  auto job = startJobIn("add snapshot");
  sim.addFault(hdstest::delayed("", 120 * 1000, -1, "*"));
  const auto start = std::chrono::steady_clock::now();
  ToolResult r = job->finish();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(r.exitCode, 1) << r.err;
  EXPECT_LT(seconds, 3 * 30) << "a time-out for the step and one for the clean-up";
  EXPECT_THAT(r.err, HasSubstr("clean-up stopped: the array did not answer in time"));
  json summary = json::parse(r.out);
  EXPECT_TRUE(summary["leftForRecover"].get<bool>());
  EXPECT_EQ(summary["removed"], json::array());
  recoverAll();
}

// The journal: a torn last line is the write its runner died in; any other unreadable line is
// an error that names the file.
TEST_F(HdsctlJob, JournalTornAndUnreadable) {
  const std::string journal = env.tempDir() + "/jobs/t.journal";
  const std::string header = R"({"job": "t", "pid": 1, "boot": "x", "array": {"serial": "412345"}})"
                             "\n";
  mkdir((env.tempDir() + "/jobs").c_str(), 0700);
  // Its session was counted in another boot ("x"), whose count is void: it is not given back.
  hdstest::writeFile(journal, header + R"({"do": "session", "id": 1, "serial": "412345"})" + "\n" +
                                  R"({"do": "svol", "id": 2, "ldev": "20)");
  ToolResult r = runTool({hdsctlPath(), "recover", "t"});
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_THAT(r.out, HasSubstr("counted in an earlier boot"));
  EXPECT_EQ(hdstest::loginCount(env), 0);
  EXPECT_FALSE(hdstest::pathExists(journal));

  mkdir((env.tempDir() + "/jobs").c_str(), 0700);
  hdstest::writeFile(journal, header + "garbage\n{\"undone\": 1}\n");
  r = runTool({hdsctlPath(), "recover", "t"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_THAT(r.err, HasSubstr("the job journal " + journal + " cannot be read: line 2"));
}

}  // namespace
