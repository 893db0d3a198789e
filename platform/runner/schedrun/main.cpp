// orva-schedrun: one run of a task. Honours the concurrency flags with lock files,
// runs the command as the task's owner in the appliance's mount namespace, and records
// the run (start, end, exit code or signal, the tail of the output) in the store.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>

#include "core/file.h"
#include "core/kelc.h"
#include "core/log.h"
#include "core/program.h"
#include "core/root.h"
#include "scheduler/event_task.h"
#include "scheduler/run_log.h"
#include "scheduler/store.h"
#include "scheduler/task_ptr.h"

namespace {

const char kSafePath[] = "/usr/orva/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

void Usage(FILE* out) {
  fprintf(out,
          "usage: orva-schedrun [--root DIR] ID... --trigger manual|schedule|event\n"
          "       orva-schedrun [--root DIR] --event-task ID [--trigger event]\n"
          "Runs a stored task once, as its owner, and records the run. Several IDs: each\n"
          "task is run by a process of its own, and this one returns once they have started.\n");
}

// What one run needs to know about its task.
struct Job {
  int kind = ORVA_SCHED_RUN_TASK;
  long id = 0;
  std::string command;
  uid_t uid = 0;
  std::string app;
  bool canRunTaskSameTime = false;
  bool canRunAppSameTime = true;
};

bool ParseId(const char* text, long& id) { return ORVA::ParseLong(text, 1, LONG_MAX, &id); }

bool LoadJob(Job& job) {
  if (job.kind == ORVA_SCHED_RUN_EVENT_TASK) {
    ORVASchedEventTask t;
    if (ORVASchedEventTaskLoad(job.id, t) != 0) return false;
    job.command = t.script;
    job.uid = t.owner;
    job.app = "event-task";
    job.canRunTaskSameTime = false;
    return true;
  }
  ORVASchedTaskPtr t(ORVASchedTaskAllocFast());
  if (!t || ORVASchedTaskLoad(job.id, t.get()) != 0) return false;
  job.command = ORVASchedTaskGetCommand(*t);
  // A user's task always runs as that user.
  job.uid = ORVASchedTaskGetMarker(*t) == ORVA_SCHED_MARKER_BY_USER ? ORVASchedTaskGetRealOwner(*t)
                                                                      : ORVASchedTaskGetOwner(*t);
  job.app = ORVASchedTaskGetApp(*t);
  job.canRunTaskSameTime = ORVASchedTaskIsCanRunTaskSameTime(*t);
  job.canRunAppSameTime = ORVASchedTaskIsCanRunAppSameTime(*t);
  return true;
}

// Takes a lock file of the folder run/orva/scheduler; false when another run holds it.
bool Lock(const std::string& name, bool exclusive, int& fd, std::string& error) {
  std::string dir = ORVA::ORVAPathMap("/run/orva/scheduler");
  if (!ORVA::MakeDirs(dir, 0755)) {
    error = "cannot create " + dir + ": " + strerror(errno);
    fd = -1;
    return false;
  }
  std::string path = dir + "/" + name + ".lock";
  fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    error = "cannot open " + path + ": " + strerror(errno);
    return false;
  }
  if (flock(fd, (exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) != 0) {
    error = errno == EWOULDBLOCK ? "" : "cannot lock " + path + ": " + strerror(errno);
    close(fd);
    fd = -1;
    return false;
  }
  return true;
}

std::string LockName(const std::string& app) {
  std::string out = "app-";
  for (char c : app) out += (isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-') ? c : '_';
  return out;
}

[[noreturn]] void ChildFail(const char* what) {
  dprintf(2, "orva-schedrun: %s: %s\n", what, strerror(errno));
  _exit(126);
}

bool WriteFile(const char* path, const std::string& text) {
  int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return ok;
}

// Puts the command in a private mount namespace in which $ROOT/usr/orva is /usr/orva.
void EnterNamespace(const std::string& root, bool privileged) {
  if (root == "/") return;
  if (privileged) {
    if (unshare(CLONE_NEWNS) != 0) ChildFail("unshare(CLONE_NEWNS)");
  } else {
    // An unprivileged runner may only run its own user's tasks; a user namespace
    // that maps the user to itself lets it bind the folder.
    uid_t uid = getuid();
    gid_t gid = getgid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) ChildFail("unshare(CLONE_NEWUSER|CLONE_NEWNS)");
    if (!WriteFile("/proc/self/setgroups", "deny") ||
        !WriteFile("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1") ||
        !WriteFile("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1")) {
      ChildFail("user namespace map");
    }
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) ChildFail("make mounts private");
  std::string source = root + "/usr/orva";
  if (!ORVA::MakeDirs(source, 0755)) ChildFail("create the root's usr/orva");
  if (!ORVA::MakeDirs("/usr/orva", 0755)) ChildFail("create the mount point /usr/orva");
  if (mount(source.c_str(), "/usr/orva", nullptr, MS_BIND | MS_REC, nullptr) != 0) ChildFail("bind /usr/orva");
}

// In the child: become the owner, or die. Never runs a command as root by mistake.
void DropPrivileges(const struct passwd& pw) {
  if (geteuid() != 0) {
    if (pw.pw_uid != geteuid()) {
      errno = EPERM;
      ChildFail("not root: cannot run a task of another user");
    }
    return;
  }
  if (setgid(pw.pw_gid) != 0) ChildFail("setgid");
  if (initgroups(pw.pw_name, pw.pw_gid) != 0) ChildFail("initgroups");
  if (setuid(pw.pw_uid) != 0) ChildFail("setuid");
  if (pw.pw_uid != 0) {
    errno = EPERM;
    if (getuid() != pw.pw_uid || geteuid() != pw.pw_uid || getgid() != pw.pw_gid || getegid() != pw.pw_gid) {
      ChildFail("privileges not dropped");
    }
    if (setuid(0) == 0 || seteuid(0) == 0) ChildFail("root could be regained");
  }
}

[[noreturn]] void RunChild(const Job& job, const struct passwd& pw, int outFd, const std::string& lang) {
  // Its own session and process group, so that a stop reaches everything it started.
  setsid();
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  int devnull = open("/dev/null", O_RDONLY);
  if (devnull < 0 || dup2(devnull, 0) < 0 || dup2(outFd, 1) < 0 || dup2(outFd, 2) < 0) _exit(126);
  bool privileged = geteuid() == 0;
  EnterNamespace(ORVA::ORVARootGet(), privileged);
  DropPrivileges(pw);
  clearenv();
  setenv("HOME", pw.pw_dir && *pw.pw_dir ? pw.pw_dir : "/", 1);
  setenv("USER", pw.pw_name, 1);
  setenv("LOGNAME", pw.pw_name, 1);
  setenv("SHELL", pw.pw_shell && *pw.pw_shell ? pw.pw_shell : "/bin/sh", 1);
  setenv("PATH", kSafePath, 1);
  setenv("LANG", lang.c_str(), 1);
  // Tools named in commands (/usr/orva/bin/...) read etc/orva and var/lib/orva of the
  // same system root the task came from, not the host's.
  if (ORVA::ORVARootGet() != "/") setenv("ORVA_ROOT", ORVA::ORVARootGet().c_str(), 1);
  if (chdir(pw.pw_dir && *pw.pw_dir ? pw.pw_dir : "/") != 0 && chdir("/") != 0) ChildFail("chdir");
  umask(022);
  close_range(3, ~0U, 0);
  execl("/bin/sh", "sh", "-c", job.command.c_str(), static_cast<char*>(nullptr));
  dprintf(2, "orva-schedrun: exec /bin/sh: %s\n", strerror(errno));
  _exit(127);
}

// The signals the runner takes through a signalfd: stop requests and the command's end.
sigset_t RunnerSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) sigaddset(&set, sig);
  return set;
}

int64_t NowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Grace between SIGTERM and SIGKILL when a run is stopped.
constexpr int64_t kStopGraceMs = 3000;
// Output reaches the run's row at most this often while the command runs.
constexpr int64_t kFlushMs = 1000;

struct Outcome {
  int status = 0;
  bool stopped = false;
  std::string output;  // the last ORVA_SCHED_RUN_OUTPUT_MAX bytes
  bool truncated = false;
};

// Reads the command's output until it ends, keeping the last bytes and writing them
// into the run's row when new output came (at most once a second). A stop request
// (SIGTERM, SIGINT, SIGHUP to the runner) ends the command's process group: SIGTERM,
// SIGKILL after the grace period.
Outcome Supervise(int64_t runId, pid_t child, int outFd, int sigFd) {
  Outcome o;
  bool pipeOpen = true, childDone = false, dirty = false;
  int64_t lastFlush = NowMs(), killAt = -1, giveUpAt = -1;
  char buf[16384];
  auto keep = [&](const char* data, size_t n) {
    o.output.append(data, n);
    if (o.output.size() > 2 * ORVA_SCHED_RUN_OUTPUT_MAX) {
      o.output.erase(0, o.output.size() - ORVA_SCHED_RUN_OUTPUT_MAX);
      o.truncated = true;
    }
  };
  while (pipeOpen || !childDone) {
    int64_t now = NowMs();
    int64_t wake = -1;
    auto soonest = [&](int64_t t) {
      if (t >= 0 && (wake < 0 || t < wake)) wake = t;
    };
    if (dirty) soonest(lastFlush + kFlushMs);
    if (killAt >= 0) soonest(killAt);
    if (giveUpAt >= 0) soonest(giveUpAt);
    struct pollfd fds[2] = {{sigFd, POLLIN, 0}, {pipeOpen ? outFd : -1, POLLIN, 0}};
    int timeout = wake < 0 ? -1 : static_cast<int>(std::max<int64_t>(0, wake - now));
    if (poll(fds, 2, timeout) < 0 && errno != EINTR) break;
    if (fds[1].revents) {
      ssize_t n = read(outFd, buf, sizeof(buf));
      if (n > 0) {
        keep(buf, static_cast<size_t>(n));
        dirty = true;
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        pipeOpen = false;
      }
    }
    if (fds[0].revents) {
      struct signalfd_siginfo si;
      while (read(sigFd, &si, sizeof(si)) == static_cast<ssize_t>(sizeof(si))) {
        if (si.ssi_signo != SIGCHLD && !o.stopped) {
          o.stopped = true;
          ORVA_LOG(LOG_NOTICE, "stop requested (signal %u from pid %u): ending process group %d", si.ssi_signo,
                   si.ssi_pid, static_cast<int>(child));
          kill(-child, SIGTERM);
          killAt = NowMs() + kStopGraceMs;
        }
      }
    }
    if (!childDone) {
      int st = 0;
      if (waitpid(child, &st, WNOHANG) == child) {
        childDone = true;
        o.status = st;
      }
    }
    now = NowMs();
    if (killAt >= 0 && now >= killAt) {
      kill(-child, SIGKILL);
      killAt = -1;
      giveUpAt = now + kStopGraceMs;
    }
    // A process that left the group may hold the pipe open for good.
    if (giveUpAt >= 0 && now >= giveUpAt && childDone) break;
    if (dirty && pipeOpen && now - lastFlush >= kFlushMs) {
      std::string tail = o.output.size() > ORVA_SCHED_RUN_OUTPUT_MAX
                             ? o.output.substr(o.output.size() - ORVA_SCHED_RUN_OUTPUT_MAX)
                             : o.output;
      ORVASchedRunSetOutput(runId, tail, o.truncated || tail.size() < o.output.size());
      lastFlush = now;
      dirty = false;
    }
  }
  if (o.output.size() > ORVA_SCHED_RUN_OUTPUT_MAX) {
    o.output.erase(0, o.output.size() - ORVA_SCHED_RUN_OUTPUT_MAX);
    o.truncated = true;
  }
  return o;
}

int Run(Job& job, const char* trigger) {
  const char* what = job.kind == ORVA_SCHED_RUN_TASK ? "task" : "event task";
  if (!LoadJob(job)) {
    ORVA_LOG(LOG_ERR, "cannot load %s %ld [0x%04X %s:%d]", what, job.id, KELCErrGet(), KELCErrorGetFile(),
             KELCErrorGetLine());
    return 1;
  }
  struct passwd* found = getpwuid(job.uid);
  if (!found) {
    std::string msg = "the owner account (uid " + std::to_string(job.uid) + ") does not exist; not run";
    ORVA_LOG(LOG_ERR, "%s %ld: %s", what, job.id, msg.c_str());
    ORVASchedRunRecord(job.kind, job.id, trigger, "failed", msg);
    return 1;
  }
  struct passwd pw = *found;
  std::string name = pw.pw_name, dir = pw.pw_dir ? pw.pw_dir : "", shell = pw.pw_shell ? pw.pw_shell : "";
  pw.pw_name = name.data();
  pw.pw_dir = dir.data();
  pw.pw_shell = shell.data();

  // The locks live as long as this process, which outlives the command.
  int taskFd = -1, appFd = -1;
  std::string error;
  std::string taskLock = (job.kind == ORVA_SCHED_RUN_TASK ? "task-" : "event-task-") + std::to_string(job.id);
  if (!job.canRunTaskSameTime && !Lock(taskLock, true, taskFd, error)) {
    std::string msg = error.empty() ? "skipped: the previous run of this task has not finished" : error;
    ORVA_LOG(LOG_ERR, "%s %ld: %s", what, job.id, msg.c_str());
    ORVASchedRunRecord(job.kind, job.id, trigger, error.empty() ? "skipped" : "failed", msg);
    return error.empty() ? 0 : 1;
  }
  if (!job.app.empty() && !Lock(LockName(job.app), !job.canRunAppSameTime, appFd, error)) {
    std::string msg = error.empty() ? "skipped: another task of " + job.app + " is running and they may not run together"
                                    : error;
    ORVA_LOG(LOG_ERR, "%s %ld: %s", what, job.id, msg.c_str());
    ORVASchedRunRecord(job.kind, job.id, trigger, error.empty() ? "skipped" : "failed", msg);
    return error.empty() ? 0 : 1;
  }

  int64_t runId = ORVASchedRunBegin(job.kind, job.id, trigger, getpid());
  if (runId < 0) {
    ORVA_LOG(LOG_ERR, "cannot record the run of %s %ld [0x%04X %s:%d]", what, job.id, KELCErrGet(), KELCErrorGetFile(),
             KELCErrorGetLine());
    return 1;
  }
  const char* langEnv = getenv("LANG");
  std::string lang = langEnv && *langEnv ? langEnv : "C.UTF-8";
  int pfd[2], ready[2];
  sigset_t signals = RunnerSignals();
  int sigFd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (sigFd < 0 || pipe2(pfd, O_CLOEXEC) != 0 || pipe2(ready, O_CLOEXEC) != 0) {
    ORVASchedRunEnd(runId, -1, 0, std::string("cannot create a pipe: ") + strerror(errno), "failed");
    return 1;
  }
  pid_t child = fork();
  if (child < 0) {
    ORVASchedRunEnd(runId, -1, 0, std::string("cannot fork: ") + strerror(errno), "failed");
    return 1;
  }
  if (child == 0) {
    RunChild(job, pw, pfd[1], lang);
  }
  close(pfd[1]);
  close(ready[1]);
  // The child closes its end after setsid(): from then on its process group exists,
  // so a stop request can reach the whole group.
  char none;
  while (read(ready[0], &none, 1) < 0 && errno == EINTR) {
  }
  close(ready[0]);
  ORVASchedRunSetPid(runId, child);
  Outcome o = Supervise(runId, child, pfd[0], sigFd);
  close(pfd[0]);
  close(sigFd);
  int status = o.status;
  int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  int sig = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  const char* result = o.stopped ? "stopped" : exitCode == 0 ? "success" : "failed";
  if (ORVASchedRunEnd(runId, exitCode, sig, o.output, result, o.truncated) != 0) {
    ORVA_LOG(LOG_ERR, "cannot record the end of %s %ld [0x%04X %s:%d]", what, job.id, KELCErrGet(), KELCErrorGetFile(),
             KELCErrorGetLine());
    return 1;
  }
  if (taskFd >= 0) close(taskFd);
  if (appFd >= 0) close(appFd);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // Nothing inherited but the standard descriptors.
  close_range(3, ~0U, 0);
  for (int fd = 0; fd < 3; ++fd) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", O_RDWR);
  }
  openlog("orva-schedrun", LOG_PID | LOG_PERROR, LOG_USER);
  signal(SIGPIPE, SIG_IGN);
  // Held from the start: a stop request that comes before the command has started
  // waits for it instead of killing the runner.
  sigset_t signals = RunnerSignals();
  sigprocmask(SIG_BLOCK, &signals, nullptr);

  static const struct option kOptions[] = {
      ORVA::kRootOption,
      {"trigger", required_argument, nullptr, 't'},
      {"event-task", required_argument, nullptr, 'e'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  Job job;
  const char* trigger = nullptr;
  const char* eventId = nullptr;
  int opt;
  while ((opt = ORVA::GetOpt(argc, argv, "", kOptions)) != -1) {
    switch (opt) {
      case 't':
        trigger = optarg;
        break;
      case 'e':
        eventId = optarg;
        break;
      case 'h':
        Usage(stdout);
        return 0;
      default:
        Usage(stderr);
        return 2;
    }
  }
  bool ok;
  if (eventId) {
    job.kind = ORVA_SCHED_RUN_EVENT_TASK;
    ok = optind == argc && ParseId(eventId, job.id);
    if (!trigger) trigger = "event";
  } else {
    ok = optind < argc;
    for (int i = optind; ok && i < argc; ++i) ok = ParseId(argv[i], job.id);
  }
  if (!ok || !trigger ||
      (strcmp(trigger, "manual") != 0 && strcmp(trigger, "schedule") != 0 && strcmp(trigger, "event") != 0)) {
    Usage(stderr);
    return 2;
  }
  if (eventId || optind + 1 == argc) return Run(job, trigger);
  // The daemon's due runs of one minute come in batches: a fork here costs far less than
  // starting a runner for each. This process leaves at once, so each run is nobody's
  // child to reap but the subreaper's, as a runner started alone.
  int failed = 0;
  for (int i = optind; i < argc; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      ParseId(argv[i], job.id);
      return Run(job, trigger);
    }
    if (pid < 0) {
      ORVA_LOG(LOG_ERR, "cannot start the run of task %s: %m", argv[i]);
      ++failed;
    }
  }
  return failed ? 1 : 0;
}
