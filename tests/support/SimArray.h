#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hds/handler/CommandHandler.h"
#include "tests/support/TestEnv.h"

namespace hdstest {

// What one run of a simulated CCI tool gave back.
struct ToolResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// A fault: calls of `tool` ("*" for any) whose joined arguments match `match` exit with
// `exitCode` and print `out`/`err`; with no exit code they run after `delayMs` (a hang past a
// time-out), or, with `statusSsb` ("2E31,4016"), their work fails in the background and
// `get command_status` reports it. `times` uses, -1 for every call.
struct SimFault {
  std::string tool = "raidcom";
  std::string match;
  std::optional<int> exitCode;
  std::string out;
  std::string err;
  int times = 1;
  int delayMs = 0;
  std::string statusSsb;
  std::string statusText;
};

// A raidcom fault that makes matching calls exit with exitCode and print err, `times` times.
SimFault failing(const std::string& match, int exitCode, const std::string& err = "",
                 int times = 1);
// Matching calls of `tool` that run delayMs longer, `times` times.
SimFault delayed(const std::string& match, int delayMs, int times = 1,
                 const std::string& tool = "raidcom");
// Matching calls of `tool` that succeed at once and print `out`, `times` times.
SimFault answering(const std::string& match, const std::string& out, int times = -1,
                   const std::string& tool = "raidcom");

// Output split into lines and a line split into its columns, by the library's own text kit.
std::vector<std::string> outputLines(const std::string& text);
std::vector<std::string> lineWords(const std::string& line);

struct SimJournalEntry {
  std::string tool;
  std::vector<std::string> args;
  std::optional<int> exitCode;
  int64_t startMs = 0;  // wall clock
};
// The entries of `ccisim journal --json` output.
std::vector<SimJournalEntry> parseJournal(const std::string& jsonText);

// An emulated array for a test: the CCI tool names installed in the test's CCI directory as
// links to ccisim, and a state in the test's $CCISIM_STATE.
class SimArray {
 public:
  static constexpr const char* kSerial = "412345";
  static constexpr const char* kUser = "admin";
  static constexpr const char* kPassword = "admin123";
  static constexpr int kRaidcomInstance = 3532;
  // The command device as a HORCM file names it.
  static constexpr const char* kCommandDevice = "\\\\.\\CMD-412345:/dev/sdc";

  // The default array (serial 412345, type R9): pool 0 "dp_pool_00" (HDP) and pool 1
  // "ti_pool_01" (HTI); LDEVs 100-115 of 2097152 blocks in pool 0, named data_<id>; command
  // device LDEV 4095 seen as /dev/sdc and mapped at CL1-A-1 LUN 0; ports CL1-A (logins
  // 10000090fa1b2c3d, 10000090fa1b2c3e) and CL2-A (login 10000090fa1b2c4d); meta_resource;
  // user admin/admin123. A scenario (JSON text, see sim/SimScenario.h) replaces it.
  explicit SimArray(const TestEnv& env, const std::string& scenarioJson = "");

  static std::string ccisimPath();
  // What a raidcom handler needs to log in to this array as admin through its command device.
  static HDSCLIInitParam raidcomParam();
  static std::string defaultScenario();

  const TestEnv& env() const { return m_rEnv; }
  std::string cciDir() const { return m_rEnv.cciDir(); }
  std::string toolPath(const std::string& tool) const { return cciDir() + tool; }

  // Runs a tool directly with these arguments, or a command line through /bin/sh -c (as the
  // library does). Never throws; a run that could not start or did not end within a minute fails
  // the test and has exit code -1.
  ToolResult run(const std::string& tool, const std::vector<std::string>& args) const;
  ToolResult shell(const std::string& commandLine) const;
  // ccisim's own commands; throws std::runtime_error when one fails.
  std::string admin(const std::vector<std::string>& args) const;

  std::string dump() const;
  std::string dumpJson() const;
  void load(const std::string& scenarioJson) const;
  void addFault(const SimFault& fault) const;
  std::vector<SimJournalEntry> journal() const;
  void setTimings(int copyMs, int formatMs = 0, int syncLagMs = 0) const;
  // Completes every copy and format under way, so a test sees the end state without waiting.
  void finishBackgroundWork() const;
  void expireSessions() const;
  void lockResourceGroup(const std::string& name, const std::string& owner,
                         const std::string& host) const;

  // horcm<N>.conf as the raidcom handler writes it (monitor and command device sections only;
  // with no command devices given, the array's own), and that file put in the HORCM directory.
  static std::string raidcomHorcmConf(int instance,
                                      const std::vector<std::string>& commandDevices = {});
  void writeRaidcomHorcmConf(int instance,
                             const std::vector<std::string>& commandDevices = {}) const;
  // Writes that file, starts the instance and logs in as admin: ready for raidcom.
  void startRaidcomSession(int instance = kRaidcomInstance) const;
  // " -IM<instance> -s 412345", the suffix the raidcom handler appends.
  static std::string instanceArgs(int instance = kRaidcomInstance);
  // A raidcom command line with the instance arguments appended, run through the shell.
  ToolResult raidcom(const std::string& arguments, int instance = kRaidcomInstance) const;

 private:
  const TestEnv& m_rEnv;
};

// The calls of `tool` whose arguments begin with `words`, in order, each as the arguments after
// those words and before the instance's, blank-joined, an argument holding a blank in quotes.
std::vector<std::string> simCalls(const SimArray& sim, const std::vector<std::string>& words,
                                  const std::string& tool = "raidcom");

}  // namespace hdstest
