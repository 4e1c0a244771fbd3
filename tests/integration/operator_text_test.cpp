// Text an operator types never runs as shell code: it is either the literal value at work or a
// clear refusal, through the library and through hdsctl.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "tests/support/FakeTools.h"
#include "tests/support/Leftovers.h"
#include "tests/support/RaidcomProbe.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/SimArray.h"
#include "tests/support/ToolRun.h"

namespace {

using hdstest::expectInChild;
using hdstest::pathExists;
using hdstest::RaidcomProbe;
using hdstest::SimArray;

// What an attacker tries in each field: ending the command, command substitution in both
// spellings, breaking out of single and of double quotes, and a second line.
std::vector<std::string> attacks(const std::string& marker) {
  const std::string touch = "touch " + marker;
  return {"x;" + touch + ";#",      "$(" + touch + ")",         "`" + touch + "`",
          "x' ; " + touch + " ; '", "x\" ; " + touch + " ; \"", "x\n" + touch + "\n"};
}

// Passwords an array's password policy allows.
const std::vector<std::string> kPolicyPasswords = {"Pa$$w0rd!", "pa ss\"w$rd", "it's\\n0t`me`",
                                                   "$(id) ;#"};

struct Field {
  const char* name;
  std::function<void(HDSCLIInitParam&, const std::string&)> set;
  std::string refusal;  // how a refused value's error text starts; empty: only ever quoted
  bool digitsOnly;      // refused for any shell character, not only a line break
};

const std::vector<Field> kFields = {
    {"user", [](HDSCLIInitParam& p, const std::string& v) { p.userName = v; }, "", false},
    {"password", [](HDSCLIInitParam& p, const std::string& v) { p.password = v; }, "", false},
    {"serial", [](HDSCLIInitParam& p, const std::string& v) { p.serialNumber = "412345" + v; },
     "Invalid serial number.", true},
    {"instance", [](HDSCLIInitParam& p, const std::string& v) { p.horcmInstance = "3532" + v; },
     "Invalid HORCM instance.", true},
    {"command device", [](HDSCLIInitParam& p, const std::string& v) { p.commandDevices = {v}; },
     "Invalid command device name.", false}};

class OperatorText : public ::testing::Test {
 protected:
  OperatorText() { settings(sim.cciDir()); }
  void settings(const std::string& cciDir) {
    env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + cciDir + "\nsClientHostName=testhost\n");
  }

  hdstest::TestEnv env;
  SimArray sim{env};
  hdstest::RecordingSnapInfo log;
  const std::string marker = env.root() + "/marker";
};

TEST_F(OperatorText, AttacksThroughEveryFieldRunNothingAndCountNoLogin) {
  for (const Field& field : kFields) {
    for (const std::string& attack : attacks(marker)) {
      expectInChild([&] {
        HDSCLIInitParam param = SimArray::raidcomParam();
        field.set(param, attack);
        RaidcomProbe handler(log, param);
        const std::string what = std::string(field.name) + " " + attack;
        const bool refused =
            !field.refusal.empty() && (field.digitsOnly || attack.find('\n') != std::string::npos);
        if (refused) {
          EXPECT_EQ(handler.errorCode(), 62600) << what;
          EXPECT_EQ(handler.errorText().rfind(field.refusal, 0), 0u) << handler.errorText();
        } else if (field.refusal.empty()) {
          // No such user or password: the login fails, however the shell might have read it.
          EXPECT_EQ(handler.errorCode(), 62602) << what;
          EXPECT_FALSE(handler.loggedIn()) << what;
        }
        // A command device is otherwise only written into the HORCM file, where the simulator
        // takes any name.
        if (field.name == std::string("password")) {
          EXPECT_EQ(log.count(attack), 0u) << "logged";
        }
      });
      ASSERT_FALSE(pathExists(marker)) << field.name << " " << attack;
      for (const std::string& name : hdstest::filesIn(env.horcmDir())) {
        EXPECT_EQ(hdstest::readFile(env.horcmDir() + name).find("\ntouch "), std::string::npos);
      }
      // A failed login is never counted as a session.
      EXPECT_LE(hdstest::loginCount(env), 0) << field.name << " " << attack;
    }
  }
}

TEST_F(OperatorText, PolicyPasswordsLogInAndStayOutOfTheLog) {
  std::vector<std::string> init = {"init", "--user", "admin:admin123"};
  for (size_t i = 0; i < kPolicyPasswords.size(); ++i) {
    init.insert(init.end(), {"--user", "user" + std::to_string(i) + ":" + kPolicyPasswords[i]});
  }
  sim.admin(init);
  for (size_t i = 0; i < kPolicyPasswords.size(); ++i) {
    expectInChild([&] {
      HDSCLIInitParam param = SimArray::raidcomParam();
      param.userName = "user" + std::to_string(i);
      param.password = kPolicyPasswords[i];
      RaidcomProbe handler(log, param);
      ASSERT_EQ(handler.errorCode(), 0) << kPolicyPasswords[i] << ": " << handler.errorText();
      EXPECT_TRUE(handler.loggedIn());
      EXPECT_EQ(log.count(kPolicyPasswords[i]), 0u) << log.dump();
    });
  }
  EXPECT_EQ(hdstest::loginCount(env), 0);
}

// The CCI directory and the temporary directory (where scripts are written and run from) both
// hold a blank, quotes and a command substitution: commands and scripts run all the same.
TEST_F(OperatorText, DirectoriesWithShellCharactersWorkEndToEnd) {
  // A directory name holds no slash, so the marker is named relative to the working directory
  // that the shell would share with this process.
  const std::string local = "hds-marker-" + std::to_string(getpid());
  const std::string cciDir = env.root() + "/cci dir '$(touch " + local + ")'/";
  const std::string tempDir = env.root() + "/tmp dir `touch " + local + "`";
  ASSERT_EQ(mkdir(cciDir.c_str(), 0755), 0);
  sim.admin({"install", cciDir});
  settings(cciDir);
  env.setEnv("HDS_TEMP_DIR", tempDir.c_str());
  expectInChild([&] {
    RaidcomProbe handler(log, SimArray::raidcomParam());
    ASSERT_EQ(handler.errorCode(), 0) << handler.errorText();
    // Labels are written by a script in the temporary directory.
    std::map<std::string, hdsLdev_t> ldevs;
    ldevs["100"].ldevId = "100";
    ldevs["100"].newLabel = "KS label";
    ASSERT_EQ(handler.modifySvolLabel(ldevs, false), 0u) << handler.errorText() << log.dump();
  });
  EXPECT_NE(sim.dump().find("KS label"), std::string::npos);
  EXPECT_FALSE(pathExists(local));
  EXPECT_TRUE(hdstest::filesIn(tempDir).empty());
}

// Options and HDSCTL_* variables reach the library as given, where the first test attacks them;
// a job file hdsctl reads itself, so here it alone says how to reach the array.
TEST_F(OperatorText, HdsctlOptionsEnvironmentAndJobFileRunNothing) {
  hdstest::useSimArray(env, sim);
  for (const char* name : {"HDSCTL_SERIAL", "HDSCTL_USER", "HDSCTL_PASSWORD", "HDSCTL_CMDDEV"}) {
    env.setEnv(name, nullptr);
  }
  const nlohmann::json array = {{"serial", SimArray::kSerial},
                                {"user", SimArray::kUser},
                                {"password", SimArray::kPassword},
                                {"command_devices", {"/dev/sdc"}},
                                {"cci_dir", sim.cciDir()}};
  const std::string jobFile = env.root() + "/job.json";
  for (const std::string& attack : attacks(marker)) {
    // Through each option, and through the password variable when no option gives one.
    for (const char* option : {"--user", "--password", "--cmddev", "HDSCTL_PASSWORD"}) {
      std::map<std::string, std::string> given = {{"--serial", SimArray::kSerial},
                                                  {"--user", SimArray::kUser},
                                                  {"--password", SimArray::kPassword},
                                                  {"--cmddev", "/dev/sdc"}};
      given[option] = attack;
      env.setEnv("HDSCTL_PASSWORD", given.count("HDSCTL_PASSWORD") ? attack.c_str() : nullptr);
      if (given.count("HDSCTL_PASSWORD")) given.erase("--password");
      std::vector<std::string> args = {hdstest::hdsctlPath(), "pools"};
      for (const auto& [name, value] : given) {
        if (name[0] == '-') args.insert(args.end(), {name, value});
      }
      const int exitCode = hdstest::runTool(args).exitCode;
      EXPECT_TRUE(option == std::string("--cmddev") || exitCode == 1) << option << " " << attack;
    }
    ASSERT_FALSE(pathExists(marker)) << attack;
  }
  env.setEnv("HDSCTL_PASSWORD", nullptr);
  env.writeSettings("[iHarbor]\nsClientHostName=testhost\n");  // the job file alone says where
  for (const std::string& attack : attacks(marker)) {
    for (const char* key : {"serial", "user", "password", "horcm_instance", "cci_dir"}) {
      nlohmann::json job = {{"name", "attack"}, {"pool", 0}, {"pvols", {100}}, {"array", array}};
      job["array"][key] = attack;
      hdstest::writeFile(jobFile, job.dump());
      EXPECT_EQ(hdstest::runTool({hdstest::hdsctlPath(), "job", jobFile}).exitCode, 1) << key;
    }
    ASSERT_FALSE(pathExists(marker)) << attack;
  }
  EXPECT_LE(hdstest::loginCount(env), 0);
}

}  // namespace
