#include <algorithm>
#include <cctype>
#include <limits>
#include <set>

#include "sim/Raidcom.h"

// raidcom get / add / delete / modify / initialize ldev.
namespace ccisim {

namespace {

// 512-byte blocks: a bare number is already in blocks, a unit letter scales bytes.
std::optional<int64_t> parseCapacity(const std::string& text) {
  if (text.empty()) return std::nullopt;
  char unit = static_cast<char>(std::toupper(static_cast<unsigned char>(text.back())));
  int64_t factor = 1;
  std::string digits = text;
  switch (unit) {
    case 'K':
      factor = 2;
      break;
    case 'M':
      factor = 2048;
      break;
    case 'G':
      factor = 2048 * 1024;
      break;
    case 'T':
      factor = int64_t(2048) * 1024 * 1024;
      break;
    default:
      factor = 0;
  }
  if (factor != 0) {
    digits.pop_back();
  } else {
    factor = 1;
  }
  auto n = parseNumber(digits);
  if (!n || *n <= 0 || *n > std::numeric_limits<int64_t>::max() / factor) return std::nullopt;
  return *n * factor;
}

bool matchesStatus(const LdevRow* row, const std::vector<std::string>& wanted) {
  std::string want;
  for (const std::string& w : wanted) want += (want.empty() ? "" : " ") + toUpper(w);
  if (want == "NOT DEFINED") return !row || !row->defined;
  if (!row || !row->defined || row->operation != "NONE") return false;
  return row->status == want;
}

std::string joinBlocks(const std::vector<std::string>& blocks) {
  std::string text;
  for (size_t i = 0; i < blocks.size(); ++i) text += (i ? "\n" : "") + blocks[i];
  return text;
}

void printLdevs(Raidcom& rc, const std::vector<LdevView>& views, bool frontEnd) {
  if (frontEnd) {
    std::string text = formatLdevFrontEndHeader();
    for (const LdevView& v : views) text += formatLdevFrontEndLine(v);
    rc.inv().out() += text;
    return;
  }
  std::vector<std::string> blocks;
  blocks.reserve(views.size());
  for (const LdevView& v : views) blocks.push_back(formatLdevRecord(v, rc.hex()));
  rc.inv().out() += joinBlocks(blocks);
}

void waitForStatus(Raidcom& rc, int id, const std::vector<std::string>& wanted,
                   std::optional<int64_t> waitSec) {
  int64_t deadline = rc.inv().deadlineAfter(waitSec.value_or(0), 1000);
  for (;;) {
    auto row = loadLdev(rc.db(), rc.serial(), id);
    if (matchesStatus(row ? &*row : nullptr, wanted)) return;
    if (!waitSec) {
      rc.inv().printErr("raidcom: testing condition has failed with exit(1).\n");
      throw ToolExit{1};
    }
    int64_t now = Invocation::nowMs();
    if (now >= deadline) rc.fail(EX_EWSTOT);
    rc.inv().pause(std::min<int64_t>(deadline - now, 50));
  }
}

std::vector<LdevView> listLdevs(Raidcom& rc, const std::string& kind, const Options& opts) {
  static const std::set<std::string> kKinds = {"defined",         "undefined", "mapped", "unmapped",
                                               "dp_volume",       "pool",      "quorum", "journal",
                                               "external_volume", "parity_grp"};
  if (!kKinds.count(kind)) rc.inv().invalidOption("-ldev_list");
  std::optional<int64_t> pool = opts.optNumber("-pool_id");
  if (kind == "pool" && !pool) rc.fail(EX_REQARG);
  std::set<int> groups;
  for (const std::string& g : opts.values("-resource")) {
    auto id = parseNumber(g);
    if (!id) rc.inv().invalidOption("-resource");
    groups.insert(static_cast<int>(*id));
  }
  std::optional<int64_t> limit = opts.optNumber("-cnt");
  std::vector<LdevView> views;
  auto full = [&]() { return limit && static_cast<int64_t>(views.size()) >= *limit; };
  auto inGroups = [&](int rsgid) { return groups.empty() || groups.count(rsgid) != 0; };

  if (kind == "undefined") {
    std::map<int, int> reserved;  // undefined numbers kept in a resource group
    std::set<int> defined;
    Stmt st = rc.db().query("SELECT id, defined, rsgid FROM ldevs WHERE serial=?", rc.serial());
    while (st.step()) {
      if (st.i(1)) {
        defined.insert(st.i(0));
      } else {
        reserved[st.i(0)] = st.i(2);
      }
    }
    int max = maxLdevId(rc.db(), rc.serial());
    for (int id = 0; id <= max && !full(); ++id) {
      if (defined.count(id)) continue;
      auto r = reserved.find(id);
      int rsgid = r == reserved.end() ? 0 : r->second;
      if (!inGroups(rsgid)) continue;
      if (r == reserved.end()) {
        LdevView v;
        v.serial = rc.serial();
        v.id = id;
        views.push_back(v);
      } else {
        views.push_back(ldevViewById(rc.db(), rc.serial(), id));
      }
    }
    return views;
  }

  std::vector<int> ids;
  {
    Stmt st =
        rc.db().query("SELECT id FROM ldevs WHERE serial=? AND defined=1 ORDER BY id", rc.serial());
    while (st.step()) ids.push_back(st.i(0));
  }
  for (int id : ids) {
    if (full()) break;
    LdevRow row = *loadLdev(rc.db(), rc.serial(), id);
    if (!inGroups(row.rsgid)) continue;
    if (pool && row.pool != *pool) continue;
    if ((kind == "dp_volume" || kind == "pool") && !row.pool) continue;
    if (kind == "parity_grp" && row.pool) continue;
    if (kind == "quorum" && !row.quorumId) continue;
    if (kind == "journal" || kind == "external_volume") continue;
    LdevView v = ldevView(rc.db(), row);
    if (kind == "mapped" && v.paths.empty()) continue;
    if (kind == "unmapped" && !v.paths.empty()) continue;
    views.push_back(std::move(v));
  }
  return views;
}

// Resolves the LDEVs a command names: one -ldev_id (with -cnt), or a whole device group.
std::vector<int> targetLdevs(Raidcom& rc, const Options& opts) {
  if (opts.has("-grp_opt")) {
    if (opts.required("-grp_opt") != "ldev") rc.inv().invalidOption("-grp_opt");
    return rc.deviceGroupLdevs(opts.required("-device_grp_name"));
  }
  int first = opts.ldevId("-ldev_id");
  int64_t count = opts.count("-cnt", maxLdevId(rc.db(), rc.serial()) - first + 1);
  std::vector<int> ids;
  for (int64_t i = 0; i < count; ++i) ids.push_back(first + static_cast<int>(i));
  return ids;
}

}  // namespace

void getLdev(Raidcom& rc) {
  Options opts = rc.options({{"-ldev_id", 1, 1},
                             {"-cnt", 1, 1},
                             {"-ldev_list", 1, 1},
                             {"-pool_id", 1, 1},
                             {"-resource", 1, -1},
                             {"-key", 1, 1},
                             {"-check_status", 1, 2},
                             {"-time", 1, 1}});
  bool frontEnd = false;
  if (opts.has("-key")) {
    if (opts.required("-key") != "front_end") rc.inv().invalidOption("-key");
    frontEnd = true;
  }
  std::string listKind = opts.value("-ldev_list");
  for (const std::string& word : opts.positional()) {
    if (word != "pool" || !listKind.empty()) rc.inv().invalidOption(word);
    listKind = "pool";
  }
  if (listKind.empty() && !opts.has("-ldev_id") && opts.has("-pool_id")) listKind = "pool";
  if (!listKind.empty()) {
    std::vector<LdevView> views = listLdevs(rc, listKind, opts);
    if (views.empty()) rc.fail(EX_ENODEV);
    printLdevs(rc, views, frontEnd);
    return;
  }
  if (!opts.has("-ldev_id")) rc.fail(EX_REQARG);
  int first = opts.ldevId("-ldev_id");
  int max = maxLdevId(rc.db(), rc.serial());
  if (first > max) rc.fail(EX_ENLDEV);
  if (opts.has("-check_status")) {
    waitForStatus(rc, first, opts.values("-check_status"), opts.optNumber("-time"));
    return;
  }
  int64_t count = opts.optNumber("-cnt").value_or(1);
  if (count < 1) rc.inv().invalidOption("-cnt");
  std::vector<LdevView> views;
  for (int64_t i = 0; i < count && first + i <= max; ++i) {
    views.push_back(ldevViewById(rc.db(), rc.serial(), first + static_cast<int>(i)));
  }
  printLdevs(rc, views, frontEnd);
  if (first + count - 1 > max) rc.fail(EX_ENLDEV);
}

void addLdev(Raidcom& rc) {
  Options opts = rc.options({{"-pool", 1, 1},
                             {"-parity_grp_id", 1, 1},
                             {"-ldev_id", 1, 1},
                             {"-capacity", 1, 1},
                             {"-mp_blade_id", 1, 1},
                             {"-emulation", 1, 1},
                             {"-capacity_saving", 1, 1}});
  if (!opts.has("-pool") && !opts.has("-parity_grp_id")) rc.fail(EX_REQARG);
  int id = opts.ldevId("-ldev_id");
  auto capacity = parseCapacity(opts.required("-capacity"));
  if (!capacity) rc.inv().invalidOption("-capacity");
  std::optional<int64_t> mp = opts.optNumber("-mp_blade_id");
  if (id > maxLdevId(rc.db(), rc.serial())) rc.reject(ssb::LDEV_OUT_OF_RANGE);
  auto existing = loadLdev(rc.db(), rc.serial(), id);
  rc.requireUnlocked(existing ? existing->rsgid : 0);
  if (existing && existing->defined) rc.inv().asyncFail(ssb::LDEV_DEFINED);

  std::optional<int> pool;
  std::string attrs = "CVS";
  if (opts.has("-pool")) {
    auto poolId = parseNumber(opts.required("-pool"));
    if (!poolId) rc.inv().invalidOption("-pool");
    auto type =
        rc.db().text("SELECT type FROM pools WHERE serial=? AND id=?", rc.serial(), *poolId);
    if (!type) rc.inv().asyncFail(ssb::POOL_MISSING);
    if (*type != "HDP" && *type != "HDT") rc.inv().asyncFail(ssb::POOL_WRONG_TYPE);
    pool = static_cast<int>(*poolId);
    attrs += " " + *type;
  }
  std::string volType = opts.value("-emulation", "OPEN-V");
  if (volType == "OPEN-V") volType = "OPEN-V-CVS";
  rc.db().run(
      "INSERT OR REPLACE INTO ldevs(serial, id, defined, vol_type, capacity, pool, attrs, name, "
      "sts, rsgid, vldev, mp, used_blk, ope, ope_due, qrd_serial, qrd_id) VALUES(?, ?, 1, ?, ?, "
      "?, ?, '', 'NML', ?, ?, ?, 0, 'NONE', NULL, NULL, NULL)",
      rc.serial(), id, volType, *capacity, pool, attrs, existing ? existing->rsgid : 0,
      existing ? existing->virtualId : std::nullopt, mp.value_or(id % 4));
}

void deleteLdev(Raidcom& rc) {
  Options opts = rc.options(
      {{"-ldev_id", 1, 1}, {"-cnt", 1, 1}, {"-grp_opt", 1, 1}, {"-device_grp_name", 1, 1}});
  for (int id : targetLdevs(rc, opts)) {
    LdevRow row = rc.requireLdev(id);
    rc.requireUnlocked(row.rsgid);
    if (rc.db().exists("SELECT 1 FROM luns WHERE serial=? AND ldev=?", rc.serial(), id)) {
      rc.reject(ssb::PATH_DEFINED);
    }
    if (rc.db().exists("SELECT 1 FROM snapshots WHERE serial=? AND (pvol=? OR svol=?)", rc.serial(),
                       id, id) ||
        rc.db().exists("SELECT 1 FROM pairs WHERE (serial=? AND pvol=?) OR (s_serial=? AND svol=?)",
                       rc.serial(), id, rc.serial(), id)) {
      rc.reject(ssb::VOLUME_IN_PAIR);
    }
    if (isVirtualStorageGroup(rc.db(), rc.serial(), row.rsgid) &&
        row.virtualId.value_or(id) != kNoVirtualLdev) {
      rc.reject(ssb::LDEV_IN_VSM);
    }
    rc.db().run("DELETE FROM devgrps WHERE serial=? AND ldev=?", rc.serial(), id);
    if (row.rsgid != 0) {
      rc.db().run(
          "UPDATE ldevs SET defined=0, vol_type='', capacity=0, pool=NULL, attrs='', name='', "
          "sts='', used_blk=0, ope='NONE', ope_due=NULL, vldev=? WHERE serial=? AND id=?",
          kNoVirtualLdev, rc.serial(), id);
    } else {
      rc.db().run("DELETE FROM ldevs WHERE serial=? AND id=?", rc.serial(), id);
    }
  }
}

void modifyLdev(Raidcom& rc) {
  Options opts = rc.options(
      {{"-ldev_id", 1, 1}, {"-ldev_name", 1, 1}, {"-status", 1, 1}, {"-mp_blade_id", 1, 1}});
  int id = opts.ldevId("-ldev_id");
  if (!opts.has("-ldev_name") && !opts.has("-status") && !opts.has("-mp_blade_id")) {
    rc.fail(EX_REQARG);
  }
  std::string status;
  if (opts.has("-status")) {
    status = toLower(opts.required("-status"));
    if (status != "blk" && status != "nml") rc.inv().invalidOption("-status");
  }
  LdevRow row = rc.requireLdev(id);
  rc.requireUnlocked(row.rsgid);
  if (opts.has("-ldev_name")) {
    const std::string& name = opts.required("-ldev_name");
    if (name.size() > 32) rc.reject(ssb::NAME_TOO_LONG);
    rc.db().run("UPDATE ldevs SET name=? WHERE serial=? AND id=?", name, rc.serial(), id);
  }
  if (!status.empty()) {
    rc.db().run("UPDATE ldevs SET sts=? WHERE serial=? AND id=?", toUpper(status), rc.serial(), id);
  }
  if (auto mp = opts.optNumber("-mp_blade_id")) {
    rc.db().run("UPDATE ldevs SET mp=? WHERE serial=? AND id=?", *mp, rc.serial(), id);
  }
}

void initializeLdev(Raidcom& rc) {
  Options opts = rc.options({{"-operation", 1, 1},
                             {"-ldev_id", 1, 1},
                             {"-cnt", 1, 1},
                             {"-grp_opt", 1, 1},
                             {"-device_grp_name", 1, 1}});
  std::string operation = toLower(opts.required("-operation"));
  if (operation != "fmt" && operation != "qfmt" && operation != "shrd") {
    rc.inv().invalidOption("-operation");
  }
  std::vector<int> ids = targetLdevs(rc, opts);
  std::vector<LdevRow> rows;
  for (int id : ids) {
    rows.push_back(rc.requireLdev(id));
    rc.requireUnlocked(rows.back().rsgid);
  }
  for (const LdevRow& row : rows) {
    if (row.status != "BLK") rc.inv().asyncFail(ssb::LDEV_NOT_BLOCKED);
  }
  int64_t ms = timingMs(rc.db(), "format_ms");
  int64_t due = Invocation::nowMs() + ms;
  for (const LdevRow& row : rows) {
    if (ms <= 0) {
      rc.db().run("UPDATE ldevs SET sts='NML', used_blk=0 WHERE serial=? AND id=?", rc.serial(),
                  row.id);
      continue;
    }
    rc.db().run("UPDATE ldevs SET ope=?, ope_due=?, used_blk=0 WHERE serial=? AND id=?",
                toUpper(operation), due, rc.serial(), row.id);
  }
  if (ms > 0) {
    rc.inv().scheduleDue(due);
    rc.addPending(due);
  }
}

}  // namespace ccisim
