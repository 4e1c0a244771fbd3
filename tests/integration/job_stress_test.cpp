// Thirty-two hdsctl jobs on one simulated array at once. They share the host's session and login
// count, the HORCM instance, the resource group lock and the serialised asynchronous commands;
// each must succeed or end with the step and error that stopped it, and in the end the array is
// as it was, no session or process is left and the login count is back at 0. And a job killed
// outright holds up no job after it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/Leftovers.h"
#include "tests/support/TestEnv.h"
#include "tests/support/ToolRun.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

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
  std::string arrays() const { return hdstest::arrayState(sim); }
  bool sessionOpen() const { return sim.dump().find("\nsession ") != std::string::npos; }

  std::string jobFile(const std::string& name, const json& job) {
    std::string file = env.root() + "/" + name + ".json";
    hdstest::writeFile(file, job.dump());
    return file;
  }
  // hdsctl's command line for a job of one pair.
  std::vector<std::string> onePair(const std::string& name, int pvol, int svol) {
    return {hdstest::hdsctlPath(), "job",
            jobFile(name, {{"name", name}, {"pool", 0}, {"pvols", {pvol}}, {"svols", {svol}}})};
  }

  // Starts every job at once; how many succeeded. A failure must name the job, its step and the
  // library's error, with nothing that its clean-up could not give back.
  int runAtOnce(const std::vector<std::string>& files, bool* keptHostGroup = nullptr) {
    std::vector<std::unique_ptr<ToolRun>> runs;
    runs.reserve(files.size());
    for (const std::string& f : files)
      runs.emplace_back(new ToolRun({hdstest::hdsctlPath(), "job", f}));
    int succeeded = 0;
    for (size_t i = 0; i < runs.size(); ++i) {
      ToolResult r = runs[i]->finish(600);
      if (keptHostGroup != nullptr &&
          r.out.find("(LUNs of others are in it)") != std::string::npos) {
        *keptHostGroup = true;
      }
      if (r.exitCode == 0) {
        ++succeeded;
        continue;
      }
      EXPECT_EQ(r.exitCode, 1) << r.err;
      EXPECT_THAT(r.err, HasSubstr("hdsctl: job s" + std::to_string(i) + " failed at step '"));
      EXPECT_THAT(r.err, HasSubstr("(error 626"));
      EXPECT_THAT(r.out, Not(HasSubstr("not removed")));
    }
    return succeeded;
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

  // Apart from the array, which each test compares in its own way.
  void expectNothingLeftOnTheHost() {
    EXPECT_FALSE(sessionOpen()) << "a session is open";
    EXPECT_EQ(loginCount(), 0);
    EXPECT_EQ(hdstest::processesWithEnvironment("CCISIM_STATE=" + env.simState()),
              std::vector<std::string>{});
    EXPECT_EQ(hdstest::filesIn(env.tempDir()), std::set<std::string>{});
  }
};

// Jobs on objects of their own, and jobs that pick their S-VOL numbers from the same free range
// and present on the same host group: choosing and creating is one act for the jobs of a host,
// so every one of them gets through.
TEST_F(JobStress, ThirtyTwoJobsAtOnceAllSucceed) {
  const std::string before = arrays();
  for (const bool choosing : {false, true}) {
    SCOPED_TRACE(choosing ? "choosing their numbers" : "numbers of their own");
    std::vector<std::string> files;
    for (int i = 0; i < kJobs; ++i) {
      const std::string name = "s" + std::to_string(i);
      json job = {{"name", name}, {"pool", 0}, {"pvols", {100 + i}}, {"wait_seconds", 120}};
      if (choosing) {
        job["present"] = {{"port", "CL1-A"}};
      } else {
        job["svols"] = {2000 + i};
        job["present"] = {{"port", i % 2 ? "CL1-A" : "CL2-A"}, {"host_group", "HG_" + name}};
      }
      files.push_back(jobFile(name, job));
    }
    bool kept = false;
    EXPECT_EQ(runAtOnce(files, &kept), kJobs);
    json state = json::parse(arrays());
    if (kept) {
      // The job that made the shared host group found LUNs of others in it when it was done,
      // and left it (as it said); it is all that may stay, and empty.
      for (json& port : state[0]["ports"]) {
        json& groups = port["host_groups"];
        for (auto g = groups.begin(); g != groups.end(); ++g) {
          if ((*g)["name"] == "KS_PRE_SNAP_HOST_GROUP" && (*g)["luns"].empty()) {
            groups.erase(g);
            break;
          }
        }
      }
    }
    EXPECT_EQ(state.dump(1), before);
    expectNothingLeftOnTheHost();
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
  // The killed job's session stays counted: no process is left to give it back. Once the array
  // ends that session, the next job's first command meets the expired session, logs in anew and
  // counts only its own session, so the count is right again after it.
  EXPECT_EQ(loginCount(), 1);
  // The command the killed job had started runs to its end on its own.
  hdstest::waitUntil([this] {
    return hdstest::processesWithEnvironment("CCISIM_STATE=" + env.simState()).empty();
  });
  sim.expireSessions();
  ToolResult after = hdstest::runTool(onePair("a", 102, 2002));
  EXPECT_EQ(after.exitCode, 0) << after.out << after.err;
  EXPECT_EQ(loginCount(), 0);
  EXPECT_FALSE(sessionOpen()) << "a session is open";

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
  EXPECT_EQ(loginCount(), 0);
  EXPECT_FALSE(sessionOpen()) << "a session is open";
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
  EXPECT_EQ(loginCount(), 0);
  EXPECT_FALSE(sessionOpen());
}
