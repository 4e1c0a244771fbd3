#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "hds/platform/VTPlatformInfo.h"
#include "hds/platform/VtNamedMutex.h"
#include "hds/platform/internal/SettingsText.h"
#include "tests/support/Leftovers.h"
#include "tests/support/ProcessHelpers.h"
#include "tests/support/TestEnv.h"

using hdstest::filesIn;

TEST(SettingsParsing, FollowsTheFileFormat) {
  hdstest::TestEnv env;
  int i = 0;
  EXPECT_FALSE(VTPlatformInfo::getRegInt("iHarbor", "nVTHDSKeepCmdOutput", &i));  // no file

  env.writeSettings(
      "# client settings\n"
      "[iHarbor]\n"
      "  sVTHDSHorcmDirectory  =  /opt/HORCM/usr/bin  \n"
      "; nVTHDSSnapLockRetryCount=9\n"
      "nVTHDSSnapLockRetryCount=3\n"
      "sClientHostName=host-a\r\n"
      "nBad=12x\n"
      "nNegative=-5\n"
      "[~iHarbor]\n"
      "nVTHDSCCICommandTimeoutInSec=31\n");
  char buf[64];
  ASSERT_TRUE(VTPlatformInfo::getString("iHarbor", "sVTHDSHorcmDirectory", buf, sizeof(buf)));
  EXPECT_STREQ(buf, "/opt/HORCM/usr/bin");
  ASSERT_TRUE(VTPlatformInfo::getString("iHarbor", "sVTHDSHorcmDirectory", buf, 5));
  EXPECT_STREQ(buf, "/opt");
  unsigned long n = 0;
  EXPECT_TRUE(VTPlatformInfo::getNumber("iHarbor", "nVTHDSSnapLockRetryCount", &n));
  EXPECT_EQ(n, 3u);
  EXPECT_FALSE(VTPlatformInfo::getRegInt("iHarbor", "nvthdssnaplockretrycount", &i));
  EXPECT_FALSE(VTPlatformInfo::getRegInt("iHarbor", "nBad", &i));
  EXPECT_TRUE(VTPlatformInfo::getRegInt("iHarbor", "nNegative", &i));
  EXPECT_EQ(i, -5);
  EXPECT_FALSE(VTPlatformInfo::getNumber("iHarbor", "nNegative", &n));
  EXPECT_FALSE(VTPlatformInfo::getRegInt("iHarbor", "nVTHDSCCICommandTimeoutInSec", &i));
  EXPECT_TRUE(VTPlatformInfo::getRegInt("~iHarbor", "nVTHDSCCICommandTimeoutInSec", &i));
  EXPECT_EQ(i, 31);
  std::string host;
  EXPECT_TRUE(VTPlatformInfo::getClientHostName("testclient", host));
  EXPECT_EQ(host, "host-a");
}

TEST(SettingsParsing, WritesKeepEverythingElse) {
  std::string text = "# top\n[iHarbor]\na=1\n\n; note\n[other]\na=2\n";
  std::string b = "7";
  EXPECT_EQ(hds::platform::withSetting(text, "iHarbor", "a", &b),
            "# top\n[iHarbor]\na=7\n\n; note\n[other]\na=2\n");
  EXPECT_EQ(hds::platform::withSetting(text, "iHarbor", "b", &b),
            "# top\n[iHarbor]\na=1\nb=7\n\n; note\n[other]\na=2\n");
  EXPECT_EQ(hds::platform::withSetting(text, "~iHarbor", "a", &b), text + "\n[~iHarbor]\na=7\n");
  EXPECT_EQ(hds::platform::withSetting(text, "other", "a", nullptr),
            "# top\n[iHarbor]\na=1\n\n; note\n[other]\n");
  // A file edited elsewhere: its CRLF lines and blank lines stay as they were, the line that
  // changes and a last line without a newline end in "\n".
  const std::string crlf = "[iHarbor]\r\n\r\na=1\r\nc=3\r\n[other]\r\nd=4";
  EXPECT_EQ(hds::platform::withSetting(crlf, "iHarbor", "a", &b),
            "[iHarbor]\r\n\r\na=7\nc=3\r\n[other]\r\nd=4\n");
  EXPECT_EQ(hds::platform::withSetting(crlf, "other", "e", &b),
            "[iHarbor]\r\n\r\na=1\r\nc=3\r\n[other]\r\nd=4\ne=7\n");
}

TEST(SettingsConcurrency, ConcurrentWritersLoseNothing) {
  hdstest::TestEnv env;
  const int kProcs = 8, kRounds = 200;
  std::vector<int> codes = hdstest::runInChildren(kProcs, [&](int p) {
    std::string own = "nOwn" + std::to_string(p);
    for (int r = 0; r < kRounds; ++r) {
      if (!VTPlatformInfo::updateRegInt("iHarbor", own.c_str(),
                                        [](bool present, int v) { return present ? v + 1 : 1; }))
        return 1;
      // The handlers' way: a named lock around a plain read and write.
      VtNamedMutex m("RAIDCOM_LOGIN_LOCK");
      if (!m.lock(60000)) return 2;
      int count = 0;
      VTPlatformInfo::getRegInt("iHarbor", "nShared", &count);
      if (!VTPlatformInfo::setRegInt("iHarbor", "nShared", count + 1)) return 3;
    }
    return 0;
  });
  for (int code : codes) EXPECT_EQ(code, 0);
  for (int p = 0; p < kProcs; ++p) {
    int v = 0;
    EXPECT_TRUE(VTPlatformInfo::getRegInt("iHarbor", ("nOwn" + std::to_string(p)).c_str(), &v));
    EXPECT_EQ(v, kRounds);
  }
  int shared = 0;
  VTPlatformInfo::getRegInt("iHarbor", "nShared", &shared);
  EXPECT_EQ(shared, kProcs * kRounds);
}

TEST(SettingsConcurrency, ReadersNeverSeeATornFile) {
  hdstest::TestEnv env;
  ASSERT_TRUE(VTPlatformInfo::setRegInt("iHarbor", "nFirst", 1));
  ASSERT_TRUE(VTPlatformInfo::setRegInt("~iHarbor", "nLast", 1));
  pid_t writer = hdstest::forkChild([] {
    for (int r = 0; r < 1000; ++r)
      if (!VTPlatformInfo::setString("iHarbor", "sFiller", std::string(r * 37 % 4000, 'x')))
        return 1;
    return 0;
  });
  int torn = 0, parses = 0;
  while (parses < 100000) {
    int a = 0, b = 0;
    ++parses;
    if (!VTPlatformInfo::getRegInt("iHarbor", "nFirst", &a) ||
        !VTPlatformInfo::getRegInt("~iHarbor", "nLast", &b))
      ++torn;
    if (parses % 1000 == 0 && waitpid(writer, nullptr, WNOHANG) == writer) {
      writer = -1;
      break;
    }
  }
  if (writer > 0) {
    EXPECT_EQ(hdstest::waitChild(writer), 0);
  }
  EXPECT_EQ(torn, 0) << "of " << parses;
}

TEST(SettingsDurability, FailedRewriteKeepsOldContentAndNoTempFile) {
  hdstest::TestEnv env;
  ASSERT_TRUE(VTPlatformInfo::setRegInt("iHarbor", "nCount", 1));
  std::string before = hdstest::readFile(env.settingsFile());
  for (auto fault : {hds::platform::SettingsFault::kWrite, hds::platform::SettingsFault::kFsync,
                     hds::platform::SettingsFault::kRename}) {
    hds::platform::setSettingsFaultForTest(fault);
    EXPECT_FALSE(VTPlatformInfo::setRegInt("iHarbor", "nCount", 2));
    EXPECT_FALSE(
        VTPlatformInfo::updateRegInt("iHarbor", "nCount", [](bool, int v) { return v + 1; }));
    hds::platform::setSettingsFaultForTest(hds::platform::SettingsFault::kNone);
    EXPECT_EQ(hdstest::readFile(env.settingsFile()), before);
    EXPECT_EQ(filesIn(env.root() + "/etc"),
              (std::set<std::string>{"settings.conf", "settings.conf.lock"}));
  }
  EXPECT_TRUE(VTPlatformInfo::setRegInt("iHarbor", "nCount", 2));
}

// A settings file that is there but cannot be used is an error naming it, never "nothing set";
// a linked one is read through the link and rewritten beside the file it points at.
TEST(SettingsFile, UnusableFileIsNamedAndALinkIsFollowed) {
  hdstest::TestEnv env;
  const std::string path = env.settingsFile();
  std::string problem;
  EXPECT_TRUE(VTPlatformInfo::checkSettingsFile(problem));  // absent: every default

  const std::string repo = env.root() + "/repo";
  ASSERT_EQ(mkdir(repo.c_str(), 0755), 0);
  hdstest::writeFile(repo + "/settings.conf", "[iHarbor]\nnA=1\n");
  ASSERT_EQ(symlink((repo + "/settings.conf").c_str(), path.c_str()), 0);
  int value = 0;
  EXPECT_TRUE(VTPlatformInfo::getRegInt("iHarbor", "nA", &value));
  EXPECT_TRUE(VTPlatformInfo::setRegInt("iHarbor", "nB", 2));
  struct stat st;
  ASSERT_EQ(lstat(path.c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(hdstest::readFile(repo + "/settings.conf"), "[iHarbor]\nnA=1\nnB=2\n");
  EXPECT_EQ(filesIn(repo), std::set<std::string>{"settings.conf"});

  auto unusable = [&](const std::string& reason) {
    EXPECT_FALSE(VTPlatformInfo::checkSettingsFile(problem)) << reason;
    EXPECT_EQ(problem, "Settings file [" + path + "] " + reason);
    EXPECT_FALSE(VTPlatformInfo::setRegInt("iHarbor", "nA", 3)) << "overwrote: " << reason;
    EXPECT_EQ(VTPlatformInfo::lastError(), problem);
  };
  unlink(path.c_str());
  hdstest::writeFile(path, std::string("[iHarbor]\nnA=1\n\0\x01\x7f", 18));
  unusable("is not a text file");
  unlink(path.c_str());
  ASSERT_EQ(symlink(repo.c_str(), path.c_str()), 0);
  unusable("is not a regular file");
}
