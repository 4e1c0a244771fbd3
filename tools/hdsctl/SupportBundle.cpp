// hdsctl support-bundle: what a support engineer asks for first, in one archive.
#include <dirent.h>
#include <ftw.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "hds/common/HDSVersion.h"
#include "hds/platform/VTPI_Base.h"
#include "hds/platform/VTPlatformInfo.h"
#include "hds/platform/VtNamedMutex.h"
#include "tools/hdsctl/Commands.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

namespace {

const char* const kMask = "********";
constexpr size_t kLogTailBytes = 1 << 20;

struct BundleOptions {
  std::string file;
  size_t logLines = 2000;
};

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> listDirectory(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool passwordLikeKey(std::string key) {
  for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const char* word : {"pass", "pwd", "secret", "token", "credential"}) {
    if (key.find(word) != std::string::npos) return true;
  }
  return false;
}

// The settings file with the value of every password-like key masked.
std::string maskedSettings(const std::string& text) {
  std::istringstream in(text);
  std::string out;
  for (std::string line; std::getline(in, line);) {
    size_t eq = line.find('=');
    if (eq != std::string::npos && passwordLikeKey(line.substr(0, eq))) {
      line = line.substr(0, eq + 1) + " " + kMask;
    }
    out += line + "\n";
  }
  return out;
}

// What a program printed, for a support engineer to read: the command, its output, its end.
std::string transcript(const std::vector<std::string>& words) {
  ProgramRun run = runProgram(words, 30);
  std::string text = "$ " + joinWords(words) + "\n" + run.out + run.err;
  return run.ended ? text + "(exit " + std::to_string(run.exitCode) + ")\n" : text + "\n";
}

std::string cciDirectory(const ArrayOptions& array) {
  char buf[PATH_MAX] = {};
  std::string dir;
  if (VTPlatformInfo::getString("iHarbor", "sVTHDSHorcmDirectory", buf, sizeof(buf))) dir = buf;
  if (dir.empty()) dir = array.cciDir;
  if (dir.empty()) dir = "/HORCM/usr/bin/";
  if (dir.back() != '/') dir += '/';
  return dir;
}

// The thread id's process, from /proc; "" when there is none.
std::string processOfThread(long tid) {
  std::istringstream in(readText("/proc/" + std::to_string(tid) + "/status"));
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, 5, "Tgid:") == 0) {
      std::string pid = line.substr(5);
      pid.erase(0, pid.find_first_not_of(" \t"));
      return pid;
    }
  }
  return "";
}

std::string lockReport() {
  std::string dir = VtNamedMutex::lockDirectory();
  std::string text = "lock directory " + dir + "\n";
  const std::string prefix = dir + "/";
  for (const std::string& name : listDirectory(dir)) {
    long tid = VtNamedMutex::holderThread(prefix + name);
    text += name;
    text += ": ";
    if (tid < 0) {
      text += "not a lock file\n";
    } else if (tid == 0) {
      text += "free\n";
    } else {
      std::string pid = processOfThread(tid);
      text += pid.empty() ? "held by thread " + std::to_string(tid) +
                                ", which has ended (the next lock takes it over)\n"
                          : "held by pid " + pid + " (thread " + std::to_string(tid) + ")\n";
    }
  }
  return text;
}

// The login count lines of the settings file ("sVTHDSRaidcomLockCount_<serial> = n").
std::string loginCounts(const std::string& settings) {
  std::istringstream in(settings);
  std::string text;
  for (std::string line; std::getline(in, line);) {
    if (line.find("sVTHDSRaidcomLock") != std::string::npos) text += line + "\n";
  }
  return text.empty() ? "no login count is kept on this host\n" : text;
}

std::string logTail(const std::string& path, size_t lines) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return "cannot read " + path + "\n";
  std::streamoff size = in.tellg();
  std::streamoff from = size > static_cast<std::streamoff>(kLogTailBytes)
                            ? size - static_cast<std::streamoff>(kLogTailBytes)
                            : 0;
  in.seekg(from);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (lines == 0) return "";
  size_t start = text.size();
  if (start > 0 && text[start - 1] == '\n') --start;
  for (size_t n = 0; start > 0; --start) {
    if (text[start - 1] == '\n' && ++n == lines) break;
  }
  return text.substr(start);
}

// Removes every occurrence of the secret the operator gave hdsctl, whatever file it reached.
std::string scrubbed(std::string text, const std::string& secret) {
  if (secret.empty()) return text;
  for (size_t at = text.find(secret); at != std::string::npos;
       at = text.find(secret, at + strlen(kMask))) {
    text.replace(at, secret.size(), kMask);
  }
  return text;
}

int removeEntry(const char* path, const struct stat*, int, FTW*) { return remove(path); }

class TempDirectory {
 public:
  TempDirectory() {
    const char* tmp = getenv("TMPDIR");
    m_sPath = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/hdsctl-bundle.XXXXXX";
    if (mkdtemp(&m_sPath[0]) == nullptr) {
      throw Failure("cannot create a directory like " + m_sPath + ": " + strerror(errno));
    }
  }
  ~TempDirectory() { nftw(m_sPath.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS); }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;
  const std::string& path() const { return m_sPath; }

 private:
  std::string m_sPath;
};

std::string absolutePath(const std::string& path) {
  if (!path.empty() && path[0] == '/') return path;
  char cwd[PATH_MAX];
  if (getcwd(cwd, sizeof(cwd)) == nullptr) throw Failure(std::string("getcwd: ") + strerror(errno));
  return std::string(cwd) + "/" + path;
}

std::string utcStamp() {
  time_t now = time(nullptr);
  tm utc{};
  gmtime_r(&now, &utc);
  char stamp[32] = "";
  (void)strftime(stamp, sizeof(stamp), "%Y%m%dT%H%M%SZ", &utc);
  return stamp;
}

int makeBundle(Context& ctx, const BundleOptions& o) {
  std::string archive = absolutePath(o.file);
  TempDirectory temp;
  char host[256] = "host";
  gethostname(host, sizeof(host) - 1);
  std::string name = std::string("hds-support-") + host + "-" + utcStamp();
  std::string root = temp.path() + "/" + name;
  for (const std::string& path : {root, root + "/horcm"}) {
    if (mkdir(path.c_str(), 0700) != 0) {
      throw Failure("cannot create " + path + ": " + strerror(errno));
    }
  }
  const std::string& secret = ctx.array.password;
  std::vector<std::string> written;
  auto put = [&](const std::string& file, const std::string& text) {
    std::ofstream out(root + "/" + file, std::ios::binary);
    out << scrubbed(text, secret);
    if (!out.flush()) throw Failure("cannot write " + root + "/" + file);
    written.push_back(file);
  };

  std::string cci = cciDirectory(ctx.array);
  std::string raidqryVersion = transcript({cci + "raidqry", "-h"});
  utsname uts{};
  uname(&uts);
  put("versions.txt", std::string("hdsctl ") + HDSCTL_VERSION + "\nlibrary " + hdsLibraryVersion() +
                          "\nCCI directory " + cci + "\n" + raidqryVersion + "system " +
                          uts.sysname + " " + uts.release + " " + uts.machine + "\n");

  std::string settingsPath = VTPlatformInfo::settingsFile();
  std::string settings = readText(settingsPath);
  put("settings.conf", "# " + settingsPath + "\n" + maskedSettings(settings));
  put("login-counts.txt", loginCounts(settings));
  put("locks.txt", lockReport());

  std::string horcmDir = VTPI_Base::getHorcmDirectory();
  std::string queries;
  for (const std::string& file : listDirectory(horcmDir)) {
    if (file.size() <= 10 || file.compare(0, 5, "horcm") != 0 ||
        file.compare(file.size() - 5, 5, ".conf") != 0) {
      continue;
    }
    put("horcm/" + file, readText(horcmDir + file));
    std::string instance = file.substr(5, file.size() - 10);
    if (isDecimal(instance)) queries += transcript({cci + "raidqry", "-l", "-I" + instance}) + "\n";
  }
  put("raidqry.txt",
      raidqryVersion + "\n" +
          (queries.empty() ? "no HORCM instance is configured on this host\n" : queries));

  std::string environment;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    size_t eq = entry.find('=');
    std::string key = entry.substr(0, eq);
    if (key.compare(0, 4, "HDS_") != 0 && key.compare(0, 7, "HDSCTL_") != 0 &&
        key.compare(0, 7, "CCISIM_") != 0) {
      continue;
    }
    if (eq != std::string::npos && passwordLikeKey(key)) entry = key + "=" + kMask;
    environment += entry + "\n";
  }
  put("environment.txt", environment);
  if (ctx.log.hasFile()) put("log-tail.txt", logTail(ctx.log.filePath(), o.logLines));

  // Through the shell for its PATH look-up; the paths travel as arguments, never as shell text.
  ProgramRun tar = runProgram(
      {"/bin/sh", "-c", "exec tar -czf \"$0\" -C \"$1\" \"$2\"", archive, temp.path(), name}, 120);
  if (!tar.ended || tar.exitCode != 0) {
    unlink(archive.c_str());
    throw Failure("cannot write " + archive + ": " + tar.err);
  }
  if (ctx.json) {
    printJson(std::cout, {{"bundle", archive}, {"files", written}});
  } else {
    std::cout << archive << ": " << joinWords(written) << "\n";
  }
  return 0;
}

}  // namespace

void addSupportBundleCommand(CLI::App& app, Context& ctx) {
  auto o = std::make_shared<BundleOptions>();
  CLI::App* bundle = app.add_subcommand(
      "support-bundle", "Pack what support asks for first into FILE.tar.gz, passwords masked");
  bundle->footer(
      "The archive holds the HORCM files of this host, the settings (password-like values "
      "masked), raidqry -h and raidqry -l of each HORCM instance, the lock directory (held "
      "locks with their pid), the login counts, the HDS_/HDSCTL_ environment, the versions of "
      "hdsctl, the library and the CCI, and the end of the log given with --log.");
  bundle->add_option("file", o->file, "The archive to write")->required();
  bundle->add_option("--log-lines", o->logLines, "Lines of the log's end to include");
  addArrayOptions(bundle, ctx.array);
  addJsonFlag(bundle, ctx);
  bundle->callback([&ctx, o] { ctx.action = [&ctx, o] { return makeBundle(ctx, *o); }; });
}

}  // namespace hdsctl
