#pragma once

#include <optional>
#include <string>
#include <vector>

namespace ccisim {

// What a horcm<N>.conf says, as far as the simulator needs it.
struct HorcmConf {
  std::string monitorHost;
  std::string service;
  std::string commentSerial;  // from the "#\\.\CMD-<serial>" marker line
  // Each HORCM_CMD line: one array, reached through any of the names on the line.
  std::vector<std::vector<std::string>> commandDeviceLines;
  struct Group {
    std::string section;  // HORCM_LDEVG, HORCM_LDEV, HORCM_INST
    std::string name;
    std::string serial;  // LDEVG, LDEV
    std::string detail;  // LDEVG: device group; LDEV: dev_name ldev mu; INST: host service
  };
  std::vector<Group> groups;
};

HorcmConf parseHorcmConf(const std::string& text);

// The serial a command device name names, when it names one ("\\.\CMD-412345:/dev/sd",
// "\.CMD-412345" as a shell leaves it, "\\.\CMD-412345-4095"); and the device path part.
std::optional<std::string> commandDeviceSerial(const std::string& name);
std::string commandDevicePath(const std::string& name);

// /dev/sdc -> 2, /dev/sdaa -> 26; -1 for names of another shape.
int deviceIndex(const std::string& device);

}  // namespace ccisim
