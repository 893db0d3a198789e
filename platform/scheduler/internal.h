// Shared by the sources of liborvascheduler: the error macro, the database connection
// and the record <-> row mapping.
#pragma once

#include <sqlite3.h>
#include <syslog.h>

#include <mutex>
#include <string>
#include <vector>

#include "core/kelc.h"
#include "scheduler/record.h"

// Sets the error facility with this source file's short name and line.
#define SCHED_ERR(code) KELCErrSetEx((code), __FILE_NAME__, __LINE__)

namespace orva_sched {

// The process's connection, locked for the lifetime of this object. The connection is
// opened on first use, reopened in a child after fork() (the parent's is left alone,
// never closed from the child) and when the system root changes.
class Conn {
 public:
  Conn();
  ~Conn();
  Conn(const Conn&) = delete;
  Conn& operator=(const Conn&) = delete;
  // Null when the database could not be opened (error facility set, logged).
  sqlite3* db() const { return db_; }
  // BEGIN IMMEDIATE (write) or BEGIN (read); false with the error set.
  bool Begin(bool write);
  bool Commit();
  void Rollback();

 private:
  std::unique_lock<std::mutex> lock_;
  sqlite3* db_ = nullptr;
  bool inTxn_ = false;
};

// A prepared statement. On the process's connection it is prepared once and reset on
// destruction (held under the connection's lock); otherwise finalized.
class Stmt {
 public:
  Stmt(sqlite3* db, const char* sql);
  ~Stmt();
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;
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

// Logs an SQLite failure once and sets ORVA_SCHED_ERR_DATABASE.
void DbFail(sqlite3* db, const char* what, int line);
// Runs SQL without results; false (logged, error set) on failure.
bool Exec(sqlite3* db, const char* sql);
// Raises the store generation; call inside a write transaction.
bool BumpGeneration(sqlite3* db);

// Copies `text` into a fixed field; true when it fit.
bool CopyText(char* dst, size_t size, const char* text, size_t len);

// Current default schedule: daily at 00:00 from today.
void DefaultSchedule(ORVA_SCHED_SCHEDULE& s);
// "1,5,10" <-> counted byte list; Parse returns false on a malformed or too long list.
std::string FormatByteList(const uint8_t* v, unsigned n);
bool ParseByteList(const std::string& text, uint8_t* v, uint8_t& n, unsigned max, unsigned lo, unsigned hi);
bool ParseByteList(const char* text, size_t len, uint8_t* v, uint8_t& n, unsigned max, unsigned lo, unsigned hi);

// ---- Listings (listing.cpp) ----
// A listing keeps each task in a side table and hands out compact records: 64-byte
// slots of one allocation (with a record's size of slack at its end, so that copying
// a whole record from any slot stays inside it). A slot holds the link, the marker and
// the owner as they are; behind an empty event name it carries a tag naming its side
// entry. Everything else a slot seems to hold belongs to the slots after it: every
// reader and writer of a record goes through Read / Full / Edit below.

// The fields of a listed task that listings, sorts, pages and the daemon read, under
// the record's own names (so that one generic accessor reads either). The others
// (command, app arguments, edit form, event, the edit and run flags) stay in the store
// until a getter or a write needs them: each column a listing reads costs some 2 ms
// per 10,000 tasks.
struct ListEntry {
  int64_t id;
  uint32_t real_owner;
  uint32_t truncated;  // of the texts held here
  uint8_t saved, enabled, listable, can_edit_from_ui, can_delete_from_ui, can_run_from_ui;
  ORVA_SCHED_SCHEDULE schedule;
  const char* name;
  const char* app;
  const char* app_name;
  const char* action;
  ORVA_SCHED_TASK* full;  // the whole record, built on first use; never changed after
};

struct Listing;

// Where a record's fields are read: the side entry of a listed slot (`hot`), or else a
// full record (`full`: the record itself, or the one a written slot now owns). A copy of
// a listed record is filled in place first, from its listing while that lives, else
// from the store.
struct Source {
  const ListEntry* hot;
  const ORVA_SCHED_TASK* full;
};
Source Read(const ORVA_SCHED_TASK& t);
template <class F>
auto ReadField(const ORVA_SCHED_TASK& t, F f) {
  const Source s = Read(t);
  return s.hot ? f(*s.hot) : f(*s.full);
}
// Every field of the record, texts in full (a listed slot's are read on first use).
const ORVA_SCHED_TASK& Full(const ORVA_SCHED_TASK& t);
// The record to write to: the record itself, or a full record of a listed slot's own.
ORVA_SCHED_TASK& Writable(ORVA_SCHED_TASK& t);
// Writes through `f` and keeps the fields a slot holds itself (marker, owner) in step.
template <class F>
void Edit(ORVA_SCHED_TASK* t, F f) {
  if (!t) return;
  ORVA_SCHED_TASK& w = Writable(*t);
  f(w);
  if (&w != t) {
    t->marker = w.marker;
    t->owner = w.owner;
  }
}
// Replaces the whole record, its link too unless `keepNext`.
void Assign(ORVA_SCHED_TASK& t, const ORVA_SCHED_TASK& from, bool keepNext);

// Building a listing inside the caller's read transaction on `db`.
Listing* ListingNew(size_t capacity, sqlite3* db);
// A slot for the current row of `st`; null when the listing is full. The filter refused
// the last slot added (it is reused) / kept it.
ORVA_SCHED_TASK* ListingAdd(Listing* l, sqlite3_stmt* st);
// Copies a text into the listing (it lives as long as the listing).
const char* ListingText(Listing* l, const char* text, size_t len);
void ListingRefuse(Listing* l);
void ListingKeep(Listing* l);
// Loading ended: a listing that kept nothing is gone.
void ListingDone(Listing* l);
// Frees one record / every record of a chain: slots and records from calloc alike.
void ListingFreeOne(ORVA_SCHED_TASK* t);
void ListingFreeChain(ORVA_SCHED_TASK* t);

// The columns a listing reads, and the row -> entry mapping (store.cpp).
extern const char kListColumns[];
// A listing's row into a side entry, and the slot's own fields (marker, owner).
void RowToEntry(sqlite3_stmt* st, Listing* l, ListEntry& e, ORVA_SCHED_TASK& slot);
// The fields a listing leaves in the store, of task `id`, into a full record
// (store.cpp); false when it is gone.
bool ReadUnlisted(sqlite3* db, int64_t id, ORVA_SCHED_TASK& t);
// The whole row of `id` into `out` (store.cpp): 1 found, 0 not found, -1 failure.
int ReadTask(sqlite3* db, long id, ORVA_SCHED_TASK* out);

}  // namespace orva_sched
