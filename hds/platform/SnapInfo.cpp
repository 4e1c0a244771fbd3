#include "hds/platform/SnapInfo.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
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
  (void)vsnprintf(big.data(), big.size(), format, args);
  return std::string(big.data(), static_cast<size_t>(n));
}

const char* levelName(int level) {
  switch (level) {
    case 0:
      return "DEBUG";
    case 1:
      return "INFO";
    case 2:
      return "ERROR";
    default:
      return "LEVEL";
  }
}

// "2026-11-23T15:32:14.123Z 4711 4712 ERROR " for now, this process and this thread.
std::string linePrefix(int level) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  char stamp[32] = "";
  (void)strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &utc);
  char prefix[128];
  int n = snprintf(prefix, sizeof(prefix), "%s.%03dZ %d %ld %s ", stamp,
                   static_cast<int>(now.tv_nsec / 1000000), static_cast<int>(getpid()),
                   static_cast<long>(syscall(SYS_gettid)), levelName(level));
  return std::string(prefix, n > 0 ? static_cast<size_t>(n) : 0);
}

void writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

}  // namespace

struct BasicSnapInfo::Impl {
  std::mutex oMutex;
  std::ostream* pOut = nullptr;
  int iFd = -1;
  int iMinLevel = 0;
  int iReplicationType = 0;
  std::map<std::string, int> oInts;
  std::map<std::string, std::string> oStrings;
};

BasicSnapInfo::BasicSnapInfo() : m_pImpl(new Impl) {}

BasicSnapInfo::BasicSnapInfo(std::ostream* out) : m_pImpl(new Impl) { m_pImpl->pOut = out; }

BasicSnapInfo::~BasicSnapInfo() {
  if (m_pImpl->iFd >= 0) ::close(m_pImpl->iFd);
}

bool BasicSnapInfo::openLogFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  if (m_pImpl->iFd >= 0) ::close(m_pImpl->iFd);
  m_pImpl->iFd = fd;
  return true;
}

void BasicSnapInfo::setStream(std::ostream* out) {
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  m_pImpl->pOut = out;
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
  {
    std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
    if ((m_pImpl->pOut == nullptr && m_pImpl->iFd < 0) || level < m_pImpl->iMinLevel) return;
  }
  std::string line = linePrefix(level);
  line += module != nullptr ? module : "";
  line += ' ';
  line += formatMessage(format, args);
  line += '\n';
  std::lock_guard<std::mutex> guard(m_pImpl->oMutex);
  if (m_pImpl->iFd >= 0) writeAll(m_pImpl->iFd, line);
  if (m_pImpl->pOut != nullptr) {
    m_pImpl->pOut->write(line.data(), static_cast<std::streamsize>(line.size()));
    m_pImpl->pOut->flush();
  }
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
