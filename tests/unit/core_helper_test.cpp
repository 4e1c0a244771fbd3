#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "hds/helper/CommandHelper.h"
#include "hds/platform/VTPassword.h"
#include "hds/platform/VtNamedMutex.h"
#include "hds/platform/ZoSleep.h"
#include "tests/support/RecordingSnapInfo.h"
#include "tests/support/TestEnv.h"

namespace {

class Runner : public ::testing::Test {
 protected:
  hdstest::TestEnv env;
  hdstest::RecordingSnapInfo log;
  CommandHelper helper{log};
  std::string output, error;
  int exitCode = -1;
};

TEST_F(Runner, NonZeroExitIsARunThatEndedWithStandardErrorAppended) {
  ASSERT_EQ(
      helper.RunCommandWithTimeout("echo out; echo err >&2; exit 3", output, exitCode, error, 10),
      0);
  EXPECT_EQ(exitCode, 3);
  EXPECT_EQ(output, "out\nerr\n");
  EXPECT_EQ(error, "err\n");
  EXPECT_TRUE(
      log.contains("Command [echo out; echo err >&2; exit 3] succeeded with exitCode [3]", 0))
      << log.dump();
}

TEST_F(Runner, StandardErrorOfACleanRunStaysOutOfTheOutput) {
  ASSERT_EQ(helper.RunCommandWithFileOutput("echo out; echo warn >&2", output, exitCode, error, 10,
                                            "ignored.log"),
            0);
  EXPECT_EQ(exitCode, 0);
  EXPECT_EQ(output, "out\n");
  EXPECT_EQ(error, "warn\n");
}

TEST_F(Runner, ShellInterpretsTheLineAndSeesTheCLocale) {
  ASSERT_EQ(helper.RunCommandWithTimeout("printf '%s|' \"a b\" c; echo $LC_ALL", output, exitCode,
                                         error, 10),
            0);
  EXPECT_EQ(output, "a b|c|C\n");
}

TEST_F(Runner, TimeOutIsAFailureNamingTheCommand) {
  EXPECT_EQ(helper.RunCommandWithTimeout("sleep 30", output, exitCode, error, 1), -1);
  EXPECT_EQ(error, "Command sleep 30 timedout.");
  EXPECT_TRUE(log.contains("Command [sleep 30] timed out. Error [timedout]", 2)) << log.dump();
}

TEST_F(Runner, RunCommandWithoutTimeOutReportsTheExitCode) {
  ASSERT_EQ(helper.RunCommand("echo hi; exit 4", output, exitCode, error, "", "", ""), 0);
  EXPECT_EQ(exitCode, 4);
  EXPECT_TRUE(log.contains("Successfully executed command [echo hi; exit 4] with exitCode [4]", 2));
}

TEST_F(Runner, LoginCommandsAreLoggedWithoutCredentials) {
  EXPECT_EQ(helper.buildCommandToPrint("raidcom -login user pw1 -IM3532", ""), "raidcom -login ");
  EXPECT_EQ(helper.buildCommandToPrint("/opt/cci/raidcom  -login", ""), "/opt/cci/raidcom  -login");
  EXPECT_EQ(helper.buildCommandToPrint("raidcom get ldev", " [x]"), "raidcom get ldev [x]");
  env.writeSettings("[iHarbor]\nSNAP_HDS_DO_NOT_PRINT_FULL_COMMAND=1\n");
  EXPECT_EQ(helper.buildCommandToPrint("raidcom get ldev", " [x]"), "raidcom get ldev");

  // Neither a successful nor a timed-out login run may leak the password anywhere.
  helper.RunCommandWithTimeout("echo login user s3cr3t >&2; exit 202", output, exitCode, error, 10);
  helper.RunCommandWithTimeout("sleep 5; : login user s3cr3t", output, exitCode, error, 1);
  EXPECT_EQ(error.find("s3cr3t"), std::string::npos);
  EXPECT_EQ(log.count("s3cr3t"), 0u) << log.dump();
}

std::atomic<int> g_decryptCalls{0};

int upperCaseDecrypt(const char* in, char* out, int* size) {
  ++g_decryptCalls;
  int i = 0;
  for (; in[i] != '\0' && i < *size - 1; ++i) out[i] = static_cast<char>(toupper(in[i]));
  out[i] = '\0';
  return 1;
}

int failingDecrypt(const char*, char*, int*) {
  ++g_decryptCalls;
  return 0;
}

TEST_F(Runner, PasswordDecryption) {
  std::string plain = "untouched";
  VTPassword::setDecryptHook(upperCaseDecrypt);
  g_decryptCalls = 0;
  EXPECT_EQ(helper.decryptPassword("", plain), 0);
  EXPECT_EQ(g_decryptCalls, 0);
  EXPECT_EQ(plain, "untouched");

  EXPECT_EQ(helper.decryptPassword("abc", plain), 0);
  EXPECT_EQ(plain, "ABC");

  VTPassword::setDecryptHook(failingDecrypt);
  plain = "untouched";
  EXPECT_EQ(helper.decryptPassword("abc", plain), 1);
  EXPECT_EQ(plain, "untouched");
  VTPassword::setDecryptHook(nullptr);
}

// Holds a named lock on another thread until released.
class Holder {
 public:
  explicit Holder(const std::string& name) {
    m_thread = std::thread([this, name] {
      VtNamedMutex mutex(name);
      std::unique_lock<std::mutex> lk(m_mutex);
      m_held = mutex.lock(10000);
      m_ready = true;
      m_cv.notify_all();
      m_cv.wait(lk, [this] { return m_release; });
      mutex.unlock();
    });
    std::unique_lock<std::mutex> lk(m_mutex);
    m_cv.wait(lk, [this] { return m_ready; });
  }
  ~Holder() { release(); }
  bool held() const { return m_held; }
  void release() {
    {
      std::lock_guard<std::mutex> lk(m_mutex);
      m_release = true;
    }
    m_cv.notify_all();
    if (m_thread.joinable()) m_thread.join();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_ready = false, m_held = false, m_release = false;
  std::thread m_thread;
};

class NamedLock : public ::testing::Test {
 protected:
  void SetUp() override { ZoSetTimeScale(0.001); }
  void TearDown() override { ZoSetTimeScale(1.0); }
  hdstest::TestEnv env;
  hdstest::RecordingSnapInfo log;
};

TEST_F(NamedLock, GuardHoldsTheNameForItsScope) {
  log.setConfigInt(SMCONFIG_NAME_ENABLE_COMMAND_LOGGING, 1);
  {
    VTHDSLock guard(log, "VT_HDS_INPUTFILE_LOCK", 0);
    EXPECT_TRUE(guard.isLocked());
    VTHDSLock other(log);
    std::thread([&] { EXPECT_FALSE(other.lock("VT_HDS_INPUTFILE_LOCK", 1)); }).join();
  }
  EXPECT_TRUE(log.contains("Acquired mutex [VT_HDS_INPUTFILE_LOCK].", 0));
  EXPECT_EQ(log.count("Released mutex [VT_HDS_INPUTFILE_LOCK]."), 1u);
  VTHDSLock again(log, "VT_HDS_INPUTFILE_LOCK", 1);
  EXPECT_TRUE(again.isLocked());
}

TEST_F(NamedLock, AttemptsComeFromTheArgumentThenTheSettingThenTheDefault) {
  log.setConfigInt(SMCONFIG_NAME_ENABLE_COMMAND_LOGGING, 1);
  Holder holder("busy");
  ASSERT_TRUE(holder.held());
  const std::string retry = "Mutex [busy] could not be acquired, shall retry after [5] seconds.";

  env.writeSettings("[iHarbor]\nnVTHDSSnapLockRetryCount=3\n");
  VTHDSLock lock(log);
  EXPECT_FALSE(lock.lock("busy", 0));
  EXPECT_FALSE(lock.isLocked());
  EXPECT_EQ(log.count(retry), 3u);
  EXPECT_TRUE(log.contains("Mutex [busy] could not be acquired even after [3] attempts.", 2));

  log.clear();
  EXPECT_FALSE(lock.lock("busy", 2));
  EXPECT_EQ(log.count(retry), 2u);

  log.clear();
  env.writeSettings("");
  EXPECT_FALSE(lock.lock("busy", 0));
  EXPECT_EQ(log.count(retry), 50u);

  holder.release();
  EXPECT_TRUE(lock.lock("busy", 1));
}

TEST_F(NamedLock, ProgressIsLoggedOnlyWithCommandLogging) {
  {
    VTHDSLock guard(log, "quiet", 0);
    EXPECT_TRUE(guard.isLocked());
  }
  EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(NamedLock, UnlockIsHarmlessWhenNothingIsHeld) {
  log.setConfigInt(SMCONFIG_NAME_ENABLE_COMMAND_LOGGING, 1);
  VTHDSLock lock(log);
  lock.unlock();
  lock.unlock();
  EXPECT_FALSE(lock.isLocked());
  ASSERT_TRUE(lock.lock("twice", 1));
  lock.unlock();
  lock.unlock();
  EXPECT_FALSE(lock.isLocked());
  EXPECT_EQ(log.count("Released mutex [twice]."), 1u);
}

TEST_F(NamedLock, RelockingOneObjectDoesNotWaitOnItself) {
  VTHDSLock lock(log);
  ASSERT_TRUE(lock.lock("same", 1));
  EXPECT_TRUE(lock.lock("same", 1));
}

TEST_F(NamedLock, UnusableLockDirectoryIsReported) {
  hdstest::writeFile(env.root() + "/notadir", "");
  env.setEnv("HDS_LOCK_DIR", (env.root() + "/notadir/locks").c_str());
  VTHDSLock lock(log, "nowhere", 1);
  EXPECT_FALSE(lock.isLocked());
  EXPECT_TRUE(log.contains("Failed to create mutex [nowhere].", 2)) << log.dump();
}

}  // namespace
