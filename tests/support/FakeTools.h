#pragma once

#include <functional>
#include <string>
#include <vector>

namespace hdstest {

// A directory of executable shell scripts named like the CCI tools. Each one records its
// argument vector, prints fixed text on stdout and stderr and exits with a fixed code, unless it
// was given a shell body of its own.
class FakeTools {
 public:
  // dir must exist; the tools are created in it.
  explicit FakeTools(std::string dir);

  const std::string& dir() const { return m_dir; }

  void add(const std::string& name, const std::string& stdoutText, int exitCode = 0,
           const std::string& stderrText = "");
  // A tool that runs body after recording its call ("$@" are its arguments).
  void addScript(const std::string& name, const std::string& body);
  // raidqry printing its help page with this version on the "Ver&Rev:" line.
  void addRaidqry(const std::string& version = "01-29-03/05");

  int calls(const std::string& name) const;
  // One entry per call, each argument in brackets: "[-x][findcmddev][0-255]".
  std::vector<std::string> argv(const std::string& name) const;

 private:
  std::string m_dir;
};

// Runs body in a forked child and expects it to finish without a test failure. Handlers keep
// per-process caches (CCI directory, version, temporary directory), so every scenario that
// constructs a handler starts from a fresh process this way.
void expectInChild(const std::function<void()>& body);

}  // namespace hdstest
