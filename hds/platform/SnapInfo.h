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
// The defaults below say "not set" and replication type 0.
//
// Thread safety: the library calls it from every thread that runs a handler, so an object
// shared by handlers of several threads must be thread-safe.
class HDS_API SnapInfo {
 public:
  virtual ~SnapInfo();
  // Levels: 0 progress and detail, 1 notable events, 2 failures and warnings.
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

// A ready SnapInfo for tools: writes log lines to a file, a stream or both, and takes its
// array-level settings from a map. Thread-safe. A line reads
//   2026-11-23T15:32:14.123Z 4711 4712 ERROR HDS   Failed to delete file [/tmp/x].
// (UTC time, process id, thread id, level name, then the module and text as the library gave
// them), so that the lines of many jobs sharing one log can be told apart.
class HDS_API BasicSnapInfo : public VTSO::SnapInfo {
 public:
  BasicSnapInfo();                            // logs nowhere
  explicit BasicSnapInfo(std::ostream* out);  // not owned; nullptr logs nowhere
  ~BasicSnapInfo() override;

  // Appends to path; false when it cannot be opened. Each line reaches the file in one write
  // to a descriptor opened for append, so processes sharing the file never split a line.
  bool openLogFile(const std::string& path);
  void setStream(std::ostream* out);  // also (or only) here; nullptr stops it
  void setMinLevel(int level);        // lines below this level are dropped
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
