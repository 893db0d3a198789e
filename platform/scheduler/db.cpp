// The store's SQLite connection: one per process, WAL, synchronous=FULL, a busy
// timeout, numbered migrations.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <unordered_map>

#include "core/root.h"
#include "internal.h"
#include "scheduler/store.h"

namespace orva_sched {

namespace {

// Writers wait this long for each other before a write fails.
constexpr int kBusyTimeoutMs = 30000;

// Schema migrations: entry N brings the schema from version N to N + 1
// (PRAGMA user_version). Never edit an entry once released; append a new one.
const char* const kMigrations[] = {
    // 1: tasks, event tasks, run history, the change generation.
    "CREATE TABLE tasks ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " name TEXT NOT NULL, owner_uid INTEGER NOT NULL, real_owner_uid INTEGER NOT NULL,"
    " marker INTEGER NOT NULL, enabled INTEGER NOT NULL, listable INTEGER NOT NULL,"
    " can_edit_from_ui INTEGER NOT NULL, can_delete_from_ui INTEGER NOT NULL,"
    " can_run_from_ui INTEGER NOT NULL, can_edit_name INTEGER NOT NULL,"
    " can_edit_owner INTEGER NOT NULL, simple_edit_form INTEGER NOT NULL,"
    " can_run_app_same_time INTEGER NOT NULL, can_run_task_same_time INTEGER NOT NULL,"
    " app TEXT NOT NULL, app_name TEXT NOT NULL, edit_form TEXT NOT NULL,"
    " action TEXT NOT NULL, command TEXT NOT NULL, app_args TEXT NOT NULL,"
    " event TEXT NOT NULL,"
    " s_repeat INTEGER NOT NULL, s_year INTEGER NOT NULL, s_month INTEGER NOT NULL,"
    " s_day INTEGER NOT NULL, s_week_mask INTEGER NOT NULL, s_hour INTEGER NOT NULL,"
    " s_min INTEGER NOT NULL, s_repeat_hour INTEGER NOT NULL, s_repeat_min INTEGER NOT NULL,"
    " s_last_work_hour INTEGER NOT NULL, s_repeat_min_cfg TEXT NOT NULL,"
    " s_repeat_hour_cfg TEXT NOT NULL);"
    "CREATE TABLE event_tasks ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT, task_name TEXT NOT NULL,"
    " owner_uid INTEGER NOT NULL, enable INTEGER NOT NULL, event TEXT NOT NULL,"
    " script TEXT NOT NULL);"
    "CREATE TABLE runs ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT, kind INTEGER NOT NULL, task_id INTEGER NOT NULL,"
    " trigger TEXT NOT NULL, start_time INTEGER NOT NULL, end_time INTEGER,"
    " runner_pid INTEGER, pid INTEGER, exit_code INTEGER, signal INTEGER,"
    " output BLOB, result TEXT);"
    "CREATE INDEX runs_by_task ON runs(kind, task_id, id);"
    "CREATE TABLE meta (key TEXT PRIMARY KEY, value INTEGER NOT NULL);"
    "INSERT INTO meta(key, value) VALUES('generation', 0);",
    // 2: the runner's start time (with its pid, it names the runner beyond pid reuse)
    // and whether the kept output lost its beginning.
    "ALTER TABLE runs ADD COLUMN runner_start INTEGER;"
    "ALTER TABLE runs ADD COLUMN truncated INTEGER NOT NULL DEFAULT 0;",
};

// A statement prepared once per connection, lent to one Stmt at a time.
struct Cached {
  sqlite3_stmt* stmt = nullptr;
  bool lent = false;
};

struct State {
  std::mutex mutex;
  sqlite3* db = nullptr;
  pid_t pid = 0;
  std::string path;
  dev_t dev = 0;  // the file the connection was opened on
  ino_t ino = 0;
  // Statements of `db` by their SQL: a request parses each statement once per process.
  std::unordered_map<std::string, Cached> stmts;
};

State& GetState() {
  static State* state = new State;  // never destroyed: no teardown-order surprises
  return *state;
}

// Creates the folders down to `dir`; `dir` itself, if new, is private (0700): the
// store holds every task's command and output.
bool MakeDirs(const std::string& dir) {
  std::string cur;
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = dir.find('/', pos + 1);
    cur = dir.substr(0, pos);
    if (cur.empty()) {
      continue;
    }
    if (mkdir(cur.c_str(), pos == std::string::npos ? 0700 : 0755) != 0 && errno != EEXIST) {
      syslog(LOG_ERR, "%s:%d mkdir %s failed: %m", __FILE_NAME__, __LINE__, cur.c_str());
      return false;
    }
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
      DbFail(db, "set WAL mode", __LINE__);
      return false;
    }
    struct timespec ts = {0, 100 * 1000 * 1000};
    nanosleep(&ts, nullptr);
  }
  DbFail(db, "set WAL mode (busy)", __LINE__);
  return false;
}

bool Migrate(sqlite3* db) {
  if (!Exec(db, "BEGIN IMMEDIATE")) {
    return false;
  }
  int version = 0;
  {
    Stmt st(db, "PRAGMA user_version");
    if (!st.ok() || st.Step() != SQLITE_ROW) {
      Exec(db, "ROLLBACK");
      return false;
    }
    version = static_cast<int>(st.Int(0));
  }
  const int latest = static_cast<int>(sizeof(kMigrations) / sizeof(kMigrations[0]));
  if (version > latest) {
    syslog(LOG_ERR, "%s:%d scheduler.db schema %d is newer than this library (%d)", __FILE_NAME__, __LINE__,
           version, latest);
    SCHED_ERR(ORVA_SCHED_ERR_DATABASE);
    Exec(db, "ROLLBACK");
    return false;
  }
  for (int v = version; v < latest; ++v) {
    std::string bump = "PRAGMA user_version=" + std::to_string(v + 1);
    if (!Exec(db, kMigrations[v]) || !Exec(db, bump.c_str())) {
      Exec(db, "ROLLBACK");
      return false;
    }
  }
  return Exec(db, "COMMIT");
}

sqlite3* OpenDb(const std::string& path) {
  std::string dir = path.substr(0, path.find_last_of('/'));
  if (!MakeDirs(dir)) {
    SCHED_ERR(ORVA_SCHED_ERR_DATABASE);
    return nullptr;
  }
  // Created 0600 before SQLite opens it, whatever the umask; SQLite gives the -wal and
  // -shm files the mode of the database file.
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    syslog(LOG_ERR, "%s:%d open %s failed: %m", __FILE_NAME__, __LINE__, path.c_str());
    SCHED_ERR(ORVA_SCHED_ERR_DATABASE);
    return nullptr;
  }
  close(fd);
  sqlite3* db = nullptr;
  // Only a thread that holds Conn uses the connection, so SQLite's own lock on every
  // call (some 600,000 per listing of 10,000 tasks) would guard nothing.
  int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                           nullptr);
  if (rc != SQLITE_OK) {
    syslog(LOG_ERR, "%s:%d open %s failed: %s", __FILE_NAME__, __LINE__, path.c_str(),
           db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
    sqlite3_close(db);
    SCHED_ERR(ORVA_SCHED_ERR_DATABASE);
    return nullptr;
  }
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  if (!SetWal(db) || !Exec(db, "PRAGMA synchronous=FULL") || !Migrate(db)) {
    sqlite3_close(db);
    return nullptr;
  }
  return db;
}

// Closes the process's connection; its cached statements go first, or the close fails.
void CloseDb(State& s) {
  for (auto& [sql, c] : s.stmts) sqlite3_finalize(c.stmt);
  s.stmts.clear();
  sqlite3_close(s.db);
  s.db = nullptr;
}

// True when the file at `s.path` is still the one the connection has open. A store
// replaced (a backup put back) or removed while open would otherwise keep this process
// on the old file: writes acknowledged into a deleted file, processes that disagree.
bool SameFile(const State& s, struct stat* st) {
  return stat(s.path.c_str(), st) == 0 && st->st_dev == s.dev && st->st_ino == s.ino;
}

// Reopens when the store file changed under the connection; true when it did.
bool ReopenIfReplaced(State& s) {
  struct stat st;
  if (!s.db || SameFile(s, &st)) {
    return false;
  }
  syslog(LOG_WARNING, "%s:%d %s was %s while open; reopening it", __FILE_NAME__, __LINE__, s.path.c_str(),
         access(s.path.c_str(), F_OK) == 0 ? "replaced" : "removed (a new, empty store is made)");
  CloseDb(s);
  return true;
}

}  // namespace

Conn::Conn() : lock_(GetState().mutex) {
  State& s = GetState();
  std::string path = ORVASchedStoreDbPath();
  pid_t pid = getpid();
  if (s.db && s.pid != pid) {
    // Inherited across fork(): the parent still owns it (and its statements). Forget
    // them, never finalize or close them here.
    s.stmts.clear();
    s.db = nullptr;
  }
  if (s.db && s.path != path) {
    CloseDb(s);
  }
  ReopenIfReplaced(s);
  if (!s.db) {
    s.db = OpenDb(path);
    s.pid = pid;
    s.path = path;
    struct stat st;
    if (s.db && stat(path.c_str(), &st) == 0) {
      s.dev = st.st_dev;
      s.ino = st.st_ino;
    }
  }
  db_ = s.db;
}

Conn::~Conn() {
  if (inTxn_) {
    Rollback();
  }
}

bool Conn::Begin(bool write) {
  if (!db_) {
    return false;
  }
  if (Stmt(db_, write ? "BEGIN IMMEDIATE" : "BEGIN").Step() != SQLITE_DONE) {
    return false;
  }
  inTxn_ = true;
  return true;
}

bool Conn::Commit() {
  inTxn_ = false;
  if (Stmt(db_, "COMMIT").Step() != SQLITE_DONE) {
    Rollback();
    return false;
  }
  return true;
}

void Conn::Rollback() {
  inTxn_ = false;
  if (db_ && !sqlite3_get_autocommit(db_)) {
    Stmt st(db_, "ROLLBACK");
    if (st.ok()) sqlite3_step(st.get());
  }
}

Stmt::Stmt(sqlite3* db, const char* sql) : db_(db) {
  State& s = GetState();
  if (db && db == s.db) {
    Cached& c = s.stmts[sql];
    if (!c.stmt && sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &c.stmt, nullptr) != SQLITE_OK) {
      DbFail(db, "prepare", __LINE__);
      sqlite3_finalize(c.stmt);
      s.stmts.erase(sql);
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
    if (db) {
      DbFail(db, "prepare", __LINE__);
    } else {
      SCHED_ERR(ORVA_SCHED_ERR_DATABASE);
    }
    sqlite3_finalize(stmt_);
    stmt_ = nullptr;
  }
}

Stmt::~Stmt() {
  if (cached_) {
    // Back to the cache: no snapshot or lock kept, no value bound.
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    *cached_ = false;
  } else {
    sqlite3_finalize(stmt_);
  }
}

int Stmt::Step() {
  if (!stmt_) {
    SCHED_ERR(ORVA_SCHED_ERR_DATABASE);
    return SQLITE_ERROR;
  }
  int rc = sqlite3_step(stmt_);
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    DbFail(db_, "step", __LINE__);
  }
  return rc;
}

std::string Stmt::Text(int col) const {
  const void* p = sqlite3_column_blob(stmt_, col);
  int n = sqlite3_column_bytes(stmt_, col);
  return p ? std::string(static_cast<const char*>(p), static_cast<size_t>(n)) : std::string();
}

void DbFail(sqlite3* db, const char* what, int line) {
  syslog(LOG_ERR, "%s:%d scheduler.db %s failed: %s", __FILE_NAME__, line, what,
         db ? sqlite3_errmsg(db) : "no connection");
  KELCErrSetEx(ORVA_SCHED_ERR_DATABASE, __FILE_NAME__, line);
}

bool Exec(sqlite3* db, const char* sql) {
  if (!db) {
    SCHED_ERR(ORVA_SCHED_ERR_DATABASE);
    return false;
  }
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    DbFail(db, sql, __LINE__);
    return false;
  }
  return true;
}

bool BumpGeneration(sqlite3* db) {
  return Stmt(db, "UPDATE meta SET value = value + 1 WHERE key = 'generation'").Step() == SQLITE_DONE;
}

}  // namespace orva_sched

std::string ORVASchedStoreDbPath() { return ORVA::ORVAPathMap("/var/lib/orva/scheduler.db"); }

int ORVASchedStoreReopenIfReplaced() {
  orva_sched::State& s = orva_sched::GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.pid == getpid() && orva_sched::ReopenIfReplaced(s) ? 1 : 0;
}

int64_t ORVASchedStoreGeneration() {
  orva_sched::Conn conn;
  if (!conn.db()) {
    return -1;
  }
  orva_sched::Stmt st(conn.db(), "SELECT value FROM meta WHERE key = 'generation'");
  if (st.Step() != SQLITE_ROW) {
    SCHED_ERR(ORVA_SCHED_ERR_DATABASE);
    return -1;
  }
  return st.Int(0);
}
