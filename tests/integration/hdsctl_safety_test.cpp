// hdsctl where an operator's slip would cost data or a running job: which array and options it
// acts on, what it agrees to remove, and when it gives the resource group lock back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/support/Leftovers.h"
#include "tests/support/TestEnv.h"
#include "tests/support/ToolRun.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using hdstest::arrayState;
using hdstest::hdsctlPath;
using hdstest::SimArray;
using hdstest::TestEnv;
using hdstest::ToolResult;
using hdstest::ToolRun;
using hdstest::useSimArray;
using nlohmann::json;

ToolResult hdsctl(const std::vector<std::string>& args) { return hdstest::runHdsctl(args); }

std::string text(const ToolResult& r) { return r.out + r.err; }

void expectDone(const std::vector<std::string>& args) {
  ToolResult r = hdsctl(args);
  EXPECT_EQ(r.exitCode, 0) << text(r);
}

class HdsctlSafety : public ::testing::Test {
 protected:
  TestEnv env;
  SimArray sim{env};
  void SetUp() override { useSimArray(env, sim); }
};

TEST_F(HdsctlSafety, CommandLineBeatsEachVariableAndNoChildSeesThePassword) {
  // A second array, 499999, reached through /dev/sdd, whose LDEVs are named far_<id>.
  json scenario = json::parse(SimArray::defaultScenario());
  json far = scenario["arrays"][0];
  far["serial"] = "499999";
  far["command_devices"] = {{{"ldev", 4095}, {"device", "/dev/sdd"}}};
  far["ldevs"][0]["name"] = "far_{id}";
  scenario["arrays"].push_back(far);
  sim.load(scenario.dump());

  // The variables name 412345; the command line names 499999, and wins.
  ASSERT_EQ(hdsctl({"pools"}).exitCode, 0);
  ToolResult r =
      hdsctl({"ldevs", "--ldev", "110", "--json", "--serial", "499999", "--cmddev", "/dev/sdd"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(json::parse(r.out)[0]["label"], "far_110");
  std::string farInstance, nearInstance;  // "3532" of "horcm3532.conf"
  for (const std::string& name : hdstest::filesIn(env.horcmDir())) {
    std::string conf = hdstest::readFile(env.horcmDir() + name);
    const std::string number = name.substr(5, name.find('.') - 5);
    if (conf.find("CMD-499999\n/dev/sdd") != std::string::npos) farInstance = number;
    if (conf.find("CMD-412345\n/dev/sdc") != std::string::npos) nearInstance = number;
  }
  EXPECT_NE(farInstance, "") << "no HORCM file names the command device of the command line";
  // A job file's array beats the variables too.
  std::string job = env.root() + "/far.json";
  hdstest::writeFile(job,
                     R"({"name": "far", "pool": 0, "pvols": [100],
                         "array": {"serial": "499999", "command_devices": ["/dev/sdd"]}})");
  r = hdsctl({"job", job});
  EXPECT_EQ(r.exitCode, 0) << text(r);
  EXPECT_THAT(r.out, HasSubstr("every object the job made on array 499999"));

  // Each variable set wrong breaks the command, and the option set right mends it.
  env.writeSettings("");  // the CCI directory comes from the options alone
  env.setEnv("HDSCTL_CCI_DIR", sim.cciDir().c_str());
  for (const std::vector<std::string>& c : std::vector<std::vector<std::string>>{
           {"HDSCTL_SERIAL", "499998", "--serial", "412345"},
           {"HDSCTL_USER", "nobody", "--user", "admin"},
           {"HDSCTL_PASSWORD", "wrong", "--password", "admin123"},
           {"HDSCTL_HORCM_INSTANCE", "x1", "--horcm-instance", nearInstance},
           {"HDSCTL_RESOURCE_GROUP", "no_such_group", "--resource-group", "meta_resource"},
           {"HDSCTL_CCI_DIR", "/nonexistent/cci", "--cci-dir", sim.cciDir()}}) {
    env.setEnv(c[0], c[1].c_str());
    EXPECT_EQ(hdsctl({"pools"}).exitCode, 1) << c[0];
    r = hdsctl({"pools", c[2], c[3]});
    EXPECT_EQ(r.exitCode, 0) << c[0] << ": " << r.err;
    env.setEnv(c[0], c[3].c_str());  // the right value, as the option gave it
  }

  // raidcom as a script that records its environment before it runs the simulator.
  std::string realDir = env.root() + "/real/";
  std::string dump = env.root() + "/raidcom-env";
  ASSERT_EQ(mkdir(realDir.c_str(), 0755), 0);
  ASSERT_EQ(rename(sim.toolPath("raidcom").c_str(), (realDir + "raidcom").c_str()), 0);
  hdstest::writeFile(sim.toolPath("raidcom"),
                     "#!/bin/sh\nenv >> " + dump + "\nexec " + realDir + "raidcom \"$@\"\n", 0755);
  ASSERT_EQ(hdsctl({"pools"}).exitCode, 0);
  std::string seen = hdstest::readFile(dump);
  EXPECT_THAT(seen, HasSubstr("HDSCTL_SERIAL=412345"));
  EXPECT_THAT(seen, Not(HasSubstr("HDSCTL_PASSWORD")));
  EXPECT_THAT(seen, Not(HasSubstr(SimArray::kPassword)));
}

TEST_F(HdsctlSafety, DestructiveCommandsActOnlyOnSvolsUnlessForced) {
  std::string before = arrayState(sim);

  // A data volume, a P-VOL's pairs and the command device's path are refused; a list with one
  // refused LDEV deletes none.
  expectDone({"svol", "create", "300", "--pool", "0", "--like", "100", "--label", "KS_SVOL_100_t"});
  expectDone({"snapshot", "add", "KS_SNAP_t", "--pool", "0", "--pair", "100:300"});
  std::string made = arrayState(sim);
  for (const auto& [args, says] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"svol", "delete", "300", "110"}, "LDEV 110 (label data_110, no snapshot pairs"},
           {{"snapshot", "delete", "100"}, "P-VOL in KS_SNAP_t with S-VOL 300"},
           {{"unmap", "--port", "CL1-A", "--host-group", "1", "--ldev", "4095"},
            "LU paths CL1-A-1-0"},
           {{"svol", "delete", "301"}, "LDEV 301 (not defined"}}) {
    ToolResult r = hdsctl(args);
    EXPECT_EQ(r.exitCode, 1) << args[1] << ": " << text(r);
    EXPECT_THAT(r.err, HasSubstr(says));
    EXPECT_THAT(r.err, HasSubstr("--force"));
  }
  EXPECT_EQ(arrayState(sim), made);

  // What the job side makes goes without --force: the pairs by their S-VOL, the S-VOL by label.
  expectDone({"snapshot", "delete", "300"});
  expectDone({"svol", "delete", "300"});
  EXPECT_EQ(arrayState(sim), before);

  ToolResult r = hdsctl({"svol", "delete", "115", "--force"});
  EXPECT_EQ(r.exitCode, 0) << text(r);
  EXPECT_THAT(r.err, HasSubstr("--force: LDEV 115 (label data_115"));
  EXPECT_NE(arrayState(sim), before);
}

json resourceGroup() {
  ToolResult r = hdsctl({"resource-groups", "--json"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  return json::parse(r.out, nullptr, false)[0];
}

TEST_F(HdsctlSafety, TheLockStaysWithTheSessionsThatUseIt) {
  // A holder in another process, as a job holds the lock while it runs.
  ToolRun holder({hdsctlPath(), "lock"});
  ASSERT_TRUE(hdstest::waitUntil([] { return resourceGroup()["status"] == "Locked"; }, 15));
  ToolResult r = hdsctl({"unlock"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_THAT(r.err, HasSubstr("1 other session(s) of this host use array 412345 (login count 2)"));
  r = hdsctl({"lock", "--hold", "0"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("left resource group meta_resource locked"));
  EXPECT_EQ(resourceGroup()["status"], "Locked");
  // The holder is the last session: it releases the lock.
  kill(holder.pid(), SIGINT);
  r = holder.finish();
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(resourceGroup()["status"], "Unlocked");

  // A lock of another user or host is named and left; so is this host's lock while a crashed
  // job's session still counts, unless forced.
  sim.lockResourceGroup("meta_resource", "maint", "Storage Navigator");
  r = hdsctl({"unlock"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_THAT(r.err, HasSubstr("user maint from host Storage Navigator holds it"));
  env.setEnv("CCISIM_HOSTNAME", "backuphost");
  sim.lockResourceGroup("meta_resource", "admin", "backuphost");
  env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory = " + sim.cciDir() +
                    "\n[~iHarbor]\nsVTHDSRaidcomLockCount_412345 = 1\n");
  EXPECT_EQ(hdsctl({"unlock"}).exitCode, 1);
  r = hdsctl({"unlock", "--force"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(resourceGroup()["status"], "Unlocked");
}

TEST_F(HdsctlSafety, FailuresNameTheirCause) {
  // A misspelt group fails before the library's wait for it, naming the groups there are.
  ToolResult r = hdsctl({"lock", "--hold", "0", "--resource-group", "meta_resourse"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.err,
            "hdsctl: array 412345 has no resource group meta_resourse; it has meta_resource\n");
  EXPECT_THAT(hdstest::readFile(env.settingsFile()), HasSubstr("sVTHDSRaidcomLockCount_412345=0"));

  // The library fails on an empty raidqry answer without an error text of its own.
  sim.addFault(hdstest::answering("-l", "", 1, "raidqry"));
  r = hdsctl({"lock", "--hold", "0"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_THAT(r.err, Not(HasSubstr("error 0")));
  EXPECT_THAT(r.err, HasSubstr("cannot lock resource group meta_resource: "));
}

}  // namespace
