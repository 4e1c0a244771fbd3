#include "tests/support/Leftovers.h"

#include <dirent.h>
#include <unistd.h>

#include "tests/support/TestEnv.h"

namespace hdstest {

std::vector<std::string> processesWithEnvironment(const std::string& entry) {
  std::vector<std::string> found;
  const std::string self = std::to_string(getpid());
  for (const std::string& pid : filesIn("/proc")) {
    if (pid.find_first_not_of("0123456789") != std::string::npos || pid == self) continue;
    // The environment is a run of NUL-terminated entries; a process gone meanwhile reads empty.
    const std::string environ = readFile("/proc/" + pid + "/environ");
    for (size_t at = 0; at < environ.size();) {
      size_t end = environ.find('\0', at);
      if (end == std::string::npos) end = environ.size();
      if (environ.compare(at, end - at, entry) == 0) {
        std::string comm = readFile("/proc/" + pid + "/comm");
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        found.push_back(pid + " " + comm);
        break;
      }
      at = end + 1;
    }
  }
  return found;
}

std::set<std::string> filesIn(const std::string& dir) {
  std::set<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') names.insert(e->d_name);
    }
    closedir(d);
  }
  return names;
}

}  // namespace hdstest
