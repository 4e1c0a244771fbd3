// Several processes, each with several threads, each thread with a raidcom handler of its own on
// one simulated array: what a process keeps for all its handlers (resource lock count, retry
// settings, raidqry cache, file name counters) must hold up under its threads.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "hds/platform/VTPlatformInfo.h"
#include "tests/support/Leftovers.h"
#include "tests/support/ProcessHelpers.h"
#include "tests/support/RaidcomKit.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/ToolRun.h"

namespace {

using hdstest::SimArray;

constexpr int kProcesses = 4;
constexpr int kThreads = 4;
constexpr int kScriptsPerThread = 4;

// One thread's share of the work: an S-VOL of its own made, labelled and removed under the
// resource group lock, and scripts whose output must be its own. 0, or the number of the stage
// that went wrong.
int threadWork(VTSO::SnapInfo& log, int process, int thread) {
  hdstest::RaidcomProbe h(log, SimArray::raidcomParam());
  if (h.errorCode() != 0) return 1;
  if (h.lockResource() != 0) return 2;
  const std::string svol = std::to_string(3000 + process * 10 + thread);
  std::map<std::string, hdsLdev_t> pair;
  hdsLdev_t& l = pair[std::to_string(100 + process * kThreads + thread) + "->" + svol];
  l.serialNumber = SimArray::kSerial;
  l.ldevId = svol;
  l.capacity = 2097152;
  if (h.createSvol(pair, "0") != 0) return 3;
  if (h.modifySvolLabel(svol, "KS_SVOL_" + svol) != 0) return 4;
  for (int i = 0; i < kScriptsPerThread; ++i) {
    const std::string word = "w" + std::to_string((process * kThreads + thread) * 10 + i);
    std::string output;
    int exitCode = -1;
    if (h.executeScriptFile("echo " + word + "\n", output, exitCode) != 0) return 5;
    if (exitCode != 0 || output != word + "\n") return 6;
  }
  if (h.deleteSvol(svol) != 0) return 7;
  if (h.unlockResource() != 0) return 8;
  return 0;
}

// The exit codes of kProcesses processes that each run work(log, process, thread) in kThreads
// threads: 0, or a result other than 0 that one of its threads gave.
std::vector<int> inThreadsOfProcesses(int (*work)(VTSO::SnapInfo&, int, int)) {
  return hdstest::runInChildren(kProcesses, [work](int process) {
    hdstest::RecordingSnapInfo log;
    std::atomic<int> failed{0};
    std::thread threads[kThreads];
    for (int t = 0; t < kThreads; ++t) {
      threads[t] = std::thread([&, t] {
        if (int result = work(log, process, t)) failed = result;
      });
    }
    for (std::thread& t : threads) t.join();
    return failed.load();
  });
}

TEST(SharedHost, ThreadsOfSeveralProcessesShareOneSessionLockAndCounter) {
  hdstest::TestEnv env;
  SimArray sim(env);
  hdstest::writeRaidcomSettings(env);
  const std::string before = hdstest::arrayState(sim);

  EXPECT_EQ(inThreadsOfProcesses(threadWork), std::vector<int>(kProcesses, 0))
      << "a stage of threadWork failed";

  EXPECT_EQ(hdstest::loginCount(env), 0);
  EXPECT_EQ(hdstest::arrayState(sim), before);
  EXPECT_EQ(sim.dump().find("\nsession "), std::string::npos) << "a session was left open";
  EXPECT_EQ(hdstest::filesIn(env.tempDir()).size(), 0u) << "script files were left behind";

  // Between a reset of the command status and its reading no other asynchronous command may
  // run: the status is the session's, and every thread of every process shares that session.
  // Synchronous commands take no lock and may come in between.
  bool open = false;
  size_t ldevCommands = 0;
  for (const std::string& call : hdstest::simCalls(sim, {})) {
    if (call.rfind("reset command_status", 0) == 0) {
      EXPECT_FALSE(open) << "two asynchronous commands overlapped";
      open = true;
    } else if (call.rfind("get command_status", 0) == 0) {
      open = false;
    } else if (call.rfind("add ldev", 0) == 0 || call.rfind("delete ldev", 0) == 0) {
      EXPECT_TRUE(open) << "an LDEV was made or deleted outside its status window";
      ++ldevCommands;
    }
  }
  EXPECT_EQ(ldevCommands, static_cast<size_t>(2 * kProcesses * kThreads));
}

constexpr int kRounds = 20;

// Each thread counts a key of its own and one that all share up, kRounds times each.
int countUp(VTSO::SnapInfo&, int process, int thread) {
  auto bump = [](bool present, int v) { return present ? v + 1 : 1; };
  const std::string own = "nOwn" + std::to_string(process * kThreads + thread);
  for (int r = 0; r < kRounds; ++r) {
    if (!VTPlatformInfo::updateRegInt("~iHarbor", own.c_str(), bump) ||
        !VTPlatformInfo::updateRegInt("~iHarbor", "nShared", bump)) {
      return 1;
    }
  }
  return 0;
}

// The settings store takes every write under its own lock: threads of one process and other
// processes updating the same file, some of them the same key, lose nothing.
TEST(SharedHost, SettingsWritersInThreadsAndProcessesLoseNothing) {
  hdstest::TestEnv env;
  EXPECT_EQ(inThreadsOfProcesses(countUp), std::vector<int>(kProcesses, 0));
  auto value = [](const std::string& key) {
    int v = -1;
    return VTPlatformInfo::getRegInt("~iHarbor", key.c_str(), &v) ? v : -1;
  };
  for (int i = 0; i < kProcesses * kThreads; ++i) {
    EXPECT_EQ(value("nOwn" + std::to_string(i)), kRounds);
  }
  EXPECT_EQ(value("nShared"), kProcesses * kThreads * kRounds);
}

}  // namespace
