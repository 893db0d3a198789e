// Helpers of the store's tests: a temporary system root and real test accounts.
#pragma once

#include <dirent.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "core/root.h"
#include "scheduler/task.h"

namespace orva_test {

inline int Shell(const std::string& cmd) {
  int rc = system(cmd.c_str());
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

// A fresh system root for one test, removed afterwards.
class TempRoot {
 public:
  TempRoot() {
    char tmpl[] = "/tmp/orva-store-test-XXXXXX";
    const char* dir = mkdtemp(tmpl);
    EXPECT_NE(dir, nullptr);
    path_ = dir ? dir : "/tmp";
    ORVA::ORVARootSet(path_);
    setenv("ORVA_ROOT", path_.c_str(), 1);
  }
  ~TempRoot() {
    if (path_.rfind("/tmp/orva-store-test-", 0) == 0) Shell("rm -rf '" + path_ + "'");
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A real account "orvat<pid><tag>" with its own primary group and one extra group,
// created for the test and deleted afterwards.
class TestUser {
 public:
  explicit TestUser(const std::string& tag) {
    name_ = "orvat" + std::to_string(getpid()) + tag;
    group_ = name_ + "g";
    // useradd and groupadd lock /etc/passwd; tests run in parallel, so retry.
    for (int i = 0; i < 50; ++i) {
      if (Shell("groupadd " + group_ + " 2>/dev/null") == 0 || getgrnam(group_.c_str())) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    for (int i = 0; i < 50; ++i) {
      if (Shell("useradd -M -d /nonexistent -s /bin/sh -U -G " + group_ + " " + name_ + " 2>/dev/null") == 0 ||
          getpwnam(name_.c_str())) {
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    struct passwd* pw = getpwnam(name_.c_str());
    EXPECT_NE(pw, nullptr) << "cannot create test user " << name_;
    if (pw) {
      uid_ = pw->pw_uid;
      gid_ = pw->pw_gid;
    }
    struct group* gr = getgrnam(group_.c_str());
    if (gr) extraGid_ = gr->gr_gid;
  }
  ~TestUser() { Remove(); }
  void Remove() {
    if (removed_) return;
    removed_ = true;
    for (int i = 0; i < 50; ++i) {
      if (Shell("userdel " + name_ + " 2>/dev/null") == 0 || !getpwnam(name_.c_str())) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    for (int i = 0; i < 50; ++i) {
      if (Shell("groupdel " + group_ + " 2>/dev/null") == 0 || !getgrnam(group_.c_str())) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  const std::string& name() const { return name_; }
  const char* c_str() const { return name_.c_str(); }
  uid_t uid() const { return uid_; }
  gid_t gid() const { return gid_; }
  gid_t extraGid() const { return extraGid_; }

 private:
  std::string name_, group_;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
  gid_t extraGid_ = 0;
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

// Waits (up to 30 s) until no process has `root` on its command line: the detached
// runners of a test must be gone before its root is removed.
inline bool AnyProcessMentions(const std::string& text) {
  DIR* proc = opendir("/proc");
  bool found = false;
  while (struct dirent* e = proc ? readdir(proc) : nullptr) {
    if (e->d_name[0] < '1' || e->d_name[0] > '9' || atoi(e->d_name) == getpid()) continue;
    std::ifstream in(std::string("/proc/") + e->d_name + "/cmdline");
    std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (cmdline.find(text) != std::string::npos) {
      found = true;
      break;
    }
  }
  if (proc) closedir(proc);
  return found;
}

inline void WaitForRunners(const std::string& root) {
  for (int i = 0; i < 300; ++i) {
    if (!AnyProcessMentions(root)) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ADD_FAILURE() << "runners still alive for " << root;
}

inline std::string Repeat(char c, size_t n) { return std::string(n, c); }

}  // namespace orva_test
