// One SQLite database per process (liborvacore.so.7): the task store and the login
// sessions are built on it. The connection is opened on first use (the folder made
// private, the file created 0600, WAL, numbered migrations), reopened in a child after
// fork() (the parent's is left alone, never closed from the child) and when the path
// changes; statements are prepared once per connection.
#pragma once

#include <sqlite3.h>
#include <sys/types.h>

#include <mutex>
#include <string>
#include <unordered_map>

namespace ORVA {

struct SqlOptions {
  const char* name;               // in log lines, e.g. "scheduler.db"
  int errorCode;                  // set in the error facility on every failure
  int busyTimeoutMs;
  const char* synchronous;        // PRAGMA synchronous value
  const char* const* migrations;  // entry N brings the schema from version N to N + 1
  int migrationCount;
  bool reopenIfReplaced;          // check the file's device and inode on every use
};

class SqlStmt;

// The database of one path per process. Lives for the whole process.
class SqlDb {
 public:
  explicit SqlDb(const SqlOptions& options) : opt_(options) {}
  SqlDb(const SqlDb&) = delete;
  SqlDb& operator=(const SqlDb&) = delete;
  const SqlOptions& options() const { return opt_; }
  // Reopens when the file at the path is no longer the open one (replaced or
  // removed): true when the connection was dropped. Only with reopenIfReplaced.
  bool ReopenIfReplaced();
  // Closes this process's connection (an inherited one is only forgotten).
  void Close();

 private:
  friend class SqlConn;
  friend class SqlStmt;
  // A statement prepared once per connection, lent to one SqlStmt at a time.
  struct Cached {
    sqlite3_stmt* stmt = nullptr;
    bool lent = false;
  };
  sqlite3* OpenLocked(const std::string& path);
  void CloseLocked();
  bool ReplacedLocked();

  const SqlOptions opt_;
  std::mutex mutex_;
  sqlite3* db_ = nullptr;
  pid_t pid_ = 0;
  std::string path_;
  dev_t dev_ = 0;  // the file the connection was opened on
  ino_t ino_ = 0;
  std::unordered_map<std::string, Cached> stmts_;
};

// The connection of `db` for `path`, locked for the lifetime of this object.
class SqlConn {
 public:
  SqlConn(SqlDb& db, const std::string& path);
  ~SqlConn();
  SqlConn(const SqlConn&) = delete;
  SqlConn& operator=(const SqlConn&) = delete;
  // Null when the database could not be opened (error facility set, logged).
  sqlite3* db() const { return db_; }
  // BEGIN IMMEDIATE (write) or BEGIN (read); false with the error set.
  bool Begin(bool write);
  bool Commit();
  void Rollback();

 private:
  std::unique_lock<std::mutex> lock_;
  SqlDb* owner_;
  SqlDb* outer_;  // the connection held before this one on this thread
  sqlite3* db_ = nullptr;
  bool inTxn_ = false;
};

// A prepared statement. On the connection a SqlConn of this thread holds it is prepared
// once and reset on destruction; otherwise finalized.
class SqlStmt {
 public:
  SqlStmt(sqlite3* db, const char* sql);
  ~SqlStmt();
  SqlStmt(const SqlStmt&) = delete;
  SqlStmt& operator=(const SqlStmt&) = delete;
  bool ok() const { return stmt_ != nullptr; }
  sqlite3_stmt* get() const { return stmt_; }
  void Bind(int i, int64_t v) { sqlite3_bind_int64(stmt_, i, v); }
  void Bind(int i, const char* text) { sqlite3_bind_text(stmt_, i, text, -1, SQLITE_TRANSIENT); }
  void Bind(int i, const std::string& text) {
    sqlite3_bind_text(stmt_, i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  }
  void BindBlob(int i, const std::string& data) {
    sqlite3_bind_blob(stmt_, i, data.data(), static_cast<int>(data.size()), SQLITE_TRANSIENT);
  }
  void BindNull(int i) { sqlite3_bind_null(stmt_, i); }
  // SQLITE_ROW, SQLITE_DONE, or an error code (logged, error facility set).
  int Step();
  int64_t Int(int col) const { return sqlite3_column_int64(stmt_, col); }
  bool IsNull(int col) const { return sqlite3_column_type(stmt_, col) == SQLITE_NULL; }
  std::string Text(int col) const;

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
  bool* cached_ = nullptr;  // the cache's "lent" flag when borrowed from it
};

// Logs an SQLite failure of the connection `db` (null: none) and sets the error of the
// database this thread holds (KELC_ERR_DATABASE when none).
void SqlFail(sqlite3* db, const char* what, const char* file, int line);
// Runs SQL without results; false (logged, error set) on failure.
bool SqlExec(sqlite3* db, const char* sql);

}  // namespace ORVA
