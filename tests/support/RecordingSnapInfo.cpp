#include "tests/support/RecordingSnapInfo.h"

#include <cstdio>

namespace hdstest {

void RecordingSnapInfo::vlog(int level, const char* module, const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) vsnprintf(&text[0], text.size() + 1, format, args);
  std::lock_guard<std::mutex> guard(m_mutex);
  m_lines.push_back(Line{level, module != nullptr ? module : "", text});
}

bool RecordingSnapInfo::getSnapConfigInt(const std::string& key, int& value) {
  std::lock_guard<std::mutex> guard(m_mutex);
  auto it = m_ints.find(key);
  if (it == m_ints.end()) return false;
  value = it->second;
  return true;
}

// No array-level text setting is configured in the tests.
bool RecordingSnapInfo::getSnapConfigString(const std::string&, char*, size_t) { return false; }

int RecordingSnapInfo::getReplicationType() {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_replicationType;
}

void RecordingSnapInfo::setConfigInt(const std::string& key, int value) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_ints[key] = value;
}

void RecordingSnapInfo::setReplicationType(int type) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_replicationType = type;
}

std::vector<RecordingSnapInfo::Line> RecordingSnapInfo::lines() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_lines;
}

bool RecordingSnapInfo::contains(const std::string& needle, int level) const {
  std::lock_guard<std::mutex> guard(m_mutex);
  for (const Line& line : m_lines)
    if ((level < 0 || line.level == level) && line.text.find(needle) != std::string::npos)
      return true;
  return false;
}

size_t RecordingSnapInfo::count(const std::string& needle) const {
  std::lock_guard<std::mutex> guard(m_mutex);
  size_t n = 0;
  for (const Line& line : m_lines)
    if (line.text.find(needle) != std::string::npos) ++n;
  return n;
}

void RecordingSnapInfo::clear() {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_lines.clear();
}

std::string RecordingSnapInfo::dump() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  std::string out;
  for (const Line& line : m_lines)
    out += std::to_string(line.level) + " [" + line.module + "] " + line.text + "\n";
  return out;
}

}  // namespace hdstest
