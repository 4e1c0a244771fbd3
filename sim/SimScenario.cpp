#include "sim/SimScenario.h"

#include "sim/SimInvocation.h"

namespace ccisim {

using nlohmann::json;

namespace {

template <typename T>
T get(const json& j, const char* key, const T& fallback) {
  auto it = j.find(key);
  if (it == j.end() || it->is_null()) return fallback;
  return it->get<T>();
}

template <typename T>
std::optional<T> getOpt(const json& j, const char* key) {
  auto it = j.find(key);
  if (it == j.end() || it->is_null()) return std::nullopt;
  return it->get<T>();
}

const json& list(const json& j, const char* key) {
  static const json kEmpty = json::array();
  auto it = j.find(key);
  if (it == j.end() || it->is_null()) return kEmpty;
  if (!it->is_array()) throw ScenarioError(std::string("'") + key + "' must be a list");
  return *it;
}

std::string requireSerial(const json& a) {
  std::string serial = get<std::string>(a, "serial", "");
  if (serial.empty()) throw ScenarioError("every array needs a \"serial\"");
  if (!isDigits(serial)) throw ScenarioError("serial \"" + serial + "\" is not a number");
  return serial;
}

std::string replaceId(std::string name, int id) {
  size_t at = name.find("{id}");
  if (at != std::string::npos) name.replace(at, 4, std::to_string(id));
  return name;
}

json nullable(const std::optional<int64_t>& v) { return v ? json(*v) : json(nullptr); }

void loadArray(Store& db, const json& a, int ord) {
  std::string serial = requireSerial(a);
  std::string type = get<std::string>(a, "type", "R9");
  db.run(
      "INSERT INTO arrays(serial, ord, type_code, microcode, cache_mb, max_ldev, svp_ip) "
      "VALUES(?, ?, ?, ?, ?, ?, ?)",
      serial, ord, type, get<std::string>(a, "microcode", "93-07-22/00"),
      get<int64_t>(a, "cache_mb", 524288), get<int64_t>(a, "max_ldev_id", 65279),
      get<std::string>(a, "svp_ip", ""));
  for (const json& u : list(a, "users")) {
    db.run("INSERT INTO users(serial, name, password) VALUES(?, ?, ?)", serial,
           u.at("name").get<std::string>(), get<std::string>(u, "password", ""));
  }
  bool meta = false;
  for (const json& r : list(a, "resource_groups")) {
    int id = get<int>(r, "id", 0);
    meta = meta || id == 0;
    db.run(
        "INSERT INTO rsgs(serial, id, name, v_serial, v_type, lock_owner, lock_host) VALUES(?, "
        "?, ?, ?, ?, ?, ?)",
        serial, id, get<std::string>(r, "name", id == 0 ? "meta_resource" : ""),
        get<std::string>(r, "virtual_serial", serial), get<std::string>(r, "virtual_type", type),
        getOpt<std::string>(r, "lock_owner"), getOpt<std::string>(r, "lock_host"));
  }
  if (!meta) {
    db.run(
        "INSERT INTO rsgs(serial, id, name, v_serial, v_type, lock_owner, lock_host) VALUES(?, "
        "0, 'meta_resource', ?, ?, NULL, NULL)",
        serial, serial, type);
  }
  for (const json& p : list(a, "pools")) {
    db.run(
        "INSERT INTO pools(serial, id, name, type, status, used_pct, threshold, capacity_mb, "
        "num_vols, first_ldev) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
        serial, p.at("id").get<int>(), get<std::string>(p, "name", ""),
        get<std::string>(p, "type", "HDP"), get<std::string>(p, "status", "POLN"),
        get<int>(p, "used_percent", 0), get<int>(p, "threshold", 80),
        get<int64_t>(p, "capacity_mb", 1048576), get<int>(p, "num_vols", 1),
        get<int>(p, "first_ldev", 0));
  }
  for (const json& l : list(a, "ldevs")) {
    int first = l.at("id").get<int>();
    int count = get<int>(l, "count", 1);
    auto pool = getOpt<int>(l, "pool");
    std::string defaultAttrs = "CVS";
    if (pool) {
      defaultAttrs +=
          " " +
          db.text("SELECT type FROM pools WHERE serial=? AND id=?", serial, *pool).value_or("HDP");
    }
    for (int id = first; id < first + count; ++id) {
      bool defined = get<bool>(l, "defined", true);
      db.run(
          "INSERT INTO ldevs(serial, id, defined, vol_type, capacity, pool, attrs, name, sts, "
          "rsgid, vldev, mp, used_blk, ope, ope_due, qrd_serial, qrd_id) VALUES(?, ?, ?, ?, ?, "
          "?, ?, ?, ?, ?, ?, ?, ?, 'NONE', NULL, ?, ?)",
          serial, id, defined ? 1 : 0,
          defined ? get<std::string>(l, "vol_type", "OPEN-V-CVS") : std::string(),
          defined ? get<int64_t>(l, "capacity", 2097152) : 0, pool,
          defined ? get<std::string>(l, "attrs", defaultAttrs) : std::string(),
          replaceId(get<std::string>(l, "name", ""), id),
          defined ? get<std::string>(l, "status", "NML") : std::string(), get<int>(l, "rsgid", 0),
          getOpt<int>(l, "virtual_id"), get<int>(l, "mp", id % 4),
          get<int64_t>(l, "used_blocks", 0), getOpt<std::string>(l, "quorum_serial"),
          getOpt<int>(l, "quorum_id"));
    }
  }
  for (const json& c : list(a, "command_devices")) {
    db.run("INSERT INTO cmddevs(device, serial, ldev) VALUES(?, ?, ?)",
           c.at("device").get<std::string>(), serial, c.at("ldev").get<int>());
  }
  for (const json& p : list(a, "ports")) {
    std::string port = p.at("name").get<std::string>();
    db.run(
        "INSERT INTO ports(serial, name, type, attr, speed, lpid, fab, conn, ssw, wwn, rsgid) "
        "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
        serial, port, get<std::string>(p, "type", "FIBRE"), get<std::string>(p, "attr", "TAR"),
        get<std::string>(p, "speed", "AUT"), get<std::string>(p, "lpid", "E8"),
        get<std::string>(p, "fab", "Y"), get<std::string>(p, "conn", "PtoP"),
        get<std::string>(p, "ssw", "Y"), get<std::string>(p, "wwn", "-"), get<int>(p, "rsgid", 0));
    for (const json& w : list(p, "logins")) {
      db.run("INSERT INTO port_logins(serial, port, wwn) VALUES(?, ?, ?)", serial, port,
             w.get<std::string>());
    }
    for (const json& h : list(p, "host_groups")) {
      int gid = h.at("gid").get<int>();
      std::string hmo;
      for (const json& o : list(h, "host_mode_options")) {
        hmo += (hmo.empty() ? "" : " ") + std::to_string(o.get<int>());
      }
      db.run(
          "INSERT INTO hostgrps(serial, port, gid, name, hmd, hmo, rsgid) VALUES(?, ?, ?, ?, ?, "
          "?, ?)",
          serial, port, gid, get<std::string>(h, "name", ""),
          get<std::string>(h, "host_mode", "LINUX/IRIX"), hmo, get<int>(h, "rsgid", 0));
      for (const json& w : list(h, "wwns")) {
        db.run("INSERT INTO hbawwns(serial, port, gid, wwn, nick) VALUES(?, ?, ?, ?, ?)", serial,
               port, gid, w.at("wwn").get<std::string>(), get<std::string>(w, "nickname", ""));
      }
      for (const json& l : list(h, "luns")) {
        db.run("INSERT INTO luns(serial, port, gid, lun, ldev) VALUES(?, ?, ?, ?, ?)", serial, port,
               gid, l.at("lun").get<int>(), l.at("ldev").get<int>());
      }
    }
  }
  for (const json& g : list(a, "device_groups")) {
    for (const json& m : list(g, "members")) {
      db.run("INSERT INTO devgrps(serial, grp, devname, ldev) VALUES(?, ?, ?, ?)", serial,
             g.at("name").get<std::string>(), get<std::string>(m, "device", "-"),
             m.at("ldev").get<int>());
    }
  }
  int ctg = 0;
  for (const json& c : list(a, "copy_groups")) {
    db.run(
        "INSERT INTO copygrps(serial, name, pdg, sdg, mu, jid, ctg, incarnation, q_seq, q_time) "
        "VALUES(?, ?, ?, ?, ?, ?, ?, 1, 0, 0)",
        serial, c.at("name").get<std::string>(), c.at("pvol_group").get<std::string>(),
        c.at("svol_group").get<std::string>(), get<int>(c, "mirror", 0), getOpt<int>(c, "journal"),
        get<int>(c, "ctg", ctg++));
  }
  for (const json& s : list(a, "snapshots")) {
    db.run(
        "INSERT INTO snapshots(serial, grp, pvol, svol, mu, pool, status, next, since, due, "
        "split_time, ctg, mode) VALUES(?, ?, ?, ?, ?, ?, ?, NULL, 0, NULL, ?, ?, ?)",
        serial, s.at("group").get<std::string>(), s.at("pvol").get<int>(), getOpt<int>(s, "svol"),
        get<int>(s, "mirror", 3), get<int>(s, "pool", 0), get<std::string>(s, "status", "PAIR"),
        getOpt<int64_t>(s, "split_time"), get<bool>(s, "ctg", false) ? 1 : 0,
        get<std::string>(s, "mode", ""));
  }
  for (const json& p : list(a, "pairs")) {
    db.run(
        "INSERT INTO pairs(serial, cg, devname, pvol, s_serial, svol, mu, kind, status, next, "
        "since, due, fence) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, NULL, 0, NULL, ?)",
        serial, get<std::string>(p, "copy_group", ""), get<std::string>(p, "device", "-"),
        p.at("pvol").get<int>(), get<std::string>(p, "svol_serial", serial),
        p.at("svol").get<int>(), get<int>(p, "mirror", 0), get<std::string>(p, "kind", "MRCF"),
        get<std::string>(p, "status", "PAIR"), get<std::string>(p, "fence", "NEVER"));
  }
}

}  // namespace

json defaultScenario() {
  json array = {
      {"serial", "412345"},
      {"type", "R9"},
      {"microcode", "93-07-22/00"},
      {"cache_mb", 524288},
      {"max_ldev_id", 65279},
      {"users", {{{"name", "admin"}, {"password", "admin123"}}}},
      {"resource_groups",
       {{{"id", 0},
         {"name", "meta_resource"},
         {"virtual_serial", "412345"},
         {"virtual_type", "R9"}}}},
      {"pools",
       {{{"id", 0},
         {"name", "dp_pool_00"},
         {"type", "HDP"},
         {"used_percent", 12},
         {"capacity_mb", 10485760},
         {"num_vols", 4},
         {"first_ldev", 8000}},
        {{"id", 1},
         {"name", "ti_pool_01"},
         {"type", "HTI"},
         {"used_percent", 3},
         {"capacity_mb", 1048576},
         {"num_vols", 1},
         {"first_ldev", 8004}}}},
      {"ldevs",
       {{{"id", 100}, {"count", 16}, {"capacity", 2097152}, {"pool", 0}, {"name", "data_{id}"}},
        {{"id", 4095}, {"capacity", 96000}, {"vol_type", "OPEN-V-CVS-CM"}, {"name", "cmd_dev"}}}},
      {"command_devices", {{{"ldev", 4095}, {"device", "/dev/sdc"}}}},
      {"ports",
       {{{"name", "CL1-A"},
         {"wwn", "50060e8012abcd00"},
         {"lpid", "E8"},
         {"logins", {"10000090fa1b2c3d", "10000090fa1b2c3e"}},
         {"host_groups",
          {{{"gid", 0}, {"name", "1A-G00"}},
           {{"gid", 1},
            {"name", "cmd_dev_host"},
            {"wwns", {{{"wwn", "10000090fa1b2c3d"}}}},
            {"luns", {{{"lun", 0}, {"ldev", 4095}}}}}}}},
        {{"name", "CL2-A"},
         {"wwn", "50060e8012abcd10"},
         {"lpid", "D9"},
         {"speed", "16G"},
         {"logins", {"10000090fa1b2c4d"}},
         {"host_groups", {{{"gid", 0}, {"name", "2A-G00"}}}}}}}};
  return {{"cci_version", "01-74-03/00"},
          {"timings", {{"copy_ms", 0}, {"format_ms", 0}, {"sync_lag_ms", 0}}},
          {"arrays", {array}}};
}

void loadScenario(Store& db, const json& scenario) {
  if (!scenario.is_object()) throw ScenarioError("a scenario is a JSON object");
  db.useWriteAheadLog();
  db.begin();
  try {
    db.resetSchema();
    db.setMeta("cci_version", get<std::string>(scenario, "cci_version", "01-74-03/00"));
    json timings = get<json>(scenario, "timings", json::object());
    for (const char* key : {"copy_ms", "format_ms", "sync_lag_ms"}) {
      db.setMeta(key, std::to_string(get<int64_t>(timings, key, 0)));
    }
    const json& arrays = list(scenario, "arrays");
    if (arrays.empty()) throw ScenarioError("a scenario needs at least one array");
    int ord = 0;
    for (const json& a : arrays) loadArray(db, a, ord++);
    db.commit();
  } catch (const json::exception& e) {
    db.rollback();
    throw ScenarioError(e.what());
  } catch (const StoreError& e) {
    db.rollback();
    throw ScenarioError(std::string("inconsistent scenario: ") + e.what());
  } catch (...) {
    db.rollback();
    throw;
  }
}

json dumpScenario(Store& db) {
  json timings = json::object();
  for (const char* key : {"copy_ms", "format_ms", "sync_lag_ms"}) {
    timings[key] = std::atoll(db.meta(key).value_or("0").c_str());
  }
  json arrays = json::array();
  Stmt as = db.query(
      "SELECT serial, type_code, microcode, cache_mb, max_ldev, svp_ip FROM arrays ORDER BY ord");
  while (as.step()) {
    std::string serial = as.s(0);
    json a = {{"serial", serial},      {"type", as.s(1)},          {"microcode", as.s(2)},
              {"cache_mb", as.i64(3)}, {"max_ldev_id", as.i64(4)}, {"svp_ip", as.s(5)}};
    a["users"] = json::array();
    for (Stmt st =
             db.query("SELECT name, password FROM users WHERE serial=? ORDER BY name", serial);
         st.step();) {
      a["users"].push_back({{"name", st.s(0)}, {"password", st.s(1)}});
    }
    a["resource_groups"] = json::array();
    for (Stmt st = db.query(
             "SELECT id, name, v_serial, v_type, lock_owner, lock_host FROM rsgs WHERE serial=? "
             "ORDER BY id",
             serial);
         st.step();) {
      json r = {{"id", st.i(0)},
                {"name", st.s(1)},
                {"virtual_serial", st.s(2)},
                {"virtual_type", st.s(3)}};
      r["lock_owner"] = st.isNull(4) ? json(nullptr) : json(st.s(4));
      r["lock_host"] = st.isNull(5) ? json(nullptr) : json(st.s(5));
      a["resource_groups"].push_back(r);
    }
    a["pools"] = json::array();
    for (Stmt st =
             db.query("SELECT id, name, type, status, used_pct, threshold, capacity_mb, num_vols, "
                      "first_ldev FROM pools WHERE serial=? ORDER BY id",
                      serial);
         st.step();) {
      a["pools"].push_back({{"id", st.i(0)},
                            {"name", st.s(1)},
                            {"type", st.s(2)},
                            {"status", st.s(3)},
                            {"used_percent", st.i(4)},
                            {"threshold", st.i(5)},
                            {"capacity_mb", st.i64(6)},
                            {"num_vols", st.i(7)},
                            {"first_ldev", st.i(8)}});
    }
    a["ldevs"] = json::array();
    for (Stmt st = db.query(
             "SELECT id, defined, vol_type, capacity, pool, attrs, name, sts, rsgid, vldev, mp, "
             "used_blk, qrd_serial, qrd_id FROM ldevs WHERE serial=? ORDER BY id",
             serial);
         st.step();) {
      json l = {{"id", st.i(0)},
                {"defined", st.i(1) != 0},
                {"vol_type", st.s(2)},
                {"capacity", st.i64(3)},
                {"pool", nullable(st.opt(4))},
                {"attrs", st.s(5)},
                {"name", st.s(6)},
                {"status", st.s(7)},
                {"rsgid", st.i(8)},
                {"virtual_id", nullable(st.opt(9))},
                {"mp", st.i(10)},
                {"used_blocks", st.i64(11)}};
      l["quorum_serial"] = st.isNull(12) ? json(nullptr) : json(st.s(12));
      l["quorum_id"] = nullable(st.opt(13));
      a["ldevs"].push_back(l);
    }
    a["command_devices"] = json::array();
    for (Stmt st =
             db.query("SELECT ldev, device FROM cmddevs WHERE serial=? ORDER BY device", serial);
         st.step();) {
      a["command_devices"].push_back({{"ldev", st.i(0)}, {"device", st.s(1)}});
    }
    a["ports"] = json::array();
    for (Stmt ps = db.query(
             "SELECT name, type, attr, speed, lpid, fab, conn, ssw, wwn, rsgid FROM ports WHERE "
             "serial=? ORDER BY rowid",
             serial);
         ps.step();) {
      std::string port = ps.s(0);
      json p = {{"name", port},    {"type", ps.s(1)}, {"attr", ps.s(2)}, {"speed", ps.s(3)},
                {"lpid", ps.s(4)}, {"fab", ps.s(5)},  {"conn", ps.s(6)}, {"ssw", ps.s(7)},
                {"wwn", ps.s(8)},  {"rsgid", ps.i(9)}};
      p["logins"] = json::array();
      for (Stmt st =
               db.query("SELECT wwn FROM port_logins WHERE serial=? AND port=? ORDER BY rowid",
                        serial, port);
           st.step();) {
        p["logins"].push_back(st.s(0));
      }
      p["host_groups"] = json::array();
      for (Stmt hs = db.query(
               "SELECT gid, name, hmd, hmo, rsgid FROM hostgrps WHERE serial=? AND port=? ORDER BY "
               "gid",
               serial, port);
           hs.step();) {
        int gid = hs.i(0);
        json h = {{"gid", gid}, {"name", hs.s(1)}, {"host_mode", hs.s(2)}, {"rsgid", hs.i(4)}};
        h["host_mode_options"] = json::array();
        for (const std::string& o : splitWords(hs.s(3))) {
          h["host_mode_options"].push_back(std::atoi(o.c_str()));
        }
        h["wwns"] = json::array();
        for (Stmt st = db.query(
                 "SELECT wwn, nick FROM hbawwns WHERE serial=? AND port=? AND gid=? ORDER BY rowid",
                 serial, port, gid);
             st.step();) {
          h["wwns"].push_back({{"wwn", st.s(0)}, {"nickname", st.s(1)}});
        }
        h["luns"] = json::array();
        for (Stmt st = db.query(
                 "SELECT lun, ldev FROM luns WHERE serial=? AND port=? AND gid=? ORDER BY lun",
                 serial, port, gid);
             st.step();) {
          h["luns"].push_back({{"lun", st.i(0)}, {"ldev", st.i(1)}});
        }
        p["host_groups"].push_back(h);
      }
      a["ports"].push_back(p);
    }
    a["device_groups"] = json::array();
    for (Stmt gs = db.query("SELECT grp FROM devgrps WHERE serial=? GROUP BY grp ORDER BY min(seq)",
                            serial);
         gs.step();) {
      json g = {{"name", gs.s(0)}, {"members", json::array()}};
      for (Stmt st =
               db.query("SELECT devname, ldev FROM devgrps WHERE serial=? AND grp=? ORDER BY seq",
                        serial, gs.s(0));
           st.step();) {
        g["members"].push_back({{"device", st.s(0)}, {"ldev", st.i(1)}});
      }
      a["device_groups"].push_back(g);
    }
    a["copy_groups"] = json::array();
    for (Stmt st = db.query(
             "SELECT name, pdg, sdg, mu, jid, ctg FROM copygrps WHERE serial=? ORDER BY rowid",
             serial);
         st.step();) {
      a["copy_groups"].push_back({{"name", st.s(0)},
                                  {"pvol_group", st.s(1)},
                                  {"svol_group", st.s(2)},
                                  {"mirror", st.i(3)},
                                  {"journal", nullable(st.opt(4))},
                                  {"ctg", st.i(5)}});
    }
    a["snapshots"] = json::array();
    for (Stmt st = db.query(
             "SELECT grp, pvol, svol, mu, pool, status, split_time, ctg, mode FROM snapshots "
             "WHERE serial=? ORDER BY grp, pvol, mu",
             serial);
         st.step();) {
      a["snapshots"].push_back({{"group", st.s(0)},
                                {"pvol", st.i(1)},
                                {"svol", nullable(st.opt(2))},
                                {"mirror", st.i(3)},
                                {"pool", st.i(4)},
                                {"status", st.s(5)},
                                {"split_time", nullable(st.opt(6))},
                                {"ctg", st.i(7) != 0},
                                {"mode", st.s(8)}});
    }
    a["pairs"] = json::array();
    for (Stmt st = db.query(
             "SELECT cg, devname, pvol, s_serial, svol, mu, kind, status, fence FROM pairs WHERE "
             "serial=? ORDER BY pvol, mu, kind",
             serial);
         st.step();) {
      a["pairs"].push_back({{"copy_group", st.s(0)},
                            {"device", st.s(1)},
                            {"pvol", st.i(2)},
                            {"svol_serial", st.s(3)},
                            {"svol", st.i(4)},
                            {"mirror", st.i(5)},
                            {"kind", st.s(6)},
                            {"status", st.s(7)},
                            {"fence", st.s(8)}});
    }
    arrays.push_back(a);
  }
  return {{"cci_version", db.meta("cci_version").value_or("")},
          {"timings", timings},
          {"arrays", arrays}};
}

std::string dumpText(Store& db) {
  json s = dumpScenario(db);
  std::string text = "cci_version " + s["cci_version"].get<std::string>() + "\n";
  text += "timings " + s["timings"].dump() + "\n";
  for (const json& a : s["arrays"]) {
    std::string serial = a["serial"].get<std::string>();
    json head = a;
    for (const char* key : {"users", "resource_groups", "pools", "ldevs", "command_devices",
                            "ports", "device_groups", "copy_groups", "snapshots", "pairs"}) {
      head.erase(key);
    }
    text += "array " + head.dump() + "\n";
    for (const char* key : {"users", "resource_groups", "pools", "ldevs", "command_devices"}) {
      for (const json& item : a[key])
        text += std::string(key) + " " + serial + " " + item.dump() + "\n";
    }
    for (const json& p : a["ports"]) {
      json head = p;
      head.erase("host_groups");
      text += "port " + serial + " " + head.dump() + "\n";
      for (const json& h : p["host_groups"]) {
        text += "host_group " + serial + " " + p["name"].get<std::string>() + " " + h.dump() + "\n";
      }
    }
    for (const char* key : {"device_groups", "copy_groups", "snapshots", "pairs"}) {
      for (const json& item : a[key])
        text += std::string(key) + " " + serial + " " + item.dump() + "\n";
    }
  }
  for (Stmt st = db.query("SELECT num, host, service, comment_serial FROM instances ORDER BY num");
       st.step();) {
    std::string units;
    for (Stmt us = db.query("SELECT serial FROM inst_units WHERE num=? ORDER BY ord", st.s(0));
         us.step();) {
      units += (units.empty() ? "" : ",") + us.s(0);
    }
    text += "instance " + st.s(0) + " host=" + st.s(1) + " service=" + st.s(2) + " units=" + units +
            "\n";
  }
  for (Stmt st = db.query("SELECT instance, serial, user FROM sessions ORDER BY instance, serial");
       st.step();) {
    text += "session " + st.s(0) + " " + st.s(1) + " " + st.s(2) + "\n";
  }
  for (Stmt st = db.query(
           "SELECT instance, serial, err_cnt, ssb1, ssb2, descr FROM cmdstatus ORDER BY instance, "
           "serial");
       st.step();) {
    text += "command_status " + st.s(0) + " " + st.s(1) + " errors=" + st.s(2) + " ssb=" + st.s(3) +
            "," + st.s(4) + " " + json(st.s(5)).dump() + "\n";
  }
  return text;
}

}  // namespace ccisim
