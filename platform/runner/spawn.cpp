// Starting orva-schedrun (see spawn.h) and where its program is.
#include "spawn.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/root.h"
#include "core/log.h"
#include "internal.h"

namespace {

// $ORVA_SCHEDRUN (tests and benchmarks only), else the system root's orva-schedrun.
std::string RunnerPath() {
  const char* env = getenv("ORVA_SCHEDRUN");
  if (env && *env) return env;
  return ORVA::ORVAPathMap("/usr/orva/bin/orva-schedrun");
}

// Shared by the caller and both children: they run in the caller's memory (CLONE_VM),
// each on a stack of its own, while the caller's thread waits (CLONE_VFORK).
struct Start {
  char* const* argv;
  char* runnerStack;   // top of the runner's stack
  volatile pid_t runner = -1;
  volatile int err = 0;  // why the runner could not be started or executed
};

constexpr size_t kStackSize = 64 * 1024;

// The children call nothing but system calls: they share the memory of a caller that
// may have other threads running (no locks, no allocation), and they are not
// instrumented, so that they leave nothing in the sanitizers' bookkeeping.
__attribute__((no_sanitize("address", "undefined"))) int RunnerMain(void* p) {
  Start* s = static_cast<Start*>(p);
  int devnull = open("/dev/null", O_RDWR);
  if (devnull >= 0) {
    dup2(devnull, 0);
    dup2(devnull, 1);
    dup2(devnull, 2);
  }
  // Nothing of the caller's (sockets, the database) reaches the runner.
  close_range(3, ~0U, 0);
  for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  execv(s->argv[0], s->argv);
  s->err = errno;
  _exit(127);
}

// Leaves the runner in a session of its own and exits, so the runner is reparented
// (to init, or to the nearest child subreaper) and is never the caller's to reap.
__attribute__((no_sanitize("address", "undefined"))) int MiddleMain(void* p) {
  Start* s = static_cast<Start*>(p);
  setsid();
  // Returns once the runner has been executed or has exited.
  pid_t pid = clone(RunnerMain, s->runnerStack, CLONE_VM | CLONE_VFORK | SIGCHLD, s);
  if (pid < 0) {
    s->err = errno;
  } else {
    s->runner = pid;
  }
  _exit(0);
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

  // A double fork without copying the caller's memory: the daemon starts thousands of
  // runners a minute from several threads, and fork() would copy its page tables
  // twice for each (and make its threads fault on every page they write after it).
  void* stacks = mmap(nullptr, 2 * kStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (stacks == MAP_FAILED) {
    ORVA_LOG(LOG_ERR, "cannot start %s: %m", program.c_str());
    SCHED_ERR(ORVA_SCHED_ERR_RUN);
    return -1;
  }
  Start start;
  start.argv = argv.data();
  start.runnerStack = static_cast<char*>(stacks) + 2 * kStackSize;
  // No signal handler of the caller may run in a child on the shared memory.
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  pid_t middle = clone(MiddleMain, static_cast<char*>(stacks) + kStackSize, CLONE_VM | CLONE_VFORK | SIGCHLD, &start);
  int cloneErr = errno;
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (middle > 0) {
    while (waitpid(middle, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  munmap(stacks, 2 * kStackSize);
  int err = middle < 0 ? cloneErr : start.err;
  if (err != 0 || start.runner <= 0) {
    ORVA_LOG(LOG_ERR, "cannot start %s: %s", program.c_str(),
           strerror(err ? err : ECHILD));
    SCHED_ERR(ORVA_SCHED_ERR_RUN);
    return -1;
  }
  return start.runner;
}

}  // namespace orva_sched
