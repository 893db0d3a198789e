// Helpers of the store's tests: a temporary system root, real test accounts, records.
#pragma once

#include <dirent.h>
#include <grp.h>
#include <pwd.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "scheduler/record.h"
#include "orvatest.h"

namespace orva_test {

// A fresh system root for one test; runners are found by its path on their command line.
struct TempRoot : orvatest::TempRoot {
  TempRoot() : orvatest::TempRoot("orva-store-test") {}
};

inline int Shell(const std::string& cmd) {
  int rc = system(cmd.c_str());
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

// Polls `done` every 100 ms, up to `tries` times.
inline bool WaitFor(const std::function<bool()>& done, int tries = 50) {
  for (int i = 0; i < tries; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(100))) {
    if (done()) return true;
  }
  return false;
}

// A real account "orvat<pid><tag>" with its own primary group and one extra group,
// created for the test and deleted afterwards. useradd and groupadd lock /etc/passwd
// and tests run in parallel, so each step is retried.
class TestUser {
 public:
  explicit TestUser(const std::string& tag) : name_("orvat" + std::to_string(getpid()) + tag), group_(name_ + "g") {
    WaitFor([&] { return Shell("groupadd " + group_ + " 2>/dev/null") == 0 || getgrnam(group_.c_str()); });
    WaitFor([&] {
      return Shell("useradd -M -d /nonexistent -s /bin/sh -U -G " + group_ + " " + name_ + " 2>/dev/null") == 0 ||
             getpwnam(name_.c_str());
    });
    struct passwd* pw = getpwnam(name_.c_str());
    EXPECT_NE(pw, nullptr) << "cannot create test user " << name_;
    if (pw) uid_ = pw->pw_uid, gid_ = pw->pw_gid;
    if (struct group* gr = getgrnam(group_.c_str())) extraGid_ = gr->gr_gid;
  }
  ~TestUser() { Remove(); }
  void Remove() {
    if (std::exchange(removed_, true)) return;
    WaitFor([&] { return Shell("userdel " + name_ + " 2>/dev/null") == 0 || !getpwnam(name_.c_str()); });
    WaitFor([&] { return Shell("groupdel " + group_ + " 2>/dev/null") == 0 || !getgrnam(group_.c_str()); });
  }
  const std::string& name() const { return name_; }
  const char* c_str() const { return name_.c_str(); }
  uid_t uid() const { return uid_; }
  gid_t gid() const { return gid_; }
  gid_t extraGid() const { return extraGid_; }

 private:
  std::string name_, group_;
  uid_t uid_ = 0;
  gid_t gid_ = 0, extraGid_ = 0;
  bool removed_ = false;
};

// A record from the store's allocator, freed at scope end.
struct Task {
  Task() : t(ORVASchedTaskAllocFast()) {}
  ~Task() { ORVASchedTaskFree(t); }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  ORVA_SCHED_TASK* operator->() { return t; }
  ORVA_SCHED_TASK& operator*() { return *t; }
  ORVA_SCHED_TASK* t;
};

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
    found = orvatest::Slurp(std::string("/proc/") + e->d_name + "/cmdline").find(text) != std::string::npos;
  }
  if (proc) closedir(proc);
  return found;
}

// The detached runners of a test must be gone (up to 30 s) before its root is removed.
inline void WaitForRunners(const std::string& root) {
  if (!WaitFor([&] { return !AnyProcessMentions(root); }, 300)) ADD_FAILURE() << "runners still alive for " << root;
}

}  // namespace orva_test
