#include "hds/platform/VTClient.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "hds/platform/internal/PlatformInternal.h"

namespace {
std::string hostName() {
  char buf[256] = {0};
  if (gethostname(buf, sizeof(buf) - 1) != 0) return std::string();
  return buf;
}
}  // namespace

std::string EvDebug::getClientName() {
  std::string name = hds::platform::envOr("HDS_CLIENT_NAME", "");
  return name.empty() ? hostName() : name;
}

int EvDebug::getProcessId() { return static_cast<int>(getpid()); }

unsigned long GetCurrentThreadId() { return static_cast<unsigned long>(syscall(SYS_gettid)); }

VTClient::VTClient(const std::string& clientName) : m_sClientName(clientName) {}

std::string VTClient::getNetworkHostname() const { return hostName(); }
