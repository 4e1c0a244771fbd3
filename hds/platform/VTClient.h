#pragma once

#include <string>

#include "hds/common/HDSExport.h"

// Who and where this process is: the names the library puts into HORCM files, file names and
// logs. Thread safety: every function may be called from any thread.
class HDS_API EvDebug {
 public:
  // $HDS_CLIENT_NAME, else this host's name.
  static std::string getClientName();
  static int getProcessId();
};

// Thread id of the caller (the kernel's tid), used in unique file names.
HDS_API unsigned long GetCurrentThreadId();

// A client of the backup product, by name.
class HDS_API VTClient {
 public:
  explicit VTClient(const std::string& clientName);
  // The network host name of this host (gethostname), whatever the client's name; empty when
  // unknown.
  std::string getNetworkHostname() const;

 private:
  std::string m_sClientName;
};
