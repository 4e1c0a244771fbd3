#include "sim/SimJournal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>

#include "sim/SimInvocation.h"

namespace ccisim {

void addFault(Store& db, const Fault& f) {
  std::regex check(f.pattern, std::regex::ECMAScript);  // rejects a pattern that cannot match
  (void)check;
  db.run(
      "INSERT INTO faults(tool, pattern, exit_code, out, err, remaining, delay_ms, ssb1, ssb2, "
      "sdesc) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
      f.tool, f.pattern, f.exitCode, f.out, f.err, f.remaining, f.delayMs, f.ssb1, f.ssb2,
      f.statusText);
}

std::vector<Fault> listFaults(Store& db) {
  std::vector<Fault> faults;
  Stmt st = db.query(
      "SELECT id, tool, pattern, exit_code, out, err, remaining, delay_ms, ssb1, ssb2, sdesc FROM "
      "faults ORDER BY id");
  while (st.step()) {
    Fault f;
    f.id = st.i64(0);
    f.tool = st.s(1);
    f.pattern = st.s(2);
    if (!st.isNull(3)) f.exitCode = st.i(3);
    f.out = st.s(4);
    f.err = st.s(5);
    f.remaining = st.i(6);
    f.delayMs = st.i(7);
    f.ssb1 = st.s(8);
    f.ssb2 = st.s(9);
    f.statusText = st.s(10);
    faults.push_back(f);
  }
  return faults;
}

void clearFaults(Store& db) { db.run("DELETE FROM faults"); }

bool hasFaults(Store& db, const std::string& tool) {
  return db.exists("SELECT 1 FROM faults WHERE (tool=? OR tool='*') AND remaining<>0", tool);
}

std::optional<Fault> takeFault(Store& db, const std::string& tool,
                               const std::vector<std::string>& args) {
  std::string joined;
  for (const std::string& a : args) joined += (joined.empty() ? "" : " ") + a;
  for (const Fault& f : listFaults(db)) {
    if ((f.tool != tool && f.tool != "*") || f.remaining == 0) continue;
    if (!std::regex_search(joined, std::regex(f.pattern, std::regex::ECMAScript))) continue;
    if (f.remaining > 0) db.run("UPDATE faults SET remaining=remaining-1 WHERE id=?", f.id);
    return f;
  }
  return std::nullopt;
}

std::string jsonQuote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (c < 0x20) {
          out += strprintf("\\u%04x", c);
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string encodeArgs(const std::vector<std::string>& args) {
  std::string json = "[";
  for (size_t i = 0; i < args.size(); ++i) json += (i ? "," : "") + jsonQuote(args[i]);
  return json + "]";
}

std::string journalPath(const std::string& statePath) { return statePath + ".journal"; }

std::string newCallId() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return strprintf("%d.%lld.%ld", static_cast<int>(getpid()), static_cast<long long>(now.tv_sec),
                   now.tv_nsec);
}

void journalAppend(const std::string& statePath, const std::string& callId, const std::string& tool,
                   const std::vector<std::string>& args, std::optional<int> exitCode) {
  std::string line = "{\"id\":" + jsonQuote(callId) +
                     ",\"time_ms\":" + std::to_string(Invocation::nowMs()) +
                     ",\"pid\":" + std::to_string(getpid()) + ",\"tool\":" + jsonQuote(tool) +
                     ",\"args\":" + encodeArgs(args) +
                     ",\"exit\":" + (exitCode ? std::to_string(*exitCode) : "null") + "}\n";
  int fd = ::open(journalPath(statePath).c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  // One writer at a time keeps long lines whole.
  ::flock(fd, LOCK_EX);
  const char* p = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    p += n;
    left -= static_cast<size_t>(n);
  }
  ::close(fd);
}

std::vector<JournalEntry> readJournal(const std::string& statePath) {
  std::vector<JournalEntry> entries;
  std::map<std::string, size_t> byId;
  std::ifstream in(journalPath(statePath));
  std::string line;
  while (std::getline(in, line)) {
    nlohmann::json j = nlohmann::json::parse(line, nullptr, false);
    if (!j.is_object()) continue;  // a line cut short by a crash
    std::optional<int> exitCode;
    if (j["exit"].is_number()) exitCode = j["exit"].get<int>();
    std::string id = j.value("id", "");
    auto seen = byId.find(id);
    if (seen != byId.end()) {
      entries[seen->second].exitCode = exitCode;
      continue;
    }
    JournalEntry e;
    e.seq = static_cast<int64_t>(entries.size()) + 1;
    e.timeMs = j.value("time_ms", int64_t(0));
    e.pid = j.value("pid", int64_t(0));
    e.tool = j.value("tool", "");
    for (const auto& a : j["args"]) {
      if (a.is_string()) e.args.push_back(a.get<std::string>());
    }
    e.exitCode = exitCode;
    byId[id] = entries.size();
    entries.push_back(e);
  }
  return entries;
}

void clearJournal(const std::string& statePath) {
  int fd = ::open(journalPath(statePath).c_str(), O_WRONLY | O_TRUNC | O_CREAT | O_CLOEXEC, 0644);
  if (fd >= 0) ::close(fd);
}

}  // namespace ccisim
