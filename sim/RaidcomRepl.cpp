#include <set>

#include "sim/Raidcom.h"

// raidcom commands for device groups, snapshot groups, copy groups and pools.
namespace ccisim {

namespace {

constexpr size_t kMaxGroupName = 32;
constexpr int kFirstSnapshotMirror = 3;  // 0..2 belong to in-system copy pairs
constexpr int kMaxMirror = 1023;

struct SnapshotRow {
  std::string group;
  int pvol = 0;
  std::optional<int> svol;
  int mu = 0;
  int pool = 0;
  std::string status;
  int64_t since = 0;
  std::optional<int64_t> due;
  std::optional<int64_t> splitTime;
  bool ctg = false;
  std::string mode;
};

template <typename... Args>
std::vector<SnapshotRow> loadSnapshots(Raidcom& rc, const std::string& where, const Args&... args) {
  std::string sql =
      "SELECT grp, pvol, svol, mu, pool, status, since, due, split_time, ctg, mode FROM snapshots "
      "WHERE serial=? AND " +
      where + " ORDER BY grp, pvol, mu";
  Stmt st = rc.db().query(sql.c_str(), rc.serial(), args...);
  std::vector<SnapshotRow> rows;
  while (st.step()) {
    SnapshotRow r;
    r.group = st.s(0);
    r.pvol = st.i(1);
    if (!st.isNull(2)) r.svol = st.i(2);
    r.mu = st.i(3);
    r.pool = st.i(4);
    r.status = st.s(5);
    r.since = st.i64(6);
    r.due = st.opt(7);
    r.splitTime = st.opt(8);
    r.ctg = st.i(9) != 0;
    r.mode = st.s(10);
    rows.push_back(r);
  }
  return rows;
}

SnapshotView snapshotView(Raidcom& rc, const SnapshotRow& r, bool svolSide) {
  SnapshotView v;
  v.group = r.group;
  v.role = svolSide ? "S-VOL" : "P-VOL";
  v.status = svolSide && r.status == "PSUS" ? "SSUS" : r.status;
  v.serial = rc.serial();
  v.ldev = svolSide ? *r.svol : r.pvol;
  v.mu = r.mu;
  v.partner = svolSide ? std::optional<int>(r.pvol) : r.svol;
  v.pool = r.pool;
  v.percent = copyPercent(r.since, r.due);
  v.mode = std::string("G") + (r.ctg ? "C" : "-") + "-" + (r.mode.empty() ? "-" : "A");
  v.splitTime = r.splitTime;
  return v;
}

void requireGroupName(Raidcom& rc, const std::string& name) {
  if (name.size() > kMaxGroupName) rc.reject(ssb::NAME_TOO_LONG);
}

// The snapshot pairs a modify or delete addresses.
std::vector<SnapshotRow> snapshotTargets(Raidcom& rc, const Options& opts, bool forModify) {
  if (opts.has("-snapshotgroup")) {
    auto rows = loadSnapshots(rc, "grp=?", opts.required("-snapshotgroup"));
    if (rows.empty()) rc.fail(EX_ENOOBJ);
    return rows;
  }
  if (!opts.has("-ldev_id")) rc.fail(EX_REQARG);
  int ldev = opts.ldevId("-ldev_id");
  auto rows = loadSnapshots(rc, "svol=?", ldev);
  if (!rows.empty()) return rows;
  if (auto mu = opts.optNumber("-mirror_id")) {
    rows = loadSnapshots(rc, "pvol=? AND mu=?", ldev, *mu);
  } else if (!forModify) {
    rows = loadSnapshots(rc, "pvol=?", ldev);
  }
  // A P-VOL without a mirror unit names no single pair of its snapshot groups.
  if (rows.empty()) rc.fail(EX_ENOOBJ);
  return rows;
}

void setSnapshot(Raidcom& rc, const SnapshotRow& r, const std::string& status,
                 const std::optional<std::string>& next, std::optional<int64_t> due,
                 std::optional<int64_t> splitTime) {
  rc.db().run(
      "UPDATE snapshots SET status=?, next=?, since=?, due=?, split_time=? WHERE serial=? AND "
      "pvol=? AND mu=?",
      status, next, Invocation::nowMs(), due, splitTime, rc.serial(), r.pvol, r.mu);
  if (due) rc.inv().scheduleDue(*due);
}

}  // namespace

void getDeviceGroup(Raidcom& rc) {
  Options opts = rc.options({{"-device_grp_name", 1, 1}});
  std::string text;
  if (!opts.has("-device_grp_name")) {
    Stmt st = rc.db().query("SELECT grp FROM devgrps WHERE serial=? GROUP BY grp ORDER BY min(seq)",
                            rc.serial());
    while (st.step()) text += formatDeviceGroupListLine(st.s(0), rc.serial());
    if (!text.empty()) rc.inv().out() += formatDeviceGroupListHeader() + text;
    return;
  }
  const std::string& group = opts.required("-device_grp_name");
  Stmt st = rc.db().query("SELECT devname, ldev FROM devgrps WHERE serial=? AND grp=? ORDER BY seq",
                          rc.serial(), group);
  while (st.step()) text += formatDeviceGroupLine(group, st.s(0), st.i(1), rc.serial());
  if (text.empty()) rc.fail(EX_ENOOBJ);
  rc.inv().out() += formatDeviceGroupHeader() + text;
}

void addDeviceGroup(Raidcom& rc) {
  Options opts = rc.options({{"-device_grp_name", 1, 2}, {"-ldev_id", 1, 1}, {"-cnt", 1, 1}});
  const std::vector<std::string>& names = opts.values("-device_grp_name");
  const std::string& group = opts.required("-device_grp_name");
  std::string device = names.size() > 1 ? names[1] : "-";
  requireGroupName(rc, group);
  requireGroupName(rc, device);
  int first = opts.ldevId("-ldev_id");
  int64_t count = opts.count("-cnt", maxLdevId(rc.db(), rc.serial()) - first + 1);
  for (int64_t i = 0; i < count; ++i) {
    int id = first + static_cast<int>(i);
    LdevRow row = rc.requireLdev(id);
    rc.requireUnlocked(row.rsgid);
    if (rc.db().exists("SELECT 1 FROM devgrps WHERE serial=? AND grp=? AND ldev=?", rc.serial(),
                       group, id)) {
      rc.reject(ssb::IN_DEVICE_GROUP);
    }
    rc.db().run("INSERT INTO devgrps(serial, grp, devname, ldev) VALUES(?, ?, ?, ?)", rc.serial(),
                group, device, id);
  }
}

void deleteDeviceGroup(Raidcom& rc) {
  Options opts = rc.options({{"-device_grp_name", 1, 1}, {"-ldev_id", 1, 1}});
  const std::string& group = opts.required("-device_grp_name");
  int id = opts.ldevId("-ldev_id");
  if (auto row = loadLdev(rc.db(), rc.serial(), id)) rc.requireUnlocked(row->rsgid);
  rc.db().run("DELETE FROM devgrps WHERE serial=? AND grp=? AND ldev=?", rc.serial(), group, id);
  if (rc.db().changes() == 0) rc.reject(ssb::NOT_IN_DEVICE_GROUP);
}

void getSnapshot(Raidcom& rc) {
  Options opts = rc.options({{"-ldev_id", 1, 1},
                             {"-snapshotgroup", 1, 1},
                             {"-mirror_id", 1, 1},
                             {"-format_time", 0, 0},
                             {"-check_status", 1, 1},
                             {"-time", 1, 1}});
  bool formatTime = opts.has("-format_time");
  std::vector<SnapshotView> views;
  if (opts.has("-snapshotgroup")) {
    const std::string& group = opts.required("-snapshotgroup");
    auto rows = loadSnapshots(rc, "grp=?", group);
    if (rows.empty()) rc.fail(EX_ENOOBJ);
    if (opts.has("-check_status")) {
      std::string want = toUpper(opts.required("-check_status"));
      int64_t deadline = rc.inv().deadlineAfter(opts.optNumber("-time").value_or(0), 1000);
      for (;;) {
        bool all = true;
        for (const SnapshotRow& r : rows) all = all && r.status == want;
        if (all) return;
        if (!opts.has("-time")) {
          rc.inv().printErr("raidcom: testing condition has failed with exit(1).\n");
          throw ToolExit{1};
        }
        int64_t now = Invocation::nowMs();
        if (now >= deadline) rc.fail(EX_EWSTOT);
        rc.inv().pause(std::min<int64_t>(deadline - now, 50));
        rows = loadSnapshots(rc, "grp=?", group);
      }
    }
    for (const SnapshotRow& r : rows) views.push_back(snapshotView(rc, r, false));
  } else if (opts.has("-ldev_id")) {
    int id = opts.ldevId("-ldev_id");
    for (const SnapshotRow& r : loadSnapshots(rc, "pvol=?", id)) {
      views.push_back(snapshotView(rc, r, false));
    }
    for (const SnapshotRow& r : loadSnapshots(rc, "svol=?", id)) {
      views.push_back(snapshotView(rc, r, true));
    }
  } else {
    Stmt st = rc.db().query(
        "SELECT grp FROM snapshots WHERE serial=? GROUP BY grp ORDER BY min(rowid)", rc.serial());
    while (st.step()) {
      SnapshotView v;
      v.group = st.s(0);
      v.role = "-";
      v.status = "-";
      v.serial = rc.serial();
      v.mode = "----";
      views.push_back(v);
    }
  }
  if (views.empty()) return;
  std::string text = formatSnapshotHeader();
  for (const SnapshotView& v : views) text += formatSnapshotLine(v, formatTime);
  rc.inv().out() += text;
}

void addSnapshot(Raidcom& rc) {
  Options opts = rc.options({{"-ldev_id", 1, 2},
                             {"-pool", 1, 1},
                             {"-snapshotgroup", 1, 1},
                             {"-snap_mode", 1, -1},
                             {"-mirror_id", 1, 1}});
  const std::vector<std::string>& ids = opts.values("-ldev_id");
  if (ids.empty() || !opts.has("-pool") || !opts.has("-snapshotgroup")) {
    rc.reject(ssb::MISSING_PARAMS);
  }
  int pvolId = opts.ldevId("-ldev_id", 0);
  std::optional<int> svolId;
  if (ids.size() > 1) svolId = opts.ldevId("-ldev_id", 1);
  const std::string& group = opts.required("-snapshotgroup");
  requireGroupName(rc, group);
  bool ctg = false;
  std::string mode;
  for (const std::string& word : opts.values("-snap_mode")) {
    std::string w = toLower(word);
    if (w == "ctg") {
      ctg = true;
    } else if (w == "clone" || w == "cascade") {
      mode = w;
    } else {
      rc.inv().invalidOption("-snap_mode");
    }
  }
  auto poolId = parseNumber(opts.required("-pool"));
  if (!poolId) rc.inv().invalidOption("-pool");

  LdevRow pvol = rc.requireLdev(pvolId);
  std::optional<LdevRow> svol;
  if (svolId) svol = rc.requireLdev(*svolId);
  if (!rc.db().exists("SELECT 1 FROM pools WHERE serial=? AND id=?", rc.serial(), *poolId)) {
    rc.reject(ssb::POOL_MISSING);
  }
  rc.requireUnlocked(pvol.rsgid);
  if (svol) {
    rc.requireUnlocked(svol->rsgid);
    if (svol->id == pvol.id) rc.reject(ssb::SAME_VOLUME);
    if (svol->capacity != pvol.capacity) rc.reject(ssb::SIZE_MISMATCH);
    if (rc.db().exists("SELECT 1 FROM snapshots WHERE serial=? AND (svol=? OR pvol=?)", rc.serial(),
                       svol->id, svol->id) &&
        mode != "cascade") {
      rc.reject(ssb::SVOL_IN_USE);
    }
    if (rc.db().exists("SELECT 1 FROM pairs WHERE (serial=? AND pvol=?) OR (s_serial=? AND svol=?)",
                       rc.serial(), svol->id, rc.serial(), svol->id)) {
      rc.reject(ssb::SVOL_IN_USE);
    }
  }
  if (rc.db().exists("SELECT 1 FROM snapshots WHERE serial=? AND pvol=? AND grp=?", rc.serial(),
                     pvol.id, group)) {
    rc.reject(ssb::PVOL_IN_GROUP);
  }
  std::set<int> used;
  Stmt st = rc.db().query(
      "SELECT mu FROM snapshots WHERE serial=? AND pvol=? UNION SELECT mu FROM pairs WHERE "
      "serial=? AND pvol=?",
      rc.serial(), pvol.id, rc.serial(), pvol.id);
  while (st.step()) used.insert(st.i(0));
  int mu = -1;
  if (auto wanted = opts.optNumber("-mirror_id")) {
    if (*wanted < 0 || *wanted > kMaxMirror) rc.inv().invalidOption("-mirror_id");
    if (used.count(static_cast<int>(*wanted))) rc.reject(ssb::NO_FREE_MU);
    mu = static_cast<int>(*wanted);
  }
  for (int m = kFirstSnapshotMirror; m <= kMaxMirror && mu < 0; ++m) {
    if (!used.count(m)) mu = m;
  }
  if (mu < 0) rc.reject(ssb::NO_FREE_MU);
  rc.db().run(
      "INSERT INTO snapshots(serial, grp, pvol, svol, mu, pool, status, next, since, due, "
      "split_time, ctg, mode) VALUES(?, ?, ?, ?, ?, ?, 'PAIR', NULL, ?, NULL, NULL, ?, ?)",
      rc.serial(), group, pvol.id, svolId, mu, *poolId, Invocation::nowMs(), ctg ? 1 : 0, mode);
}

void modifySnapshot(Raidcom& rc) {
  Options opts = rc.options({{"-ldev_id", 1, 1},
                             {"-snapshotgroup", 1, 1},
                             {"-snapshot_data", 1, 1},
                             {"-mirror_id", 1, 1}});
  std::string op = toLower(opts.required("-snapshot_data"));
  static const std::set<std::string> kOps = {"create", "split", "resync", "restore", "clone"};
  if (!kOps.count(op)) rc.inv().invalidOption("-snapshot_data");
  std::vector<SnapshotRow> rows = snapshotTargets(rc, opts, true);
  int64_t now = Invocation::nowMs();
  int64_t copy = timingMs(rc.db(), "copy_ms");
  std::optional<int64_t> due;
  if (copy > 0) due = now + copy;
  for (const SnapshotRow& r : rows) {
    if (auto row = loadLdev(rc.db(), rc.serial(), r.pvol)) rc.requireUnlocked(row->rsgid);
    if (op == "create" || op == "split") {
      if (r.status != "PAIR") rc.reject(ssb::PAIR_STATUS);
      setSnapshot(rc, r, "PSUS", std::nullopt, std::nullopt, now / 1000);
    } else if (op == "resync") {
      if (r.status != "PSUS" && r.status != "PSUE") rc.reject(ssb::PAIR_STATUS);
      if (due) {
        setSnapshot(rc, r, "COPY", std::string("PAIR"), due, std::nullopt);
      } else {
        setSnapshot(rc, r, "PAIR", std::nullopt, std::nullopt, std::nullopt);
      }
    } else if (op == "restore") {
      if (r.status != "PSUS") rc.reject(ssb::PAIR_STATUS);
      if (due) {
        setSnapshot(rc, r, "RCPY", std::string("PAIR"), due, std::nullopt);
      } else {
        setSnapshot(rc, r, "PAIR", std::nullopt, std::nullopt, std::nullopt);
      }
    } else {
      // A clone copies the snapshot data to the S-VOL in full, then the pair dissolves.
      if (r.status != "PSUS" || !r.svol) rc.reject(ssb::PAIR_STATUS);
      if (due) {
        setSnapshot(rc, r, "COPY", std::string("SMPL"), due, r.splitTime);
      } else {
        rc.db().run("DELETE FROM snapshots WHERE serial=? AND pvol=? AND mu=?", rc.serial(), r.pvol,
                    r.mu);
      }
    }
  }
}

void deleteSnapshot(Raidcom& rc) {
  Options opts = rc.options({{"-ldev_id", 1, 1}, {"-snapshotgroup", 1, 1}, {"-mirror_id", 1, 1}});
  for (const SnapshotRow& r : snapshotTargets(rc, opts, false)) {
    if (auto row = loadLdev(rc.db(), rc.serial(), r.pvol)) rc.requireUnlocked(row->rsgid);
    rc.db().run("DELETE FROM snapshots WHERE serial=? AND pvol=? AND mu=?", rc.serial(), r.pvol,
                r.mu);
  }
}

void getCopyGroup(Raidcom& rc) {
  Options opts = rc.options({{"-copy_grp_name", 1, 1}});
  std::string filter = opts.value("-copy_grp_name");
  Stmt st = rc.db().query(
      "SELECT name, pdg, sdg, mu, jid FROM copygrps WHERE serial=? ORDER BY rowid", rc.serial());
  std::string text;
  while (st.step()) {
    if (!filter.empty() && st.s(0) != filter) continue;
    std::string mu = (st.isNull(4) ? "" : "h") + std::to_string(st.i(3));
    std::string jid = st.isNull(4) ? "-" : std::to_string(st.i(4));
    text += formatCopyGroupLine({st.s(0), st.s(1), mu, jid, rc.serial()});
    text += formatCopyGroupLine({st.s(0), st.s(2), "-", "-", rc.serial()});
  }
  if (!filter.empty() && text.empty()) rc.fail(EX_ENOOBJ);
  if (!text.empty()) rc.inv().out() += formatCopyGroupHeader() + text;
}

void addCopyGroup(Raidcom& rc) {
  Options opts =
      rc.options({{"-copy_grp_name", 3, 3}, {"-mirror_id", 1, 1}, {"-journal_id", 1, 1}});
  const std::vector<std::string>& names = opts.values("-copy_grp_name");
  const std::string& name = names[0];
  const std::string& pdg = names[1];
  const std::string& sdg = names[2];
  requireGroupName(rc, name);
  int64_t mu = opts.optNumber("-mirror_id").value_or(0);
  if (mu < 0 || mu > kMaxMirror) rc.inv().invalidOption("-mirror_id");
  std::optional<int64_t> jid = opts.optNumber("-journal_id");
  if (rc.db().exists("SELECT 1 FROM copygrps WHERE serial=? AND name=?", rc.serial(), name)) {
    rc.reject(ssb::COPY_GROUP_EXISTS);
  }
  if (!rc.db().exists("SELECT 1 FROM devgrps WHERE serial=? AND grp=?", rc.serial(), pdg) ||
      !rc.db().exists("SELECT 1 FROM devgrps WHERE grp=?", sdg)) {
    rc.reject(ssb::DEVICE_GROUP_MISSING);
  }
  int64_t ctg =
      rc.db().scalar("SELECT max(ctg) FROM copygrps WHERE serial=?", rc.serial()).value_or(-1) + 1;
  rc.db().run(
      "INSERT INTO copygrps(serial, name, pdg, sdg, mu, jid, ctg, incarnation, q_seq, q_time) "
      "VALUES(?, ?, ?, ?, ?, ?, ?, 1, 0, ?)",
      rc.serial(), name, pdg, sdg, mu, jid, ctg, Invocation::nowMs());
}

void deleteCopyGroup(Raidcom& rc) {
  Options opts = rc.options({{"-copy_grp_name", 1, 1}});
  const std::string& name = opts.required("-copy_grp_name");
  if (!rc.db().exists("SELECT 1 FROM copygrps WHERE serial=? AND name=?", rc.serial(), name)) {
    rc.fail(EX_ENOOBJ);
  }
  if (rc.db().exists("SELECT 1 FROM pairs WHERE serial=? AND cg=?", rc.serial(), name)) {
    rc.reject(ssb::COPY_GROUP_IN_USE);
  }
  rc.db().run("DELETE FROM copygrps WHERE serial=? AND name=?", rc.serial(), name);
}

void getPool(Raidcom& rc) {
  Options opts = rc.options({{"-key", 1, 1}, {"-pool_id", 1, 1}});
  std::string key = opts.value("-key");
  if (!key.empty() && key != "opt") rc.inv().invalidOption("-key");
  std::optional<int64_t> only = opts.optNumber("-pool_id");
  Stmt st = rc.db().query(
      "SELECT id, status, used_pct, name, type, num_vols, first_ldev, threshold, capacity_mb, "
      "(SELECT count(*) FROM snapshots s WHERE s.serial=p.serial AND s.pool=p.id) FROM pools p "
      "WHERE serial=? ORDER BY id",
      rc.serial());
  std::string text;
  while (st.step()) {
    if (only && st.i(0) != *only) continue;
    PoolView p;
    p.id = st.i(0);
    p.status = st.s(1);
    p.usedPercent = st.i(2);
    p.name = st.s(3);
    p.type = st.s(4);
    p.numVols = st.i(5);
    p.firstLdev = st.i(6);
    p.threshold = st.i(7);
    p.capacityMb = st.i64(8);
    p.snapshotCount = st.i(9);
    p.serial = rc.serial();
    text += key == "opt" ? formatPoolOptLine(p) : formatPoolLine(p);
  }
  if (only && text.empty()) rc.fail(EX_ENOOBJ);
  if (!text.empty())
    rc.inv().out() += (key == "opt" ? formatPoolOptHeader() : formatPoolHeader()) + text;
}

}  // namespace ccisim
