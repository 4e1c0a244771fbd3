#pragma once

#include <cstdarg>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>

#include "hds/common/HDSExport.h"

namespace VTSO {

// The job context the snapshot engine hands to every handler: logging and array-level settings.
class HDS_API SnapInfo {
 public:
  virtual ~SnapInfo();
  void log(int level, const char* module, const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  virtual void vlog(int level, const char* module, const char* format, va_list args) = 0;
  // Array-level number; false = not set.
  virtual bool getSnapConfigInt(const std::string& key, int& value);
  // Array-level text, always terminated within size; false = not set.
  virtual bool getSnapConfigString(const std::string& key, char* buf, size_t size);
  // 4 = active-active pairs.
  virtual int getReplicationType();
};

}  // namespace VTSO

HDS_API extern const char* const SMCONFIG_NAME_ENABLE_COMMAND_LOGGING;
HDS_API extern const char* const SMCONFIG_NAME_HORCM_INSTALLATION_PATH;

// A ready SnapInfo for tools: writes "level module text" lines to a stream or a file and takes
// its array-level settings from a map. Thread-safe.
class HDS_API BasicSnapInfo : public VTSO::SnapInfo {
 public:
  BasicSnapInfo();                            // logs nowhere
  explicit BasicSnapInfo(std::ostream* out);  // not owned; nullptr logs nowhere
  ~BasicSnapInfo() override;

  // Appends to path; false when it cannot be opened.
  bool openLogFile(const std::string& path);
  void setMinLevel(int level);  // lines below this level are dropped
  void setConfigInt(const std::string& key, int value);
  void setConfigString(const std::string& key, const std::string& value);
  void setReplicationType(int type);

  void vlog(int level, const char* module, const char* format, va_list args) override;
  bool getSnapConfigInt(const std::string& key, int& value) override;
  bool getSnapConfigString(const std::string& key, char* buf, size_t size) override;
  int getReplicationType() override;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_pImpl;
};
