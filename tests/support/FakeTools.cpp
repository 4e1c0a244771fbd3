#include "tests/support/FakeTools.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>

#include "tests/support/Leftovers.h"
#include "tests/support/ProcessHelpers.h"

namespace hdstest {

FakeTools::FakeTools(std::string dir) : m_dir(std::move(dir)) {
  if (m_dir.back() != '/') m_dir += '/';
  mkdir((m_dir + ".fake").c_str(), 0755);
}

void FakeTools::add(const std::string& name, const std::string& stdoutText, int exitCode,
                    const std::string& stderrText) {
  const std::string data = m_dir + ".fake/" + name;
  writeFile(data + ".out", stdoutText);
  writeFile(data + ".err", stderrText);
  writeFile(m_dir + name,
            "#!/bin/sh\n{ for a in \"$@\"; do printf '[%s]' \"$a\"; done; echo; } >> '" + data +
                ".calls'\ncat '" + data + ".out'\ncat '" + data + ".err' >&2\nexit " +
                std::to_string(exitCode) + "\n",
            0755);
}

void FakeTools::addRaidqry(const std::string& version) {
  add("raidqry", "Model  : RAID-Manager/Linux/x64\nVer&Rev: " + version +
                     "\nUsage  : raidqry [options] for HORC[200]\n -h     Help/Usage\n");
}

std::vector<std::string> FakeTools::argv(const std::string& name) const {
  std::vector<std::string> calls;
  std::ifstream in(m_dir + ".fake/" + name + ".calls");
  for (std::string line; std::getline(in, line);) calls.push_back(line);
  return calls;
}

std::vector<std::string> HandlerEnv::tempFiles(const std::string& suffix) const {
  std::vector<std::string> paths;
  for (const std::string& name : filesIn(env.tempDir())) {
    if (name.size() > suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
      paths.push_back(env.tempDir() + "/" + name);
    }
  }
  return paths;
}

void expectInChild(const std::function<void()>& body) {
  const pid_t pid = forkChild([&body] {
    body();
    std::fflush(nullptr);
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  ASSERT_GT(pid, 0) << "fork failed";
  EXPECT_EQ(waitChild(pid), 0) << "the child process reported failures (see above)";
}

}  // namespace hdstest
