#pragma once

// The arguments that direct a CCI command to a HORCM instance and, through it, to one array.
// Every -IM, -IH and -s of the handlers is written here, so that none of them can reach the
// shell unquoted.

#include <string>

#include "hds/common/internal/HDSText.h"

namespace hds {
namespace handler {

enum class InstanceMode {
  Raidcom,  // -IM: the instance serves raidcom and raidscan in raidcom mode
  Horc,     // -IH: the instance in HORC mode, as the pair tools and remote raidscan need it
};

// "-IM<instance>" (or "-IH<instance>"), followed by " -s <serial>" when a serial is given. No
// blank in front: the caller places the separator its command line needs.
inline std::string instanceArguments(InstanceMode mode, std::string const& instance,
                                     std::string const& serial = std::string()) {
  std::string text =
      (mode == InstanceMode::Raidcom ? "-IM" : "-IH") + hds::text::quoteArgument(instance);
  if (!serial.empty()) text += " -s " + hds::text::quoteArgument(serial);
  return text;
}

}  // namespace handler
}  // namespace hds
