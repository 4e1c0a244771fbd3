#pragma once

#include <map>
#include <string>

namespace hdstest {

// A fresh temporary root for one test, with every HDS_* location pointed into it:
//   HDS_LOCK_DIR=<root>/lock  HDS_SETTINGS_FILE=<root>/etc/settings.conf  HDS_TEMP_DIR=<root>/tmp
//   HDS_HORCM_DIR=<root>/horcm/  HDS_CLIENT_NAME=testclient  CCISIM_STATE=<root>/ccisim.db
// The directories exist (settings file does not until written). The destructor restores the
// previous environment and removes the root. Nothing is ever written to /etc, /run/lock or
// /var/tmp. Tests that change process-wide caches (class-wide handler members) must run in a
// child process or their own test binary.
class TestEnv {
 public:
  TestEnv();
  ~TestEnv();
  TestEnv(const TestEnv&) = delete;
  TestEnv& operator=(const TestEnv&) = delete;

  const std::string& root() const { return m_root; }
  std::string lockDir() const { return m_root + "/lock"; }
  std::string settingsFile() const { return m_root + "/etc/settings.conf"; }
  std::string tempDir() const { return m_root + "/tmp"; }
  std::string horcmDir() const { return m_root + "/horcm/"; }
  std::string cciDir() const { return m_root + "/cci/"; }  // exists, empty
  std::string simState() const { return m_root + "/ccisim.db"; }

  // Replaces the settings file with this INI text.
  void writeSettings(const std::string& iniText) const;
  // Sets (or, with nullptr, unsets) an environment variable until destruction.
  void setEnv(const std::string& name, const char* value);

 private:
  std::string m_root;
  std::map<std::string, std::pair<bool, std::string>> m_saved;  // name -> (was set, old value)
};

// Small file helpers for tests.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content, int mode = 0644);
bool pathExists(const std::string& path);

}  // namespace hdstest
