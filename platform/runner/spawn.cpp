// Starting orva-schedrun (see spawn.h) and where its program is.
#include "spawn.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/root.h"
#include "internal.h"

namespace {

// $ORVA_SCHEDRUN (tests and benchmarks only), else the system root's orva-schedrun.
std::string RunnerPath() {
  const char* env = getenv("ORVA_SCHEDRUN");
  if (env && *env) return env;
  return ORVA::ORVAPathMap("/usr/orva/bin/orva-schedrun");
}

// What the two children tell the caller through the status pipe.
struct Note {
  int what;  // kRunnerPid or kExecErrno
  int value;
};
enum { kRunnerPid, kExecErrno };

void Tell(int fd, int what, int value) {
  const Note n = {what, value};
  (void)!write(fd, &n, sizeof(n));  // smaller than PIPE_BUF: one piece
}

}  // namespace

namespace orva_sched {

pid_t StartRunner(const std::vector<std::string>& args) {
  std::vector<std::string> strings;
  strings.push_back(RunnerPath());
  strings.insert(strings.end(), args.begin(), args.end());
  strings.push_back("--root");
  strings.push_back(ORVA::ORVARootGet());
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);
  const std::string& program = strings.front();

  int pfd[2];
  if (pipe2(pfd, O_CLOEXEC) != 0) {
    syslog(LOG_ERR, "%s:%d pipe failed: %m", __FILE_NAME__, __LINE__);
    SCHED_ERR(ORVA_SCHED_ERR_RUN);
    return -1;
  }
  // A caller with closed standard descriptors would get the pipe among 0-2, which
  // the runner points at /dev/null; keep it above them.
  for (int& fd : pfd) {
    if (fd < 3) {
      int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
      close(fd);
      fd = moved;
    }
  }
  if (pfd[0] < 0 || pfd[1] < 0) {
    syslog(LOG_ERR, "%s:%d dup failed: %m", __FILE_NAME__, __LINE__);
    if (pfd[0] >= 0) close(pfd[0]);
    if (pfd[1] >= 0) close(pfd[1]);
    SCHED_ERR(ORVA_SCHED_ERR_RUN);
    return -1;
  }
  pid_t pid = fork();
  if (pid < 0) {
    syslog(LOG_ERR, "%s:%d fork failed: %m", __FILE_NAME__, __LINE__);
    close(pfd[0]);
    close(pfd[1]);
    SCHED_ERR(ORVA_SCHED_ERR_RUN);
    return -1;
  }
  if (pid == 0) {
    // Only async-signal-safe calls from here on: the caller may have threads.
    setsid();
    pid_t runner = fork();
    if (runner != 0) {
      Tell(pfd[1], runner < 0 ? kExecErrno : kRunnerPid, runner < 0 ? errno : runner);
      _exit(0);
    }
    int devnull = open("/dev/null", O_RDWR);
    if (devnull >= 0) {
      dup2(devnull, 0);
      dup2(devnull, 1);
      dup2(devnull, 2);
    }
    // Nothing of the caller's (sockets, the database) reaches the runner; the status
    // pipe moves to descriptor 3 and closes on exec.
    if (pfd[1] != 3) {
      dup2(pfd[1], 3);
      pfd[1] = 3;
    }
    fcntl(3, F_SETFD, FD_CLOEXEC);
    close_range(4, ~0U, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
    execv(argv[0], argv.data());
    Tell(pfd[1], kExecErrno, errno);
    _exit(127);
  }
  close(pfd[1]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  // The pipe ends when the runner has been executed (close on exec) or has failed.
  pid_t runner = -1;
  int err = 0;
  Note n;
  ssize_t got;
  while ((got = read(pfd[0], &n, sizeof(n))) != 0) {
    if (got < 0) {
      if (errno == EINTR) continue;
      err = errno;
      break;
    }
    if (got != sizeof(n)) {
      err = EIO;
      break;
    }
    if (n.what == kRunnerPid) {
      runner = n.value;
    } else {
      err = n.value;
    }
  }
  close(pfd[0]);
  if (err != 0 || runner <= 0) {
    syslog(LOG_ERR, "%s:%d cannot start %s: %s", __FILE_NAME__, __LINE__, program.c_str(),
           strerror(err ? err : ECHILD));
    SCHED_ERR(ORVA_SCHED_ERR_RUN);
    return -1;
  }
  return runner;
}

}  // namespace orva_sched
