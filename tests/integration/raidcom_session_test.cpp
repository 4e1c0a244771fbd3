// The raidcom session against fake CCI tools: HORCM file and instance choice, the shared login
// count, the forced re-login, the command status protocol and resource group locks. Every
// scenario runs in a child process, because handlers keep per-process caches.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>

#include "hds/platform/ZoSleep.h"
#include "tests/support/RaidcomProbe.h"

namespace {

using hdstest::expectInChild;
using hdstest::RaidcomEnv;
using hdstest::RaidcomProbe;
using hdstest::readFile;
using hdstest::storedLoginCount;
using hdstest::writeFile;

const char kOtherArrayFile[] =
    "HORCM_MON\nhost\t\t3532\t1000           3000\n\nHORCM_CMD\n#\\\\.\\CMD-499999\n";

void forEachFile(const std::string& dir, const std::function<void(const std::string&)>& fn) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = dir + "/" + name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      forEachFile(path, fn);
    } else if (S_ISREG(st.st_mode)) {
      fn(path);
    }
  }
  closedir(d);
}

class RaidcomSession : public ::testing::Test {
 protected:
  RaidcomEnv r;
};

TEST_F(RaidcomSession, FirstHandlerWritesFileStartsInstanceAndLastLogsOut) {
  expectInChild([&] {
    HDSCLIInitParam p = r.param();
    p.commandDevices = {"/dev/dsk/c1t0d0", "/dev/sdc"};
    {
      auto first = r.handler(p);
      ASSERT_EQ(first->errorCode(), 0) << first->errorText();
      EXPECT_EQ(first->ready(), 1);
      EXPECT_TRUE(first->loggedIn());
      EXPECT_EQ(first->instance(), "3532");
      EXPECT_EQ(first->instanceArgs(), " -IM3532 -s 412345");
      EXPECT_EQ(first->resourceGroup(), "meta_resource");
      EXPECT_EQ(storedLoginCount("412345"), 1);
      EXPECT_EQ(readFile(r.env.horcmDir() + "horcm3532.conf"),
                "#HORCM file create by Tessaly Kestrel. Do not alter the file content or delete "
                "the file.\n"
                "HORCM_MON\n"
                "#ip_address                  service         poll(10ms)     timeout(10ms)\n"
                "testhost\t\t3532\t1000           3000\n"
                "\n"
                "HORCM_CMD\n"
                "#dev_name               dev_name                dev_name\n"
                "#\\\\.\\CMD-412345\n"
                "/dev/rdsk/c1t0d0 /dev/sdc \n");

      // A second handler of the array shares file, instance and session.
      auto second = r.handler(p);
      ASSERT_EQ(second->errorCode(), 0) << second->errorText();
      EXPECT_EQ(second->instance(), "3532");
      EXPECT_EQ(storedLoginCount("412345"), 2);
      EXPECT_TRUE(r.log.contains("Already logged in. Count [1]", 0));
    }
    EXPECT_EQ(storedLoginCount("412345"), 0);
    EXPECT_TRUE(r.log.contains("login count [2]. No logout needed.", 0));
  });
  EXPECT_EQ(r.fakes.tools.argv("horcmstart.sh"), std::vector<std::string>{"[3532]"});
  EXPECT_EQ(r.fakes.calls(), (std::vector<std::string>{"[-login][bkpadmin][S3cr3t-pw][-IM3532]",
                                                       "[-logout][-IM3532]"}));
}

TEST_F(RaidcomSession, InstanceWalkSkipsOtherArraysAndReusesThisArraysFile) {
  writeFile(r.env.horcmDir() + "horcm3532.conf", kOtherArrayFile);
  writeFile(r.env.horcmDir() + "horcm3531.conf", "#\\\\.\\CMD-41234\n");
  expectInChild([&] {
    auto handler = r.handler();
    ASSERT_EQ(handler->errorCode(), 0) << handler->errorText();
    EXPECT_EQ(handler->instance(), "3530");
    EXPECT_TRUE(r.log.contains("Horcm instance [3530] is avaliable for use.", 0));
  });

  // The file of this array at 3531, other sessions open: reused untouched, nothing started.
  const std::string mine = "#\\\\.\\CMD-412345\nkept as it is\n";
  writeFile(r.env.horcmDir() + "horcm3531.conf", mine);
  r.settings("[~iHarbor]\nsVTHDSRaidcomLockCount_412345=2\n");
  expectInChild([&] {
    auto handler = r.handler();
    ASSERT_EQ(handler->errorCode(), 0) << handler->errorText();
    EXPECT_EQ(handler->instance(), "3531");
    EXPECT_EQ(storedLoginCount("412345"), 3);
  });
  EXPECT_EQ(readFile(r.env.horcmDir() + "horcm3531.conf"), mine);
  EXPECT_EQ(r.fakes.tools.argv("horcmstart.sh"), std::vector<std::string>{"[3530]"});
  EXPECT_EQ(r.fakes.count("-login"), 1);
}

TEST_F(RaidcomSession, InitializeRejectsMissingInputAndFullInstanceRange) {
  expectInChild([&] {
    HDSCLIInitParam p = r.param();
    p.serialNumber = "";
    EXPECT_EQ(r.handler(p)->errorText(), "Serial number not passed to raidcom handler.");

    p = r.param();
    p.commandDevices.clear();
    auto noDevices = r.handler(p);
    EXPECT_EQ(noDevices->errorCode(), 62600);
    EXPECT_EQ(noDevices->errorText(),
              "Command device list not passed to raidcom handler. Either provision a command "
              "device from storage array-[412345] to this host or provide a custom HORCM "
              "instance at Array Management snap configuration-[HORCM instance number to be used "
              "for Raidcom commands (CCI engines)] for the array");

    p = r.param();
    p.password = "";
    auto noPassword = r.handler(p);
    EXPECT_EQ(noPassword->errorCode(), 62602);
    EXPECT_EQ(noPassword->errorText(), "User name or password is invalid.");
    EXPECT_EQ(noPassword->ready(), 0);
  });
  for (int n = 3500; n <= 3532; ++n) {
    writeFile(r.env.horcmDir() + "horcm" + std::to_string(n) + ".conf", kOtherArrayFile);
  }
  expectInChild([&] {
    auto handler = r.handler();
    EXPECT_EQ(handler->errorCode(), 62601);
    EXPECT_EQ(handler->errorText(), "Failed to create horcm file.");
    EXPECT_TRUE(r.log.contains("Couldn't find a free horcm instance to use", 2));
  });
  // No handler got as far as a session, so none logs out.
  EXPECT_EQ(r.fakes.calls().size(), 0u);
}

TEST_F(RaidcomSession, LoginCountProtocol) {
  r.settings("[~iHarbor]\nsVTHDSRaidcomLockCount_412345=3\n");
  expectInChild([&] {
    auto handler = r.handler();
    ASSERT_EQ(handler->errorCode(), 0);
    EXPECT_TRUE(r.log.contains("Already logged in. Count [3]", 0));
    EXPECT_EQ(storedLoginCount("412345"), 4);

    VTPlatformInfo::setRegInt("~iHarbor", "sVTHDSRaidcomLockCount_412345", -2);
    EXPECT_EQ(handler->performLogin(false), 0);
    EXPECT_TRUE(r.log.contains("login count is -ve [-2]. Something is wrong.", 2));
    EXPECT_EQ(storedLoginCount("412345"), 1);
    EXPECT_EQ(r.fakes.count("-login"), 1);

    VTPlatformInfo::setRegInt("~iHarbor", "sVTHDSRaidcomLockCount_412345", 0);
    EXPECT_EQ(handler->performLogout(), 0);
    EXPECT_TRUE(r.log.contains("login count is -ve [0]. Something is wrong.", 2));
    EXPECT_EQ(storedLoginCount("412345"), 0);
    EXPECT_EQ(r.fakes.count("-logout"), 1);

    // A refused login is not counted, and neither are the sessions counted before it.
    VTPlatformInfo::setRegInt("~iHarbor", "sVTHDSRaidcomLockCount_412345", 0);
    r.fakes.exits("login", {3});
    EXPECT_EQ(handler->performLogin(false), 1);
    EXPECT_EQ(handler->errorCode(), 62602);
    EXPECT_EQ(storedLoginCount("412345"), 0);

    VTPlatformInfo::removeKey("~iHarbor", "sVTHDSRaidcomLockCount_412345");
    EXPECT_EQ(handler->performLogin(false), 1);
    EXPECT_EQ(handler->errorText(), "Failed to login to array.");
    EXPECT_EQ(handler->getLoginCount(), -1);
    VTPlatformInfo::setRegInt("~iHarbor", "sVTHDSRaidcomLockCount_412345", 1);
  });
}

TEST_F(RaidcomSession, WrongPasswordIsOneRefusedLoginThatIsNotCounted) {
  r.fakes.exits("login", {202});
  expectInChild([&] {
    const auto start = std::chrono::steady_clock::now();
    auto handler = r.handler();
    EXPECT_EQ(handler->errorCode(), 62602);
    EXPECT_FALSE(handler->loggedIn());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  });
  EXPECT_EQ(storedLoginCount("412345"), 0);
  EXPECT_EQ(r.fakes.count("-login"), 1);
  EXPECT_EQ(r.fakes.count("-logout"), 0);
}

TEST_F(RaidcomSession, ExpiredSessionCostsOneForcedLogin) {
  expectInChild([&] {
    auto handler = r.handler();
    std::string output;
    int exitCode = 0;
    r.fakes.exits("get_pool", {202});
    EXPECT_EQ(handler->executeCommand("raidcom  get pool ", " -key opt" + handler->instanceArgs(),
                                      output, exitCode, false),
              0);
    // The forced login resets the shared count to this one session.
    EXPECT_EQ(storedLoginCount("412345"), 1);

    r.fakes.exits("get_pool", {202, 202});
    EXPECT_EQ(handler->executeCommand("raidcom  get pool ", " -key opt" + handler->instanceArgs(),
                                      output, exitCode, false),
              1);
    EXPECT_EQ(exitCode, 202);
    EXPECT_EQ(handler->errorText(), "Command '" + r.env.cciDir() +
                                        "raidcom  get pool   -key opt -IM3532 -s 412345 returned "
                                        "exit code [202].");
  });
  EXPECT_EQ(
      r.fakes.calls(),
      (std::vector<std::string>{
          "[-login][bkpadmin][S3cr3t-pw][-IM3532]", "[get][pool][-key][opt][-IM3532][-s][412345]",
          "[-login][bkpadmin][S3cr3t-pw][-IM3532][-s][412345]",
          "[get][pool][-key][opt][-IM3532][-s][412345]",
          "[get][pool][-key][opt][-IM3532][-s][412345]",
          "[-login][bkpadmin][S3cr3t-pw][-IM3532][-s][412345]",
          "[get][pool][-key][opt][-IM3532][-s][412345]", "[-logout][-IM3532]"}));
}

TEST_F(RaidcomSession, AsynchronousCommandStatus) {
  r.settings("[~iHarbor]\nsVTHDSRaidcomMaxRetryCount=3\nsVTHDSRaidcomTimeoutInSecs=7\n");
  expectInChild([&] {
    auto handler = r.handler();
    EXPECT_EQ(handler->getArrayLockTimeoutVal(), 7);
    std::string output;
    int exitCode = 0;
    auto addLdev = [&] {
      return handler->executeCommand(
          "raidcom  add ldev ", " -ldev_id 100" + handler->instanceArgs(), output, exitCode, true);
    };
    EXPECT_EQ(addLdev(), 0);

    r.fakes.output("get_command_status",
                   "HANDLE   SSB1    SSB2    ERR_CNT        Serial#     Description\n"
                   "00c3 2ef3 b9a0 1 412345 Invalid resource\n");
    EXPECT_EQ(addLdev(), 1);
    EXPECT_EQ(handler->errorText(), "Command status has error.");
    EXPECT_TRUE(r.log.contains(
        "Get command status for command [raidcom  add ldev ] returned error [Invalid resource]",
        2));

    // Time-outs of the status wait are retried up to the configured count, then fail the command.
    r.fakes.output("get_command_status",
                   "raidcom: [EX_EWSTOT] Timeout waiting for specified status\n");
    r.fakes.exits("get_command_status", {233, 233, 233});
    EXPECT_EQ(addLdev(), 1);
    EXPECT_EQ(handler->errorText(), "Command status has error.");
    EXPECT_TRUE(r.log.contains("Failed to get command status after [3] retry.", 1));
    EXPECT_TRUE(r.log.contains("Failed to get command status. Command timeout. RetryCnt [2]", 1));

    // A status listing without its status line cannot be read.
    EXPECT_EQ(addLdev(), 1);
    EXPECT_EQ(handler->errorText(), "Failed get command status.");

    r.fakes.exits("reset_command_status", {1});
    EXPECT_EQ(addLdev(), 1);
    EXPECT_EQ(handler->errorText(), "Failed to reset command status.");
  });
  EXPECT_EQ(r.fakes.count("[get][command_status][-time][7][-IM3532][-s][412345]"), 6);
  EXPECT_EQ(r.fakes.count("[reset][command_status][-IM3532][-s][412345]"), 5);
  EXPECT_EQ(r.fakes.count("[add][ldev]"), 4);
}

TEST_F(RaidcomSession, HandlersOfOneProcessShareTheResourceLock) {
  expectInChild([&] {
    auto first = r.handler();
    auto second = r.handler();
    ASSERT_EQ(first->lockResource(), 0);
    ASSERT_EQ(second->lockResource(), 0);
    EXPECT_EQ(RaidcomProbe::lockRefCount("412345"), 2);
    EXPECT_EQ(r.fakes.count("lock][resource"), 1);

    r.fakes.output("get_resource",
                   "RS_GROUP            RGID   stat      Lock_owner     Lock_host      Serial#\n"
                   "meta_resource          0   Locked    bkpadmin       mediahost01     412345\n");
    EXPECT_EQ(first->unlockResource(), 0);
    EXPECT_FALSE(first->resourceLocked());
    EXPECT_EQ(RaidcomProbe::lockRefCount("412345"), 1);
    EXPECT_EQ(r.fakes.count("unlock][resource"), 0);
    // The second handler's lock is released by its destructor, even after a failed command.
    std::string output;
    int exitCode = 0;
    r.fakes.exits("get_pool", {1});
    EXPECT_EQ(second->executeCommand("raidcom  get pool ", second->instanceArgs(), output, exitCode,
                                     false),
              1);
    second.reset();
    EXPECT_EQ(RaidcomProbe::lockRefCount("412345"), 0);
  });
  EXPECT_EQ(r.fakes.count("[lock][resource][-resource_name][meta_resource][-time][30][-IM3532]"),
            1);
  EXPECT_EQ(r.fakes.count("[unlock][resource][-resource_name][meta_resource][-time][30][-IM3532]"),
            1);
  // The host name of the lock owner columns is asked for once per process.
  EXPECT_EQ(r.fakes.tools.argv("raidqry"),
            (std::vector<std::string>{"[-h]", "[-l][-IM3532][-s][412345]"}));
  EXPECT_EQ(r.fakes.count("-logout"), 1);
}

TEST_F(RaidcomSession, ForeignLockIsWaitedForThenReported) {
  r.fakes.output("get_resource",
                 "RS_GROUP            RGID   stat      Lock_owner     Lock_host      Serial#\n"
                 "meta_resource          0   Locked    admin          Storage Navigator 412345\n"
                 "my group               5   Locked    bkpadmin       mediahost01     412345\n");
  expectInChild([&] {
    ZoSetTimeScale(0.001);
    auto handler = r.handler();
    EXPECT_EQ(handler->lockResource(), 1);
    EXPECT_EQ(handler->errorCode(), 62601);
    EXPECT_EQ(handler->errorText(),
              "Resource group meta_resource is locked by user admin from host Storage Navigator");
    EXPECT_TRUE(r.log.contains(
        "Resource [meta_resource] is locked by user [admin] from host [Storage Navigator] retry "
        "lock count [50]",
        0));

    // A group with a blank in its name, locked by this host's session in another process.
    HDSCLIInitParam p = r.param();
    p.resourceGroupName = "my group";
    auto named = r.handler(p);
    EXPECT_EQ(named->lockResource(), 0);
    EXPECT_TRUE(r.log.contains(
        "Resource [my group] is already locked by user [bkpadmin] in host [mediahost01]. No need "
        "to relock.",
        1));
  });
  EXPECT_EQ(r.fakes.count("[get][resource]"), 51 + 1);
  // The destructor released the named group, quoted so that it reached raidcom as one argument.
  EXPECT_EQ(r.fakes.count("[unlock][resource][-resource_name][my group][-time]"), 1);
  EXPECT_EQ(r.fakes.count("[lock][resource]"), 0);
}

TEST_F(RaidcomSession, DelayedLogoutKeepsThePrepareSessionForTheCreateStep) {
  r.settings("[~iHarbor]\nnVTHDSEnableDelayedLogoutForSnapCreate=1\n");
  expectInChild([&] {
    { auto prepare = r.handler(); }
    EXPECT_EQ(storedLoginCount("412345"), 1);

    HDSCLIInitParam p = r.param();
    p.operationType = 2;
    p.horcmInstance = "3532";
    auto create = r.handler(p);
    ASSERT_EQ(create->errorCode(), 0);
    EXPECT_EQ(create->instanceArgs(), " -IM3532 -s 412345");
    EXPECT_TRUE(
        r.log.contains("Setting to perform prepare-create in single session is set. Value-[1]", 1));
  });
  EXPECT_EQ(storedLoginCount("412345"), 0);
  EXPECT_EQ(r.fakes.calls(), (std::vector<std::string>{"[-login][bkpadmin][S3cr3t-pw][-IM3532]",
                                                       "[-logout][-IM3532]"}));
}

TEST_F(RaidcomSession, PasswordReachesNoLogAndNoFile) {
  r.settings("[~iHarbor]\nnVTHDSKeepCmdOutput=1\n");
  r.fakes.exits("login", {0, 202});
  r.fakes.exits("get_pool", {202, 202});
  expectInChild([&] {
    auto handler = r.handler();
    std::string output;
    int exitCode = 0;
    handler->executeCommand("raidcom  get pool ", handler->instanceArgs(), output, exitCode, true);
    handler->lockResource();
    for (const auto& line : r.log.lines()) {
      EXPECT_EQ(line.text.find("S3cr3t-pw"), std::string::npos) << line.text;
    }
    int code = 0;
    std::string text;
    handler->getErrorCodeAndString(code, text);
    EXPECT_EQ(text.find("S3cr3t-pw"), std::string::npos);
  });
  int files = 0;
  forEachFile(r.env.root(), [&](const std::string& path) {
    // The fake raidcom's own call record is the array's side of the line.
    if (path.find("/.fake/") != std::string::npos) return;
    ++files;
    EXPECT_EQ(readFile(path).find("S3cr3t-pw"), std::string::npos) << path;
  });
  EXPECT_GT(files, 3);
}

}  // namespace
