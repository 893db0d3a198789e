// What the programs share: their command line and running a shell command.
#include "core/program.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/root.h"

namespace ORVA {

int GetOpt(int argc, char** argv, const char* shortopts, const option* longopts, bool longOnly) {
  for (;;) {
    const int c = (longOnly ? getopt_long_only : getopt_long)(argc, argv, shortopts, longopts, nullptr);
    if (c != kOptRoot) return c;
    ORVARootSet(optarg);
  }
}

bool ParseLong(const char* text, long min, long max, long* out) {
  char* end = nullptr;
  errno = 0;
  const long v = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < min || v > max) return false;
  *out = v;
  return true;
}

int RunShell(const std::string& command, const std::function<void()>& inChild) {
  fflush(nullptr);  // what was printed so far comes before the command's output
  const pid_t pid = fork();
  if (pid == 0) {
    if (inChild) inChild();
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  while (pid > 0 && waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return pid < 0 ? -1 : status;
}

}  // namespace ORVA
