#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/TestEnv.h"

class VtProcess;

namespace hdstest {

// What a program printed and how it ended.
struct ToolResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// One run of a built program with the test's environment; the deadline only catches a hang.
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

// The built hdsctl and ccisim.
std::string hdsctlPath();
std::string ccisimPath();

// A host with a simulated array, as an operator would set one up: the CCI tools of ccisim in
// env.cciDir(), a fresh default array in $CCISIM_STATE, the CCI directory in the settings file
// and the array options in HDSCTL_*.
class SimHost {
 public:
  // create false: use the state $CCISIM_STATE already holds.
  explicit SimHost(TestEnv& env, bool create = true);
  // Runs ccisim with these arguments and expects success; its output.
  std::string ccisim(const std::vector<std::string>& args) const;
  // The arrays of `ccisim dump --json` (the whole array state, without host-side instances).
  std::string arrays() const;

 private:
  TestEnv& m_oEnv;
};

}  // namespace hdstest
