// hdsctl and ccisim's admin commands as an operator and a script meet them, run as the built
// binaries against ccisim.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <tuple>

#include "hds/platform/VtNamedMutex.h"
#include "tests/support/Leftovers.h"
#include "tests/support/TestEnv.h"
#include "tests/support/ToolRun.h"

namespace {

using hdstest::runTool;
using hdstest::SimArray;
using hdstest::TestEnv;
using hdstest::ToolResult;
using hdstest::useSimArray;
using nlohmann::json;

ToolResult hdsctl(const std::vector<std::string>& args) { return hdstest::runHdsctl(args); }

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& w : words) text += " " + w;
  return text;
}

// Every path of subcommands that program's help leads to, each answering --help with exit 0
// and its own usage line, joined as " a, a b, ...".
std::string helpPaths(const std::string& program, const std::string& name) {
  std::set<std::string> seen;
  std::function<void(const std::vector<std::string>&)> visit =
      [&](const std::vector<std::string>& path) {
        std::vector<std::string> args = path;
        args.insert(args.begin(), program);
        args.push_back("--help");
        ToolResult r = runTool(args);
        ASSERT_EQ(r.exitCode, 0) << joined(args) << ": " << r.err;
        EXPECT_NE(r.out.find("Usage: " + name + joined(path)), std::string::npos) << r.out;
        seen.insert(joined(path));
        bool inList = false;  // the names listed under "Subcommands:"
        for (const std::string& line : hdstest::outputLines(r.out)) {
          inList = line == "Subcommands:" || (inList && !line.empty());
          if (inList && line.rfind("  ", 0) == 0 && line[2] != ' ') {
            std::vector<std::string> deeper = path;
            deeper.push_back(hdstest::lineWords(line)[0]);
            visit(deeper);
          }
        }
      };
  visit({});
  std::string all;
  for (const std::string& path : seen) all += path + ",";
  return all;
}

TEST(HdsctlCli, HelpEverywhereAndWrongArgumentsInOneLine) {
  TestEnv env;
  EXPECT_EQ(
      helpPaths(hdstest::hdsctlPath(), "hdsctl"),
      ", check, copy-groups, demo, device-groups, host-groups, job, ldevs, lock, luns, map,"
      " pools, ports, recover, resource-groups, snapshot, snapshot add, snapshot clone, snapshot "
      "create, snapshot delete, snapshot restore, snapshot resync, snapshot split, "
      "snapshot-groups, support-bundle, svol, svol create, svol delete, svol label, unlock, "
      "unmap,");
  EXPECT_EQ(helpPaths(SimArray::ccisimPath(), "ccisim"),
            ", dump, fault, fault add, fault clear, fault list, finish, init, install, journal, "
            "load, pair, pair fail, resource, resource lock, resource unlock, session, session "
            "expire, session list, timing,");
  // The job file format is documented where the job is.
  EXPECT_NE(hdsctl({"job", "--help"}).out.find("\"svol_first\""), std::string::npos);

  for (const char* name : {"HDSCTL_SERIAL", "HDSCTL_USER", "HDSCTL_PASSWORD", "HDSCTL_CMDDEV"}) {
    env.setEnv(name, nullptr);
  }
  const std::string root = env.root();
  // Job files and what the refusal names (the key or the file); "" for any refusal.
  const std::vector<std::pair<std::string, std::string>> jobs = {
      {R"({"pool": 0, "pvols": [100], "wait_seconds": 4294967296})", "wait_seconds"},
      {R"({"pool": 0, "pvols": [100], "svol_first": 999999999999})", "svol_first"},
      {R"({"pool": 0, "pvols": [65280]})", "every P-VOL"},
      {R"({"pool": -1, "pvols": [100]})", "pool"},
      {"{\"pool\": 0, \"pvols\": [100]}" + std::string(1 << 20, ' '), "larger than 1 MiB"},
      {"{\"pool\": 0,", ""},
      {R"({"pool": 0, "pvols": [100], "pvol": [101]})", ""},
      {R"({"pool": 0, "pvols": [100, 100]})", ""}};
  std::vector<std::pair<std::string, std::string>> cases = {
      {"job " + root, "is not a regular file"},
      {"job " + root + "/missing.json", ""},
      {"--log " + root + "/no/such/dir/log pools", ""}};
  for (size_t i = 0; i < jobs.size(); ++i) {
    cases.emplace_back("job " + root + "/" + std::to_string(i) + ".json", jobs[i].second);
    hdstest::writeFile(cases.back().first.substr(4), jobs[i].first);
  }
  // hdsctl's arguments unless the case starts with ccisim, one case between commas (the test's
  // directories hold no blanks); "ldevs" names no array.
  std::istringstream lines(
      ",--bogus,nosuch,job /dev/zero,svol,ldevs --pool x,ldevs --mapped --unmapped,ldevs --ldev"
      " 100 --pool 0,ldevs,svol create 300 --pool 0,svol create 3a0 --pool 0 --capacity 1,snapshot"
      " split --group g --svol 300,snapshot add g --pool 0 --pair 100-300,luns --port CL1-A,lock"
      " --hold -1,demo --pvols 0,job,recover a/b,ccisim,ccisim nosuch,ccisim init --help-me,ccisim"
      " init --serial,ccisim init --copy-ms fast,ccisim init --ldevs 100,ccisim fault,ccisim fault"
      " add,ccisim install,ccisim resource lock rsg");
  for (std::string line; std::getline(lines, line, ',');) cases.emplace_back(line, "");
  for (const auto& [line, says] : cases) {
    std::vector<std::string> args = hdstest::lineWords(line);
    const std::string program = !args.empty() && args[0] == "ccisim" ? "ccisim" : "hdsctl";
    if (program == "hdsctl") args.insert(args.begin(), program);
    args[0] = program == "hdsctl" ? hdstest::hdsctlPath() : SimArray::ccisimPath();
    ToolResult r = runTool(args);
    EXPECT_EQ(r.exitCode, 2) << line << ": " << r.err;
    EXPECT_EQ(r.out, "") << line;
    EXPECT_EQ(r.err.rfind(program + ": ", 0), 0u) << line << ": " << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << line << ": " << r.err;
    EXPECT_NE(r.err.find(says), std::string::npos) << line << ": " << r.err;
  }
}

// "<result> <detail>" of one check of `hdsctl check --json`.
std::string checkResult(const json& report, const std::string& name) {
  for (const json& c : report["checks"]) {
    if (c["check"] == name)
      return c["result"].get<std::string>() + " " + c["detail"].get<std::string>();
  }
  return "";
}

TEST(HdsctlCli, CheckNamesWhatIsMissing) {
  TestEnv env;
  const std::string nowhere = env.root() + "/no-cci", partial = env.root() + "/partial/";
  ToolResult r = hdsctl({"check", "--cci-dir", nowhere});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.out.find(nowhere + " does not exist"), std::string::npos) << r.out;

  // A directory with raidqry alone: every other tool is named, raidqry is not.
  ASSERT_EQ(mkdir(partial.c_str(), 0755), 0);
  ASSERT_EQ(symlink(SimArray::ccisimPath().c_str(), (partial + "raidqry").c_str()), 0);
  r = hdsctl({"check", "--json", "--cci-dir", partial});
  EXPECT_EQ(r.exitCode, 1);
  json report = json::parse(r.out);
  EXPECT_FALSE(report["ready"].get<bool>());
  const std::string tools = checkResult(report, "CCI tools");
  for (const char* name : {"raidcom", "horcmshutdown.sh", "pairsyncwait"}) {
    EXPECT_NE(tools.find(name), std::string::npos) << name << " not named in: " << tools;
  }
  EXPECT_EQ(tools.find("raidqry"), std::string::npos) << tools;
  EXPECT_EQ(tools.rfind("FAIL", 0), 0u) << tools;
}

// HORCM files of arrays without a session are listed, and removed with --prune; the file of an
// array with a session stays. A negative login count is the one check that fails.
TEST(HdsctlCli, CheckListsAndPrunesHorcmFilesOfArraysWithoutASession) {
  TestEnv env;
  SimArray sim(env);
  useSimArray(env, sim);
  ToolResult r = hdsctl({"check"});
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("01-74-03/00"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("a command device of array 412345 is visible"), std::string::npos);
  sim.startRaidcomSession(3532);
  env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory = " + env.cciDir() +
                    "\n[~iHarbor]\nsVTHDSRaidcomLockCount_412345 = 1\n");
  hdstest::writeFile(env.horcmDir() + "horcm3531.conf",
                     "#HORCM file create by Tessaly Kestrel. Do not alter the file content or "
                     "delete the file.\nHORCM_CMD\n#\\\\.\\CMD-499999\n");
  EXPECT_EQ(checkResult(json::parse(hdsctl({"check", "--json"}).out), "HORCM files"),
            "warn 1 of arrays without a session: horcm3531.conf (array 499999) (--prune "
            "removes them)");
  EXPECT_NE(hdsctl({"check", "--prune"}).out.find("removed horcm3531.conf (array 499999)"),
            std::string::npos);
  EXPECT_EQ(hdstest::filesIn(env.horcmDir()), std::set<std::string>{"horcm3532.conf"});
  env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory = " + env.cciDir() +
                    "\n[~iHarbor]\nsVTHDSRaidcomLockCount_412345 = -3\n");
  r = hdsctl({"check", "--json"});
  EXPECT_EQ(r.exitCode, 1);
  const json report = json::parse(r.out);
  for (const json& c : report["checks"]) {
    EXPECT_EQ(c["result"] == "FAIL", c["check"] == "login count") << c.dump();
  }
}

TEST(HdsctlCli, LogAndTraceNameEveryLineAndCallButNeverThePassword) {
  TestEnv env;
  SimArray sim(env);
  useSimArray(env, sim);
  std::string logFile = env.root() + "/hdsctl.log", traceFile = env.root() + "/trace.jsonl";
  ToolResult r = hdsctl({"--log", logFile, "--trace", traceFile, "pools", "-v"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::string log = hdstest::readFile(logFile);
  EXPECT_NE(log.find(" DEBUG HDS   Raidcom command handler initialized for local execution\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("get pool"), std::string::npos) << log;
  EXPECT_EQ(r.err, log);
  EXPECT_EQ(r.out.rfind("POOL  NAME", 0), 0u) << r.out;

  // A call the array rejects: its EX_ code and sense pair reach the trace.
  sim.addFault(hdstest::failing("get ldev", 1,
                                "raidcom: [EX_CMDRJE] An order to the control/command device was "
                                "rejected\nIt was rejected due to SKEY=0x05, ASC=0x26, "
                                "ASCQ=0x00, SSB=0x2E11,0x8301 on Serial#(412345)",
                                -1));
  EXPECT_EQ(hdsctl({"--log", logFile, "--trace", traceFile, "ldevs", "--ldev", "100"}).exitCode, 1);

  const std::string trace = hdstest::readFile(traceFile);
  int calls = 0, logins = 0, rejected = 0;
  for (const std::string& line : hdstest::outputLines(trace)) {
    const json call = json::parse(line);
    ++calls;
    for (const char* key : {"start", "ms", "command", "exit", "timedOut", "outBytes", "errBytes"}) {
      EXPECT_TRUE(call.contains(key)) << key << " missing in " << line;
    }
    EXPECT_EQ(call["start"].get<std::string>().back(), 'Z') << line;
    logins += call["command"].get<std::string>().find("-login") != std::string::npos;
    rejected += call.value("ex", "") == "EX_CMDRJE" && call["ssb"] == json({"2E11", "8301"}) &&
                call["exit"] == 1;
  }
  EXPECT_GT(calls, 4);
  EXPECT_GT(logins, 0);
  EXPECT_GT(rejected, 0);
  EXPECT_EQ(log.find(SimArray::kPassword), std::string::npos) << log;
  EXPECT_EQ(trace.find(SimArray::kPassword), std::string::npos) << trace;
}

// The archive a support engineer asks for: everything they need about this host, no password.
TEST(HdsctlCli, SupportBundleHoldsTheHostStateButNoPassword) {
  TestEnv env;
  SimArray sim(env);
  useSimArray(env, sim);
  env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory = " + sim.cciDir() +
                    "\nsVTHDSArrayPassword = " + SimArray::kPassword +
                    "\n[~iHarbor]\nsVTHDSRaidcomLockCount_412345 = 0\n");
  std::string logFile = env.root() + "/hdsctl.log";
  ASSERT_EQ(hdsctl({"--log", logFile, "pools"}).exitCode, 0);
  VtNamedMutex held("support bundle test");
  ASSERT_TRUE(held.lock(1000));

  std::string bundle = env.root() + "/bundle.tar.gz", out = env.root() + "/unpacked";
  ToolResult r = hdsctl({"--log", logFile, "support-bundle", bundle, "--json"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  held.unlock();
  ASSERT_EQ(mkdir(out.c_str(), 0700), 0);
  ASSERT_EQ(runTool({"/bin/tar", "-xzf", bundle, "-C", out, "--strip-components=1"}).exitCode, 0);
  std::string all;
  const json report = json::parse(r.out);
  for (const json& file : report["files"]) {
    all += "== " + file.get<std::string>() + "\n" +
           hdstest::readFile(out + "/" + file.get<std::string>());
  }
  for (const std::string& part : std::vector<std::string>{
           "== versions.txt\nhdsctl 1.0.0\nlibrary 1.0.0\n", "Ver&Rev",
           "sVTHDSArrayPassword = ********", "== horcm/horcm35", "Serial#",
           "sVTHDSRaidcomLockCount_412345", "held by pid " + std::to_string(getpid()),
           " DEBUG HDS   ", "HDSCTL_SERIAL=412345"}) {
    EXPECT_NE(all.find(part), std::string::npos) << part << " missing in\n" << all;
  }
  EXPECT_EQ(all.find(SimArray::kPassword), std::string::npos) << all;
  // hdsctl took HDSCTL_PASSWORD out of its environment before it listed it.
  EXPECT_EQ(all.find("HDSCTL_PASSWORD"), std::string::npos) << all;
}

TEST(HdsctlCli, ListingsAndSingleOperationsOnTheSimulatedArray) {
  TestEnv env;
  SimArray sim(env);
  useSimArray(env, sim);
  const std::string before = hdstest::arrayState(sim);
  auto run = [](const std::string& line) {
    ToolResult r = hdsctl(hdstest::lineWords(line));
    EXPECT_EQ(r.exitCode, 0) << line << ": " << r.err;
    return json::parse(r.out, nullptr, false);
  };
  // Two S-VOLs as large as LDEV 100, snapshots of 100 and 101 on them, one presented.
  for (const char* line :
       {"svol create 300 301 --pool 0 --like 100 --label KS_SVOL_T",
        "snapshot add KS_SG_T --pool 0 --pair 100:300 --pair 101:301",
        "snapshot split --group KS_SG_T", "map --port CL1-A --host-group 1a-g00 --ldev 300"}) {
    run(line);
  }
  // Each listing with --json, a place in what it printed and what must be there.
  const std::vector<std::tuple<std::string, std::string, json>> shown = {
      {"ldevs", "/0/attributes", {"CVS", "QS", "HDP"}},
      {"ldevs", "/18/ldevId", "4095"},
      {"ldevs --ldev 4095", "/0/lunPaths/0/port", "CL1-A"},
      {"ldevs --label KS_SVOL_T", "/1/ldevId", "301"},
      {"ldevs --label KS_SVOL_T", "/0/capacity", run("ldevs --ldev 100 --json")[0]["capacity"]},
      {"pools", "/1/poolName", "ti_pool_01"},
      {"ports --logins", "/0/loginWwns/1", "10000090fa1b2c3e"},
      {"ports --logins", "/0/loginWwns/2", nullptr},
      {"host-groups --wwns --port CL1-A", "/1/wwns", {"10000090fa1b2c3d"}},
      {"snapshot-groups --group KS_SG_T", "/1/pairStatus", "PSUS"},
      {"luns --port CL1-A --host-group 0", "/0/ldevId", "300"},
      {"luns --port CL1-A --host-group 0", "/1", nullptr},
      {"device-groups", "", json::array()},
      {"copy-groups", "", json::array()}};
  for (const auto& [line, at, expected] : shown) {
    const json printed = run(line + " --json");
    const json::json_pointer place(at);
    EXPECT_EQ(printed.contains(place) ? printed[place] : json(), expected) << line << " " << at;
  }
  run("unmap --port CL1-A --host-group 0 --ldev 300");
  run("snapshot delete 300 301");
  run("svol delete 300 301");
  EXPECT_EQ(hdstest::arrayState(sim), before);
}

}  // namespace
