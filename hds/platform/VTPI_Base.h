#pragma once

#include <string>

#include "hds/common/HDSExport.h"

// Where the library keeps its files on this host. Thread safety: every function may be called
// from any thread; the environment is read on every call.
class HDS_API VTPI_Base {
 public:
  // The product temporary directory ($HDS_TEMP_DIR, default /var/tmp/hds), created 0700 when
  // missing. nullptr when it cannot be made or is not an absolute path. The pointer stays valid
  // for the process.
  static const char* getOrreryTempDirectory();
  // Why the temporary directory cannot take the library's script and response files, naming
  // the directory and the system's reason; "" when it can.
  static std::string tempDirectoryProblem();
  // Why dir cannot take new files (not an absolute path, missing, not a directory, not
  // writable, no space left); "" when it can. Makes and removes one small file there.
  static std::string directoryProblem(const std::string& dir);
  // Directory of the HORCM configuration files ($HDS_HORCM_DIR, default "/etc/"), always ending
  // in "/".
  static std::string getHorcmDirectory();
};
