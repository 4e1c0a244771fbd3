// Running commands and scripts through a ready handler, and the files that go with them.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <thread>

#include "hds/platform/ZoSleep.h"
#include "tests/support/HandlerProbe.h"

namespace {

using hdstest::expectInChild;
using hdstest::HandlerEnv;
using hdstest::pathExists;
using hdstest::readFile;

std::vector<std::string> filesEndingIn(const std::string& dir, const std::string& suffix) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.size() >= suffix.size() &&
          name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        names.push_back(dir + "/" + name);
      }
    }
    closedir(d);
  }
  return names;
}

struct NameParts {
  long long pid = 0, tid = 0, time = 0, index = 0;
};

NameParts parseName(const std::string& path, const std::string& suffix) {
  NameParts p;
  const std::string base = path.substr(path.rfind('/') + 1);
  std::sscanf(base.c_str(), "%lld_%lld_%lld_%lld_", &p.pid, &p.tid, &p.time, &p.index);
  EXPECT_EQ(base.substr(base.size() - suffix.size()), suffix);
  return p;
}

class HandlerExec : public ::testing::Test {
 protected:
  HandlerEnv h;
};

TEST_F(HandlerExec, CommandOutcomes) {
  h.tools.add("quiet", "no such ldev\n", 227);
  h.tools.add("loud", "broken\n", 5, "detail\n");
  h.tools.add("fine", "all good\n");
  expectInChild([&] {
    auto handler = h.handler();
    std::string output;
    int exitCode = -1;

    EXPECT_EQ(handler->executeCommand("fine", "-x", output, exitCode), 0);
    EXPECT_EQ(output, "all good\n");
    EXPECT_EQ(exitCode, 0);

    // 227 and 1 are expected answers: logged quietly but still failures.
    EXPECT_EQ(handler->executeCommand("quiet", " -ldev_id 1", output, exitCode), 1);
    const std::string quiet = h.env.cciDir() + "quiet  -ldev_id 1";
    EXPECT_EQ(exitCode, 227);
    EXPECT_EQ(output, "no such ldev\n");
    EXPECT_EQ(handler->errorCode(), 62601);
    EXPECT_EQ(handler->errorText(), "Command '" + quiet + " returned exit code [227].");
    EXPECT_TRUE(h.log.contains(
        "Command [" + quiet + "] returned exitCode [227]. Output [no such ldev\n]", 0));

    EXPECT_EQ(handler->executeCommand("loud", "", output, exitCode), 1);
    EXPECT_EQ(output, "broken\ndetail\n");
    EXPECT_TRUE(h.log.contains("returned exitCode [5]", 2));

    // A clean run clears what the previous failure left.
    EXPECT_EQ(handler->executeCommand("fine", "", output, exitCode), 0);
    EXPECT_EQ(handler->errorCode(), 0);
    EXPECT_EQ(handler->errorText(), "");

    EXPECT_EQ(handler->executeCommand("absent", "", output, exitCode), 1);
    EXPECT_EQ(exitCode, 127);
  });
}

TEST_F(HandlerExec, QuotedArgumentsReachTheToolLiterally) {
  h.tools.add("echoargs", "");
  expectInChild([&] {
    auto handler = h.handler();
    std::string output;
    int exitCode = -1;
    const std::string marker = h.env.root() + "/injected";
    EXPECT_EQ(handler->executeCommand("echoargs", "'it'\\''s;touch " + marker + "' \"a;b\" plain",
                                      output, exitCode),
              0);
    EXPECT_FALSE(pathExists(marker));
  });
  EXPECT_EQ(h.tools.argv("echoargs"),
            std::vector<std::string>{"[it's;touch " + h.env.root() + "/injected][a;b][plain]"});
}

TEST_F(HandlerExec, ScriptNamesCountWithinOneSecond) {
  expectInChild([&] {
    auto handler = h.handler();
    // Retry when a second boundary falls between the three names.
    for (int attempt = 0; attempt < 5; ++attempt) {
      const NameParts a = parseName(handler->formInputScriptFileName(), "_script");
      const NameParts b = parseName(handler->formInputScriptFileName(), "_script");
      const NameParts c = parseName(handler->formInputScriptFileName(), "_script");
      if (a.time != c.time) continue;
      EXPECT_EQ(a.pid, getpid());
      EXPECT_EQ(a.tid, a.pid);  // the main thread of the child
      EXPECT_EQ(b.index, a.index + 1);
      EXPECT_EQ(c.index, a.index + 2);
      // The next second starts again at 1.
      while (time(nullptr) == c.time) usleep(10000);
      EXPECT_EQ(parseName(handler->formInputScriptFileName(), "_script").index, 1);
      break;
    }
    // Response names count on their own and say where they go.
    const std::string resp = handler->formOutputFileName();
    EXPECT_EQ(resp.rfind(h.env.tempDir() + "/", 0), 0u);
    EXPECT_EQ(parseName(resp, "_resp.log").index, 1);
    EXPECT_TRUE(h.log.contains("Going to use output file [" + resp + "].", 0));
  });
}

TEST_F(HandlerExec, ThreadsGetDistinctNames) {
  expectInChild([&] {
    auto handler = h.handler();
    std::vector<std::vector<std::string>> names(4);
    std::vector<std::thread> threads;
    for (auto& list : names) {
      threads.emplace_back([&] {
        for (int i = 0; i < 20; ++i) list.push_back(handler->formInputScriptFileName());
      });
    }
    for (auto& t : threads) t.join();
    std::set<std::string> all;
    for (auto& list : names) all.insert(list.begin(), list.end());
    EXPECT_EQ(all.size(), 80u);
  });
}

TEST_F(HandlerExec, ScriptIsRemovedAfterSuccessAndKeptAfterFailure) {
  expectInChild([&] {
    auto handler = h.handler();
    std::string output;
    int exitCode = -1;
    const std::string tmp = h.env.tempDir();

    ASSERT_EQ(handler->executeScriptFile("#!/bin/sh\necho one\necho two\n", output, exitCode), 0);
    EXPECT_EQ(output, "one\ntwo\n");
    EXPECT_TRUE(filesEndingIn(tmp, "_script").empty());

    const std::string failing =
        "#!/bin/sh\necho a\necho b\necho 'raidcom: [EX_ENOOBJ] No such Object'\n";
    EXPECT_EQ(handler->executeScriptFile(failing, output, exitCode), 1);
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(handler->errorCode(), 62601);
    EXPECT_EQ(handler->errorText(), "Failed to execute CCI command.");
    auto kept = filesEndingIn(tmp, "_script");
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(readFile(kept[0]), failing);
    EXPECT_TRUE(h.log.contains("Script [" + kept[0] + "] output has error [", 2));

    EXPECT_EQ(handler->executeScriptFile("#!/bin/sh\nexit 9\n", output, exitCode), 1);
    EXPECT_EQ(exitCode, 9);
    EXPECT_EQ(handler->errorText(), "Failed to execute CCI command.");
    EXPECT_EQ(filesEndingIn(tmp, "_script").size(), 2u);

    // Nothing to run: no file, and the error state is left alone.
    handler->setErrorCodeAndString(7, "before");
    EXPECT_EQ(handler->executeScriptFile("", output, exitCode), 1);
    EXPECT_EQ(handler->errorCode(), 7);
    EXPECT_TRUE(h.log.contains("Scriptcontent is empty. Nothing to execute", 2));
    EXPECT_EQ(filesEndingIn(tmp, "_script").size(), 2u);
  });
}

TEST_F(HandlerExec, KeptOutputKeepsSuccessfulScripts) {
  h.settings("[~iHarbor]\nnVTHDSKeepCmdOutput=1\n");
  expectInChild([&] {
    auto handler = h.handler();
    std::string output;
    int exitCode = -1;
    ASSERT_EQ(handler->executeScriptFile("#!/bin/sh\necho kept\n", output, exitCode), 0);
    EXPECT_EQ(filesEndingIn(h.env.tempDir(), "_script").size(), 1u);
  });
}

TEST_F(HandlerExec, ConcurrentScriptsRunTheirOwnContent) {
  expectInChild([&] {
    auto handler = h.handler();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 5; ++i) {
          std::string output;
          int exitCode = -1;
          const std::string word = std::to_string(t) + "-" + std::to_string(i);
          EXPECT_EQ(handler->executeScriptFile("#!/bin/sh\necho " + word + "\n", output, exitCode),
                    0);
          EXPECT_EQ(output, word + "\n");
        }
      });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(h.log.count("Text file busy"), 0u);
  });
}

TEST_F(HandlerExec, PlantedSymlinksAreNotFollowed) {
  const std::string victim = h.env.root() + "/victim";
  hdstest::writeFile(victim, "precious\n");
  expectInChild([&] {
    ZoSetTimeScale(0.001);
    auto handler = h.handler();
    // Plant links at every name the next script and response file can get.
    const NameParts last = parseName(handler->formInputScriptFileName(), "_script");
    const NameParts lastResp = parseName(handler->formOutputFileName(), "_resp.log");
    for (long long t = last.time; t < last.time + 3; ++t) {
      for (long long i = 1; i <= last.index + 1; ++i) {
        const std::string stem = h.env.tempDir() + "/" + std::to_string(last.pid) + "_" +
                                 std::to_string(last.tid) + "_" + std::to_string(t) + "_" +
                                 std::to_string(i);
        symlink(victim.c_str(), (stem + "_script").c_str());
        if (i <= lastResp.index + 1) symlink(victim.c_str(), (stem + "_resp.log").c_str());
      }
    }

    std::string output;
    int exitCode = -1;
    EXPECT_EQ(handler->executeScriptFile("#!/bin/sh\necho owned > /dev/null\n", output, exitCode),
              1);
    EXPECT_EQ(handler->errorCode(), 62601);
    EXPECT_EQ(handler->errorText().rfind("Failed to create script file [", 0), 0u);
    EXPECT_EQ(h.log.count("Will retry after 5secs."), 4u);
    EXPECT_TRUE(h.log.contains("symbolic links")) << h.log.dump();

    const std::string source = h.env.root() + "/horcm3300.conf";
    hdstest::writeFile(source, "HORCM_MON\n");
    EXPECT_NE(handler->saveFileAsLog(source), 0);
    EXPECT_EQ(handler->errorText().rfind("Unable to open file ", 0), 0u);
  });
  EXPECT_EQ(readFile(victim), "precious\n");
}

TEST_F(HandlerExec, RaidcomErrorDetection) {
  expectInChild([&] {
    auto handler = h.handler();
    std::string part = "unchanged";
    EXPECT_FALSE(handler->didTheCommandFail("Serial#  LDEV#\n412345 1\n", part));
    EXPECT_EQ(part, "unchanged");

    const std::string both =
        "x\nraidcom: [EX_CMDRJE] An order to the control/command device was rejected\n"
        "raidcom: [EW_INCOMP] Not completed\ntail\n";
    EXPECT_TRUE(handler->didTheCommandFail(both, part));
    EXPECT_EQ(part, "raidcom: [EW_INCOMP] Not completed\ntail\n");

    EXPECT_TRUE(handler->didTheCommandFail("a\nraidcom: [EX_ENOOBJ] No such Object\nrest", part));
    EXPECT_EQ(part, "raidcom: [EX_ENOOBJ] No such Object\nrest");
  });
}

TEST_F(HandlerExec, DeletingCommandFiles) {
  expectInChild([&] {
    auto handler = h.handler();
    const std::string file = h.env.tempDir() + "/some_script";
    hdstest::writeFile(file, "x");
    EXPECT_EQ(handler->deleteCommandFiles(file), 0);
    EXPECT_FALSE(pathExists(file));

    // A file already gone counts as a failure to change its permission.
    EXPECT_EQ(handler->deleteCommandFiles(file), 1);
    EXPECT_TRUE(h.log.contains("Failed to change permission to delete file [" + file + "].", 2));

    EXPECT_EQ(handler->deleteCommandFiles(""), 0);

    // Not removable for another reason (here: it is a non-empty directory): passed over.
    const std::string dir = h.env.tempDir() + "/dir_script";
    mkdir(dir.c_str(), 0700);
    hdstest::writeFile(dir + "/inner", "");
    EXPECT_EQ(handler->deleteCommandFiles(dir), 0);
    EXPECT_TRUE(pathExists(dir));
  });
  h.settings("[~iHarbor]\nnVTHDSKeepCmdOutput=1\n");
  expectInChild([&] {
    const std::string file = h.env.tempDir() + "/kept_script";
    hdstest::writeFile(file, "x");
    EXPECT_EQ(h.handler()->deleteCommandFiles(file), 0);
    EXPECT_TRUE(pathExists(file));
  });
}

TEST_F(HandlerExec, SavingAFileAsLog) {
  expectInChild([&] {
    auto handler = h.handler();
    const std::string source = h.env.root() + "/horcm3300.conf";
    hdstest::writeFile(source, "HORCM_MON\nhost 3300 1000 3000\n");
    ASSERT_EQ(handler->saveFileAsLog(source), 0);
    auto copies = filesEndingIn(h.env.tempDir(), "_resp.log");
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(readFile(copies[0]), "HORCM_MON\nhost 3300 1000 3000\n");
    EXPECT_TRUE(h.log.contains("Saved file [" + source + "] as [" + copies[0] + "]", 1));

    hdstest::writeFile(source, "");
    EXPECT_EQ(handler->saveFileAsLog(source), 0);
    EXPECT_EQ(filesEndingIn(h.env.tempDir(), "_resp.log").size(), 1u);

    EXPECT_NE(handler->saveFileAsLog(h.env.root() + "/none.conf"), 0);
    EXPECT_EQ(handler->errorText().rfind("Failed to read file", 0), 0u);
    EXPECT_EQ(handler->saveFileAsLog(""), 0);
  });
}

}  // namespace
