#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <thread>
#include <vector>

#include "hds/helper/CommandHelper.h"
#include "hds/platform/VTPassword.h"
#include "hds/platform/VtNamedMutex.h"
#include "hds/platform/VtProcess.h"
#include "hds/platform/ZoSleep.h"
#include "tests/support/ProcessHelpers.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/TestEnv.h"

namespace {

// What the process-wide observer was told of each call.
struct Observed {
  std::string command, out;
  int exitCode;
  bool started, timedOut;
  size_t errSize;
};

void record(void* calls, const VtProcessCall& c) {
  static_cast<std::vector<Observed>*>(calls)->push_back(
      {c.command, std::string(c.out, c.outSize), c.exitCode, c.started, c.timedOut, c.errSize});
}

class Helper : public ::testing::Test {
 protected:
  void SetUp() override {
    ZoSetTimeScale(0.001);
    VtSetProcessObserver(record, &observed);
  }
  void TearDown() override {
    VtSetProcessObserver(nullptr, nullptr);
    ZoSetTimeScale(1.0);
  }
  std::vector<Observed> observed;
  hdstest::TestEnv env;
  hdstest::RecordingSnapInfo log;
  CommandHelper helper{log};
  std::string output, error;
  int exitCode = -1;
};

TEST_F(Helper, RunOutcomes) {
  hdstest::NoLeaks noLeaks;
  // Any exit code is a run that ended; standard error joins the output only when it is not 0.
  ASSERT_EQ(
      helper.RunCommandWithTimeout("echo out; echo err >&2; exit 3", output, exitCode, error, 10),
      0);
  EXPECT_EQ(exitCode, 3);
  EXPECT_EQ(output, "out\nerr\n");
  EXPECT_TRUE(
      log.contains("Command [echo out; echo err >&2; exit 3] succeeded with exitCode [3]", 0));
  ASSERT_EQ(helper.RunCommandWithFileOutput("echo out; echo warn >&2", output, exitCode, error, 10,
                                            "ignored"),
            0);
  EXPECT_EQ(output, "out\n");
  EXPECT_EQ(error, "warn\n");

  EXPECT_EQ(helper.RunCommandWithTimeout("sleep 30", output, exitCode, error, 1), -1);
  EXPECT_EQ(error, "Command sleep 30 timedout.");
  EXPECT_TRUE(log.contains("Command [sleep 30] timed out. Error [timedout]", 2));

  ASSERT_EQ(helper.RunCommand("exit 4", output, exitCode, error, "", "", ""), 0);
  EXPECT_EQ(exitCode, 4);
  EXPECT_TRUE(log.contains("Successfully executed command [exit 4] with exitCode [4]", 2));

  // The observer hears of every call, with what the child wrote before the two were joined.
  ASSERT_EQ(observed.size(), 4u);
  EXPECT_EQ(observed[0].command, "echo out; echo err >&2; exit 3");
  EXPECT_EQ(observed[0].out + std::to_string(observed[0].errSize), "out\n4");
  EXPECT_TRUE(observed[2].started && observed[2].timedOut && observed[2].exitCode == -1);
  EXPECT_FALSE(observed[3].timedOut || observed[3].exitCode != 4);
  EXPECT_EQ(noLeaks.leaks(), "");
}

TEST_F(Helper, LoggedCommandsNeverCarryTheLoginCredentials) {
  EXPECT_EQ(helper.buildCommandToPrint("raidcom -login user pw1 -IM3532", ""), "raidcom -login ");
  EXPECT_EQ(helper.buildCommandToPrint("x -login", ""), "x -login");
  EXPECT_EQ(helper.buildCommandToPrint("raidcom get ldev", "+s"), "raidcom get ldev+s");
  env.writeSettings("[iHarbor]\nSNAP_HDS_DO_NOT_PRINT_FULL_COMMAND=1\n");
  EXPECT_EQ(helper.buildCommandToPrint("raidcom get ldev", "+s"), "raidcom get ldev");

  helper.RunCommandWithTimeout("echo -login user s3cr3t; exit 202", output, exitCode, error, 10);
  helper.RunCommandWithTimeout("sleep 5; : -login user s3cr3t", output, exitCode, error, 1);
  EXPECT_EQ(error.find("s3cr3t"), std::string::npos);
  EXPECT_EQ(log.count("s3cr3t"), 0u) << log.dump();
  ASSERT_EQ(observed.size(), 2u);
  EXPECT_EQ(observed[0].command, "echo -login ");
  EXPECT_EQ(observed[1].command, "sleep 5; : -login ");
}

int g_decryptCalls = 0;

TEST_F(Helper, PasswordDecryption) {
  // The hook upper-cases and refuses what starts with '!'.
  VTPassword::setDecryptHook([](const char* in, char* out, int* size) {
    ++g_decryptCalls;
    int i = 0;
    for (; in[i] != '\0' && i < *size - 1; ++i) out[i] = static_cast<char>(toupper(in[i]));
    out[i] = '\0';
    return in[0] == '!' ? 0 : 1;
  });
  std::string plain = "untouched";
  EXPECT_EQ(helper.decryptPassword("", plain), 0);
  EXPECT_EQ(helper.decryptPassword("!bad", plain), 1);
  EXPECT_EQ(plain, "untouched");
  EXPECT_EQ(g_decryptCalls, 1);  // none for the empty password
  EXPECT_EQ(helper.decryptPassword("abc", plain), 0);
  VTPassword::setDecryptHook(nullptr);
  EXPECT_EQ(plain, "ABC");
}

TEST_F(Helper, LockAttemptsComeFromTheArgumentThenTheSettingThenTheDefault) {
  log.setConfigInt(SMCONFIG_NAME_ENABLE_COMMAND_LOGGING, 1);
  VtNamedMutex holder("busy");
  ASSERT_TRUE(holder.lock(1000));
  const std::string retry = "Mutex [busy] could not be acquired, shall retry after [5] seconds.";
  // The holder is this thread; the lock is tried from another one.
  auto attempts = [&](int retryCount) {
    log.clear();
    std::thread([&] {
      VTHDSLock lock(log, "busy", retryCount);
      EXPECT_FALSE(lock.isLocked());
    }).join();
    return log.count(retry);
  };
  env.writeSettings("[iHarbor]\nnVTHDSSnapLockRetryCount=3\n");
  EXPECT_EQ(attempts(0), 3u);
  EXPECT_TRUE(log.contains("Mutex [busy] could not be acquired even after [3] attempts.", 2));
  EXPECT_EQ(attempts(2), 2u);
  env.writeSettings("");
  EXPECT_EQ(attempts(0), 50u);

  holder.unlock();
  log.clear();
  std::thread([&] {
    VTHDSLock lock(log);
    lock.unlock();
    EXPECT_TRUE(lock.lock("busy", 1));
    lock.unlock();
    lock.unlock();
    EXPECT_FALSE(lock.isLocked());
  }).join();
  EXPECT_TRUE(log.contains("Acquired mutex [busy].", 0));
  EXPECT_EQ(log.count("Released mutex [busy]."), 1u);

  // Without command logging only failures are logged.
  log.setConfigInt(SMCONFIG_NAME_ENABLE_COMMAND_LOGGING, 0);
  log.clear();
  { VTHDSLock guard(log, "quiet", 0); }
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
