// Helpers of the store's and runner's tests: records, the database read directly, and
// detached runners waited for.
#pragma once

#include <dirent.h>
#include <sqlite3.h>

#include <string>

#include "orvatest.h"
#include "scheduler/task_ptr.h"

namespace orvatest {

inline ORVASchedTaskPtr NewTask() { return ORVASchedTaskPtr(ORVASchedTaskAllocFast()); }

// The first column of the first row of `sql` on the database at `path`, "" if none.
inline std::string QueryOne(const std::string& path, const char* sql) {
  sqlite3* db = nullptr;
  std::string out;
  sqlite3_stmt* st = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
      sqlite3_prepare_v2(db, sql, -1, &st, nullptr) == SQLITE_OK && sqlite3_step(st) == SQLITE_ROW &&
      sqlite3_column_text(st, 0)) {
    out = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
  return out;
}

// True while some other process has `text` on its command line.
inline bool AnyProcessMentions(const std::string& text) {
  DIR* proc = opendir("/proc");
  bool found = false;
  while (struct dirent* e = proc && !found ? readdir(proc) : nullptr) {
    if (e->d_name[0] < '1' || e->d_name[0] > '9' || atoi(e->d_name) == getpid()) continue;
    found = Slurp(std::string("/proc/") + e->d_name + "/cmdline").find(text) != std::string::npos;
  }
  if (proc) closedir(proc);
  return found;
}

// The detached runners of a test must be gone before its root is removed.
inline void WaitForRunners(const std::string& root) {
  if (!WaitFor([&] { return !AnyProcessMentions(root); }, 30)) ADD_FAILURE() << "runners still alive for " << root;
}

}  // namespace orvatest
