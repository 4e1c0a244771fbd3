#include "hds/platform/CZoFile.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "hds/platform/internal/PlatformInternal.h"

CZoError::CZoError(int err, std::string what) : m_iErrno(err), m_sWhat(std::move(what)) {}

std::string CZoError::AsString() const {
  if (m_iErrno == 0) return std::string();
  std::string text = hds::platform::errnoText(m_iErrno);
  return m_sWhat.empty() ? text : m_sWhat + ": " + text;
}

CZoFile::~CZoFile() { Close(); }

CZoError CZoFile::Stat(const std::string& path, struct stat* st) {
  struct stat local;
  // lstat: a dangling symlink at a path still counts as taken.
  if (lstat(path.c_str(), st != nullptr ? st : &local) != 0) return CZoError(errno, path);
  return CZoError();
}

CZoError CZoFile::Open(const std::string& path, int flags, int mode) {
  if (m_iFd >= 0) Close();
  bool writesExecutable = (flags & O_ACCMODE) != O_RDONLY && (mode & 0111) != 0;
  if (writesExecutable) hds::platform::lockExecFilesExclusive();
  int fd;
  do {
    fd = open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, static_cast<mode_t>(mode));
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    int err = errno;
    if (writesExecutable) hds::platform::unlockExecFilesExclusive();
    return CZoError(err, path);
  }
  m_iFd = fd;
  m_bExecLock = writesExecutable;
  return CZoError();
}

CZoError CZoFile::Write(const void* data, size_t len, size_t* written) {
  size_t done = 0;
  if (written != nullptr) *written = 0;
  if (m_iFd < 0) return CZoError(EBADF);
  const char* p = static_cast<const char*>(data);
  while (done < len) {
    ssize_t n = write(m_iFd, p + done, len - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      int err = errno;
      if (written != nullptr) *written = done;
      return CZoError(err);
    }
    if (n == 0) {
      if (written != nullptr) *written = done;
      return CZoError(EIO);
    }
    done += static_cast<size_t>(n);
  }
  if (written != nullptr) *written = done;
  return CZoError();
}

CZoError CZoFile::Flush() {
  if (m_iFd < 0) return CZoError(EBADF);
  if (fsync(m_iFd) != 0 && errno != EINVAL) return CZoError(errno);
  return CZoError();
}

CZoError CZoFile::Close() {
  if (m_iFd < 0) return CZoError();
  // Linux releases the descriptor even when close reports EINTR: never retry.
  int rc = close(m_iFd);
  int err = rc != 0 && errno != EINTR ? errno : 0;
  m_iFd = -1;
  if (m_bExecLock) {
    m_bExecLock = false;
    hds::platform::unlockExecFilesExclusive();
  }
  return CZoError(err);
}

CZoError CZoFile::ReadWholeFile(const std::string& path, std::string& content) {
  content.clear();
  int fd;
  do {
    fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return CZoError(errno, path);
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0)
    content.reserve(static_cast<size_t>(st.st_size));
  char buf[65536];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0) {
      if (errno == EINTR) continue;
      int err = errno;
      close(fd);
      return CZoError(err, path);
    }
    if (n == 0) break;
    content.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return CZoError();
}
