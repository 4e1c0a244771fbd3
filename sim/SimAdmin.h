#pragma once

#include <string>
#include <vector>

namespace ccisim {

// `ccisim <command>`: install, init, load, dump, fault, journal, session, resource, pair, timing,
// finish. --help on any of them; 2 and one line on stderr for wrong arguments.
int runAdmin(const std::vector<std::string>& args);

}  // namespace ccisim
