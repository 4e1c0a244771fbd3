// The single operations: S-VOLs, snapshots, LUN mappings and the resource group lock.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <memory>

#include "hds/common/HDSConstants.h"
#include "tools/hdsctl/Commands.h"
#include "tools/hdsctl/Guard.h"
#include "tools/hdsctl/Output.h"

namespace hdsctl {

namespace {

struct SvolCreateOptions {
  std::vector<std::string> ids;
  std::string pool, like, label;
  uint64_t capacity = 0;
  int mpBlade = 0;
};

uint64_t capacityOf(ArraySession& session, const std::string& ldevId) {
  std::vector<hdsLdev_t> ldevs(1);
  ldevs[0].ldevId = ldevId;
  ldevs[0].serialNumber = session.serial();
  session.require(session.handler().getLdevInfo(ldevs), "cannot read LDEV " + ldevId);
  if (ldevs[0].capacity == 0) throw Failure("LDEV " + ldevId + " is not defined");
  return ldevs[0].capacity;
}

int createSvols(Context& ctx, const SvolCreateOptions& o) {
  if (o.label.size() > static_cast<size_t>(VT_HDS_MAX_LDEV_LABEL_NAME)) {
    throw UsageError("--label is longer than " + std::to_string(VT_HDS_MAX_LDEV_LABEL_NAME) +
                     " characters");
  }
  ArraySession session(ctx.log, ctx.array);
  uint64_t capacity = o.like.empty() ? o.capacity : capacityOf(session, o.like);
  std::map<std::string, hdsLdev_t> svols;
  for (const std::string& id : o.ids) {
    hdsLdev_t& ldev = svols[id];
    ldev.ldevId = id;
    ldev.serialNumber = session.serial();
    ldev.capacity = capacity;
    ldev.mpBladeId = o.mpBlade;
    ldev.newLabel = o.label;
  }
  session.require(static_cast<int>(session.handler().createSvol(svols, o.pool)),
                  "cannot create the S-VOLs");
  if (!o.label.empty() && session.handler().modifySvolLabel(svols, false) != 0) {
    std::string error = handlerError(session.handler());
    // Created but unlabelled S-VOLs would not be recognised later; take them back.
    for (const auto& entry : svols) session.handler().deleteSvol(entry.first);
    throw Failure("cannot label the S-VOLs (they were deleted again): " + error);
  }
  for (const std::string& id : o.ids) {
    std::cout << "created S-VOL " << id << " (" << capacity << " blocks in pool " << o.pool
              << (o.label.empty() ? "" : ", label " + o.label) << ")\n";
  }
  return 0;
}

int deleteSvols(Context& ctx, const std::vector<std::string>& ids, bool force) {
  ArraySession session(ctx.log, ctx.array);
  // All are judged before the first goes: a refusal deletes none.
  for (const std::string& id : ids) requireSvol(session, id, "delete LDEV " + id, force);
  for (const std::string& id : ids) {
    session.require(static_cast<int>(session.handler().deleteSvol(id)),
                    "cannot delete S-VOL " + id);
    std::cout << "deleted S-VOL " << id << "\n";
  }
  return 0;
}

int labelSvol(Context& ctx, const std::string& id, const std::string& label) {
  if (label.size() > static_cast<size_t>(VT_HDS_MAX_LDEV_LABEL_NAME)) {
    throw UsageError("the label is longer than " + std::to_string(VT_HDS_MAX_LDEV_LABEL_NAME) +
                     " characters");
  }
  ArraySession session(ctx.log, ctx.array);
  session.require(static_cast<int>(session.handler().modifySvolLabel(id, label)),
                  "cannot label LDEV " + id);
  std::cout << "labelled LDEV " << id << " " << (label.empty() ? VT_HDS_BLANK_LDEV_LABEL : label)
            << "\n";
  return 0;
}

struct SnapshotAddOptions {
  std::string group, pool, mode;
  std::vector<std::string> pairs;
  bool ctg = false;
};

int addSnapshots(Context& ctx, const SnapshotAddOptions& o) {
  std::map<std::string, hdsLdev_t> pairs;
  for (const std::string& pair : o.pairs) {
    size_t colon = pair.find(':');
    std::string pvol = pair.substr(0, colon);
    std::string svol = colon == std::string::npos ? "" : pair.substr(colon + 1);
    if (!isDecimal(pvol) || !isDecimal(svol)) {
      throw UsageError("--pair takes PVOL:SVOL (two LDEV numbers), not " + pair);
    }
    hdsLdev_t& ldev = pairs[pvol + VT_HDS_PAIR_SEPARATOR + svol];
    ldev.ldevId = svol;
    ldev.isCloneTarget = !o.mode.empty();
  }
  ArraySession session(ctx.log, ctx.array);
  session.require(
      session.handler().addToSnapshotGroup(pairs, o.pool, o.group, o.ctg, o.mode == "clone"),
      "cannot add the pairs to snapshot group " + o.group);
  std::cout << "added " << pairs.size() << " pair(s) to snapshot group " << o.group << "\n";
  return 0;
}

int operateOnSnapshots(Context& ctx, const std::string& word, const std::string& group,
                       const std::string& svol) {
  if (group.empty() == svol.empty()) throw UsageError("give either --group or --svol");
  ArraySession session(ctx.log, ctx.array);
  std::string target = svol.empty() ? "snapshot group " + group : "S-VOL " + svol;
  session.require(session.handler().operateOnSnapshotGroup(group, svol, " " + word + " "),
                  "cannot " + word + " " + target);
  std::cout << word << ": done on " << target << "\n";
  return 0;
}

int deleteSnapshots(Context& ctx, const std::vector<std::string>& ids, bool force) {
  ArraySession session(ctx.log, ctx.array);
  for (const std::string& id : ids) {
    requireSvol(session, id, "delete the snapshot pairs of LDEV " + id, force);
  }
  for (const std::string& id : ids) {
    session.require(session.handler().deleteSnapshot(id), "cannot delete the snapshots of " + id);
    std::cout << "deleted the snapshot pairs of LDEV " << id << "\n";
  }
  return 0;
}

struct MapOptions {
  std::string port, hostGroup, deviceGroup;
  std::vector<std::string> ldevs;
  bool force = false;
};

// Unmapping withdraws a volume from a host that may be using it: only S-VOLs go unforced.
void requireUnmappable(ArraySession& session, const MapOptions& o) {
  std::vector<std::string> ids = o.ldevs;
  if (!o.deviceGroup.empty() && !o.force) {
    std::vector<hdsLdev_t> members;
    session.require(session.handler().getVolsInDeviceGroup(members, o.deviceGroup),
                    "cannot list the LDEVs of device group " + o.deviceGroup);
    for (const hdsLdev_t& m : members) ids.push_back(m.ldevId);
  }
  for (const std::string& id : ids) requireSvol(session, id, "unmap LDEV " + id, o.force);
}

int mapOrUnmap(Context& ctx, const MapOptions& o, bool map) {
  if (o.ldevs.empty() == o.deviceGroup.empty()) {
    throw UsageError("give either --ldev or --device-group");
  }
  ArraySession session(ctx.log, ctx.array);
  RaidcomCommandHandler& h = session.handler();
  std::string gid = lookUpHostGroup(session, o.port, o.hostGroup);
  if (gid.empty()) throw Failure("port " + o.port + " has no host group " + o.hostGroup);
  std::string where = o.port + "-" + gid;
  if (!map) requireUnmappable(session, o);
  if (!o.deviceGroup.empty()) {
    std::string what = "device group " + o.deviceGroup;
    if (map) {
      session.require(h.mapDeviceGroupToHostGroup(o.deviceGroup, o.port, gid),
                      "cannot map " + what);
    } else {
      session.require(h.unmapDeviceGroupFromHostGroup(o.deviceGroup, o.port, gid),
                      "cannot unmap " + what);
    }
    std::cout << (map ? "mapped " : "unmapped ") << what << (map ? " to " : " from ") << where
              << "\n";
    return 0;
  }
  for (const std::string& ldev : o.ldevs) {
    if (map) {
      session.require(h.mapLdevToHostGroup(ldev, o.port, gid), "cannot map LDEV " + ldev);
    } else {
      session.require(h.unmapLdevFromHostGroup(ldev, o.port, gid), "cannot unmap LDEV " + ldev);
    }
    std::cout << (map ? "mapped LDEV " : "unmapped LDEV ") << ldev << (map ? " to " : " from ")
              << where << "\n";
  }
  return 0;
}

std::string resourceGroupName(const ArrayOptions& array) {
  return array.resourceGroup.empty() ? VT_HDS_META_RESOURCE_NAME : array.resourceGroup;
}

// Waits for SIGINT or SIGTERM, at most seconds (< 0: without limit). The signals are blocked
// first so that an interrupt ends the wait instead of the process: the lock and the session
// must still be given back.
void holdUntilInterrupted(long seconds) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  if (seconds < 0) {
    int sig = 0;
    sigwait(&set, &sig);
    return;
  }
  timespec limit{seconds, 0};
  while (sigtimedwait(&set, nullptr, &limit) < 0 && errno == EINTR) {
  }
}

// The other sessions of this host on the array share its resource group lock; "" when there
// are none, else what holds it.
std::string otherSessions(ArraySession& session) {
  int count = session.loginCount();
  if (count <= 1) return "";
  return std::to_string(count - 1) + " other session(s) of this host use array " +
         session.serial() + " (login count " + std::to_string(count) +
         "), a job among them perhaps";
}

int lockResourceGroup(Context& ctx, long holdSeconds, bool force) {
  ArraySession session(ctx.log, ctx.array);
  std::string name = resourceGroupName(ctx.array);
  session.require(session.handler().lockResource(), "cannot lock resource group " + name);
  std::cout << "locked resource group " << name << " on array " << session.serial()
            << (holdSeconds < 0 ? "; interrupt to release it" : "") << std::endl;
  holdUntilInterrupted(holdSeconds);
  std::string others = force ? "" : otherSessions(session);
  if (!others.empty()) {
    session.leaveResourceLock();
    std::cout << "left resource group " << name << " locked: " << others
              << "; the last of them releases it (--force releases it at once)\n";
    return 0;
  }
  session.require(session.handler().unlockResource(), "cannot unlock resource group " + name);
  std::cout << "released resource group " << name << "\n";
  return 0;
}

// Refuses to pull the lock from a session that uses it: another process of this host, or a
// user or host other than this one.
void requireUnlockable(ArraySession& session, const ArrayOptions& array, const std::string& name) {
  std::string others = otherSessions(session);
  if (others.empty()) {
    std::map<std::string, ResourceGroupStatus> groups;
    session.require(session.handler().getResourceGroupInfo(groups, false),
                    "cannot read the resource groups of array " + session.serial());
    const ResourceGroupStatus& group = groups[name];
    if (group.status != "Locked") return;
    hdsRaidqry_t host;
    session.require(session.handler().getCCIRaidqryInfo(host), "cannot read this host's name");
    if (group.lockOwner == array.user && group.lockHost == host.hostName) return;
    others = "user " + group.lockOwner + " from host " + group.lockHost + " holds it";
  }
  throw Failure("refused to unlock resource group " + name + " on array " + session.serial() +
                ": " + others + "; --force unlocks it anyway");
}

int unlockResourceGroup(Context& ctx, bool force) {
  ArraySession session(ctx.log, ctx.array);
  std::string name = resourceGroupName(ctx.array);
  if (!force) requireUnlockable(session, ctx.array, name);
  session.require(session.handler().unlockResource(), "cannot unlock resource group " + name);
  std::cout << "resource group " << name << " on array " << session.serial() << " is unlocked\n";
  return 0;
}

void addForceFlag(CLI::App* command, bool& force, const std::string& what) {
  command->add_flag("--force", force, what + " (check first: this acts on a production array)");
}

CLI::App* addOperation(CLI::App* parent, Context& ctx, const char* name, const char* description) {
  CLI::App* cmd = parent->add_subcommand(name, description);
  addArrayOptions(cmd, ctx.array);
  return cmd;
}

}  // namespace

void addOperationCommands(CLI::App& app, Context& ctx) {
  CLI::Validator ldevId(checkLdevId, "LDEV");
  CLI::Validator poolId(checkDecimalId, "ID");

  CLI::App* svol = app.add_subcommand("svol", "Create, delete and label S-VOLs");
  svol->require_subcommand(1);
  auto sc = std::make_shared<SvolCreateOptions>();
  CLI::App* create = addOperation(svol, ctx, "create", "Create S-VOLs in a pool (all or none)");
  create->add_option("ldev", sc->ids, "LDEV numbers to create")->required()->check(ldevId);
  create->add_option("--pool", sc->pool, "Pool id")->required()->check(poolId);
  auto* capacity = create->add_option("--capacity", sc->capacity, "Capacity in blocks")
                       ->check(CLI::Range(uint64_t{1}, UINT64_MAX));
  auto* like = create->add_option("--like", sc->like, "Same capacity as this LDEV")->check(ldevId);
  auto* size = create->add_option_group("size", "Capacity of the S-VOLs");
  size->add_option(capacity);
  size->add_option(like);
  size->require_option(1);
  create->add_option("--label", sc->label, "Label to give them");
  create->add_option("--mp-blade", sc->mpBlade, "MP blade id")->check(CLI::Range(0, INT_MAX));
  create->callback([&ctx, sc] { ctx.action = [&ctx, sc] { return createSvols(ctx, *sc); }; });

  auto delIds = std::make_shared<std::vector<std::string>>();
  CLI::App* del = addOperation(svol, ctx, "delete", "Delete S-VOLs");
  auto delForce = std::make_shared<bool>(false);
  del->add_option("ldev", *delIds, "LDEV numbers")->required()->check(ldevId);
  addForceFlag(del, *delForce,
               "Delete LDEVs that are neither the S-VOL of a snapshot pair nor labelled "
               "KS_SVOL_...");
  del->callback([&ctx, delIds, delForce] {
    ctx.action = [&ctx, delIds, delForce] { return deleteSvols(ctx, *delIds, *delForce); };
  });

  auto labelId = std::make_shared<std::string>();
  auto labelText = std::make_shared<std::string>();
  CLI::App* label = addOperation(svol, ctx, "label", "Label an LDEV (an empty label clears it)");
  label->add_option("ldev", *labelId, "LDEV number")->required()->check(ldevId);
  label->add_option("label", *labelText, "The new label")->required();
  label->callback([&ctx, labelId, labelText] {
    ctx.action = [&ctx, labelId, labelText] { return labelSvol(ctx, *labelId, *labelText); };
  });

  CLI::App* snapshot = app.add_subcommand("snapshot", "Snapshot pairs and snapshot groups");
  snapshot->require_subcommand(1);
  auto sa = std::make_shared<SnapshotAddOptions>();
  CLI::App* add = addOperation(snapshot, ctx, "add", "Add snapshot pairs to a snapshot group");
  add->add_option("group", sa->group, "Snapshot group (made when it does not exist)")->required();
  add->add_option("--pool", sa->pool, "Pool of the snapshot data")->required()->check(poolId);
  add->add_option("--pair", sa->pairs, "PVOL:SVOL (repeatable)")->required();
  add->add_flag("--ctg", sa->ctg, "Consistency group");
  add->add_option("--mode", sa->mode, "Clone or cascade the S-VOLs")
      ->check(CLI::IsMember({"clone", "cascade"}));
  add->callback([&ctx, sa] { ctx.action = [&ctx, sa] { return addSnapshots(ctx, *sa); }; });

  static const char* const kWords[][2] = {
      {"create", "Store the snapshot data (point-in-time copy)"},
      {"split", "Split the pairs (point-in-time copy)"},
      {"resync", "Resynchronise the pairs"},
      {"restore", "Copy the snapshot data back to the P-VOLs"},
      {"clone", "Copy the snapshot data to the S-VOLs in full"}};
  for (const auto& word : kWords) {
    auto group = std::make_shared<std::string>();
    auto svolId = std::make_shared<std::string>();
    std::string w = word[0];
    CLI::App* op = addOperation(snapshot, ctx, word[0], word[1]);
    auto* g = op->add_option("--group", *group, "The whole snapshot group");
    auto* s = op->add_option("--svol", *svolId, "One pair, by its S-VOL")->check(ldevId);
    g->excludes(s);
    op->callback([&ctx, w, group, svolId] {
      ctx.action = [&ctx, w, group, svolId] { return operateOnSnapshots(ctx, w, *group, *svolId); };
    });
  }

  auto sdIds = std::make_shared<std::vector<std::string>>();
  CLI::App* sdel = addOperation(snapshot, ctx, "delete", "Delete the snapshot pairs of LDEVs");
  sdel->add_option("ldev", *sdIds, "LDEV numbers (an S-VOL: its pair; a P-VOL: all its pairs)")
      ->required()
      ->check(ldevId);
  auto sdForce = std::make_shared<bool>(false);
  addForceFlag(sdel, *sdForce, "Also delete the pairs of LDEVs that are not S-VOLs (P-VOLs)");
  sdel->callback([&ctx, sdIds, sdForce] {
    ctx.action = [&ctx, sdIds, sdForce] { return deleteSnapshots(ctx, *sdIds, *sdForce); };
  });

  for (bool map : {true, false}) {
    auto mo = std::make_shared<MapOptions>();
    CLI::App* cmd = addOperation(&app, ctx, map ? "map" : "unmap",
                                 map ? "Present LDEVs on a host group (add LU paths)"
                                     : "Withdraw LDEVs from a host group (delete LU paths)");
    cmd->add_option("--port", mo->port, "Port, e.g. CL1-A")->required();
    cmd->add_option("--host-group", mo->hostGroup, "Host group number or name")->required();
    auto* l = cmd->add_option("--ldev", mo->ldevs, "LDEV numbers (repeatable)")->check(ldevId);
    cmd->add_option("--device-group", mo->deviceGroup, "Every LDEV of this device group")
        ->excludes(l);
    if (!map) addForceFlag(cmd, mo->force, "Also withdraw LDEVs that are not S-VOLs");
    cmd->callback(
        [&ctx, mo, map] { ctx.action = [&ctx, mo, map] { return mapOrUnmap(ctx, *mo, map); }; });
  }

  auto hold = std::make_shared<long>(-1);
  CLI::App* lock = addOperation(&app, ctx, "lock",
                                "Lock the resource group on the array, hold it, then release it");
  lock->add_option("--hold", *hold, "Seconds to hold it (default: until interrupted)")
      ->check(CLI::Range(0L, LONG_MAX));
  auto lockForce = std::make_shared<bool>(false);
  addForceFlag(lock, *lockForce,
               "Release it at the end even while other sessions of this host use the array");
  lock->callback([&ctx, hold, lockForce] {
    ctx.action = [&ctx, hold, lockForce] { return lockResourceGroup(ctx, *hold, *lockForce); };
  });

  auto unlockForce = std::make_shared<bool>(false);
  CLI::App* unlock =
      addOperation(&app, ctx, "unlock",
                   "Release the resource group lock (also one that a crashed job left behind)");
  addForceFlag(unlock, *unlockForce,
               "Release it even while other sessions of this host use the array, or another "
               "user or host holds it");
  unlock->callback([&ctx, unlockForce] {
    ctx.action = [&ctx, unlockForce] { return unlockResourceGroup(ctx, *unlockForce); };
  });
}

}  // namespace hdsctl
