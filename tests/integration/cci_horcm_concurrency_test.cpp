// Several processes on one host allocating HORCM instance pairs at the same moment.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "hds/cci/CCICommandHandler.h"
#include "hds/common/internal/HDSText.h"
#include "tests/support/FakeTools.h"
#include "tests/support/Leftovers.h"
#include "tests/support/ProcessHelpers.h"
#include "tests/support/RecordingSnapInfo.h"

namespace {

// Every process marks its arrival in dir and waits for the others; false if they never come.
bool arriveAndWait(const std::string& dir, int index, int processes, const std::string& note) {
  hdstest::writeFile(dir + "/" + std::to_string(index), note);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (hdstest::filesIn(dir).size() < static_cast<size_t>(processes)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// The HORCM_MON line names the file's own instance and the HORCM_INST line its peer.
bool fileNames(const std::string& path, const std::string& own, const std::string& peer) {
  const std::string content = hdstest::readFile(path);
  const auto lines = hds::text::splitLines(content);
  return lines.size() == 17 && lines[3] == "testhost\t\t" + own + "\t1000           3000" &&
         lines[15] == "CG1  testhost  " + peer;
}

TEST(CciHorcmConcurrency, EightProcessesGetSixteenDistinctInstances) {
  constexpr int kProcesses = 8;
  hdstest::HandlerEnv h;
  const hdstest::TestEnv& env = h.env;
  h.tools.add("horcmstart.sh", "HORCM inst starts successfully.\n");
  h.tools.add("horcmshutdown.sh", "horcmshutdown inst !!!\n");
  const std::string ready = env.root() + "/ready";
  const std::string allocated = env.root() + "/allocated";
  mkdir(ready.c_str(), 0755);
  mkdir(allocated.c_str(), 0755);

  const std::vector<int> codes = hdstest::runInChildren(kProcesses, [&](int index) {
    hdstest::RecordingSnapInfo log;
    HDSCLIInitParam param;
    param.serialNumber = "412345";
    param.copyGroupName = "CG1";
    CCICommandHandler handler(log, param, "-1", "-1");
    if (!arriveAndWait(ready, index, kProcesses, "")) return 10;
    if (handler.startHorcm() != 0) return 11;
    const std::string own = handler.getInstance();
    const std::string peer = handler.getPeerInstance();
    // Every pair stays allocated until all processes have theirs.
    if (!arriveAndWait(allocated, index, kProcesses, own + " " + peer)) return 12;
    if (!fileNames(env.horcmDir() + "horcm" + own + ".conf", own, peer)) return 13;
    if (!fileNames(env.horcmDir() + "horcm" + peer + ".conf", peer, own)) return 14;
    handler.stopHorcm();
    return 0;
  });

  std::set<int> numbers;
  for (int i = 0; i < kProcesses; ++i) {
    EXPECT_EQ(codes[i], 0) << "process " << i;
    std::istringstream in(hdstest::readFile(allocated + "/" + std::to_string(i)));
    int own = 0;
    int peer = 0;
    in >> own >> peer;
    EXPECT_EQ(peer, own + 1);
    EXPECT_GE(own, 3300);
    EXPECT_LT(own, 3500);
    numbers.insert(own);
    numbers.insert(peer);
  }
  EXPECT_EQ(numbers.size(), 2u * kProcesses);
  EXPECT_EQ(hdstest::filesIn(env.horcmDir()), std::set<std::string>{});
  EXPECT_EQ(h.tools.calls("horcmstart.sh"), 2 * kProcesses);
}

}  // namespace
