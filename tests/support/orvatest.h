// Shared by the platform and tool tests (header only): a temporary system root, and a program run
// to completion with its exit status, stdout and stderr.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/root.h"

extern char** environ;

namespace orvatest {

inline std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
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

}  // namespace orvatest
