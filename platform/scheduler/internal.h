// Shared by the sources of liborvascheduler: the error macro, the database connection
// and the record <-> row mapping.
#pragma once

#include <syslog.h>

#include <string>
#include <vector>

#include "core/kelc.h"
#include "core/sqlite_db.h"
#include "scheduler/record.h"
#include "scheduler/store.h"

// Sets the error facility with this source file's short name and line.
#define SCHED_ERR(code) KELCErrSetEx((code), __FILE_NAME__, __LINE__)

namespace orva_sched {

// The store's database in this process (core/sqlite_db.h).
ORVA::SqlDb& Store();

// The process's connection, locked for the lifetime of this object.
class Conn : public ORVA::SqlConn {
 public:
  Conn() : SqlConn(Store(), ORVASchedStoreDbPath()) {}
};
using Stmt = ORVA::SqlStmt;

// Binds `id` to a lookup by id and steps it: 1 with its row, 0 when there is none
// (NOT_FOUND set), -1 on failure.
int StepById(Stmt& st, long id);

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
extern const char* const kListColumns;
// A listing's row into a side entry, and the slot's own fields (marker, owner).
void RowToEntry(sqlite3_stmt* st, Listing* l, ListEntry& e, ORVA_SCHED_TASK& slot);
// The fields a listing leaves in the store, of task `id`, into a full record
// (store.cpp); false when it is gone.
bool ReadUnlisted(sqlite3* db, int64_t id, ORVA_SCHED_TASK& t);
// The whole row of `id` into `out` (store.cpp): 1 found, 0 not found, -1 failure.
int ReadTask(sqlite3* db, long id, ORVA_SCHED_TASK* out);

}  // namespace orva_sched
