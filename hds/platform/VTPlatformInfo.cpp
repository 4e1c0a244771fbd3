#include "hds/platform/VTPlatformInfo.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "hds/common/internal/HDSText.h"
#include "hds/platform/CZoFile.h"
#include "hds/platform/internal/PlatformInternal.h"
#include "hds/platform/internal/SettingsText.h"

namespace hds::platform {

namespace {

std::atomic<SettingsFault> g_eFault{SettingsFault::kNone};

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return std::string();
  size_t e = s.find_last_not_of(" \t\r");
  return s.substr(b, e - b + 1);
}

enum class LineKind { kOther, kSection, kKey };

struct Line {
  LineKind eKind = LineKind::kOther;
  std::string sName;  // section name or key
  std::string sValue;
};

Line classify(const std::string& raw) {
  Line line;
  std::string t = trim(raw);
  if (t.empty() || t[0] == '#' || t[0] == ';') return line;
  if (t[0] == '[' && t.back() == ']') {
    line.eKind = LineKind::kSection;
    line.sName = t.substr(1, t.size() - 2);
    return line;
  }
  size_t eq = t.find('=');
  if (eq == std::string::npos) return line;
  line.eKind = LineKind::kKey;
  line.sName = trim(t.substr(0, eq));
  line.sValue = trim(t.substr(eq + 1));
  return line;
}

// The line as the file holds it: the splitter drops the \r of a CRLF ending, and a rewrite keeps
// every line it does not change byte for byte.
std::string_view asWritten(std::string_view text, std::string_view line) {
  const size_t end = static_cast<size_t>(line.data() - text.data()) + line.size();
  if (end < text.size() && text[end] == '\r')
    line = text.substr(end - line.size(), line.size() + 1);
  return line;
}

}  // namespace

bool findSetting(const std::string& text, const std::string& section, const std::string& key,
                 std::string& value) {
  bool found = false;
  bool inSection = section.empty();
  for (const std::string_view raw : hds::text::splitLines(text)) {
    Line line = classify(std::string(raw));
    if (line.eKind == LineKind::kSection) {
      inSection = line.sName == section;
    } else if (line.eKind == LineKind::kKey && inSection && line.sName == key) {
      value = line.sValue;
      found = true;
    }
  }
  return found;
}

std::string withSetting(const std::string& text, const std::string& section, const std::string& key,
                        const std::string* value) {
  const std::vector<std::string_view> lines = hds::text::splitLines(text);
  std::vector<bool> drop(lines.size(), false);
  long lastKey = -1;     // last line holding the key in the section
  long sectionEnd = -1;  // last key (or header) line of the last block of the section
  bool inSection = section.empty();
  for (size_t i = 0; i < lines.size(); ++i) {
    Line line = classify(std::string(lines[i]));
    if (line.eKind == LineKind::kSection) {
      inSection = line.sName == section;
      if (inSection) sectionEnd = static_cast<long>(i);
      continue;
    }
    if (!inSection || line.eKind != LineKind::kKey) continue;
    sectionEnd = static_cast<long>(i);
    if (line.sName == key) {
      if (value == nullptr) drop[i] = true;
      lastKey = static_cast<long>(i);
    }
  }
  std::string entry = value != nullptr ? key + "=" + *value : std::string();
  std::string out;
  out.reserve(text.size() + entry.size() + section.size() + 8);
  bool placed = value == nullptr || lastKey >= 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (drop[i]) continue;
    if (value != nullptr && static_cast<long>(i) == lastKey) {
      out += entry;
    } else {
      out += asWritten(text, lines[i]);
    }
    out += '\n';
    if (!placed && static_cast<long>(i) == sectionEnd) {
      out += entry + "\n";
      placed = true;
    }
  }
  if (!placed) {
    if (!out.empty()) out += '\n';
    if (!section.empty()) out += "[" + section + "]\n";
    out += entry + "\n";
  }
  return out;
}

void setSettingsFaultForTest(SettingsFault fault) { g_eFault.store(fault); }

}  // namespace hds::platform

namespace {

using hds::platform::SettingsFault;

thread_local std::string t_sLastError;

bool failWith(const std::string& path, const std::string& reason) {
  t_sLastError = "Settings file [" + path + "] " + reason;
  return false;
}

// The file the settings path names once symbolic links are followed; operators keep the file
// under version control and link it into place. A dangling link names the file it would create.
bool resolveSettingsPath(const std::string& path, std::string& real) {
  real = path;
  for (int hops = 0; hops < 40; ++hops) {
    char target[PATH_MAX];
    ssize_t n = readlink(real.c_str(), target, sizeof(target) - 1);
    if (n < 0)
      return errno == EINVAL || errno == ENOENT || failWith(path, hds::platform::errnoText(errno));
    target[n] = '\0';
    if (target[0] == '/') {
      real = target;
    } else {
      size_t slash = real.rfind('/');
      real = (slash == std::string::npos ? std::string() : real.substr(0, slash + 1)) + target;
    }
  }
  return failWith(path, hds::platform::errnoText(ELOOP));
}

// Settings are text; a NUL or another control character means the file is something else (a
// binary copied over it, a disk block gone bad), and guessing at it would run jobs on defaults.
bool looksLikeText(const std::string& text) {
  for (unsigned char c : text) {
    if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7f) return false;
  }
  return true;
}

// The whole settings text; a missing file is an empty one. false, with the reason kept for
// lastError(), when the file exists and cannot be used: never "nothing set" for a file that is
// there.
bool readSettings(std::string& text) {
  text.clear();
  const std::string path = VTPlatformInfo::settingsFile();
  std::string real;
  if (!resolveSettingsPath(path, real)) return false;
  int fd;
  do {
    // O_NONBLOCK: a FIFO put at the path must not hang the reader; it is refused below.
    fd = open(real.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    if (errno == ENOENT) {
      t_sLastError.clear();
      return true;
    }
    return failWith(path, "cannot be read: " + hds::platform::errnoText(errno));
  }
  struct stat st;
  bool regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  close(fd);
  if (!regular) return failWith(path, "is not a regular file");
  CZoError err = CZoFile::ReadWholeFile(real, text);
  if (err.IsError()) {
    text.clear();
    return failWith(path, "cannot be read: " + hds::platform::errnoText(err.Errno()));
  }
  if (!looksLikeText(text)) {
    text.clear();
    return failWith(path, "is not a text file");
  }
  t_sLastError.clear();
  return true;
}

bool lookup(const char* section, const char* key, std::string& value) {
  if (section == nullptr || key == nullptr) return false;
  std::string text;
  readSettings(text);
  return hds::platform::findSetting(text, section, key, value);
}

bool parseInt(const std::string& s, long long lo, long long hi, long long& out) {
  if (s.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long long v = strtoll(s.c_str(), &end, 10);
  if (errno != 0 || end == s.c_str() || *end != '\0' || v < lo || v > hi) return false;
  out = v;
  return true;
}

int injected(SettingsFault step) {
  return hds::platform::g_eFault.load(std::memory_order_relaxed) == step ? EIO : 0;
}

std::string directoryOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
}

// Read-modify-write of the whole file. The lock is on a separate file that is never replaced:
// a lock on the settings file itself would be lost with the inode that rename swaps out. The new
// text goes to a temp file in the same directory, synced before the rename, so a reader sees the
// old file or the new one and a crash leaves one of them whole.
bool rewrite(const std::function<bool(std::string& text)>& modify) {
  const std::string path = VTPlatformInfo::settingsFile();
  if (int err = hds::platform::ensurePrivateDirectory(directoryOf(path), 0755); err != 0) {
    return failWith(path, "cannot be written: directory [" + directoryOf(path) +
                              "]: " + hds::platform::errnoText(err));
  }

  // The lock sits beside the configured path, so every writer meets the same one wherever the
  // link points; temp file and rename go beside the real file, so the link stays a link.
  int lockFd;
  do {
    lockFd = open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  } while (lockFd < 0 && errno == EINTR);
  if (lockFd < 0)
    return failWith(path + ".lock", "cannot be opened: " + hds::platform::errnoText(errno));
  while (flock(lockFd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      close(lockFd);
      return failWith(path + ".lock", "cannot be locked: " + hds::platform::errnoText(errno));
    }
  }

  bool ok = false;
  std::string text;
  std::string real;
  if (readSettings(text) && resolveSettingsPath(path, real)) {
    const std::string dir = directoryOf(real);
    const std::string tmp = real + ".tmp";
    std::string before = text;
    if (!modify(text)) {
      ok = false;
    } else if (text == before) {
      ok = true;
    } else {
      struct stat st;
      int mode = stat(real.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 0666) : 0644;
      // A temp file a crashed writer left behind is ours to replace: we hold the lock.
      unlink(tmp.c_str());
      CZoFile file;
      CZoError err = file.Open(tmp, O_WRONLY | O_CREAT | O_EXCL, mode);
      if (err.IsError()) {
        failWith(path,
                 "cannot be written: [" + tmp + "]: " + hds::platform::errnoText(err.Errno()));
      } else {
        err = file.Write(text.data(), text.size());
        if (!err.IsError() && injected(SettingsFault::kWrite)) err = CZoError(EIO);
        if (!err.IsError()) err = file.Flush();
        if (!err.IsError() && injected(SettingsFault::kFsync)) err = CZoError(EIO);
        CZoError closed = file.Close();
        if (!err.IsError()) err = closed;
        if (!err.IsError() && injected(SettingsFault::kRename)) err = CZoError(EIO);
        if (!err.IsError() && rename(tmp.c_str(), real.c_str()) != 0) err = CZoError(errno);
        if (err.IsError()) {
          unlink(tmp.c_str());
          failWith(path, "cannot be written: " + hds::platform::errnoText(err.Errno()));
        } else {
          int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
          if (dirFd >= 0) {
            fsync(dirFd);
            close(dirFd);
          }
          ok = true;
        }
      }
    }
  }
  flock(lockFd, LOCK_UN);
  close(lockFd);
  return ok;
}

bool validValue(const std::string& value) {
  return value.find_first_of("\r\n") == std::string::npos;
}

bool setValue(const char* section, const char* key, const std::string* value) {
  if (section == nullptr || key == nullptr || *key == '\0') return false;
  if (value != nullptr && !validValue(*value)) return false;
  return rewrite([&](std::string& text) {
    text = hds::platform::withSetting(text, section, key, value);
    return true;
  });
}

}  // namespace

bool VTPlatformInfo::getRegInt(const char* section, const char* key, int* value) {
  std::string text;
  long long v;
  if (!lookup(section, key, text) || !parseInt(text, INT_MIN, INT_MAX, v)) return false;
  if (value != nullptr) *value = static_cast<int>(v);
  return true;
}

bool VTPlatformInfo::setRegInt(const char* section, const char* key, int value) {
  std::string text = std::to_string(value);
  return setValue(section, key, &text);
}

bool VTPlatformInfo::getString(const char* section, const char* key, char* buf, size_t size) {
  std::string text;
  if (!lookup(section, key, text) || buf == nullptr || size == 0) return false;
  size_t n = std::min(text.size(), size - 1);
  memcpy(buf, text.data(), n);
  buf[n] = '\0';
  return true;
}

bool VTPlatformInfo::setString(const char* section, const char* key, const std::string& value) {
  return setValue(section, key, &value);
}

bool VTPlatformInfo::getNumber(const char* section, const char* key, unsigned long* value) {
  std::string text;
  if (!lookup(section, key, text) || text.empty() || text[0] == '-') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long v = strtoul(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str() || *end != '\0') return false;
  if (value != nullptr) *value = v;
  return true;
}

bool VTPlatformInfo::removeKey(const char* section, const char* key) {
  return setValue(section, key, nullptr);
}

bool VTPlatformInfo::updateRegInt(const char* section, const char* key,
                                  const std::function<int(bool present, int current)>& fn) {
  if (section == nullptr || key == nullptr || *key == '\0' || !fn) return false;
  return rewrite([&](std::string& text) {
    std::string current;
    long long v = 0;
    bool present = hds::platform::findSetting(text, section, key, current) &&
                   parseInt(current, INT_MIN, INT_MAX, v);
    std::string next = std::to_string(fn(present, present ? static_cast<int>(v) : 0));
    text = hds::platform::withSetting(text, section, key, &next);
    return true;
  });
}

bool VTPlatformInfo::setStrings(const char* section,
                                const std::vector<std::pair<std::string, std::string>>& values) {
  if (section == nullptr) return false;
  for (const auto& entry : values) {
    if (entry.first.empty() || !validValue(entry.second)) return false;
  }
  return rewrite([&](std::string& text) {
    for (const auto& entry : values) {
      text = hds::platform::withSetting(text, section, entry.first, &entry.second);
    }
    return true;
  });
}

bool VTPlatformInfo::checkSettingsFile(std::string& problem) {
  std::string text;
  if (readSettings(text)) return true;
  problem = t_sLastError;
  return false;
}

std::string VTPlatformInfo::lastError() { return t_sLastError; }

std::string VTPlatformInfo::bootIdentity() {
  std::string text;
  const std::string path =
      hds::platform::envOr("HDS_BOOT_ID_FILE", "/proc/sys/kernel/random/boot_id");
  if (CZoFile::ReadWholeFile(path, text).IsError()) return std::string();
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
  // It becomes a settings value: one line.
  return validValue(text) ? text : std::string();
}

bool VTPlatformInfo::getClientHostName(const std::string&, std::string& hostName) {
  std::string text;
  if (!lookup("iHarbor", "sClientHostName", text) || text.empty()) return false;
  hostName = text;
  return true;
}

std::string VTPlatformInfo::settingsFile() {
  return hds::platform::envOr("HDS_SETTINGS_FILE", "/etc/hds/settings.conf");
}
