#include <algorithm>
#include <cstdlib>
#include <set>

#include "sim/SimModel.h"
#include "sim/Tools.h"

// paircreate, pairsplit, pairresync, pairdisplay, pairevtwait and pairsyncwait: the pair
// commands act on a copy group that the instance's HORCM_LDEVG names and the array defines.
namespace ccisim {

namespace {

struct Member {
  std::string device;
  int pvol = 0;
  std::string svolSerial;
  std::optional<int> svol;
};

struct Pair {
  std::string status;
  int64_t since = 0;
  std::optional<int64_t> due;
  std::string fence;
  std::string kind;
  std::string svolSerial;
  int svol = 0;
};

struct PairGroup {
  std::string name;
  std::string serial;
  int mu = 0;
  std::optional<int> journal;
  int ctg = 0;
  int incarnation = 1;
  std::vector<Member> members;
};

// Parses the options of a pair command; -g names the group and is always required.
Options pairOptions(Invocation& inv, std::initializer_list<OptionSpec> optionSpecs) {
  inv.takeInstanceOption();
  Options opts(inv, inv.args(), 0, optionSpecs);
  if (!opts.positional().empty()) inv.fail(EX_INVARG);
  if (!opts.has("-g")) inv.fail(EX_REQARG);
  inv.requireRunningInstance();
  return opts;
}

PairGroup resolveGroup(Invocation& inv, const Options& opts) {
  Store& db = inv.db();
  PairGroup g;
  g.name = opts.required("-g");
  auto serial =
      db.text("SELECT serial FROM inst_groups WHERE num=? AND grp=? AND section='HORCM_LDEVG'",
              inv.instance(), g.name);
  if (!serial) inv.fail(EX_ENOGRP);
  g.serial = *serial;
  Stmt st =
      db.query("SELECT pdg, sdg, mu, jid, ctg, incarnation FROM copygrps WHERE serial=? AND name=?",
               g.serial, g.name);
  if (!st.step()) inv.fail(EX_ENOENT);
  std::string pdg = st.s(0);
  std::string sdg = st.s(1);
  g.mu = st.i(2);
  if (!st.isNull(3)) g.journal = st.i(3);
  g.ctg = st.i(4);
  g.incarnation = st.i(5);
  std::string only = opts.value("-d");
  Stmt members = db.query("SELECT devname, ldev FROM devgrps WHERE serial=? AND grp=? ORDER BY seq",
                          g.serial, pdg);
  while (members.step()) {
    Member m;
    m.device = members.s(0);
    m.pvol = members.i(1);
    if (!only.empty() && m.device != only) continue;
    // The S-VOL group lives on this array, or on the remote array for remote copy.
    Stmt sv = db.query(
        "SELECT serial, ldev FROM devgrps WHERE grp=? AND devname=? ORDER BY serial<>?, seq", sdg,
        m.device, g.serial);
    if (sv.step()) {
      m.svolSerial = sv.s(0);
      m.svol = sv.i(1);
    }
    g.members.push_back(m);
  }
  if (g.members.empty()) inv.fail(only.empty() ? EX_ENOENT : EX_ENODEV);
  return g;
}

std::optional<Pair> loadPair(Store& db, const PairGroup& g, const Member& m) {
  Stmt st = db.query(
      "SELECT status, since, due, fence, kind, s_serial, svol FROM pairs WHERE serial=? AND "
      "pvol=? AND mu=? AND cg=?",
      g.serial, m.pvol, g.mu, g.name);
  if (!st.step()) return std::nullopt;
  return Pair{st.s(0), st.i64(1), st.opt(2), st.s(3), st.s(4), st.s(5), st.i(6)};
}

void setPair(Invocation& inv, const PairGroup& g, const Member& m, const std::string& status,
             const std::optional<std::string>& next, std::optional<int64_t> due) {
  inv.db().run(
      "UPDATE pairs SET status=?, next=?, since=?, due=? WHERE serial=? AND pvol=? AND mu=? AND "
      "cg=?",
      status, next, Invocation::nowMs(), due, g.serial, m.pvol, g.mu, g.name);
  if (due) inv.scheduleDue(*due);
}

void bumpIncarnation(Invocation& inv, const PairGroup& g) {
  inv.db().run(
      "UPDATE copygrps SET incarnation=incarnation+1, q_seq=0, q_time=? WHERE serial=? AND name=?",
      Invocation::nowMs(), g.serial, g.name);
}

// pairevtwait -nowait: the pair status as an exit code.
int statusCode(const std::string& status) {
  if (status == "SMPL") return 1;
  if (status == "COPY" || status == "RCPY") return 2;
  if (status == "PAIR") return 3;
  if (status == "PSUS" || status == "SSUS") return 4;
  return 5;
}

void fillLocation(Store& db, const std::string& serial, int ldev, PairDisplayView& v) {
  std::vector<LunPathView> paths = lunPaths(db, serial, ldev);
  if (paths.empty()) {
    v.port = "-";
    v.tid = "-";
    v.lun = "-";
    return;
  }
  v.port = paths[0].port + "-" + std::to_string(paths[0].gid);
  v.tid = "0";
  v.lun = std::to_string(paths[0].lun);
}

}  // namespace

int runPairCreate(Invocation& inv) {
  Options opts = pairOptions(inv, {{"-g", 1, 1},
                                   {"-d", 1, 1},
                                   {"-m", 1, 1},
                                   {"-vl", 0, 0},
                                   {"-f", 1, 2},
                                   {"-split", 0, 0},
                                   {"-c", 1, 1},
                                   {"-nocopy", 0, 0},
                                   {"-jp", 1, 1},
                                   {"-js", 1, 1},
                                   {"-fq", 1, 1}});
  if (!opts.has("-vl")) inv.fail(EX_REQARG);
  PairGroup g = resolveGroup(inv, opts);
  Store& db = inv.db();
  std::string kind =
      inv.instanceMode() == InstanceMode::Horc ? (g.journal ? "UR" : "HORC") : "MRCF";
  std::string fence = toUpper(opts.value("-f", g.journal ? "async" : "never"));
  int64_t copy = opts.has("-nocopy") ? 0 : timingMs(db, "copy_ms");
  std::string settled = opts.has("-split") ? "PSUS" : "PAIR";
  for (const Member& m : g.members) {
    if (!m.svol) inv.fail(EX_EVOLCE);
    const std::string& pserial = g.serial;
    auto pvol = loadLdev(db, pserial, m.pvol);
    auto svol = loadLdev(db, m.svolSerial, *m.svol);
    if (!pvol || !pvol->defined) inv.reject(ssb::LDEV_NOT_INSTALLED, pserial);
    if (!svol || !svol->defined) inv.reject(ssb::LDEV_NOT_INSTALLED, m.svolSerial);
    if (pvol->capacity != svol->capacity) inv.fail(EX_ENQSIZ);
    if (db.exists("SELECT 1 FROM pairs WHERE serial=? AND pvol=? AND mu=? AND kind=?", pserial,
                  m.pvol, g.mu, kind)) {
      inv.fail(EX_INVVOL);
    }
    if (db.exists("SELECT 1 FROM pairs WHERE (s_serial=? AND svol=?) OR (serial=? AND pvol=?)",
                  m.svolSerial, *m.svol, m.svolSerial, *m.svol) ||
        db.exists("SELECT 1 FROM snapshots WHERE serial=? AND (svol=? OR pvol=?)", m.svolSerial,
                  *m.svol, *m.svol)) {
      inv.reject(ssb::SVOL_IN_USE, m.svolSerial);
    }
    int64_t now = Invocation::nowMs();
    std::optional<int64_t> due;
    if (copy > 0) due = now + copy;
    db.run(
        "INSERT INTO pairs(serial, cg, devname, pvol, s_serial, svol, mu, kind, status, next, "
        "since, due, fence) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
        pserial, g.name, m.device, m.pvol, m.svolSerial, *m.svol, g.mu, kind,
        due ? std::string("COPY") : settled,
        due ? std::optional<std::string>(settled) : std::nullopt, now, due, fence);
    if (due) inv.scheduleDue(*due);
  }
  bumpIncarnation(inv, g);
  return 0;
}

int runPairSplit(Invocation& inv) {
  Options opts = pairOptions(inv, {{"-g", 1, 1},
                                   {"-d", 1, 1},
                                   {"-S", 0, 0},
                                   {"-r", 0, 0},
                                   {"-rw", 0, 0},
                                   {"-E", 0, 0},
                                   {"-fq", 1, 1},
                                   {"-l", 0, 0}});
  PairGroup g = resolveGroup(inv, opts);
  bool simplex = opts.has("-S");
  for (const Member& m : g.members) {
    auto pair = loadPair(inv.db(), g, m);
    if (!pair) {
      if (!simplex) inv.fail(EX_INVVOL);
      continue;
    }
    if (simplex) {
      inv.db().run("DELETE FROM pairs WHERE serial=? AND pvol=? AND mu=? AND cg=?", g.serial,
                   m.pvol, g.mu, g.name);
    } else if (opts.has("-E")) {
      setPair(inv, g, m, "PSUE", std::nullopt, std::nullopt);
    } else if (pair->status == "PAIR") {
      setPair(inv, g, m, "PSUS", std::nullopt, std::nullopt);
    } else if (pair->status != "PSUS" && pair->status != "PSUE") {
      inv.fail(EX_INVVOL);
    }
  }
  return 0;
}

int runPairResync(Invocation& inv) {
  Options opts = pairOptions(inv, {{"-g", 1, 1},
                                   {"-d", 1, 1},
                                   {"-restore", 0, 0},
                                   {"-fq", 1, 1},
                                   {"-c", 1, 1},
                                   {"-swaps", 0, 0},
                                   {"-swapp", 0, 0},
                                   {"-l", 0, 0}});
  PairGroup g = resolveGroup(inv, opts);
  int64_t copy = timingMs(inv.db(), "copy_ms");
  std::string copying = opts.has("-restore") ? "RCPY" : "COPY";
  for (const Member& m : g.members) {
    auto pair = loadPair(inv.db(), g, m);
    if (!pair) inv.fail(EX_INVVOL);
    if (pair->status != "PSUS" && pair->status != "PSUE") continue;
    if (copy > 0) {
      setPair(inv, g, m, copying, std::string("PAIR"), Invocation::nowMs() + copy);
    } else {
      setPair(inv, g, m, "PAIR", std::nullopt, std::nullopt);
    }
  }
  bumpIncarnation(inv, g);
  return 0;
}

int runPairDisplay(Invocation& inv) {
  Options opts = pairOptions(inv, {{"-g", 1, 1},
                                   {"-d", 1, 1},
                                   {"-fc", 0, 0},
                                   {"-CLI", 0, 0},
                                   {"-fx", 0, 0},
                                   {"-fe", 0, 0},
                                   {"-l", 0, 0},
                                   {"-c", 0, 0}});
  PairGroup g = resolveGroup(inv, opts);
  Store& db = inv.db();
  bool percentForm = opts.has("-fc");
  bool cli = opts.has("-CLI");
  std::string text = cli ? formatPairDisplayHeader(percentForm)
                         : "Group   PairVol(L/R) (Port#,TID, LU-M) ,Seq#,LDEV#.P/S,Status,   % "
                           ",P-LDEV# M\n";
  for (const Member& m : g.members) {
    auto pair = loadPair(db, g, m);
    for (int side = 0; side < 2; ++side) {
      if (side == 1 && (opts.has("-l") || !m.svol)) break;
      PairDisplayView v;
      v.group = g.name;
      v.device = m.device;
      v.side = side == 0 ? "L" : "R";
      v.mu = std::to_string(g.mu);
      v.serial = side == 0 ? g.serial : m.svolSerial;
      v.ldev = side == 0 ? m.pvol : *m.svol;
      fillLocation(db, v.serial, v.ldev, v);
      if (!pair) {
        v.role = "SMPL";
        v.status = "-";
        v.percent = "-";
        v.partnerSerial = "-";
        v.partnerLdev = "-";
        v.mark = "-";
      } else {
        v.role = side == 0 ? "P-VOL" : "S-VOL";
        v.status = side == 1 && pair->status == "PSUS" ? "SSUS" : pair->status;
        v.percent = std::to_string(copyPercent(pair->since, pair->due));
        v.partnerSerial = side == 0 ? pair->svolSerial : (pair->kind == "MRCF" ? "-" : g.serial);
        v.partnerLdev = std::to_string(side == 0 ? pair->svol : m.pvol);
        v.mark = side == 0 && pair->status == "PSUS" ? "W" : "-";
      }
      if (cli) {
        text += formatPairDisplayLine(v, percentForm);
      } else {
        text +=
            strprintf("%s %s(%s) (%s,%3s, %3s-%s )%s %5d.%s %s,%5s %7s %s\n", v.group.c_str(),
                      v.device.c_str(), v.side.c_str(), v.port.c_str(), v.tid.c_str(),
                      v.lun.c_str(), v.mu.c_str(), v.serial.c_str(), v.ldev, v.role.c_str(),
                      v.status.c_str(), v.percent.c_str(), v.partnerLdev.c_str(), v.mark.c_str());
      }
    }
  }
  inv.out() += text;
  return 0;
}

int runPairEvtWait(Invocation& inv) {
  Options opts = pairOptions(inv, {{"-g", 1, 1},
                                   {"-d", 1, 1},
                                   {"-s", 1, -1},
                                   {"-ss", 1, -1},
                                   {"-t", 1, 1},
                                   {"-nowait", 0, 0},
                                   {"-nowaits", 0, 0},
                                   {"-l", 0, 0}});
  PairGroup g = resolveGroup(inv, opts);
  Store& db = inv.db();
  auto statusOf = [&](const Member& m, bool svolSide) {
    auto pair = loadPair(db, g, m);
    if (!pair) return std::string("SMPL");
    if (svolSide && pair->status == "PSUS") return std::string("SSUS");
    return pair->status;
  };
  if (opts.has("-nowait") || opts.has("-nowaits")) {
    return statusCode(statusOf(g.members.front(), opts.has("-nowaits")));
  }
  bool svolSide = opts.has("-ss");
  if (!svolSide && !opts.has("-s")) inv.fail(EX_REQARG);
  std::set<std::string> wanted;
  for (const std::string& w : opts.values(svolSide ? "-ss" : "-s")) {
    std::string s = toUpper(w);
    // On the S-VOL side a split pair reads SSUS, whichever word the caller used for it.
    if (svolSide && s == "PSUS") s = "SSUS";
    wanted.insert(s);
  }
  std::string timeout = opts.required("-t");
  auto seconds = parseNumber(timeout.substr(0, timeout.find(',')));
  if (!seconds) inv.invalidOption("-t");
  int64_t deadline = inv.deadlineAfter(*seconds, 1000);
  for (;;) {
    bool done = true;
    bool suspended = false;
    for (const Member& m : g.members) {
      std::string status = statusOf(m, svolSide);
      done = done && wanted.count(status);
      suspended = suspended || status == "PSUE";
    }
    if (done) {
      inv.print("pairevtwait : Wait status done.\n");
      return 0;
    }
    if (suspended) inv.fail(EX_EWSUSE);
    int64_t now = Invocation::nowMs();
    if (now >= deadline) inv.fail(EX_EWSTOT);
    inv.pause(std::min<int64_t>(deadline - now, 20));
    g = resolveGroup(inv, opts);
  }
}

int runPairSyncWait(Invocation& inv) {
  Options opts = pairOptions(inv, {{"-g", 1, 1},
                                   {"-d", 1, 1},
                                   {"-nowait", 0, 0},
                                   {"-t", 1, 1},
                                   {"-q", 1, 1},
                                   {"-m", 1, 1},
                                   {"-fq", 0, 0},
                                   {"-l", 0, 0}});
  PairGroup g = resolveGroup(inv, opts);
  Store& db = inv.db();
  auto unit =
      db.scalar("SELECT ord FROM inst_units WHERE num=? AND serial=?", inv.instance(), g.serial);
  int64_t lagMs = timingMs(db, "sync_lag_ms");
  auto groupState = [&](std::string& worst) {
    worst = "PAIR";
    for (const Member& m : g.members) {
      auto pair = loadPair(db, g, m);
      std::string s = pair ? pair->status : "SMPL";
      if (s != "PAIR") worst = s;
    }
  };
  std::string worst;
  groupState(worst);
  if (worst == "SMPL") inv.fail(EX_INVVOL);
  auto load = [&](int64_t& seq, int64_t& time, int& incarnation) {
    Stmt st = db.query("SELECT q_seq, q_time, incarnation FROM copygrps WHERE serial=? AND name=?",
                       g.serial, g.name);
    st.step();
    seq = st.i64(0);
    time = st.i64(1);
    incarnation = st.i(2);
  };
  auto marker = [](int incarnation, int64_t seq) {
    return (static_cast<uint64_t>(incarnation & 0xFF) << 32) | static_cast<uint64_t>(seq);
  };
  int64_t seq = 0, time = 0;
  int incarnation = 0;
  load(seq, time, incarnation);
  std::string text = formatSyncWaitHeader();
  if (opts.has("-nowait")) {
    // Each look at the group finds the P-VOL's sequence moved on by the writes since.
    ++seq;
    db.run("UPDATE copygrps SET q_seq=?, q_time=? WHERE serial=? AND name=?", seq,
           Invocation::nowMs(), g.serial, g.name);
    inv.out() += text + formatSyncWaitLine(static_cast<int>(unit.value_or(0)), g.ctg,
                                           marker(incarnation, seq), "NOWAIT", lagMs > 0 ? 1 : 0);
    return 0;
  }
  std::string wantedText = opts.value("-q", opts.value("-m"));
  if (wantedText.empty()) inv.fail(EX_REQARG);
  auto wanted = parseNumber("0x" + wantedText);
  if (!wanted) inv.invalidOption(opts.has("-q") ? "-q" : "-m");
  auto tenths = opts.optNumber("-t").value_or(0);
  int64_t deadline = inv.deadlineAfter(tenths, 100);
  for (;;) {
    load(seq, time, incarnation);
    int64_t committed = (lagMs <= 0 || Invocation::nowMs() - time >= lagMs) ? seq : seq - 1;
    uint64_t current = marker(incarnation, std::max<int64_t>(committed, 0));
    std::string status;
    int code = -1;
    if (((*wanted >> 32) & 0xFF) != static_cast<uint64_t>(incarnation & 0xFF)) {
      status = "CHANGED";
      code = 3;
    } else if (worst != "PAIR" && worst != "COPY") {
      status = "BROKEN";
      code = 2;
    } else if (committed >= static_cast<int64_t>(*wanted & 0xFFFFFFFF)) {
      status = "DONE";
      code = 0;
    } else if (Invocation::nowMs() >= deadline) {
      status = "TIMEOUT";
      code = 1;
    }
    if (code >= 0) {
      inv.out() += text + formatSyncWaitLine(static_cast<int>(unit.value_or(0)), g.ctg, current,
                                             status, seq - committed);
      return code;
    }
    inv.pause(std::min<int64_t>(deadline - Invocation::nowMs(), 20));
    g = resolveGroup(inv, opts);
    groupState(worst);
  }
}

}  // namespace ccisim
