#pragma once

// The answers of the CCI tools the base handler reads, as free functions over text: they keep no
// state, so they can be fed arbitrary input (fuzz/) without a handler behind them.

#include <string>

namespace hds {
namespace handler {

// "raidqry -h": the version after "Ver&Rev" ("01-29-03/05"), blanks dropped, never past the end
// of its line; empty when only blanks follow the label. False when the label is missing.
bool parseCciVersionOutput(std::string const& output, std::string& version);

// "raidscan -x findcmddev": true when the array's serial number appears. device then holds the
// command device named after it ("\\.\CMD-412345:/dev/sdc", up to the end of its line) or is
// empty when the line names none.
bool parseFindCommandDeviceOutput(std::string const& output, std::string const& serialNumber,
                                  std::string& device);

}  // namespace handler
}  // namespace hds
