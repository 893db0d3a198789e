// Running a command line.
#include "core/shell.h"

#include <errno.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ORVA {

int RunShell(const std::string& command, const std::function<void()>& inChild) {
  fflush(nullptr);  // what was printed so far comes before the command's output
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    if (inChild) inChild();
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

}  // namespace ORVA
