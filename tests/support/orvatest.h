// Shared by every test (header only): a temporary system root, JSON parsing, waiting, programs
// started or run to completion with their output in files, and test accounts.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
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
#include <functional>
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

// `text` parsed, null when it is not JSON (`errs` says why); `strict` also refuses trailing
// bytes and duplicate keys.
inline Json::Value TryParseJson(const std::string& text, bool strict = false, std::string* errs = nullptr) {
  Json::CharReaderBuilder b;
  if (strict) b.strictMode(&b.settings_);
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  Json::Value v;
  std::string e;
  if (!r->parse(text.data(), text.data() + text.size(), &v, &e)) v = Json::Value();
  if (errs) *errs = e;
  return v;
}

// The same, failing the test on bad JSON.
inline Json::Value ParseJson(const std::string& text, bool strict = false) {
  std::string errs;
  Json::Value v = TryParseJson(text, strict, &errs);
  if (!errs.empty()) ADD_FAILURE() << "bad JSON: " << text << errs;
  return v;
}

inline std::string WriteJson(const Json::Value& v) {
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  return Json::writeString(b, v);
}

// {"api": .., "version": .., "method": .., "params": ..}
inline std::string Envelope(const std::string& api, int version, const std::string& method,
                            const Json::Value& params = Json::Value(Json::objectValue)) {
  Json::Value e;
  e["api"] = api;
  e["version"] = version;
  e["method"] = method;
  e["params"] = params;
  return WriteJson(e);
}

// Polls `done` every 50 ms for up to `seconds`; true once it held.
inline bool WaitFor(const std::function<bool()>& done, double seconds = 10) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (;; std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
  }
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
  Json::Value json;  // `out` parsed, null when it is not JSON
};

inline int ExitStatus(int st) { return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st); }

// Starts argv[0] (a path) with no input and its output in the files `out` and `err`; -1 on failure.
inline pid_t SpawnTo(const std::vector<std::string>& argv, const std::string& out, const std::string& err) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&fa);
  return pid;
}

// Runs argv[0] to completion; `dir` receives the two capture files.
inline Result Spawn(const std::vector<std::string>& argv, const std::string& dir) {
  const std::string outFile = dir + "/.stdout", errFile = dir + "/.stderr";
  Result r;
  if (const pid_t pid = SpawnTo(argv, outFile, errFile); pid > 0) {
    int st = 0;
    waitpid(pid, &st, 0);
    r.status = ExitStatus(st);
  }
  r.out = Slurp(outFile);
  r.err = Slurp(errFile);
  r.json = TryParseJson(r.out);
  return r;
}

// SIGTERM, then SIGKILL after `seconds`; the exit status, -1 when it had to be killed.
inline int Stop(pid_t pid, double seconds = 15) {
  if (pid <= 0) return -1;
  kill(pid, SIGTERM);
  int st = 0;
  if (WaitFor([&] { return waitpid(pid, &st, WNOHANG) == pid; }, seconds)) return ExitStatus(st);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
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

// A local account made for one test ("orvat" + a unique suffix) with its own primary group
// and, if asked, one extra group; removed at scope end.
class TestUser {
 public:
  explicit TestUser(const std::string& password = "", bool extraGroup = false) {
    static std::atomic<int> counter{0};
    name_ = "orvat" + std::to_string(getpid()) + "u" + std::to_string(counter++);
    if (extraGroup) group_ = name_ + "g";
    if (extraGroup && !RunRetried("groupadd '" + group_ + "'")) {
      ADD_FAILURE() << "groupadd " << group_ << " failed";
      return;
    }
    if (!RunRetried("useradd -M -d /nonexistent -s /bin/sh -U " + (extraGroup ? "-G '" + group_ + "' '" : "'") +
                    name_ + "'")) {
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
    if (group* gr = extraGroup ? getgrnam(group_.c_str()) : nullptr) extraGid_ = gr->gr_gid;
  }
  ~TestUser() {
    if (getpwnam(name_.c_str()) != nullptr && !RunRetried("userdel '" + name_ + "'")) {
      ADD_FAILURE() << "userdel " << name_ << " failed";
    }
    if (!group_.empty() && getgrnam(group_.c_str()) != nullptr && !RunRetried("groupdel '" + group_ + "'")) {
      ADD_FAILURE() << "groupdel " << group_ << " failed";
    }
  }
  TestUser(const TestUser&) = delete;
  TestUser& operator=(const TestUser&) = delete;
  bool Ok() const { return uid_ != 0; }
  const std::string& Name() const { return name_; }
  uid_t Uid() const { return uid_; }
  gid_t Gid() const { return gid_; }
  gid_t ExtraGid() const { return extraGid_; }

 private:
  std::string name_, group_;
  uid_t uid_ = 0;
  gid_t gid_ = 0, extraGid_ = 0;
};

}  // namespace orvatest
