#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>

#include "hds/common/HDSExport.h"

// The result of a file operation: an errno (0: no error) and what it concerns, usually the path.
// A value; copies share nothing.
class HDS_API CZoError {
 public:
  CZoError() = default;
  explicit CZoError(int err, std::string what = "");
  bool IsError() const { return m_iErrno != 0; }
  int Errno() const { return m_iErrno; }
  std::string AsString() const;  // "<what>: <system's text>", or "" when no error

 private:
  int m_iErrno = 0;
  std::string m_sWhat;
};

// A file opened with O_CLOEXEC | O_NOFOLLOW always: a planted symlink at a script, response or
// HORCM path is refused, never followed. A file opened for writing with an execute bit in mode
// holds back every process start of this process until it is closed (so that no child can carry
// it open into "Text file busy"): close it before running anything.
//
// Thread safety: an object is used by one thread at a time; separate objects may be used from
// any threads.
class HDS_API CZoFile {
 public:
  CZoFile() = default;
  ~CZoFile();  // closes
  CZoFile(const CZoFile&) = delete;
  CZoFile& operator=(const CZoFile&) = delete;

  // lstat: a dangling symlink counts as present. The error names the path.
  static CZoError Stat(const std::string& path, struct stat* st = nullptr);
  // Closes a file this object holds first; the error names the path.
  CZoError Open(const std::string& path, int flags, int mode);
  // Writes everything (retrying short writes and EINTR); *written gets the count, also on an
  // error. EBADF when nothing is open.
  CZoError Write(const void* data, size_t len, size_t* written = nullptr);
  CZoError Flush();  // fsync; a file that cannot be synced (EINVAL) is no error
  // Always lets the descriptor go (never retried after EINTR); no error when nothing is open.
  CZoError Close();
  bool IsOpen() const { return m_iFd >= 0; }
  int Fd() const { return m_iFd; }

  // Clears content, then reads the file whole; a symlink at the path is refused.
  static CZoError ReadWholeFile(const std::string& path, std::string& content);

 private:
  int m_iFd = -1;
  bool m_bExecLock = false;  // holds the process-wide lock that keeps spawns from ETXTBSY
};
