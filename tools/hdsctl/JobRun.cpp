// The run of hdsctl job: a table of steps and an undo stack that the journal keeps on disk.
#include "tools/hdsctl/JobRun.h"

#include <signal.h>
#include <stdio.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <functional>
#include <iostream>
#include <memory>
#include <set>
#include <thread>

#include "hds/common/HDSConstants.h"
#include "hds/platform/VtNamedMutex.h"
#include "hds/raidcom/LoginCount.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

using nlohmann::json;

namespace {

constexpr const char* kSnapshotGroupPrefix = "KS_SNAP_";
// A step that reads back what a script did: the library judges a script by its last line, but
// the job reads the outcome back before it says the step is done.
constexpr const char* kUnconfirmed = " (the step's script ended without an error)";
// How many other numbers a job tries when the array says an S-VOL number is already defined.
constexpr int kSvolNumberRetries = 3;
// Jobs of this host wait at most this long for each other around choosing and creating S-VOLs.
constexpr unsigned long kSvolLockWaitMs = 30UL * 60 * 1000;

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string gibibytes(uint64_t blocks) {
  char buf[32];
  (void)snprintf(buf, sizeof(buf), "%.1f GiB", static_cast<double>(blocks) * 512.0 / (1 << 30));
  return buf;
}

}  // namespace

volatile sig_atomic_t g_iJobInterrupted = 0;

class JobRun {
 public:
  JobRun(Context& ctx, JobSpec jobSpec, JobJournal& journal)
      : m_oCtx(ctx),
        m_oSpec(std::move(jobSpec)),
        m_rJournal(journal),
        m_oProgress(ctx.json ? std::cerr : std::cout),
        m_sSvolGroup(VT_HDS_SVOL_DEVICE_GRP_PREFIX + m_oSpec.name),
        m_sPvolGroup(VT_HDS_PVOL_DEVICE_GRP_PREFIX + m_oSpec.name),
        m_sSnapshotGroup(kSnapshotGroupPrefix + m_oSpec.name) {
    m_oReport.job = m_oSpec.name;
    m_oReport.serial = m_oSpec.array.serial;
    m_oReport.pvols = m_oSpec.pvols;
  }

  int run(const json& extra);

 private:
  struct Step {
    const char* name;
    std::function<std::string()> fn;
  };

  Context& m_oCtx;
  JobSpec m_oSpec;
  JobJournal& m_rJournal;
  std::ostream& m_oProgress;
  std::string m_sSvolGroup, m_sPvolGroup, m_sSnapshotGroup, m_sHostGroupId;
  std::unique_ptr<ArraySession> m_pSession;
  std::unique_ptr<Undoer> m_pUndoer;
  std::unique_ptr<VtNamedMutex> m_pSvolLock;
  JobReport m_oReport;
  // The job's state, passed to the library as it is (see JobReport::pairs).
  std::map<std::string, hdsLdev_t>& m_oPairs = m_oReport.pairs;
  // What the job made and holds, newest last; the journal has each entry before its call.
  std::vector<UndoEntry> m_oUndo;
  int m_iNextUndoId = 1;
  // S-VOL numbers the array rejected as already defined: another's, passed over.
  std::vector<std::string> m_oTakenByOthers;

  RaidcomCommandHandler& h() { return m_pSession->handler(); }
  void require(int rc, const std::string& what) { m_pSession->require(rc, what); }

  void push(const std::string& kind, json args = json::object());
  void pop(int id);
  // The step that removes the newest object of this kind: undone, read back, popped.
  void removeNewest(const std::string& kind);
  // Pops the newest entry of this kind without an undo: the session's own end gives it back.
  void popNewest(const std::string& kind);
  std::vector<std::string> svolIds() const;

  // The pair of one P-VOL alone, for a call that acts on one pair.
  std::map<std::string, hdsLdev_t> onePair(const std::string& pvol) const {
    return {{pvol, m_oPairs.at(pvol)}};
  }
  std::vector<hdsLdev_t> ldevRecords(const std::vector<std::string>& ids) const;
  void readLdevs(std::vector<hdsLdev_t>& ldevs, const std::string& what);
  void checkLabels();
  void checkDeviceGroup(const std::string& group, bool pvolSide);
  void waitForSnapshots(const std::string& status);
  std::vector<std::string> freeNumbers(size_t count, long from);
  bool createSvol(const std::string& pvol);

  std::string openSession();
  std::string readPvols();
  std::string chooseSvols();
  std::string createSvols();
  std::string labelSvols();
  std::string groupDevices();
  std::string addSnapshots();
  std::string operate(const char* op, const char* status, const std::string& what,
                      const std::string& done);
  std::string present();
  std::string withdraw();
  std::string deleteSnapshots();
  std::string deleteDeviceGroups();
  std::string deleteSvols();
  std::string closeSession();

  void cleanUp();
};

void JobRun::push(const std::string& kind, json args) {
  UndoEntry e;
  e.id = m_iNextUndoId++;
  e.kind = kind;
  e.args = std::move(args);
  m_rJournal.add(e);
  m_oUndo.push_back(std::move(e));
}

void JobRun::pop(int id) {
  m_rJournal.undone(id);
  for (auto it = m_oUndo.begin(); it != m_oUndo.end(); ++it) {
    if (it->id == id) {
      m_oUndo.erase(it);
      return;
    }
  }
}

void JobRun::removeNewest(const std::string& kind) {
  for (auto it = m_oUndo.rbegin(); it != m_oUndo.rend(); ++it) {
    if (it->kind != kind) continue;
    const UndoEntry entry = *it;
    std::string why;
    if (!m_pUndoer->undo(entry, why)) throw Failure(why);
    if (!why.empty()) m_oReport.leftOver.push_back(describeUndo(entry) + " (" + why + ")");
    pop(entry.id);
    return;
  }
}

void JobRun::popNewest(const std::string& kind) {
  for (auto it = m_oUndo.rbegin(); it != m_oUndo.rend(); ++it) {
    if (it->kind == kind) {
      pop(it->id);
      return;
    }
  }
}

std::vector<std::string> JobRun::svolIds() const {
  std::vector<std::string> ids;
  for (const std::string& pvol : m_oSpec.pvols) ids.push_back(m_oPairs.at(pvol).ldevId);
  return ids;
}

std::string JobRun::openSession() {
  m_pSession.reset(new ArraySession(m_oCtx.log, m_oSpec.array));
  m_pUndoer.reset(new Undoer(*m_pSession, m_oSpec.array.serial));
  // Noted once the login is counted, never before: a recover that gave back a session the job
  // never counted would end the session of another process. For the same reason with the
  // count's generation: a count that has started anew since (a forced login) no longer holds it.
  push("session", {{"serial", m_oSpec.array.serial},
                   {"generation", readLoginGeneration(m_oSpec.array.serial)}});
  push("lock");
  require(h().lockResource(), "cannot lock the resource group");
  return "array " + m_oSpec.array.serial + ", resource group " +
         (m_oSpec.array.resourceGroup.empty() ? VT_HDS_META_RESOURCE_NAME
                                              : m_oSpec.array.resourceGroup) +
         " locked";
}

std::vector<hdsLdev_t> JobRun::ldevRecords(const std::vector<std::string>& ids) const {
  std::vector<hdsLdev_t> ldevs;
  for (const std::string& id : ids) {
    hdsLdev_t l;
    l.ldevId = id;
    l.serialNumber = m_oSpec.array.serial;
    ldevs.push_back(l);
  }
  return ldevs;
}

void JobRun::readLdevs(std::vector<hdsLdev_t>& ldevs, const std::string& what) {
  int rc = h().getLdevInfo(ldevs);
  if (rc == 1) require(1, "cannot read " + what);
  if (rc == 0) return;
  // Some were read: the handler's error is then that of its last command, which may have
  // succeeded. Each LDEV not read (it has no volume type yet) is read once more on its own, for
  // a definite answer.
  for (hdsLdev_t& l : ldevs) {
    if (!l.volType.empty()) continue;
    std::vector<hdsLdev_t> one = {l};
    require(h().getLdevInfo(one) == 0 ? 0 : 1, "cannot read LDEV " + l.ldevId);
    l = one.front();
  }
}

std::string JobRun::readPvols() {
  std::vector<hdsLdev_t> ldevs = ldevRecords(m_oSpec.pvols);
  readLdevs(ldevs, "the P-VOLs");
  uint64_t total = 0;
  for (const hdsLdev_t& l : ldevs) {
    if (l.capacity == 0 || l.volAttr == VT_HDS_VOL_NOT_DEFINED) {
      throw Failure("P-VOL " + l.ldevId + " is not a defined LDEV");
    }
    // The S-VOL of the pair: as large as its P-VOL, on the same MP blade.
    hdsLdev_t& svol = m_oPairs[l.ldevId];
    svol.serialNumber = m_oSpec.array.serial;
    svol.capacity = l.capacity;
    svol.mpBladeId = l.mpBladeId;
    total += l.capacity;
  }

  // The groups the job makes must be its own: an existing group of the same name would be
  // mixed with it and then removed with it.
  std::vector<std::string> deviceGroups;
  require(h().getDeviceGroupList(deviceGroups), "cannot list the device groups");
  for (const std::string& g : deviceGroups) {
    if (g == m_sSvolGroup || g == m_sPvolGroup) {
      throw Failure("device group " + g + " already exists; give the job another name");
    }
  }
  std::vector<hdsSnapshotGroupInfo> snapshots;
  require(h().getSnapshotGroupList(snapshots, ""), "cannot list the snapshot groups");
  for (const hdsSnapshotGroupInfo& s : snapshots) {
    if (s.snapshotGroupName == m_sSnapshotGroup) {
      throw Failure("snapshot group " + m_sSnapshotGroup +
                    " already exists; give the job another name");
    }
  }
  return std::to_string(m_oPairs.size()) + " P-VOLs, " + gibibytes(total);
}

std::vector<std::string> JobRun::freeNumbers(size_t count, long from) {
  std::vector<hdsLdev_t> defined;
  std::map<int, std::string> filters = {{VT_HDS_LDEV_FILTER_DEFINED, ""}};
  require(h().getLdevlList(defined, filters), "cannot list the defined LDEVs");
  std::set<long> taken;
  for (const hdsLdev_t& l : defined) taken.insert(std::atol(l.ldevId.c_str()));
  for (const auto& pair : m_oPairs) {
    if (!pair.second.ldevId.empty()) taken.insert(std::atol(pair.second.ldevId.c_str()));
  }
  int maxLdev = 0;
  h().getMaxLdevNumber(maxLdev);
  std::vector<std::string> chosen;
  for (long next = from; chosen.size() < count && next <= maxLdev; ++next) {
    if (!taken.count(next)) chosen.push_back(std::to_string(next));
  }
  if (chosen.size() < count) {
    throw Failure("not enough free LDEV numbers up to " + std::to_string(maxLdev));
  }
  return chosen;
}

std::string JobRun::chooseSvols() {
  // Choosing and creating are one act for the jobs of this host: a number chosen here is not
  // chosen by another job before this one has made it.
  m_pSvolLock.reset(new VtNamedMutex("hdsctl svols " + m_oSpec.array.serial));
  if (!m_pSvolLock->isValid() || !m_pSvolLock->lock(kSvolLockWaitMs)) {
    throw Failure(
        "cannot take the host's S-VOL lock for array " + m_oSpec.array.serial + ": " +
        (m_pSvolLock->isValid() ? "other jobs held it too long" : m_pSvolLock->lastError()));
  }
  std::vector<std::string> chosen = m_oSpec.svols;
  if (chosen.empty()) {
    long from = m_oSpec.svolFirst;
    if (from < 0) {
      for (const std::string& pvol : m_oSpec.pvols) {
        from = std::max(from, std::atol(pvol.c_str()) + 1);
      }
    }
    chosen = freeNumbers(m_oPairs.size(), from);
  } else {
    std::vector<hdsLdev_t> ldevs = ldevRecords(chosen);
    readLdevs(ldevs, "the S-VOL numbers");
    for (const hdsLdev_t& l : ldevs) {
      if (l.capacity != 0 && l.volAttr != VT_HDS_VOL_NOT_DEFINED) {
        throw Failure("S-VOL number " + l.ldevId + " is already a defined LDEV");
      }
    }
  }
  for (size_t i = 0; i < m_oSpec.pvols.size(); ++i) {
    const std::string& pvol = m_oSpec.pvols[i];
    hdsLdev_t& svol = m_oPairs.at(pvol);
    svol.ldevId = chosen[i];
    svol.newLabel = (VT_HDS_LDEV_LABEL_PREFIX + pvol + "_" + m_oSpec.name)
                        .substr(0, static_cast<size_t>(VT_HDS_MAX_LDEV_LABEL_NAME));
  }
  return "LDEVs " + chosen.front() + (chosen.size() > 1 ? " to " + chosen.back() : "");
}

bool JobRun::createSvol(const std::string& pvol) {
  const std::string svol = m_oPairs.at(pvol).ldevId;
  push("svol", {{"ldev", svol}});
  const int id = m_oUndo.back().id;
  if (h().createSvol(onePair(pvol), m_oSpec.pool) == 0) return true;
  const std::string error = handlerError(h());
  // The array's own word on the creation: a number it rejects as already defined was another's
  // before the job's creation ran. That LDEV is none of the job's business.
  bool rejected = false;
  std::string status;
  if (h().getCommandStatus(rejected, status) == 0 && rejected) {
    for (char& c : status) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (status.find("already defined") != std::string::npos) {
      pop(id);
      m_oTakenByOthers.push_back(svol);
      return false;
    }
  }
  std::vector<hdsLdev_t> one = ldevRecords({svol});
  try {
    readLdevs(one, "S-VOL " + svol);
  } catch (const Failure&) {
    // Left in the journal: hdsctl recover reads it again and deletes it if it is there.
    throw Failure("cannot create S-VOL " + svol + ": " + error);
  }
  pop(id);
  if (one[0].capacity == 0 || one[0].volAttr == VT_HDS_VOL_NOT_DEFINED) {
    throw Failure("cannot create S-VOL " + svol + ": " + error);
  }
  // Defined although the creation failed, and the array did not say why: another host took the
  // number, or the creation ran and could not be confirmed. The job cannot tell which, so it
  // names the LDEV for the operator, as possibly another's, and never deletes it.
  m_oReport.leftOver.push_back("LDEV " + svol +
                               " (defined after the job's creation of it failed; not deleted, as "
                               "it may be another's)");
  return false;
}

std::string JobRun::createSvols() {
  for (const std::string& pvol : m_oSpec.pvols) {
    int retries = m_oSpec.svols.empty() ? kSvolNumberRetries : 0;
    std::string& svol = m_oPairs.at(pvol).ldevId;
    while (!createSvol(pvol)) {
      if (retries-- == 0) {
        throw Failure("cannot create S-VOL " + svol +
                      ": the number was taken while the job made it");
      }
      svol = freeNumbers(1, std::atol(svol.c_str()) + 1).front();
    }
  }
  m_pSvolLock.reset();
  std::string done = std::to_string(m_oPairs.size()) + " S-VOLs in pool " + m_oSpec.pool;
  if (!m_oTakenByOthers.empty()) {
    done += " (LDEV " + joinWords(m_oTakenByOthers, ", ") +
            " defined by another meanwhile: skipped, not the job's)";
  }
  return done;
}

void JobRun::checkLabels() {
  std::vector<std::string> ids = svolIds();
  std::vector<hdsLdev_t> svols = ldevRecords(ids);
  readLdevs(svols, "the S-VOLs");
  for (size_t i = 0; i < svols.size(); ++i) {
    const std::string& label = m_oPairs.at(m_oSpec.pvols[i]).newLabel;
    if (svols[i].label != label) {
      throw Failure("S-VOL " + ids[i] + " is not labelled " + label + kUnconfirmed);
    }
  }
}

void JobRun::checkDeviceGroup(const std::string& group, bool pvolSide) {
  std::vector<hdsLdev_t> members;
  require(h().getVolsInDeviceGroup(members, group), "cannot list device group " + group);
  std::set<std::string> in;
  for (const hdsLdev_t& m : members) in.insert(m.ldevId);
  for (const auto& pair : m_oPairs) {
    const std::string& id = pvolSide ? pair.first : pair.second.ldevId;
    if (in.count(id) == 0) {
      std::string what = "LDEV " + id;
      what.append(" is missing from ").append(group).append(kUnconfirmed);
      throw Failure(what);
    }
  }
}

std::string JobRun::labelSvols() {
  require(static_cast<int>(h().modifySvolLabel(m_oPairs, false)), "cannot label the S-VOLs");
  checkLabels();
  return "labels " + m_oPairs.at(m_oSpec.pvols.front()).newLabel +
         (m_oPairs.size() > 1 ? ", ..." : "");
}

std::string JobRun::groupDevices() {
  push("device groups", {{"groups", {{m_sSvolGroup, svolIds()}, {m_sPvolGroup, m_oSpec.pvols}}}});
  require(h().addVolsToDeviceGroup(m_oPairs, m_sSvolGroup, m_sPvolGroup),
          "cannot make the device groups");
  checkDeviceGroup(m_sSvolGroup, false);
  checkDeviceGroup(m_sPvolGroup, true);
  return m_sPvolGroup + " and " + m_sSvolGroup;
}

std::string JobRun::addSnapshots() {
  push("snapshots", {{"group", m_sSnapshotGroup}, {"svols", svolIds()}});
  require(h().addToSnapshotGroup(m_oPairs, m_oSpec.pool, m_sSnapshotGroup, m_oSpec.consistencyGroup,
                                 false),
          "cannot add the pairs to the snapshot group");
  return std::to_string(m_oPairs.size()) + " pairs in " + m_sSnapshotGroup;
}

void JobRun::waitForSnapshots(const std::string& status) {
  Clock::time_point deadline = Clock::now() + std::chrono::seconds(m_oSpec.waitSeconds);
  // Short at first, since a split or a resync of few pairs is done almost at once, then backing
  // off, so that a long copy is not asked after five times a second.
  std::chrono::milliseconds pause(10);
  for (;;) {
    std::vector<hdsSnapshotGroupInfo> rows;
    require(h().getSnapshotGroupInfo(rows, m_sSnapshotGroup),
            "cannot read snapshot group " + m_sSnapshotGroup);
    size_t reached = 0;
    for (const auto& pair : m_oPairs) {
      const std::string& pvol = pair.first;
      const std::string& svol = pair.second.ldevId;
      const hdsSnapshotGroupInfo* row = nullptr;
      for (const hdsSnapshotGroupInfo& r : rows) {
        if ((r.ldevId == pvol && r.partnerLdevId == svol) ||
            (r.ldevId == svol && r.partnerLdevId == pvol)) {
          row = &r;
        }
      }
      std::string name = pvol;
      name.append(VT_HDS_PAIR_SEPARATOR).append(svol);
      if (row == nullptr) throw Failure("pair " + name + " is missing from " + m_sSnapshotGroup);
      if (row->pairStatus == VT_HDS_PAIR_STATUS_ERROR) {
        throw Failure("pair " + name + " is suspended by an error (PSUE)");
      }
      if (row->pairStatus == status) {
        ++reached;
        m_oReport.snapshots[pvol] = {row->pairStatus, row->mirrorUnit};
      }
    }
    if (reached == m_oPairs.size()) return;
    if (Clock::now() >= deadline) {
      throw Failure("snapshot group " + m_sSnapshotGroup + " did not reach " + status + " in " +
                    std::to_string(m_oSpec.waitSeconds) + " s (" + std::to_string(reached) +
                    " of " + std::to_string(m_oPairs.size()) + " pairs did)");
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, std::chrono::milliseconds(2000));
  }
}

std::string JobRun::operate(const char* op, const char* status, const std::string& what,
                            const std::string& done) {
  require(h().operateOnSnapshotGroup(m_sSnapshotGroup, "", op), "cannot " + what);
  waitForSnapshots(status);
  return done + status;
}

std::string JobRun::present() {
  const std::string& port = m_oSpec.port;
  const std::unique_ptr<VtNamedMutex> lock =
      lockHostGroup(m_oSpec.array.serial, port, m_oSpec.hostGroup);
  m_sHostGroupId = lookUpHostGroup(*m_pSession, port, m_oSpec.hostGroup);
  bool made = false;
  if (m_sHostGroupId.empty()) {
    push("host group", {{"port", port}, {"name", m_oSpec.hostGroup}, {"svols", svolIds()}});
    made = true;
    require(h().createHostGroup(port, m_oSpec.hostGroup),
            "cannot make host group " + m_oSpec.hostGroup + " on port " + port);
    m_sHostGroupId = lookUpHostGroup(*m_pSession, port, m_oSpec.hostGroup);
    if (m_sHostGroupId.empty()) {
      throw Failure("host group " + m_oSpec.hostGroup + " was made but is not listed on " + port);
    }
    for (const std::string& wwn : m_oSpec.wwns) {
      require(h().addWWNToHostGroup(port, m_oSpec.hostGroup, wwn),
              "cannot register WWN " + wwn + " in host group " + m_oSpec.hostGroup);
    }
  }
  push("luns", {{"port", port},
                {"host_group", m_oSpec.hostGroup},
                {"host_group_id", m_sHostGroupId},
                {"svols", svolIds()}});
  require(h().mapDeviceGroupToHostGroup(m_sSvolGroup, port, m_sHostGroupId),
          "cannot present the S-VOLs on " + port + "-" + m_sHostGroupId);
  std::vector<hdsLun_t> luns;
  require(h().getLunsForHostGroup(port, m_sHostGroupId, luns),
          "cannot list the LUNs of " + port + "-" + m_sHostGroupId);
  for (auto& pair : m_oPairs) {
    hdsLdev_t& svol = pair.second;
    for (const hdsLun_t& lun : luns) {
      if (lun.ldevId == svol.ldevId) svol.lunPaths.assign(1, lun);
    }
    if (svol.lunPaths.empty()) throw Failure("S-VOL " + svol.ldevId + " has no LUN on " + port);
  }
  return std::to_string(m_oPairs.size()) + " LUNs on " + port + "-" + m_sHostGroupId + " (" +
         m_oSpec.hostGroup + (made ? ", made for the job)" : ")");
}

std::string JobRun::withdraw() {
  removeNewest("luns");
  std::string removed = std::to_string(m_oPairs.size()) + " LUNs removed";
  const size_t kept = m_oReport.leftOver.size();
  for (const UndoEntry& e : m_oUndo) {
    if (e.kind != "host group") continue;
    removeNewest("host group");
    removed += m_oReport.leftOver.size() > kept
                   ? ", host group " + m_oSpec.hostGroup + " kept for other LUNs"
                   : ", host group " + m_oSpec.hostGroup + " removed";
    break;
  }
  return removed;
}

std::string JobRun::deleteSnapshots() {
  removeNewest("snapshots");
  return std::to_string(m_oPairs.size()) + " pairs deleted, " + m_sSnapshotGroup + " gone";
}

std::string JobRun::deleteDeviceGroups() {
  removeNewest("device groups");
  return m_sPvolGroup + " and " + m_sSvolGroup + " deleted";
}

std::string JobRun::deleteSvols() {
  for (size_t i = 0; i < m_oPairs.size(); ++i) removeNewest("svol");
  return std::to_string(m_oPairs.size()) + " S-VOLs deleted";
}

std::string JobRun::closeSession() {
  require(h().unlockResource(), "cannot unlock the resource group");
  popNewest("lock");
  // Whatever the logout gives, the session is no longer counted.
  popNewest("session");
  std::unique_ptr<ArraySession> session = std::move(m_pSession);
  m_pUndoer.reset();
  session->close();
  return "resource group unlocked, logged out";
}

void JobRun::cleanUp() {
  m_pSvolLock.reset();
  if (!m_pSession) return;
  // A clean-up of its own: a time-out met by a step of the job says nothing of the array now.
  m_pUndoer.reset(new Undoer(*m_pSession, m_oSpec.array.serial));
  const Clock::time_point deadline =
      Clock::now() + std::chrono::seconds(2 * commandTimeoutSeconds());
  std::string stopped;
  const std::vector<UndoEntry> newestFirst(m_oUndo.rbegin(), m_oUndo.rend());
  for (const UndoEntry& entry : newestFirst) {
    if (entry.kind == "lock" || entry.kind == "session") continue;
    if (m_pUndoer->arrayDead()) {
      stopped = "the array did not answer in time";
      break;
    }
    if (Clock::now() >= deadline) {
      stopped = "the clean-up ran out of its time";
      break;
    }
    std::string why;
    if (!m_pUndoer->undo(entry, why)) {
      // It stays in the journal; what does not hang on it can still go.
      m_oProgress << "  not removed: " << describeUndo(entry) << ": " << why << std::endl;
      continue;
    }
    if (why.empty()) {
      m_oReport.removed.push_back(describeUndo(entry));
      m_oProgress << "  removed: " << describeUndo(entry) << std::endl;
    } else {
      m_oReport.leftOver.push_back(describeUndo(entry) + " (" + why + ")");
      m_oProgress << "  kept: " << describeUndo(entry) << " (" << why << ")" << std::endl;
    }
    pop(entry.id);
  }
  if (stopped.empty()) {
    try {
      m_pSession->close();
    } catch (const std::exception& e) {
      m_oProgress << "  " << e.what() << std::endl;
    }
    // The handler's end has run, or its destructor runs it now: either way the session is
    // given back.
    m_pUndoer.reset();
    m_pSession.reset();
    popNewest("lock");
    popNewest("session");
  } else {
    // The session stays counted and the lock held, for hdsctl recover to give back with the
    // rest; its end must not call the array that does not answer.
    m_pUndoer.reset();
    m_pSession->abandon();
    m_pSession.reset();
  }
  if (m_oUndo.empty()) return;
  for (auto it = m_oUndo.rbegin(); it != m_oUndo.rend(); ++it) {
    m_oReport.leftOver.push_back(describeUndo(*it) + " (left for `hdsctl recover`)");
  }
  m_oProgress << "  clean-up " << (stopped.empty() ? "incomplete" : "stopped: " + stopped)
              << "; the journal " << m_rJournal.path() << " keeps the rest for `hdsctl recover "
              << m_oSpec.name << "`" << std::endl;
}

int JobRun::run(const json& extra) {
  std::vector<Step> steps = {
      {"open session", [this] { return openSession(); }},
      {"read P-VOLs", [this] { return readPvols(); }},
      {"choose S-VOLs", [this] { return chooseSvols(); }},
      {"create S-VOLs", [this] { return createSvols(); }},
      {"label S-VOLs", [this] { return labelSvols(); }},
      {"device groups", [this] { return groupDevices(); }},
      {"snapshot group add", [this] { return addSnapshots(); }},
      {"snapshot create",
       [this] {
         return operate(VT_HDS_SNAP_OP_CREATE, VT_HDS_PAIR_STATUS_P_SUSPEND,
                        "create the snapshot data", "point-in-time copy stored, pairs ");
       }},
      {"snapshot resync",
       [this] {
         return operate(VT_HDS_SNAP_OP_RESYNC, VT_HDS_PAIR_STATUS_PAIR,
                        "resynchronise the snapshot group", "pairs ");
       }},
      {"snapshot split", [this] {
         return operate(VT_HDS_SNAP_OP_SPLIT, VT_HDS_PAIR_STATUS_P_SUSPEND,
                        "split the snapshot group", "point-in-time copy taken, pairs ");
       }}};
  if (!m_oSpec.port.empty()) {
    steps.push_back({"present", [this] { return present(); }});
    steps.push_back({"withdraw", [this] { return withdraw(); }});
  }
  steps.push_back({"delete snapshots", [this] { return deleteSnapshots(); }});
  steps.push_back({"delete device groups", [this] { return deleteDeviceGroups(); }});
  steps.push_back({"delete S-VOLs", [this] { return deleteSvols(); }});
  steps.push_back({"close session", [this] { return closeSession(); }});

  int width = static_cast<int>(std::to_string(steps.size()).size());
  const CallTotals callsAtStart = m_oCtx.trace.totals();
  Clock::time_point start = Clock::now();
  for (size_t i = 0; i < steps.size(); ++i) {
    Clock::time_point stepStart = Clock::now();
    std::string detail;
    bool ok = true;
    try {
      if (g_iJobInterrupted) throw Failure("interrupted by a signal");
      detail = steps[i].fn();
    } catch (const std::exception& e) {
      ok = false;
      m_oReport.failedStep = steps[i].name;
      m_oReport.error = e.what();
      detail = "FAILED";
    }
    double seconds = secondsSince(stepStart);
    m_oReport.steps.push_back({steps[i].name, detail, seconds, ok});
    char index[32];
    (void)snprintf(index, sizeof(index), "[%*zu/%zu]", width, i + 1, steps.size());
    m_oProgress << index << " " << steps[i].name << ": " << detail << " (" << fixed2(seconds)
                << " s, elapsed " << fixed2(secondsSince(start)) << " s)" << std::endl;
    if (!ok) break;
  }
  m_oReport.ok = m_oReport.failedStep.empty();
  if (!m_oReport.ok) cleanUp();
  // Only a journal with nothing left in it goes; anything else is for hdsctl recover.
  if (m_oUndo.empty()) {
    m_rJournal.remove();
  } else {
    m_oReport.leftForRecover = true;
  }
  m_oReport.seconds = secondsSince(start);
  const CallTotals calls = m_oCtx.trace.totals();
  m_oReport.cciCalls = calls.calls - callsAtStart.calls;
  m_oReport.toolSeconds = (calls.toolMs - callsAtStart.toolMs) / 1000;
  m_oReport.extra = extra;
  printJobReport(m_oReport, m_oCtx.json);
  if (!m_oReport.ok) {
    std::cout.flush();
    std::cerr << "hdsctl: job " << m_oSpec.name << " failed at step '" << m_oReport.failedStep
              << "': " << m_oReport.error << "\n";
    return kExitFailed;
  }
  return 0;
}

int runJobSteps(Context& ctx, JobSpec jobSpec, JobJournal& journal, const json& extra) {
  return JobRun(ctx, std::move(jobSpec), journal).run(extra);
}

}  // namespace hdsctl
