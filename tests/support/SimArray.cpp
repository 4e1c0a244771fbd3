#include "tests/support/SimArray.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "hds/common/internal/HDSText.h"
#include "tests/support/ToolRun.h"

namespace hdstest {

namespace {

// Long enough for any simulated call; a hung one shows up as a failure, not a stuck test.
constexpr int kToolTimeoutSec = 60;

ToolResult runArgv(const std::vector<std::string>& argv) { return runTool(argv, kToolTimeoutSec); }

SimFault matching(const std::string& tool, const std::string& match, int times) {
  SimFault fault;
  fault.tool = tool;
  fault.match = match;
  fault.times = times;
  return fault;
}

}  // namespace

std::vector<std::string> outputLines(const std::string& text) {
  std::vector<std::string> lines;
  for (std::string_view line : hds::text::splitLines(text)) lines.emplace_back(line);
  return lines;
}

std::vector<std::string> lineWords(const std::string& line) {
  std::vector<std::string> words;
  for (std::string_view word : hds::text::splitColumns(line)) words.emplace_back(word);
  return words;
}

SimArray::SimArray(const TestEnv& env, const std::string& scenarioJson) : m_rEnv(env) {
  admin({"install", cciDir()});
  if (scenarioJson.empty()) {
    admin({"init"});
  } else {
    load(scenarioJson);
  }
}

HDSCLIInitParam SimArray::raidcomParam() {
  HDSCLIInitParam p;
  p.serialNumber = kSerial;
  p.userName = kUser;
  p.password = kPassword;
  p.operationType = 1;
  p.commandDevices = {kCommandDevice};
  return p;
}

std::string SimArray::ccisimPath() { return HDS_TEST_BINARY_DIR "/sim/ccisim"; }

std::string SimArray::defaultScenario() {
  ToolResult r = runArgv({ccisimPath(), "init", "--print"});
  if (r.exitCode != 0) throw std::runtime_error("ccisim init --print failed: " + r.err);
  return r.out;
}

ToolResult SimArray::run(const std::string& tool, const std::vector<std::string>& args) const {
  std::vector<std::string> argv{toolPath(tool)};
  argv.insert(argv.end(), args.begin(), args.end());
  return runArgv(argv);
}

ToolResult SimArray::shell(const std::string& commandLine) const {
  return runArgv({"/bin/sh", "-c", commandLine});
}

std::string SimArray::admin(const std::vector<std::string>& args) const {
  std::vector<std::string> argv{ccisimPath()};
  argv.insert(argv.end(), args.begin(), args.end());
  ToolResult r = runArgv(argv);
  if (r.exitCode != 0) {
    std::string line;
    for (const std::string& a : args) line += " " + a;
    throw std::runtime_error("ccisim" + line + " failed (" + std::to_string(r.exitCode) +
                             "): " + r.err);
  }
  return r.out;
}

std::string SimArray::dump() const { return admin({"dump"}); }

std::string SimArray::dumpJson() const { return admin({"dump", "--json"}); }

void SimArray::load(const std::string& scenarioJson) const {
  std::string path = m_rEnv.root() + "/scenario.json";
  writeFile(path, scenarioJson);
  admin({"load", path});
}

void SimArray::addFault(const SimFault& f) const {
  std::vector<std::string> args{"fault", "add",     "--tool",
                                f.tool,  "--times", std::to_string(f.times)};
  if (!f.match.empty()) args.insert(args.end(), {"--match", f.match});
  if (f.exitCode) args.insert(args.end(), {"--exit", std::to_string(*f.exitCode)});
  if (!f.out.empty()) args.insert(args.end(), {"--stdout", f.out});
  if (!f.err.empty()) args.insert(args.end(), {"--stderr", f.err});
  if (f.delayMs > 0) args.insert(args.end(), {"--delay-ms", std::to_string(f.delayMs)});
  if (!f.statusSsb.empty()) args.insert(args.end(), {"--status-ssb", f.statusSsb});
  if (!f.statusText.empty()) args.insert(args.end(), {"--status-text", f.statusText});
  admin(args);
}

SimFault failing(const std::string& match, int exitCode, const std::string& err, int times) {
  SimFault fault = matching("raidcom", match, times);
  fault.exitCode = exitCode;
  fault.err = err;
  return fault;
}

SimFault delayed(const std::string& match, int delayMs, int times, const std::string& tool) {
  SimFault fault = matching(tool, match, times);
  fault.delayMs = delayMs;
  return fault;
}

SimFault answering(const std::string& match, const std::string& out, int times,
                   const std::string& tool) {
  SimFault fault = matching(tool, match, times);
  fault.exitCode = 0;
  fault.out = out;
  return fault;
}

std::vector<SimJournalEntry> parseJournal(const std::string& jsonText) {
  std::vector<SimJournalEntry> entries;
  for (const auto& j : nlohmann::json::parse(jsonText)) {
    SimJournalEntry e;
    e.tool = j["tool"].get<std::string>();
    e.args = j["args"].get<std::vector<std::string>>();
    if (!j["exit"].is_null()) e.exitCode = j["exit"].get<int>();
    e.startMs = j["time_ms"].get<int64_t>();
    entries.push_back(e);
  }
  return entries;
}

std::vector<SimJournalEntry> SimArray::journal() const {
  return parseJournal(admin({"journal", "--json"}));
}

void SimArray::setTimings(int copyMs, int formatMs, int syncLagMs) const {
  admin({"timing", "--copy-ms", std::to_string(copyMs), "--format-ms", std::to_string(formatMs),
         "--sync-lag-ms", std::to_string(syncLagMs)});
}

void SimArray::finishBackgroundWork() const { admin({"finish"}); }

void SimArray::expireSessions() const { admin({"session", "expire"}); }

void SimArray::lockResourceGroup(const std::string& name, const std::string& owner,
                                 const std::string& host) const {
  admin({"resource", "lock", name, "--owner", owner, "--host", host});
}

std::string SimArray::raidcomHorcmConf(int instance,
                                       const std::vector<std::string>& commandDevices) {
  std::string devices;
  for (const std::string& d :
       commandDevices.empty() ? std::vector<std::string>{kCommandDevice} : commandDevices) {
    devices += d + " ";
  }
  return "#HORCM file create by Tessaly Kestrel. Do not alter the file content or delete the "
         "file.\nHORCM_MON\n#ip_address                  service         poll(10ms)     "
         "timeout(10ms)\ntesthost\t\t" +
         std::to_string(instance) +
         "\t1000           3000\n\nHORCM_CMD\n#dev_name               dev_name         "
         "       dev_name\n#\\\\.\\CMD-" +
         kSerial + "\n" + devices + "\n";
}

void SimArray::writeRaidcomHorcmConf(int instance,
                                     const std::vector<std::string>& commandDevices) const {
  writeFile(m_rEnv.horcmDir() + "horcm" + std::to_string(instance) + ".conf",
            raidcomHorcmConf(instance, commandDevices));
}

void SimArray::startRaidcomSession(int instance) const {
  writeRaidcomHorcmConf(instance);
  ToolResult start = run("horcmstart.sh", {std::to_string(instance)});
  if (start.exitCode != 0) throw std::runtime_error("horcmstart.sh failed: " + start.out);
  ToolResult login = run("raidcom", {"-login", kUser, kPassword, "-IM" + std::to_string(instance)});
  if (login.exitCode != 0) throw std::runtime_error("raidcom -login failed: " + login.err);
}

std::string SimArray::instanceArgs(int instance) {
  return " -IM" + std::to_string(instance) + " -s " + kSerial;
}

ToolResult SimArray::raidcom(const std::string& arguments, int instance) const {
  return shell(toolPath("raidcom") + " " + arguments + instanceArgs(instance));
}

std::vector<std::string> simCalls(const SimArray& sim, const std::vector<std::string>& words,
                                  const std::string& tool) {
  std::vector<std::string> calls;
  for (const SimJournalEntry& e : sim.journal()) {
    const bool match = e.tool == tool && e.args.size() >= words.size() &&
                       std::equal(words.begin(), words.end(), e.args.begin());
    if (!match) continue;
    std::string joined;
    for (size_t i = words.size(); i < e.args.size() && e.args[i].rfind("-I", 0) != 0; ++i) {
      const std::string& a = e.args[i];
      joined +=
          (i == words.size() ? "" : " ") + (a.find(' ') == std::string::npos ? a : "'" + a + "'");
    }
    calls.push_back(joined);
  }
  return calls;
}

}  // namespace hdstest
