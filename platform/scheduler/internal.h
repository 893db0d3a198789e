// Shared by the sources of liborvascheduler: the error macro, the database connection
// and the record <-> row mapping.
#pragma once

#include <sqlite3.h>
#include <syslog.h>

#include <mutex>
#include <string>

#include "core/kelc.h"
#include "scheduler/task.h"

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

// Spawns `argv[0]` detached (double fork, new session, stdio on /dev/null, no other
// descriptors) and waits only until it has been executed. False with the error set.
bool SpawnDetached(const std::string& program, const std::vector<std::string>& args);

// The start time of a process in clock ticks since boot (/proc/PID/stat): with the pid
// it names one process for good. -1 when it cannot be read (errno set).
int64_t ProcessStartTime(pid_t pid);

// ---- Listings (listing.cpp) ----
// Bits of ORVA_SCHED_TASK::lazy: a text of a listed record kept aside until first use.
constexpr uint8_t kLazyAction = 1;
constexpr uint8_t kLazyCommand = 2;
constexpr uint8_t kLazyAppArgs = 4;

struct Listing;
// A listing with room for `capacity` records (registered, so its records free right).
Listing* ListingNew(size_t capacity);
// The next zero-filled record for row `id`; null when the listing is full.
ORVA_SCHED_TASK* ListingTake(Listing* l, int64_t id);
// The longest text of field `bit` written into the record itself while listing.
size_t ListingInPlaceMax(uint8_t bit);
// Keeps a text aside for the record's field `bit` and marks the field lazy.
void ListingSetAside(Listing* l, ORVA_SCHED_TASK* t, uint8_t bit, const char* text, size_t len);
// The filter refused the last record taken (its slot is reused) / kept it.
void ListingRefuse(Listing* l);
void ListingKeep(Listing* l);
// Loading ended: a listing that kept nothing is gone.
void ListingDone(Listing* l);
// Frees one record of a listing; false when `t` is not a listed record.
bool ListingRelease(ORVA_SCHED_TASK* t);
// Frees every record of a chain: listed records and records from calloc alike.
void ListingFreeChain(ORVA_SCHED_TASK* t);
// The full text of field `bit`, copied into the record first if it is still aside.
const char* LazyText(const ORVA_SCHED_TASK& t, uint8_t bit);
// The same without copying it in when it is aside (valid while the listing lives).
const char* PeekText(const ORVA_SCHED_TASK& t, uint8_t bit);
// While it lives, getters of this thread read the store through `db` (the connection
// a listing holds) instead of taking the connection themselves.
class ListingConnection {
 public:
  explicit ListingConnection(sqlite3* db);
  ~ListingConnection();
  ListingConnection(const ListingConnection&) = delete;
  ListingConnection& operator=(const ListingConnection&) = delete;
};
// Copies every text still aside into the record (before it is saved).
void FillAll(ORVA_SCHED_TASK& t);

}  // namespace orva_sched
