#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "hds/platform/VtNamedMutex.h"
#include "hds/platform/ZoSleep.h"
#include "tests/support/ProcessHelpers.h"
#include "tests/support/TestEnv.h"

namespace {

long msSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start)
      .count();
}

// A child that takes the lock, says so on a pipe and keeps it until it is killed.
pid_t startHolder(const std::string& name) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  pid_t pid = hdstest::forkChild([&] {
    VtNamedMutex m(name);
    if (!m.lock(5000)) return 1;
    char c = 'x';
    if (write(fds[1], &c, 1) != 1) return 2;
    pause();
    return 0;
  });
  close(fds[1]);
  char c;
  bool ready = read(fds[0], &c, 1) == 1;
  close(fds[0]);
  return ready ? pid : -1;
}

bool otherProcessGets(const std::string& name, unsigned long ms) {
  return hdstest::runInChildren(1, [&](int) {
           VtNamedMutex m(name);
           return m.lock(ms) ? 0 : 1;
         })[0] == 0;
}

}  // namespace

TEST(NamedLockExclusion, ExcludesThreadsAndProcesses) {
  hdstest::TestEnv env;
  VtNamedMutex a("VT_HDS_INPUTFILE_LOCK");
  ASSERT_TRUE(a.isValid()) << a.lastError();
  ASSERT_TRUE(a.lock(1000));
  EXPECT_FALSE(otherProcessGets("VT_HDS_INPUTFILE_LOCK", 50));
  a.unlock();
  EXPECT_TRUE(otherProcessGets("VT_HDS_INPUTFILE_LOCK", 1000));

  // Unguarded read-modify-write of a plain counter: only exclusion keeps every increment.
  int counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&counter] {
      for (int i = 0; i < 500; ++i) {
        VtNamedMutex m("VT_HDS_OUTPUTFILE_LOCK");
        if (!m.lock(5000)) continue;
        int v = counter;
        std::this_thread::yield();
        counter = v + 1;
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(counter, 2000);
}

// A wait on a held lock times out and leaves the caller's signal state alone; the holder's death
// frees the lock at once.
TEST(NamedLockRecovery, KilledHolderReleasesIt) {
  hdstest::TestEnv env;
  pid_t holder = startHolder("RAIDCOM_LOGIN_LOCK");
  ASSERT_GT(holder, 0);
  sigset_t maskBefore, maskAfter;
  struct sigaction before[3], after[3];
  const int sigs[3] = {SIGALRM, SIGCHLD, SIGPIPE};
  pthread_sigmask(SIG_SETMASK, nullptr, &maskBefore);
  for (int i = 0; i < 3; ++i) sigaction(sigs[i], nullptr, &before[i]);

  VtNamedMutex m("RAIDCOM_LOGIN_LOCK");
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(m.lock(100));
  long waited = msSince(start);
  EXPECT_GE(waited, 95);
  EXPECT_LT(waited, 3000);

  ZoSetTimeScale(0.001);  // a five-second wait of a retry loop becomes 5 ms
  start = std::chrono::steady_clock::now();
  EXPECT_FALSE(m.lock(5000));
  ZoSetTimeScale(1.0);
  EXPECT_LT(msSince(start), 1000);

  pthread_sigmask(SIG_SETMASK, nullptr, &maskAfter);
  for (int i = 0; i < 3; ++i) {
    sigaction(sigs[i], nullptr, &after[i]);
    EXPECT_EQ(before[i].sa_handler, after[i].sa_handler);
  }
  for (int s = 1; s < 32; ++s) EXPECT_EQ(sigismember(&maskBefore, s), sigismember(&maskAfter, s));

  kill(holder, SIGKILL);
  hdstest::waitChild(holder);
  start = std::chrono::steady_clock::now();
  EXPECT_TRUE(m.lock(5000));
  EXPECT_LT(msSince(start), 1000);
}

TEST(NamedLockFiles, PlantedSymlinkIsRefusedAndDirectoryIsPrivate) {
  hdstest::TestEnv env;
  std::string target = env.root() + "/victim";
  hdstest::writeFile(target, "keep");
  ASSERT_EQ(
      symlink(target.c_str(), VtNamedMutex::lockFilePath("VT_HDS_LOCK_RESOURCE_GROUP").c_str()), 0);
  // Neither a refused lock nor one taken and let go keeps a descriptor.
  hdstest::NoLeaks noLeaks;
  {
    VtNamedMutex planted("VT_HDS_LOCK_RESOURCE_GROUP");
    EXPECT_FALSE(planted.isValid());
    EXPECT_NE(planted.lastError().find(strerror(ELOOP)), std::string::npos) << planted.lastError();
    EXPECT_FALSE(planted.lock(10));
    EXPECT_EQ(hdstest::readFile(target), "keep");

    env.setEnv("HDS_LOCK_DIR", (env.root() + "/run/lock/hds").c_str());
    VtNamedMutex fresh("VT_HDS_HORCM_FILE_COUNT_LOCK");
    ASSERT_TRUE(fresh.isValid()) << fresh.lastError();
    EXPECT_TRUE(fresh.lock(100));
    fresh.unlock();
    struct stat st;
    ASSERT_EQ(stat((env.root() + "/run/lock/hds").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0077, 0u);
  }
  EXPECT_EQ(noLeaks.leaks(), "");

  // A child started by a plain fork and exec while the lock is held does not keep it.
  VtNamedMutex m("VT_HDS_VSM_OP_LOCK_410001");
  ASSERT_TRUE(m.lock(1000));
  pid_t tool = fork();
  if (tool == 0) {
    execl("/bin/sleep", "sleep", "3", static_cast<char*>(nullptr));
    _exit(127);
  }
  m.unlock();
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(otherProcessGets("VT_HDS_VSM_OP_LOCK_410001", 2000));
  EXPECT_LT(msSince(start), 1000);
  kill(tool, SIGKILL);
  hdstest::waitChild(tool);
}

// A lock file removed while held: the holder keeps a lock nobody else can find, and a newcomer
// takes the file now at the path at once. A process that was already waiting must end up on
// that new file too, not slip in on the old one when its holder lets go.
TEST(NamedLockIdentity, WaiterMovesToTheFileNowAtThePath) {
  hdstest::TestEnv env;
  const std::string name = "VT_HDS_SYNC_COMMANDS";
  VtNamedMutex holder(name);
  ASSERT_TRUE(holder.lock(1000));
  VtNamedMutex waiter(name);  // mapped on the file that is about to go
  std::atomic<int> waited{-1};
  // A lock is let go by the thread that took it.
  std::thread waiting([&] {
    waited = waiter.lock(3000) ? 1 : 0;
    waiter.unlock();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));

  ASSERT_EQ(unlink(VtNamedMutex::lockFilePath(name).c_str()), 0);
  VtNamedMutex newcomer(name);
  ASSERT_TRUE(newcomer.lock(100)) << newcomer.lastError();
  holder.unlock();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(waited, -1) << "the waiter took the old file's lock while the newcomer holds the name";

  newcomer.unlock();
  waiting.join();
  EXPECT_EQ(waited, 1);
  EXPECT_TRUE(otherProcessGets(name, 1000));
}
