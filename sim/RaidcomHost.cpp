#include <algorithm>
#include <cctype>
#include <set>

#include "sim/Raidcom.h"

// raidcom commands for ports, host groups, host WWNs and LU paths.
namespace ccisim {

namespace {

constexpr int kMaxHostGroupId = 254;
constexpr int kMaxLun = 2047;
constexpr size_t kMaxHostGroupName = 64;

// The port a -port value names, which must exist.
std::string requirePort(Raidcom& rc, const std::string& word) {
  std::string port;
  std::optional<int> gid;
  splitPortGid(word, port, gid);
  if (!portExists(rc.db(), rc.serial(), port)) rc.fail(EX_ENOOBJ);
  return port;
}

std::string defaultHostGroupName(const std::string& port, int gid) {
  // CL1-A, gid 0 -> 1A-G00
  std::string tail = port.size() > 2 ? port.substr(2) : port;
  tail.erase(std::remove(tail.begin(), tail.end(), '-'), tail.end());
  return tail + strprintf("-G%02d", gid);
}

std::optional<std::string> normaliseWwn(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), ':'), text.end());
  if (text.size() != 16) return std::nullopt;
  for (char& c : text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return std::nullopt;
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return text;
}

std::set<int> resourceFilter(Raidcom& rc, const Options& opts) {
  std::set<int> groups;
  for (const std::string& g : opts.values("-resource")) {
    auto id = parseNumber(g);
    if (!id) rc.inv().invalidOption("-resource");
    groups.insert(static_cast<int>(*id));
  }
  return groups;
}

// The LDEVs an add or delete lun names: one -ldev_id, or the members of a device group.
std::vector<int> lunTargets(Raidcom& rc, const Options& opts) {
  if (opts.has("-grp_opt")) {
    if (opts.required("-grp_opt") != "ldev") rc.inv().invalidOption("-grp_opt");
    return rc.deviceGroupLdevs(opts.required("-device_grp_name"));
  }
  return {opts.ldevId("-ldev_id")};
}

}  // namespace

void getPort(Raidcom& rc) {
  Options opts = rc.options({{"-port", 1, 1}, {"-key", 1, 1}});
  if (opts.has("-port")) {
    std::string port = requirePort(rc, opts.required("-port"));
    Stmt st = rc.db().query("SELECT wwn FROM port_logins WHERE serial=? AND port=? ORDER BY rowid",
                            rc.serial(), port);
    std::string text;
    while (st.step()) text += formatPortLoginLine(port, st.s(0), rc.serial());
    if (!text.empty()) rc.inv().out() += formatPortLoginHeader() + text;
    return;
  }
  std::string text = formatPortHeader();
  Stmt st = rc.db().query(
      "SELECT name, type, attr, speed, lpid, fab, conn, ssw, wwn FROM ports WHERE serial=? "
      "ORDER BY rowid",
      rc.serial());
  while (st.step()) {
    PortView p{st.s(0), st.s(1), "",      st.s(3),     st.s(4),
               st.s(5), st.s(6), st.s(7), rc.serial(), st.s(8)};
    // A port with several attributes is listed once per attribute.
    for (const std::string& attr : splitWords(st.s(2))) {
      p.attr = attr;
      text += formatPortLine(p);
    }
  }
  rc.inv().out() += text;
}

void getHostGroup(Raidcom& rc) {
  Options opts = rc.options({{"-port", 1, 2}, {"-key", 1, 1}, {"-resource", 1, -1}});
  std::string port = requirePort(rc, opts.required("-port"));
  std::string key = opts.value("-key");
  if (!key.empty() && key != "detail" && key != "host_grp") rc.inv().invalidOption("-key");
  std::set<int> groups = resourceFilter(rc, opts);
  std::map<int, HostGroupView> defined;
  Stmt st = rc.db().query(
      "SELECT gid, name, hmd, hmo, rsgid FROM hostgrps WHERE serial=? AND port=? ORDER BY gid",
      rc.serial(), port);
  while (st.step()) {
    if (!groups.empty() && !groups.count(st.i(4))) continue;
    HostGroupView v;
    v.port = port;
    v.gid = st.i(0);
    v.name = st.s(1);
    v.hostMode = st.s(2);
    v.hostModeOptions = parseHostModeOptions(st.s(3));
    v.rsgid = st.i(4);
    v.serial = rc.serial();
    defined[v.gid] = v;
  }
  std::string text;
  if (key.empty()) {
    for (const auto& entry : defined) text += formatHostGroupLine(entry.second);
    if (!text.empty()) rc.inv().out() += formatHostGroupHeader() + text;
    return;
  }
  for (int gid = 0; gid <= kMaxHostGroupId; ++gid) {
    auto it = defined.find(gid);
    if (it != defined.end()) {
      text += formatHostGroupDetailLine(it->second);
    } else if (groups.empty() || groups.count(0)) {
      HostGroupView unused;
      unused.port = port;
      unused.gid = gid;
      unused.serial = rc.serial();
      text += formatHostGroupDetailLine(unused);
    }
  }
  rc.inv().out() += formatHostGroupDetailHeader() + text;
}

void addHostGroup(Raidcom& rc) {
  Options opts = rc.options({{"-port", 1, 1}, {"-host_grp_name", 1, 1}});
  std::string port;
  std::optional<int> gid;
  splitPortGid(opts.required("-port"), port, gid);
  const std::string& name = opts.required("-host_grp_name");
  Stmt ps =
      rc.db().query("SELECT attr, rsgid FROM ports WHERE serial=? AND name=?", rc.serial(), port);
  if (!ps.step()) rc.fail(EX_ENOOBJ);
  std::vector<std::string> attrs = splitWords(ps.s(0));
  if (std::find(attrs.begin(), attrs.end(), "TAR") == attrs.end()) {
    rc.reject(ssb::PORT_CANNOT_OPERATE);
  }
  rc.requireUnlocked(ps.i(1));
  if (name.size() > kMaxHostGroupName) rc.reject(ssb::NAME_TOO_LONG);
  if (gid && (*gid < 0 || *gid > kMaxHostGroupId)) rc.inv().invalidOption("-port");
  if (rc.db().exists("SELECT 1 FROM hostgrps WHERE serial=? AND port=? AND name=?", rc.serial(),
                     port, name)) {
    rc.reject(ssb::HOST_GROUP_NAME_USED);
  }
  std::set<int> used;
  Stmt st = rc.db().query("SELECT gid FROM hostgrps WHERE serial=? AND port=?", rc.serial(), port);
  while (st.step()) used.insert(st.i(0));
  if (gid && used.count(*gid)) rc.reject(ssb::GID_IN_USE);
  if (!gid) {
    for (int g = 1; g <= kMaxHostGroupId && !gid; ++g) {
      if (!used.count(g)) gid = g;
    }
    if (!gid) rc.reject(ssb::NO_FREE_GID);
  }
  rc.db().run(
      "INSERT INTO hostgrps(serial, port, gid, name, hmd, hmo, rsgid) VALUES(?, ?, ?, ?, "
      "'LINUX/IRIX', '', 0)",
      rc.serial(), port, *gid, name);
  rc.inv().print("raidcom: Host group ID %d(0x%x) will be used for adding.\n", *gid, *gid);
}

void deleteHostGroup(Raidcom& rc) {
  Options opts = rc.options({{"-port", 1, 2}});
  HostGroupRef hg = rc.requireHostGroup(opts.values("-port"));
  rc.requireUnlocked(hg.rsgid);
  rc.db().run("DELETE FROM luns WHERE serial=? AND port=? AND gid=?", rc.serial(), hg.port, hg.gid);
  rc.db().run("DELETE FROM hbawwns WHERE serial=? AND port=? AND gid=?", rc.serial(), hg.port,
              hg.gid);
  if (hg.gid == 0) {
    // Host group 0 always exists; deleting it returns it to its initial settings.
    rc.db().run(
        "UPDATE hostgrps SET name=?, hmd='LINUX/IRIX', hmo='', rsgid=0 WHERE serial=? AND "
        "port=? AND gid=0",
        defaultHostGroupName(hg.port, 0), rc.serial(), hg.port);
    return;
  }
  rc.db().run("DELETE FROM hostgrps WHERE serial=? AND port=? AND gid=?", rc.serial(), hg.port,
              hg.gid);
}

void modifyHostGroup(Raidcom& rc) {
  Options opts = rc.options({{"-port", 1, 2}, {"-host_mode", 1, 1}, {"-host_mode_opt", 1, -1}});
  HostGroupRef hg = rc.requireHostGroup(opts.values("-port"));
  rc.requireUnlocked(hg.rsgid);
  std::string mode = opts.value("-host_mode", hg.hostMode);
  std::string options;
  for (const std::string& o : opts.values("-host_mode_opt")) {
    if (!parseNumber(o)) rc.inv().invalidOption("-host_mode_opt");
    options += (options.empty() ? "" : " ") + o;
  }
  if (!opts.has("-host_mode_opt")) {
    for (int o : hg.hostModeOptions) options += (options.empty() ? "" : " ") + std::to_string(o);
  }
  rc.db().run("UPDATE hostgrps SET hmd=?, hmo=? WHERE serial=? AND port=? AND gid=?", mode, options,
              rc.serial(), hg.port, hg.gid);
}

void getHbaWwn(Raidcom& rc) {
  Options opts = rc.options({{"-port", 1, 2}});
  HostGroupRef hg = rc.requireHostGroup(opts.values("-port"));
  Stmt st = rc.db().query(
      "SELECT wwn, nick FROM hbawwns WHERE serial=? AND port=? AND gid=? ORDER BY rowid",
      rc.serial(), hg.port, hg.gid);
  std::string text;
  while (st.step()) {
    text += formatHbaWwnLine({hg.port, hg.gid, hg.name, st.s(0), rc.serial(), st.s(1)});
  }
  if (!text.empty()) rc.inv().out() += formatHbaWwnHeader() + text;
}

void addHbaWwn(Raidcom& rc) {
  Options opts = rc.options({{"-port", 1, 2}, {"-hba_wwn", 1, 1}});
  HostGroupRef hg = rc.requireHostGroup(opts.values("-port"));
  auto wwn = normaliseWwn(opts.required("-hba_wwn"));
  if (!wwn) rc.inv().invalidOption("-hba_wwn");
  rc.requireUnlocked(hg.rsgid);
  if (rc.db().exists("SELECT 1 FROM hbawwns WHERE serial=? AND port=? AND wwn=?", rc.serial(),
                     hg.port, *wwn)) {
    rc.reject(ssb::WWN_REGISTERED);
  }
  rc.db().run("INSERT INTO hbawwns(serial, port, gid, wwn, nick) VALUES(?, ?, ?, ?, '')",
              rc.serial(), hg.port, hg.gid, *wwn);
}

void deleteHbaWwn(Raidcom& rc) {
  Options opts = rc.options({{"-port", 1, 2}, {"-hba_wwn", 1, 1}});
  HostGroupRef hg = rc.requireHostGroup(opts.values("-port"));
  auto wwn = normaliseWwn(opts.required("-hba_wwn"));
  if (!wwn) rc.inv().invalidOption("-hba_wwn");
  rc.requireUnlocked(hg.rsgid);
  rc.db().run("DELETE FROM hbawwns WHERE serial=? AND port=? AND gid=? AND wwn=?", rc.serial(),
              hg.port, hg.gid, *wwn);
  if (rc.db().changes() == 0) rc.fail(EX_ENOOBJ);
}

void getLun(Raidcom& rc) {
  Options opts = rc.options({{"-port", 1, 2}, {"-key", 1, 1}});
  HostGroupRef hg = rc.requireHostGroup(opts.values("-port"));
  Stmt st = rc.db().query(
      "SELECT l.lun, l.ldev, c.device IS NOT NULL FROM luns l LEFT JOIN cmddevs c ON "
      "c.serial=l.serial AND c.ldev=l.ldev WHERE l.serial=? AND l.port=? AND l.gid=? ORDER BY "
      "l.lun",
      rc.serial(), hg.port, hg.gid);
  std::string text;
  while (st.step()) {
    LunView v;
    v.port = hg.port;
    v.gid = hg.gid;
    v.hostMode = hg.hostMode;
    v.lun = st.i(0);
    v.ldev = st.i(1);
    v.commandDevice = st.i(2) != 0;
    v.serial = rc.serial();
    v.hostModeOptions = hg.hostModeOptions;
    text += formatLunLine(v);
  }
  if (!text.empty()) rc.inv().out() += formatLunHeader() + text;
}

void addLun(Raidcom& rc) {
  Options opts = rc.options({{"-port", 1, 2},
                             {"-ldev_id", 1, 1},
                             {"-lun_id", 1, 1},
                             {"-grp_opt", 1, 1},
                             {"-device_grp_name", 1, 1}});
  HostGroupRef hg = rc.requireHostGroup(opts.values("-port"));
  std::vector<int> ldevs = lunTargets(rc, opts);
  std::optional<int64_t> wantedLun = opts.optNumber("-lun_id");
  if (wantedLun && (*wantedLun < 0 || *wantedLun > kMaxLun)) rc.inv().invalidOption("-lun_id");
  rc.requireUnlocked(hg.rsgid);
  std::set<int> used;
  Stmt st = rc.db().query("SELECT lun FROM luns WHERE serial=? AND port=? AND gid=?", rc.serial(),
                          hg.port, hg.gid);
  while (st.step()) used.insert(st.i(0));
  for (int ldev : ldevs) {
    LdevRow row = rc.requireLdev(ldev);
    rc.requireUnlocked(row.rsgid);
    if (rc.db().exists("SELECT 1 FROM luns WHERE serial=? AND port=? AND gid=? AND ldev=?",
                       rc.serial(), hg.port, hg.gid, ldev)) {
      rc.reject(ssb::LU_PATH_EXISTS);
    }
    int lun = -1;
    if (wantedLun && ldevs.size() == 1) {
      if (used.count(static_cast<int>(*wantedLun))) rc.reject(ssb::LUN_IN_USE);
      lun = static_cast<int>(*wantedLun);
    } else {
      for (int l = 0; l <= kMaxLun && lun < 0; ++l) {
        if (!used.count(l)) lun = l;
      }
      if (lun < 0) rc.reject(ssb::LUN_LIMIT);
    }
    used.insert(lun);
    rc.db().run("INSERT INTO luns(serial, port, gid, lun, ldev) VALUES(?, ?, ?, ?, ?)", rc.serial(),
                hg.port, hg.gid, lun, ldev);
    rc.inv().print("raidcom: LUN %d(0x%x) will be used for adding.\n", lun, lun);
  }
}

void deleteLun(Raidcom& rc) {
  Options opts = rc.options({{"-port", 1, 2},
                             {"-ldev_id", 1, 1},
                             {"-lun_id", 1, 1},
                             {"-grp_opt", 1, 1},
                             {"-device_grp_name", 1, 1}});
  HostGroupRef hg = rc.requireHostGroup(opts.values("-port"));
  std::vector<int> luns;
  if (auto lun = opts.optNumber("-lun_id")) {
    if (rc.db().exists("SELECT 1 FROM luns WHERE serial=? AND port=? AND gid=? AND lun=?",
                       rc.serial(), hg.port, hg.gid, *lun)) {
      luns.push_back(static_cast<int>(*lun));
    }
  } else {
    for (int ldev : lunTargets(rc, opts)) {
      Stmt st = rc.db().query(
          "SELECT lun FROM luns WHERE serial=? AND port=? AND gid=? AND ldev=? ORDER BY lun",
          rc.serial(), hg.port, hg.gid, ldev);
      while (st.step()) luns.push_back(st.i(0));
    }
  }
  if (luns.empty()) {
    rc.inv().printErr("raidcom: could not find an LUN for deleting.\n");
    rc.fail(EX_ENOOBJ);
  }
  rc.requireUnlocked(hg.rsgid);
  for (int lun : luns) {
    rc.db().run("DELETE FROM luns WHERE serial=? AND port=? AND gid=? AND lun=?", rc.serial(),
                hg.port, hg.gid, lun);
    rc.inv().print("raidcom: LUN %d(0x%x) will be used for deleting.\n", lun, lun);
  }
}

}  // namespace ccisim
