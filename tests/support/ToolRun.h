#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/SimArray.h"
#include "tests/support/TestEnv.h"

class VtProcess;

namespace hdstest {

// One run of a built program (hdsctl) with the test's environment; the deadline only catches a
// hang. The pid lets a test signal it while it runs.
class ToolRun {
 public:
  explicit ToolRun(const std::vector<std::string>& argv);
  ~ToolRun();
  pid_t pid() const;
  ToolResult finish(int timeoutSec = 300);

 private:
  std::unique_ptr<VtProcess> m_pProcess;
};

ToolResult runTool(const std::vector<std::string>& argv, int timeoutSec = 300);

std::string hdsctlPath();
// Runs the built hdsctl with these arguments.
ToolResult runHdsctl(const std::vector<std::string>& args);

// Sets a host up for hdsctl on the simulated array as an operator would: the CCI directory in
// the settings file, the array options in HDSCTL_*.
void useSimArray(TestEnv& env, const SimArray& sim);
// The arrays of `ccisim dump --json`: everything the array holds, without the host's instances.
std::string arrayState(const SimArray& sim);

// The login count of array 412345 as the settings file holds it; -1000 when it holds none.
int loginCount(const std::string& settingsFile);
inline int loginCount(const TestEnv& env) { return loginCount(env.settingsFile()); }
// Polls until done() holds or the seconds have passed; whether it held.
bool waitUntil(const std::function<bool()>& done, int seconds = 60);
// Whether the array's journal holds a call whose first two arguments are these words ("add ldev").
bool hasCalled(const SimArray& sim, const std::string& words);

}  // namespace hdstest
