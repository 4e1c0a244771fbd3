#include "sim/SimStore.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace ccisim {

namespace {

// Bumped whenever a table changes shape; a state written by another layout is refused rather
// than misread.
constexpr int kSchemaVersion = 4;

// Every caller waits for the others instead of failing: 16 processes adding LDEVs at once must
// all get through.
constexpr int kBusyTimeoutMs = 60000;

const char* const kSchema = R"SQL(
CREATE TABLE meta(key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE arrays(serial TEXT PRIMARY KEY, ord INTEGER NOT NULL, type_code TEXT NOT NULL,
  microcode TEXT NOT NULL, cache_mb INTEGER NOT NULL, max_ldev INTEGER NOT NULL,
  svp_ip TEXT NOT NULL DEFAULT '');
CREATE TABLE users(serial TEXT NOT NULL, name TEXT NOT NULL, password TEXT NOT NULL,
  PRIMARY KEY(serial, name));
CREATE TABLE rsgs(serial TEXT NOT NULL, id INTEGER NOT NULL, name TEXT NOT NULL,
  v_serial TEXT NOT NULL, v_type TEXT NOT NULL, lock_owner TEXT, lock_host TEXT,
  PRIMARY KEY(serial, id), UNIQUE(serial, name));
CREATE TABLE pools(serial TEXT NOT NULL, id INTEGER NOT NULL, name TEXT NOT NULL,
  type TEXT NOT NULL, status TEXT NOT NULL, used_pct INTEGER NOT NULL, threshold INTEGER NOT NULL,
  capacity_mb INTEGER NOT NULL, num_vols INTEGER NOT NULL, first_ldev INTEGER NOT NULL,
  PRIMARY KEY(serial, id));
CREATE TABLE ldevs(serial TEXT NOT NULL, id INTEGER NOT NULL, defined INTEGER NOT NULL,
  vol_type TEXT NOT NULL, capacity INTEGER NOT NULL, pool INTEGER, attrs TEXT NOT NULL,
  name TEXT NOT NULL, sts TEXT NOT NULL, rsgid INTEGER NOT NULL, vldev INTEGER,
  mp INTEGER NOT NULL, used_blk INTEGER NOT NULL, ope TEXT NOT NULL, ope_due INTEGER,
  qrd_serial TEXT, qrd_id INTEGER, PRIMARY KEY(serial, id)) WITHOUT ROWID;
CREATE TABLE cmddevs(device TEXT PRIMARY KEY, serial TEXT NOT NULL, ldev INTEGER NOT NULL);
CREATE TABLE ports(serial TEXT NOT NULL, name TEXT NOT NULL, type TEXT NOT NULL,
  attr TEXT NOT NULL, speed TEXT NOT NULL, lpid TEXT NOT NULL, fab TEXT NOT NULL,
  conn TEXT NOT NULL, ssw TEXT NOT NULL, wwn TEXT NOT NULL, rsgid INTEGER NOT NULL,
  PRIMARY KEY(serial, name));
CREATE TABLE port_logins(serial TEXT NOT NULL, port TEXT NOT NULL, wwn TEXT NOT NULL,
  PRIMARY KEY(serial, port, wwn));
CREATE TABLE hostgrps(serial TEXT NOT NULL, port TEXT NOT NULL, gid INTEGER NOT NULL,
  name TEXT NOT NULL, hmd TEXT NOT NULL, hmo TEXT NOT NULL, rsgid INTEGER NOT NULL,
  PRIMARY KEY(serial, port, gid));
CREATE TABLE hbawwns(serial TEXT NOT NULL, port TEXT NOT NULL, gid INTEGER NOT NULL,
  wwn TEXT NOT NULL, nick TEXT NOT NULL, PRIMARY KEY(serial, port, gid, wwn));
CREATE TABLE luns(serial TEXT NOT NULL, port TEXT NOT NULL, gid INTEGER NOT NULL,
  lun INTEGER NOT NULL, ldev INTEGER NOT NULL, PRIMARY KEY(serial, port, gid, lun));
CREATE INDEX luns_by_ldev ON luns(serial, ldev);
CREATE TABLE devgrps(seq INTEGER PRIMARY KEY, serial TEXT NOT NULL, grp TEXT NOT NULL,
  devname TEXT NOT NULL, ldev INTEGER NOT NULL, UNIQUE(serial, grp, ldev));
CREATE TABLE copygrps(serial TEXT NOT NULL, name TEXT NOT NULL, pdg TEXT NOT NULL,
  sdg TEXT NOT NULL, mu INTEGER NOT NULL, jid INTEGER, ctg INTEGER NOT NULL,
  incarnation INTEGER NOT NULL, q_seq INTEGER NOT NULL, q_time INTEGER NOT NULL,
  PRIMARY KEY(serial, name));
CREATE TABLE snapshots(serial TEXT NOT NULL, grp TEXT NOT NULL, pvol INTEGER NOT NULL,
  svol INTEGER, mu INTEGER NOT NULL, pool INTEGER NOT NULL, status TEXT NOT NULL,
  next TEXT, since INTEGER NOT NULL, due INTEGER, split_time INTEGER, ctg INTEGER NOT NULL,
  mode TEXT NOT NULL, PRIMARY KEY(serial, pvol, mu));
CREATE TABLE pairs(serial TEXT NOT NULL, cg TEXT NOT NULL, devname TEXT NOT NULL,
  pvol INTEGER NOT NULL, s_serial TEXT NOT NULL, svol INTEGER NOT NULL, mu INTEGER NOT NULL,
  kind TEXT NOT NULL, status TEXT NOT NULL, next TEXT, since INTEGER NOT NULL, due INTEGER,
  fence TEXT NOT NULL, PRIMARY KEY(serial, pvol, mu, kind));
CREATE TABLE instances(num TEXT PRIMARY KEY, host TEXT NOT NULL, service TEXT NOT NULL,
  comment_serial TEXT NOT NULL, started INTEGER NOT NULL);
CREATE TABLE inst_units(num TEXT NOT NULL, ord INTEGER NOT NULL, serial TEXT NOT NULL,
  device TEXT NOT NULL, PRIMARY KEY(num, ord));
CREATE TABLE inst_groups(num TEXT NOT NULL, grp TEXT NOT NULL, section TEXT NOT NULL,
  serial TEXT NOT NULL, detail TEXT NOT NULL);
CREATE TABLE sessions(instance TEXT NOT NULL, serial TEXT NOT NULL, user TEXT NOT NULL,
  since INTEGER NOT NULL, PRIMARY KEY(instance, serial));
CREATE TABLE cmdstatus(instance TEXT NOT NULL, serial TEXT NOT NULL, handle INTEGER NOT NULL,
  err_cnt INTEGER NOT NULL, ssb1 TEXT NOT NULL, ssb2 TEXT NOT NULL, descr TEXT NOT NULL,
  pending_until INTEGER NOT NULL, PRIMARY KEY(instance, serial));
CREATE TABLE faults(id INTEGER PRIMARY KEY, tool TEXT NOT NULL, pattern TEXT NOT NULL,
  exit_code INTEGER, out TEXT NOT NULL, err TEXT NOT NULL, remaining INTEGER NOT NULL,
  delay_ms INTEGER NOT NULL, ssb1 TEXT NOT NULL, ssb2 TEXT NOT NULL, sdesc TEXT NOT NULL);
)SQL";

std::string describe(sqlite3* db) { return db ? sqlite3_errmsg(db) : "out of memory"; }

int codeOf(sqlite3* db) { return db ? sqlite3_errcode(db) : SQLITE_NOMEM; }

}  // namespace

Stmt::Stmt(sqlite3* db, const char* sql) : m_pDb(db), m_pStmt(nullptr) {
  if (sqlite3_prepare_v2(db, sql, -1, &m_pStmt, nullptr) != SQLITE_OK) {
    throw StoreError(describe(db), codeOf(db));
  }
}

Stmt::~Stmt() { sqlite3_finalize(m_pStmt); }

Stmt::Stmt(Stmt&& other) noexcept : m_pDb(other.m_pDb), m_pStmt(other.m_pStmt) {
  other.m_pStmt = nullptr;
}

void Stmt::bind(int idx, int64_t value) { sqlite3_bind_int64(m_pStmt, idx, value); }

void Stmt::bind(int idx, const std::string& value) {
  sqlite3_bind_text(m_pStmt, idx, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
}

void Stmt::bind(int idx, std::nullptr_t) { sqlite3_bind_null(m_pStmt, idx); }

bool Stmt::step() {
  int rc = sqlite3_step(m_pStmt);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  throw StoreError(describe(m_pDb), codeOf(m_pDb));
}

void Stmt::run() {
  while (step()) {
  }
}

int64_t Stmt::i64(int col) const { return sqlite3_column_int64(m_pStmt, col); }

std::string Stmt::s(int col) const {
  const unsigned char* p = sqlite3_column_text(m_pStmt, col);
  return p ? std::string(reinterpret_cast<const char*>(p),
                         static_cast<size_t>(sqlite3_column_bytes(m_pStmt, col)))
           : std::string();
}

bool Stmt::isNull(int col) const { return sqlite3_column_type(m_pStmt, col) == SQLITE_NULL; }

std::optional<int64_t> Stmt::opt(int col) const {
  if (isNull(col)) return std::nullopt;
  return i64(col);
}

Store::Store(const std::string& path, Mode mode) : m_sPath(path) {
  if (path.empty()) {
    throw StoreError("CCISIM_STATE is not set; point it at the simulator state file");
  }
  struct stat st;
  if (mode == Mode::Existing && ::stat(path.c_str(), &st) != 0) {
    throw StoreError("no simulator state at '" + path + "' (" + std::strerror(errno) +
                     "); create one with 'ccisim init' or 'ccisim load'");
  }
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
  if (mode == Mode::Create) flags |= SQLITE_OPEN_CREATE;
  if (sqlite3_open_v2(path.c_str(), &m_pDb, flags, nullptr) != SQLITE_OK) {
    std::string why = describe(m_pDb);
    sqlite3_close(m_pDb);
    m_pDb = nullptr;
    throw StoreError("cannot open simulator state '" + path + "': " + why);
  }
  sqlite3_busy_timeout(m_pDb, kBusyTimeoutMs);
  // Durability against power loss is not wanted here, atomicity against a killed process is:
  // the WAL keeps the latter without an fsync per call, which would cost far more than the
  // call itself. The last process to leave checkpoints and empties the WAL, so the next one
  // never replays a long log; the WAL and index files are kept, because creating and deleting
  // two files per call was the largest single cost of a short call.
  int persist = 1;
  sqlite3_file_control(m_pDb, "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
  char* err = nullptr;
  int rc = sqlite3_exec(m_pDb, "PRAGMA synchronous=OFF; PRAGMA journal_size_limit=0", nullptr,
                        nullptr, &err);
  if (rc != SQLITE_OK) {
    std::string why = err ? err : "unknown error";
    sqlite3_free(err);
    throw StoreError("simulator state '" + path + "' is unreadable or corrupt (" + why +
                         "); recreate it with 'ccisim init' or 'ccisim load'",
                     rc);
  }
  if (mode == Mode::Existing) checkSchema();
}

Store::~Store() {
  if (m_bInTx) rollback();
  sqlite3_close_v2(m_pDb);
}

void Store::checkSchema() {
  int version = 0;
  try {
    Stmt st(m_pDb, "PRAGMA user_version");
    if (st.step()) version = st.i(0);
  } catch (const StoreError& e) {
    throw StoreError("simulator state '" + m_sPath + "' is unreadable or corrupt (" + e.what() +
                         "); recreate it with 'ccisim init' or 'ccisim load'",
                     e.code());
  }
  if (version != kSchemaVersion) {
    throw StoreError("'" + m_sPath + "' is not a simulator state of this ccisim (layout " +
                     std::to_string(version) + ", expected " + std::to_string(kSchemaVersion) +
                     "); recreate it with 'ccisim init' or 'ccisim load'");
  }
}

void Store::exec(const char* sql) {
  char* err = nullptr;
  int rc = sqlite3_exec(m_pDb, sql, nullptr, nullptr, &err);
  if (rc != SQLITE_OK) {
    std::string why = err ? err : describe(m_pDb);
    sqlite3_free(err);
    throw StoreError(why, rc);
  }
}

void Store::begin(bool write) {
  exec(write ? "BEGIN IMMEDIATE" : "BEGIN");
  m_bInTx = true;
}

void Store::commit() {
  exec("COMMIT");
  m_bInTx = false;
}

void Store::rollback() noexcept {
  sqlite3_exec(m_pDb, "ROLLBACK", nullptr, nullptr, nullptr);
  m_bInTx = false;
}

int64_t Store::changes() const { return sqlite3_changes64(m_pDb); }

int64_t Store::lastInsertId() const { return sqlite3_last_insert_rowid(m_pDb); }

void Store::useWriteAheadLog() { exec("PRAGMA journal_mode=WAL"); }

void Store::resetSchema() {
  std::vector<std::string> drops;
  {
    Stmt st(m_pDb,
            "SELECT name FROM sqlite_master WHERE type='table' AND name NOT LIKE 'sqlite_%'");
    while (st.step()) drops.push_back("DROP TABLE IF EXISTS \"" + st.s(0) + "\"");
  }
  for (const std::string& drop : drops) exec(drop.c_str());
  exec(kSchema);
  exec(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str());
}

std::optional<std::string> Store::meta(const std::string& key) {
  return text("SELECT value FROM meta WHERE key=?", key);
}

void Store::setMeta(const std::string& key, const std::string& value) {
  run("INSERT INTO meta(key, value) VALUES(?, ?) ON CONFLICT(key) DO UPDATE SET "
      "value=excluded.value",
      key, value);
}

}  // namespace ccisim
