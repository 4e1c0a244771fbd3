#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "hds/platform/SnapInfo.h"

namespace hdstest {

// A SnapInfo that keeps every log line for inspection and serves array-level numeric settings
// from a map.
// Thread-safe.
class RecordingSnapInfo : public VTSO::SnapInfo {
 public:
  struct Line {
    int level;
    std::string module;
    std::string text;
  };

  void vlog(int level, const char* module, const char* format, va_list args) override;
  bool getSnapConfigInt(const std::string& key, int& value) override;
  bool getSnapConfigString(const std::string& key, char* buf, size_t size) override;
  int getReplicationType() override;

  void setConfigInt(const std::string& key, int value);
  void setReplicationType(int type);

  std::vector<Line> lines() const;
  // True when some line's text contains needle (and, when level >= 0, has that level).
  bool contains(const std::string& needle, int level = -1) const;
  size_t count(const std::string& needle) const;
  void clear();
  std::string dump() const;  // all lines, for failure messages

 private:
  mutable std::mutex m_mutex;
  std::vector<Line> m_lines;
  std::map<std::string, int> m_ints;
  int m_replicationType = 0;
};

}  // namespace hdstest
