#pragma once

#include <set>
#include <string>
#include <vector>

namespace hdstest {

// What a run may leave on a host: processes still alive and files in a directory.

// "<pid> <command name>" of every live process of this user whose environment holds exactly
// this entry (for example "CCISIM_STATE=/tmp/x/ccisim.db"), this process excluded.
std::vector<std::string> processesWithEnvironment(const std::string& entry);

// Names in a directory, without "." entries; empty when it cannot be read.
std::set<std::string> filesIn(const std::string& dir);

}  // namespace hdstest
