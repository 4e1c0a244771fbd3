#include "sim/SimModel.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "sim/SimInvocation.h"

namespace ccisim {

namespace {

LdevRow readLdev(const Stmt& st) {
  LdevRow r;
  r.serial = st.s(0);
  r.id = st.i(1);
  r.defined = st.i(2) != 0;
  r.volType = st.s(3);
  r.capacity = st.i64(4);
  if (!st.isNull(5)) r.pool = st.i(5);
  r.attrs = st.s(6);
  r.name = st.s(7);
  r.status = st.s(8);
  r.rsgid = st.i(9);
  if (!st.isNull(10)) r.virtualId = st.i(10);
  r.mp = st.i(11);
  r.usedBlocks = st.i64(12);
  r.operation = st.s(13);
  if (!st.isNull(14)) r.quorumSerial = st.s(14);
  if (!st.isNull(15)) r.quorumId = st.i(15);
  return r;
}

void addOnce(std::vector<std::string>& words, const std::string& word) {
  if (std::find(words.begin(), words.end(), word) == words.end()) words.push_back(word);
}

}  // namespace

std::optional<LdevRow> loadLdev(Store& db, const std::string& serial, int id) {
  Stmt st = db.query(
      "SELECT serial, id, defined, vol_type, capacity, pool, attrs, name, sts, rsgid, vldev, mp, "
      "used_blk, ope, qrd_serial, qrd_id FROM ldevs WHERE serial=? AND id=?",
      serial, id);
  if (!st.step()) return std::nullopt;
  return readLdev(st);
}

std::vector<LunPathView> lunPaths(Store& db, const std::string& serial, int ldev) {
  std::vector<LunPathView> paths;
  Stmt st = db.query(
      "SELECT l.port, l.gid, l.lun, h.name FROM luns l JOIN hostgrps h ON h.serial=l.serial AND "
      "h.port=l.port AND h.gid=l.gid WHERE l.serial=? AND l.ldev=? ORDER BY l.port, l.gid, l.lun",
      serial, ldev);
  while (st.step()) paths.push_back({st.s(0), st.i(1), st.i(2), st.s(3)});
  return paths;
}

std::vector<std::string> volumeAttributes(Store& db, const LdevRow& row) {
  std::vector<std::string> attrs;
  for (const std::string& word : splitWords(row.attrs)) {
    if (word != ":") addOnce(attrs, word);
  }
  if (db.exists("SELECT 1 FROM cmddevs WHERE serial=? AND ldev=?", row.serial, row.id)) {
    addOnce(attrs, "CMD");
  }
  if (db.exists("SELECT 1 FROM snapshots WHERE serial=? AND (pvol=? OR svol=?)", row.serial, row.id,
                row.id)) {
    addOnce(attrs, "QS");
  }
  Stmt st = db.query(
      "SELECT DISTINCT kind FROM pairs WHERE (serial=? AND pvol=?) OR (s_serial=? AND svol=?) "
      "ORDER BY kind",
      row.serial, row.id, row.serial, row.id);
  while (st.step()) addOnce(attrs, st.s(0));
  if (row.quorumId) addOnce(attrs, "QRD");
  return attrs;
}

LdevView ldevView(Store& db, const LdevRow& row) {
  LdevView v;
  v.serial = row.serial;
  v.id = row.id;
  v.defined = row.defined;
  v.rsgid = row.rsgid;
  if (!row.defined) {
    if (row.rsgid != 0 || row.virtualId) v.virtualId = row.virtualId.value_or(kNoVirtualLdev);
    return v;
  }
  if (row.rsgid != 0 || row.virtualId) v.virtualId = row.virtualId.value_or(row.id);
  v.volType = row.volType;
  v.capacity = row.capacity;
  v.paths = lunPaths(db, row.serial, row.id);
  v.pool = row.pool;
  v.attrs = volumeAttributes(db, row);
  v.name = row.name;
  v.status = row.operation == "NONE" ? row.status : std::string();
  v.operation = row.operation;
  v.operationRate = row.operation == "NONE" ? 100 : 0;
  v.mp = row.mp;
  v.usedBlocks = row.usedBlocks;
  v.snapshotPvol =
      db.exists("SELECT 1 FROM snapshots WHERE serial=? AND pvol=?", row.serial, row.id);
  v.quorumSerial = row.quorumSerial;
  v.quorumId = row.quorumId;
  return v;
}

LdevView ldevViewById(Store& db, const std::string& serial, int id) {
  if (auto row = loadLdev(db, serial, id)) return ldevView(db, *row);
  LdevView v;
  v.serial = serial;
  v.id = id;
  return v;
}

int maxLdevId(Store& db, const std::string& serial) {
  return static_cast<int>(
      db.scalar("SELECT max_ldev FROM arrays WHERE serial=?", serial).value_or(65279));
}

bool isVirtualStorageGroup(Store& db, const std::string& serial, int rsgid) {
  if (rsgid == 0) return false;
  auto vserial = db.text("SELECT v_serial FROM rsgs WHERE serial=? AND id=?", serial, rsgid);
  return vserial && !vserial->empty() && *vserial != serial;
}

std::optional<int> resourceGroupId(Store& db, const std::string& serial, const std::string& name) {
  auto id = db.scalar("SELECT id FROM rsgs WHERE serial=? AND name=?", serial, name);
  if (!id) return std::nullopt;
  return static_cast<int>(*id);
}

void splitPortGid(const std::string& word, std::string& port, std::optional<int>& gid) {
  port = word;
  gid.reset();
  size_t dash = word.rfind('-');
  if (dash == std::string::npos || dash == 0 || dash + 1 >= word.size()) return;
  std::string tail = word.substr(dash + 1);
  if (!isDigits(tail)) return;
  if (word.find('-') == dash) return;  // "CL1-5" would be a port, not a port and a group
  auto number = parseNumber(tail);
  if (!number || *number > std::numeric_limits<int>::max()) return;
  port = word.substr(0, dash);
  gid = static_cast<int>(*number);
}

int64_t timingMs(Store& db, const char* key) {
  return std::atoll(db.meta(key).value_or("0").c_str());
}

int copyPercent(int64_t since, std::optional<int64_t> due) {
  if (!due || *due <= since) return 100;
  int64_t pct = (Invocation::nowMs() - since) * 100 / (*due - since);
  return static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(99, pct)));
}

std::vector<int> parseHostModeOptions(const std::string& text) {
  std::vector<int> values;
  for (const std::string& w : splitWords(text)) values.push_back(std::atoi(w.c_str()));
  return values;
}

bool portExists(Store& db, const std::string& serial, const std::string& port) {
  return db.exists("SELECT 1 FROM ports WHERE serial=? AND name=?", serial, port);
}

std::optional<HostGroupRef> resolveHostGroup(Store& db, const std::string& serial,
                                             const std::vector<std::string>& words,
                                             std::string& quoted) {
  if (words.empty()) return std::nullopt;
  std::string first = words[0];
  std::string name;
  size_t blank = first.find(' ');
  if (blank != std::string::npos) {
    name = trim(first.substr(blank + 1));
    first = first.substr(0, blank);
  }
  for (size_t i = 1; i < words.size(); ++i) name += (name.empty() ? "" : " ") + words[i];
  std::string port;
  std::optional<int> gid;
  splitPortGid(first, port, gid);
  quoted = name.empty() ? first : first + " " + name;
  std::optional<Stmt> st;
  if (!name.empty()) {
    st.emplace(db.query(
        "SELECT port, gid, name, hmd, hmo, rsgid FROM hostgrps WHERE serial=? AND port=? AND "
        "name=?",
        serial, port, name));
  } else if (gid) {
    st.emplace(db.query(
        "SELECT port, gid, name, hmd, hmo, rsgid FROM hostgrps WHERE serial=? AND port=? AND "
        "gid=?",
        serial, port, *gid));
  } else {
    return std::nullopt;
  }
  if (!st->step()) return std::nullopt;
  HostGroupRef ref;
  ref.port = st->s(0);
  ref.gid = st->i(1);
  ref.name = st->s(2);
  ref.hostMode = st->s(3);
  ref.hostModeOptions = parseHostModeOptions(st->s(4));
  ref.rsgid = st->i(5);
  return ref;
}

}  // namespace ccisim
