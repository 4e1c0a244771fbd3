#include "hds/platform/VTPI_Base.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <set>

#include "hds/platform/internal/PlatformInternal.h"

namespace {

std::string tempDirectoryPath() {
  std::string path = hds::platform::envOr("HDS_TEMP_DIR", "/var/tmp/hds");
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// A relative path (a blank one among them) would put scripts wherever the process was started.
const char* const kNotAbsolute = "is not an absolute path";

}  // namespace

const char* VTPI_Base::getOrreryTempDirectory() {
  // Callers keep the pointer for the life of the process, while the directory may be redirected
  // between calls: every path handed out stays interned.
  static std::mutex oMutex;
  static std::set<std::string>* pPaths = new std::set<std::string>;
  std::string path = tempDirectoryPath();
  if (path[0] != '/') return nullptr;
  if (hds::platform::ensurePrivateDirectory(path, 0700) != 0) return nullptr;
  std::lock_guard<std::mutex> guard(oMutex);
  return pPaths->insert(path).first->c_str();
}

std::string VTPI_Base::getHorcmDirectory() {
  std::string dir = hds::platform::envOr("HDS_HORCM_DIR", "/etc/");
  if (dir.back() != '/') dir += '/';
  return dir;
}

std::string VTPI_Base::tempDirectoryProblem() {
  const std::string path = tempDirectoryPath();
  if (path[0] != '/') return "Temporary directory [" + path + "] " + kNotAbsolute;
  if (int err = hds::platform::ensurePrivateDirectory(path, 0700); err != 0) {
    return "Temporary directory [" + path + "] cannot be used: " + hds::platform::errnoText(err);
  }
  std::string problem = directoryProblem(path);
  return problem.empty() ? problem : "Temporary directory [" + path + "] " + problem;
}

std::string VTPI_Base::directoryProblem(const std::string& dir) {
  if (dir.empty() || dir[0] != '/') return kNotAbsolute;
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) return "cannot be used: " + hds::platform::errnoText(errno);
  if (!S_ISDIR(st.st_mode)) return "cannot be used: " + hds::platform::errnoText(ENOTDIR);
  std::string probe = dir + (dir.back() == '/' ? "" : "/") + ".hds-probe.XXXXXX";
  int fd = mkostemp(&probe[0], O_CLOEXEC);
  if (fd < 0) return "cannot take new files: " + hds::platform::errnoText(errno);
  // A file can often still be made on a full file system; its first block cannot.
  const char block[512] = {};
  const ssize_t written = write(fd, block, sizeof(block));
  int err = written == static_cast<ssize_t>(sizeof(block)) ? 0 : (written < 0 ? errno : ENOSPC);
  if (err == 0 && fsync(fd) != 0) err = errno;
  close(fd);
  unlink(probe.c_str());
  struct statvfs fs;
  if (err == 0 && statvfs(dir.c_str(), &fs) == 0 && fs.f_bavail == 0) err = ENOSPC;
  if (err != 0) return "cannot take new files: " + hds::platform::errnoText(err);
  return std::string();
}
