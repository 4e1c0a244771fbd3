// The raidcom session against the simulated array: many processes sharing one login, expired
// sessions, foreign resource group locks, background command failures, and what is left on disk.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>

#include "hds/common/HDSConstants.h"
#include "hds/platform/ZoSleep.h"
#include "tests/support/ProcessHelpers.h"
#include "tests/support/RaidcomProbe.h"
#include "tests/support/SimArray.h"

namespace {

using hdstest::expectInChild;
using hdstest::RaidcomProbe;
using hdstest::SimArray;
using hdstest::SimFault;
using hdstest::SimJournalEntry;
using hdstest::storedLoginCount;

void forEachFile(const std::string& dir, const std::function<void(const std::string&)>& fn) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = dir + "/" + name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) forEachFile(path, fn);
    if (S_ISREG(st.st_mode)) fn(path);
  }
  closedir(d);
}

SimFault exitFault(const std::string& match, int exitCode, int times, const std::string& err = "") {
  SimFault fault;
  fault.match = match;
  fault.exitCode = exitCode;
  fault.err = err;
  fault.times = times;
  return fault;
}

bool isRaidcom(const SimJournalEntry& e, const std::string& first, const std::string& second = "") {
  return e.tool == "raidcom" && !e.args.empty() && e.args[0] == first &&
         (second.empty() || (e.args.size() > 1 && e.args[1] == second));
}

class RaidcomSessionSim : public ::testing::Test {
 protected:
  RaidcomSessionSim() {
    env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + env.cciDir() +
                      "\nsClientHostName=testhost\n");
  }

  HDSCLIInitParam param() const {
    HDSCLIInitParam p;
    p.serialNumber = SimArray::kSerial;
    p.userName = SimArray::kUser;
    p.password = SimArray::kPassword;
    p.operationType = 1;
    p.commandDevices = {"\\\\.\\CMD-412345:/dev/sdc"};
    return p;
  }

  size_t count(const std::string& first, const std::string& second = "") const {
    size_t n = 0;
    for (const SimJournalEntry& e : sim.journal()) n += isRaidcom(e, first, second);
    return n;
  }

  hdstest::TestEnv env;
  SimArray sim{env};
  hdstest::RecordingSnapInfo log;
};

TEST_F(RaidcomSessionSim, SixteenProcessesShareOneLogin) {
  const std::vector<int> codes = hdstest::runInChildren(16, [this](int) {
    hdstest::RecordingSnapInfo childLog;
    RaidcomCommandHandler handler(childLog, param());
    int code = 0;
    std::string text;
    handler.getErrorCodeAndString(code, text);
    if (code != 0) return 10;
    std::map<std::string, ResourceGroupStatus> groups;
    if (handler.getResourceGroup(groups, false) != 0) return 11;
    return groups.count("meta_resource") == 1 ? 0 : 12;
  });
  EXPECT_EQ(codes, std::vector<int>(16, 0));
  EXPECT_EQ(storedLoginCount(SimArray::kSerial), 0);

  int filesNamingArray = 0;
  forEachFile(env.horcmDir(), [&](const std::string& path) {
    filesNamingArray += hdstest::readFile(path).find("CMD-412345") != std::string::npos;
  });
  EXPECT_EQ(filesNamingArray, 1);

  // Sessions open and close strictly in turn, and every listing ran inside one.
  bool open = false;
  int logins = 0;
  int listings = 0;
  for (const SimJournalEntry& e : sim.journal()) {
    if (isRaidcom(e, "-login")) {
      EXPECT_FALSE(open) << "a second session was opened while one was open";
      open = true;
      ++logins;
      EXPECT_EQ(e.exitCode, 0);
    } else if (isRaidcom(e, "-logout")) {
      EXPECT_TRUE(open) << "a session was closed twice";
      open = false;
    } else if (isRaidcom(e, "get", "resource")) {
      EXPECT_TRUE(open);
      EXPECT_EQ(e.exitCode, 0);
      ++listings;
    }
  }
  EXPECT_FALSE(open);
  EXPECT_GE(logins, 1);
  EXPECT_EQ(listings, 16);
}

TEST_F(RaidcomSessionSim, ExpiredLoginCostsExactlyOneRelogin) {
  expectInChild([&] {
    RaidcomProbe handler(log, param());
    ASSERT_EQ(handler.errorCode(), 0) << handler.errorText();
    std::map<std::string, ResourceGroupStatus> groups;

    sim.addFault(exitFault("get resource", 202, 1,
                           "raidcom: [EX_ENAUTH] Authentication failed with User\n"));
    EXPECT_EQ(handler.getResourceGroup(groups, false), 0);
    EXPECT_EQ(count("-login"), 2u);

    sim.expireSessions();
    EXPECT_EQ(handler.getResourceGroup(groups, false), 0);
    EXPECT_EQ(count("-login"), 3u);

    sim.addFault(exitFault("get resource", 202, 2));
    EXPECT_EQ(handler.getResourceGroup(groups, false), 1);
    EXPECT_EQ(handler.errorCode(), 62601);
    EXPECT_EQ(handler.errorText(), "Command '" + env.cciDir() +
                                       "raidcom  get resource   -IM3532 -s 412345 returned exit "
                                       "code [202].");
    EXPECT_EQ(count("-login"), 4u);
  });
  EXPECT_EQ(count("get", "resource"), 6u);
  EXPECT_EQ(count("-logout"), 1u);
}

TEST_F(RaidcomSessionSim, ResourceGroupLockSharedInProcessAndWaitedForFromOutside) {
  expectInChild([&] {
    ZoSetTimeScale(0.001);
    RaidcomProbe first(log, param());
    RaidcomProbe second(log, param());
    ASSERT_EQ(first.lockResource(), 0) << first.errorText();
    ASSERT_EQ(second.lockResource(), 0);
    EXPECT_EQ(first.unlockResource(), 0);
    EXPECT_EQ(second.unlockResource(), 0);
    EXPECT_EQ(count("lock", "resource"), 1u);
    EXPECT_EQ(count("unlock", "resource"), 1u);

    sim.lockResourceGroup("meta_resource", "admin", "Storage Navigator");
    EXPECT_EQ(first.lockResource(), 1);
    EXPECT_EQ(first.errorCode(), 62601);
    EXPECT_EQ(first.errorText(),
              "Resource group meta_resource is locked by user admin from host Storage Navigator");
    EXPECT_EQ(count("get", "resource"), 2u + 50u);
  });
}

TEST_F(RaidcomSessionSim, BackgroundFailureAndStatusTimeouts) {
  expectInChild([&] {
    RaidcomProbe handler(log, param());
    ASSERT_EQ(handler.errorCode(), 0) << handler.errorText();
    std::string output;
    int exitCode = 0;

    SimFault background;
    background.match = "modify ldev";
    background.statusSsb = "2E31,4016";
    sim.addFault(background);
    EXPECT_EQ(handler.executeCommand("raidcom  modify ldev ",
                                     " -ldev_id 100 -ldev_name renamed" + handler.instanceArgs(),
                                     output, exitCode, true),
              1);
    EXPECT_EQ(handler.errorText(), "Command status has error.");

    sim.addFault(exitFault("get command_status", 233, 2));
    EXPECT_EQ(handler.executeCommand("raidcom  modify ldev ",
                                     " -ldev_id 100 -ldev_name renamed" + handler.instanceArgs(),
                                     output, exitCode, true),
              0)
        << handler.errorText();
    EXPECT_TRUE(log.contains("Failed to get command status. Command timeout. RetryCnt [1]", 1));
  });
  EXPECT_EQ(count("reset", "command_status"), 2u);
  EXPECT_EQ(count("get", "command_status"), 1u + 3u);
}

TEST_F(RaidcomSessionSim, DestructorReleasesLockAndSessionAfterAFailureAndLeaksNoPassword) {
  env.writeSettings("[iHarbor]\nsVTHDSHorcmDirectory=" + env.cciDir() +
                    "\nsClientHostName=testhost\n[~iHarbor]\nnVTHDSKeepCmdOutput=1\n");
  expectInChild([&] {
    RaidcomProbe handler(log, param());
    ASSERT_EQ(handler.lockResource(), 0) << handler.errorText();
    sim.expireSessions();
    std::string output;
    int exitCode = 0;
    sim.addFault(exitFault("delete ldev", 221, 1));
    EXPECT_EQ(
        handler.executeCommand("raidcom  delete ldev ", " -ldev_id 100" + handler.instanceArgs(),
                               output, exitCode, true),
        1);
    for (const auto& line : log.lines()) {
      EXPECT_EQ(line.text.find(SimArray::kPassword), std::string::npos) << line.text;
    }
  });
  EXPECT_EQ(count("unlock", "resource"), 1u);
  EXPECT_EQ(count("-logout"), 1u);
  EXPECT_EQ(storedLoginCount(SimArray::kSerial), 0);

  int files = 0;
  forEachFile(env.root(), [&](const std::string& path) {
    // The simulator's state is the array's side, which knows the password anyway.
    if (path.find(env.simState()) == 0) return;
    ++files;
    EXPECT_EQ(hdstest::readFile(path).find(SimArray::kPassword), std::string::npos) << path;
  });
  EXPECT_GT(files, 3);
}

}  // namespace
