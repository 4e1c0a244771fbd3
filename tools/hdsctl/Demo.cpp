// hdsctl demo: a simulated array in a fresh directory and one snapshot job on it.
#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>

#include "hds/common/HDSConstants.h"
#include "hds/handler/CommandHandler.h"
#include "tools/hdsctl/Job.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

namespace {

// The simulated array: what `ccisim init` is told, and what the job then uses of it.
constexpr const char* kSerial = "412345";
constexpr const char* kUser = "admin";
constexpr const char* kPassword = "admin123";
constexpr const char* kCommandDevice = "/dev/sdc";
constexpr const char* kCommandDeviceLdev = "4095";
constexpr int kFirstPvol = 100;
constexpr const char* kPool = "0";
constexpr const char* kPort = "CL1-A";
// Long enough for a resync to pass through COPY, so that the job really waits for the group.
constexpr const char* kCopyMs = "200";

struct DemoOptions {
  std::string dir;
  int pvols = 16;
};

bool isExecutable(const std::string& path) { return access(path.c_str(), X_OK) == 0; }

std::string findCcisim() {
  const char* env = getenv("CCISIM");
  if (env != nullptr && *env != '\0') {
    if (!isExecutable(env)) throw Failure(std::string("CCISIM names ") + env + ", not a program");
    return env;
  }
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n > 0) {
    self[n] = '\0';
    std::string next = std::string(self).substr(0, std::string(self).rfind('/') + 1) + "ccisim";
    if (isExecutable(next)) return next;
  }
  const char* path = getenv("PATH");
  std::string dirs = path != nullptr ? path : "";
  for (size_t start = 0; start <= dirs.size();) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string candidate = dirs.substr(start, end - start) + "/ccisim";
    if (end > start && isExecutable(candidate)) return candidate;
    start = end + 1;
  }
  throw Failure("ccisim was found neither next to hdsctl nor in PATH; set CCISIM to its path");
}

void makeDir(const std::string& path) {
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    throw Failure("cannot create " + path + ": " + strerror(errno));
  }
}

std::string demoDirectory(const std::string& given) {
  if (!given.empty()) {
    makeDir(given);
    char real[PATH_MAX];
    if (realpath(given.c_str(), real) == nullptr) {
      throw Failure("cannot resolve " + given + ": " + strerror(errno));
    }
    return real;
  }
  const char* tmp = getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/hdsctl-demo.XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) {
    throw Failure("cannot create a directory like " + pattern + ": " + strerror(errno));
  }
  return pattern;
}

// Runs ccisim with these arguments; its output, or a Failure with what it printed.
std::string runCcisim(const std::string& program, const std::vector<std::string>& args) {
  std::vector<std::string> words = {program};
  words.insert(words.end(), args.begin(), args.end());
  ProgramRun run = runProgram(words, 120);
  if (!run.ended || run.exitCode != 0) {
    throw Failure("ccisim " + joinWords(args) + " failed: " + run.err);
  }
  return run.out;
}

void writeFileText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  if (!out.flush()) throw Failure("cannot write " + path);
}

// The HORCM instances the job started in the demo's directory end with the demo; on a real
// host they stay up for the next job of the array.
void stopHorcmInstances(Context& ctx, const std::string& horcmDir) {
  DIR* dir = opendir(horcmDir.c_str());
  if (dir == nullptr) return;
  std::vector<std::string> instances;
  while (dirent* e = readdir(dir)) {
    std::string instance = CommandHandler::horcmFileInstance(e->d_name);
    if (!instance.empty()) instances.push_back(instance);
  }
  closedir(dir);
  if (instances.empty()) return;
  HDSCLIInitParam param;
  param.serialNumber = kSerial;
  CommandHandler handler(ctx.log.snapInfo(), param);
  for (const std::string& instance : instances) {
    if (isDecimal(instance)) handler.horcmShutdown(instance.c_str());
  }
}

int runDemo(Context& ctx, const DemoOptions& o) {
  std::string ccisim = findCcisim();
  std::string dir = demoDirectory(o.dir);
  for (const char* sub : {"/cci", "/horcm", "/lock", "/tmp", "/etc"}) makeDir(dir + sub);
  setenv("HDS_LOCK_DIR", (dir + "/lock").c_str(), 1);
  setenv("HDS_SETTINGS_FILE", (dir + "/etc/settings.conf").c_str(), 1);
  setenv("HDS_TEMP_DIR", (dir + "/tmp").c_str(), 1);
  setenv("HDS_HORCM_DIR", (dir + "/horcm/").c_str(), 1);
  setenv("HDS_CLIENT_NAME", "hdsctl-demo", 1);
  setenv("CCISIM_STATE", (dir + "/ccisim.db").c_str(), 1);

  int lastPvol = kFirstPvol + o.pvols - 1;
  runCcisim(ccisim, {"install", dir + "/cci"});
  runCcisim(ccisim,
            {"init", "--serial", kSerial, "--user", std::string(kUser) + ":" + kPassword,
             "--cmddev", std::string(kCommandDeviceLdev) + ":" + kCommandDevice, "--ldevs",
             std::to_string(kFirstPvol) + "-" + std::to_string(lastPvol), "--copy-ms", kCopyMs});
  // What the array held before the job, to compare with `ccisim dump --json` afterwards.
  writeFileText(dir + "/array-before.json", runCcisim(ccisim, {"dump", "--json"}));
  writeFileText(dir + "/etc/settings.conf", "[iHarbor]\nsVTHDSHorcmDirectory = " + dir + "/cci/\n");
  if (!ctx.log.hasFile()) ctx.log.openFile(dir + "/hdsctl.log");

  JobSpec jobSpec;
  jobSpec.name = "demo";
  jobSpec.array.serial = kSerial;
  jobSpec.array.user = kUser;
  jobSpec.array.password = kPassword;
  jobSpec.array.commandDevices = {kCommandDevice};
  for (int id = kFirstPvol; id <= lastPvol; ++id) jobSpec.pvols.push_back(std::to_string(id));
  jobSpec.pool = kPool;
  jobSpec.port = kPort;
  jobSpec.hostGroup = VT_HDS_PRE_SNAP_HOSTGROUP;
  jobSpec.waitSeconds = 60;

  std::ostream& note = ctx.json ? std::cerr : std::cout;
  note << "demo: simulated array " << kSerial << " with " << o.pvols << " P-VOLs in " << dir
       << "\n";
  int rc = runJob(ctx, jobSpec, {{"directory", dir}, {"log", ctx.log.filePath()}});
  stopHorcmInstances(ctx, dir + "/horcm/");
  note << "demo: the library's log is " << ctx.log.filePath() << "\n";
  note << "demo: look at the array with CCISIM_STATE=" << dir << "/ccisim.db " << ccisim
       << " dump\n";
  return rc;
}

}  // namespace

void addDemoCommand(CLI::App& app, Context& ctx) {
  auto o = std::make_shared<DemoOptions>();
  CLI::App* demo =
      app.add_subcommand("demo", "Run a snapshot job on a simulated array in a fresh directory");
  demo->footer(
      "The array is ccisim's, found next to hdsctl or through $CCISIM. Every location the "
      "library uses (HDS_LOCK_DIR, HDS_SETTINGS_FILE, HDS_TEMP_DIR, HDS_HORCM_DIR, "
      "HDS_CLIENT_NAME, CCISIM_STATE) and the CCI directory point into the demo's directory, "
      "which keeps the log, the settings and array-before.json (the array before the job).");
  demo->add_option("--dir", o->dir, "Use this directory (default: a new one under $TMPDIR)");
  demo->add_option("--pvols", o->pvols, "Number of P-VOLs in the job")->check(CLI::Range(1, 64));
  addJsonFlag(demo, ctx);
  demo->callback([&ctx, o] { ctx.action = [&ctx, o] { return runDemo(ctx, *o); }; });
}

}  // namespace hdsctl
