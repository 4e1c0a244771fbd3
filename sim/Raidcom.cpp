#include "sim/Raidcom.h"

#include <algorithm>
#include <cstdlib>

#include "sim/Tools.h"

namespace ccisim {

namespace {

struct CommandStatusRow {
  int handle = 0;
  int errors = 0;
  std::string ssb1 = "-";
  std::string ssb2 = "-";
  std::string description;
  int64_t pendingUntil = 0;
};

CommandStatusRow loadStatus(Store& db, const std::string& instance, const std::string& serial) {
  CommandStatusRow row;
  Stmt st = db.query(
      "SELECT handle, err_cnt, ssb1, ssb2, descr, pending_until FROM cmdstatus WHERE instance=? "
      "AND serial=?",
      instance, serial);
  if (st.step()) {
    row.handle = st.i(0);
    row.errors = st.i(1);
    row.ssb1 = st.s(2);
    row.ssb2 = st.s(3);
    row.description = st.s(4);
    row.pendingUntil = st.i64(5);
  }
  return row;
}

void saveStatus(Store& db, const std::string& instance, const std::string& serial,
                const CommandStatusRow& row) {
  db.run(
      "INSERT OR REPLACE INTO cmdstatus(instance, serial, handle, err_cnt, ssb1, ssb2, descr, "
      "pending_until) VALUES(?, ?, ?, ?, ?, ?, ?, ?)",
      instance, serial, row.handle, row.errors, row.ssb1, row.ssb2, row.description,
      row.pendingUntil);
}

// An asynchronous command was accepted: it gets a new handle, and a failure of its work is
// counted against the session until the next reset.
void recordAsync(Raidcom& rc, const AsyncFailure* failure) {
  CommandStatusRow row = loadStatus(rc.db(), rc.inv().instance(), rc.serial());
  row.handle = (row.handle + 1) & 0xFFFF;
  row.pendingUntil = std::max(row.pendingUntil, rc.pendingUntil());
  if (failure) {
    ++row.errors;
    row.ssb1 = toLower(failure->ssb1);
    row.ssb2 = toLower(failure->ssb2);
    row.description = failure->description;
  }
  saveStatus(rc.db(), rc.inv().instance(), rc.serial(), row);
}

void resetCommandStatus(Raidcom& rc) {
  rc.options({});
  CommandStatusRow row = loadStatus(rc.db(), rc.inv().instance(), rc.serial());
  row.errors = 0;
  row.ssb1 = "-";
  row.ssb2 = "-";
  row.description.clear();
  saveStatus(rc.db(), rc.inv().instance(), rc.serial(), row);
}

void getCommandStatus(Raidcom& rc) {
  Options opts = rc.options({{"-time", 1, 1}});
  auto waitSec = opts.optNumber("-time");
  CommandStatusRow row = loadStatus(rc.db(), rc.inv().instance(), rc.serial());
  if (waitSec && row.pendingUntil > Invocation::nowMs()) {
    int64_t deadline = rc.inv().deadlineAfter(*waitSec, 1000);
    while (row.pendingUntil > Invocation::nowMs()) {
      int64_t now = Invocation::nowMs();
      if (now >= deadline) rc.fail(EX_EWSTOT);
      rc.inv().pause(std::min(row.pendingUntil, deadline) - now);
      row = loadStatus(rc.db(), rc.inv().instance(), rc.serial());
    }
  }
  CommandStatusView view;
  view.handle = row.handle;
  view.ssb1 = row.ssb1;
  view.ssb2 = row.ssb2;
  view.errorCount = row.errors;
  view.serial = rc.serial();
  view.description = row.description;
  rc.inv().out() += formatCommandStatusHeader() + formatCommandStatusLine(view);
}

struct Command {
  const char* verb;
  const char* object;
  void (*run)(Raidcom&);
  bool async;
};

const Command kCommands[] = {
    {"get", "ldev", getLdev, false},
    {"add", "ldev", addLdev, true},
    {"delete", "ldev", deleteLdev, true},
    {"modify", "ldev", modifyLdev, true},
    {"initialize", "ldev", initializeLdev, true},
    {"get", "port", getPort, false},
    {"get", "host_grp", getHostGroup, false},
    {"add", "host_grp", addHostGroup, false},
    {"delete", "host_grp", deleteHostGroup, false},
    {"modify", "host_grp", modifyHostGroup, false},
    {"get", "hba_wwn", getHbaWwn, false},
    {"add", "hba_wwn", addHbaWwn, false},
    {"delete", "hba_wwn", deleteHbaWwn, false},
    {"get", "lun", getLun, false},
    {"add", "lun", addLun, false},
    {"delete", "lun", deleteLun, false},
    {"get", "device_grp", getDeviceGroup, false},
    {"add", "device_grp", addDeviceGroup, false},
    {"delete", "device_grp", deleteDeviceGroup, false},
    {"get", "snapshot", getSnapshot, false},
    {"add", "snapshot", addSnapshot, true},
    {"modify", "snapshot", modifySnapshot, true},
    {"delete", "snapshot", deleteSnapshot, true},
    {"get", "copy_grp", getCopyGroup, false},
    {"add", "copy_grp", addCopyGroup, false},
    {"delete", "copy_grp", deleteCopyGroup, false},
    {"get", "pool", getPool, false},
    {"get", "resource", getResource, false},
    {"lock", "resource", lockResource, false},
    {"unlock", "resource", unlockResource, false},
    {"add", "resource", addResource, false},
    {"delete", "resource", deleteResource, false},
    {"map", "resource", mapResource, false},
    {"unmap", "resource", unmapResource, false},
    {"get", "command_status", getCommandStatus, false},
    {"reset", "command_status", resetCommandStatus, false},
};

void login(Invocation& inv, const std::string& serial, const std::string& user,
           const std::string& password) {
  Store& db = inv.db();
  if (!db.exists("SELECT 1 FROM users WHERE serial=? AND name=? AND password=?", serial, user,
                 password)) {
    inv.fail(EX_ENAUTH);
  }
  db.run("INSERT OR REPLACE INTO sessions(instance, serial, user, since) VALUES(?, ?, ?, ?)",
         inv.instance(), serial, user, Invocation::nowMs());
}

}  // namespace

void Raidcom::requireUnlocked(int rsgid) {
  Stmt st = db().query("SELECT lock_owner, lock_host FROM rsgs WHERE serial=? AND id=?", m_sSerial,
                       rsgid);
  if (!st.step() || st.isNull(0)) return;
  if (st.s(0) != m_sUser || st.s(1) != Invocation::hostName()) reject(ssb::RSG_LOCKED);
}

LdevRow Raidcom::requireLdev(int id) {
  auto row = loadLdev(db(), m_sSerial, id);
  if (!row || !row->defined) reject(ssb::LDEV_NOT_INSTALLED);
  return *row;
}

HostGroupRef Raidcom::requireHostGroup(const std::vector<std::string>& portWords) {
  std::string quoted;
  auto hg = resolveHostGroup(db(), m_sSerial, portWords, quoted);
  if (!hg) {
    m_rInv.printErr("raidcom: could not find the hstgrp# from %s.\n", quoted.c_str());
    fail(EX_ENOOBJ);
  }
  return *hg;
}

std::vector<int> Raidcom::deviceGroupLdevs(const std::string& group) {
  std::vector<int> ldevs;
  Stmt st = db().query("SELECT ldev FROM devgrps WHERE serial=? AND grp=? ORDER BY seq", m_sSerial,
                       group);
  while (st.step()) ldevs.push_back(st.i(0));
  if (ldevs.empty()) fail(EX_ENOOBJ);
  return ldevs;
}

int runRaidcom(Invocation& inv) {
  inv.takeInstanceOption();
  std::vector<std::string> words;
  std::string serial, user, password;
  bool hex = false, doLogin = false, doLogout = false;
  const std::vector<std::string>& args = inv.args();
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& w = args[i];
    if (w == "-s") {
      if (i + 1 >= args.size()) inv.invalidOption(w);
      serial = args[++i];
    } else if (w == "-fx") {
      hex = true;
    } else if (w == "-login") {
      if (i + 2 >= args.size()) inv.invalidOption(w);
      user = args[++i];
      password = args[++i];
      doLogin = true;
    } else if (w == "-logout") {
      doLogout = true;
    } else if (w == "-nomsg" || w == "-zt") {
      continue;
    } else {
      words.push_back(w);
    }
  }
  if (words.empty() && !doLogin && !doLogout) inv.fail(EX_REQARG);
  inv.requireRunningInstance();
  std::vector<std::string> units = inv.instanceUnits();
  if (serial.empty()) {
    serial = units.front();
  } else if (std::find(units.begin(), units.end(), serial) == units.end()) {
    inv.fail(EX_ENQSER);
  }
  if (doLogin) {
    login(inv, serial, user, password);
    return 0;
  }
  if (doLogout) {
    inv.db().run("DELETE FROM sessions WHERE instance=?", inv.instance());
    return 0;
  }
  auto sessionUser = inv.db().text("SELECT user FROM sessions WHERE instance=? AND serial=?",
                                   inv.instance(), serial);
  if (!sessionUser) inv.fail(EX_ENAUTH);
  if (words.size() < 2) inv.fail(EX_UNWCMD);
  const Command* command = nullptr;
  for (const Command& c : kCommands) {
    if (words[0] == c.verb && words[1] == c.object) command = &c;
  }
  if (!command) inv.fail(EX_UNWCMD);
  Raidcom rc(inv, serial, *sessionUser, hex, words);
  if (const AsyncFailure* injected = inv.injectedFailure()) {
    recordAsync(rc, injected);
    return 0;
  }
  if (!command->async) {
    command->run(rc);
    return 0;
  }
  inv.db().exec("SAVEPOINT async");
  try {
    command->run(rc);
    inv.db().exec("RELEASE async");
    recordAsync(rc, nullptr);
  } catch (const AsyncFailure& failure) {
    inv.db().exec("ROLLBACK TO async");
    inv.db().exec("RELEASE async");
    recordAsync(rc, &failure);
  }
  return 0;
}

}  // namespace ccisim
