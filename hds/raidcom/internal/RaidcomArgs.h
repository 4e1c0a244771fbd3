#pragma once

// Building blocks of raidcom argument texts. Command lines go through "/bin/sh -c", so every
// name that an array user chose (host groups, resource groups) is quoted here before it reaches
// the shell; messages and error texts keep the name as the user wrote it.

#include <string>

#include "hds/common/HDSConstants.h"
#include "hds/common/internal/HDSText.h"

namespace hds {
namespace raidcom {

using hds::text::quoteArgument;

// The command part of a raidcom call: the program name and the verb as the caller spells it
// (" get ldev " gives "raidcom  get ldev ", doubled blank and all, as the array's logs know it).
inline std::string raidcom(std::string const& verb) {
  return std::string(VT_HDS_RAIDCOM_CMD_NAME) + verb;
}

// A "-port" or "-p" value: a port ("CL1-A"), a port with a host group number ("CL1-A-3"), or a
// port, a blank and a host group name, the name possibly holding blanks of its own.
inline std::string portArgument(std::string const& portAndGroup) {
  const size_t blank = portAndGroup.find(' ');
  if (blank == std::string::npos) return quoteArgument(portAndGroup);
  return quoteArgument(portAndGroup.substr(0, blank)) + " " +
         quoteArgument(portAndGroup.substr(blank + 1));
}

// How host group commands name a host group of a port: a single digit is taken as the host group
// number (CL1-A-5); anything else, longer numbers included, as a name after a blank (CL1-A 12).
inline std::string hostGroupReference(std::string const& port, std::string const& hostGroup) {
  if (hostGroup.size() == 1 && hostGroup[0] >= '0' && hostGroup[0] <= '9') {
    return quoteArgument(port + "-" + hostGroup);
  }
  return quoteArgument(port) + " " + quoteArgument(hostGroup);
}

}  // namespace raidcom
}  // namespace hds
