// Runs a program to completion and captures its exit status, stdout and stderr.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace tooltest {

struct Result {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

inline std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// `dir` receives the two capture files.
inline Result Spawn(const std::vector<std::string>& argv, const std::string& dir) {
  const std::string outFile = dir + "/.stdout";
  const std::string errFile = dir + "/.stderr";
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&fa, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char*> args;
  for (const std::string& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
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

}  // namespace tooltest
