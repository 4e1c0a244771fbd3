#include "tests/support/TestEnv.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "hds/platform/CZoFile.h"

namespace hdstest {

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
  remove(path);
  return 0;
}

void makeDir(const std::string& path) {
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
    throw std::runtime_error("cannot create " + path);
}

}  // namespace

TestEnv::TestEnv() {
  std::string base =
      getenv("TMPDIR") != nullptr && *getenv("TMPDIR") != '\0' ? getenv("TMPDIR") : "/tmp";
  std::string tmpl = base + "/hdstest.XXXXXX";
  if (mkdtemp(&tmpl[0]) == nullptr) throw std::runtime_error("mkdtemp failed in " + base);
  m_root = tmpl;
  chmod(m_root.c_str(), 0755);
  for (const char* sub : {"/lock", "/etc", "/tmp", "/horcm", "/cci"}) makeDir(m_root + sub);
  setEnv("HDS_LOCK_DIR", lockDir().c_str());
  setEnv("HDS_SETTINGS_FILE", settingsFile().c_str());
  setEnv("HDS_TEMP_DIR", tempDir().c_str());
  setEnv("HDS_HORCM_DIR", horcmDir().c_str());
  setEnv("HDS_CLIENT_NAME", "testclient");
  setEnv("CCISIM_STATE", simState().c_str());
}

TestEnv::~TestEnv() {
  for (const auto& [name, saved] : m_saved) {
    if (saved.first)
      setenv(name.c_str(), saved.second.c_str(), 1);
    else
      unsetenv(name.c_str());
  }
  if (!m_root.empty()) nftw(m_root.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

void TestEnv::writeSettings(const std::string& iniText) const {
  writeFile(settingsFile(), iniText);
}

void TestEnv::setEnv(const std::string& name, const char* value) {
  if (m_saved.find(name) == m_saved.end()) {
    const char* old = getenv(name.c_str());
    m_saved[name] = {old != nullptr, old != nullptr ? old : ""};
  }
  if (value != nullptr)
    setenv(name.c_str(), value, 1);
  else
    unsetenv(name.c_str());
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void writeFile(const std::string& path, const std::string& content, int mode) {
  // Through CZoFile, so that a tool written here is never busy when another thread spawns it.
  unlink(path.c_str());
  CZoFile file;
  CZoError err = file.Open(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
  if (!err.IsError()) err = file.Write(content.data(), content.size());
  file.Close();
  if (err.IsError()) throw std::runtime_error("cannot write " + path + ": " + err.AsString());
  chmod(path.c_str(), static_cast<mode_t>(mode));
}

bool pathExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

}  // namespace hdstest
