// One SQLite database per process: open, migrate, reopen, cached statements.
#include "core/sqlite_db.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "core/file.h"
#include "core/kelc.h"
#include "core/log.h"

namespace ORVA {

namespace {

// The database whose connection this thread holds (SqlConn), for the statement cache
// and the error code.
thread_local SqlDb* tHeld = nullptr;

const char* NameOf(const SqlDb* db) { return db ? db->options().name : "database"; }

// Creates the folders down to `dir`; `dir` itself, if new, is private (0700): the
// databases hold task commands, their output and login sessions.
bool MakeDirs(const std::string& dir) {
  const size_t slash = dir.rfind('/');
  if ((slash != std::string::npos && slash > 0 && !ORVA::MakeDirs(dir.substr(0, slash), 0755)) ||
      (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)) {
    ORVA_LOG(LOG_ERR, "mkdir %s failed: %m", dir.c_str());
    return false;
  }
  return true;
}

// journal_mode=WAL needs a moment alone with the file when it is first set; another
// process opening the new database at the same time may make it busy.
bool SetWal(sqlite3* db) {
  for (int attempt = 0; attempt < 300; ++attempt) {
    sqlite3_stmt* st = nullptr;
    int rc = sqlite3_prepare_v2(db, "PRAGMA journal_mode=WAL", -1, &st, nullptr);
    std::string mode;
    if (rc == SQLITE_OK) {
      rc = sqlite3_step(st);
      if (rc == SQLITE_ROW) {
        const unsigned char* t = sqlite3_column_text(st, 0);
        mode = t ? reinterpret_cast<const char*>(t) : "";
        rc = SQLITE_OK;
      }
    }
    sqlite3_finalize(st);
    if (rc == SQLITE_OK && mode == "wal") {
      return true;
    }
    if ((rc & 0xff) != SQLITE_BUSY && (rc & 0xff) != SQLITE_LOCKED && rc != SQLITE_OK) {
      SqlFail(db, "set WAL mode", __FILE_NAME__, __LINE__);
      return false;
    }
    struct timespec ts = {0, 100 * 1000 * 1000};
    nanosleep(&ts, nullptr);
  }
  SqlFail(db, "set WAL mode (busy)", __FILE_NAME__, __LINE__);
  return false;
}

bool Migrate(sqlite3* db, const SqlOptions& opt) {
  if (!SqlExec(db, "BEGIN IMMEDIATE")) {
    return false;
  }
  int version = 0;
  {
    SqlStmt st(db, "PRAGMA user_version");
    if (!st.ok() || st.Step() != SQLITE_ROW) {
      SqlExec(db, "ROLLBACK");
      return false;
    }
    version = static_cast<int>(st.Int(0));
  }
  if (version > opt.migrationCount) {
    ORVA_LOG(LOG_ERR, "%s schema %d is newer than this library (%d)", opt.name,
           version, opt.migrationCount);
    KELCErrSetEx(opt.errorCode, __FILE_NAME__, __LINE__);
    SqlExec(db, "ROLLBACK");
    return false;
  }
  for (int v = version; v < opt.migrationCount; ++v) {
    std::string bump = "PRAGMA user_version=" + std::to_string(v + 1);
    if (!SqlExec(db, opt.migrations[v]) || !SqlExec(db, bump.c_str())) {
      SqlExec(db, "ROLLBACK");
      return false;
    }
  }
  return SqlExec(db, "COMMIT");
}

}  // namespace

sqlite3* SqlDb::OpenLocked(const std::string& path) {
  std::string dir = path.substr(0, path.find_last_of('/'));
  if (!MakeDirs(dir)) {
    KELCErrSetEx(opt_.errorCode, __FILE_NAME__, __LINE__);
    return nullptr;
  }
  // Created 0600 before SQLite opens it, whatever the umask; SQLite gives the -wal and
  // -shm files the mode of the database file.
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    ORVA_LOG(LOG_ERR, "open %s failed: %m", path.c_str());
    KELCErrSetEx(opt_.errorCode, __FILE_NAME__, __LINE__);
    return nullptr;
  }
  close(fd);
  sqlite3* db = nullptr;
  // Only a thread that holds SqlConn uses the connection, so SQLite's own lock on every
  // call (some 600,000 per listing of 10,000 tasks) would guard nothing.
  int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                           nullptr);
  if (rc != SQLITE_OK) {
    ORVA_LOG(LOG_ERR, "open %s failed: %s", path.c_str(),
           db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
    sqlite3_close(db);
    KELCErrSetEx(opt_.errorCode, __FILE_NAME__, __LINE__);
    return nullptr;
  }
  sqlite3_busy_timeout(db, opt_.busyTimeoutMs);
  std::string sync = std::string("PRAGMA synchronous=") + opt_.synchronous;
  if (!SetWal(db) || !SqlExec(db, sync.c_str()) || !Migrate(db, opt_)) {
    sqlite3_close(db);
    return nullptr;
  }
  return db;
}

void SqlDb::CloseLocked() {
  for (auto& [sql, c] : stmts_) sqlite3_finalize(c.stmt);
  stmts_.clear();
  sqlite3_close(db_);
  db_ = nullptr;
}

// True when the file at the path is no longer the one the connection has open (then
// closed). A database replaced (a backup put back) or removed while open would otherwise
// keep this process on the old file: writes acknowledged into a deleted file.
bool SqlDb::ReplacedLocked() {
  struct stat st;
  if (!db_ || !opt_.reopenIfReplaced ||
      (stat(path_.c_str(), &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_)) {
    return false;
  }
  ORVA_LOG(LOG_WARNING, "%s was %s while open; reopening it", path_.c_str(),
         access(path_.c_str(), F_OK) == 0 ? "replaced" : "removed (a new, empty one is made)");
  CloseLocked();
  return true;
}

bool SqlDb::ReopenIfReplaced() {
  std::lock_guard<std::mutex> lock(mutex_);
  return pid_ == getpid() && ReplacedLocked();
}

void SqlDb::Close() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (db_ && pid_ == getpid()) {
    CloseLocked();
  }
  stmts_.clear();
  db_ = nullptr;
}

SqlConn::SqlConn(SqlDb& s, const std::string& path) : lock_(s.mutex_), owner_(&s), outer_(tHeld) {
  tHeld = &s;
  pid_t pid = getpid();
  if (s.db_ && s.pid_ != pid) {
    // Inherited across fork(): the parent still owns it (and its statements). Forget
    // them, never finalize or close them here.
    s.stmts_.clear();
    s.db_ = nullptr;
  }
  if (s.db_ && s.path_ != path) {
    s.CloseLocked();
  }
  s.ReplacedLocked();
  if (!s.db_) {
    s.db_ = s.OpenLocked(path);
    s.pid_ = pid;
    s.path_ = path;
    struct stat st;
    if (s.db_ && stat(path.c_str(), &st) == 0) {
      s.dev_ = st.st_dev;
      s.ino_ = st.st_ino;
    }
  }
  db_ = s.db_;
}

SqlConn::~SqlConn() {
  if (inTxn_) {
    Rollback();
  }
  tHeld = outer_;
}

bool SqlConn::Begin(bool write) {
  if (!db_) {
    return false;
  }
  if (SqlStmt(db_, write ? "BEGIN IMMEDIATE" : "BEGIN").Step() != SQLITE_DONE) {
    return false;
  }
  inTxn_ = true;
  return true;
}

bool SqlConn::Commit() {
  inTxn_ = false;
  if (SqlStmt(db_, "COMMIT").Step() != SQLITE_DONE) {
    Rollback();
    return false;
  }
  return true;
}

void SqlConn::Rollback() {
  inTxn_ = false;
  if (db_ && !sqlite3_get_autocommit(db_)) {
    SqlStmt st(db_, "ROLLBACK");
    if (st.ok()) sqlite3_step(st.get());
  }
}

SqlStmt::SqlStmt(sqlite3* db, const char* sql) : db_(db) {
  SqlDb* s = tHeld;
  if (db && s && db == s->db_) {
    SqlDb::Cached& c = s->stmts_[sql];
    if (!c.stmt && sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &c.stmt, nullptr) != SQLITE_OK) {
      SqlFail(db, "prepare", __FILE_NAME__, __LINE__);
      sqlite3_finalize(c.stmt);
      s->stmts_.erase(sql);
      return;
    }
    if (!c.lent) {
      c.lent = true;
      stmt_ = c.stmt;
      cached_ = &c.lent;
      return;
    }
    // Already lent (the same statement nested): a statement of its own.
  }
  if (!db || sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) {
    SqlFail(db, "prepare", __FILE_NAME__, __LINE__);
    sqlite3_finalize(stmt_);
    stmt_ = nullptr;
  }
}

SqlStmt::~SqlStmt() {
  if (cached_) {
    // Back to the cache: no snapshot or lock kept, no value bound.
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    *cached_ = false;
  } else {
    sqlite3_finalize(stmt_);
  }
}

int SqlStmt::Step() {
  if (!stmt_) {
    KELCErrSetEx(tHeld ? tHeld->options().errorCode : KELC_ERR_DATABASE, __FILE_NAME__, __LINE__);
    return SQLITE_ERROR;
  }
  int rc = sqlite3_step(stmt_);
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    SqlFail(db_, "step", __FILE_NAME__, __LINE__);
  }
  return rc;
}

std::string SqlStmt::Text(int col) const {
  const void* p = sqlite3_column_blob(stmt_, col);
  int n = sqlite3_column_bytes(stmt_, col);
  return p ? std::string(static_cast<const char*>(p), static_cast<size_t>(n)) : std::string();
}

void SqlFail(sqlite3* db, const char* what, const char* file, int line) {
  syslog(LOG_ERR, "%s:%d %s %s failed: %s", file, line, NameOf(tHeld), what,
         db ? sqlite3_errmsg(db) : "no connection");
  KELCErrSetEx(tHeld ? tHeld->options().errorCode : KELC_ERR_DATABASE, file, line);
}

bool SqlExec(sqlite3* db, const char* sql) {
  if (!db) {
    SqlFail(nullptr, sql, __FILE_NAME__, __LINE__);
    return false;
  }
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    SqlFail(db, sql, __FILE_NAME__, __LINE__);
    return false;
  }
  return true;
}

}  // namespace ORVA
