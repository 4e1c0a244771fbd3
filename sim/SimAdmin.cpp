#include "sim/SimAdmin.h"

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
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

class UsageError : public std::runtime_error {
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
  if (!n || *n > INT_MAX) throw UsageError("'" + text + "' is not a number (" + what + ")");
  return static_cast<int>(*n);
}

// init and load replace the state, or leave it as it was when the scenario does not load; a
// file that is not a state at all is replaced whole.
void replaceState(const json& scenario) {
  std::string path = statePath();
  try {
    Store store(path, Store::Mode::Create);
    loadScenario(store, scenario);
  } catch (const StoreError& e) {
    if (e.code() != SQLITE_NOTADB) throw;
    for (const char* suffix : {"", "-wal", "-shm"}) ::unlink((path + suffix).c_str());
    Store store(path, Store::Mode::Create);
    loadScenario(store, scenario);
  }
  clearJournal(path);
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

// What `ccisim init` is told; an empty text or list leaves the default scenario's value.
struct InitOptions {
  std::string serial, type, microcode, cciVersion, cacheMb, maxLdev, ldevs, ldevCapacity;
  std::string copyMs, formatMs, syncLagMs;
  std::vector<std::string> pools, ports, cmddevs, rsgs, users;
  bool print = false;
};

// The default scenario with the options of `ccisim init` laid over it.
json initScenario(const InitOptions& o) {
  json s = defaultScenario();
  json& a = s["arrays"][0];
  auto text = [](const std::string& value, json& target) {
    if (!value.empty()) target = value;
  };
  auto number = [](const std::string& value, const char* option, json& target) {
    if (!value.empty()) target = toInt(value, option);
  };
  text(o.cciVersion, s["cci_version"]);
  number(o.copyMs, "--copy-ms", s["timings"]["copy_ms"]);
  number(o.formatMs, "--format-ms", s["timings"]["format_ms"]);
  number(o.syncLagMs, "--sync-lag-ms", s["timings"]["sync_lag_ms"]);
  // meta_resource names the array itself as its virtual storage machine.
  if (!o.serial.empty()) {
    a["serial"] = o.serial;
    a["resource_groups"][0]["virtual_serial"] = o.serial;
  }
  if (!o.type.empty()) {
    a["type"] = o.type;
    a["resource_groups"][0]["virtual_type"] = o.type;
  }
  text(o.microcode, a["microcode"]);
  number(o.cacheMb, "--cache-mb", a["cache_mb"]);
  number(o.maxLdev, "--max-ldev", a["max_ldev_id"]);
  if (!o.ldevs.empty()) {
    auto range = splitOn(o.ldevs, '-');
    if (range.size() != 2) throw UsageError("--ldevs takes FIRST-LAST");
    int first = toInt(range[0], "--ldevs");
    a["ldevs"][0]["id"] = first;
    a["ldevs"][0]["count"] = toInt(range[1], "--ldevs") - first + 1;
  }
  number(o.ldevCapacity, "--ldev-capacity", a["ldevs"][0]["capacity"]);
  if (!o.pools.empty()) {
    a["pools"] = json::array();
    for (const std::string& p : o.pools) {
      auto f = splitOn(p, ':');
      if (f.size() < 2) throw UsageError("--pool takes ID:NAME[:TYPE]");
      a["pools"].push_back(
          {{"id", toInt(f[0], "--pool")}, {"name", f[1]}, {"type", f.size() > 2 ? f[2] : "HDP"}});
    }
    a["ldevs"][0]["pool"] = a["pools"][0]["id"];
  }
  if (!o.ports.empty()) {
    a["ports"] = json::array();
    int n = 0;
    for (const std::string& p : o.ports) {
      auto f = splitOn(p, ':');
      if (f.empty()) throw UsageError("--port takes NAME[:LOGIN_WWN,...]");
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
      if (f.size() != 2) throw UsageError("--cmddev takes LDEV:DEVICE");
      a["command_devices"].push_back({{"ldev", toInt(f[0], "--cmddev")}, {"device", f[1]}});
    }
  }
  for (const std::string& r : o.rsgs) {
    auto f = splitOn(r, ':');
    if (f.size() != 2 && f.size() != 4) throw UsageError("--rsg takes NAME:ID[:VSERIAL:VTYPE]");
    json g = {{"name", f[0]}, {"id", toInt(f[1], "--rsg")}};
    if (f.size() == 4) {
      g["virtual_serial"] = f[2];
      g["virtual_type"] = f[3];
    }
    a["resource_groups"].push_back(g);
  }
  if (!o.users.empty()) {
    a["users"] = json::array();
    // Everything after the first colon is the password as given: blanks, quotes, colons and
    // backslashes included.
    for (const std::string& u : o.users) {
      size_t colon = u.find(':');
      if (colon == std::string::npos) throw UsageError("--user takes NAME:PASSWORD");
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

// The admin commands, each a CLI11 subcommand that leaves its work in the action when parsed.
using Action = std::function<void()>;

std::string numberText(const std::string& text) {
  return parseNumber(text) ? "" : "a number is needed: " + text;
}

// A whole number, negative ones too (fault add --times -1 is "every time").
std::string signedNumberText(const std::string& text) {
  return numberText(text.size() > 1 && text[0] == '-' ? text.substr(1) : text);
}

int signedInt(const std::string& text) {
  return text[0] == '-' ? -toInt(text.substr(1), "number") : toInt(text, "number");
}

// Each value is taken as one word, exactly as given: a password may hold blanks, quotes, `$`,
// `!` and backslashes.
CLI::Option* addList(CLI::App* cmd, const char* name, std::vector<std::string>& values,
                     const char* help) {
  return cmd->add_option(name, values, help)->allow_extra_args(false)->type_name("VALUE");
}

void addInstall(CLI::App* cmd, Action& action) {
  auto dir = std::make_shared<std::string>();
  cmd->add_option("DIR", *dir, "Directory for the links")->required();
  cmd->callback([&action, dir] { action = [dir] { install(*dir); }; });
}

void addInit(CLI::App* cmd, Action& action) {
  auto o = std::make_shared<InitOptions>();
  CLI::Validator number(numberText, "");
  cmd->add_option("--serial", o->serial, "Array serial number");
  cmd->add_option("--type", o->type, "Array type code");
  cmd->add_option("--microcode", o->microcode, "Microcode version");
  cmd->add_option("--cci-version", o->cciVersion, "CCI version that raidqry reports");
  cmd->add_option("--cache-mb", o->cacheMb, "Cache size in MB")->check(number)->type_name("N");
  cmd->add_option("--max-ldev", o->maxLdev, "Highest LDEV number")->check(number)->type_name("N");
  cmd->add_option("--ldevs", o->ldevs, "LDEVs that exist, FIRST-LAST");
  cmd->add_option("--ldev-capacity", o->ldevCapacity, "Their capacity in blocks")
      ->check(number)
      ->type_name("N");
  addList(cmd, "--pool", o->pools, "A pool, ID:NAME[:TYPE] (repeat)");
  addList(cmd, "--port", o->ports, "A port, NAME[:LOGIN_WWN,...] (repeat)");
  addList(cmd, "--cmddev", o->cmddevs, "A command device, LDEV:DEVICE (repeat)");
  addList(cmd, "--rsg", o->rsgs, "A resource group, NAME:ID[:VSERIAL:VTYPE] (repeat)");
  addList(cmd, "--user", o->users, "A user, NAME:PASSWORD taken verbatim (repeat)");
  cmd->add_option("--copy-ms", o->copyMs, "Time a pair copy takes")->check(number)->type_name("N");
  cmd->add_option("--format-ms", o->formatMs, "Time an LDEV format takes")
      ->check(number)
      ->type_name("N");
  cmd->add_option("--sync-lag-ms", o->syncLagMs, "Lag of pairsyncwait")
      ->check(number)
      ->type_name("N");
  cmd->add_flag("--print", o->print, "Print the scenario instead of loading it");
  cmd->callback([&action, o] {
    action = [o] {
      json scenario = initScenario(*o);
      if (o->print) {
        std::printf("%s\n", scenario.dump(2).c_str());
      } else {
        replaceState(scenario);
      }
    };
  });
}

void addLoad(CLI::App* cmd, Action& action) {
  auto file = std::make_shared<std::string>();
  cmd->add_option("SCENARIO", *file, "Scenario JSON file, or - for stdin")->required();
  cmd->callback([&action, file] {
    action = [file] {
      std::stringstream text;
      if (*file == "-") {
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof(buf), stdin)) > 0) text.write(buf, n);
      } else {
        std::ifstream in(*file);
        if (!in) throw AdminError("cannot read " + *file + ": " + strerror(errno));
        text << in.rdbuf();
      }
      json scenario = json::parse(text.str(), nullptr, false);
      if (scenario.is_discarded()) throw AdminError(*file + " is not valid JSON");
      replaceState(scenario);
    };
  });
}

void addDump(CLI::App* cmd, Action& action) {
  auto asJson = std::make_shared<bool>(false);
  cmd->add_flag("--json", *asJson, "As a scenario in JSON");
  cmd->callback([&action, asJson] {
    action = [asJson] {
      Store store(statePath(), Store::Mode::Existing);
      store.begin();
      Invocation settler(store, "ccisim", {});
      settler.settle();
      std::string text = *asJson ? dumpScenario(store).dump(2) + "\n" : dumpText(store);
      store.commit();
      (void)std::fputs(text.c_str(), stdout);
    };
  });
}

void addFaultAdd(CLI::App* cmd, Action& action) {
  struct Options {
    Fault fault;
    std::string exitCode, times, delayMs, statusSsb;
  };
  auto o = std::make_shared<Options>();
  CLI::Validator number(numberText, "");
  cmd->add_option("--tool", o->fault.tool, "Tool name, or * for every tool")->required();
  cmd->add_option("--match", o->fault.pattern, "Regular expression searched in the arguments");
  cmd->add_option("--exit", o->exitCode, "Exit with this code instead of running")
      ->check(number)
      ->type_name("N");
  cmd->add_option("--stdout", o->fault.out, "Print this on stdout");
  cmd->add_option("--stderr", o->fault.err, "Print this on stderr");
  cmd->add_option("--times", o->times, "Number of calls it meets, -1 for every call")
      ->check(CLI::Validator(signedNumberText, ""))
      ->type_name("N");
  cmd->add_option("--delay-ms", o->delayMs, "Hang this long first")->check(number)->type_name("N");
  cmd->add_option("--status-ssb", o->statusSsb, "Leave SSB1,SSB2 in get command_status");
  cmd->add_option("--status-text", o->fault.statusText, "With this description");
  cmd->callback([&action, o] {
    action = [o] {
      Fault fault = o->fault;
      if (!o->exitCode.empty()) fault.exitCode = toInt(o->exitCode, "--exit");
      if (!o->times.empty()) fault.remaining = signedInt(o->times);
      if (!o->delayMs.empty()) fault.delayMs = toInt(o->delayMs, "--delay-ms");
      if (!o->statusSsb.empty()) {
        auto f = splitOn(o->statusSsb, ',');
        if (f.size() != 2) throw UsageError("--status-ssb takes SSB1,SSB2");
        fault.ssb1 = f[0];
        fault.ssb2 = f[1];
      }
      for (std::string* text : {&fault.out, &fault.err}) {
        if (!text->empty() && text->back() != '\n') *text += '\n';
      }
      withState([&](Store& db) { addFault(db, fault); });
    };
  });
}

void addFaultList(CLI::App* cmd, Action& action) {
  auto asJson = std::make_shared<bool>(false);
  cmd->add_flag("--json", *asJson, "As JSON");
  cmd->callback([&action, asJson] {
    action = [asJson] {
      withState([&](Store& db) {
        json list = json::array();
        for (const Fault& f : listFaults(db)) {
          json j = {{"id", f.id},
                    {"tool", f.tool},
                    {"match", f.pattern},
                    {"stdout", f.out},
                    {"stderr", f.err},
                    {"times", f.remaining},
                    {"delay_ms", f.delayMs},
                    {"status_ssb", f.ssb1.empty() ? "" : f.ssb1 + "," + f.ssb2},
                    {"status_text", f.statusText}};
          j["exit"] = f.exitCode ? json(*f.exitCode) : json(nullptr);
          list.push_back(j);
          if (!*asJson) {
            std::printf("%lld %s %s exit=%s times=%d delay_ms=%d\n", static_cast<long long>(f.id),
                        f.tool.c_str(), quoteArg(f.pattern).c_str(),
                        f.exitCode ? std::to_string(*f.exitCode).c_str() : "-", f.remaining,
                        f.delayMs);
          }
        }
        if (*asJson) std::printf("%s\n", list.dump(2).c_str());
      });
    };
  });
}

void addFaultClear(CLI::App* cmd, Action& action) {
  cmd->callback([&action] { action = [] { withState(clearFaults); }; });
}

void addJournal(CLI::App* cmd, Action& action) {
  struct Options {
    bool asJson = false, clear = false;
    std::string tool;
  };
  auto o = std::make_shared<Options>();
  cmd->add_flag("--json", o->asJson, "As JSON");
  cmd->add_flag("--clear", o->clear, "Empty the journal afterwards");
  cmd->add_option("--tool", o->tool, "Only the calls of this tool");
  cmd->callback([&action, o] {
    action = [o] {
      std::string path = statePath();
      json list = json::array();
      for (const JournalEntry& e : readJournal(path)) {
        if (!o->tool.empty() && e.tool != o->tool) continue;
        json j = {{"seq", e.seq},
                  {"time_ms", e.timeMs},
                  {"pid", e.pid},
                  {"tool", e.tool},
                  {"args", e.args}};
        j["exit"] = e.exitCode ? json(*e.exitCode) : json(nullptr);
        list.push_back(j);
        if (!o->asJson) {
          std::string line = std::to_string(e.seq) + " " +
                             (e.exitCode ? std::to_string(*e.exitCode) : "-") + " " + e.tool;
          for (const std::string& arg : e.args) line += " " + quoteArg(arg);
          std::printf("%s\n", line.c_str());
        }
      }
      if (o->asJson) std::printf("%s\n", list.dump(2).c_str());
      if (o->clear) clearJournal(path);
    };
  });
}

void addSessionList(CLI::App* cmd, Action& action) {
  cmd->callback([&action] {
    action = [] {
      withState([&](Store& db) {
        for (Stmt st = db.query("SELECT instance, serial, user FROM sessions ORDER BY 1, 2");
             st.step();) {
          std::printf("%s %s %s\n", st.s(0).c_str(), st.s(1).c_str(), st.s(2).c_str());
        }
      });
    };
  });
}

void addSessionExpire(CLI::App* cmd, Action& action) {
  auto instance = std::make_shared<std::string>();
  cmd->add_option("--instance", *instance, "Only the session of this HORCM instance");
  cmd->callback([&action, instance] {
    action = [instance] {
      withState([&](Store& db) {
        db.run("DELETE FROM sessions WHERE ?='' OR instance=?", *instance, *instance);
      });
    };
  });
}

void addResource(CLI::App* cmd, Action& action, bool lock) {
  struct Options {
    std::string name, serial, owner, host;
  };
  auto o = std::make_shared<Options>();
  cmd->add_option("NAME", o->name, "Resource group name")->required();
  cmd->add_option("--serial", o->serial, "Array serial number (default: the first array)");
  if (lock) {
    cmd->add_option("--owner", o->owner, "User that holds the lock")->required();
    cmd->add_option("--host", o->host, "Host that holds the lock")->required();
  }
  cmd->callback([&action, o, lock] {
    action = [o, lock] {
      withState([&](Store& db) {
        std::string serial = o->serial;
        if (serial.empty()) serial = db.text("SELECT serial FROM arrays ORDER BY ord").value_or("");
        if (lock) {
          db.run("UPDATE rsgs SET lock_owner=?, lock_host=? WHERE serial=? AND name=?", o->owner,
                 o->host, serial, o->name);
        } else {
          db.run("UPDATE rsgs SET lock_owner=NULL, lock_host=NULL WHERE serial=? AND name=?",
                 serial, o->name);
        }
        if (db.changes() == 0) throw AdminError("no resource group " + o->name + " on " + serial);
      });
    };
  });
}

void addPairFail(CLI::App* cmd, Action& action) {
  auto group = std::make_shared<std::string>();
  cmd->add_option("COPY_GROUP", *group, "Copy group")->required();
  cmd->callback([&action, group] {
    action = [group] {
      withState([&](Store& db) {
        db.run("UPDATE pairs SET status='PSUE', next=NULL, due=NULL WHERE cg=?", *group);
        if (db.changes() == 0) throw AdminError("copy group " + *group + " has no pairs");
      });
    };
  });
}

void addTiming(CLI::App* cmd, Action& action) {
  struct Options {
    std::string copy, format, lag;
  };
  auto o = std::make_shared<Options>();
  CLI::Validator number(numberText, "");
  cmd->add_option("--copy-ms", o->copy, "Time a pair copy takes")->check(number)->type_name("N");
  cmd->add_option("--format-ms", o->format, "Time an LDEV format takes")
      ->check(number)
      ->type_name("N");
  cmd->add_option("--sync-lag-ms", o->lag, "Lag of pairsyncwait")->check(number)->type_name("N");
  cmd->callback([&action, o] {
    action = [o] {
      withState([&](Store& db) {
        if (!o->copy.empty()) db.setMeta("copy_ms", o->copy);
        if (!o->format.empty()) db.setMeta("format_ms", o->format);
        if (!o->lag.empty()) db.setMeta("sync_lag_ms", o->lag);
      });
    };
  });
}

void addFinish(CLI::App* cmd, Action& action) {
  cmd->callback([&action] {
    action = [] {
      withState([&](Store& db) {
        int64_t now = Invocation::nowMs();
        db.run("UPDATE pairs SET due=? WHERE due IS NOT NULL", now);
        db.run("UPDATE snapshots SET due=? WHERE due IS NOT NULL", now);
        db.run("UPDATE ldevs SET ope_due=? WHERE ope_due IS NOT NULL", now);
        db.run("UPDATE cmdstatus SET pending_until=? WHERE pending_until>?", now, now);
        db.setMeta("next_due", std::to_string(now));
        Invocation(db, "ccisim", {}).settle();
      });
    };
  });
}

struct AdminCommand {
  const char* group;  // the command it belongs under ("fault add"), or nullptr
  const char* name;
  const char* help;
  std::function<void(CLI::App*, Action&)> add;
};

const AdminCommand kCommands[] = {
    {nullptr, "install", "Link the CCI tool names in DIR to ccisim", addInstall},
    {nullptr, "init", "Replace the state with the default array and these options", addInit},
    {nullptr, "load", "Replace the state with a scenario", addLoad},
    {nullptr, "dump", "Print the whole state", addDump},
    {"fault", "add", "Make matching calls fail, print or hang", addFaultAdd},
    {"fault", "list", "List the faults", addFaultList},
    {"fault", "clear", "Remove every fault", addFaultClear},
    {nullptr, "journal", "Print the calls the tools received", addJournal},
    {"session", "list", "List the raidcom sessions", addSessionList},
    {"session", "expire", "End raidcom sessions as the array does", addSessionExpire},
    {"resource", "lock", "Lock a resource group as another user",
     [](CLI::App* cmd, Action& action) { addResource(cmd, action, true); }},
    {"resource", "unlock", "Unlock a resource group",
     [](CLI::App* cmd, Action& action) { addResource(cmd, action, false); }},
    {"pair", "fail", "Suspend a copy group's pairs with an error", addPairFail},
    {nullptr, "timing", "Change how long copies and formats take", addTiming},
    {nullptr, "finish", "Complete every copy and format under way now", addFinish},
};

const std::map<std::string, const char*> kGroups = {
    {"fault", "Faults the tools meet"},
    {"session", "The array's raidcom sessions"},
    {"resource", "Resource group locks held by others"},
    {"pair", "Pair states"}};

}  // namespace

int runAdmin(const std::vector<std::string>& args) {
  CLI::App app{"ccisim: the CCI tools of a simulated array (state in $CCISIM_STATE)", "ccisim"};
  app.require_subcommand(1);
  Action action;
  std::map<std::string, CLI::App*> groups;
  for (const AdminCommand& c : kCommands) {
    CLI::App* parent = &app;
    if (c.group != nullptr) {
      CLI::App*& group = groups[c.group];
      if (group == nullptr) {
        group = app.add_subcommand(c.group, kGroups.at(c.group));
        group->require_subcommand(1);
      }
      parent = group;
    }
    c.add(parent->add_subcommand(c.name, c.help), action);
  }
  // Set last, so that the subcommands' help does not repeat it.
  app.footer(
      "Started under a CCI tool's name (raidcom, raidqry, raidscan, horcmstart.sh, "
      "horcmshutdown.sh, paircreate, pairsplit, pairresync, pairdisplay, pairevtwait, "
      "pairsyncwait), or as `ccisim TOOL ARGS...`, it plays that tool.");
  try {
    // CLI11 takes the words last first; `ccisim help` is `ccisim --help`.
    std::vector<std::string> words(args.rbegin(), args.rend());
    if (args.size() == 1 && args[0] == "help") words = {"--help"};
    app.parse(words);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    // CLI11 messages can run over several lines; a usage error is one line.
    std::string text = e.what();
    std::replace(text.begin(), text.end(), '\n', ' ');
    (void)std::fprintf(stderr, "ccisim: %s (see ccisim --help)\n", text.c_str());
    return 2;
  }
  try {
    action();
  } catch (const UsageError& e) {
    (void)std::fprintf(stderr, "ccisim: %s (see ccisim --help)\n", e.what());
    return 2;
  } catch (const std::regex_error& e) {
    (void)std::fprintf(stderr, "ccisim: bad --match expression: %s\n", e.what());
    return 1;
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "ccisim: %s\n", e.what());
    return 1;
  }
  return 0;
}

}  // namespace ccisim
