#include "tests/support/FakeTools.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "tests/support/ProcessHelpers.h"
#include "tests/support/TestEnv.h"

namespace hdstest {

namespace {

std::string quoteForShell(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace

FakeTools::FakeTools(std::string dir) : m_dir(std::move(dir)) {
  if (!m_dir.empty() && m_dir.back() != '/') m_dir += '/';
  mkdir((m_dir + ".fake").c_str(), 0755);
}

void FakeTools::addScript(const std::string& name, const std::string& body) {
  const std::string log = m_dir + ".fake/" + name + ".calls";
  std::string script = "#!/bin/sh\n{ for a in \"$@\"; do printf '[%s]' \"$a\"; done; echo; } >> " +
                       quoteForShell(log) + "\n" + body + "\n";
  writeFile(m_dir + name, script, 0755);
}

void FakeTools::add(const std::string& name, const std::string& stdoutText, int exitCode,
                    const std::string& stderrText) {
  const std::string out = m_dir + ".fake/" + name + ".out";
  const std::string err = m_dir + ".fake/" + name + ".err";
  writeFile(out, stdoutText);
  writeFile(err, stderrText);
  addScript(name, "cat " + quoteForShell(out) + "\ncat " + quoteForShell(err) + " >&2\nexit " +
                      std::to_string(exitCode));
}

void FakeTools::addRaidqry(const std::string& version) {
  add("raidqry",
      "Model  : RAID-Manager/Linux/x64\n"
      "Ver&Rev: " +
          version +
          "\n"
          "Usage  : raidqry [options] for HORC[200]\n"
          " -h     Help/Usage\n"
          " -l            Specify the local query\n");
}

std::vector<std::string> FakeTools::argv(const std::string& name) const {
  std::vector<std::string> calls;
  std::ifstream in(m_dir + ".fake/" + name + ".calls");
  for (std::string line; std::getline(in, line);) calls.push_back(line);
  return calls;
}

int FakeTools::calls(const std::string& name) const { return static_cast<int>(argv(name).size()); }

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
