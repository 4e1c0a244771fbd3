// The raidcom session against the simulated array, each handler in a child process, because
// handlers keep per-process caches.
#include <gtest/gtest.h>

#include "hds/platform/VTPlatformInfo.h"
#include "hds/platform/ZoSleep.h"
#include "hds/platform/internal/SettingsText.h"
#include "tests/support/FakeTools.h"
#include "tests/support/Leftovers.h"
#include "tests/support/ProcessHelpers.h"
#include "tests/support/RaidcomKit.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/ToolRun.h"

namespace {

using hdstest::expectInChild;
using hdstest::failing;
using hdstest::RaidcomProbe;
using hdstest::readFile;
using hdstest::SimArray;
using hdstest::simCalls;
using hdstest::SimFault;
using hdstest::writeFile;
using hdstest::writeRaidcomSettings;

class RaidcomSession : public ::testing::Test {
 protected:
  RaidcomSession() { settings(""); }

  void settings(const std::string& localSection) { writeRaidcomSettings(env, localSection); }
  static HDSCLIInitParam param() { return SimArray::raidcomParam(); }
  size_t count(const std::vector<std::string>& words, const std::string& tool = "raidcom") const {
    return simCalls(sim, words, tool).size();
  }
  // An asynchronous command: LDEV 100 renamed.
  static int rename100(RaidcomProbe& handler) {
    std::string output;
    int exitCode = 0;
    return handler.executeCommand("raidcom  modify ldev ",
                                  " -ldev_id 100 -ldev_name renamed" + handler.instanceArgs(),
                                  output, exitCode, true);
  }

  hdstest::TestEnv env;
  SimArray sim{env};
  hdstest::RecordingSnapInfo log;
};

TEST_F(RaidcomSession, SixteenProcessesShareOneLogin) {
  settings("nVTHDSKeepCmdOutput=1\n");
  const std::vector<int> codes = hdstest::runInChildren(16, [](int) {
    hdstest::RecordingSnapInfo childLog;
    RaidcomProbe handler(childLog, param());
    return handler.errorCode() != 0 ? 10 : handler.listResourceGroups();
  });
  EXPECT_EQ(codes, std::vector<int>(16, 0));
  EXPECT_EQ(hdstest::loginCount(env), 0);

  // Sessions open and close strictly in turn, and every listing ran inside one.
  bool open = false;
  for (const std::string& call : simCalls(sim, {})) {
    if (call.rfind("-log", 0) == 0) {
      EXPECT_NE(open, call.rfind("-login", 0) == 0) << "sessions overlapped, or one closed twice";
      open = call.rfind("-login", 0) == 0;
    }
    EXPECT_TRUE(open || call.rfind("get resource", 0) != 0) << "a listing outside a session";
  }
  EXPECT_FALSE(open);
  EXPECT_EQ(count({"get", "resource"}), 16u);

  // With every output kept, no file holds the password; the simulator's state is the array's.
  const std::string pw = SimArray::kPassword;
  const auto r = sim.shell("grep -rlF --exclude='ccisim.db*' " + pw + " " + env.root());
  EXPECT_EQ(r.exitCode, 1) << r.out;
}

TEST_F(RaidcomSession, HorcmFileIsWrittenByTheFirstHandlerAndSharedByTheNext) {
  const std::string otherArray = "HORCM_CMD\n#\\\\.\\CMD-499999\n";
  writeFile(env.horcmDir() + "horcm3532.conf", otherArray);
  writeFile(env.horcmDir() + "horcm3531.conf", "HORCM_CMD\n#\\\\.\\CMD-41234\n");
  expectInChild([&] {
    RaidcomProbe first(log, param());
    ASSERT_EQ(first.errorCode(), 0) << first.errorText();
    RaidcomProbe second(log, param());
    EXPECT_EQ(second.instance(), "3530");
    EXPECT_EQ(hdstest::loginCount(env), 2);
  });
  EXPECT_EQ(readFile(env.horcmDir() + "horcm3530.conf"), SimArray::raidcomHorcmConf(3530));
  EXPECT_EQ(count({}, "horcmstart.sh"), 1u);
  EXPECT_EQ(count({"-login"}), 1u);

  for (int n = 3500; n <= 3532; ++n) {
    writeFile(env.horcmDir() + "horcm" + std::to_string(n) + ".conf", otherArray);
  }
  expectInChild([&] {
    RaidcomProbe handler(log, param());
    EXPECT_EQ(handler.errorCode(), 62601);
    EXPECT_EQ(handler.errorText(), "Failed to create horcm file.");
  });
}

TEST_F(RaidcomSession, LoginCountDecidesWhoLogsInAndOut) {
  settings("sVTHDSRaidcomLockCount_412345=-2\n");
  // Only a count of exactly 0 starts the instance.
  sim.writeRaidcomHorcmConf(3532);
  sim.run("horcmstart.sh", {"3532"});
  expectInChild([&] {
    RaidcomProbe handler(log, param());
    EXPECT_TRUE(log.contains("login count is -ve [-2]. Something is wrong.", 2));
    EXPECT_EQ(hdstest::loginCount(env), 1);

    VTPlatformInfo::setRegInt("~iHarbor", "sVTHDSRaidcomLockCount_412345", 3);
    EXPECT_EQ(handler.performLogin(false), 0);
    EXPECT_TRUE(log.contains("Already logged in. Count [3]", 0));
    EXPECT_EQ(handler.performLogout(), 0);
    EXPECT_TRUE(log.contains("login count [4]. No logout needed.", 0));

    VTPlatformInfo::setRegInt("~iHarbor", "sVTHDSRaidcomLockCount_412345", 0);
    EXPECT_EQ(handler.performLogout(), 0);
    EXPECT_TRUE(log.contains("login count is -ve [0]. Something is wrong.", 2));
    EXPECT_EQ(hdstest::loginCount(env), 0);

    VTPlatformInfo::removeKey("~iHarbor", "sVTHDSRaidcomLockCount_412345");
    EXPECT_EQ(handler.performLogin(false), 1);
    EXPECT_EQ(handler.errorText(), "Failed to login to array.");
    EXPECT_EQ(handler.getLoginCount(), -1);
  });
  // The destructor's logout failed on the missing count and ran nothing.
  EXPECT_EQ(count({"-login"}), 1u);
  EXPECT_EQ(count({"-logout"}), 1u);
}

TEST_F(RaidcomSession, ExpiredLoginCostsExactlyOneRelogin) {
  expectInChild([&] {
    RaidcomProbe handler(log, param());
    sim.expireSessions();
    EXPECT_EQ(handler.listResourceGroups(), 0);
    EXPECT_EQ(count({"-login"}), 2u);
    // A forced login counts only its own session.
    EXPECT_EQ(hdstest::loginCount(env), 1);

    sim.addFault(failing("get resource", 202, "", 2));
    EXPECT_EQ(handler.listResourceGroups(), 1);
    EXPECT_EQ(handler.errorCode(), 62601);
    EXPECT_EQ(handler.errorText(), "Command '" + env.cciDir() +
                                       "raidcom  get resource   -IM3532 -s 412345 returned exit "
                                       "code [202].");
  });
  EXPECT_EQ(count({"-login"}), 3u);
  EXPECT_EQ(count({"get", "resource"}), 4u);
}

TEST_F(RaidcomSession, ResourceGroupLockSharedInProcessAndWaitedForFromOutside) {
  expectInChild([&] {
    ZoSetTimeScale(0.001);
    RaidcomProbe first(log, param());
    RaidcomProbe second(log, param());
    ASSERT_EQ(first.lockResource(), 0) << first.errorText();
    ASSERT_EQ(second.lockResource(), 0);
    EXPECT_EQ(first.unlockResource(), 0);
    EXPECT_EQ(second.unlockResource(), 0);
    EXPECT_EQ(count({"lock", "resource"}), 1u);
    EXPECT_EQ(count({"unlock", "resource"}), 1u);

    sim.lockResourceGroup("meta_resource", "admin", "Storage Navigator");
    EXPECT_EQ(first.lockResource(), 1);
    EXPECT_EQ(first.errorCode(), 62601);
    EXPECT_EQ(first.errorText(),
              "Resource group meta_resource is locked by user admin from host Storage Navigator");
    EXPECT_EQ(count({"get", "resource"}), 2u + 50u);
  });
}

TEST_F(RaidcomSession, AsynchronousCommandStatus) {
  settings("sVTHDSRaidcomMaxRetryCount=3\n");
  expectInChild([&] {
    RaidcomProbe handler(log, param());
    sim.addFault(SimFault{"raidcom", "modify ldev", {}, "", "", 1, 0, "2E31,4016", ""});
    EXPECT_EQ(rename100(handler), 1);
    EXPECT_EQ(handler.errorText(), "Command status has error.");

    sim.addFault(failing("get command_status", 233, "", 2));
    EXPECT_EQ(rename100(handler), 0) << handler.errorText();
    EXPECT_TRUE(log.contains("Failed to get command status. Command timeout. RetryCnt [1]", 1));

    // The time-out is printed on standard error only: the last round leaves no status line.
    sim.addFault(failing("get command_status", 233, "", 3));
    EXPECT_EQ(rename100(handler), 1);
    EXPECT_TRUE(log.contains("Failed to get command status after [3] retry.", 1));
    EXPECT_TRUE(
        log.contains("Failed to get command status for command [raidcom  modify ldev ]", 2));
    EXPECT_EQ(handler.errorText(), "Failed get command status.");
  });
  EXPECT_EQ(count({"get", "command_status"}), 1u + 3u + 3u);
}

TEST_F(RaidcomSession, DelayedLogoutKeepsThePrepareSessionForTheCreateStep) {
  settings("nVTHDSEnableDelayedLogoutForSnapCreate=1\n");
  expectInChild([&] {
    { RaidcomProbe prepare(log, param()); }
    EXPECT_EQ(hdstest::loginCount(env), 1);
    HDSCLIInitParam p = param();
    p.operationType = 2;
    p.horcmInstance = "3532";
    RaidcomProbe create(log, p);
    EXPECT_EQ(create.instanceArgs(), " -IM3532 -s 412345");
    EXPECT_EQ(create.listResourceGroups(), 0);
  });
  EXPECT_EQ(count({"-login"}), 1u);
  EXPECT_EQ(count({"-logout"}), 1u);
  EXPECT_EQ(hdstest::loginCount(env), 0);
}

TEST_F(RaidcomSession, StoppedInstanceIsStartedAgainOnce) {
  expectInChild([&] {
    RaidcomProbe handler(log, param());
    // The instance went, and the session with it: one start, one login, and the listing again.
    sim.run("horcmshutdown.sh", {"3532"});
    EXPECT_EQ(handler.listResourceGroups(), 0) << handler.errorText();
    EXPECT_TRUE(
        log.contains("Horcm instance [3532] is not running. Starting it again for command "
                     "[raidcom  get resource ].",
                     1));
    sim.addFault(failing("get resource", 251,
                         "raidcom: [EX_ATTHOR] Can't be attached to HORC manager\n", 2));
    EXPECT_EQ(handler.listResourceGroups(), 1);
    EXPECT_EQ(handler.errorText(), "Command '" + env.cciDir() +
                                       "raidcom  get resource   -IM3532 -s 412345 returned exit "
                                       "code [251].");
  });
  EXPECT_EQ(count({}, "horcmstart.sh"), 3u);
  EXPECT_EQ(count({"-login"}), 2u);
  EXPECT_EQ(count({"get", "resource"}), 3u + 2u);
}

TEST_F(RaidcomSession, FailedSessionsGiveTheirInstanceBack) {
  expectInChild([&] {
    HDSCLIInitParam p = param();
    p.commandDevices.clear();
    EXPECT_EQ(RaidcomProbe(log, p).errorText(),
              "Command device list not passed to raidcom handler. Either provision a command "
              "device from storage array-[412345] to this host or provide a custom HORCM "
              "instance at Array Management snap configuration-[HORCM instance number to be used "
              "for Raidcom commands (CCI engines)] for the array");
    p = param();
    p.password.clear();
    EXPECT_EQ(RaidcomProbe(log, p).errorText(), "User name or password is invalid.");
    // Arrays this host does not reach: their instances never start.
    for (int i = 0; i < 40; ++i) {
      HDSCLIInitParam p = param();
      p.serialNumber = std::to_string(400000 + i);
      p.commandDevices = {"\\\\.\\CMD-" + p.serialNumber + ":/dev/sdc"};
      ASSERT_NE(RaidcomProbe(log, p).errorCode(), 0);
    }
    // A refused login (202) is neither retried nor counted, and stops the instance it started.
    p = param();
    p.password = "wrong";
    EXPECT_EQ(RaidcomProbe(log, p).errorCode(), 62602);
    RaidcomProbe working(log, param());
    EXPECT_EQ(working.errorCode(), 0) << working.errorText();
    EXPECT_EQ(working.instance(), "3532");
  });
  EXPECT_EQ(hdstest::filesIn(env.horcmDir()), std::set<std::string>{"horcm3532.conf"});
  EXPECT_EQ(count({}, "horcmstart.sh"), 40u + 2u);
  EXPECT_EQ(count({}, "horcmshutdown.sh"), 1u);
  EXPECT_EQ(count({"-login"}), 2u);
}

// Bounds where the settings give no rule of their own: below 1 is the default.
TEST_F(RaidcomSession, OutOfRangeRetrySettingsFallBackToTheirDefaults) {
  settings("sVTHDSRaidcomTimeoutInSecs=-5\nsVTHDSRaidcomMaxRetryCount=0\n");
  expectInChild([&] {
    RaidcomProbe handler(log, param());
    EXPECT_EQ(handler.getArrayLockTimeoutVal(), 30);
    EXPECT_TRUE(log.contains(
        "Setting [sVTHDSRaidcomTimeoutInSecs] has value [-5], below 1. Using [30].", 1));
    EXPECT_TRUE(log.contains(
        "Setting [sVTHDSRaidcomMaxRetryCount] has value [0], below 1. Using [50].", 1));
    // With no status round an asynchronous command could never be judged a success.
    EXPECT_EQ(rename100(handler), 0) << handler.errorText();
  });
}

// Where the error text is fixed, the log line before it names the path and the system's reason.
TEST_F(RaidcomSession, HostStateFailuresNameTheirPathAndReason) {
  const std::string notADirectory = env.root() + "/plain";
  writeFile(notADirectory, "");
  expectInChild([&] {
    env.setEnv("HDS_LOCK_DIR", notADirectory.c_str());
    EXPECT_EQ(RaidcomProbe(log, param()).errorText(), "Failed to login to array.");
    EXPECT_TRUE(log.contains("Lock directory [" + notADirectory + "] unusable: Not a directory", 2))
        << log.dump();
    env.setEnv("HDS_LOCK_DIR", env.lockDir().c_str());

    hds::platform::setSettingsFaultForTest(hds::platform::SettingsFault::kWrite);
    EXPECT_EQ(RaidcomProbe(log, param()).errorText(), "Failed to login to array.");
    hds::platform::setSettingsFaultForTest(hds::platform::SettingsFault::kNone);
    EXPECT_TRUE(log.contains(
        "Settings file [" + env.settingsFile() + "] cannot be written: Input/output error", 2));

    writeFile(env.settingsFile(), std::string("[iHarbor]\0\0", 11));
    EXPECT_EQ(RaidcomProbe(log, param()).errorText(),
              "Settings file [" + env.settingsFile() + "] is not a text file.");
  });
  settings("");
  expectInChild([&] {
    env.setEnv("HDS_TEMP_DIR", " ");
    EXPECT_FALSE(RaidcomProbe(log, param()).loggedIn());
    EXPECT_TRUE(log.contains("Temporary directory [ ] is not an absolute path", 2));
  });
  EXPECT_FALSE(hdstest::pathExists(" "));
}

}  // namespace
