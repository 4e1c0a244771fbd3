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
#include "tests/support/FakeTools.h"
#include "tests/support/Leftovers.h"
#include "tests/support/ProcessHelpers.h"
#include "tests/support/RecordingSnapInfo.h"

namespace {

// Every process marks its arrival in dir and waits for the others; false if they never come.
bool arriveAndWait(const std::string& dir, int index, int processes, const std::string& note) {
  hdstest::writeFile(dir + "/" + std::to_string(index), note);
  for (int ms = 0; hdstest::filesIn(dir).size() < static_cast<size_t>(processes); ++ms) {
    if (ms > 60000) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

TEST(CciHorcmConcurrency, EightProcessesGetSixteenDistinctInstances) {
  constexpr int kProcesses = 8;
  hdstest::HandlerEnv h;
  h.tools.add("horcmstart.sh", "HORCM inst starts successfully.\n");
  h.tools.add("horcmshutdown.sh", "horcmshutdown inst !!!\n");
  const std::string ready = h.env.root() + "/ready", allocated = h.env.root() + "/allocated";
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
    const std::string own = handler.getInstance(), peer = handler.getPeerInstance();
    // Every pair stays allocated until all processes have theirs.
    if (!arriveAndWait(allocated, index, kProcesses, own + " " + peer)) return 12;
    // Each file still names its own instance (HORCM_MON) and its peer (HORCM_INST).
    for (const auto& [self, other] : {std::pair(own, peer), std::pair(peer, own)}) {
      const std::string file = hdstest::readFile(h.env.horcmDir() + "horcm" + self + ".conf");
      if (file.find("\ntesthost\t\t" + self + "\t1000 ") == std::string::npos ||
          file.find("\nCG1  testhost  " + other + "\n") == std::string::npos) {
        return 13;
      }
    }
    handler.stopHorcm();
    return 0;
  });

  std::set<int> numbers;
  for (int i = 0; i < kProcesses; ++i) {
    EXPECT_EQ(codes[i], 0) << "process " << i;
    std::istringstream in(hdstest::readFile(allocated + "/" + std::to_string(i)));
    int own = 0, peer = 0;
    in >> own >> peer;
    EXPECT_EQ(peer, own + 1);
    EXPECT_TRUE(own >= 3300 && peer < 3500) << own;
    numbers.insert({own, peer});
  }
  EXPECT_EQ(numbers.size(), 2u * kProcesses);
  EXPECT_EQ(hdstest::filesIn(h.env.horcmDir()), std::set<std::string>{});
  EXPECT_EQ(h.tools.calls("horcmstart.sh"), 2 * kProcesses);
}

}  // namespace
