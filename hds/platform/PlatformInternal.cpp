#include "hds/platform/internal/PlatformInternal.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <shared_mutex>

namespace hds::platform {

std::string envOr(const char* name, const char* dflt) {
  const char* value = getenv(name);
  if (value == nullptr || *value == '\0') return dflt;
  return value;
}

std::string errnoText(int err) {
  char buf[256];
  // The GNU strerror_r returns the text, which need not be in buf.
  const char* text = strerror_r(err, buf, sizeof(buf));
  return text != nullptr ? std::string(text) : std::string("errno ") + std::to_string(err);
}

namespace {

int checkDirectory(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return errno;
  if (S_ISLNK(st.st_mode)) return ELOOP;
  if (!S_ISDIR(st.st_mode)) return ENOTDIR;
  if (st.st_uid != geteuid() && st.st_uid != 0) return EPERM;
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0) return EPERM;
  return 0;
}

}  // namespace

int ensurePrivateDirectory(const std::string& path, mode_t mode) {
  if (path.empty()) return ENOENT;
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  size_t pos = 0;
  while ((pos = trimmed.find('/', pos + 1)) != std::string::npos) {
    std::string parent = trimmed.substr(0, pos);
    if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) return errno;
  }
  if (mkdir(trimmed.c_str(), mode) != 0 && errno != EEXIST) return errno;
  return checkDirectory(trimmed);
}

namespace {
std::shared_mutex& execFilesLock() {
  static std::shared_mutex* lock = new std::shared_mutex;  // never destroyed: used at exit
  return *lock;
}
}  // namespace

void lockExecFilesShared() { execFilesLock().lock_shared(); }
void unlockExecFilesShared() { execFilesLock().unlock_shared(); }
void lockExecFilesExclusive() { execFilesLock().lock(); }
void unlockExecFilesExclusive() { execFilesLock().unlock(); }

}  // namespace hds::platform
