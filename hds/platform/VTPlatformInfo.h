#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "hds/common/HDSExport.h"

// The client settings store: a plain INI file at $HDS_SETTINGS_FILE (default
// /etc/hds/settings.conf). "[section]" lines name sections literally ("[~iHarbor]" is the section
// "~iHarbor"); "key=value" lines with blanks around key and value trimmed; lines starting with
// '#' or ';' are comments. Keys are case-sensitive. A missing file means nothing is set; a number
// that does not parse is not set. Every write is a read-modify-write under an exclusive lock on a
// separate, never-replaced "<file>.lock", ending in write temp + fsync + rename in the same
// directory, so concurrent writers lose nothing and readers never see a torn file.
//
// Thread safety: every function may be called from any thread and process at once; a write
// waits, without a time-out, for the writer before it.
//
// Every getter reads the file anew and reports a file it cannot use as "not set" (false, value
// untouched). Every setter is false, with the file as it was, for a value holding a line break or
// a file that cannot be rewritten.
class HDS_API VTPlatformInfo {
 public:
  // A decimal int; false for a value out of range or with anything after the digits.
  static bool getRegInt(const char* section, const char* key, int* value);
  static bool setRegInt(const char* section, const char* key, int value);
  // Copies the value, cut to fit and always terminated within size; false when not set.
  static bool getString(const char* section, const char* key, char* buf, size_t size);
  static bool setString(const char* section, const char* key, const std::string& value);
  // A decimal unsigned long; a leading '-' is no number.
  static bool getNumber(const char* section, const char* key, unsigned long* value);
  static bool removeKey(const char* section, const char* key);

  // Atomic read-modify-write of one integer: fn gets (present, current value) and returns the new
  // value. false when the file could not be rewritten (old content kept).
  static bool updateRegInt(const char* section, const char* key,
                           const std::function<int(bool present, int current)>& fn);

  // Sets several keys of one section in one rewrite: a crash keeps all of them or none.
  static bool setStrings(const char* section,
                         const std::vector<std::pair<std::string, std::string>>& values);

  // false when the settings file is there but cannot be used (unreadable, not a regular file
  // once links are followed, not text); problem names the file and the reason. The getters
  // report such a file as "not set", so whoever depends on the settings asks here first.
  static bool checkSettingsFile(std::string& problem);
  // Why the last read or write of the settings file by this thread failed: the path and the
  // system's reason; "" after a success.
  static std::string lastError();

  // This boot of the host ($HDS_BOOT_ID_FILE, else /proc/sys/kernel/random/boot_id); "" when
  // unknown. Counts of live processes kept in the settings are void once it has changed.
  static std::string bootIdentity();

  // Host name for HORCM files: "sClientHostName" in section "iHarbor", else false; the client's
  // name is not used.
  static bool getClientHostName(const std::string& clientName, std::string& hostName);

  // Path in use ($HDS_SETTINGS_FILE or /etc/hds/settings.conf).
  static std::string settingsFile();
};
