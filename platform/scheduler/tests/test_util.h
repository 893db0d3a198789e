// Helpers of the store's and runner's tests: records, the database read directly, and
// detached runners waited for.
#pragma once

#include <sqlite3.h>

#include <string>

#include "orvatest.h"
#include "scheduler/task_ptr.h"

namespace orvatest {

inline ORVASchedTaskPtr NewTask() { return ORVASchedTaskPtr(ORVASchedTaskAllocFast()); }

// Runs `sql` on the database at `path`; the first column of its first row, "" if none.
inline std::string QueryOne(const std::string& path, const char* sql) {
  sqlite3* db = nullptr;
  std::string out;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
    sqlite3_exec(db, sql, [](void* o, int, char** v, char**) {
      *static_cast<std::string*>(o) = v[0] ? v[0] : "";
      return 1;  // the first row is enough
    }, &out, nullptr);
  }
  sqlite3_close(db);
  return out;
}

// The detached runners of a test must be gone before its root is removed.
inline void WaitForRunners(const std::string& root) {
  const auto gone = [&] { return Spawn({"/usr/bin/pgrep", "-f", root}, root).status == 1; };
  if (!WaitFor(gone, 30)) ADD_FAILURE() << "runners still alive for " << root;
}

}  // namespace orvatest
