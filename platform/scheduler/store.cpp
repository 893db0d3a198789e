// Loading, saving, removing and listing tasks and event tasks in scheduler.db.
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "core/user.h"
#include "internal.h"
#include "scheduler/event_task.h"
#include "scheduler/schedule.h"
#include "scheduler/store.h"

using orva_sched::Conn;
using orva_sched::CopyText;
using orva_sched::Stmt;

namespace {

const char kColumns[] =
    "id, name, owner_uid, real_owner_uid, marker, enabled, listable, can_edit_from_ui,"
    " can_delete_from_ui, can_run_from_ui, can_edit_name, can_edit_owner, simple_edit_form,"
    " can_run_app_same_time, can_run_task_same_time, app, app_name, edit_form, action, command,"
    " app_args, event, s_repeat, s_year, s_month, s_day, s_week_mask, s_hour, s_min,"
    " s_repeat_hour, s_repeat_min, s_last_work_hour, s_repeat_min_cfg, s_repeat_hour_cfg";
constexpr int kColumnCount = 34;

struct FreeDeleter {
  void operator()(ORVA_SCHED_TASK* t) const { free(t); }
};
using TaskPtr = std::unique_ptr<ORVA_SCHED_TASK, FreeDeleter>;

TaskPtr NewZeroed() { return TaskPtr(static_cast<ORVA_SCHED_TASK*>(calloc(1, sizeof(ORVA_SCHED_TASK)))); }

// A stored text longer than its field (edited by hand, or from a newer schema) is
// loaded cut and marked, so that it can never be saved back cut.
void ColumnText(const Stmt& st, int col, char* dst, size_t size, uint32_t bit, ORVA_SCHED_TASK* t) {
  const void* p = sqlite3_column_blob(st.get(), col);
  size_t n = static_cast<size_t>(sqlite3_column_bytes(st.get(), col));
  if (!CopyText(dst, size, p ? static_cast<const char*>(p) : "", p ? n : 0)) {
    t->truncated |= bit;
  }
}

uint8_t U8(const Stmt& st, int col) { return static_cast<uint8_t>(st.Int(col)); }

void RowToTask(const Stmt& st, ORVA_SCHED_TASK* t) {
  memset(t, 0, sizeof(*t));
  int c = 0;
  t->id = st.Int(c++);
  ColumnText(st, c++, t->name, sizeof(t->name), ORVA_SCHED_TRUNC_NAME, t);
  t->owner = static_cast<uint32_t>(st.Int(c++));
  t->real_owner = static_cast<uint32_t>(st.Int(c++));
  t->marker = st.Int(c++);
  t->enabled = U8(st, c++);
  t->listable = U8(st, c++);
  t->can_edit_from_ui = U8(st, c++);
  t->can_delete_from_ui = U8(st, c++);
  t->can_run_from_ui = U8(st, c++);
  t->can_edit_name = U8(st, c++);
  t->can_edit_owner = U8(st, c++);
  t->simple_edit_form = U8(st, c++);
  t->can_run_app_same_time = U8(st, c++);
  t->can_run_task_same_time = U8(st, c++);
  ColumnText(st, c++, t->app, sizeof(t->app), ORVA_SCHED_TRUNC_APP, t);
  ColumnText(st, c++, t->app_name, sizeof(t->app_name), ORVA_SCHED_TRUNC_APP_NAME, t);
  ColumnText(st, c++, t->edit_form, sizeof(t->edit_form), ORVA_SCHED_TRUNC_EDIT_FORM, t);
  ColumnText(st, c++, t->action, sizeof(t->action), ORVA_SCHED_TRUNC_ACTION, t);
  ColumnText(st, c++, t->command, sizeof(t->command), ORVA_SCHED_TRUNC_COMMAND, t);
  ColumnText(st, c++, t->app_args, sizeof(t->app_args), ORVA_SCHED_TRUNC_APP_ARGS, t);
  ColumnText(st, c++, t->event, sizeof(t->event), ORVA_SCHED_TRUNC_EVENT, t);
  ORVA_SCHED_SCHEDULE& s = t->schedule;
  s.repeat = U8(st, c++);
  s.year = static_cast<uint16_t>(st.Int(c++));
  s.month = U8(st, c++);
  s.day = U8(st, c++);
  s.week_mask = U8(st, c++);
  s.hour = U8(st, c++);
  s.min = U8(st, c++);
  s.repeat_hour = U8(st, c++);
  s.repeat_min = U8(st, c++);
  s.last_work_hour = U8(st, c++);
  orva_sched::ParseByteList(st.Text(c++), s.repeat_min_cfg, s.n_repeat_min_cfg, ORVA_SCHED_REPEAT_CFG_MAX, 0, 255);
  orva_sched::ParseByteList(st.Text(c++), s.repeat_hour_cfg, s.n_repeat_hour_cfg, ORVA_SCHED_REPEAT_CFG_MAX, 0,
                            255);
  t->saved = 1;
}

}  // namespace

namespace orva_sched {

// What a listing reads (ListEntry).
const char kListColumns[] =
    "id, name, owner_uid, real_owner_uid, marker, enabled, listable, can_edit_from_ui,"
    " can_delete_from_ui, can_run_from_ui, app, app_name, action,"
    " s_repeat, s_year, s_month, s_day, s_week_mask, s_hour, s_min,"
    " s_repeat_hour, s_repeat_min, s_last_work_hour, s_repeat_min_cfg, s_repeat_hour_cfg";

namespace {

// A text of a listed row, cut to its field like ColumnText (and marked) when longer.
const char* EntryText(sqlite3_stmt* st, int col, Listing* l, size_t size, uint32_t bit, ListEntry& e) {
  const char* p = static_cast<const char*>(sqlite3_column_blob(st, col));
  size_t n = p ? static_cast<size_t>(sqlite3_column_bytes(st, col)) : 0;
  if (n >= size) {
    n = size - 1;
    e.truncated |= bit;
  }
  return ListingText(l, p, n);
}

// The interval lists of a listing: nearly every task has the defaults, so the last text
// seen per column is parsed once.
struct ByteListCache {
  std::string text[2];
  uint8_t v[2][ORVA_SCHED_REPEAT_CFG_MAX];
  uint8_t n[2] = {0, 0};
};

void ByteList(sqlite3_stmt* st, int col, int which, uint8_t* v, uint8_t& n) {
  thread_local ByteListCache cache;
  const char* p = reinterpret_cast<const char*>(sqlite3_column_text(st, col));
  const size_t len = static_cast<size_t>(sqlite3_column_bytes(st, col));
  if (!p) p = "";
  std::string& last = cache.text[which];
  if (last.size() != len || memcmp(last.data(), p, len) != 0) {
    last.assign(p, len);
    memset(cache.v[which], 0, sizeof(cache.v[which]));
    // As in RowToTask, a malformed list reads as what was parsed of it before the fault.
    ParseByteList(p, len, cache.v[which], cache.n[which], ORVA_SCHED_REPEAT_CFG_MAX, 0, 255);
  }
  memcpy(v, cache.v[which], sizeof(cache.v[which]));
  n = cache.n[which];
}

}  // namespace

void RowToEntry(sqlite3_stmt* st, Listing* l, ListEntry& e, ORVA_SCHED_TASK& slot) {
  int c = 0;
  auto u8 = [st](int col) { return static_cast<uint8_t>(sqlite3_column_int(st, col)); };
  e.id = sqlite3_column_int64(st, c++);
  e.name = EntryText(st, c++, l, ORVA_SCHED_NAME_MAX, ORVA_SCHED_TRUNC_NAME, e);
  slot.owner = static_cast<uint32_t>(sqlite3_column_int64(st, c++));
  e.real_owner = static_cast<uint32_t>(sqlite3_column_int64(st, c++));
  slot.marker = sqlite3_column_int64(st, c++);
  e.enabled = u8(c++);
  e.listable = u8(c++);
  e.can_edit_from_ui = u8(c++);
  e.can_delete_from_ui = u8(c++);
  e.can_run_from_ui = u8(c++);
  e.app = EntryText(st, c++, l, ORVA_SCHED_APP_MAX, ORVA_SCHED_TRUNC_APP, e);
  e.app_name = EntryText(st, c++, l, ORVA_SCHED_APP_NAME_MAX, ORVA_SCHED_TRUNC_APP_NAME, e);
  e.action = EntryText(st, c++, l, ORVA_SCHED_ACTION_MAX, ORVA_SCHED_TRUNC_ACTION, e);
  ORVA_SCHED_SCHEDULE& s = e.schedule;
  s.repeat = u8(c++);
  s.year = static_cast<uint16_t>(sqlite3_column_int(st, c++));
  s.month = u8(c++);
  s.day = u8(c++);
  s.week_mask = u8(c++);
  s.hour = u8(c++);
  s.min = u8(c++);
  s.repeat_hour = u8(c++);
  s.repeat_min = u8(c++);
  s.last_work_hour = u8(c++);
  ByteList(st, c++, 0, s.repeat_min_cfg, s.n_repeat_min_cfg);
  ByteList(st, c++, 1, s.repeat_hour_cfg, s.n_repeat_hour_cfg);
  e.saved = 1;
}

bool ReadUnlisted(sqlite3* db, int64_t id, ORVA_SCHED_TASK& t) {
  Stmt st(db,
          "SELECT command, app_args, edit_form, event, can_edit_name, can_edit_owner, simple_edit_form,"
          " can_run_app_same_time, can_run_task_same_time FROM tasks WHERE id = ?");
  if (!st.ok()) return false;
  st.Bind(1, id);
  if (st.Step() != SQLITE_ROW) return false;
  int c = 0;
  ColumnText(st, c++, t.command, sizeof(t.command), ORVA_SCHED_TRUNC_COMMAND, &t);
  ColumnText(st, c++, t.app_args, sizeof(t.app_args), ORVA_SCHED_TRUNC_APP_ARGS, &t);
  ColumnText(st, c++, t.edit_form, sizeof(t.edit_form), ORVA_SCHED_TRUNC_EDIT_FORM, &t);
  ColumnText(st, c++, t.event, sizeof(t.event), ORVA_SCHED_TRUNC_EVENT, &t);
  t.can_edit_name = U8(st, c++);
  t.can_edit_owner = U8(st, c++);
  t.simple_edit_form = U8(st, c++);
  t.can_run_app_same_time = U8(st, c++);
  t.can_run_task_same_time = U8(st, c++);
  return true;
}

}  // namespace orva_sched

namespace {

void BindTask(Stmt& st, const ORVA_SCHED_TASK& t) {
  int c = 1;
  if (t.id > 0) {
    st.Bind(c++, static_cast<int64_t>(t.id));
  } else {
    st.BindNull(c++);
  }
  st.Bind(c++, t.name);
  st.Bind(c++, static_cast<int64_t>(t.owner));
  st.Bind(c++, static_cast<int64_t>(t.real_owner));
  st.Bind(c++, t.marker);
  for (uint8_t flag : {t.enabled, t.listable, t.can_edit_from_ui, t.can_delete_from_ui, t.can_run_from_ui,
                       t.can_edit_name, t.can_edit_owner, t.simple_edit_form, t.can_run_app_same_time,
                       t.can_run_task_same_time}) {
    st.Bind(c++, static_cast<int64_t>(flag ? 1 : 0));
  }
  for (const char* text : {t.app, t.app_name, t.edit_form, t.action, t.command, t.app_args, t.event}) {
    st.Bind(c++, text);
  }
  const ORVA_SCHED_SCHEDULE& s = t.schedule;
  for (int64_t v : {int64_t{s.repeat}, int64_t{s.year}, int64_t{s.month}, int64_t{s.day}, int64_t{s.week_mask},
                    int64_t{s.hour}, int64_t{s.min}, int64_t{s.repeat_hour}, int64_t{s.repeat_min},
                    int64_t{s.last_work_hour}}) {
    st.Bind(c++, v);
  }
  st.Bind(c++, orva_sched::FormatByteList(s.repeat_min_cfg, s.n_repeat_min_cfg));
  st.Bind(c++, orva_sched::FormatByteList(s.repeat_hour_cfg, s.n_repeat_hour_cfg));
}

const char* TruncatedField(uint32_t bits) {
  static const std::pair<uint32_t, const char*> kNames[] = {
      {ORVA_SCHED_TRUNC_NAME, "name"},         {ORVA_SCHED_TRUNC_APP, "app"},
      {ORVA_SCHED_TRUNC_APP_NAME, "app_name"}, {ORVA_SCHED_TRUNC_EDIT_FORM, "edit_form"},
      {ORVA_SCHED_TRUNC_ACTION, "action"},     {ORVA_SCHED_TRUNC_COMMAND, "command"},
      {ORVA_SCHED_TRUNC_APP_ARGS, "app_args"}, {ORVA_SCHED_TRUNC_EVENT, "event"},
  };
  for (const auto& n : kNames) {
    if (bits & n.first) return n.second;
  }
  return "?";
}

// Checks a record before it is written: nothing cut, a sane schedule, and a user's
// task runs as that user.
bool CheckSavable(const ORVA_SCHED_TASK& t) {
  if (t.id > ORVA_SCHED_TASK_ID_MAX) {
    syslog(LOG_ERR, "%s:%d task [%ld] not saved: ids above %ld are not given out", __FILE_NAME__, __LINE__,
           static_cast<long>(t.id), ORVA_SCHED_TASK_ID_MAX);
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
    return false;
  }
  if (t.truncated) {
    syslog(LOG_ERR, "%s:%d task [%ld] not saved: %s is too long", __FILE_NAME__, __LINE__, static_cast<long>(t.id),
           TruncatedField(t.truncated));
    SCHED_ERR(ORVA_SCHED_ERR_TOO_LONG);
    return false;
  }
  if (!ORVASchedScheduleValidate(t.schedule)) {
    return false;
  }
  if (t.marker == ORVA_SCHED_MARKER_BY_USER && t.owner != t.real_owner) {
    syslog(LOG_ERR, "%s:%d task [%ld] of uid %u would run as uid %u", __FILE_NAME__, __LINE__,
           static_cast<long>(t.id), t.real_owner, t.owner);
    SCHED_ERR(ORVA_SCHED_ERR_NOT_OWNER);
    return false;
  }
  return true;
}

// Writes the record in the open write transaction; the new id goes into the record.
bool WriteTask(sqlite3* db, ORVA_SCHED_TASK& t) {
  std::string sql = std::string("INSERT OR REPLACE INTO tasks(") + kColumns + ") VALUES(?";
  for (int i = 1; i < kColumnCount; ++i) sql += ",?";
  sql += ")";
  Stmt st(db, sql.c_str());
  if (!st.ok()) return false;
  BindTask(st, t);
  if (st.Step() != SQLITE_DONE) return false;
  int64_t id = t.id > 0 ? t.id : sqlite3_last_insert_rowid(db);
  if (!orva_sched::BumpGeneration(db)) return false;
  t.id = id;
  return true;
}

}  // namespace

// Loads row `id` into `out`. 1 found, 0 not found (error set), -1 failure.
int orva_sched::ReadTask(sqlite3* db, long id, ORVA_SCHED_TASK* out) {
  std::string sql = std::string("SELECT ") + kColumns + " FROM tasks WHERE id = ?";
  Stmt st(db, sql.c_str());
  if (!st.ok()) return -1;
  st.Bind(1, static_cast<int64_t>(id));
  int rc = st.Step();
  if (rc == SQLITE_DONE) {
    SCHED_ERR(ORVA_SCHED_ERR_NOT_FOUND);
    return 0;
  }
  if (rc != SQLITE_ROW) return -1;
  RowToTask(st, out);
  return 1;
}

namespace {

// uid of a user name; false with ORVA_SCHED_ERR_NO_USER.
bool UserUid(const char* user, unsigned int& uid) {
  PORVAUSER u = nullptr;
  if (!user || !*user || ORVAUserGetByName(user, &u) != 0) {
    syslog(LOG_ERR, "%s:%d no such user [%s]", __FILE_NAME__, __LINE__, user ? user : "(null)");
    SCHED_ERR(ORVA_SCHED_ERR_NO_USER);
    return false;
  }
  uid = u->uid;
  ORVAUserFree(u);
  return true;
}

bool IsUsersOwn(int64_t marker, unsigned realOwner, unsigned uid) {
  return marker == ORVA_SCHED_MARKER_BY_USER && realOwner == uid;
}

// A fresh record; a user's when uid is given.
int FillFresh(ORVA_SCHED_TASK* pTask, const unsigned* uid) {
  ORVA_SCHED_TASK* fresh = ORVASchedTaskAllocFast();
  if (!fresh) return -1;
  if (uid) {
    fresh->owner = *uid;
    ORVASchedCTaskSetRealOwner(fresh, true, *uid);
  }
  orva_sched::Assign(*pTask, *fresh, false);
  free(fresh);
  return 0;
}

}  // namespace

extern "C" {

int ORVASchedTaskLoad(long id, ORVA_SCHED_TASK* pTask) {
  if (!pTask) {
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
    return -1;
  }
  if (id == -1) {
    return FillFresh(pTask, nullptr);
  }
  TaskPtr tmp = NewZeroed();
  if (!tmp) {
    SCHED_ERR(KELC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  Conn conn;
  if (!conn.db() || orva_sched::ReadTask(conn.db(), id, tmp.get()) != 1) return -1;
  orva_sched::Assign(*pTask, *tmp, false);
  return 0;
}

int ORVASchedTaskLoadByUser(const char* user, long id, ORVA_SCHED_TASK* pTask) {
  unsigned uid = 0;
  if (!pTask) {
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
    return -1;
  }
  if (!UserUid(user, uid)) return -1;
  if (id == -1) {
    // A new task of this user: it runs as the user and will be theirs once saved.
    return FillFresh(pTask, &uid);
  }
  TaskPtr tmp = NewZeroed();
  if (!tmp) {
    SCHED_ERR(KELC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  Conn conn;
  if (!conn.db() || orva_sched::ReadTask(conn.db(), id, tmp.get()) != 1) return -1;
  if (!IsUsersOwn(tmp->marker, tmp->real_owner, uid)) {
    SCHED_ERR(ORVA_SCHED_ERR_NOT_OWNER);
    return -1;
  }
  orva_sched::Assign(*pTask, *tmp, false);
  return 0;
}

int ORVASchedTaskSave(ORVA_SCHED_TASK* pTask) {
  if (!pTask) {
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
    return -1;
  }
  ORVA_SCHED_TASK copy = orva_sched::Full(*pTask);
  // Anything that is not a user's task is a system task.
  if (copy.marker != ORVA_SCHED_MARKER_BY_USER) {
    ORVASchedCTaskSetRealOwner(&copy, false, 0);
  }
  if (!CheckSavable(copy)) return -1;
  Conn conn;
  if (!conn.Begin(true)) return -1;
  if (!WriteTask(conn.db(), copy) || !conn.Commit()) return -1;
  orva_sched::Edit(pTask, [&copy](ORVA_SCHED_TASK& w) {
    w.id = copy.id;
    w.marker = copy.marker;
    w.real_owner = copy.real_owner;
    w.saved = 1;
  });
  return 0;
}

int ORVASchedTaskSaveByUser(const char* user, ORVA_SCHED_TASK* pTask) {
  unsigned uid = 0;
  if (!pTask) {
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
    return -1;
  }
  if (!UserUid(user, uid)) return -1;
  if (pTask->owner != uid) {
    syslog(LOG_ERR, "%s:%d user [%s] may not save a task that runs as uid %u", __FILE_NAME__, __LINE__, user,
           pTask->owner);
    SCHED_ERR(ORVA_SCHED_ERR_NOT_OWNER);
    return -1;
  }
  ORVA_SCHED_TASK* copy = static_cast<ORVA_SCHED_TASK*>(malloc(sizeof(ORVA_SCHED_TASK)));
  if (!copy) {
    SCHED_ERR(KELC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  TaskPtr holder(copy);
  *copy = orva_sched::Full(*pTask);
  ORVASchedCTaskSetRealOwner(copy, true, uid);
  if (!CheckSavable(*copy)) return -1;
  Conn conn;
  if (!conn.Begin(true)) return -1;
  if (copy->id > 0) {
    Stmt st(conn.db(), "SELECT marker, real_owner_uid FROM tasks WHERE id = ?");
    st.Bind(1, static_cast<int64_t>(copy->id));
    int rc = st.Step();
    if (rc == SQLITE_ROW && !IsUsersOwn(st.Int(0), static_cast<unsigned>(st.Int(1)), uid)) {
      SCHED_ERR(ORVA_SCHED_ERR_NOT_OWNER);
      return -1;
    }
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) return -1;
  }
  if (!WriteTask(conn.db(), *copy) || !conn.Commit()) return -1;
  orva_sched::Edit(pTask, [copy](ORVA_SCHED_TASK& w) {
    w.id = copy->id;
    w.marker = copy->marker;
    w.real_owner = copy->real_owner;
    w.saved = 1;
  });
  return 0;
}

namespace {

// Removes task `id`; with byUser, only when it is that uid's own.
int RemoveTask(long id, bool byUser, unsigned uid) {
  Conn conn;
  if (!conn.Begin(true)) return -1;
  {
    Stmt st(conn.db(), "SELECT marker, real_owner_uid FROM tasks WHERE id = ?");
    st.Bind(1, static_cast<int64_t>(id));
    int rc = st.Step();
    if (rc == SQLITE_DONE) {
      SCHED_ERR(ORVA_SCHED_ERR_NOT_FOUND);
      return -1;
    }
    if (rc != SQLITE_ROW) return -1;
    if (byUser && !IsUsersOwn(st.Int(0), static_cast<unsigned>(st.Int(1)), uid)) {
      SCHED_ERR(ORVA_SCHED_ERR_NOT_OWNER);
      return -1;
    }
  }
  Stmt del(conn.db(), "DELETE FROM tasks WHERE id = ?");
  del.Bind(1, static_cast<int64_t>(id));
  Stmt runs(conn.db(), "DELETE FROM runs WHERE kind = 0 AND task_id = ?");
  runs.Bind(1, static_cast<int64_t>(id));
  if (del.Step() != SQLITE_DONE || runs.Step() != SQLITE_DONE || !orva_sched::BumpGeneration(conn.db()) ||
      !conn.Commit()) {
    return -1;
  }
  return 0;
}

}  // namespace

int ORVASchedTaskRemove(long id) { return RemoveTask(id, false, 0); }

int ORVASchedTaskRemoveByUser(const char* user, long id) {
  unsigned uid = 0;
  if (!UserUid(user, uid)) return -1;
  return RemoveTask(id, true, uid);
}

int ORVASchedTaskListGet(ORVA_SCHED_TASK** ppList, ORVA_SCHED_TASK_FILTER filter, void* pArg) {
  if (!ppList) {
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
    return -1;
  }
  *ppList = nullptr;
  Conn conn;
  if (!conn.Begin(false)) return -1;
  // The count sizes the listing; the read transaction keeps it exact.
  Stmt counter(conn.db(), "SELECT count(*) FROM tasks");
  if (!counter.ok() || counter.Step() != SQLITE_ROW) return -1;
  const int64_t rows = counter.Int(0);
  if (rows == 0) {
    conn.Commit();
    return 0;
  }
  std::string sql = std::string("SELECT ") + orva_sched::kListColumns + " FROM tasks ORDER BY id";
  Stmt st(conn.db(), sql.c_str());
  if (!st.ok()) return -1;
  // A filter's getter may read the store: through this connection, which we hold.
  orva_sched::Listing* listing = orva_sched::ListingNew(static_cast<size_t>(rows), conn.db());
  if (!listing) return -1;
  ORVA_SCHED_TASK* head = nullptr;
  ORVA_SCHED_TASK** tail = &head;
  int count = 0;
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) {
    ORVA_SCHED_TASK* t = orva_sched::ListingAdd(listing, st.get());
    if (!t) {
      SCHED_ERR(ORVA_SCHED_ERR_DATABASE);  // more rows than counted: cannot happen in one read
      rc = SQLITE_ERROR;
      break;
    }
    if (filter && !filter(t, pArg)) {
      orva_sched::ListingRefuse(listing);
      continue;
    }
    orva_sched::ListingKeep(listing);
    *tail = t;
    tail = &t->next;
    ++count;
  }
  orva_sched::ListingDone(listing);
  conn.Commit();
  if (rc != SQLITE_DONE) {
    ORVASchedTaskListFree(head);
    return -1;
  }
  *ppList = head;
  return count;
}

}  // extern "C"

// ---- Event tasks ----

namespace {

bool CheckEventTask(const ORVASchedEventTask& t) {
  const char* bad = nullptr;
  int code = ORVA_SCHED_ERR_INVALID;
  PORVAUSER u = nullptr;
  if (t.task_name.empty() || t.task_name.find('\0') != std::string::npos) {
    bad = "task_name";
  } else if (t.task_name.size() >= ORVA_SCHED_NAME_MAX) {
    bad = "task_name";
    code = ORVA_SCHED_ERR_TOO_LONG;
  } else if (t.event != ORVA_SCHED_EVENT_BOOTUP && t.event != ORVA_SCHED_EVENT_SHUTDOWN) {
    bad = "event";
  } else if (t.script.find('\0') != std::string::npos) {
    bad = "script";
  } else if (t.script.size() >= ORVA_SCHED_COMMAND_MAX) {
    bad = "script";
    code = ORVA_SCHED_ERR_TOO_LONG;
  } else if (ORVAUserGetByUID(t.owner, &u) != 0) {
    bad = "owner";
    code = ORVA_SCHED_ERR_NO_USER;
  }
  ORVAUserFree(u);
  if (bad) {
    syslog(LOG_ERR, "%s:%d event task [%ld] not saved: bad %s", __FILE_NAME__, __LINE__, t.id, bad);
    SCHED_ERR(code);
    return false;
  }
  return true;
}

void RowToEventTask(const Stmt& st, ORVASchedEventTask& t) {
  t.id = static_cast<long>(st.Int(0));
  t.task_name = st.Text(1);
  t.owner = static_cast<unsigned>(st.Int(2));
  t.enable = st.Int(3) != 0;
  t.event = st.Text(4);
  t.script = st.Text(5);
}

}  // namespace

int ORVASchedEventTaskList(std::vector<ORVASchedEventTask>& tasks, const char* event) {
  tasks.clear();
  Conn conn;
  if (!conn.db()) return -1;
  Stmt st(conn.db(), event ? "SELECT id, task_name, owner_uid, enable, event, script FROM event_tasks"
                             " WHERE event = ? ORDER BY id"
                           : "SELECT id, task_name, owner_uid, enable, event, script FROM event_tasks ORDER BY id");
  if (!st.ok()) return -1;
  if (event) st.Bind(1, event);
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) {
    tasks.emplace_back();
    RowToEventTask(st, tasks.back());
  }
  if (rc != SQLITE_DONE) {
    tasks.clear();
    return -1;
  }
  return static_cast<int>(tasks.size());
}

int ORVASchedEventTaskLoad(long id, ORVASchedEventTask& task) {
  Conn conn;
  if (!conn.db()) return -1;
  Stmt st(conn.db(), "SELECT id, task_name, owner_uid, enable, event, script FROM event_tasks WHERE id = ?");
  st.Bind(1, static_cast<int64_t>(id));
  int rc = st.Step();
  if (rc == SQLITE_DONE) {
    SCHED_ERR(ORVA_SCHED_ERR_NOT_FOUND);
    return -1;
  }
  if (rc != SQLITE_ROW) return -1;
  RowToEventTask(st, task);
  return 0;
}

int ORVASchedEventTaskSave(ORVASchedEventTask& task) {
  if (!CheckEventTask(task)) return -1;
  Conn conn;
  if (!conn.Begin(true)) return -1;
  Stmt st(conn.db(),
          "INSERT OR REPLACE INTO event_tasks(id, task_name, owner_uid, enable, event, script)"
          " VALUES(?, ?, ?, ?, ?, ?)");
  if (task.id > 0) {
    st.Bind(1, static_cast<int64_t>(task.id));
  } else {
    st.BindNull(1);
  }
  st.Bind(2, task.task_name);
  st.Bind(3, static_cast<int64_t>(task.owner));
  st.Bind(4, static_cast<int64_t>(task.enable ? 1 : 0));
  st.Bind(5, task.event);
  st.Bind(6, task.script);
  if (st.Step() != SQLITE_DONE) return -1;
  long id = task.id > 0 ? task.id : static_cast<long>(sqlite3_last_insert_rowid(conn.db()));
  if (!orva_sched::BumpGeneration(conn.db()) || !conn.Commit()) return -1;
  task.id = id;
  return 0;
}

int ORVASchedEventTaskRemove(long id) {
  Conn conn;
  if (!conn.Begin(true)) return -1;
  Stmt del(conn.db(), "DELETE FROM event_tasks WHERE id = ?");
  del.Bind(1, static_cast<int64_t>(id));
  if (del.Step() != SQLITE_DONE) return -1;
  if (sqlite3_changes(conn.db()) == 0) {
    SCHED_ERR(ORVA_SCHED_ERR_NOT_FOUND);
    return -1;
  }
  Stmt runs(conn.db(), "DELETE FROM runs WHERE kind = 1 AND task_id = ?");
  runs.Bind(1, static_cast<int64_t>(id));
  if (runs.Step() != SQLITE_DONE || !orva_sched::BumpGeneration(conn.db()) || !conn.Commit()) return -1;
  return 0;
}
