#include "tests/support/ToolRun.h"

#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "hds/platform/VtProcess.h"

namespace hdstest {

ToolRun::ToolRun(const std::vector<std::string>& argv) : m_pProcess(new VtProcess) {
  std::vector<std::string> words = argv;
  std::vector<char*> args;
  for (std::string& w : words) args.push_back(&w[0]);
  args.push_back(nullptr);
  m_pProcess->TrapIO(true, true);
  std::string error;
  if (!m_pProcess->StartProcess(args.data(), &error, 0)) {
    ADD_FAILURE() << "cannot start " << argv[0] << ": " << error;
  }
}

ToolRun::~ToolRun() = default;

pid_t ToolRun::pid() const { return m_pProcess->pid(); }

ToolResult ToolRun::finish(int timeoutSec) {
  ToolResult r;
  std::string error;
  if (!m_pProcess->WaitForProcessToEnd(&r.exitCode, &error, timeoutSec)) {
    ADD_FAILURE() << "the program did not end: " << error;
    r.exitCode = -1;
  }
  m_pProcess->GetIO(&r.out, &r.err);
  return r;
}

ToolResult runTool(const std::vector<std::string>& argv, int timeoutSec) {
  return ToolRun(argv).finish(timeoutSec);
}

std::string hdsctlPath() { return HDS_TEST_BINARY_DIR "/tools/hdsctl/hdsctl"; }

ToolResult runHdsctl(const std::vector<std::string>& args) {
  std::vector<std::string> argv{hdsctlPath()};
  argv.insert(argv.end(), args.begin(), args.end());
  return runTool(argv);
}

void useSimArray(TestEnv& env, const SimArray& sim) {
  env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory = " + sim.cciDir() + "\n");
  env.setEnv("HDSCTL_SERIAL", SimArray::kSerial);
  env.setEnv("HDSCTL_USER", SimArray::kUser);
  env.setEnv("HDSCTL_PASSWORD", SimArray::kPassword);
  env.setEnv("HDSCTL_CMDDEV", "/dev/sdc");
}

std::string arrayState(const SimArray& sim) {
  return nlohmann::json::parse(sim.dumpJson())["arrays"].dump(1);
}

int loginCount(const std::string& settingsFile) {
  const std::string settings = readFile(settingsFile);
  const size_t at = settings.find("sVTHDSRaidcomLockCount_412345");
  return at == std::string::npos ? -1000 : atoi(settings.c_str() + settings.find('=', at) + 1);
}

bool waitUntil(const std::function<bool()>& done, int seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

bool hasCalled(const SimArray& sim, const std::string& words) {
  return !simCalls(sim, lineWords(words)).empty();
}

}  // namespace hdstest
