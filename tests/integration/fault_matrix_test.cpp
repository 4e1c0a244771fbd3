// The fault matrix: every CCI call of the demo's snapshot job, made to fail once in the shape the
// real tool fails in, and made to hang past the command time-out. Every run must end by itself
// within the time-out and a few seconds: with exit 1 and the library's error text for the step
// the call belongs to, or with the job done where the library retries the call or falls back by
// design. The array must be as it was, but for what the job names as left on it; and the host
// must keep nothing that a successful job does not, beyond what the failed step itself keeps (its
// script, the copy of a HORCM file that did not start, the session whose logout failed): no
// process, lock file, HORCM file or other file.
//
// HDS_FAULT_MATRIX_PVOLS sets the job's size (the suite runs 1 P-VOL; scripts/fault-matrix.sh the
// demo's 16), HDS_FAULT_MATRIX_PARALLEL how many hung runs wait at once.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <thread>

#include "tests/support/Leftovers.h"
#include "tests/support/SimArray.h"
#include "tests/support/TestEnv.h"
#include "tests/support/ToolRun.h"

namespace {

using hdstest::ToolResult;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr const char* kSerial = "412345";
constexpr const char* kJobName = "demo";
// The shortest command time-out the library accepts.
constexpr int kCommandTimeoutSec = 30;
// A retried resource group lock waits 5 s; the rest is for the host's load.
constexpr double kSlackSec = 8;

int envNumber(const char* name, int fallback) {
  const char* value = getenv(name);
  return value != nullptr && atoi(value) > 0 ? atoi(value) : fallback;
}

std::string collapse(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '"') continue;
    bool blank = c == ' ' || c == '\t' || c == '\n';
    if (blank && (out.empty() || out.back() == ' ')) continue;
    out += blank ? ' ' : c;
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

std::string regexQuote(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

struct Call : hdstest::SimJournalEntry {
  std::string step;
  int occurrence = 0;  // earlier calls with the same tool and arguments

  std::string text() const {
    std::string t = tool;
    for (const std::string& a : args) t += " " + a;
    return t;
  }
};

// A host with a simulated array in a directory of its own. Every program it runs gets the host's
// locations through its environment, so hosts used from several threads never meet.
class MatrixHost {
 public:
  MatrixHost(const std::string& dir, int pvols) : m_sDir(dir) {
    for (const char* sub : {"", "/cci", "/horcm", "/lock", "/tmp", "/etc"}) {
      mkdir((dir + sub).c_str(), 0755);
    }
    ccisim({"install", dir + "/cci"});
    // The demo's array; but copies complete at once, so that the job waits for them with the
    // same calls in every run.
    ccisim({"init", "--serial", kSerial, "--user", "admin:admin123", "--cmddev", "4095:/dev/sdc",
            "--ldevs", "100-" + std::to_string(99 + pvols)});
    hdstest::writeFile(dir + "/etc/settings.conf",
                       "[iHarbor]\nsVTHDSHorcmDirectory = " + dir + "/cci/\n[~iHarbor]\n" +
                           "nVTHDSCCICommandTimeoutInSec = " + std::to_string(kCommandTimeoutSec) +
                           "\n");
    // The job of `hdsctl demo`.
    json job = {{"name", kJobName},
                {"array",
                 {{"serial", kSerial},
                  {"user", "admin"},
                  {"password", "admin123"},
                  {"command_devices", {"/dev/sdc"}}}},
                {"pool", 0},
                {"pvols", json::array()},
                {"present", {{"port", "CL1-A"}, {"host_group", "KS_PRE_SNAP_HOST_GROUP"}}},
                {"wait_seconds", 60}};
    for (int i = 0; i < pvols; ++i) job["pvols"].push_back(100 + i);
    hdstest::writeFile(dir + "/job.json", job.dump());
  }

  const std::string& dir() const { return m_sDir; }
  void keepCommandFiles() const {
    std::string path = m_sDir + "/etc/settings.conf";
    hdstest::writeFile(path, hdstest::readFile(path) + "nVTHDSKeepCmdOutput = 1\n");
  }
  std::string cciDir() const { return m_sDir + "/cci/"; }

  ToolResult run(const std::vector<std::string>& argv, int timeoutSec = 120) const {
    std::vector<std::string> full = {"/usr/bin/env",
                                     "HDS_LOCK_DIR=" + m_sDir + "/lock",
                                     "HDS_SETTINGS_FILE=" + m_sDir + "/etc/settings.conf",
                                     "HDS_TEMP_DIR=" + m_sDir + "/tmp",
                                     "HDS_HORCM_DIR=" + m_sDir + "/horcm/",
                                     "HDS_CLIENT_NAME=matrix",
                                     "CCISIM_STATE=" + state()};
    full.insert(full.end(), argv.begin(), argv.end());
    return hdstest::runTool(full, timeoutSec);
  }
  std::string ccisim(std::vector<std::string> args) const {
    args.insert(args.begin(), hdstest::SimArray::ccisimPath());
    ToolResult r = run(args);
    if (r.exitCode != 0) throw std::runtime_error("ccisim " + args[1] + " failed: " + r.err);
    return r.out;
  }
  ToolResult job(bool verbose) const {
    std::vector<std::string> argv = {hdstest::hdsctlPath()};
    if (verbose) argv.push_back("-v");
    for (const char* a : {"job", "--json"}) argv.push_back(a);
    argv.insert(argv.end() - 1, m_sDir + "/job.json");
    return run(argv, 600);
  }

  std::string arrays() const { return json::parse(ccisim({"dump", "--json"}))["arrays"].dump(1); }
  bool sessionOpen() const { return ccisim({"dump"}).find("\nsession ") != std::string::npos; }
  std::vector<Call> journal() const {
    std::vector<Call> calls;
    for (const hdstest::SimJournalEntry& e : hdstest::parseJournal(ccisim({"journal", "--json"}))) {
      calls.push_back(Call{e});
    }
    return calls;
  }
  std::set<std::string> files(const std::string& sub) const {
    return hdstest::filesIn(m_sDir + sub);
  }
  int loginCount() const { return hdstest::loginCount(m_sDir + "/etc/settings.conf"); }
  std::vector<std::string> liveProcesses() const {
    return hdstest::processesWithEnvironment("CCISIM_STATE=" + state());
  }

 private:
  std::string state() const { return m_sDir + "/ccisim.db"; }
  std::string m_sDir;
};

// Which step each call of a verbose job belongs to; "" or what could not be matched. With --json
// the progress lines and the library's log share stderr in order: the commands logged before
// "[i/n] step: ..." are that step's. A script (kept by nVTHDSKeepCmdOutput) made one call per line
// that names a tool of the CCI directory.
std::string assignSteps(std::vector<Call>& calls, const std::string& err,
                        const std::string& cciDir) {
  size_t next = 0;          // the first call not accounted for
  size_t firstUnnamed = 0;  // calls from here to next belong to the step whose line comes next
  for (const std::string& line : hdstest::outputLines(err)) {
    const size_t close = line.find("] ");
    if (!line.empty() && line[0] == '[' && close != std::string::npos && line.find('/') < close) {
      const size_t start = close + 2;
      const std::string step = line.substr(start, line.find(": ", start) - start);
      for (; firstUnnamed < next; ++firstUnnamed) calls[firstUnnamed].step = step;
      continue;
    }
    const size_t at = line.find("Command [");
    const size_t end = line.rfind("] succeeded with exitCode [");
    if (at == std::string::npos || end == std::string::npos) continue;
    std::string command = line.substr(at + 9, end - at - 9);
    if (command.find("_script") != std::string::npos) {
      for (const std::string& scriptLine : hdstest::outputLines(hdstest::readFile(command))) {
        if (scriptLine.find(cciDir) == std::string::npos) continue;
        if (next == calls.size()) return "the journal lacks the calls of " + command;
        ++next;
      }
      continue;
    }
    if (command.compare(0, cciDir.size(), cciDir) == 0) command.erase(0, cciDir.size());
    const std::string wanted = collapse(command);
    // A logged login is cut after "-login", before the credentials.
    const bool login = wanted.size() >= 6 && wanted.compare(wanted.size() - 6, 6, "-login") == 0;
    const std::string have = next < calls.size() ? collapse(calls[next].text()) : "";
    if (have != wanted && !(login && have.compare(0, wanted.size(), wanted) == 0)) {
      std::string mismatch = "the logged command " + command;
      mismatch += " is not the journal's next call ";
      return mismatch += have;
    }
    ++next;
  }
  if (next != calls.size() || firstUnnamed != calls.size()) return "calls after the last step";
  return "";
}

struct Reference {
  std::vector<Call> calls;
  double seconds = 0;
  std::string arrays;
  std::set<std::string> lockFiles, horcmFiles;
};

class FaultMatrix : public ::testing::Test {
 protected:
  hdstest::TestEnv env;
  int pvols = envNumber("HDS_FAULT_MATRIX_PVOLS", 1);
  int parallel = envNumber("HDS_FAULT_MATRIX_PARALLEL", 16);
  Reference ref;

  void SetUp() override {
    MatrixHost host(env.root() + "/reference", pvols);
    host.keepCommandFiles();
    ref.arrays = host.arrays();
    Clock::time_point start = Clock::now();
    ToolResult r = host.job(true);
    ref.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    ASSERT_EQ(r.exitCode, 0) << "the job fails without a fault:\n" << r.out << r.err;
    ASSERT_EQ(host.arrays(), ref.arrays);
    ref.calls = host.journal();
    std::string problem = assignSteps(ref.calls, r.err, host.cciDir());
    ASSERT_EQ(problem, "") << r.err;
    std::map<std::string, int> seen;
    for (Call& c : ref.calls) c.occurrence = seen[c.text()]++;

    // Aiming at the n-th call of a kind needs a job that makes the same calls every time.
    MatrixHost again(env.root() + "/again", pvols);
    ASSERT_EQ(again.job(false).exitCode, 0);
    std::vector<Call> second = again.journal();
    ASSERT_EQ(second.size(), ref.calls.size()) << "the job's calls differ from run to run";
    for (size_t i = 0; i < second.size(); ++i) {
      ASSERT_EQ(second[i].text(), ref.calls[i].text()) << "call " << i << " differs between runs";
    }
    ref.lockFiles = again.files("/lock");
    ref.horcmFiles = again.files("/horcm");
  }

  // The failure the real tool gives: an array rejection for raidcom, the refused login, a
  // daemon that cannot be reached for raidqry, the start script's own message for HORCM.
  static std::vector<std::string> failureShape(const Call& c) {
    if (c.tool == "raidcom" && !c.args.empty() && c.args[0] == "-login") {
      return {"--exit", "202", "--stderr",
              "raidcom: [EX_ENAUTH] Authentication failed with User\n"};
    }
    if (c.tool == "raidcom") {
      return {"--exit", "221", "--stderr",
              "raidcom: [EX_CMDRJE] An order to the control/command device was rejected\nIt was "
              "rejected due to SKEY=0x05, ASC=0x26, ASCQ=0x00, SSB=0x2E11,0x8303 on Serial#(" +
                  std::string(kSerial) + ")\n"};
    }
    if (c.tool == "horcmstart.sh") {
      std::string n = c.args.empty() ? "" : c.args[0];
      return {"--exit", "3", "--stdout",
              "starting HORCM inst " + n + "\nHORCM inst " + n + " has failed to start.\n"};
    }
    return {"--exit", "251", "--stderr",
            c.tool + ": [EX_ATTHOR] Can't be attached to HORC manager\n"};
  }

  // The maximum LDEV number is probed with two calls whose failure the library answers with a
  // documented default rather than an error.
  static bool fallsBack(const Call& c) {
    return c.step == "choose S-VOLs" && c.tool == "raidcom" && c.args.size() > 2 &&
           c.args[0] == "get" &&
           ((c.args[1] == "resource" && c.args[2] == "-key") ||
            (c.args[1] == "ldev" && c.args[2] == "-ldev_id"));
  }

  // One run with the index-th call failing or hanging; "" when everything holds, else what not.
  std::string runCase(size_t index, bool hang, std::string& outcome) {
    const Call& c = ref.calls[index];
    MatrixHost host(env.root() + "/" + (hang ? "hang" : "fail") + std::to_string(index), pvols);
    const std::string pattern = "^" + regexQuote(c.text().substr(c.tool.size() + 1)) + "$";
    if (c.args.empty()) return "a call without arguments cannot be aimed at";
    if (c.occurrence > 0) {
      // Earlier calls of the same kind pass through untouched.
      host.ccisim({"fault", "add", "--tool", c.tool, "--match", pattern, "--delay-ms", "1",
                   "--times", std::to_string(c.occurrence)});
    }
    std::vector<std::string> fault = {"fault",   "add",   "--tool",  c.tool,
                                      "--match", pattern, "--times", "1"};
    if (hang) {
      fault.insert(fault.end(), {"--delay-ms", std::to_string((kCommandTimeoutSec + 60) * 1000)});
    } else {
      std::vector<std::string> shape = failureShape(c);
      fault.insert(fault.end(), shape.begin(), shape.end());
    }
    host.ccisim(fault);

    Clock::time_point start = Clock::now();
    ToolResult r = host.job(false);
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const int64_t endMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count();
    char timing[64];
    (void)snprintf(timing, sizeof(timing), "exit %d in %.1f s", r.exitCode, seconds);
    outcome = timing;

    std::vector<std::string> problems;
    std::vector<Call> made = host.journal();
    size_t hit = made.size(), retried = 0;
    for (size_t i = 0, n = 0; i < made.size(); ++i) {
      if (made[i].text() != c.text()) continue;
      if (n == static_cast<size_t>(c.occurrence)) hit = i;
      if (n++ > static_cast<size_t>(c.occurrence)) ++retried;
    }
    if (hit == made.size()) {
      problems.push_back("the call was never made");
    } else if (hang ? made[hit].exitCode.has_value() : !made[hit].exitCode) {
      problems.push_back("the call did not meet its fault");
    }
    // From the faulted call on, the job has the time-out and what the reference took for all of
    // it, thrice over: beside other cases it runs slower than the reference did alone.
    const double limit = 3 * ref.seconds + (hang ? kCommandTimeoutSec : 0) + kSlackSec;
    const double fromFault =
        hit < made.size() ? static_cast<double>(endMs - made[hit].startMs) / 1000 : seconds;
    if (fromFault > limit) {
      problems.push_back("ended " + std::to_string(fromFault) + " s after the faulted call");
    }

    // hdsctl's closing message; the library's error text in it may span several lines.
    std::string last = r.err.substr(0, r.err.find_last_not_of('\n') + 1);
    last = last.substr(std::min(last.rfind("hdsctl: job "), last.size()));
    if (r.exitCode == 1) {
      outcome += ", failed at '" + c.step + "'";
      const std::string expected =
          std::string("hdsctl: job ") + kJobName + " failed at step '" + c.step + "': ";
      if (last.compare(0, expected.size(), expected) != 0) {
        problems.push_back("wrong step or text: " + last);
      } else if (last.find("(error 626") == std::string::npos) {
        problems.push_back("no library error text: " + last);
      }
    } else if (r.exitCode == 0 && retried > 0) {
      outcome += ", recovered by a retry";
    } else if (r.exitCode == 0 && fallsBack(c)) {
      outcome += ", absorbed by the library's fallback";
    } else if (r.exitCode == 0) {
      problems.push_back("the job succeeded although the call failed and was not repeated");
    } else {
      problems.push_back("unexpected exit: " + r.err);
    }

    // What the job could not give back it names; a clean-up that fails is a fault of its own.
    json summary = json::parse(r.out, nullptr, false);
    if (summary.is_discarded()) problems.push_back("no summary on stdout");
    const json leftOver =
        summary.is_object() ? summary.value("leftOnArray", json::array()) : json();
    if (r.err.find("not removed") != std::string::npos) {
      problems.push_back("clean-up failed: " + leftOver.dump());
    } else if (host.arrays() != ref.arrays) {
      if (leftOver.empty()) problems.push_back("the array is not as it was");
      outcome += ", left " + leftOver.dump();
    }
    const bool logout = c.tool == "raidcom" && c.args[0] == "-logout";
    if (host.sessionOpen() && !logout) problems.push_back("a session is left open on the array");
    // An absent count: the handler failed before it counted the session.
    const int count = host.loginCount();
    if (count != 0 && count != -1000) problems.push_back("login count " + std::to_string(count));
    for (const std::string& p : host.liveProcesses()) problems.push_back("process left: " + p);

    // A failed script is kept for the operator, and so is a copy of the HORCM file of an instance
    // that did not start (made under the output file lock); anything else is a leak.
    const bool horcmStart = c.tool == "horcmstart.sh";
    for (const std::string& f : host.files("/lock")) {
      if (!ref.lockFiles.count(f) && !(horcmStart && f == "VT_HDS_OUTPUTFILE_LOCK.lock")) {
        problems.push_back("lock file left: " + f);
      }
    }
    for (const std::string& f : host.files("/horcm")) {
      if (!ref.horcmFiles.count(f)) problems.push_back("HORCM file left: " + f);
    }
    const std::string callText = collapse(c.text());
    // The journal stays exactly when the job named what it left for hdsctl recover.
    const bool journalKept = summary.is_object() && summary.value("leftForRecover", false);
    for (const std::string& f : host.files("/tmp")) {
      if (f == "jobs" && journalKept) continue;
      const std::string content = hdstest::readFile(host.dir() + "/tmp/" + f);
      const bool failedScript = f.find("_script") != std::string::npos &&
                                collapse(content).find(callText) != std::string::npos;
      const bool horcmCopy = horcmStart && f.find("_resp.log") != std::string::npos &&
                             content.find("HORCM_CMD") != std::string::npos;
      if (!failedScript && !horcmCopy) {
        problems.push_back("file left in the temporary directory: " + f);
      }
    }
    std::string all;
    for (const std::string& p : problems) all += (all.empty() ? "" : "; ") + p;
    return all;
  }

  // Runs every call's case, `workers` at a time, one line per case and a total.
  void runAll(bool hang, int workers) {
    std::mutex mutex;
    std::atomic<size_t> next{0};
    size_t wrong = 0, recovered = 0, absorbed = 0;
    auto worker = [&] {
      for (size_t i = next++; i < ref.calls.size(); i = next++) {
        std::string outcome, problems;
        try {
          problems = runCase(i, hang, outcome);
        } catch (const std::exception& e) {
          problems = e.what();
        }
        std::lock_guard<std::mutex> lock(mutex);
        const Call& c = ref.calls[i];
        printf("%s %3zu/%zu %-s [%s] %s: %s\n", hang ? "hang" : "fail", i + 1, ref.calls.size(),
               c.text().c_str(), c.step.c_str(), outcome.c_str(),
               problems.empty() ? "ok" : ("WRONG: " + problems).c_str());
        (void)fflush(stdout);
        recovered += outcome.find("recovered") != std::string::npos;
        absorbed += outcome.find("absorbed") != std::string::npos;
        if (!problems.empty()) {
          ++wrong;
          ADD_FAILURE() << (hang ? "hang of " : "failure of ") << c.text() << ": " << problems;
        }
      }
    };
    std::vector<std::thread> threads;
    threads.reserve(workers);
    for (int w = 0; w < workers; ++w) threads.emplace_back(worker);
    for (std::thread& t : threads) t.join();
    printf(
        "fault matrix (%s once, %d P-VOLs): %zu calls, %zu ended with the step's error, %zu "
        "recovered by a retry, %zu absorbed by a fallback, %zu wrong\n",
        hang ? "hang" : "fail", pvols, ref.calls.size(),
        ref.calls.size() - wrong - recovered - absorbed, recovered, absorbed, wrong);
  }
};

TEST_F(FaultMatrix, EveryCallFailingOnce) { runAll(false, 2); }

TEST_F(FaultMatrix, EveryCallHangingPastTheTimeOut) { runAll(true, parallel); }

}  // namespace
