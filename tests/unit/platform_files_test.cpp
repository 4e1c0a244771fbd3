#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "hds/platform/CZoFile.h"
#include "hds/platform/SnapInfo.h"
#include "hds/platform/VTClient.h"
#include "hds/platform/VTPI_Base.h"
#include "hds/platform/VTPassword.h"
#include "hds/platform/ZoSleep.h"
#include "tests/support/ProcessHelpers.h"
#include "tests/support/TestEnv.h"

TEST(ScriptAndResponseFiles, PlantedSymlinkIsNeverFollowed) {
  hdstest::TestEnv env;
  std::string victim = env.root() + "/victim";
  hdstest::writeFile(victim, "original");
  std::string script = env.tempDir() + "/1_2_3_1_script";
  std::string resp = env.tempDir() + "/1_2_3_1_resp.log";
  ASSERT_EQ(symlink(victim.c_str(), script.c_str()), 0);
  ASSERT_EQ(symlink(victim.c_str(), resp.c_str()), 0);

  CZoFile file;
  CZoError err = file.Open(script, O_WRONLY | O_CREAT | O_TRUNC, 0777);
  EXPECT_EQ(err.Errno(), ELOOP);
  EXPECT_NE(err.AsString().find(script), std::string::npos);
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(file.Open(resp, O_WRONLY | O_CREAT | O_EXCL, 0777).Errno(), EEXIST);
  std::string content;
  EXPECT_EQ(CZoFile::ReadWholeFile(resp, content).Errno(), ELOOP);
  EXPECT_EQ(hdstest::readFile(victim), "original");
  // A dangling link still occupies its name.
  unlink(victim.c_str());
  EXPECT_FALSE(CZoFile::Stat(script).IsError());
}

TEST(TempAndHorcmDirectories, CreatedPrivateAndRefusedWhenPlanted) {
  hdstest::TestEnv env;
  env.setEnv("HDS_TEMP_DIR", (env.root() + "/var/tmp/hds").c_str());
  const char* dir = VTPI_Base::getOrreryTempDirectory();
  ASSERT_NE(dir, nullptr);
  EXPECT_EQ(std::string(dir), env.root() + "/var/tmp/hds");
  struct stat st;
  ASSERT_EQ(lstat(dir, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);

  ASSERT_EQ(symlink(env.root().c_str(), (env.root() + "/planted").c_str()), 0);
  env.setEnv("HDS_TEMP_DIR", (env.root() + "/planted").c_str());
  EXPECT_EQ(VTPI_Base::getOrreryTempDirectory(), nullptr);
  EXPECT_EQ(std::string(dir), env.root() + "/var/tmp/hds");  // earlier pointer still good

  env.setEnv("HDS_HORCM_DIR", (env.root() + "/horcm").c_str());
  EXPECT_EQ(VTPI_Base::getHorcmDirectory(), env.root() + "/horcm/");
  env.setEnv("HDS_HORCM_DIR", nullptr);
  EXPECT_EQ(VTPI_Base::getHorcmDirectory(), "/etc/");
}

TEST(TimeScale, ShortensSleepsButNeverToZero) {
  ZoSetTimeScale(0.001);
  EXPECT_EQ(ZoScaledMs(5000), 5u);
  EXPECT_EQ(ZoScaledMs(1), 1u);
  EXPECT_EQ(ZoScaledMs(0), 0u);
  auto start = std::chrono::steady_clock::now();
  ZOSLEEP_InTeRnAl(60000);
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                  start)
                .count();
  ZoSetTimeScale(1.0);
  EXPECT_GE(ms, 59);
  EXPECT_LT(ms, 3000);
}

TEST(ClientIdentity, NamesPasswordHookAndLogLines) {
  hdstest::TestEnv env;
  EXPECT_EQ(EvDebug::getClientName(), "testclient");
  env.setEnv("HDS_CLIENT_NAME", nullptr);
  EXPECT_EQ(EvDebug::getClientName(), VTClient("x").getNetworkHostname());

  char out[8];
  int size = sizeof(out);
  EXPECT_EQ(VTPassword::decrypt("too long for it", out, &size), 0);

  std::ostringstream log;
  BasicSnapInfo info(&log);
  info.setMinLevel(1);
  info.log(0, "HDS  ", "dropped %d", 1);
  info.log(2, "HDS  ", "Failed to delete file [%s].", "/tmp/x");
  EXPECT_TRUE(std::regex_match(
      log.str(), std::regex("20[0-9]{2}-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\."
                            "[0-9]{3}Z " +
                            std::to_string(getpid()) +
                            " [0-9]+ ERROR HDS   Failed to delete file \\[/tmp/x\\]\\.\n")))
      << log.str();
  char buf[4];
  info.setConfigString(SMCONFIG_NAME_HORCM_INSTALLATION_PATH, "/HORCM");
  EXPECT_TRUE(info.getSnapConfigString(SMCONFIG_NAME_HORCM_INSTALLATION_PATH, buf, sizeof(buf)));
  EXPECT_STREQ(buf, "/HO");
}

// Thirty-two processes of two threads each append long lines to one log: every line arrives
// whole, none is lost.
TEST(LogFile, ConcurrentWritersNeverSplitALine) {
  hdstest::TestEnv env;
  const std::string path = env.root() + "/shared.log";
  const int kProcesses = 32, kLines = 100;
  const std::string body(3000, 'x');
  const std::vector<int> codes = hdstest::runInChildren(kProcesses, [&](int p) {
    BasicSnapInfo info;
    if (!info.openLogFile(path)) return 1;
    auto writer = [&](int t) {
      for (int i = 0; i < kLines; ++i) info.log(2, "HDS  ", "w%d.%d %s end", p, t, body.c_str());
    };
    std::thread other(writer, 1);
    writer(0);
    other.join();
    return 0;
  });
  EXPECT_EQ(codes, std::vector<int>(kProcesses, 0));
  std::istringstream in(hdstest::readFile(path));
  const std::regex head("\\S+Z [0-9]+ [0-9]+ ERROR HDS   w[0-9]+\\.[01]");
  const std::string tail = " " + body + " end";
  int lines = 0;
  for (std::string line; std::getline(in, line); ++lines) {
    const size_t cut = line.size() > tail.size() ? line.size() - tail.size() : 0;
    ASSERT_TRUE(line.compare(cut, std::string::npos, tail) == 0 &&
                std::regex_match(line.substr(0, cut), head))
        << "line " << lines << ": " << line.substr(0, 120);
  }
  EXPECT_EQ(lines, kProcesses * 2 * kLines);
}
