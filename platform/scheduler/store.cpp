// Loading, saving, removing and listing tasks and event tasks in scheduler.db.
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "core/log.h"
#include "core/user.h"
#include "internal.h"
#include "scheduler/event_task.h"
#include "scheduler/schedule.h"
#include "scheduler/store.h"
#include "scheduler/task_fields.h"

using orva_sched::Conn;
using orva_sched::CopyText;
using orva_sched::Stmt;

namespace {

// The columns of every field, of those a listing reads, and of those it leaves.
#define COLUMN(K, m, basic, where, arg, get, set) ", " ORVA_SCHED_COLUMN(K, m)
#define LIST_COLUMN(K, m, basic, where, arg, get, set) LIST_COLUMN_##where(K, m)
#define LIST_COLUMN_LISTED(K, m) COLUMN(K, m, , , , , )
#define LIST_COLUMN_SLOT(K, m) COLUMN(K, m, , , , , )
#define LIST_COLUMN_STORE(K, m)
#define UNLISTED_COLUMN(K, m, basic, where, arg, get, set) UNLISTED_COLUMN_##where(K, m)
#define UNLISTED_COLUMN_LISTED(K, m)
#define UNLISTED_COLUMN_SLOT(K, m)
#define UNLISTED_COLUMN_STORE(K, m) COLUMN(K, m, , , , , )
#define PLUS_ONE(...) +1
constexpr const char* kColumns = ORVA_SCHED_TASK_FIELDS(COLUMN) + 2;
constexpr int kColumnCount = 0 ORVA_SCHED_TASK_FIELDS(PLUS_ONE);

struct FreeDeleter {
  void operator()(ORVA_SCHED_TASK* t) const { free(t); }
};
using TaskPtr = std::unique_ptr<ORVA_SCHED_TASK, FreeDeleter>;

TaskPtr NewZeroed() { return TaskPtr(static_cast<ORVA_SCHED_TASK*>(calloc(1, sizeof(ORVA_SCHED_TASK)))); }

// A text field's size and name by its ORVA_SCHED_TRUNC_ bit.
#define TEXT_SIZE(K, m, basic, where, arg, get, set) TEXT_SIZE_##K(m, arg)
#define TEXT_SIZE_TEXT(m, arg) if (bit & (arg)) return sizeof(ORVA_SCHED_TASK::m);
#define TEXT_NAME(K, m, basic, where, arg, get, set) TEXT_NAME_##K(m, arg)
#define TEXT_NAME_TEXT(m, arg) if (bit & (arg)) return #m;
#define TEXT_SIZE_ID(m, arg)
#define TEXT_SIZE_MARKER(m, arg)
#define TEXT_SIZE_UID(m, arg)
#define TEXT_SIZE_STATE(m, arg)
#define TEXT_SIZE_FLAG(m, arg)
#define TEXT_SIZE_S8(m, arg)
#define TEXT_SIZE_S16(m, arg)
#define TEXT_SIZE_LIST(m, arg)
#define TEXT_NAME_ID TEXT_SIZE_ID
#define TEXT_NAME_MARKER TEXT_SIZE_MARKER
#define TEXT_NAME_UID TEXT_SIZE_UID
#define TEXT_NAME_STATE TEXT_SIZE_STATE
#define TEXT_NAME_FLAG TEXT_SIZE_FLAG
#define TEXT_NAME_S8 TEXT_SIZE_S8
#define TEXT_NAME_S16 TEXT_SIZE_S16
#define TEXT_NAME_LIST TEXT_SIZE_LIST
size_t TextSize(uint32_t bit) {
  ORVA_SCHED_TASK_FIELDS(TEXT_SIZE)
  return 1;
}
const char* TruncatedField(uint32_t bit) {
  ORVA_SCHED_TASK_FIELDS(TEXT_NAME)
  return "?";
}

// A stored text longer than its field (edited by hand, or from a newer schema) is
// loaded cut and marked, so that it can never be saved back cut.
void ColumnText(sqlite3_stmt* st, int col, char* dst, size_t size, uint32_t bit, ORVA_SCHED_TASK* t) {
  const void* p = sqlite3_column_blob(st, col);
  size_t n = static_cast<size_t>(sqlite3_column_bytes(st, col));
  if (!CopyText(dst, size, p ? static_cast<const char*>(p) : "", p ? n : 0)) {
    t->truncated |= bit;
  }
}

// Reads a row's columns in turn into fields, by the fields' types.
struct IntReader {
  sqlite3_stmt* st;
  int c = 0;
  void operator()(int64_t& v, int) { v = sqlite3_column_int64(st, c++); }
  void operator()(uint32_t& v, int) { v = static_cast<uint32_t>(sqlite3_column_int64(st, c++)); }
  void operator()(uint16_t& v, int) { v = static_cast<uint16_t>(sqlite3_column_int64(st, c++)); }
  void operator()(uint8_t& v, int) { v = static_cast<uint8_t>(sqlite3_column_int64(st, c++)); }
};

// ... into a record.
struct RowReader : IntReader {
  ORVA_SCHED_TASK& t;
  using IntReader::operator();
  template <size_t N>
  void operator()(char (&v)[N], uint32_t bit) {
    ColumnText(st, c++, v, N, bit, &t);
  }
  void operator()(uint8_t (&v)[ORVA_SCHED_REPEAT_CFG_MAX], uint8_t& n) {
    const char* p = reinterpret_cast<const char*>(sqlite3_column_text(st, c));
    orva_sched::ParseByteList(p ? p : "", static_cast<size_t>(sqlite3_column_bytes(st, c)), v, n,
                              ORVA_SCHED_REPEAT_CFG_MAX, 0, 255);
    ++c;
  }
};

#define READ(K, m, basic, where, arg, get, set) f(ORVA_SCHED_FIELD(K, t, m), ORVA_SCHED_FIELD_ARG(K, t, arg));
#define READ_UNLISTED(K, m, basic, where, arg, get, set) READ_UNLISTED_##where(K, m, arg)
#define READ_UNLISTED_LISTED(K, m, arg)
#define READ_UNLISTED_SLOT(K, m, arg)
#define READ_UNLISTED_STORE(K, m, arg) READ(K, m, , , arg, , )

void RowToTask(const Stmt& st, ORVA_SCHED_TASK& t) {
  memset(&t, 0, sizeof(t));
  RowReader f{{st.get()}, t};
  ORVA_SCHED_TASK_FIELDS(READ)
  t.saved = 1;
}

}  // namespace

namespace orva_sched {

// What a listing reads (ListEntry).
const char* const kListColumns = ORVA_SCHED_TASK_FIELDS(LIST_COLUMN) + 2;

namespace {

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

// ... into a listing's side entry: texts into the listing, cut to their field like
// ColumnText (and marked) when longer.
struct EntryReader : IntReader {
  Listing* l;
  ListEntry& e;
  int lists = 0;
  using IntReader::operator();
  void operator()(const char*& v, uint32_t bit) {
    const char* p = static_cast<const char*>(sqlite3_column_blob(st, c));
    size_t n = p ? static_cast<size_t>(sqlite3_column_bytes(st, c)) : 0;
    ++c;
    if (n >= TextSize(bit)) {
      n = TextSize(bit) - 1;
      e.truncated |= bit;
    }
    v = ListingText(l, p, n);
  }
  void operator()(uint8_t (&v)[ORVA_SCHED_REPEAT_CFG_MAX], uint8_t& n) { ByteList(st, c++, lists++, v, n); }
};

#define READ_ENTRY(K, m, basic, where, arg, get, set) READ_ENTRY_##where(K, m, arg)
#define READ_ENTRY_LISTED(K, m, arg) f(ORVA_SCHED_FIELD(K, e, m), ORVA_SCHED_FIELD_ARG(K, e, arg));
#define READ_ENTRY_SLOT(K, m, arg) f(ORVA_SCHED_FIELD(K, slot, m), arg);
#define READ_ENTRY_STORE(K, m, arg)

}  // namespace

void RowToEntry(sqlite3_stmt* st, Listing* l, ListEntry& e, ORVA_SCHED_TASK& slot) {
  EntryReader f{{st}, l, e};
  ORVA_SCHED_TASK_FIELDS(READ_ENTRY)
  e.saved = 1;
}

bool ReadUnlisted(sqlite3* db, int64_t id, ORVA_SCHED_TASK& t) {
  Stmt st(db, (std::string("SELECT ") + (ORVA_SCHED_TASK_FIELDS(UNLISTED_COLUMN) + 2) + " FROM tasks WHERE id = ?")
                  .c_str());
  if (!st.ok()) return false;
  st.Bind(1, id);
  if (st.Step() != SQLITE_ROW) return false;
  RowReader f{{st.get()}, t};
  ORVA_SCHED_TASK_FIELDS(READ_UNLISTED)
  return true;
}

}  // namespace orva_sched

namespace {

// Binds every field in column order; the id NULL when the record asks for a new one.
#define BIND(K, m, basic, where, arg, get, set) BIND_##K(ORVA_SCHED_FIELD(K, t, m), ORVA_SCHED_FIELD_ARG(K, t, arg))
#define BIND_ID(v, arg) (v) > 0 ? st.Bind(c++, static_cast<int64_t>(v)) : st.BindNull(c++);
#define BIND_MARKER(v, arg) st.Bind(c++, static_cast<int64_t>(v));
#define BIND_UID BIND_MARKER
#define BIND_S8 BIND_MARKER
#define BIND_S16 BIND_MARKER
#define BIND_STATE(v, arg) st.Bind(c++, int64_t{(v) ? 1 : 0});
#define BIND_FLAG BIND_STATE
#define BIND_TEXT(v, arg) st.Bind(c++, static_cast<const char*>(v));
#define BIND_LIST(v, arg) st.Bind(c++, orva_sched::FormatByteList((v), (arg)));
void BindTask(Stmt& st, const ORVA_SCHED_TASK& t) {
  int c = 1;
  ORVA_SCHED_TASK_FIELDS(BIND)
}

// Checks a record before it is written: nothing cut, a sane schedule, and a user's
// task runs as that user.
bool CheckSavable(const ORVA_SCHED_TASK& t) {
  if (t.id > ORVA_SCHED_TASK_ID_MAX) {
    ORVA_LOG(LOG_ERR, "task [%ld] not saved: ids above %ld are not given out", static_cast<long>(t.id),
             ORVA_SCHED_TASK_ID_MAX);
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
    return false;
  }
  if (t.truncated) {
    ORVA_LOG(LOG_ERR, "task [%ld] not saved: %s is too long", static_cast<long>(t.id), TruncatedField(t.truncated));
    SCHED_ERR(ORVA_SCHED_ERR_TOO_LONG);
    return false;
  }
  if (!ORVASchedScheduleValidate(t.schedule)) {
    return false;
  }
  if (t.marker == ORVA_SCHED_MARKER_BY_USER && t.owner != t.real_owner) {
    ORVA_LOG(LOG_ERR, "task [%ld] of uid %u would run as uid %u", static_cast<long>(t.id), t.real_owner, t.owner);
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
  const int found = StepById(st, id);
  if (found == 1) RowToTask(st, *out);
  return found;
}

namespace {

// uid of a user name; false with ORVA_SCHED_ERR_NO_USER.
bool UserUid(const char* user, unsigned int& uid) {
  PORVAUSER u = nullptr;
  if (!user || !*user || ORVAUserGetByName(user, &u) != 0) {
    ORVA_LOG(LOG_ERR, "no such user [%s]", user ? user : "(null)");
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

// The stored task `id` in a record of its own; null (error set) when it cannot be read.
TaskPtr ReadStored(long id) {
  TaskPtr tmp = NewZeroed();
  if (!tmp) {
    SCHED_ERR(KELC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  Conn conn;
  if (!conn.db() || orva_sched::ReadTask(conn.db(), id, tmp.get()) != 1) return nullptr;
  return tmp;
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
  TaskPtr tmp = ReadStored(id);
  if (!tmp) return -1;
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
  TaskPtr tmp = ReadStored(id);
  if (!tmp) return -1;
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
    ORVA_LOG(LOG_ERR, "user [%s] may not save a task that runs as uid %u", user, pTask->owner);
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
    if (orva_sched::StepById(st, id) != 1) return -1;
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
    ORVA_LOG(LOG_ERR, "event task [%ld] not saved: bad %s", t.id, bad);
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
  if (orva_sched::StepById(st, id) != 1) return -1;
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
