// hdsctl jobs on one simulated array at once, sharing the host's session and login count, the
// HORCM instance, the resource group lock and the serialised asynchronous commands, and jobs after
// one killed outright.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>

#include "tests/support/Leftovers.h"
#include "tests/support/TestEnv.h"
#include "tests/support/ToolRun.h"

namespace {

using ::testing::HasSubstr;

using hdstest::ToolResult;
using hdstest::ToolRun;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr int kJobs = 32;

class JobStress : public ::testing::Test {
 protected:
  hdstest::TestEnv env;
  hdstest::SimArray sim{env};

  void SetUp() override {
    sim.admin({"init", "--ldevs", "100-" + std::to_string(99 + kJobs)});
    hdstest::useSimArray(env, sim);
  }
  void expectNoSession() const {
    EXPECT_EQ(loginCount(), 0);
    EXPECT_EQ(sim.dump().find("\nsession "), std::string::npos) << "a session is open";
  }

  std::string jobFile(const json& job) {
    std::string file = env.root() + "/" + job["name"].get<std::string>() + ".json";
    hdstest::writeFile(file, job.dump());
    return file;
  }
  std::vector<std::string> onePair(const std::string& name, int pvol, int svol) {
    return {hdstest::hdsctlPath(), "job",
            jobFile({{"name", name}, {"pool", 0}, {"pvols", {pvol}}, {"svols", {svol}}})};
  }

  // Runs a job on P-VOL 100 and kills it outright inside its first LDEV creation, which the
  // array makes last delayMs.
  void killJobInItsFirstLdevCreation(int delayMs) {
    sim.addFault(hdstest::delayed("add ldev", delayMs));
    ToolRun killed(onePair("k", 100, 2000));
    hdstest::waitUntil([this] { return hdstest::hasCalled(sim, "add ldev"); });
    kill(killed.pid(), SIGKILL);
    EXPECT_EQ(killed.finish().exitCode, 128 + SIGKILL);
  }

  int loginCount() const { return hdstest::loginCount(env); }

  std::vector<std::string> liveTools() const {
    return hdstest::processesWithEnvironment("CCISIM_STATE=" + env.simState());
  }
};

// Jobs on objects of their own, and jobs that pick their S-VOL numbers from the same free range
// and present on the same host group: choosing and creating is one act for the jobs of a host,
// so every one of them gets through.
TEST_F(JobStress, ThirtyTwoJobsAtOnceAllSucceed) {
  const std::string before = hdstest::arrayState(sim);
  for (const bool choosing : {false, true}) {
    SCOPED_TRACE(choosing ? "choosing their numbers" : "numbers of their own");
    std::vector<std::unique_ptr<ToolRun>> runs;
    for (int i = 0; i < kJobs; ++i) {
      const std::string name = "s" + std::to_string(i);
      json job = {{"name", name}, {"pool", 0}, {"pvols", {100 + i}}, {"wait_seconds", 120}};
      job["present"] = {{"port", i % 2 ? "CL1-A" : "CL2-A"}, {"host_group", "HG_" + name}};
      if (choosing) job["present"] = {{"port", "CL1-A"}};
      if (!choosing) job["svols"] = {2000 + i};
      runs.emplace_back(new ToolRun({hdstest::hdsctlPath(), "job", jobFile(job)}));
    }
    bool kept = false;
    for (std::unique_ptr<ToolRun>& run : runs) {
      ToolResult r = run->finish(600);
      EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
      kept = kept || r.out.find("(LUNs of others are in it)") != std::string::npos;
    }
    // The job that made the shared host group may find LUNs of others in it when it is done and
    // leave it, as it says; it is all that may stay, and empty.
    json state = json::parse(hdstest::arrayState(sim));
    for (json& port : state[0]["ports"]) {
      json& groups = port["host_groups"];
      for (size_t g = groups.size(); kept && g-- > 0;) {
        if (groups[g]["name"] == "KS_PRE_SNAP_HOST_GROUP" && groups[g]["luns"].empty()) {
          groups.erase(g);
        }
      }
    }
    EXPECT_EQ(state.dump(1), before);
    expectNoSession();
    EXPECT_EQ(liveTools(), std::vector<std::string>{});
    EXPECT_EQ(hdstest::filesIn(env.tempDir()), std::set<std::string>{});
  }
}

// A job killed inside an asynchronous command, with the host's locks and the array's resource
// group lock held: the next job must neither wait for those locks nor fail on them.
TEST_F(JobStress, KilledJobHoldsUpNoJobAfterIt) {
  killJobInItsFirstLdevCreation(3000);

  const Clock::time_point start = Clock::now();
  ToolResult next = hdstest::runTool(onePair("n", 101, 2001));
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  EXPECT_EQ(next.exitCode, 0) << next.out << next.err;
  // Waiting out a lock would take many five-second rounds; one round lost to the killed job's
  // command, which still runs on a loaded or instrumented build, is not a fault.
  EXPECT_LT(seconds, 15.0);
  // The killed job's session stays counted until the array ends it; the next job's first command
  // then meets the expired session, logs in anew and counts only its own.
  EXPECT_EQ(loginCount(), 1);
  // The command the killed job had started runs to its end on its own.
  hdstest::waitUntil([this] { return liveTools().empty(); });
  sim.expireSessions();
  ToolResult after = hdstest::runTool(onePair("a", 102, 2002));
  EXPECT_EQ(after.exitCode, 0) << after.out << after.err;
  expectNoSession();

  // The count started anew without the killed job's session: recovering the job beside a live
  // session gives back what the job made, but not a session the count no longer holds, which
  // would count off (and log out) the live one.
  sim.admin({"journal", "--clear"});
  sim.addFault(hdstest::delayed("get ldev", 3000));
  ToolRun live({hdstest::hdsctlPath(), "ldevs"});
  hdstest::waitUntil([this] { return hdstest::hasCalled(sim, "get ldev"); });
  ToolResult recover = hdstest::runTool({hdstest::hdsctlPath(), "recover", "k"});
  EXPECT_EQ(recover.exitCode, 0) << recover.out << recover.err;
  EXPECT_THAT(recover.out, HasSubstr("the login count started anew without it"));
  EXPECT_EQ(loginCount(), 1) << "the live session's";
  EXPECT_EQ(live.finish().exitCode, 0);
  expectNoSession();
}

}  // namespace

// A job killed outright, then the host restarts and its HORCM instance with it: the session the
// killed job counted did not survive, so the jobs after it start the instance and log in as the
// first job of a fresh host would.
TEST_F(JobStress, KilledJobThenARebootLocksNoJobOut) {
  const std::string boot = env.root() + "/boot_id";
  hdstest::writeFile(boot, "boot-1\n");
  env.setEnv("HDS_BOOT_ID_FILE", boot.c_str());
  killJobInItsFirstLdevCreation(1000);
  EXPECT_EQ(loginCount(), 1);

  hdstest::writeFile(boot, "boot-2\n");
  EXPECT_EQ(sim.run("horcmshutdown.sh", {"3532"}).exitCode, 0);
  for (int i = 1; i <= 3; ++i) {
    const std::string name = "r" + std::to_string(i);
    const std::string log = env.root() + "/" + name + ".log";
    std::vector<std::string> argv = onePair(name, 100 + i, 2000 + i);
    argv.insert(argv.begin() + 1, {"--log", log});
    ToolResult r = hdstest::runTool(argv);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_EQ(hdstest::readFile(log).find("Login count [1] of array [412345] was kept before "
                                          "the host last started.") != std::string::npos,
              i == 1);
  }
  expectNoSession();
}
