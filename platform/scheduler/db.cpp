// The store's database: WAL, synchronous=FULL, a busy timeout, numbered migrations.
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

}  // namespace

ORVA::SqlDb& Store() {
  // Never destroyed: no teardown-order surprises.
  static ORVA::SqlDb* db = new ORVA::SqlDb({"scheduler.db", ORVA_SCHED_ERR_DATABASE, kBusyTimeoutMs, "FULL",
                                            kMigrations, static_cast<int>(sizeof(kMigrations) / sizeof(kMigrations[0])), true});
  return *db;
}

int StepById(Stmt& st, long id) {
  if (!st.ok()) return -1;
  st.Bind(1, static_cast<int64_t>(id));
  const int rc = st.Step();
  if (rc == SQLITE_DONE) SCHED_ERR(ORVA_SCHED_ERR_NOT_FOUND);
  return rc == SQLITE_ROW ? 1 : rc == SQLITE_DONE ? 0 : -1;
}

bool BumpGeneration(sqlite3* db) {
  return Stmt(db, "UPDATE meta SET value = value + 1 WHERE key = 'generation'").Step() == SQLITE_DONE;
}

}  // namespace orva_sched

std::string ORVASchedStoreDbPath() { return ORVA::ORVAPathMap("/var/lib/orva/scheduler.db"); }

int ORVASchedStoreReopenIfReplaced() { return orva_sched::Store().ReopenIfReplaced() ? 1 : 0; }

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
