// The job journal, the job lock and the undo of what a job made.
#include "tools/hdsctl/JobJournal.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "hds/common/HDSConstants.h"
#include "hds/platform/VTPI_Base.h"
#include "hds/platform/VTPlatformInfo.h"
#include "tools/hdsctl/Guard.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

using nlohmann::json;

namespace {

constexpr const char* kJournalSuffix = ".journal";

std::string errnoText() { return strerror(errno); }

json arrayJson(const ArrayOptions& a) {
  return {{"serial", a.serial},
          {"user", a.user},
          {"command_devices", a.commandDevices},
          {"horcm_instance", a.horcmInstance},
          {"resource_group", a.resourceGroup},
          {"cci_dir", a.cciDir}};
}

ArrayOptions arrayOf(const json& a) {
  ArrayOptions o;
  o.serial = a.value("serial", "");
  o.user = a.value("user", "");
  o.commandDevices = a.value("command_devices", std::vector<std::string>{});
  o.horcmInstance = a.value("horcm_instance", "");
  o.resourceGroup = a.value("resource_group", "");
  o.cciDir = a.value("cci_dir", "");
  return o;
}

std::vector<std::string> texts(const json& args, const char* key) {
  return args.value(key, std::vector<std::string>{});
}

}  // namespace

std::string describeUndo(const UndoEntry& e) {
  const json& a = e.args;
  if (e.kind == "svol") return "S-VOL " + a.value("ldev", "");
  if (e.kind == "device groups") {
    std::vector<std::string> names;
    const json groups = a.value("groups", json::object());
    for (const auto& g : groups.items()) names.push_back(g.key());
    return "device groups " + joinWords(names, " and ");
  }
  if (e.kind == "snapshots") {
    return "snapshot pairs of " + a.value("group", "") + " (S-VOLs " +
           joinWords(texts(a, "svols"), ", ") + ")";
  }
  if (e.kind == "host group") {
    return "host group " + a.value("name", "") + " on " + a.value("port", "");
  }
  if (e.kind == "luns") {
    return "LUNs of S-VOLs " + joinWords(texts(a, "svols"), ", ") + " on " + a.value("port", "") +
           "-" + a.value("host_group_id", "");
  }
  if (e.kind == "lock") return "resource group lock";
  if (e.kind == "session") return "session on array " + a.value("serial", "");
  return e.kind;
}

// The library's reading, so that a journal and the login count agree on what a reboot is.
std::string bootIdentity() { return VTPlatformInfo::bootIdentity(); }

std::string JobJournal::directory() {
  const char* temp = VTPI_Base::getOrreryTempDirectory();
  if (temp == nullptr) throw Failure("the library's temporary directory cannot be made");
  return std::string(temp) + "/jobs";
}

std::string JobJournal::pathFor(const std::string& jobName) {
  return directory() + "/" + jobName + kJournalSuffix;
}

std::vector<std::string> JobJournal::jobNames() {
  std::vector<std::string> names;
  DIR* dir = opendir(directory().c_str());
  if (dir == nullptr) return names;
  const std::string suffix = kJournalSuffix;
  while (const dirent* d = readdir(dir)) {
    std::string file = d->d_name;
    if (file.size() > suffix.size() &&
        file.compare(file.size() - suffix.size(), suffix.size(), suffix) == 0) {
      names.push_back(file.substr(0, file.size() - suffix.size()));
    }
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

JobJournal::~JobJournal() {
  if (m_iFd >= 0) close(m_iFd);
}

void JobJournal::begin(const std::string& jobName, const ArrayOptions& array) {
  m_sPath = pathFor(jobName);
  const std::string dir = directory();
  // Another job that just ended may remove the directory between the two calls.
  for (int attempt = 0; attempt < 3 && m_iFd < 0; ++attempt) {
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) break;
    m_iFd = open(m_sPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW,
                 0600);
    if (m_iFd < 0 && errno != ENOENT) break;
  }
  if (m_iFd < 0) throw Failure("cannot write the job journal " + m_sPath + ": " + errnoText());
  append({{"job", jobName},
          {"pid", static_cast<long>(getpid())},
          {"boot", bootIdentity()},
          {"array", arrayJson(array)}});
  // The new file's name must survive a crash as well as its content.
  const int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    (void)fsync(dirFd);
    close(dirFd);
  }
}

void JobJournal::reopen(const std::string& path, size_t wholeBytes) {
  m_sPath = path;
  m_iFd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW);
  if (m_iFd < 0 || ftruncate(m_iFd, static_cast<off_t>(wholeBytes)) != 0) {
    throw Failure("cannot write the job journal " + path + ": " + errnoText());
  }
}

void JobJournal::append(const json& record) {
  const std::string line = record.dump() + "\n";
  ssize_t n;
  do {
    n = write(m_iFd, line.data(), line.size());
  } while (n < 0 && errno == EINTR);
  if (n != static_cast<ssize_t>(line.size()) || fsync(m_iFd) != 0) {
    throw Failure("cannot write the job journal " + m_sPath + ": " +
                  (n < 0 ? errnoText() : "short write or fsync failed"));
  }
}

void JobJournal::add(const UndoEntry& entry) {
  json record = entry.args;
  record["do"] = entry.kind;
  record["id"] = entry.id;
  append(record);
}

void JobJournal::undone(int id) { append({{"undone", id}}); }

void JobJournal::remove() {
  if (m_iFd < 0) return;
  close(m_iFd);
  m_iFd = -1;
  unlink(m_sPath.c_str());
  (void)rmdir(directory().c_str());
}

JobJournal::Contents JobJournal::read(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw Failure("cannot read the job journal " + path + ": " + errnoText());
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw Failure("cannot read the job journal " + path);
  Contents c;
  std::istringstream lines(text);
  std::string line;
  size_t number = 0;
  bool header = false;
  while (std::getline(lines, line)) {
    ++number;
    const bool last = lines.eof();
    const size_t end = last ? text.size() : static_cast<size_t>(lines.tellg());
    // Each line is written whole with its line feed: one without it is the write the runner died
    // in, and the change it announced was never made.
    if (last && text.back() != '\n') break;
    json record = json::parse(line, nullptr, false);
    if (record.is_discarded() || !record.is_object()) {
      throw Failure("the job journal " + path + " cannot be read: line " + std::to_string(number) +
                    " is not a record");
    }
    try {
      if (!header) {
        c.job = record.at("job").get<std::string>();
        c.pid = record.at("pid").get<long>();
        c.boot = record.at("boot").get<std::string>();
        c.array = arrayOf(record.at("array"));
        header = true;
      } else if (record.contains("undone")) {
        const int id = record["undone"].get<int>();
        for (auto it = c.open.begin(); it != c.open.end(); ++it) {
          if (it->id == id) {
            c.open.erase(it);
            break;
          }
        }
      } else {
        UndoEntry e;
        e.kind = record.at("do").get<std::string>();
        e.id = record.at("id").get<int>();
        record.erase("do");
        record.erase("id");
        e.args = record;
        c.open.push_back(e);
      }
    } catch (const json::exception&) {
      throw Failure("the job journal " + path + " cannot be read: line " + std::to_string(number) +
                    " is not a record");
    }
    c.wholeBytes = end;
  }
  if (!header) throw Failure("the job journal " + path + " cannot be read: it has no header");
  return c;
}

JobLock::JobLock(const std::string& jobName) : m_oMutex("hdsctl job " + jobName) {}

bool JobLock::tryLock() {
  if (!m_oMutex.isValid()) throw Failure("cannot make the job's lock: " + m_oMutex.lastError());
  return m_oMutex.lock(0);
}

std::unique_ptr<VtNamedMutex> lockHostGroup(const std::string& serial, const std::string& port,
                                            const std::string& name) {
  std::string key = port + " " + name;
  // Host group names compare without regard to case on the array.
  for (char& c : key) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  std::unique_ptr<VtNamedMutex> lock(new VtNamedMutex("hdsctl host group " + serial + " " + key));
  if (!lock->isValid() || !lock->lock(30UL * 60 * 1000)) {
    throw Failure("cannot take the host's lock of host group " + name + " on " + port);
  }
  return lock;
}

int commandTimeoutSeconds() {
  int timeout = 0;
  if (!VTPlatformInfo::getRegInt(VT_HDS_REG_SECTION_LOCAL, "nVTHDSCCICommandTimeoutInSec",
                                 &timeout) ||
      timeout <= 0) {
    return VT_HDS_COMMAND_TIMEOUT_DEFAULT;
  }
  return std::max(timeout, VT_HDS_COMMAND_TIMEOUT_MIN);
}

Undoer::Undoer(ArraySession& session, const std::string& serial)
    : m_rSession(session), m_sSerial(serial), m_iTimeoutSec(commandTimeoutSeconds()) {}

void Undoer::require(int rc, const std::string& what, double seconds, std::string error) {
  if (rc == 0) return;
  if (error.empty()) error = handlerError(m_rSession.handler());
  // A call that used up the command time-out will use it up again: the array is not answering.
  if (seconds >= m_iTimeoutSec * 0.9 || error.find("timedout") != std::string::npos) m_bDead = true;
  throw Failure(what + ": " + error);
}

template <class Fn>
void Undoer::call(Fn fn, const std::string& what) {
  if (m_bDead) throw Failure(what + ": not tried, the array did not answer in time");
  const auto start = std::chrono::steady_clock::now();
  const int rc = static_cast<int>(fn());
  require(rc, what,
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
}

bool Undoer::undo(const UndoEntry& entry, std::string& why) {
  why.clear();
  try {
    if (entry.kind == "svol") {
      undoSvol(entry.args);
    } else if (entry.kind == "device groups") {
      undoDeviceGroups(entry.args);
    } else if (entry.kind == "snapshots") {
      undoSnapshots(entry.args);
    } else if (entry.kind == "host group") {
      undoHostGroup(entry.args, why);
    } else if (entry.kind == "luns") {
      undoLuns(entry.args);
    } else {
      why = "not an object on the array";
      return false;
    }
    return true;
  } catch (const std::exception& e) {
    why = e.what();
    return false;
  }
}

void Undoer::deleteJobSvol(const hdsLdev_t& ldev) {
  // A fresh S-VOL carries no label until the job's label step; one named since, with anything
  // but the S-VOL prefix, is judged as hdsctl's removal commands judge an LDEV, so a number the
  // array gave to someone else's volume in between is never deleted.
  if (!ldev.label.empty() && ldev.label != VT_HDS_BLANK_LDEV_LABEL &&
      ldev.label.rfind(VT_HDS_LDEV_LABEL_PREFIX, 0) != 0) {
    std::vector<hdsSnapshotGroupInfo> pairs;
    call([&] { return h().getSnapshotGroupList(pairs, ldev.ldevId); },
         "cannot read the snapshot pairs of S-VOL " + ldev.ldevId);
    const SvolVerdict verdict = judgeSvol(ldev, pairs);
    if (!verdict.isSvol) {
      throw Failure(verdict.description + " is no longer an S-VOL; not deleted");
    }
  }
  call([&] { return h().deleteSvol(ldev.ldevId); }, "cannot delete S-VOL " + ldev.ldevId);
}

void Undoer::undoSvol(const json& args) {
  const std::string ldev = args.value("ldev", "");
  std::vector<hdsLdev_t> one(1);
  one[0].ldevId = ldev;
  one[0].serialNumber = m_sSerial;
  // An S-VOL whose creation never ran leaves nothing to delete.
  // Read as undefined only when a volume type was read at all: garbage reads as no capacity.
  auto undefined = [&] {
    return !one[0].volType.empty() &&
           (one[0].capacity == 0 || one[0].volAttr == VT_HDS_VOL_NOT_DEFINED);
  };
  call([&] { return h().getLdevInfo(one); }, "cannot read S-VOL " + ldev);
  if (!undefined()) {
    deleteJobSvol(one[0]);
    one.assign(1, hdsLdev_t());
    one[0].ldevId = ldev;
    one[0].serialNumber = m_sSerial;
    call([&] { return h().getLdevInfo(one); }, "cannot read S-VOL " + ldev + " back");
  }
  if (!undefined()) {
    throw Failure("S-VOL " + ldev + " does not read back as deleted");
  }
}

void Undoer::undoDeviceGroups(const json& args) {
  const json groups = args.value("groups", json::object());
  // Member by member, without a listing first: each answer, removed or not a member, is the
  // array's own word, which a listing that answers garbage is not.
  for (const auto& group : groups.items()) {
    for (const std::string& ldev : group.value().get<std::vector<std::string>>()) {
      call([&] { return h().deleteLdevFromDeviceGroup(ldev, group.key()); },
           "cannot delete device group " + group.key());
    }
  }
  std::vector<std::string> listed;
  call([&] { return h().getDeviceGroupList(listed); }, "cannot list the device groups");
  for (const auto& group : groups.items()) {
    if (std::find(listed.begin(), listed.end(), group.key()) != listed.end()) {
      throw Failure("device group " + group.key() + " does not read back as deleted");
    }
  }
}

void Undoer::undoSnapshots(const json& args) {
  const std::string group = args.value("group", "");
  const std::vector<std::string> svols = texts(args, "svols");
  auto pairsOfOurs = [&] {
    std::set<std::string> ours;
    for (const std::string& svol : svols) {
      std::vector<hdsSnapshotGroupInfo> rows;
      call([&] { return h().getSnapshotGroupList(rows, svol); },
           "cannot list the snapshot pairs of S-VOL " + svol);
      for (const hdsSnapshotGroupInfo& r : rows) {
        // Rows that are not pairs of LDEVs are not a listing: nothing can be read from them,
        // least of all that the pair is gone.
        if (!isDecimal(r.ldevId) || !isDecimal(r.partnerLdevId)) {
          throw Failure("the snapshot listing of S-VOL " + svol + " cannot be read");
        }
        if (r.snapshotGroupName == group) ours.insert(svol);
      }
    }
    return ours;
  };
  for (const std::string& svol : pairsOfOurs()) {
    call([&] { return h().deleteSnapshot(svol); },
         "cannot delete the snapshot pair of S-VOL " + svol);
  }
  if (!pairsOfOurs().empty()) {
    throw Failure("snapshot pairs of " + group + " do not read back as deleted");
  }
}

void Undoer::undoHostGroup(const json& args, std::string& note) {
  const std::string port = args.value("port", "");
  const std::string name = args.value("name", "");
  const std::vector<std::string> svols = texts(args, "svols");
  const std::unique_ptr<VtNamedMutex> lock = lockHostGroup(m_sSerial, port, name);
  std::string id = lookUpHostGroup(m_rSession, port, name);
  if (id.empty()) return;
  // Another job that found the group may have presented its S-VOLs there meanwhile; removing
  // the group would withdraw them under that job.
  std::vector<hdsLun_t> luns;
  call([&] { return h().getLunsForHostGroup(port, id, luns); },
       "cannot list the LUNs of " + port + "-" + id);
  for (const hdsLun_t& lun : luns) {
    if (std::find(svols.begin(), svols.end(), lun.ldevId) == svols.end()) {
      note = "LUNs of others are in it";
      return;
    }
  }
  call([&] { return h().deleteHostGroup(port, name); }, "cannot remove host group " + name);
  if (!lookUpHostGroup(m_rSession, port, name).empty()) {
    throw Failure("host group " + name + " on " + port + " does not read back as removed");
  }
}

void Undoer::undoLuns(const json& args) {
  const std::string port = args.value("port", "");
  const std::string id = args.value("host_group_id", "");
  const std::vector<std::string> svols = texts(args, "svols");
  const std::unique_ptr<VtNamedMutex> lock =
      lockHostGroup(m_sSerial, port, args.value("host_group", id));
  auto ourLuns = [&] {
    std::vector<hdsLun_t> luns;
    if (m_bDead) throw Failure("cannot list the LUNs: not tried, the array did not answer in time");
    const auto start = std::chrono::steady_clock::now();
    if (h().getLunsForHostGroup(port, id, luns) != 0) {
      const double seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      const std::string error = handlerError(h());
      // The job that made the group may have removed it, and our LUNs with it.
      if (lookUpHostGroup(m_rSession, port, id).empty()) return std::vector<std::string>{};
      require(1, "cannot list the LUNs of " + port + "-" + id, seconds, error);
    }
    std::vector<std::string> ours;
    for (const hdsLun_t& lun : luns) {
      if (std::find(svols.begin(), svols.end(), lun.ldevId) != svols.end()) {
        ours.push_back(lun.ldevId);
      }
    }
    return ours;
  };
  for (const std::string& ldev : ourLuns()) {
    call([&] { return h().unmapLdevFromHostGroup(ldev, port, id); }, "cannot unmap S-VOL " + ldev);
  }
  if (!ourLuns().empty()) {
    throw Failure("LUNs on " + port + "-" + id + " do not read back as removed");
  }
}

}  // namespace hdsctl
