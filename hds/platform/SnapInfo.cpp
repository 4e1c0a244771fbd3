#include "hds/platform/SnapInfo.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

const char* const SMCONFIG_NAME_ENABLE_COMMAND_LOGGING = "Enable CCI command logging";
const char* const SMCONFIG_NAME_HORCM_INSTALLATION_PATH =
    "HORCM installation home directory path (CCI engines)";

namespace VTSO {

SnapInfo::~SnapInfo() = default;

void SnapInfo::log(int level, const char* module, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vlog(level, module, format, args);
  va_end(args);
}

bool SnapInfo::getSnapConfigInt(const std::string&, int&) { return false; }

bool SnapInfo::getSnapConfigString(const std::string&, char*, size_t) { return false; }

int SnapInfo::getReplicationType() { return 0; }

}  // namespace VTSO

namespace {

std::string formatMessage(const char* format, va_list args) {
  if (format == nullptr) return std::string();
  char small[512];
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(small, sizeof(small), format, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof(small)) return std::string(small, static_cast<size_t>(n));
  std::vector<char> big(static_cast<size_t>(n) + 1);
  vsnprintf(big.data(), big.size(), format, args);
  return std::string(big.data(), static_cast<size_t>(n));
}

}  // namespace

struct BasicSnapInfo::Impl {
  std::mutex oMutex;
  std::ostream* pOut = nullptr;
  std::ofstream oFile;
  int iMinLevel = 0;
  int iReplicationType = 0;
  std::map<std::string, int> oInts;
  std::map<std::string, std::string> oStrings;
};

BasicSnapInfo::BasicSnapInfo() : m_pImpl(new Impl) {}

BasicSnapInfo::BasicSnapInfo(std::ostream* out) : m_pImpl(new Impl) { m_pImpl->pOut = out; }

BasicSnapInfo::~BasicSnapInfo() = default;

bool BasicSnapInfo::openLogFile(const std::string& path) {
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  if (m_pImpl->oFile.is_open()) m_pImpl->oFile.close();
  m_pImpl->oFile.open(path, std::ios::out | std::ios::app);
  if (!m_pImpl->oFile.is_open()) return false;
  m_pImpl->pOut = &m_pImpl->oFile;
  return true;
}

void BasicSnapInfo::setMinLevel(int level) {
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  m_pImpl->iMinLevel = level;
}

void BasicSnapInfo::setConfigInt(const std::string& key, int value) {
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  m_pImpl->oInts[key] = value;
}

void BasicSnapInfo::setConfigString(const std::string& key, const std::string& value) {
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  m_pImpl->oStrings[key] = value;
}

void BasicSnapInfo::setReplicationType(int type) {
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  m_pImpl->iReplicationType = type;
}

void BasicSnapInfo::vlog(int level, const char* module, const char* format, va_list args) {
  std::string text = formatMessage(format, args);
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  if (m_pImpl->pOut == nullptr || level < m_pImpl->iMinLevel) return;
  *m_pImpl->pOut << level << ' ' << (module != nullptr ? module : "") << ' ' << text << '\n';
  m_pImpl->pOut->flush();
}

bool BasicSnapInfo::getSnapConfigInt(const std::string& key, int& value) {
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  auto it = m_pImpl->oInts.find(key);
  if (it == m_pImpl->oInts.end()) return false;
  value = it->second;
  return true;
}

bool BasicSnapInfo::getSnapConfigString(const std::string& key, char* buf, size_t size) {
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  auto it = m_pImpl->oStrings.find(key);
  if (it == m_pImpl->oStrings.end() || buf == nullptr || size == 0) return false;
  size_t n = std::min(it->second.size(), size - 1);
  memcpy(buf, it->second.data(), n);
  buf[n] = '\0';
  return true;
}

int BasicSnapInfo::getReplicationType() {
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  return m_pImpl->iReplicationType;
}
