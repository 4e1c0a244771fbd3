#pragma once

// What the files of the raidcom session share: the login lock's per-thread mark, the reading of
// the login count under that lock, and the texts both the lifecycle and the login report.

#include <string>

#include "hds/platform/SnapInfo.h"

namespace hds {
namespace raidcom {

extern const char* const kLoginFailedText;

// A login asked for while this thread holds the login lock (the -login itself, or a -logout,
// found the session expired) cannot be served: the lock is not recursive, and asking for it again
// would only be refused as a lock failure. The mark is per thread, so that a login running in
// another thread is never taken for such a re-entry.
bool insideLoginLock();

class LoginLockScope {
 public:
  LoginLockScope();
  ~LoginLockScope();
  LoginLockScope(const LoginLockScope&) = delete;
  LoginLockScope& operator=(const LoginLockScope&) = delete;
};

// The settings store says which file and why; the messages that follow keep their own words.
void logSettingsProblem(VTSO::SnapInfo& snapInfo);

// The stored count, void (and stored as 0) when it was kept in an earlier boot of the host.
// Callers hold the login lock.
bool loadLoginCount(VTSO::SnapInfo& snapInfo, const std::string& serialNumber, int& count);

}  // namespace raidcom
}  // namespace hds
