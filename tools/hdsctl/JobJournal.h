#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hds/platform/VtNamedMutex.h"
#include "tools/hdsctl/Session.h"

namespace hdsctl {

// One thing a job made on the array (or holds there) and how it is given back. kind is one of
// "session", "lock", "svol", "device groups", "snapshots", "host group", "luns"; args holds what
// the undo needs (LDEV numbers, names, the port, the login count's generation).
struct UndoEntry {
  int id = 0;
  std::string kind;
  nlohmann::json args = nlohmann::json::object();
};

// "S-VOL 2000", "device groups KS_DEV_P_x and KS_DEV_S_x": how reports name an entry.
std::string describeUndo(const UndoEntry& entry);

// The durable undo stack of one job: $HDS_TEMP_DIR/jobs/<name>.journal, one JSON object a line.
// The first line says whose it is: the job, the runner's pid and boot identity and how to reach
// the array (never the password). Then {"do": kind, "id": n, ...args} before each change on the
// array and {"undone": n} once it is given back. Each line is one write and is on disk (fsync)
// before the call it announces.
class JobJournal {
 public:
  static std::string directory();
  static std::string pathFor(const std::string& jobName);
  // The names of the jobs that have a journal.
  static std::vector<std::string> jobNames();

  // Starts a new journal for the job; a Failure naming the file when it cannot be written.
  void begin(const std::string& jobName, const ArrayOptions& array);
  // Goes on with the journal of a dead job, cut to its last whole line.
  void reopen(const std::string& path, size_t wholeBytes);
  void add(const UndoEntry& entry);
  void undone(int id);
  // The job ended clean: the journal goes, and its directory when it is the last.
  void remove();
  bool isOpen() const { return m_iFd >= 0; }
  const std::string& path() const { return m_sPath; }

  struct Contents {
    std::string job;
    ArrayOptions array;  // without a password
    long pid = 0;
    std::string boot;
    std::vector<UndoEntry> open;  // made and not undone, oldest first
    size_t wholeBytes = 0;        // the length up to the end of the last whole line
  };
  // A torn last line (the runner died in its write) is ignored; anything else that cannot be
  // read is a Failure that names the file.
  static Contents read(const std::string& path);

  JobJournal() = default;
  ~JobJournal();
  JobJournal(const JobJournal&) = delete;
  JobJournal& operator=(const JobJournal&) = delete;

 private:
  int m_iFd = -1;
  std::string m_sPath;

  void append(const nlohmann::json& record);
};

// This boot of the host (/proc/sys/kernel/random/boot_id); "" when it cannot be read.
std::string bootIdentity();

// The host-wide lock "hdsctl job <name>" that a job's runner holds for its whole life: a free
// lock means a dead runner, whatever its pid has become since.
class JobLock {
 public:
  explicit JobLock(const std::string& jobName);
  // Without waiting; false when another process holds it. A Failure when the lock cannot be made.
  bool tryLock();

 private:
  VtNamedMutex m_oMutex;
};

// Gives back what a job made, each removal read back: used by the job's own steps, by its
// clean-up and by hdsctl recover. After a call that ran into the command time-out the array
// counts as not answering and nothing more is tried.
class Undoer {
 public:
  Undoer(ArraySession& session, const std::string& serial);

  // True when the entry's objects were removed and read back as gone; otherwise false with the
  // reason in why. Entries of kind "session" and "lock" are the session's and not handled here.
  bool undo(const UndoEntry& entry, std::string& why);
  bool arrayDead() const { return m_bDead; }

  // The one place where the job deletes an S-VOL: only LDEVs its journal says it made come here.
  // ldev is the LDEV as just read.
  void deleteJobSvol(const hdsLdev_t& ldev);

 private:
  ArraySession& m_rSession;
  std::string m_sSerial;
  int m_iTimeoutSec;
  bool m_bDead = false;

  RaidcomCommandHandler& h() { return m_rSession.handler(); }
  // Failure with the library's error (or this one) when rc is not 0; notes a time-out.
  void require(int rc, const std::string& what, double seconds, std::string error = "");
  template <class Fn>
  void call(Fn fn, const std::string& what);

  void undoSvol(const nlohmann::json& args);
  void undoDeviceGroups(const nlohmann::json& args);
  void undoSnapshots(const nlohmann::json& args);
  void undoHostGroup(const nlohmann::json& args, std::string& note);
  void undoLuns(const nlohmann::json& args);
};

// The host-wide lock of one host group of an array, held by the jobs of this host while they look
// a group up and make it or present on it, and while they withdraw from it and remove it: the
// group a job found is not removed under it, nor one it removes made anew meanwhile. A Failure
// when it cannot be had.
std::unique_ptr<VtNamedMutex> lockHostGroup(const std::string& serial, const std::string& port,
                                            const std::string& name);

// The command time-out of the library ("nVTHDSCCICommandTimeoutInSec", at least 30 s).
int commandTimeoutSeconds();

}  // namespace hdsctl
