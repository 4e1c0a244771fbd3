#include "hds/handler/internal/HandlerParsers.h"

#include <algorithm>
#include <cctype>

namespace hds {
namespace handler {

bool parseCciVersionOutput(std::string const& output, std::string& version) {
  // "Ver&Rev: 01-29-03/05": the version is the 11 characters after the label, its colon and
  // one blank.
  const size_t label = output.find("Ver&Rev");
  if (label == std::string::npos) return false;
  // The next line of the help page is no part of the version.
  const size_t lineEnd = std::min(output.find('\n', label), output.size());
  std::string found;
  for (size_t i = label + 9; i < std::min(label + 20, lineEnd); ++i) {
    if (!std::isspace(static_cast<unsigned char>(output[i]))) found += output[i];
  }
  version = found;
  return true;
}

bool parseFindCommandDeviceOutput(std::string const& output, std::string const& serialNumber,
                                  std::string& device) {
  device.clear();
  const size_t serial = output.find(serialNumber);
  if (serial == std::string::npos) return false;
  // A command device is named like \\.\CMD-412345:/dev/sdc, up to the end of its line.
  const size_t name = output.find("\\\\", serial);
  if (name == std::string::npos) return true;
  size_t end = output.find('\n', name);
  if (end == std::string::npos) end = output.size();
  if (end > name && output[end - 1] == '\r') --end;
  if (end > name) device = output.substr(name, end - name);
  return true;
}

}  // namespace handler
}  // namespace hds
