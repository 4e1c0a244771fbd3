#include <algorithm>

#include "sim/Raidcom.h"

// raidcom commands for resource groups: listing, locks, membership and virtual IDs.
namespace ccisim {

namespace {

constexpr int kMaxResourceGroupId = 1023;

struct ResourceGroup {
  int id = 0;
  std::string name;
  std::optional<std::string> owner;
  std::optional<std::string> host;
};

std::vector<ResourceGroup> loadGroups(Raidcom& rc, const std::string& name) {
  std::vector<ResourceGroup> groups;
  Stmt st = rc.db().query(
      "SELECT id, name, lock_owner, lock_host FROM rsgs WHERE serial=? AND (?='' OR name=?) "
      "ORDER BY id",
      rc.serial(), name, name);
  while (st.step()) {
    ResourceGroup g;
    g.id = st.i(0);
    g.name = st.s(1);
    if (!st.isNull(2)) g.owner = st.s(2);
    if (!st.isNull(3)) g.host = st.s(3);
    groups.push_back(g);
  }
  if (!name.empty() && groups.empty()) rc.fail(EX_ENOOBJ);
  return groups;
}

bool heldByMe(Raidcom& rc, const ResourceGroup& g) {
  return g.owner && *g.owner == rc.user() && g.host && *g.host == Invocation::hostName();
}

int requireGroup(Raidcom& rc, const Options& opts) {
  auto id = resourceGroupId(rc.db(), rc.serial(), opts.required("-resource_name"));
  if (!id) rc.fail(EX_ENOOBJ);
  return *id;
}

// Moves the resources an add or delete resource names from one group to another. Returns
// false when the command names no resource at all.
bool moveResources(Raidcom& rc, const Options& opts, int from, int to, const Ssb& notThere) {
  bool any = false;
  auto check = [&](int current) {
    if (current != from) rc.reject(notThere);
  };
  std::vector<int> ldevs;
  if (opts.has("-ldev_id")) {
    int first = opts.ldevId("-ldev_id");
    int64_t count = opts.count("-cnt", maxLdevId(rc.db(), rc.serial()) - first + 1);
    for (int64_t i = 0; i < count; ++i) ldevs.push_back(first + static_cast<int>(i));
  }
  if (opts.has("-device_grp_name")) {
    for (int id : rc.deviceGroupLdevs(opts.required("-device_grp_name"))) ldevs.push_back(id);
  }
  int max = maxLdevId(rc.db(), rc.serial());
  for (int id : ldevs) {
    if (id > max) rc.reject(ssb::LDEV_OUT_OF_RANGE);
    auto row = loadLdev(rc.db(), rc.serial(), id);
    check(row ? row->rsgid : 0);
    if (row) {
      rc.db().run("UPDATE ldevs SET rsgid=? WHERE serial=? AND id=?", to, rc.serial(), id);
    } else {
      // A free LDEV number can be reserved for a group before it is defined.
      rc.db().run(
          "INSERT INTO ldevs(serial, id, defined, vol_type, capacity, pool, attrs, name, sts, "
          "rsgid, vldev, mp, used_blk, ope, ope_due, qrd_serial, qrd_id) VALUES(?, ?, 0, '', 0, "
          "NULL, '', '', '', ?, NULL, 0, 0, 'NONE', NULL, NULL, NULL)",
          rc.serial(), id, to);
    }
    if (to == 0) {
      rc.db().run("DELETE FROM ldevs WHERE serial=? AND id=? AND defined=0 AND vldev IS NULL",
                  rc.serial(), id);
    }
    any = true;
  }
  if (opts.has("-port")) {
    const std::vector<std::string>& words = opts.values("-port");
    std::string port;
    std::optional<int> gid;
    splitPortGid(words[0], port, gid);
    if (words.size() == 1 && !gid && words[0].find(' ') == std::string::npos) {
      auto current =
          rc.db().scalar("SELECT rsgid FROM ports WHERE serial=? AND name=?", rc.serial(), port);
      if (!current) rc.fail(EX_ENOOBJ);
      check(static_cast<int>(*current));
      rc.db().run("UPDATE ports SET rsgid=? WHERE serial=? AND name=?", to, rc.serial(), port);
    } else {
      HostGroupRef hg = rc.requireHostGroup(words);
      check(hg.rsgid);
      rc.db().run("UPDATE hostgrps SET rsgid=? WHERE serial=? AND port=? AND gid=?", to,
                  rc.serial(), hg.port, hg.gid);
    }
    any = true;
  }
  return any;
}

// The LDEV a map or unmap resource names, with the virtual ID it shows now.
LdevRow mappableLdev(Raidcom& rc, int id, int& currentVirtual) {
  if (id > maxLdevId(rc.db(), rc.serial())) rc.reject(ssb::LDEV_OUT_OF_RANGE);
  auto row = loadLdev(rc.db(), rc.serial(), id);
  if (!row) {
    LdevRow free;
    free.serial = rc.serial();
    free.id = id;
    currentVirtual = kNoVirtualLdev;
    return free;
  }
  currentVirtual = row->virtualId.value_or(row->defined ? id : kNoVirtualLdev);
  return *row;
}

void storeVirtual(Raidcom& rc, const LdevRow& row, std::optional<int> virtualId) {
  if (!loadLdev(rc.db(), rc.serial(), row.id)) {
    rc.db().run(
        "INSERT INTO ldevs(serial, id, defined, vol_type, capacity, pool, attrs, name, sts, "
        "rsgid, vldev, mp, used_blk, ope, ope_due, qrd_serial, qrd_id) VALUES(?, ?, 0, '', 0, "
        "NULL, '', '', '', 0, ?, 0, 0, 'NONE', NULL, NULL, NULL)",
        rc.serial(), row.id, virtualId);
    return;
  }
  rc.db().run("UPDATE ldevs SET vldev=? WHERE serial=? AND id=?", virtualId, rc.serial(), row.id);
  rc.db().run(
      "DELETE FROM ldevs WHERE serial=? AND id=? AND defined=0 AND rsgid=0 AND vldev IS NULL",
      rc.serial(), row.id);
}

}  // namespace

void getResource(Raidcom& rc) {
  Options opts = rc.options({{"-key", 1, 1}, {"-resource_name", 1, 1}});
  std::string key = opts.value("-key");
  if (!key.empty() && key != "opt") rc.inv().invalidOption("-key");
  std::string name = opts.value("-resource_name");
  Stmt st = rc.db().query(
      "SELECT id, name, v_serial, v_type, lock_owner, lock_host FROM rsgs WHERE serial=? AND "
      "(?='' OR name=?) ORDER BY id",
      rc.serial(), name, name);
  std::string text;
  while (st.step()) {
    ResourceView r;
    r.id = st.i(0);
    r.name = st.s(1);
    r.virtualSerial = st.s(2);
    r.virtualType = st.s(3);
    r.locked = !st.isNull(4);
    r.owner = st.s(4);
    r.host = st.s(5);
    r.serial = rc.serial();
    text += key == "opt" ? formatResourceOptLine(r) : formatResourceLine(r);
  }
  if (!name.empty() && text.empty()) rc.fail(EX_ENOOBJ);
  rc.inv().out() += (key == "opt" ? formatResourceOptHeader() : formatResourceHeader()) + text;
}

void lockResource(Raidcom& rc) {
  Options opts = rc.options({{"-resource_name", 1, 1}, {"-time", 1, 1}});
  std::string name = opts.value("-resource_name");
  int64_t deadline = rc.inv().deadlineAfter(opts.optNumber("-time").value_or(0), 1000);
  for (;;) {
    std::vector<ResourceGroup> groups = loadGroups(rc, name);
    bool foreign = std::any_of(groups.begin(), groups.end(),
                               [&](const ResourceGroup& g) { return g.owner && !heldByMe(rc, g); });
    if (!foreign) {
      for (const ResourceGroup& g : groups) {
        rc.db().run("UPDATE rsgs SET lock_owner=?, lock_host=? WHERE serial=? AND id=?", rc.user(),
                    Invocation::hostName(), rc.serial(), g.id);
      }
      return;
    }
    int64_t now = Invocation::nowMs();
    if (now >= deadline) rc.reject(ssb::RSG_LOCKED);
    rc.inv().pause(std::min<int64_t>(deadline - now, 100));
  }
}

void unlockResource(Raidcom& rc) {
  // The handler passes the same -time to unlock as to lock; it is accepted and has no effect.
  Options opts = rc.options({{"-resource_name", 1, 1}, {"-time", 1, 1}});
  for (const ResourceGroup& g : loadGroups(rc, opts.value("-resource_name"))) {
    if (!g.owner) continue;
    if (!heldByMe(rc, g)) rc.reject(ssb::RSG_LOCKED);
    rc.db().run("UPDATE rsgs SET lock_owner=NULL, lock_host=NULL WHERE serial=? AND id=?",
                rc.serial(), g.id);
  }
}

void addResource(Raidcom& rc) {
  Options opts = rc.options({{"-resource_name", 1, 1},
                             {"-ldev_id", 1, 1},
                             {"-cnt", 1, 1},
                             {"-port", 1, 2},
                             {"-device_grp_name", 1, 1},
                             {"-virtual_type", 2, 2}});
  const std::string& name = opts.required("-resource_name");
  auto id = resourceGroupId(rc.db(), rc.serial(), name);
  if (!id) {
    // Naming a group that does not exist creates it, as a virtual storage machine with
    // -virtual_type.
    if (opts.has("-ldev_id") || opts.has("-port") || opts.has("-device_grp_name")) {
      rc.fail(EX_ENOOBJ);
    }
    if (name.size() > 32) rc.reject(ssb::NAME_TOO_LONG);
    int next = static_cast<int>(
        rc.db().scalar("SELECT max(id) FROM rsgs WHERE serial=?", rc.serial()).value_or(0) + 1);
    if (next > kMaxResourceGroupId) rc.reject(ssb::RSG_NOT_EMPTY);
    std::string vserial = rc.serial();
    std::string vtype =
        rc.db().text("SELECT type_code FROM arrays WHERE serial=?", rc.serial()).value_or("-");
    if (opts.has("-virtual_type")) {
      vserial = opts.values("-virtual_type")[0];
      vtype = opts.values("-virtual_type")[1];
    }
    rc.db().run(
        "INSERT INTO rsgs(serial, id, name, v_serial, v_type, lock_owner, lock_host) VALUES(?, "
        "?, ?, ?, ?, NULL, NULL)",
        rc.serial(), next, name, vserial, vtype);
    return;
  }
  if (opts.has("-virtual_type")) rc.reject(ssb::RSG_EXISTS);
  rc.requireUnlocked(*id);
  rc.requireUnlocked(0);
  if (!moveResources(rc, opts, 0, *id, ssb::RSG_OTHER_GROUP)) rc.reject(ssb::RSG_EXISTS);
}

void deleteResource(Raidcom& rc) {
  Options opts = rc.options({{"-resource_name", 1, 1},
                             {"-ldev_id", 1, 1},
                             {"-cnt", 1, 1},
                             {"-port", 1, 2},
                             {"-device_grp_name", 1, 1}});
  int id = requireGroup(rc, opts);
  rc.requireUnlocked(id);
  if (id != 0 && moveResources(rc, opts, id, 0, ssb::RSG_NOT_MEMBER)) return;
  if (id == 0) rc.reject(ssb::RSG_NOT_MEMBER);
  bool used = rc.db().exists("SELECT 1 FROM ldevs WHERE serial=? AND rsgid=?", rc.serial(), id) ||
              rc.db().exists("SELECT 1 FROM ports WHERE serial=? AND rsgid=?", rc.serial(), id) ||
              rc.db().exists("SELECT 1 FROM hostgrps WHERE serial=? AND rsgid=?", rc.serial(), id);
  if (used) rc.reject(ssb::RSG_NOT_EMPTY);
  rc.db().run("DELETE FROM rsgs WHERE serial=? AND id=?", rc.serial(), id);
}

void mapResource(Raidcom& rc) {
  Options opts = rc.options({{"-ldev_id", 1, 1},
                             {"-virtual_ldev_id", 1, 1},
                             {"-port", 1, 2},
                             {"-virtual_port", 1, 1},
                             {"-ssid", 1, 1},
                             {"-emulation_type", 1, 1}});
  if (opts.has("-ldev_id")) {
    int current = 0;
    LdevRow row = mappableLdev(rc, opts.ldevId("-ldev_id"), current);
    int wanted = opts.ldevId("-virtual_ldev_id");
    rc.requireUnlocked(row.rsgid);
    if (current == wanted) return;
    if (current != kNoVirtualLdev) rc.reject(ssb::VLDEV_SET);
    if (rc.db().exists("SELECT 1 FROM ldevs WHERE serial=? AND rsgid=? AND vldev=? AND id<>?",
                       rc.serial(), row.rsgid, wanted, row.id)) {
      rc.reject(ssb::VLDEV_IN_USE);
    }
    bool plain = row.rsgid == 0 && wanted == row.id && row.defined;
    storeVirtual(rc, row, plain ? std::nullopt : std::optional<int>(wanted));
    return;
  }
  if (opts.has("-port")) {
    std::string port;
    std::optional<int> gid;
    splitPortGid(opts.values("-port")[0], port, gid);
    if (!portExists(rc.db(), rc.serial(), port)) rc.fail(EX_ENOOBJ);
    opts.required("-virtual_port");
    return;
  }
  if (opts.has("-ssid")) {
    opts.required("-emulation_type");
    return;
  }
  rc.fail(EX_REQARG);
}

void unmapResource(Raidcom& rc) {
  Options opts = rc.options(
      {{"-ldev_id", 1, 1}, {"-virtual_ldev_id", 1, 1}, {"-port", 1, 2}, {"-virtual_port", 1, 1}});
  if (opts.has("-ldev_id")) {
    int current = 0;
    LdevRow row = mappableLdev(rc, opts.ldevId("-ldev_id"), current);
    opts.ldevId("-virtual_ldev_id");
    rc.requireUnlocked(row.rsgid);
    if (current == kNoVirtualLdev) rc.reject(ssb::VLDEV_NOT_SET);
    storeVirtual(rc, row, kNoVirtualLdev);
    return;
  }
  if (opts.has("-port")) {
    std::string port;
    std::optional<int> gid;
    splitPortGid(opts.values("-port")[0], port, gid);
    if (!portExists(rc.db(), rc.serial(), port)) rc.fail(EX_ENOOBJ);
    opts.required("-virtual_port");
    return;
  }
  rc.fail(EX_REQARG);
}

}  // namespace ccisim
