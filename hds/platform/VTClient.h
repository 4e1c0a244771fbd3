#pragma once

#include <string>

#include "hds/common/HDSExport.h"

class HDS_API EvDebug {
 public:
  // $HDS_CLIENT_NAME, else this host's name.
  static std::string getClientName();
  static int getProcessId();
};

// Thread id of the caller (the kernel's tid), used in unique file names.
HDS_API unsigned long GetCurrentThreadId();

class HDS_API VTClient {
 public:
  explicit VTClient(const std::string& clientName);
  // The network host name of the client (gethostname); empty when unknown.
  std::string getNetworkHostname() const;

 private:
  std::string m_sClientName;
};
