#pragma once

#include <string>

namespace hdsctl {

// What keeps this host from running a job's array changes: the temporary directory (scripts)
// and the lock directory (named locks) must both take new files. "" when they do; otherwise
// each directory at fault with the system's reason, checked before the first change so that a
// job never stops half way for a cause known up front.
std::string hostProblemsForJob();

}  // namespace hdsctl
