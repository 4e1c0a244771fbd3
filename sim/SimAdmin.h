#pragma once

#include <string>
#include <vector>

namespace ccisim {

// `ccisim <command>`: install, init, load, dump, fault, journal, session, resource, pair, timing.
int runAdmin(const std::vector<std::string>& args);

}  // namespace ccisim
