#include "hds/platform/VTPI_Base.h"

#include <mutex>
#include <set>

#include "hds/platform/PlatformInternal.h"

const char* VTPI_Base::getOrreryTempDirectory() {
  // Callers keep the pointer for the life of the process, while the directory may be redirected
  // between calls: every path handed out stays interned.
  static std::mutex oMutex;
  static std::set<std::string>* pPaths = new std::set<std::string>;
  std::string path = hdsplatform::envOr("HDS_TEMP_DIR", "/var/tmp/hds");
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  if (hdsplatform::ensurePrivateDirectory(path, 0700) != 0) return nullptr;
  std::lock_guard<std::mutex> guard(oMutex);
  return pPaths->insert(path).first->c_str();
}

std::string VTPI_Base::getHorcmDirectory() {
  std::string dir = hdsplatform::envOr("HDS_HORCM_DIR", "/etc/");
  if (dir.back() != '/') dir += '/';
  return dir;
}
