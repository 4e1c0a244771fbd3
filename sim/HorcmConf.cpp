#include "sim/HorcmConf.h"

#include <cctype>

#include "sim/SimInvocation.h"

namespace ccisim {

namespace {

std::string leadingDigits(const std::string& s, size_t from) {
  size_t end = from;
  while (end < s.size() && std::isdigit(static_cast<unsigned char>(s[end]))) ++end;
  return s.substr(from, end - from);
}

}  // namespace

std::optional<std::string> commandDeviceSerial(const std::string& name) {
  size_t at = name.find("CMD-");
  if (at == std::string::npos || (at > 0 && name[at - 1] == 'I')) return std::nullopt;
  std::string serial = leadingDigits(name, at + 4);
  if (serial.empty()) return std::nullopt;
  return serial;
}

std::string commandDevicePath(const std::string& name) {
  size_t dev = name.find("/dev/");
  return dev == std::string::npos ? std::string() : name.substr(dev);
}

int deviceIndex(const std::string& device) {
  const std::string prefix = "/dev/sd";
  if (device.compare(0, prefix.size(), prefix) != 0 || device.size() == prefix.size()) return -1;
  int index = 0;
  for (size_t i = prefix.size(); i < device.size(); ++i) {
    char c = device[i];
    if (c < 'a' || c > 'z') return -1;
    index = index * 26 + (c - 'a' + 1);
  }
  return index - 1;
}

HorcmConf parseHorcmConf(const std::string& text) {
  HorcmConf conf;
  std::string section;
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    std::string stripped = trim(line);
    if (stripped.empty()) continue;
    if (stripped[0] == '#') {
      if (conf.commentSerial.empty()) {
        if (auto serial = commandDeviceSerial(stripped)) conf.commentSerial = *serial;
      }
      continue;
    }
    size_t hash = stripped.find(" #");
    if (hash != std::string::npos) stripped = trim(stripped.substr(0, hash));
    std::vector<std::string> words = splitWords(stripped);
    if (words[0].compare(0, 6, "HORCM_") == 0) {
      section = words[0];
      continue;
    }
    if (section == "HORCM_MON") {
      if (conf.monitorHost.empty()) {
        conf.monitorHost = words[0];
        if (words.size() > 1) conf.service = words[1];
      }
    } else if (section == "HORCM_CMD") {
      conf.commandDeviceLines.push_back(words);
    } else if (section == "HORCM_LDEVG") {
      // copy_group device_group serial; the device group may be left out.
      HorcmConf::Group g{section, words[0], "", ""};
      if (words.size() >= 3) {
        g.detail = words[1];
        g.serial = words[2];
      } else if (words.size() == 2 && isDigits(words[1])) {
        g.serial = words[1];
      } else if (words.size() == 2) {
        g.detail = words[1];
      }
      conf.groups.push_back(g);
    } else if (section == "HORCM_LDEV" && words.size() >= 4) {
      std::string detail = words[1] + " " + words[3] + (words.size() > 4 ? " " + words[4] : "");
      conf.groups.push_back({section, words[0], words[2], detail});
    } else if ((section == "HORCM_INST" || section == "HORCM_INSTP") && words.size() >= 3) {
      conf.groups.push_back({"HORCM_INST", words[0], "", words[1] + " " + words[2]});
    }
  }
  return conf;
}

}  // namespace ccisim
