#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace ccisim {

// Any failure of the state database. The invocation that meets one is rolled back whole.
class StoreError : public std::runtime_error {
 public:
  explicit StoreError(const std::string& what, int code = SQLITE_ERROR)
      : std::runtime_error(what), m_iCode(code) {}
  // The SQLite result code (SQLITE_NOTADB for a file that is not a database at all).
  int code() const { return m_iCode; }

 private:
  int m_iCode;
};

// One prepared statement. Values are bound by position, starting at 1.
class Stmt {
 public:
  Stmt(sqlite3* db, const char* sql);
  ~Stmt();
  Stmt(Stmt&& other) noexcept;
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;
  Stmt& operator=(Stmt&&) = delete;

  void bind(int idx, int64_t value);
  void bind(int idx, int value) { bind(idx, static_cast<int64_t>(value)); }
  void bind(int idx, long long value) { bind(idx, static_cast<int64_t>(value)); }
  void bind(int idx, const std::string& value);
  void bind(int idx, const char* value) { bind(idx, std::string(value)); }
  void bind(int idx, std::nullptr_t);
  template <typename T>
  void bind(int idx, const std::optional<T>& value) {
    if (value) {
      bind(idx, *value);
    } else {
      bind(idx, nullptr);
    }
  }

  // Advances to the next row; false when there is none.
  bool step();
  // Runs a statement that returns no rows.
  void run();

  int64_t i64(int col) const;
  int i(int col) const { return static_cast<int>(i64(col)); }
  std::string s(int col) const;
  bool isNull(int col) const;
  std::optional<int64_t> opt(int col) const;

 private:
  sqlite3* m_pDb;
  sqlite3_stmt* m_pStmt;
};

// The simulator state: one SQLite file shared by every process that plays a CCI tool.
class Store {
 public:
  // Tools open an existing state only; init and load may create one.
  enum class Mode { Existing, Create };

  Store(const std::string& path, Mode mode);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  const std::string& path() const { return m_sPath; }

  // A write transaction takes the write lock at once (BEGIN IMMEDIATE), so that no two writers
  // interleave; a read transaction sees one consistent state and blocks nobody.
  void begin(bool write = true);
  void commit();
  void rollback() noexcept;
  bool inTransaction() const { return m_bInTx; }

  void exec(const char* sql);
  Stmt prepare(const char* sql) { return Stmt(m_pDb, sql); }

  template <typename... Args>
  Stmt query(const char* sql, const Args&... args) {
    Stmt st(m_pDb, sql);
    bindAll(st, 1, args...);
    return st;
  }
  template <typename... Args>
  void run(const char* sql, const Args&... args) {
    query(sql, args...).run();
  }
  // First column of the first row, or nothing.
  template <typename... Args>
  std::optional<int64_t> scalar(const char* sql, const Args&... args) {
    Stmt st = query(sql, args...);
    if (!st.step() || st.isNull(0)) return std::nullopt;
    return st.i64(0);
  }
  template <typename... Args>
  std::optional<std::string> text(const char* sql, const Args&... args) {
    Stmt st = query(sql, args...);
    if (!st.step() || st.isNull(0)) return std::nullopt;
    return st.s(0);
  }
  template <typename... Args>
  bool exists(const char* sql, const Args&... args) {
    return query(sql, args...).step();
  }

  int64_t changes() const;
  int64_t lastInsertId() const;

  // Drops whatever is there and lays down an empty schema of the current version, inside the
  // caller's transaction.
  void resetSchema();
  // Write-ahead logging is a property of the file, set once when it is created.
  void useWriteAheadLog();

  std::optional<std::string> meta(const std::string& key);
  void setMeta(const std::string& key, const std::string& value);

 private:
  static void bindAll(Stmt&, int) {}
  template <typename T, typename... Rest>
  static void bindAll(Stmt& st, int idx, const T& first, const Rest&... rest) {
    st.bind(idx, first);
    bindAll(st, idx + 1, rest...);
  }

  void checkSchema();

  sqlite3* m_pDb = nullptr;
  std::string m_sPath;
  bool m_bInTx = false;
};

}  // namespace ccisim
