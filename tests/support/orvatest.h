// Shared by every test (header only): a temporary system root, JSON parsing that fails the
// test, a program run to completion with its exit status and output, and test accounts.
#pragma once

#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/root.h"

extern char** environ;

namespace orvatest {

inline std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Fails the test on bad JSON; `strict` also refuses trailing bytes and duplicate keys.
inline Json::Value ParseJson(const std::string& text, bool strict = false) {
  Json::CharReaderBuilder b;
  if (strict) b.strictMode(&b.settings_);
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  Json::Value v;
  std::string errs;
  if (!r->parse(text.data(), text.data() + text.size(), &v, &errs)) ADD_FAILURE() << "bad JSON: " << text << errs;
  return v;
}

// A fresh system root (ORVARootSet and ORVA_ROOT) for one test, removed afterwards.
class TempRoot {
 public:
  explicit TempRoot(const std::string& tag = "orva-test") {
    std::string tmpl = "/tmp/" + tag + "-XXXXXX";
    if (mkdtemp(tmpl.data())) path_ = tmpl;
    EXPECT_FALSE(path_.empty()) << "mkdtemp " << tmpl;
    ORVA::ORVARootSet(path_);
    setenv("ORVA_ROOT", path_.c_str(), 1);
  }
  ~TempRoot() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;
  const std::string& path() const { return path_; }
  // The real path of an appliance path ("/etc/orva/x" or "etc/orva/x") under this root.
  std::string Real(const std::string& path) const { return path_ + (path.rfind('/', 0) == 0 ? "" : "/") + path; }
  // Writes `content` to an appliance path, creating its folders.
  void Write(const std::string& path, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(Real(path)).parent_path());
    std::ofstream(Real(path), std::ios::binary | std::ios::trunc) << content;
  }
  std::string Read(const std::string& path) const { return Slurp(Real(path)); }

 private:
  std::string path_;
};

struct Result {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

// Runs argv[0] (a path) to completion; `dir` receives the two capture files.
inline Result Spawn(const std::vector<std::string>& argv, const std::string& dir) {
  const std::string outFile = dir + "/.stdout", errFile = dir + "/.stderr";
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&fa, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = 0;
  Result r;
  if (posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ) == 0) {
    int st = 0;
    waitpid(pid, &st, 0);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  }
  posix_spawn_file_actions_destroy(&fa);
  r.out = Slurp(outFile);
  r.err = Slurp(errFile);
  return r;
}

// "[a][b]": an argument list as a trace label.
inline std::string Shown(const std::vector<std::string>& args) {
  std::string s;
  for (const std::string& a : args) s += "[" + a + "]";
  return s;
}

// Runs a shell command until it succeeds (useradd and friends refuse while another holds
// the account files' lock); true when it did.
inline bool RunRetried(const std::string& command) {
  for (int i = 0; i < 50; ++i) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) == 0) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

// A local account made for one test ("orvat" + a unique suffix), removed afterwards.
class TestUser {
 public:
  explicit TestUser(const std::string& password = "") {
    static std::atomic<int> counter{0};
    name_ = "orvat" + std::to_string(getpid()) + "u" + std::to_string(counter++);
    if (!RunRetried("useradd -M -s /bin/sh '" + name_ + "'")) {
      ADD_FAILURE() << "useradd " << name_ << " failed";
      return;
    }
    if (!password.empty()) {
      FILE* p = popen("chpasswd", "w");
      if (p != nullptr) fprintf(p, "%s:%s\n", name_.c_str(), password.c_str());
      if (p == nullptr || pclose(p) != 0) {
        ADD_FAILURE() << "chpasswd failed";
        return;
      }
    }
    if (passwd* pw = getpwnam(name_.c_str())) {
      uid_ = pw->pw_uid;
      gid_ = pw->pw_gid;
    }
  }
  ~TestUser() {
    if (getpwnam(name_.c_str()) != nullptr && !RunRetried("userdel '" + name_ + "'")) {
      ADD_FAILURE() << "userdel " << name_ << " failed";
    }
  }
  TestUser(const TestUser&) = delete;
  TestUser& operator=(const TestUser&) = delete;
  bool Ok() const { return uid_ != 0; }
  const std::string& Name() const { return name_; }
  uid_t Uid() const { return uid_; }
  gid_t Gid() const { return gid_; }

 private:
  std::string name_;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
};

}  // namespace orvatest
