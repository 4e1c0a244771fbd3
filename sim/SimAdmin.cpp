#include "sim/SimAdmin.h"

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>

#include "sim/SimInvocation.h"
#include "sim/SimJournal.h"
#include "sim/SimScenario.h"
#include "sim/Tools.h"

namespace ccisim {

using nlohmann::json;

namespace {

class AdminError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::string statePath() {
  const char* path = std::getenv("CCISIM_STATE");
  if (!path || !*path) throw AdminError("CCISIM_STATE is not set; point it at the state file");
  return path;
}

std::vector<std::string> splitOn(const std::string& text, char sep) {
  std::vector<std::string> parts;
  std::stringstream in(text);
  std::string part;
  while (std::getline(in, part, sep)) parts.push_back(part);
  return parts;
}

int toInt(const std::string& text, const std::string& what) {
  auto n = parseNumber(text);
  if (!n || *n > INT_MAX) throw AdminError("'" + text + "' is not a number (" + what + ")");
  return static_cast<int>(*n);
}

// init and load replace the state; a file that is not a state at all is replaced whole.
void replaceState(const json& scenario) {
  std::string path = statePath();
  try {
    Store store(path, Store::Mode::Create);
    loadScenario(store, scenario);
    return;
  } catch (const StoreError&) {
    for (const char* suffix : {"", "-wal", "-shm"}) ::unlink((path + suffix).c_str());
  }
  Store store(path, Store::Mode::Create);
  loadScenario(store, scenario);
}

void install(const std::string& dir) {
  char self[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n <= 0) throw AdminError(std::string("cannot find the ccisim binary: ") + strerror(errno));
  self[n] = '\0';
  if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
    throw AdminError("cannot create " + dir + ": " + strerror(errno));
  }
  for (const ToolName& tool : toolNames()) {
    std::string link = dir + "/" + tool.name;
    ::unlink(link.c_str());
    if (::symlink(self, link.c_str()) != 0) {
      throw AdminError("cannot link " + link + ": " + strerror(errno));
    }
  }
}

struct InitOptions {
  std::string serial = "412345", type = "R9", microcode = "93-07-22/00",
              cciVersion = "01-74-03/00", ldevs = "100-115";
  int64_t cacheMb = 524288, ldevCapacity = 2097152;
  int maxLdev = 65279;
  int64_t copyMs = 0, formatMs = 0, syncLagMs = 0;
  std::vector<std::string> pools, ports, cmddevs, rsgs, users;
};

// Builds the default scenario with the options given on the command line laid over it.
json initScenario(const InitOptions& o) {
  json s = defaultScenario();
  json& a = s["arrays"][0];
  s["cci_version"] = o.cciVersion;
  s["timings"] = {{"copy_ms", o.copyMs}, {"format_ms", o.formatMs}, {"sync_lag_ms", o.syncLagMs}};
  a["serial"] = o.serial;
  a["type"] = o.type;
  a["microcode"] = o.microcode;
  a["cache_mb"] = o.cacheMb;
  a["max_ldev_id"] = o.maxLdev;
  a["resource_groups"][0]["virtual_serial"] = o.serial;
  a["resource_groups"][0]["virtual_type"] = o.type;
  auto range = splitOn(o.ldevs, '-');
  if (range.size() != 2) throw AdminError("--ldevs takes FIRST-LAST");
  int first = toInt(range[0], "--ldevs");
  int last = toInt(range[1], "--ldevs");
  a["ldevs"][0]["id"] = first;
  a["ldevs"][0]["count"] = last - first + 1;
  a["ldevs"][0]["capacity"] = o.ldevCapacity;
  if (!o.pools.empty()) {
    a["pools"] = json::array();
    for (const std::string& p : o.pools) {
      auto f = splitOn(p, ':');
      if (f.size() < 2) throw AdminError("--pool takes ID:NAME[:TYPE]");
      a["pools"].push_back({{"id", toInt(f[0], "--pool")},
                            {"name", f[1]},
                            {"type", f.size() > 2 ? f[2] : "HDP"}});
    }
    a["ldevs"][0]["pool"] = a["pools"][0]["id"];
  }
  if (!o.ports.empty()) {
    a["ports"] = json::array();
    int n = 0;
    for (const std::string& p : o.ports) {
      auto f = splitOn(p, ':');
      json port = {{"name", f[0]},
                   {"wwn", strprintf("50060e8012abcd%02x", n++ * 16)},
                   {"logins", json::array()},
                   {"host_groups", {{{"gid", 0}, {"name", f[0].substr(2) + "-G00"}}}}};
      if (f.size() > 1) {
        for (const std::string& w : splitOn(f[1], ',')) port["logins"].push_back(w);
      }
      a["ports"].push_back(port);
    }
  }
  if (!o.cmddevs.empty()) {
    a["command_devices"] = json::array();
    for (const std::string& c : o.cmddevs) {
      auto f = splitOn(c, ':');
      if (f.size() != 2) throw AdminError("--cmddev takes LDEV:DEVICE");
      a["command_devices"].push_back({{"ldev", toInt(f[0], "--cmddev")}, {"device", f[1]}});
    }
  }
  for (const std::string& r : o.rsgs) {
    auto f = splitOn(r, ':');
    if (f.size() != 2 && f.size() != 4) throw AdminError("--rsg takes NAME:ID[:VSERIAL:VTYPE]");
    json g = {{"name", f[0]}, {"id", toInt(f[1], "--rsg")}};
    if (f.size() == 4) {
      g["virtual_serial"] = f[2];
      g["virtual_type"] = f[3];
    }
    a["resource_groups"].push_back(g);
  }
  if (!o.users.empty()) {
    a["users"] = json::array();
    for (const std::string& u : o.users) {
      size_t colon = u.find(':');
      if (colon == std::string::npos) throw AdminError("--user takes NAME:PASSWORD");
      a["users"].push_back({{"name", u.substr(0, colon)}, {"password", u.substr(colon + 1)}});
    }
  }
  return s;
}

std::string quoteArg(const std::string& arg) {
  if (!arg.empty() && arg.find_first_of(" \t\"'\\") == std::string::npos) return arg;
  return jsonQuote(arg);
}

// Runs fn inside one transaction on the existing state.
template <typename Fn>
void withState(Fn fn) {
  Store store(statePath(), Store::Mode::Existing);
  store.begin();
  try {
    fn(store);
    store.commit();
  } catch (...) {
    store.rollback();
    throw;
  }
}

}  // namespace

int runAdmin(const std::vector<std::string>& args) {
  CLI::App app{"ccisim: a simulated array for the CCI tools (state in $CCISIM_STATE)", "ccisim"};
  app.require_subcommand(1);

  std::string installDir;
  auto* installCmd = app.add_subcommand("install", "link the eleven tool names in DIR to ccisim");
  installCmd->add_option("dir", installDir, "CCI directory")->required();

  InitOptions init;
  auto* initCmd = app.add_subcommand("init", "create a fresh array (defaults for anything not given)");
  initCmd->add_option("--serial", init.serial);
  initCmd->add_option("--type", init.type, "array type code, e.g. R9, M850M3");
  initCmd->add_option("--microcode", init.microcode);
  initCmd->add_option("--cci-version", init.cciVersion);
  initCmd->add_option("--cache-mb", init.cacheMb);
  initCmd->add_option("--max-ldev", init.maxLdev);
  initCmd->add_option("--ldevs", init.ldevs, "defined LDEVs FIRST-LAST");
  initCmd->add_option("--ldev-capacity", init.ldevCapacity, "blocks");
  initCmd->add_option("--pool", init.pools, "ID:NAME[:TYPE]");
  initCmd->add_option("--port", init.ports, "NAME[:LOGIN_WWN,...]");
  initCmd->add_option("--cmddev", init.cmddevs, "LDEV:DEVICE");
  initCmd->add_option("--rsg", init.rsgs, "NAME:ID[:VSERIAL:VTYPE]");
  initCmd->add_option("--user", init.users, "NAME:PASSWORD");
  initCmd->add_option("--copy-ms", init.copyMs);
  initCmd->add_option("--format-ms", init.formatMs);
  initCmd->add_option("--sync-lag-ms", init.syncLagMs);

  std::string scenarioFile;
  auto* loadCmd = app.add_subcommand("load", "create the state from a scenario (- for stdin)");
  loadCmd->add_option("scenario", scenarioFile)->required();

  bool asJson = false;
  auto* dumpCmd = app.add_subcommand("dump", "print the whole state");
  dumpCmd->add_flag("--json", asJson);

  auto* faultCmd = app.add_subcommand("fault", "make calls fail, hang or fail in the background");
  faultCmd->require_subcommand(1);
  Fault fault;
  int exitCode = -1;
  std::string statusSsb;
  auto* faultAdd = faultCmd->add_subcommand("add", "add a fault");
  faultAdd->add_option("--tool", fault.tool, "tool name, or * for any")->required();
  faultAdd->add_option("--match", fault.pattern, "regular expression on the arguments");
  faultAdd->add_option("--exit", exitCode, "exit status (without it the call runs)");
  faultAdd->add_option("--stdout", fault.out);
  faultAdd->add_option("--stderr", fault.err);
  faultAdd->add_option("--times", fault.remaining, "how many calls (-1: all)");
  faultAdd->add_option("--delay-ms", fault.delayMs);
  faultAdd->add_option("--status-ssb", statusSsb, "SSB1,SSB2 left in get command_status");
  faultAdd->add_option("--status-text", fault.statusText);
  auto* faultList = faultCmd->add_subcommand("list", "list the faults");
  faultList->add_flag("--json", asJson);
  auto* faultClear = faultCmd->add_subcommand("clear", "remove every fault");

  bool clearJournal = false;
  std::string journalTool;
  auto* journalCmd = app.add_subcommand("journal", "list every invocation");
  journalCmd->add_flag("--json", asJson);
  journalCmd->add_flag("--clear", clearJournal, "empty the journal");
  journalCmd->add_option("--tool", journalTool);

  std::string instance;
  auto* sessionCmd = app.add_subcommand("session", "raidcom login sessions");
  sessionCmd->require_subcommand(1);
  auto* sessionList = sessionCmd->add_subcommand("list");
  auto* sessionExpire = sessionCmd->add_subcommand("expire", "end sessions as the array would");
  sessionExpire->add_option("--instance", instance);

  std::string rsgName, owner, host, serial;
  auto* resourceCmd = app.add_subcommand("resource", "resource group locks of other hosts");
  resourceCmd->require_subcommand(1);
  auto* rsgLock = resourceCmd->add_subcommand("lock", "lock a resource group for OWNER on HOST");
  rsgLock->add_option("name", rsgName)->required();
  rsgLock->add_option("--owner", owner)->required();
  rsgLock->add_option("--host", host)->required();
  rsgLock->add_option("--serial", serial);
  auto* rsgUnlock = resourceCmd->add_subcommand("unlock");
  rsgUnlock->add_option("name", rsgName)->required();
  rsgUnlock->add_option("--serial", serial);

  std::string copyGroup;
  auto* pairCmd = app.add_subcommand("pair", "pair events");
  pairCmd->require_subcommand(1);
  auto* pairFail = pairCmd->add_subcommand("fail", "suspend the pairs of a copy group with an error");
  pairFail->add_option("copy_group", copyGroup)->required();

  std::optional<int64_t> copyMs, formatMs, lagMs;
  auto* timingCmd = app.add_subcommand("timing", "how long the array's background work takes");
  timingCmd->add_option("--copy-ms", copyMs);
  timingCmd->add_option("--format-ms", formatMs);
  timingCmd->add_option("--sync-lag-ms", lagMs);

  std::vector<std::string> reversed(args.rbegin(), args.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }

  try {
    if (installCmd->parsed()) {
      install(installDir);
    } else if (initCmd->parsed()) {
      replaceState(initScenario(init));
    } else if (loadCmd->parsed()) {
      std::stringstream text;
      if (scenarioFile == "-") {
        text << std::cin.rdbuf();
      } else {
        std::ifstream in(scenarioFile);
        if (!in) throw AdminError("cannot read " + scenarioFile + ": " + strerror(errno));
        text << in.rdbuf();
      }
      json scenario = json::parse(text.str(), nullptr, false);
      if (scenario.is_discarded()) throw AdminError(scenarioFile + " is not valid JSON");
      replaceState(scenario);
    } else if (dumpCmd->parsed()) {
      Store store(statePath(), Store::Mode::Existing);
      store.begin();
      Invocation settler(store, "ccisim", {});
      settler.settle();
      std::cout << (asJson ? dumpScenario(store).dump(2) + "\n" : dumpText(store));
      store.commit();
    } else if (faultAdd->parsed()) {
      if (exitCode >= 0) fault.exitCode = exitCode;
      if (!statusSsb.empty()) {
        auto f = splitOn(statusSsb, ',');
        if (f.size() != 2) throw AdminError("--status-ssb takes SSB1,SSB2");
        fault.ssb1 = f[0];
        fault.ssb2 = f[1];
      }
      for (std::string* text : {&fault.out, &fault.err}) {
        if (!text->empty() && text->back() != '\n') *text += '\n';
      }
      withState([&](Store& db) { addFault(db, fault); });
    } else if (faultList->parsed()) {
      withState([&](Store& db) {
        json list = json::array();
        for (const Fault& f : listFaults(db)) {
          json j = {{"id", f.id},          {"tool", f.tool},       {"match", f.pattern},
                    {"stdout", f.out},     {"stderr", f.err},      {"times", f.remaining},
                    {"delay_ms", f.delayMs}, {"status_ssb", f.ssb1.empty() ? "" : f.ssb1 + "," + f.ssb2},
                    {"status_text", f.statusText}};
          j["exit"] = f.exitCode ? json(*f.exitCode) : json(nullptr);
          list.push_back(j);
          if (!asJson) {
            std::cout << f.id << " " << f.tool << " " << quoteArg(f.pattern) << " exit="
                      << (f.exitCode ? std::to_string(*f.exitCode) : "-")
                      << " times=" << f.remaining << " delay_ms=" << f.delayMs << "\n";
          }
        }
        if (asJson) std::cout << list.dump(2) << "\n";
      });
    } else if (faultClear->parsed()) {
      withState(clearFaults);
    } else if (journalCmd->parsed()) {
      withState([&](Store& db) {
        json list = json::array();
        for (const JournalEntry& e : readJournal(db)) {
          if (!journalTool.empty() && e.tool != journalTool) continue;
          json j = {{"seq", e.seq}, {"time_ms", e.timeMs}, {"pid", e.pid}, {"tool", e.tool},
                    {"args", e.args}};
          j["exit"] = e.exitCode ? json(*e.exitCode) : json(nullptr);
          list.push_back(j);
          if (!asJson) {
            std::cout << e.seq << " " << (e.exitCode ? std::to_string(*e.exitCode) : "-") << " "
                      << e.tool;
            for (const std::string& a : e.args) std::cout << " " << quoteArg(a);
            std::cout << "\n";
          }
        }
        if (asJson) std::cout << list.dump(2) << "\n";
        if (clearJournal) db.run("DELETE FROM journal");
      });
    } else if (sessionList->parsed()) {
      withState([&](Store& db) {
        for (Stmt st = db.query("SELECT instance, serial, user FROM sessions ORDER BY 1, 2");
             st.step();) {
          std::cout << st.s(0) << " " << st.s(1) << " " << st.s(2) << "\n";
        }
      });
    } else if (sessionExpire->parsed()) {
      withState([&](Store& db) {
        db.run("DELETE FROM sessions WHERE ?='' OR instance=?", instance, instance);
      });
    } else if (rsgLock->parsed() || rsgUnlock->parsed()) {
      withState([&](Store& db) {
        if (serial.empty()) serial = db.text("SELECT serial FROM arrays ORDER BY ord").value_or("");
        if (rsgLock->parsed()) {
          db.run("UPDATE rsgs SET lock_owner=?, lock_host=? WHERE serial=? AND name=?", owner, host,
                 serial, rsgName);
        } else {
          db.run("UPDATE rsgs SET lock_owner=NULL, lock_host=NULL WHERE serial=? AND name=?",
                 serial, rsgName);
        }
        if (db.changes() == 0) throw AdminError("no resource group " + rsgName + " on " + serial);
      });
    } else if (pairFail->parsed()) {
      withState([&](Store& db) {
        db.run("UPDATE pairs SET status='PSUE', next=NULL, due=NULL WHERE cg=?", copyGroup);
        if (db.changes() == 0) throw AdminError("copy group " + copyGroup + " has no pairs");
      });
    } else if (timingCmd->parsed()) {
      withState([&](Store& db) {
        if (copyMs) db.setMeta("copy_ms", std::to_string(*copyMs));
        if (formatMs) db.setMeta("format_ms", std::to_string(*formatMs));
        if (lagMs) db.setMeta("sync_lag_ms", std::to_string(*lagMs));
      });
    }
  } catch (const std::regex_error& e) {
    std::cerr << "ccisim: bad --match expression: " << e.what() << "\n";
    return 1;
  } catch (const std::exception& e) {
    std::cerr << "ccisim: " << e.what() << "\n";
    return 1;
  }
  return 0;
}

}  // namespace ccisim
