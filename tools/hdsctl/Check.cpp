// hdsctl check: is this host ready to drive an array through the library.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <set>

#include "hds/common/HDSConstants.h"
#include "hds/handler/CommandHandler.h"
#include "hds/helper/CommandHelper.h"
#include "hds/platform/VTPI_Base.h"
#include "hds/platform/VTPlatformInfo.h"
#include "hds/platform/VtNamedMutex.h"
#include "hds/raidcom/LoginCount.h"
#include "hds/raidcom/RaidcomCommandHandler.h"
#include "tools/hdsctl/Commands.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

namespace {

// The programs the handlers run, by the names the CCI installs them under.
const char* const kCciTools[] = {"raidcom",          "raidqry",     "raidscan",    "horcmstart.sh",
                                 "horcmshutdown.sh", "paircreate",  "pairsplit",   "pairresync",
                                 "pairdisplay",      "pairevtwait", "pairsyncwait"};

struct CheckLine {
  std::string name, result, detail;
};

class Report {
 public:
  void ok(const std::string& name, const std::string& detail) { add(name, "ok", detail); }
  void warn(const std::string& name, const std::string& detail) { add(name, "warn", detail); }
  void fail(const std::string& name, const std::string& detail) { add(name, "FAIL", detail); }
  void skip(const std::string& name, const std::string& detail) { add(name, "skip", detail); }

  int failures() const {
    int n = 0;
    for (const CheckLine& l : m_oLines) n += l.result == "FAIL";
    return n;
  }
  const std::vector<CheckLine>& lines() const { return m_oLines; }

 private:
  void add(const std::string& name, const char* result, const std::string& detail) {
    m_oLines.push_back({name, result, detail});
  }
  std::vector<CheckLine> m_oLines;
};

bool isDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string withSlash(std::string dir) {
  if (dir.empty() || dir.back() != '/') dir += '/';
  return dir;
}

void checkCci(Report& report, LogSink& log, const ArrayOptions& array) {
  // The array-level setting is what --cci-dir gave (see applyCciDirOption).
  std::string dir = CommandHandler::cciDirectory(log.snapInfo());
  if (!isDirectory(dir)) {
    report.fail("CCI directory", dir +
                                     " does not exist (install the CCI there, or point "
                                     "--cci-dir or the setting sVTHDSHorcmDirectory at it)");
    report.fail("CCI tools",
                "missing: " + joinWords({std::begin(kCciTools), std::end(kCciTools)}, ", "));
    report.skip("CCI version", "needs the CCI tools");
    report.skip("command device", "needs the CCI tools");
    return;
  }
  report.ok("CCI directory", withSlash(dir));

  std::vector<std::string> missing;
  for (const char* tool : kCciTools) {
    if (access((withSlash(dir) + tool).c_str(), X_OK) != 0) missing.push_back(tool);
  }
  if (missing.empty()) {
    report.ok("CCI tools", "all " + std::to_string(std::size(kCciTools)) + " present");
  } else {
    report.fail("CCI tools", "missing in " + withSlash(dir) + ": " + joinWords(missing, ", "));
  }
  if (std::find(missing.begin(), missing.end(), "raidqry") != missing.end()) {
    report.skip("CCI version", "needs raidqry");
    report.skip("command device", "needs raidqry and raidscan");
    return;
  }

  // Initialising a handler is what finds the CCI version (raidqry -h), the host name and the
  // temporary directory; a later initialize() answers whether that worked.
  HDSCLIInitParam param;
  param.serialNumber = array.serial;
  CommandHandler handler(log.snapInfo(), param);
  if (handler.initialize() != 0) {
    int code = 0;
    std::string text;
    handler.getErrorCodeAndString(code, text);
    report.fail("CCI version",
                text.empty() ? "the handler could not be initialised (see --log)" : text);
    report.skip("command device", "needs a working CCI");
    return;
  }
  std::string version;
  handler.getCCIVersionInstalled(version);
  report.ok("CCI version", version + (handler.isHTISupported()
                                          ? " (newer in-system copy commands supported)"
                                          : " (older than 01-29-03/05: older copy commands)"));

  if (array.serial.empty()) {
    report.skip("command device", "give --serial to look for the array's command device");
  } else if (std::find(missing.begin(), missing.end(), "raidscan") != missing.end()) {
    report.skip("command device", "needs raidscan");
  } else if (handler.CheckIfCommandDeviceExist() == 0) {
    report.ok("command device", "a command device of array " + array.serial + " is visible");
  } else {
    int code = 0;
    std::string text;
    handler.getErrorCodeAndString(code, text);
    report.fail("command device", text);
  }
}

void checkDirectories(Report& report) {
  std::string horcm = VTPI_Base::getHorcmDirectory();
  if (!isDirectory(horcm)) {
    report.fail("HORCM directory", horcm + " does not exist (set HDS_HORCM_DIR to use another)");
  } else if (std::string error = VTPI_Base::directoryProblem(horcm); !error.empty()) {
    report.fail("HORCM directory", horcm + " " + error);
  } else {
    report.ok("HORCM directory", horcm + " (writable)");
  }

  const char* temp = VTPI_Base::getOrreryTempDirectory();
  if (std::string error = VTPI_Base::tempDirectoryProblem(); !error.empty()) {
    report.fail("temporary directory", error + " (HDS_TEMP_DIR)");
  } else {
    report.ok("temporary directory", std::string(temp) + " (writable)");
  }
}

void checkSettings(Report& report) {
  std::string path = VTPlatformInfo::settingsFile();
  struct stat st;
  std::string problem;
  if (!VTPlatformInfo::checkSettingsFile(problem)) {
    report.fail("settings file", problem);
  } else if (stat(path.c_str(), &st) != 0) {
    report.ok("settings file", path + " absent: every setting at its default");
  } else {
    report.ok("settings file", path + " (readable)");
  }
  // Login counts are written next to the file; the nearest existing directory must take them.
  std::string dir = path.substr(0, path.rfind('/') + 1);
  while (dir.size() > 1 && !isDirectory(dir)) {
    dir.pop_back();
    dir = dir.substr(0, dir.rfind('/') + 1);
  }
  if (access(dir.c_str(), W_OK) != 0) {
    report.fail("settings directory",
                dir + " is not writable: the login count of an array cannot be kept");
  } else {
    report.ok("settings directory", dir + " (writable)");
  }
}

void checkLocks(Report& report) {
  VtNamedMutex mutex("HDSCTL_CHECK_LOCK");
  if (!mutex.isValid()) {
    report.fail("lock directory", VtNamedMutex::lockDirectory() + ": " + mutex.lastError());
  } else if (!mutex.lock(2000)) {
    report.fail("lock directory",
                "a test lock in " + VtNamedMutex::lockDirectory() + " was not granted in 2 s");
  } else {
    mutex.unlock();
    report.ok("lock directory", VtNamedMutex::lockDirectory() + " (named locks work)");
  }
}

void checkLoginCount(Report& report, const std::string& serial) {
  if (serial.empty()) {
    report.skip("login count", "give --serial to check the array's session count");
    return;
  }
  std::string key = loginCountKey(serial);
  int count = 0;
  int voided = -1;
  if (!readLoginCount(serial, count, &voided)) {
    report.ok("login count", "no session of array " + serial + " counted on this host");
  } else if (voided >= 0) {
    report.ok("login count", std::to_string(voided) + " session(s) of array " + serial +
                                 " counted before the host last started: void, the next "
                                 "session starts afresh");
  } else if (count < 0) {
    report.fail("login count",
                key + " is " + std::to_string(count) + ": negative; set it to 0 while no job runs");
  } else if (count == 0) {
    report.ok("login count", "no session of array " + serial + " open");
  } else {
    report.warn("login count",
                std::to_string(count) +
                    " session(s) counted: jobs are running, or a process ended without logging "
                    "out (the next login that finds its session expired sets the count right)");
  }
}

// The raidcom handler's HORCM files whose arrays have no session on this host. They outlive
// their sessions on purpose (the next session reuses them), but every one holds an instance
// number, and arrays that were tried once and never again can use up all of them.
void checkHorcmFiles(Report& report, LogSink& log, bool prune) {
  // Under the login lock no handler is choosing, starting or counting meanwhile.
  VTHDSLock loginLock(log.snapInfo());
  if (!loginLock.lock(VT_HDS_RAIDCOM_LOGIN_LOCK, 1)) {
    report.warn("HORCM files", "the login lock is held: sessions are being opened or closed");
    return;
  }
  std::vector<std::string> unused;
  std::vector<int> instances;
  for (int n = VT_HDS_RAIDCOM_HORCM_INST_START; n >= VT_HDS_RAIDCOM_HORCM_INST_END; --n) {
    std::set<std::string> serials;
    if (!RaidcomCommandHandler::horcmFileSerials(n, serials)) continue;
    bool live = false;
    for (const std::string& serial : serials) {
      int count = 0;
      live = live || (readLoginCount(serial, count, nullptr) && count > 0);
    }
    if (live) continue;
    unused.push_back("horcm" + std::to_string(n) + ".conf (array " +
                     joinWords({serials.begin(), serials.end()}, ", ") + ")");
    instances.push_back(n);
  }
  if (unused.empty()) {
    report.ok("HORCM files", "none of an array without a session");
  } else if (!prune) {
    report.warn("HORCM files", std::to_string(unused.size()) + " of arrays without a session: " +
                                   joinWords(unused, ", ") + " (--prune removes them)");
  } else {
    // The instance of a file goes with it; one that is not running is fine as it is.
    HDSCLIInitParam param;
    CommandHandler handler(log.snapInfo(), param);
    for (int n : instances) {
      const std::string instance = std::to_string(n);
      handler.horcmShutdown(instance.c_str());
      unlink(CommandHandler::horcmFilePath(instance).c_str());
    }
    report.ok("HORCM files", "removed " + joinWords(unused, ", "));
  }
}

int runCheck(Context& ctx, bool prune) {
  applyCciDirOption(ctx.log, ctx.array);
  Report report;
  checkCci(report, ctx.log, ctx.array);
  checkDirectories(report);
  checkSettings(report);
  checkLocks(report);
  checkLoginCount(report, ctx.array.serial);
  checkHorcmFiles(report, ctx.log, prune);

  int failed = report.failures();
  if (ctx.json) {
    nlohmann::json checks = nlohmann::json::array();
    for (const CheckLine& l : report.lines()) {
      checks.push_back({{"check", l.name}, {"result", l.result}, {"detail", l.detail}});
    }
    printJson(std::cout, {{"ready", failed == 0}, {"checks", checks}});
  } else {
    Table table({"CHECK", "RESULT", "DETAIL"});
    for (const CheckLine& l : report.lines()) table.addRow({l.name, l.result, l.detail});
    table.print(std::cout);
    if (failed == 0) {
      std::cout << "this host is ready\n";
    } else {
      std::cout << "this host is not ready: " << failed << " check(s) failed\n";
    }
  }
  return failed == 0 ? 0 : kExitFailed;
}

}  // namespace

void addCheckCommand(CLI::App& app, Context& ctx) {
  CLI::App* check = app.add_subcommand(
      "check",
      "Is this host ready (CCI, command device, directories, settings, locks, login count)");
  addArrayOptions(check, ctx.array);
  addJsonFlag(check, ctx);
  auto prune = std::make_shared<bool>(false);
  check->add_flag("--prune", *prune,
                  "Remove the HORCM files (and stop the instances) of arrays without a session");
  check->callback([&ctx, prune] { ctx.action = [&ctx, prune] { return runCheck(ctx, *prune); }; });
}

}  // namespace hdsctl
