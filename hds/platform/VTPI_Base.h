#pragma once

#include <string>

#include "hds/common/HDSExport.h"

class HDS_API VTPI_Base {
 public:
  // The product temporary directory ($HDS_TEMP_DIR, default /var/tmp/hds), created 0700 when
  // missing. nullptr when it cannot be made. The pointer stays valid for the process.
  static const char* getOrreryTempDirectory();
  // Directory of the HORCM configuration files ($HDS_HORCM_DIR, default "/etc/"), always ending
  // in "/".
  static std::string getHorcmDirectory();
};
