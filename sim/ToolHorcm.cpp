#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "sim/HorcmConf.h"
#include "sim/SimModel.h"
#include "sim/Tools.h"

// horcmstart.sh, horcmshutdown.sh, raidqry and raidscan.
namespace ccisim {

namespace {

std::string instanceLabel(const std::string& instance) {
  return instance.empty() ? "HORCM" : "HORCM inst " + instance;
}

bool readFile(const std::string& path, std::string& text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buf;
  buf << in.rdbuf();
  if (in.bad()) return false;
  text = buf.str();
  return true;
}

// Finds the array behind one HORCM_CMD name, with the device it is reached through.
bool resolveCommandDevice(Store& db, const std::string& name, std::string& serial,
                          std::string& device) {
  size_t ip = name.find("IPCMD-");
  if (ip != std::string::npos) {
    std::string rest = name.substr(ip + 6);
    std::string address = rest.substr(0, rest.rfind('-'));
    auto found = db.text("SELECT serial FROM arrays WHERE svp_ip=? AND svp_ip<>''", address);
    if (!found) return false;
    serial = *found;
    device = name;
    return true;
  }
  std::string path = commandDevicePath(name);
  if (auto named = commandDeviceSerial(name)) {
    auto dev = db.text(
        "SELECT device FROM cmddevs WHERE serial=? AND substr(device, 1, length(?))=? ORDER BY "
        "device",
        *named, path, path);
    if (!dev) return false;
    serial = *named;
    device = *dev;
    return true;
  }
  if (path.empty()) return false;
  Stmt st = db.query("SELECT serial, device FROM cmddevs WHERE device=?", path);
  if (!st.step()) return false;
  serial = st.s(0);
  device = st.s(1);
  return true;
}

// Starts one instance; the exit status of horcmstart.sh for it.
int startInstance(Invocation& inv, const std::string& instance) {
  Store& db = inv.db();
  std::string label = instanceLabel(instance);
  if (db.exists("SELECT 1 FROM instances WHERE num=?", instance)) {
    inv.print("%s has already been running.\n", label.c_str());
    return 1;
  }
  inv.print("starting %s\n", label.c_str());
  std::string text;
  std::string path = horcmDirectory() + "horcm" + instance + ".conf";
  if (!readFile(path, text)) {
    inv.print("%s has failed to start.\n", label.c_str());
    return 3;
  }
  HorcmConf conf = parseHorcmConf(text);
  std::vector<std::pair<std::string, std::string>> units;
  for (const std::vector<std::string>& line : conf.commandDeviceLines) {
    for (const std::string& name : line) {
      std::string serial, device;
      if (resolveCommandDevice(db, name, serial, device)) {
        units.emplace_back(serial, device);
        break;
      }
    }
  }
  bool serviceClash =
      !conf.service.empty() && db.exists("SELECT 1 FROM instances WHERE service=?", conf.service);
  if (units.empty() || serviceClash) {
    inv.print("%s has failed to start.\n", label.c_str());
    return 3;
  }
  db.run("INSERT INTO instances(num, host, service, comment_serial, started) VALUES(?, ?, ?, ?, ?)",
         instance, conf.monitorHost, conf.service, conf.commentSerial, Invocation::nowMs());
  for (size_t i = 0; i < units.size(); ++i) {
    db.run("INSERT INTO inst_units(num, ord, serial, device) VALUES(?, ?, ?, ?)", instance,
           static_cast<int>(i), units[i].first, units[i].second);
  }
  for (const HorcmConf::Group& g : conf.groups) {
    db.run("INSERT INTO inst_groups(num, grp, section, serial, detail) VALUES(?, ?, ?, ?, ?)",
           instance, g.name, g.section, g.serial.empty() ? units.front().first : g.serial,
           g.detail);
  }
  inv.print("%s starts successfully.\n", label.c_str());
  return 0;
}

std::vector<std::string> instanceArguments(Invocation& inv) {
  std::vector<std::string> instances;
  for (const std::string& word : inv.args()) {
    if (!word.empty() && !isDigits(word)) inv.fail(EX_INVARG);
    instances.push_back(word);
  }
  if (instances.empty()) {
    const char* env = std::getenv("HORCMINST");
    instances.push_back(env ? env : "");
  }
  return instances;
}

// The array a raidscan addresses: -s, else the instance's first.
std::string scanSerial(Invocation& inv, const Options& opts) {
  std::vector<std::string> units = inv.instanceUnits();
  std::string serial = opts.value("-s", units.front());
  if (std::find(units.begin(), units.end(), serial) == units.end()) inv.fail(EX_ENQSER);
  return serial;
}

struct PairSide {
  std::string role, status, fence, partnerSerial, partnerLdev, volAttr;
};

// What raidscan shows for one LDEV on one mirror unit, as the instance's mode sees it.
PairSide pairSide(Invocation& inv, const std::string& serial, int ldev, int mu) {
  Store& db = inv.db();
  InstanceMode mode = inv.instanceMode();
  std::string kinds = mode == InstanceMode::Horc   ? "'HORC','UR','GAD'"
                      : mode == InstanceMode::Mrcf ? "'MRCF'"
                                                   : "'MRCF','HORC','UR','GAD'";
  std::string sql =
      "SELECT serial, pvol, s_serial, svol, status, fence, kind FROM pairs WHERE mu=? AND kind "
      "IN (" +
      kinds + ") AND ((serial=? AND pvol=?) OR (s_serial=? AND svol=?))";
  Stmt st = db.query(sql.c_str(), mu, serial, ldev, serial, ldev);
  if (st.step()) {
    bool primary = st.s(0) == serial && st.i(1) == ldev;
    std::string status = st.s(4);
    if (!primary && status == "PSUS") status = "SSUS";
    return {primary ? "P-VOL" : "S-VOL",
            status,
            st.s(5),
            primary ? st.s(2) : st.s(0),
            std::to_string(primary ? st.i(3) : st.i(1)),
            st.s(6)};
  }
  if (mode != InstanceMode::Horc) {
    Stmt sn = db.query(
        "SELECT pvol, svol, status FROM snapshots WHERE serial=? AND mu=? AND (pvol=? OR svol=?)",
        serial, mu, ldev, ldev);
    if (sn.step()) {
      bool primary = sn.i(0) == ldev;
      std::string status = sn.s(2);
      if (!primary && status == "PSUS") status = "SSUS";
      std::string partner =
          primary ? (sn.isNull(1) ? "----" : std::to_string(sn.i(1))) : std::to_string(sn.i(0));
      return {primary ? "P-VOL" : "S-VOL", status, "NEVER", serial, partner, "QS"};
    }
  }
  return {"SMPL", "-", "-", "-", "----", "-"};
}

// Prints one line per LU that the statement selects (port, gid, lun, ldev, command device).
void printScanRows(Invocation& inv, const std::string& serial, Stmt& st, const std::string& mu,
                   int muNumber, bool cli) {
  std::string text = cli ? formatRaidscanHeader()
                         : "PORT# /ALPA/C,TID#, LU#.Num(LDEV#....)...P/S, Status,Fence,LDEV#,"
                           "P-Seq#,P-LDEV#\n";
  while (st.step()) {
    RaidscanView v;
    v.portGid = st.s(0) + "-" + std::to_string(st.i(1));
    v.lun = st.i(2);
    v.ldev = st.i(3);
    v.commandDevice = st.i(4) != 0;
    v.mu = mu;
    v.serial = serial;
    PairSide side = pairSide(inv, serial, v.ldev, muNumber);
    v.role = side.role;
    v.status = side.status;
    v.fence = side.fence;
    v.partnerSerial = side.partnerSerial;
    v.partnerLdev = side.partnerLdev;
    v.volAttr = side.volAttr;
    if (cli) {
      text += formatRaidscanLine(v);
    } else {
      text += strprintf("%s /ef/ 0, %3d, %3d.1(%d)...........%-5s %-5s %-6s %5d,%s %s\n",
                        v.portGid.c_str(), 0, v.lun, v.ldev, v.role.c_str(), v.status.c_str(),
                        v.fence.c_str(), v.ldev, v.partnerSerial.c_str(), v.partnerLdev.c_str());
    }
  }
  inv.out() += text;
}

const char* const kScanSelect =
    "SELECT l.port, l.gid, l.lun, l.ldev, c.device IS NOT NULL FROM luns l LEFT JOIN cmddevs c "
    "ON c.serial=l.serial AND c.ldev=l.ldev WHERE l.serial=? AND ";

void findCommandDevices(Invocation& inv, const std::vector<std::string>& words) {
  if (words.size() != 1) inv.fail(EX_INVARG);
  int low = 0;
  int high = 0;
  size_t dash = words[0].find('-');
  auto a = parseNumber(words[0].substr(0, dash));
  auto b = dash == std::string::npos ? a : parseNumber(words[0].substr(dash + 1));
  if (!a || !b) inv.fail(EX_INVARG);
  low = static_cast<int>(std::min<int64_t>(*a, INT_MAX));
  high = static_cast<int>(std::min<int64_t>(*b, INT_MAX));
  Stmt st = inv.db().query("SELECT serial, device FROM cmddevs ORDER BY device");
  while (st.step()) {
    int index = deviceIndex(st.s(1));
    if (index >= 0 && (index < low || index > high)) continue;
    inv.print("cmddev of Ser# %s = \\\\.\\CMD-%s:%s\n", st.s(0).c_str(), st.s(0).c_str(),
              st.s(1).c_str());
  }
}

}  // namespace

std::string horcmDirectory() {
  const char* dir = std::getenv("HDS_HORCM_DIR");
  std::string path = dir && *dir ? dir : "/etc/";
  if (path.back() != '/') path += '/';
  return path;
}

int runHorcmStart(Invocation& inv) {
  int status = 0;
  for (const std::string& instance : instanceArguments(inv)) {
    status = startInstance(inv, instance);
    if (status != 0) break;
  }
  return status;
}

int runHorcmShutdown(Invocation& inv) {
  for (const std::string& instance : instanceArguments(inv)) {
    Store& db = inv.db();
    if (!db.exists("SELECT 1 FROM instances WHERE num=?", instance)) {
      inv.printErr("[%s] %s\n", EX_ATTHOR.name, EX_ATTHOR.text);
      return EX_ATTHOR.status;
    }
    for (const char* table : {"instances", "inst_units", "inst_groups"}) {
      db.run(("DELETE FROM " + std::string(table) + " WHERE num=?").c_str(), instance);
    }
    db.run("DELETE FROM sessions WHERE instance=?", instance);
    db.run("DELETE FROM cmdstatus WHERE instance=?", instance);
    std::string name = instance.empty() ? "" : " inst " + instance;
    inv.print("inst %s:\nhorcmshutdown%s !!!\n", instance.c_str(), name.c_str());
  }
  return 0;
}

int runRaidqry(Invocation& inv) {
  inv.takeInstanceOption();
  Options opts(
      inv, inv.args(), 0,
      {{"-h", 0, 0}, {"-l", 0, 0}, {"-lm", 0, 0}, {"-g", 0, 0}, {"-f", 0, 0}, {"-s", 1, 1}});
  if (!opts.positional().empty()) inv.fail(EX_INVARG);
  std::string version = inv.db().meta("cci_version").value_or("01-74-03/00");
  if (opts.has("-h") || (!opts.has("-l") && !opts.has("-lm") && !opts.has("-g"))) {
    inv.out() += formatRaidqryUsage(version, inv.instance());
    return 0;
  }
  inv.requireRunningInstance();
  if (opts.has("-g")) {
    std::string text = "GNo  Group            RAID_type  IV/H IV/M MUN/H MUN/M\n";
    Stmt st = inv.db().query(
        "SELECT DISTINCT grp FROM inst_groups WHERE num=? AND section<>'HORCM_INST' ORDER BY "
        "rowid",
        inv.instance());
    int n = 0;
    while (st.step()) {
      text += strprintf("%3d  %-16s %-10s %4d %4d %5d %5d\n", ++n, st.s(0).c_str(), "HTC_RAID", 12,
                        9, 4, 2);
    }
    inv.out() += text;
    return 0;
  }
  std::string text = formatRaidqryHeader();
  Stmt st = inv.db().query(
      "SELECT u.ord, a.serial, a.microcode, a.cache_mb FROM inst_units u JOIN arrays a ON "
      "a.serial=u.serial WHERE u.num=? ORDER BY u.ord",
      inv.instance());
  while (st.step()) {
    RaidqryView r;
    r.no = st.i(0) + 1;
    r.unit = st.i(0);
    r.host = Invocation::hostName();
    r.horcmVersion = version;
    r.serial = st.s(1);
    r.microcode = st.s(2);
    r.cacheMb = st.i64(3);
    text += formatRaidqryLine(r);
  }
  inv.out() += text;
  return 0;
}

int runRaidscan(Invocation& inv) {
  inv.takeInstanceOption();
  Options opts(inv, inv.args(), 0,
               {{"-x", 1, 2},
                {"-p", 1, 2},
                {"-pd", 1, 1},
                {"-pdg", 1, 1},
                {"-CLI", 0, 0},
                {"-fx", 0, 0},
                {"-m", 1, 1},
                {"-mu", 1, 1},
                {"-s", 1, 1}});
  if (!opts.positional().empty()) inv.fail(EX_INVARG);
  if (opts.has("-x")) {
    const std::vector<std::string>& x = opts.values("-x");
    if (x[0] != "findcmddev") inv.fail(EX_INVARG);
    findCommandDevices(inv, std::vector<std::string>(x.begin() + 1, x.end()));
    return 0;
  }
  bool cli = opts.has("-CLI");
  std::string mu = opts.value("-m", opts.value("-mu", "0"));
  auto muNumber = parseNumber(mu[0] == 'h' ? mu.substr(1) : mu);
  if (!muNumber || *muNumber > 1023) inv.invalidOption("-m");
  if (opts.has("-p")) {
    inv.requireRunningInstance();
    std::string serial = scanSerial(inv, opts);
    const std::vector<std::string>& words = opts.values("-p");
    std::string port;
    std::optional<int> gid;
    splitPortGid(words[0], port, gid);
    if (!portExists(inv.db(), serial, port)) inv.fail(EX_ENOOBJ);
    if (words.size() > 1 || gid) {
      std::string quoted;
      auto hg = resolveHostGroup(inv.db(), serial, words, quoted);
      if (!hg) inv.fail(EX_ENOOBJ);
      std::string sql = std::string(kScanSelect) + "l.port=? AND l.gid=? ORDER BY l.lun";
      Stmt st = inv.db().query(sql.c_str(), serial, hg->port, hg->gid);
      printScanRows(inv, serial, st, mu, static_cast<int>(*muNumber), cli);
    } else {
      std::string sql = std::string(kScanSelect) + "l.port=? ORDER BY l.gid, l.lun";
      Stmt st = inv.db().query(sql.c_str(), serial, port);
      printScanRows(inv, serial, st, mu, static_cast<int>(*muNumber), cli);
    }
    return 0;
  }
  if (opts.has("-pd") || opts.has("-pdg")) {
    inv.requireRunningInstance();
    std::string name = opts.has("-pd") ? opts.required("-pd") : opts.required("-pdg");
    std::string path = commandDevicePath(name);
    Stmt dev =
        path.empty()
            ? inv.db().query("SELECT serial, ldev FROM cmddevs WHERE serial=? ORDER BY device",
                             commandDeviceSerial(name).value_or(""))
            : inv.db().query("SELECT serial, ldev FROM cmddevs WHERE device=?", path);
    if (!dev.step()) inv.fail(EX_ENODEV);
    std::string serial = dev.s(0);
    std::string sql = std::string(kScanSelect) + "l.ldev=? ORDER BY l.port, l.gid";
    Stmt st = inv.db().query(sql.c_str(), serial, dev.i(1));
    printScanRows(inv, serial, st, mu, static_cast<int>(*muNumber), cli);
    return 0;
  }
  inv.fail(EX_REQARG);
}

}  // namespace ccisim
