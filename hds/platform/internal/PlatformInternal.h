#pragma once

// Helpers shared by the platform services; not part of the installed interface.

#include <sys/types.h>

#include <string>

namespace hds::platform {

// The value of an environment variable, or dflt when it is unset or empty.
std::string envOr(const char* name, const char* dflt);

// strerror text for err, safe from any thread.
std::string errnoText(int err);

// Creates path and its missing parents (parents 0755, the last component with mode) and checks
// that the result is a private directory: a real directory rather than a symlink, owned by this
// user or root, and writable by others only when sticky. 0 on success, else an errno value.
int ensurePrivateDirectory(const std::string& path, mode_t mode);

// A process-wide reader/writer lock against "Text file busy": a file opened for writing stays
// open in any child forked while it is open, until that child execs. Writers of executable files
// hold the lock exclusively from open to close; spawns hold it shared around the spawn call.
void lockExecFilesShared();
void unlockExecFilesShared();
void lockExecFilesExclusive();
void unlockExecFilesExclusive();

}  // namespace hds::platform
