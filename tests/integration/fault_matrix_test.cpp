// The fault matrix: every CCI call of the demo's snapshot job, made to fail once in the shape the
// real tool fails in, and made to hang past the command time-out. Every run must end by itself
// within the time-out and a few seconds: with exit 1 and the library's error text for the step
// the call belongs to, or done where the library retries the call or falls back by design. The
// array must be as it was, but for what the job names as left on it, and the host must keep
// nothing that a successful job does not, beyond what the failed step itself keeps.
// HDS_FAULT_MATRIX_PVOLS sets the job's size (the suite runs 1 P-VOL; scripts/fault-matrix.sh the
// demo's 16), HDS_FAULT_MATRIX_PARALLEL how many hung runs wait at once. Each case runs in a
// child process, as a host's locations are process-wide environment variables.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "tests/support/Leftovers.h"
#include "tests/support/ProcessHelpers.h"
#include "tests/support/TestEnv.h"
#include "tests/support/ToolRun.h"

namespace {

using hdstest::SimArray;
using hdstest::SimFault;
using hdstest::TestEnv;
using hdstest::ToolResult;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

// The shortest command time-out the library accepts.
constexpr int kCommandTimeoutSec = 30;
// A retried resource group lock waits 5 s; the rest is for the host's load.
constexpr double kSlackSec = 8;

int envNumber(const char* name, int fallback) {
  const char* value = getenv(name);
  return value != nullptr && atoi(value) > 0 ? atoi(value) : fallback;
}

// Blanks run together and quotes dropped, as a script line and a journal entry compare.
std::string collapse(const std::string& text) {
  std::string out;
  for (char c : text) {
    const bool blank = c == ' ' || c == '\t' || c == '\n';
    if (c == '"' || (blank && (out.empty() || out.back() == ' '))) continue;
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

std::string callText(const hdstest::SimJournalEntry& e) {
  std::string t = e.tool;
  for (const std::string& a : e.args) t += " " + a;
  return t;
}

struct Call : hdstest::SimJournalEntry {
  std::string step;
  int occurrence = 0;  // earlier calls with the same tool and arguments
};

// The demo's job and array under the shortest time-out. Copies complete at once, so that the job
// waits for them with the same calls in every run.
void prepare(TestEnv& env, const SimArray& sim, int pvols, const std::string& settings = "") {
  sim.admin({"init", "--ldevs", "100-" + std::to_string(99 + pvols)});
  env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory = " + sim.cciDir() +
                    "\n[~iHarbor]\nnVTHDSCCICommandTimeoutInSec = " +
                    std::to_string(kCommandTimeoutSec) + "\n" + settings);
  json job = json::parse(R"({"name": "demo", "pool": 0, "pvols": [], "wait_seconds": 60,
      "array": {"serial": "412345", "user": "admin", "password": "admin123",
                "command_devices": ["/dev/sdc"]},
      "present": {"port": "CL1-A", "host_group": "KS_PRE_SNAP_HOST_GROUP"}})");
  for (int i = 0; i < pvols; ++i) job["pvols"].push_back(100 + i);
  hdstest::writeFile(env.root() + "/job.json", job.dump());
}

ToolResult runJob(const TestEnv& env, bool verbose) {
  std::vector<std::string> argv = {hdstest::hdsctlPath(), "job", env.root() + "/job.json",
                                   "--json"};
  if (verbose) argv.insert(argv.begin() + 1, "-v");
  return hdstest::runTool(argv, 600);
}

// Which step each call of a verbose job belongs to; whether every call found one. With --json the
// progress lines and the library's log share stderr in order: the commands logged before
// "[i/n] step: ..." are that step's. A script (kept by nVTHDSKeepCmdOutput) made one call per line
// that names a tool of the CCI directory.
bool assignSteps(std::vector<Call>& calls, const std::string& err, const std::string& cciDir) {
  size_t next = 0, named = 0;
  for (const std::string& line : hdstest::outputLines(err)) {
    const size_t close = line.find("] ");
    if (!line.empty() && line[0] == '[' && close != std::string::npos && line.find('/') < close) {
      const std::string step = line.substr(close + 2, line.find(": ", close) - close - 2);
      for (; named < next && named < calls.size(); ++named) calls[named].step = step;
      continue;
    }
    const size_t at = line.find("Command [");
    const size_t end = line.rfind("] succeeded with exitCode [");
    if (at == std::string::npos || end == std::string::npos) continue;
    const std::string command = line.substr(at + 9, end - at - 9);
    if (command.find("_script") == std::string::npos) {
      ++next;
      continue;
    }
    for (const std::string& scriptLine : hdstest::outputLines(hdstest::readFile(command))) {
      next += scriptLine.find(cciDir) != std::string::npos;
    }
  }
  return next == calls.size() && named == calls.size();
}

class FaultMatrix : public ::testing::Test {
 protected:
  TestEnv env;
  SimArray sim{env};
  int pvols = envNumber("HDS_FAULT_MATRIX_PVOLS", 1);
  size_t parallel = envNumber("HDS_FAULT_MATRIX_PARALLEL", 16);
  // The reference: the job without a fault.
  std::vector<Call> calls;
  double seconds = 0;
  std::string arrays;
  std::set<std::string> lockFiles, horcmFiles;

  void SetUp() override {
    prepare(env, sim, pvols, "nVTHDSKeepCmdOutput = 1\n");
    arrays = hdstest::arrayState(sim);
    const Clock::time_point start = Clock::now();
    ToolResult r = runJob(env, true);
    seconds = std::chrono::duration<double>(Clock::now() - start).count();
    ASSERT_EQ(r.exitCode, 0) << "the job fails without a fault:\n" << r.out << r.err;
    ASSERT_EQ(hdstest::arrayState(sim), arrays);
    std::map<std::string, int> seen;
    for (const auto& e : sim.journal()) calls.push_back({e, "", seen[callText(e)]++});
    ASSERT_TRUE(assignSteps(calls, r.err, sim.cciDir())) << "the log and journal differ\n" << r.err;
    lockFiles = hdstest::filesIn(env.lockDir());
    horcmFiles = hdstest::filesIn(env.horcmDir());
  }

  // The failure the real tool gives: the start script's own message for HORCM, the refused
  // login, an array rejection for raidcom, a daemon that cannot be reached for raidqry.
  static SimFault failureShape(const Call& c) {
    const std::string& n = c.args[0];
    SimFault f =
        c.tool == "horcmstart.sh" ? hdstest::failing("", 3)
        : c.tool != "raidcom"
            ? hdstest::failing("", 251,
                               c.tool + ": [EX_ATTHOR] Can't be attached to HORC manager\n")
        : n == "-login"
            ? hdstest::failing("", 202, "raidcom: [EX_ENAUTH] Authentication failed with User\n")
            : hdstest::failing("", 221,
                               "raidcom: [EX_CMDRJE] An order to the control/command device was "
                               "rejected\nIt was rejected due to SKEY=0x05, ASC=0x26, ASCQ=0x00, "
                               "SSB=0x2E11,0x8303 on Serial#(412345)\n");
    if (c.tool == "horcmstart.sh") {
      f.out = "starting HORCM inst " + n + "\nHORCM inst " + n + " has failed to start.\n";
    }
    f.tool = c.tool;
    return f;
  }

  // The maximum LDEV number is probed with two calls whose failure the library answers with a
  // documented default rather than an error.
  static bool fallsBack(const Call& c) {
    const std::string t = callText(c);
    return c.step == "choose S-VOLs" && (t.rfind("raidcom get resource -key ", 0) == 0 ||
                                         t.rfind("raidcom get ldev -ldev_id ", 0) == 0);
  }

  // One run, on a host of its own, with the index-th call failing or hanging; "" when everything
  // holds, else what not.
  std::string runCase(size_t index, bool hang, std::string& outcome) const {
    const Call& c = calls[index];
    TestEnv host;
    SimArray array(host);
    prepare(host, array, pvols);
    const std::string pattern = "^" + regexQuote(callText(c).substr(c.tool.size() + 1)) + "$";
    // Earlier calls of the same kind pass through untouched.
    if (c.occurrence > 0) array.addFault(hdstest::delayed(pattern, 1, c.occurrence, c.tool));
    SimFault fault =
        hang ? hdstest::delayed("", (kCommandTimeoutSec + 60) * 1000, 1, c.tool) : failureShape(c);
    fault.match = pattern;
    array.addFault(fault);

    const Clock::time_point start = Clock::now();
    ToolResult r = runJob(host, false);
    const double took = std::chrono::duration<double>(Clock::now() - start).count();
    const int64_t endMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count();
    char timing[64];
    (void)snprintf(timing, sizeof(timing), "exit %d in %.1f s", r.exitCode, took);
    outcome = timing;

    std::string problems;
    const auto problem = [&problems](const std::string& p) {
      problems += (problems.empty() ? "" : "; ") + p;
    };
    const std::vector<hdstest::SimJournalEntry> made = array.journal();
    size_t hit = made.size(), retried = 0;
    for (size_t i = 0, n = 0; i < made.size(); ++i) {
      if (callText(made[i]) != callText(c)) continue;
      if (n == static_cast<size_t>(c.occurrence)) hit = i;
      if (n++ > static_cast<size_t>(c.occurrence)) ++retried;
    }
    if (hit == made.size()) {
      problem("the call was never made");
    } else if (hang ? made[hit].exitCode.has_value() : !made[hit].exitCode) {
      problem("the call did not meet its fault");
    }
    // From the faulted call on, the job has the time-out and what the reference took for all of
    // it, thrice over: beside other cases it runs slower than the reference did alone.
    const double limit = 3 * seconds + (hang ? kCommandTimeoutSec : 0) + kSlackSec;
    const double fromFault =
        hit < made.size() ? static_cast<double>(endMs - made[hit].startMs) / 1000 : took;
    if (fromFault > limit) {
      problem("ended " + std::to_string(fromFault) + " s after the faulted call");
    }

    // hdsctl's closing message; the library's error text in it may span several lines.
    const std::string last = r.err.substr(std::min(r.err.rfind("hdsctl: job "), r.err.size()));
    if (r.exitCode == 1) {
      outcome += ", failed at '" + c.step + "'";
      if (last.rfind("hdsctl: job demo failed at step '" + c.step + "': ", 0) != 0) {
        problem("wrong step or text: " + last);
      } else if (last.find("(error 626") == std::string::npos) {
        problem("no library error text: " + last);
      }
    } else if (r.exitCode == 0 && retried > 0) {
      outcome += ", recovered by a retry";
    } else if (r.exitCode == 0 && fallsBack(c)) {
      outcome += ", absorbed by the library's fallback";
    } else if (r.exitCode == 0) {
      problem("the job succeeded although the call failed and was not repeated");
    } else {
      problem("unexpected exit: " + r.err);
    }

    // What the job could not give back it names; a clean-up that fails is a fault of its own.
    const json summary = json::parse(r.out, nullptr, false);
    if (!summary.is_object()) problem("no summary on stdout");
    const json leftOver =
        summary.is_object() ? summary.value("leftOnArray", json::array()) : json();
    if (r.err.find("not removed") != std::string::npos) {
      problem("clean-up failed: " + leftOver.dump());
    } else if (hdstest::arrayState(array) != arrays) {
      if (leftOver.empty()) problem("the array is not as it was");
      outcome += ", left " + leftOver.dump();
    }
    const bool logout = c.tool == "raidcom" && c.args[0] == "-logout";
    if (!logout && array.dump().find("\nsession ") != std::string::npos) {
      problem("a session is left open on the array");
    }
    // An absent count: the handler failed before it counted the session.
    const int count = hdstest::loginCount(host);
    if (count != 0 && count != -1000) problem("login count " + std::to_string(count));
    for (const std::string& p :
         hdstest::processesWithEnvironment("CCISIM_STATE=" + host.simState())) {
      problem("process left: " + p);
    }

    // A failed script is kept for the operator, and so is a copy of the HORCM file of an instance
    // that did not start (made under the output file lock); anything else is a leak.
    const bool horcmStart = c.tool == "horcmstart.sh";
    for (const std::string& f : hdstest::filesIn(host.lockDir())) {
      if (!lockFiles.count(f) && !(horcmStart && f == "VT_HDS_OUTPUTFILE_LOCK.lock")) {
        problem("lock file left: " + f);
      }
    }
    for (const std::string& f : hdstest::filesIn(host.horcmDir())) {
      if (!horcmFiles.count(f)) problem("HORCM file left: " + f);
    }
    // The journal stays exactly when the job named what it left for hdsctl recover.
    const bool journalKept = summary.is_object() && summary.value("leftForRecover", false);
    for (const std::string& f : hdstest::filesIn(host.tempDir())) {
      if (f == "jobs" && journalKept) continue;
      const std::string content = hdstest::readFile(host.tempDir() + "/" + f);
      const bool failedScript = f.find("_script") != std::string::npos &&
                                collapse(content).find(collapse(callText(c))) != std::string::npos;
      const bool horcmCopy = horcmStart && f.find("_resp.log") != std::string::npos &&
                             content.find("HORCM_CMD") != std::string::npos;
      if (!failedScript && !horcmCopy) problem("file left in the temporary directory: " + f);
    }
    return problems;
  }

  // Runs every call's case, `workers` at a time, one line per case and a total.
  void runAll(bool hang, size_t workers) {
    size_t wrong = 0, recovered = 0, absorbed = 0;
    const auto resultFile = [this](size_t i) { return env.root() + "/case" + std::to_string(i); };
    for (size_t first = 0; first < calls.size(); first += workers) {
      const size_t n = std::min(workers, calls.size() - first);
      hdstest::runInChildren(static_cast<int>(n), [&](int k) {
        std::string outcome, problems;
        try {
          problems = runCase(first + k, hang, outcome);
        } catch (const std::exception& e) {
          problems = e.what();
        }
        hdstest::writeFile(resultFile(first + k), outcome.append("\n").append(problems));
        return 0;
      });
      for (size_t i = first; i < first + n; ++i) {
        const std::string result = hdstest::readFile(resultFile(i));
        const size_t cut = result.find('\n');
        const std::string outcome = result.substr(0, cut);
        const std::string problems =
            cut == std::string::npos ? "the case's process died" : result.substr(cut + 1);
        printf("%s %3zu/%zu %-s [%s] %s: %s\n", hang ? "hang" : "fail", i + 1, calls.size(),
               callText(calls[i]).c_str(), calls[i].step.c_str(), outcome.c_str(),
               problems.empty() ? "ok" : ("WRONG: " + problems).c_str());
        recovered += outcome.find("recovered") != std::string::npos;
        absorbed += outcome.find("absorbed") != std::string::npos;
        if (!problems.empty()) {
          ++wrong;
          ADD_FAILURE() << (hang ? "hang of " : "failure of ") << callText(calls[i]) << ": "
                        << problems;
        }
      }
      (void)fflush(stdout);
    }
    printf(
        "fault matrix (%s once, %d P-VOLs): %zu calls, %zu ended with the step's error, %zu "
        "recovered by a retry, %zu absorbed by a fallback, %zu wrong\n",
        hang ? "hang" : "fail", pvols, calls.size(), calls.size() - wrong - recovered - absorbed,
        recovered, absorbed, wrong);
  }
};

TEST_F(FaultMatrix, EveryCallFailingOnce) { runAll(false, 2); }

TEST_F(FaultMatrix, EveryCallHangingPastTheTimeOut) { runAll(true, parallel); }

}  // namespace
