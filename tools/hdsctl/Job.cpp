// hdsctl job: one whole snapshot lifecycle over a list of P-VOLs, and its clean-up on failure.
#include "tools/hdsctl/Job.h"

#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "hds/common/HDSConstants.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

using nlohmann::json;

const char* const kJobFileHelp = R"(Job file (JSON):
  {
    "name": "nightly",            ends the names of what the job makes: device groups
                                  KS_DEV_P_<name> and KS_DEV_S_<name>, snapshot group
                                  KS_SNAP_<name>, S-VOL labels KS_SVOL_<P-VOL>_<name>
                                  (default J<time>_<pid>; up to 23 of A-Z a-z 0-9 _ -)
    "array": {"serial": "412345", "user": "admin", "password": "...",
              "command_devices": ["/dev/sdc"], "horcm_instance": "",
              "resource_group": "", "cci_dir": ""},
                                  how to reach the array (the command line wins)
    "pool": 0,                    pool of the S-VOLs and of the snapshot data
    "pvols": [100, 101, 102],     the P-VOLs
    "svols": [2000, 2001, 2002],  S-VOL numbers to create, one per P-VOL, or
    "svol_first": 2000,           the first free numbers from here on
                                  (default: after the highest P-VOL)
    "present": {"port": "CL1-A", "host_group": "KS_PRE_SNAP_HOST_GROUP",
                "wwns": []},      where the S-VOLs are presented; a host group that does
                                  not exist is made (with these WWNs) and removed again
    "consistency_group": false,   add the pairs as one consistency group
    "wait_seconds": 600           how long the snapshot group may take to change state
  }
Only "pool" and "pvols" are required. Steps: open session (and lock the resource group),
read P-VOLs, choose S-VOLs, create S-VOLs, label S-VOLs, device groups, snapshot group add,
snapshot create, snapshot resync, snapshot split, present, withdraw, delete snapshots,
delete device groups, delete S-VOLs, close session. A failed step ends the job: what the job
made is removed again and hdsctl exits 1 with the library's error text.)";

namespace {

constexpr const char* kSnapshotGroupPrefix = "KS_SNAP_";
// The longest prefix that a job name ends: "KS_DEV_P_".
constexpr size_t kMaxJobName = VT_HDS_MAX_DEVICE_GROUP_NAME - 9;

volatile sig_atomic_t g_iInterrupted = 0;

void onInterrupt(int) { g_iInterrupted = 1; }

// Until the job ends, SIGINT and SIGTERM only end it at the next step, so that it can still give
// back what it made. The tools it runs sit in process groups of their own and are not hit.
class InterruptGuard {
 public:
  InterruptGuard() {
    g_iInterrupted = 0;
    struct sigaction sa = {};
    sa.sa_handler = onInterrupt;
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, &m_oOldInt);
    sigaction(SIGTERM, &sa, &m_oOldTerm);
  }
  ~InterruptGuard() {
    sigaction(SIGINT, &m_oOldInt, nullptr);
    sigaction(SIGTERM, &m_oOldTerm, nullptr);
  }

 private:
  struct sigaction m_oOldInt, m_oOldTerm;
};

std::string ldevText(const json& value, const std::string& what) {
  std::string text;
  if (value.is_number_unsigned()) {
    text = std::to_string(value.get<uint64_t>());
  } else if (value.is_string()) {
    text = value.get<std::string>();
  }
  if (!isDecimal(text)) throw UsageError("job file: " + what + " must be an LDEV number");
  return text;
}

std::string textOf(const json& obj, const char* key, const std::string& where) {
  if (!obj.contains(key)) return "";
  if (!obj[key].is_string()) throw UsageError("job file: " + where + key + " must be a text");
  return obj[key].get<std::string>();
}

void onlyKeys(const json& obj, const std::set<std::string>& keys, const std::string& where) {
  if (!obj.is_object()) throw UsageError("job file: " + where + " must be an object");
  for (const auto& item : obj.items()) {
    if (!keys.count(item.key())) {
      throw UsageError("job file: unknown key \"" + item.key() + "\" in " + where);
    }
  }
}

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string fixed2(double value) {
  char buf[32];
  (void)snprintf(buf, sizeof(buf), "%.2f", value);
  return buf;
}

std::string gibibytes(uint64_t blocks) {
  char buf[32];
  (void)snprintf(buf, sizeof(buf), "%.1f GiB", static_cast<double>(blocks) * 512.0 / (1 << 30));
  return buf;
}

struct Pair {
  std::string pvol, svol, label;
  uint64_t capacity = 0;
  int mpBlade = 0;
  std::string status, mirrorUnit, lun;
};

struct StepRecord {
  std::string name, detail;
  double seconds;
  bool ok;
};

class JobRun {
 public:
  JobRun(Context& ctx, JobSpec jobSpec)
      : m_oCtx(ctx),
        m_oSpec(std::move(jobSpec)),
        m_oProgress(ctx.json ? std::cerr : std::cout),
        m_sSvolGroup(VT_HDS_SVOL_DEVICE_GRP_PREFIX + m_oSpec.name),
        m_sPvolGroup(VT_HDS_PVOL_DEVICE_GRP_PREFIX + m_oSpec.name),
        m_sSnapshotGroup(kSnapshotGroupPrefix + m_oSpec.name) {}

  int run(const json& extra);

 private:
  using StepFn = std::string (JobRun::*)();
  struct Step {
    const char* name;
    StepFn fn;
  };

  Context& m_oCtx;
  JobSpec m_oSpec;
  std::ostream& m_oProgress;
  std::string m_sSvolGroup, m_sPvolGroup, m_sSnapshotGroup, m_sHostGroupId;
  std::unique_ptr<ArraySession> m_pSession;
  std::vector<Pair> m_oPairs;
  std::vector<StepRecord> m_oSteps;
  std::vector<std::string> m_oLeftOver;
  CallTotals m_oCallsAtStart;
  // What the job holds on the array; a "touched" flag is set before the call that may leave
  // objects behind even when it fails, and cleared once they are gone.
  bool m_bLocked = false;
  bool m_bSvolsCreated = false;
  bool m_bDeviceGroupsTouched = false;
  bool m_bSnapshotsTouched = false;
  bool m_bHostGroupCreated = false;
  bool m_bLunsTouched = false;

  RaidcomCommandHandler& h() { return m_pSession->handler(); }
  void require(int rc, const std::string& what) { m_pSession->require(rc, what); }
  std::vector<hdsLdev_t> ldevRecords(const std::vector<std::string>& ids) const;
  void readLdevs(std::vector<hdsLdev_t>& ldevs, const std::string& what);
  void checkLabels();
  void checkDeviceGroup(const std::string& group, bool pvolSide);
  void checkDeviceGroupsGone();
  std::map<std::string, hdsLdev_t> pairMap() const;
  bool isOurSvol(const std::string& ldev) const;
  void waitForSnapshots(const std::string& status);

  std::string openSession();
  std::string readPvols();
  std::string chooseSvols();
  std::string createSvols();
  std::string labelSvols();
  std::string groupDevices();
  std::string addSnapshots();
  std::string createSnapshots();
  std::string resyncSnapshots();
  std::string splitSnapshots();
  std::string present();
  std::string withdraw();
  std::string deleteSnapshots();
  std::string deleteDeviceGroups();
  std::string deleteSvols();
  std::string closeSession();

  void cleanUp();
  void unmapOurLuns();
  // Removes the host group the job made unless LUNs of others are in it; true when removed.
  bool removeOurHostGroup();
  void deleteOurSnapshots();
  void deleteOurDeviceGroups();
  void deleteOurSvols();

  void printSummary(bool ok, double seconds, const std::string& failedStep,
                    const std::string& error, const json& extra);
};

std::map<std::string, hdsLdev_t> JobRun::pairMap() const {
  std::map<std::string, hdsLdev_t> pairs;
  for (const Pair& p : m_oPairs) {
    hdsLdev_t& svol = pairs[p.pvol + VT_HDS_PAIR_SEPARATOR + p.svol];
    svol.serialNumber = m_oSpec.array.serial;
    svol.ldevId = p.svol;
    svol.capacity = p.capacity;
    svol.mpBladeId = p.mpBlade;
    svol.newLabel = p.label;
  }
  return pairs;
}

bool JobRun::isOurSvol(const std::string& ldev) const {
  for (const Pair& p : m_oPairs) {
    if (p.svol == ldev) return true;
  }
  return false;
}

std::string JobRun::openSession() {
  m_pSession.reset(new ArraySession(m_oCtx.log, m_oSpec.array));
  require(h().lockResource(), "cannot lock the resource group");
  m_bLocked = true;
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
    Pair p;
    p.pvol = l.ldevId;
    p.capacity = l.capacity;
    p.mpBlade = l.mpBladeId;
    m_oPairs.push_back(p);
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

std::string JobRun::chooseSvols() {
  std::vector<std::string> chosen = m_oSpec.svols;
  if (chosen.empty()) {
    std::vector<hdsLdev_t> defined;
    std::map<int, std::string> filters = {{VT_HDS_LDEV_FILTER_DEFINED, ""}};
    require(h().getLdevlList(defined, filters), "cannot list the defined LDEVs");
    std::set<long> taken;
    for (const hdsLdev_t& l : defined) taken.insert(std::atol(l.ldevId.c_str()));
    long next = m_oSpec.svolFirst;
    if (next < 0) {
      for (const Pair& p : m_oPairs) next = std::max(next, std::atol(p.pvol.c_str()) + 1);
    }
    int maxLdev = 0;
    h().getMaxLdevNumber(maxLdev);
    while (chosen.size() < m_oPairs.size() && next <= maxLdev) {
      if (!taken.count(next)) chosen.push_back(std::to_string(next));
      ++next;
    }
    if (chosen.size() < m_oPairs.size()) {
      throw Failure("not enough free LDEV numbers up to " + std::to_string(maxLdev));
    }
  } else {
    std::vector<hdsLdev_t> ldevs = ldevRecords(chosen);
    readLdevs(ldevs, "the S-VOL numbers");
    for (const hdsLdev_t& l : ldevs) {
      if (l.capacity != 0 && l.volAttr != VT_HDS_VOL_NOT_DEFINED) {
        throw Failure("S-VOL number " + l.ldevId + " is already a defined LDEV");
      }
    }
  }
  for (size_t i = 0; i < m_oPairs.size(); ++i) {
    Pair& p = m_oPairs[i];
    p.svol = chosen[i];
    p.label = (VT_HDS_LDEV_LABEL_PREFIX + p.pvol + "_" + m_oSpec.name)
                  .substr(0, static_cast<size_t>(VT_HDS_MAX_LDEV_LABEL_NAME));
  }
  return "LDEVs " + m_oPairs.front().svol +
         (m_oPairs.size() > 1 ? " to " + m_oPairs.back().svol : "");
}

std::string JobRun::createSvols() {
  // All or nothing: a failed creation takes back the S-VOLs it made, but not the one whose
  // creation ran and could not be confirmed (its command status could not be read). The job
  // cannot tell that one from an LDEV another process made with the same number meanwhile, so
  // it names it instead of deleting it.
  if (h().createSvol(pairMap(), m_oSpec.pool) != 0) {
    std::string error = handlerError(h());
    std::vector<std::string> ids;
    for (const Pair& p : m_oPairs) ids.push_back(p.svol);
    std::vector<hdsLdev_t> svols = ldevRecords(ids);
    try {
      readLdevs(svols, "the S-VOLs");
    } catch (const Failure&) {
      m_oLeftOver.push_back("S-VOLs " + ids.front() + " to " + ids.back() +
                            " (not readable after a failed creation)");
      svols.clear();
    }
    for (const hdsLdev_t& l : svols) {
      if (l.capacity != 0 && l.volAttr != VT_HDS_VOL_NOT_DEFINED) {
        m_oLeftOver.push_back("S-VOL " + l.ldevId + " (defined after its creation failed)");
      }
    }
    throw Failure("cannot create the S-VOLs: " + error);
  }
  m_bSvolsCreated = true;
  return std::to_string(m_oPairs.size()) + " S-VOLs in pool " + m_oSpec.pool;
}

// Labels and device group members are set, and device groups deleted, by scripts of the
// library, one raidcom call per line. The library fails a script on an error reported by any
// line, but the job reads the outcome back before it says the step is done: a step the job
// reports as done must be done on the array, whatever a script printed.
constexpr const char* kUnconfirmed = " (the step's script ended without an error)";

void JobRun::checkLabels() {
  std::vector<std::string> ids;
  for (const Pair& p : m_oPairs) ids.push_back(p.svol);
  std::vector<hdsLdev_t> svols = ldevRecords(ids);
  readLdevs(svols, "the S-VOLs");
  for (size_t i = 0; i < svols.size(); ++i) {
    if (svols[i].label != m_oPairs[i].label) {
      throw Failure("S-VOL " + ids[i] + " is not labelled " + m_oPairs[i].label + kUnconfirmed);
    }
  }
}

void JobRun::checkDeviceGroup(const std::string& group, bool pvolSide) {
  std::vector<hdsLdev_t> members;
  require(h().getVolsInDeviceGroup(members, group), "cannot list device group " + group);
  std::set<std::string> in;
  for (const hdsLdev_t& m : members) in.insert(m.ldevId);
  for (const Pair& p : m_oPairs) {
    const std::string& id = pvolSide ? p.pvol : p.svol;
    if (in.count(id) == 0) {
      std::string what = "LDEV " + id;
      what.append(" is missing from ").append(group).append(kUnconfirmed);
      throw Failure(what);
    }
  }
}

void JobRun::checkDeviceGroupsGone() {
  std::vector<std::string> groups;
  require(h().getDeviceGroupList(groups), "cannot list the device groups");
  for (const std::string& g : groups) {
    if (g == m_sSvolGroup || g == m_sPvolGroup) {
      throw Failure("device group " + g + " is still there" + kUnconfirmed);
    }
  }
}

std::string JobRun::labelSvols() {
  require(static_cast<int>(h().modifySvolLabel(pairMap(), false)), "cannot label the S-VOLs");
  checkLabels();
  return "labels " + m_oPairs.front().label + (m_oPairs.size() > 1 ? ", ..." : "");
}

std::string JobRun::groupDevices() {
  m_bDeviceGroupsTouched = true;
  require(h().addVolsToDeviceGroup(pairMap(), m_sSvolGroup, m_sPvolGroup),
          "cannot make the device groups");
  checkDeviceGroup(m_sSvolGroup, false);
  checkDeviceGroup(m_sPvolGroup, true);
  return m_sPvolGroup + " and " + m_sSvolGroup;
}

std::string JobRun::addSnapshots() {
  m_bSnapshotsTouched = true;
  require(h().addToSnapshotGroup(pairMap(), m_oSpec.pool, m_sSnapshotGroup,
                                 m_oSpec.consistencyGroup, false),
          "cannot add the pairs to the snapshot group");
  return std::to_string(m_oPairs.size()) + " pairs in " + m_sSnapshotGroup;
}

void JobRun::waitForSnapshots(const std::string& status) {
  Clock::time_point deadline = Clock::now() + std::chrono::seconds(m_oSpec.waitSeconds);
  for (;;) {
    std::vector<hdsSnapshotGroupInfo> rows;
    require(h().getSnapshotGroupInfo(rows, m_sSnapshotGroup),
            "cannot read snapshot group " + m_sSnapshotGroup);
    size_t reached = 0;
    for (Pair& p : m_oPairs) {
      const hdsSnapshotGroupInfo* row = nullptr;
      for (const hdsSnapshotGroupInfo& r : rows) {
        if ((r.ldevId == p.pvol && r.partnerLdevId == p.svol) ||
            (r.ldevId == p.svol && r.partnerLdevId == p.pvol)) {
          row = &r;
        }
      }
      if (row == nullptr) {
        throw Failure("pair " + p.pvol + VT_HDS_PAIR_SEPARATOR + p.svol + " is missing from " +
                      m_sSnapshotGroup);
      }
      if (row->pairStatus == VT_HDS_PAIR_STATUS_ERROR) {
        throw Failure("pair " + p.pvol + VT_HDS_PAIR_SEPARATOR + p.svol +
                      " is suspended by an error (PSUE)");
      }
      if (row->pairStatus == status) {
        ++reached;
        p.status = row->pairStatus;
        p.mirrorUnit = row->mirrorUnit;
      }
    }
    if (reached == m_oPairs.size()) return;
    if (Clock::now() >= deadline) {
      throw Failure("snapshot group " + m_sSnapshotGroup + " did not reach " + status + " in " +
                    std::to_string(m_oSpec.waitSeconds) + " s (" + std::to_string(reached) +
                    " of " + std::to_string(m_oPairs.size()) + " pairs did)");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

std::string JobRun::createSnapshots() {
  require(h().operateOnSnapshotGroup(m_sSnapshotGroup, "", VT_HDS_SNAP_OP_CREATE),
          "cannot create the snapshot data");
  waitForSnapshots(VT_HDS_PAIR_STATUS_P_SUSPEND);
  return "point-in-time copy stored, pairs " + std::string(VT_HDS_PAIR_STATUS_P_SUSPEND);
}

std::string JobRun::resyncSnapshots() {
  require(h().operateOnSnapshotGroup(m_sSnapshotGroup, "", VT_HDS_SNAP_OP_RESYNC),
          "cannot resynchronise the snapshot group");
  waitForSnapshots(VT_HDS_PAIR_STATUS_PAIR);
  return "pairs " + std::string(VT_HDS_PAIR_STATUS_PAIR);
}

std::string JobRun::splitSnapshots() {
  require(h().operateOnSnapshotGroup(m_sSnapshotGroup, "", VT_HDS_SNAP_OP_SPLIT),
          "cannot split the snapshot group");
  waitForSnapshots(VT_HDS_PAIR_STATUS_P_SUSPEND);
  return "point-in-time copy taken, pairs " + std::string(VT_HDS_PAIR_STATUS_P_SUSPEND);
}

std::string JobRun::present() {
  const std::string& port = m_oSpec.port;
  m_sHostGroupId = lookUpHostGroup(*m_pSession, port, m_oSpec.hostGroup);
  if (m_sHostGroupId.empty()) {
    require(h().createHostGroup(port, m_oSpec.hostGroup),
            "cannot make host group " + m_oSpec.hostGroup + " on port " + port);
    m_bHostGroupCreated = true;
    m_sHostGroupId = lookUpHostGroup(*m_pSession, port, m_oSpec.hostGroup);
    if (m_sHostGroupId.empty()) {
      throw Failure("host group " + m_oSpec.hostGroup + " was made but is not listed on " + port);
    }
    for (const std::string& wwn : m_oSpec.wwns) {
      require(h().addWWNToHostGroup(port, m_oSpec.hostGroup, wwn),
              "cannot register WWN " + wwn + " in host group " + m_oSpec.hostGroup);
    }
  }
  m_bLunsTouched = true;
  require(h().mapDeviceGroupToHostGroup(m_sSvolGroup, port, m_sHostGroupId),
          "cannot present the S-VOLs on " + port + "-" + m_sHostGroupId);
  std::vector<hdsLun_t> luns;
  require(h().getLunsForHostGroup(port, m_sHostGroupId, luns),
          "cannot list the LUNs of " + port + "-" + m_sHostGroupId);
  for (Pair& p : m_oPairs) {
    for (const hdsLun_t& lun : luns) {
      if (lun.ldevId == p.svol) p.lun = lunPathText(lun);
    }
    if (p.lun.empty()) throw Failure("S-VOL " + p.svol + " has no LUN on " + port);
  }
  return std::to_string(m_oPairs.size()) + " LUNs on " + port + "-" + m_sHostGroupId + " (" +
         m_oSpec.hostGroup + (m_bHostGroupCreated ? ", made for the job)" : ")");
}

std::string JobRun::withdraw() {
  require(h().unmapDeviceGroupFromHostGroup(m_sSvolGroup, m_oSpec.port, m_sHostGroupId),
          "cannot withdraw the S-VOLs");
  m_bLunsTouched = false;
  std::string removed = std::to_string(m_oPairs.size()) + " LUNs removed";
  if (m_bHostGroupCreated) {
    removed += removeOurHostGroup() ? ", host group " + m_oSpec.hostGroup + " removed"
                                    : ", host group " + m_oSpec.hostGroup + " kept for other LUNs";
  }
  return removed;
}

bool JobRun::removeOurHostGroup() {
  // Another job that found the group may have presented its S-VOLs there meanwhile; removing
  // the group would withdraw them under that job.
  std::vector<hdsLun_t> luns;
  if (!m_sHostGroupId.empty()) {
    require(h().getLunsForHostGroup(m_oSpec.port, m_sHostGroupId, luns),
            "cannot list the LUNs of " + m_oSpec.port + "-" + m_sHostGroupId);
  }
  bool empty = true;
  for (const hdsLun_t& lun : luns) empty &= isOurSvol(lun.ldevId);
  if (empty) {
    require(h().deleteHostGroup(m_oSpec.port, m_oSpec.hostGroup),
            "cannot remove host group " + m_oSpec.hostGroup);
  } else {
    m_oLeftOver.push_back("host group " + m_oSpec.hostGroup + " on " + m_oSpec.port +
                          " (LUNs of others are in it)");
  }
  m_bHostGroupCreated = false;
  return empty;
}

std::string JobRun::deleteSnapshots() {
  for (const Pair& p : m_oPairs) {
    require(h().deleteSnapshot(p.svol), "cannot delete the snapshot pair of S-VOL " + p.svol);
  }
  m_bSnapshotsTouched = false;
  return std::to_string(m_oPairs.size()) + " pairs deleted, " + m_sSnapshotGroup + " gone";
}

std::string JobRun::deleteDeviceGroups() {
  std::map<std::string, hdsLdev_t> pairs = pairMap();
  require(h().deleteDeviceGroup(pairs, m_sSvolGroup, false),
          "cannot delete device group " + m_sSvolGroup);
  require(h().deleteDeviceGroup(pairs, m_sPvolGroup, true),
          "cannot delete device group " + m_sPvolGroup);
  checkDeviceGroupsGone();
  m_bDeviceGroupsTouched = false;
  return m_sPvolGroup + " and " + m_sSvolGroup + " deleted";
}

std::string JobRun::deleteSvols() {
  for (const Pair& p : m_oPairs) {
    require(static_cast<int>(h().deleteSvol(p.svol)), "cannot delete S-VOL " + p.svol);
  }
  m_bSvolsCreated = false;
  return std::to_string(m_oPairs.size()) + " S-VOLs deleted";
}

std::string JobRun::closeSession() {
  require(h().unlockResource(), "cannot unlock the resource group");
  m_bLocked = false;
  m_pSession->close();
  m_pSession.reset();
  return "resource group unlocked, logged out";
}

void JobRun::unmapOurLuns() {
  std::vector<hdsLun_t> luns;
  if (h().getLunsForHostGroup(m_oSpec.port, m_sHostGroupId, luns) != 0) {
    // The job that made the group may have removed it, and our LUNs with it.
    if (lookUpHostGroup(*m_pSession, m_oSpec.port, m_sHostGroupId).empty()) return;
    require(1, "cannot list the LUNs of " + m_oSpec.port + "-" + m_sHostGroupId);
  }
  for (const hdsLun_t& lun : luns) {
    if (!isOurSvol(lun.ldevId)) continue;
    require(h().unmapLdevFromHostGroup(lun.ldevId, m_oSpec.port, m_sHostGroupId),
            "cannot unmap S-VOL " + lun.ldevId);
  }
}

void JobRun::deleteOurSnapshots() {
  std::vector<hdsSnapshotGroupInfo> groups;
  require(h().getSnapshotGroupList(groups, ""), "cannot list the snapshot groups");
  bool exists = false;
  for (const hdsSnapshotGroupInfo& g : groups) exists |= g.snapshotGroupName == m_sSnapshotGroup;
  if (!exists) return;
  std::vector<hdsSnapshotGroupInfo> rows;
  require(h().getSnapshotGroupInfo(rows, m_sSnapshotGroup), "cannot list " + m_sSnapshotGroup);
  std::set<std::string> svols;
  for (const hdsSnapshotGroupInfo& r : rows) {
    if (isOurSvol(r.ldevId)) svols.insert(r.ldevId);
    if (isOurSvol(r.partnerLdevId)) svols.insert(r.partnerLdevId);
  }
  for (const std::string& svol : svols) {
    require(h().deleteSnapshot(svol), "cannot delete the snapshot pair of S-VOL " + svol);
  }
}

void JobRun::deleteOurDeviceGroups() {
  std::vector<std::string> groups;
  require(h().getDeviceGroupList(groups), "cannot list the device groups");
  for (const std::string& g : groups) {
    // Both names were checked to be new, so every member is the job's.
    if (g == m_sSvolGroup || g == m_sPvolGroup) {
      require(h().deleteDeviceGroup(g), "cannot delete device group " + g);
    }
  }
  checkDeviceGroupsGone();
}

void JobRun::deleteOurSvols() {
  std::string failed;
  for (const Pair& p : m_oPairs) {
    if (h().deleteSvol(p.svol) != 0) failed += (failed.empty() ? "" : ", ") + p.svol;
  }
  if (!failed.empty()) {
    throw Failure("cannot delete S-VOLs " + failed + ": " + handlerError(h()));
  }
}

void JobRun::cleanUp() {
  if (!m_pSession) return;
  auto attempt = [this](bool& held, const std::string& what, const std::function<void()>& fn) {
    if (!held) return;
    try {
      fn();
      held = false;
      m_oProgress << "  cleaned up: " << what << "\n";
    } catch (const std::exception& e) {
      m_oProgress << "  clean-up failed: " << what << ": " << e.what() << "\n";
      m_oLeftOver.push_back(what);
    }
  };
  // The reverse of the order they were made in: a LUN keeps its S-VOL, a pair its device.
  attempt(m_bLunsTouched, "LUNs of the S-VOLs on " + m_oSpec.port, [this] { unmapOurLuns(); });
  attempt(m_bHostGroupCreated, "host group " + m_oSpec.hostGroup + " on " + m_oSpec.port,
          [this] { removeOurHostGroup(); });
  attempt(m_bSnapshotsTouched, "snapshot pairs of " + m_sSnapshotGroup,
          [this] { deleteOurSnapshots(); });
  attempt(m_bDeviceGroupsTouched, "device groups " + m_sPvolGroup + " and " + m_sSvolGroup,
          [this] { deleteOurDeviceGroups(); });
  attempt(m_bSvolsCreated, "S-VOLs", [this] { deleteOurSvols(); });
  attempt(m_bLocked, "resource group lock",
          [this] { require(h().unlockResource(), "cannot unlock the resource group"); });
  m_pSession.reset();
}

void JobRun::printSummary(bool ok, double seconds, const std::string& failedStep,
                          const std::string& error, const json& extra) {
  CallTotals now = m_oCtx.trace.totals();
  long calls = now.calls - m_oCallsAtStart.calls;
  double toolSeconds = (now.toolMs - m_oCallsAtStart.toolMs) / 1000;
  if (m_oCtx.json) {
    json steps = json::array();
    for (const StepRecord& s : m_oSteps) {
      steps.push_back(
          {{"step", s.name}, {"detail", s.detail}, {"seconds", s.seconds}, {"ok", s.ok}});
    }
    json pairs = json::array();
    for (const Pair& p : m_oPairs) {
      pairs.push_back({{"pvol", p.pvol},
                       {"svol", p.svol},
                       {"capacity", p.capacity},
                       {"label", p.label},
                       {"pairStatus", p.status},
                       {"mirrorUnit", p.mirrorUnit},
                       {"lun", p.lun}});
    }
    json summary = {{"job", m_oSpec.name},
                    {"serialNumber", m_oSpec.array.serial},
                    {"result", ok ? "ok" : "failed"},
                    {"seconds", seconds},
                    {"cciCalls", calls},
                    {"toolSeconds", toolSeconds},
                    {"outsideSeconds", seconds - toolSeconds},
                    {"steps", steps},
                    {"pairs", pairs},
                    {"leftOnArray", m_oLeftOver}};
    if (!ok) {
      summary["failedStep"] = failedStep;
      summary["error"] = error;
    }
    for (const auto& item : extra.items()) summary[item.key()] = item.value();
    printJson(std::cout, summary);
    return;
  }
  if (!ok) {
    if (!m_oLeftOver.empty()) {
      std::cout << "left on array " << m_oSpec.array.serial << ": " << joinWords(m_oLeftOver, "; ")
                << "\n";
    }
    return;
  }
  std::cout << "\njob " << m_oSpec.name << ": " << m_oPairs.size() << " pairs, " << m_oSteps.size()
            << " steps in " << fixed2(seconds) << " s: " << calls << " CCI calls, "
            << fixed2(toolSeconds) << " s in the tools, " << fixed2(seconds - toolSeconds)
            << " s outside them\n";
  Table table({"P-VOL", "S-VOL", "CAPACITY(BLK)", "LABEL", "SNAPSHOT", "MU", "LUN"});
  for (const Pair& p : m_oPairs) {
    table.addRow(
        {p.pvol, p.svol, std::to_string(p.capacity), p.label, p.status, p.mirrorUnit, p.lun});
  }
  table.print(std::cout);
  if (!m_oLeftOver.empty()) {
    std::cout << "left on array " << m_oSpec.array.serial << ": " << joinWords(m_oLeftOver, "; ")
              << "\n";
    return;
  }
  std::cout << "every object the job made on array " << m_oSpec.array.serial
            << " has been removed again\n";
}

int JobRun::run(const json& extra) {
  std::vector<Step> steps = {
      {"open session", &JobRun::openSession},        {"read P-VOLs", &JobRun::readPvols},
      {"choose S-VOLs", &JobRun::chooseSvols},       {"create S-VOLs", &JobRun::createSvols},
      {"label S-VOLs", &JobRun::labelSvols},         {"device groups", &JobRun::groupDevices},
      {"snapshot group add", &JobRun::addSnapshots}, {"snapshot create", &JobRun::createSnapshots},
      {"snapshot resync", &JobRun::resyncSnapshots}, {"snapshot split", &JobRun::splitSnapshots}};
  if (!m_oSpec.port.empty()) {
    steps.push_back({"present", &JobRun::present});
    steps.push_back({"withdraw", &JobRun::withdraw});
  }
  steps.push_back({"delete snapshots", &JobRun::deleteSnapshots});
  steps.push_back({"delete device groups", &JobRun::deleteDeviceGroups});
  steps.push_back({"delete S-VOLs", &JobRun::deleteSvols});
  steps.push_back({"close session", &JobRun::closeSession});

  InterruptGuard interrupts;
  int width = static_cast<int>(std::to_string(steps.size()).size());
  m_oCallsAtStart = m_oCtx.trace.totals();
  Clock::time_point start = Clock::now();
  std::string failedStep, error;
  for (size_t i = 0; i < steps.size(); ++i) {
    Clock::time_point stepStart = Clock::now();
    std::string detail;
    bool ok = true;
    try {
      if (g_iInterrupted) throw Failure("interrupted by a signal");
      detail = (this->*steps[i].fn)();
    } catch (const std::exception& e) {
      ok = false;
      failedStep = steps[i].name;
      error = e.what();
      detail = "FAILED";
    }
    double seconds = secondsSince(stepStart);
    m_oSteps.push_back({steps[i].name, detail, seconds, ok});
    char index[32];
    (void)snprintf(index, sizeof(index), "[%*zu/%zu]", width, i + 1, steps.size());
    m_oProgress << index << " " << steps[i].name << ": " << detail << " (" << fixed2(seconds)
                << " s, elapsed " << fixed2(secondsSince(start)) << " s)" << std::endl;
    if (!ok) break;
  }
  bool ok = failedStep.empty();
  if (!ok) cleanUp();
  printSummary(ok, secondsSince(start), failedStep, error, extra);
  if (!ok) {
    std::cout.flush();
    std::cerr << "hdsctl: job " << m_oSpec.name << " failed at step '" << failedStep
              << "': " << error << "\n";
    return kExitFailed;
  }
  return 0;
}

std::string defaultJobName() {
  return "J" + std::to_string(time(nullptr)) + "_" + std::to_string(getpid());
}

void mergeArrayOptions(ArrayOptions& into, const ArrayOptions& commandLine) {
  auto take = [](std::string& field, const std::string& given) {
    if (!given.empty()) field = given;
  };
  take(into.serial, commandLine.serial);
  take(into.user, commandLine.user);
  take(into.password, commandLine.password);
  take(into.horcmInstance, commandLine.horcmInstance);
  take(into.resourceGroup, commandLine.resourceGroup);
  take(into.cciDir, commandLine.cciDir);
  if (!commandLine.commandDevices.empty()) into.commandDevices = commandLine.commandDevices;
}

int runJobFile(Context& ctx, const std::string& path) {
  std::ifstream in(path);
  if (!in) throw UsageError("cannot read the job file " + path);
  std::stringstream text;
  text << in.rdbuf();
  return runJob(ctx, parseJobFile(text.str()));
}

}  // namespace

JobSpec parseJobFile(const std::string& text) {
  json j = json::parse(text, nullptr, false);
  if (j.is_discarded()) throw UsageError("the job file is not valid JSON");
  onlyKeys(j,
           {"name", "array", "pool", "pvols", "svols", "svol_first", "present", "consistency_group",
            "wait_seconds"},
           "the job");
  JobSpec jobSpec;
  try {
    jobSpec.name = j.contains("name") ? textOf(j, "name", "") : defaultJobName();
    if (jobSpec.name.empty() || jobSpec.name.size() > kMaxJobName ||
        jobSpec.name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                       "0123456789_-") != std::string::npos) {
      throw UsageError("job file: name must be 1 to " + std::to_string(kMaxJobName) +
                       " of A-Z a-z 0-9 _ -");
    }
    if (j.contains("array")) {
      const json& a = j["array"];
      onlyKeys(a,
               {"serial", "user", "password", "command_devices", "horcm_instance", "resource_group",
                "cci_dir"},
               "array");
      jobSpec.array.serial = textOf(a, "serial", "array.");
      jobSpec.array.user = textOf(a, "user", "array.");
      jobSpec.array.password = textOf(a, "password", "array.");
      jobSpec.array.horcmInstance = textOf(a, "horcm_instance", "array.");
      jobSpec.array.resourceGroup = textOf(a, "resource_group", "array.");
      jobSpec.array.cciDir = textOf(a, "cci_dir", "array.");
      if (a.contains("command_devices")) {
        jobSpec.array.commandDevices = a["command_devices"].get<std::vector<std::string>>();
      }
    }
    if (!j.contains("pool")) throw UsageError("job file: \"pool\" is required");
    jobSpec.pool = ldevText(j["pool"], "pool");
    if (!j.contains("pvols") || !j["pvols"].is_array() || j["pvols"].empty()) {
      throw UsageError("job file: \"pvols\" must list at least one P-VOL");
    }
    std::set<std::string> seen;
    for (const json& v : j["pvols"]) {
      jobSpec.pvols.push_back(ldevText(v, "every P-VOL"));
      if (!seen.insert(jobSpec.pvols.back()).second) {
        throw UsageError("job file: P-VOL " + jobSpec.pvols.back() + " is listed twice");
      }
    }
    if (j.contains("svols")) {
      if (j.contains("svol_first")) throw UsageError("job file: give svols or svol_first");
      if (!j["svols"].is_array()) throw UsageError("job file: svols must be a list");
      for (const json& v : j["svols"]) {
        jobSpec.svols.push_back(ldevText(v, "every S-VOL"));
        if (!seen.insert(jobSpec.svols.back()).second) {
          throw UsageError("job file: LDEV " + jobSpec.svols.back() + " is listed twice");
        }
      }
      if (jobSpec.svols.size() != jobSpec.pvols.size()) {
        throw UsageError("job file: svols must list one S-VOL per P-VOL");
      }
    }
    if (j.contains("svol_first"))
      jobSpec.svolFirst = std::stol(ldevText(j["svol_first"], "svol_first"));
    if (j.contains("present")) {
      const json& p = j["present"];
      onlyKeys(p, {"port", "host_group", "wwns"}, "present");
      jobSpec.port = textOf(p, "port", "present.");
      jobSpec.hostGroup = textOf(p, "host_group", "present.");
      if (jobSpec.port.empty()) throw UsageError("job file: present.port is required");
      if (jobSpec.hostGroup.empty()) jobSpec.hostGroup = VT_HDS_PRE_SNAP_HOSTGROUP;
      if (p.contains("wwns")) jobSpec.wwns = p["wwns"].get<std::vector<std::string>>();
    }
    if (j.contains("consistency_group")) {
      jobSpec.consistencyGroup = j["consistency_group"].get<bool>();
    }
    if (j.contains("wait_seconds")) {
      jobSpec.waitSeconds = j["wait_seconds"].get<int>();
      if (jobSpec.waitSeconds < 0) throw UsageError("job file: wait_seconds must not be negative");
    }
  } catch (const json::exception& e) {
    throw UsageError(std::string("job file: ") + e.what());
  }
  return jobSpec;
}

int runJob(Context& ctx, JobSpec jobSpec, const json& extra) {
  mergeArrayOptions(jobSpec.array, ctx.array);
  return JobRun(ctx, std::move(jobSpec)).run(extra);
}

void addJobCommands(CLI::App& app, Context& ctx) {
  auto path = std::make_shared<std::string>();
  CLI::App* job = app.add_subcommand(
      "job", "Run one snapshot lifecycle for a list of P-VOLs, described by a JSON job file");
  job->add_option("file", *path, "The job file")->required();
  addArrayOptions(job, ctx.array);
  addJsonFlag(job, ctx);
  job->footer(kJobFileHelp);
  job->callback([&ctx, path] { ctx.action = [&ctx, path] { return runJobFile(ctx, *path); }; });
}

}  // namespace hdsctl
