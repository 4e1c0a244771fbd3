#pragma once

#include <string>

#include "hds/common/HDSExport.h"

// Host-wide mutex by name: excludes other threads of this process as well as other processes,
// and is released by the kernel when the holder dies. Backed by a file in $HDS_LOCK_DIR
// (default /run/lock/hds), created with safe permissions and never followed through a symlink.
// One object is used by one thread at a time; lock and unlock come from the same thread.
class HDS_API VtNamedMutex {
 public:
  explicit VtNamedMutex(const std::string& name);
  ~VtNamedMutex();  // releases the mutex if this object holds it
  VtNamedMutex(const VtNamedMutex&) = delete;
  VtNamedMutex& operator=(const VtNamedMutex&) = delete;

  // false when the backing file could not be made; lastError() says why.
  bool isValid() const;
  const std::string& lastError() const;

  // Waits at most ms milliseconds (scaled by ZoSetTimeScale; 0: one try) without sleep-polling.
  // true at once when this object holds it already; a mutex whose holder died is taken over.
  // false, with lastError() saying why, when the wait ran out or the lock file is unusable, and
  // at once when this thread holds the name through another object: it is not recursive.
  bool lock(unsigned long ms);
  // Releases the mutex when this object holds it; harmless otherwise.
  void unlock();

  // Directory the lock files live in ($HDS_LOCK_DIR or /run/lock/hds).
  static std::string lockDirectory();
  // The file backing the mutex of this name, in lockDirectory().
  static std::string lockFilePath(const std::string& name);
  // Who holds the mutex of a lock file, for operators: the holder's thread id, 0 when it is
  // free, -1 when the file is not a lock file. A holder that has died still shows until the
  // next lock takes the mutex over.
  static long holderThread(const std::string& path);

 private:
  struct Impl;
  Impl* m_pImpl;
};
