#include "sim/SimAdmin.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
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

const char* const kUsage =
    "usage: ccisim <command> (state in $CCISIM_STATE)\n"
    "  install DIR                      link the eleven CCI tool names in DIR to ccisim\n"
    "  init [--serial S] [--type T] [--microcode M] [--cci-version V] [--cache-mb N]\n"
    "       [--max-ldev N] [--ldevs FIRST-LAST] [--ldev-capacity BLOCKS]\n"
    "       [--pool ID:NAME[:TYPE]]... [--port NAME[:LOGIN_WWN,...]]... [--cmddev LDEV:DEVICE]...\n"
    "       [--rsg NAME:ID[:VSERIAL:VTYPE]]... [--user NAME:PASSWORD]...\n"
    "       [--copy-ms N] [--format-ms N] [--sync-lag-ms N] [--print]\n"
    "  load SCENARIO.json|-             replace the state with a scenario\n"
    "  dump [--json]                    print the whole state\n"
    "  fault add --tool T|* [--match REGEX] [--exit N] [--stdout TEXT] [--stderr TEXT]\n"
    "            [--times N] [--delay-ms N] [--status-ssb SSB1,SSB2] [--status-text TEXT]\n"
    "  fault list [--json] | fault clear\n"
    "  journal [--json] [--tool T] [--clear]\n"
    "  session list | session expire [--instance N]\n"
    "  resource lock NAME --owner U --host H [--serial S] | resource unlock NAME [--serial S]\n"
    "  pair fail COPY_GROUP             suspend a copy group's pairs with an error\n"
    "  timing [--copy-ms N] [--format-ms N] [--sync-lag-ms N]\n"
    "  finish                           complete every copy and format under way now\n";

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "--name value" options and bare words of one admin command; anything left unread is an error.
class AdminArgs {
 public:
  AdminArgs(const std::vector<std::string>& args, size_t from) {
    for (size_t i = from; i < args.size(); ++i) {
      const std::string& a = args[i];
      if (a.compare(0, 2, "--") != 0) {
        m_oWords.push_back(a);
        continue;
      }
      size_t eq = a.find('=');
      if (eq != std::string::npos) {
        m_oOptions.emplace_back(a.substr(0, eq), a.substr(eq + 1));
      } else if (kFlags.count(a)) {
        m_oOptions.emplace_back(a, "");
      } else if (i + 1 < args.size()) {
        m_oOptions.emplace_back(a, args[++i]);
      } else {
        throw UsageError(a + " needs a value");
      }
    }
  }
  bool flag(const std::string& name) { return !takeAll(name).empty(); }
  std::vector<std::string> takeAll(const std::string& name) {
    std::vector<std::string> values;
    for (auto it = m_oOptions.begin(); it != m_oOptions.end();) {
      if (it->first == name) {
        values.push_back(it->second);
        it = m_oOptions.erase(it);
      } else {
        ++it;
      }
    }
    return values;
  }
  std::optional<std::string> take(const std::string& name) {
    std::vector<std::string> values = takeAll(name);
    if (values.size() > 1) throw UsageError(name + " given twice");
    if (values.empty()) return std::nullopt;
    return values.front();
  }
  template <typename T>
  void take(const std::string& name, T& target) {
    if (auto v = take(name)) {
      auto n = v->size() > 1 && (*v)[0] == '-' ? parseNumber(v->substr(1)) : parseNumber(*v);
      if (!n) throw UsageError(name + " takes a number");
      target = static_cast<T>((*v)[0] == '-' ? -*n : *n);
    }
  }
  void take(const std::string& name, std::string& target) {
    if (auto v = take(name)) target = *v;
  }
  std::string word(const char* what) {
    if (m_oWords.empty()) throw UsageError(std::string("missing ") + what);
    std::string w = m_oWords.front();
    m_oWords.erase(m_oWords.begin());
    return w;
  }
  // Every option and word must have been used.
  void done() const {
    if (!m_oOptions.empty()) throw UsageError("unknown option " + m_oOptions.front().first);
    if (!m_oWords.empty()) throw UsageError("unexpected '" + m_oWords.front() + "'");
  }

 private:
  static inline const std::set<std::string> kFlags = {"--json", "--print", "--clear"};
  std::vector<std::pair<std::string, std::string>> m_oOptions;
  std::vector<std::string> m_oWords;
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

// The default scenario with the options of `ccisim init` laid over it.
json initScenario(AdminArgs& args) {
  json s = defaultScenario();
  json& a = s["arrays"][0];
  auto text = [&](const char* option, json& target) {
    if (auto v = args.take(option)) target = *v;
  };
  auto number = [&](const char* option, json& target) {
    if (auto v = args.take(option)) target = toInt(*v, option);
  };
  text("--cci-version", s["cci_version"]);
  number("--copy-ms", s["timings"]["copy_ms"]);
  number("--format-ms", s["timings"]["format_ms"]);
  number("--sync-lag-ms", s["timings"]["sync_lag_ms"]);
  // meta_resource names the array itself as its virtual storage machine.
  if (auto serial = args.take("--serial")) {
    a["serial"] = *serial;
    a["resource_groups"][0]["virtual_serial"] = *serial;
  }
  if (auto type = args.take("--type")) {
    a["type"] = *type;
    a["resource_groups"][0]["virtual_type"] = *type;
  }
  text("--microcode", a["microcode"]);
  number("--cache-mb", a["cache_mb"]);
  number("--max-ldev", a["max_ldev_id"]);
  if (auto ldevs = args.take("--ldevs")) {
    auto range = splitOn(*ldevs, '-');
    if (range.size() != 2) throw UsageError("--ldevs takes FIRST-LAST");
    int first = toInt(range[0], "--ldevs");
    a["ldevs"][0]["id"] = first;
    a["ldevs"][0]["count"] = toInt(range[1], "--ldevs") - first + 1;
  }
  number("--ldev-capacity", a["ldevs"][0]["capacity"]);
  if (auto pools = args.takeAll("--pool"); !pools.empty()) {
    a["pools"] = json::array();
    for (const std::string& p : pools) {
      auto f = splitOn(p, ':');
      if (f.size() < 2) throw UsageError("--pool takes ID:NAME[:TYPE]");
      a["pools"].push_back(
          {{"id", toInt(f[0], "--pool")}, {"name", f[1]}, {"type", f.size() > 2 ? f[2] : "HDP"}});
    }
    a["ldevs"][0]["pool"] = a["pools"][0]["id"];
  }
  if (auto ports = args.takeAll("--port"); !ports.empty()) {
    a["ports"] = json::array();
    int n = 0;
    for (const std::string& p : ports) {
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
  if (auto cmddevs = args.takeAll("--cmddev"); !cmddevs.empty()) {
    a["command_devices"] = json::array();
    for (const std::string& c : cmddevs) {
      auto f = splitOn(c, ':');
      if (f.size() != 2) throw UsageError("--cmddev takes LDEV:DEVICE");
      a["command_devices"].push_back({{"ldev", toInt(f[0], "--cmddev")}, {"device", f[1]}});
    }
  }
  for (const std::string& r : args.takeAll("--rsg")) {
    auto f = splitOn(r, ':');
    if (f.size() != 2 && f.size() != 4) throw UsageError("--rsg takes NAME:ID[:VSERIAL:VTYPE]");
    json g = {{"name", f[0]}, {"id", toInt(f[1], "--rsg")}};
    if (f.size() == 4) {
      g["virtual_serial"] = f[2];
      g["virtual_type"] = f[3];
    }
    a["resource_groups"].push_back(g);
  }
  if (auto users = args.takeAll("--user"); !users.empty()) {
    a["users"] = json::array();
    for (const std::string& u : users) {
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

}  // namespace

int runAdmin(const std::vector<std::string>& args) {
  try {
    if (args.empty() || args[0] == "help" || args[0] == "--help" || args[0] == "-h") {
      std::fputs(kUsage, args.empty() ? stderr : stdout);
      return args.empty() ? 2 : 0;
    }
    const std::string& command = args[0];
    std::string sub = args.size() > 1 ? args[1] : "";
    bool hasSub =
        command == "fault" || command == "session" || command == "resource" || command == "pair";
    AdminArgs a(args, hasSub ? 2 : 1);
    if (command == "install") {
      std::string dir = a.word("DIR");
      a.done();
      install(dir);
    } else if (command == "init") {
      bool print = a.flag("--print");
      json scenario = initScenario(a);
      a.done();
      if (print) {
        std::printf("%s\n", scenario.dump(2).c_str());
      } else {
        replaceState(scenario);
      }
    } else if (command == "load") {
      std::string file = a.word("SCENARIO");
      a.done();
      std::stringstream text;
      if (file == "-") {
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof(buf), stdin)) > 0) text.write(buf, n);
      } else {
        std::ifstream in(file);
        if (!in) throw AdminError("cannot read " + file + ": " + strerror(errno));
        text << in.rdbuf();
      }
      json scenario = json::parse(text.str(), nullptr, false);
      if (scenario.is_discarded()) throw AdminError(file + " is not valid JSON");
      replaceState(scenario);
    } else if (command == "dump") {
      bool asJson = a.flag("--json");
      a.done();
      Store store(statePath(), Store::Mode::Existing);
      store.begin();
      Invocation settler(store, "ccisim", {});
      settler.settle();
      std::string text = asJson ? dumpScenario(store).dump(2) + "\n" : dumpText(store);
      store.commit();
      std::fputs(text.c_str(), stdout);
    } else if (command == "fault" && sub == "add") {
      Fault fault;
      int exitCode = -1;
      std::string statusSsb;
      fault.tool = a.take("--tool").value_or("");
      if (fault.tool.empty()) throw UsageError("fault add needs --tool");
      a.take("--match", fault.pattern);
      a.take("--exit", exitCode);
      a.take("--stdout", fault.out);
      a.take("--stderr", fault.err);
      a.take("--times", fault.remaining);
      a.take("--delay-ms", fault.delayMs);
      a.take("--status-ssb", statusSsb);
      a.take("--status-text", fault.statusText);
      a.done();
      if (exitCode >= 0) fault.exitCode = exitCode;
      if (!statusSsb.empty()) {
        auto f = splitOn(statusSsb, ',');
        if (f.size() != 2) throw UsageError("--status-ssb takes SSB1,SSB2");
        fault.ssb1 = f[0];
        fault.ssb2 = f[1];
      }
      for (std::string* text : {&fault.out, &fault.err}) {
        if (!text->empty() && text->back() != '\n') *text += '\n';
      }
      withState([&](Store& db) { addFault(db, fault); });
    } else if (command == "fault" && sub == "list") {
      bool asJson = a.flag("--json");
      a.done();
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
          if (!asJson) {
            std::printf("%lld %s %s exit=%s times=%d delay_ms=%d\n", static_cast<long long>(f.id),
                        f.tool.c_str(), quoteArg(f.pattern).c_str(),
                        f.exitCode ? std::to_string(*f.exitCode).c_str() : "-", f.remaining,
                        f.delayMs);
          }
        }
        if (asJson) std::printf("%s\n", list.dump(2).c_str());
      });
    } else if (command == "fault" && sub == "clear") {
      a.done();
      withState(clearFaults);
    } else if (command == "journal") {
      bool asJson = a.flag("--json");
      bool clear = a.flag("--clear");
      std::string tool = a.take("--tool").value_or("");
      a.done();
      std::string path = statePath();
      json list = json::array();
      for (const JournalEntry& e : readJournal(path)) {
        if (!tool.empty() && e.tool != tool) continue;
        json j = {{"seq", e.seq},
                  {"time_ms", e.timeMs},
                  {"pid", e.pid},
                  {"tool", e.tool},
                  {"args", e.args}};
        j["exit"] = e.exitCode ? json(*e.exitCode) : json(nullptr);
        list.push_back(j);
        if (!asJson) {
          std::string line = std::to_string(e.seq) + " " +
                             (e.exitCode ? std::to_string(*e.exitCode) : "-") + " " + e.tool;
          for (const std::string& arg : e.args) line += " " + quoteArg(arg);
          std::printf("%s\n", line.c_str());
        }
      }
      if (asJson) std::printf("%s\n", list.dump(2).c_str());
      if (clear) clearJournal(path);
    } else if (command == "session" && sub == "list") {
      a.done();
      withState([&](Store& db) {
        for (Stmt st = db.query("SELECT instance, serial, user FROM sessions ORDER BY 1, 2");
             st.step();) {
          std::printf("%s %s %s\n", st.s(0).c_str(), st.s(1).c_str(), st.s(2).c_str());
        }
      });
    } else if (command == "session" && sub == "expire") {
      std::string instance = a.take("--instance").value_or("");
      a.done();
      withState([&](Store& db) {
        db.run("DELETE FROM sessions WHERE ?='' OR instance=?", instance, instance);
      });
    } else if (command == "resource" && (sub == "lock" || sub == "unlock")) {
      std::string name = a.word("resource group name");
      std::string serial = a.take("--serial").value_or("");
      std::string owner = a.take("--owner").value_or("");
      std::string host = a.take("--host").value_or("");
      a.done();
      if (sub == "lock" && (owner.empty() || host.empty())) {
        throw UsageError("resource lock needs --owner and --host");
      }
      withState([&](Store& db) {
        if (serial.empty()) serial = db.text("SELECT serial FROM arrays ORDER BY ord").value_or("");
        if (sub == "lock") {
          db.run("UPDATE rsgs SET lock_owner=?, lock_host=? WHERE serial=? AND name=?", owner, host,
                 serial, name);
        } else {
          db.run("UPDATE rsgs SET lock_owner=NULL, lock_host=NULL WHERE serial=? AND name=?",
                 serial, name);
        }
        if (db.changes() == 0) throw AdminError("no resource group " + name + " on " + serial);
      });
    } else if (command == "pair" && sub == "fail") {
      std::string group = a.word("COPY_GROUP");
      a.done();
      withState([&](Store& db) {
        db.run("UPDATE pairs SET status='PSUE', next=NULL, due=NULL WHERE cg=?", group);
        if (db.changes() == 0) throw AdminError("copy group " + group + " has no pairs");
      });
    } else if (command == "finish") {
      a.done();
      withState([&](Store& db) {
        int64_t now = Invocation::nowMs();
        db.run("UPDATE pairs SET due=? WHERE due IS NOT NULL", now);
        db.run("UPDATE snapshots SET due=? WHERE due IS NOT NULL", now);
        db.run("UPDATE ldevs SET ope_due=? WHERE ope_due IS NOT NULL", now);
        db.run("UPDATE cmdstatus SET pending_until=? WHERE pending_until>?", now, now);
        db.setMeta("next_due", std::to_string(now));
        Invocation(db, "ccisim", {}).settle();
      });
    } else if (command == "timing") {
      std::optional<std::string> copy = a.take("--copy-ms"), format = a.take("--format-ms"),
                                 lag = a.take("--sync-lag-ms");
      a.done();
      for (const auto* v : {&copy, &format, &lag}) {
        if (*v && !parseNumber(**v)) throw UsageError("timings are numbers of milliseconds");
      }
      withState([&](Store& db) {
        if (copy) db.setMeta("copy_ms", *copy);
        if (format) db.setMeta("format_ms", *format);
        if (lag) db.setMeta("sync_lag_ms", *lag);
      });
    } else {
      throw UsageError("unknown command '" + command + (hasSub ? " " + sub : "") + "'");
    }
  } catch (const UsageError& e) {
    std::fprintf(stderr, "ccisim: %s\n%s", e.what(), kUsage);
    return 2;
  } catch (const std::regex_error& e) {
    std::fprintf(stderr, "ccisim: bad --match expression: %s\n", e.what());
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "ccisim: %s\n", e.what());
    return 1;
  }
  return 0;
}

}  // namespace ccisim
