#include "sim/SimJournal.h"

#include <unistd.h>

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

std::optional<Fault> takeFault(Store& db, const std::string& tool,
                               const std::vector<std::string>& args) {
  // Most calls meet an empty table; the regular expressions are only built when needed.
  if (!db.exists("SELECT 1 FROM faults WHERE (tool=? OR tool='*') AND remaining<>0", tool)) {
    return std::nullopt;
  }
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

std::vector<std::string> decodeArgs(const std::string& json) {
  std::vector<std::string> args;
  // Arguments are whatever bytes the caller passed; invalid UTF-8 must not throw here.
  nlohmann::json value = nlohmann::json::parse(json, nullptr, false);
  if (!value.is_array()) return args;
  for (const auto& a : value) {
    if (a.is_string()) args.push_back(a.get<std::string>());
  }
  return args;
}

int64_t journalRecord(Store& db, const std::string& tool, const std::vector<std::string>& args,
                      std::optional<int> exitCode) {
  db.run("INSERT INTO journal(ts, pid, tool, args, exit_code) VALUES(?, ?, ?, ?, ?)",
         Invocation::nowMs(), static_cast<int64_t>(getpid()), tool, encodeArgs(args), exitCode);
  return db.lastInsertId();
}

void journalFinish(Store& db, int64_t seq, int exitCode) {
  db.run("UPDATE journal SET exit_code=? WHERE seq=?", exitCode, seq);
}

std::vector<JournalEntry> readJournal(Store& db) {
  std::vector<JournalEntry> entries;
  Stmt st = db.query("SELECT seq, ts, pid, tool, args, exit_code FROM journal ORDER BY seq");
  while (st.step()) {
    JournalEntry e;
    e.seq = st.i64(0);
    e.timeMs = st.i64(1);
    e.pid = st.i64(2);
    e.tool = st.s(3);
    e.args = decodeArgs(st.s(4));
    if (!st.isNull(5)) e.exitCode = st.i(5);
    entries.push_back(e);
  }
  return entries;
}

}  // namespace ccisim
