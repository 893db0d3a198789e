// orva-schedulerd: the clock. Sleeps until the earliest next trigger, starts
// orva-schedrun for every due task, rescans when the store changes (inotify on the
// database folder, then the store's generation counter) and reschedules when the
// wall clock is set (a realtime timer cancelled on clock change).
// `--event bootup|shutdown` runs the event tasks of that event and waits for them.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "core/file.h"
#include "core/log.h"
#include "core/program.h"
#include "core/root.h"
#include "scheduler/event_task.h"
#include "scheduler/run.h"
#include "scheduler/schedule.h"
#include "scheduler/store.h"
#include "scheduler_core.h"
#include "spawn.h"

namespace {

const char kUsage[] =
    "usage: orva-schedulerd [--root DIR]\n"
    "       orva-schedulerd [--root DIR] --event bootup|shutdown\n"
    "\n"
    "Runs in the foreground and starts every enabled task at its next trigger time\n"
    "through orva-schedrun. Runs missed while it was not running are logged, not\n"
    "replayed. With --event it runs the enabled event tasks of that event, waits for\n"
    "them and exits.\n"
    "\n"
    "  --root DIR   the system root (default: $ORVA_ROOT, else /)\n"
    "  --help       this text\n";

class WallClock : public orva_sched::Clock {
 public:
  time_t Now() override { return time(nullptr); }
};

class StoreSource : public orva_sched::TaskSource {
 public:
  bool Load(std::vector<orva_sched::TaskSnapshot>& tasks) override {
    ORVA_SCHED_TASK* list = nullptr;
    if (ORVASchedTaskListGet(&list, nullptr, nullptr) < 0) {
      return false;
    }
    for (ORVA_SCHED_TASK* t = list; t; t = ORVASchedTaskNext(t)) {
      orva_sched::TaskSnapshot s;
      s.id = ORVASchedTaskGetID(*t);
      s.enabled = ORVASchedTaskIsEnabled(*t);
      s.schedule = ORVASchedTaskGetSchedule(*t);
      s.name = ORVASchedTaskGetName(*t);
      tasks.push_back(std::move(s));
    }
    ORVASchedTaskListFree(list);
    return true;
  }
};

class RunnerLauncher : public orva_sched::Launcher {
 public:
  bool Launch(long id) override {
    return orva_sched::StartRunner({std::to_string(id), "--trigger", "schedule"}) > 0;
  }

  // StartRunner holds its thread until the runner has been executed, so due runs start
  // from a few threads at once, and in batches: a runner given several ids forks one
  // process for each, far cheaper than starting a runner each. The threads keep every
  // signal blocked (inherited), so signals still reach the loop's signalfd.
  void LaunchAll(const std::vector<long>& ids, std::vector<char>& started) override {
    started.assign(ids.size(), 0);
    const size_t batches = (ids.size() + kBatch - 1) / kBatch;
    const size_t threads = std::min(kLaunchThreads, batches);
    std::atomic<size_t> next{0};
    auto work = [&] {
      for (size_t b; (b = next.fetch_add(1)) < batches;) {
        const size_t from = b * kBatch, to = std::min(ids.size(), from + kBatch);
        std::vector<std::string> args;
        for (size_t i = from; i < to; ++i) args.push_back(std::to_string(ids[i]));
        args.insert(args.end(), {"--trigger", "schedule"});
        const bool ok = orva_sched::StartRunner(args) > 0;
        for (size_t i = from; i < to; ++i) started[i] = ok;
      }
    };
    std::vector<std::thread> pool;
    for (size_t t = 1; t < threads; ++t) {
      try {
        pool.emplace_back(work);
      } catch (const std::system_error& e) {
        ORVA_LOG(LOG_WARNING, "starting runners on fewer threads: %s", e.what());
        break;
      }
    }
    work();
    for (std::thread& t : pool) t.join();
  }

 private:
  static constexpr size_t kLaunchThreads = 4;
  static constexpr size_t kBatch = 32;
};

std::string StatePath() { return ORVA::ORVAPathMap("/var/lib/orva/schedulerd.state"); }

time_t ReadState() {
  std::ifstream in(StatePath());
  long long t = 0;
  return (in >> t) ? static_cast<time_t>(t) : 0;
}

// When every trigger up to `checked` was handled; read back at the next start.
void WriteState(time_t checked) {
  if (!ORVA::WriteFileAtomic(StatePath(), std::to_string(checked) + "\n", 0644)) {
    ORVA_LOG(LOG_ERR, "cannot write %s: %m", StatePath().c_str());
  }
}

int RunEvent(const std::string& event) {
  std::vector<ORVASchedEventTask> tasks;
  if (ORVASchedEventTaskList(tasks, event.c_str()) < 0) {
    ORVA_LOG(LOG_ERR, "cannot read the event tasks of %s", event.c_str());
    return 1;
  }
  // Started side by side; the event (a boot or a shutdown) waits for all of them. The
  // runners are started detached: as a child subreaper this process gets them back as
  // its children to wait for.
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
    ORVA_LOG(LOG_ERR, "cannot become a child subreaper: %m");
    return 1;
  }
  std::vector<std::pair<long, pid_t>> started;
  int unstarted = 0;
  for (const ORVASchedEventTask& t : tasks) {
    if (!t.enable) {
      continue;
    }
    const pid_t pid = orva_sched::StartRunner({"--event-task", std::to_string(t.id), "--trigger", "event"});
    if (pid > 0) {
      ORVA_LOG(LOG_INFO, "%s: started event task %ld \"%s\"", event.c_str(), t.id, t.task_name.c_str());
      started.emplace_back(t.id, pid);
    } else {
      ORVA_LOG(LOG_ERR, "%s: could not start event task %ld \"%s\"", event.c_str(), t.id, t.task_name.c_str());
      ++unstarted;
    }
  }
  int failed = 0;
  for (const auto& [id, pid] : started) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      ORVA_LOG(LOG_WARNING, "%s: the runner of event task %ld ended with status %d", event.c_str(), id, status);
      ++failed;
    }
  }
  printf("%s: %zu event task(s) run, %d failed, %d could not be started\n", event.c_str(), started.size(), failed,
         unstarted);
  return unstarted ? 1 : 0;
}

// Arms the timer for `when` (absolute wall time), cancelled if the clock is set.
void Arm(int tfd, time_t when) {
  struct itimerspec its = {};
  its.it_value.tv_sec = when;
  if (timerfd_settime(tfd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &its, nullptr) != 0) {
    ORVA_LOG(LOG_ERR, "cannot arm the timer: %m");
  }
}

int Serve() {
  sigset_t mask;
  sigemptyset(&mask);
  for (int s : {SIGTERM, SIGINT, SIGHUP}) {
    sigaddset(&mask, s);
  }
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  const int sfd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
  const int tfd = timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK);
  const int ifd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (sfd < 0 || tfd < 0 || ifd < 0) {
    ORVA_LOG(LOG_ERR, "cannot set up signals, timer or inotify: %m");
    return 1;
  }
  const std::string db = ORVASchedStoreDbPath();
  const std::string dbDir = db.substr(0, db.rfind('/'));
  const std::string dbName = db.substr(db.rfind('/') + 1);
  // Opening the store once makes sure the database and its folder exist.
  int64_t generation = ORVASchedStoreGeneration();
  if (generation < 0) {
    ORVA_LOG(LOG_ERR, "cannot open the task store %s", db.c_str());
    return 1;
  }
  if (inotify_add_watch(ifd, dbDir.c_str(), IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE) < 0) {
    ORVA_LOG(LOG_ERR, "cannot watch %s: %m", dbDir.c_str());
    return 1;
  }

  WallClock clock;
  StoreSource source;
  RunnerLauncher launcher;
  orva_sched::Scheduler sched(clock, source, launcher);
  if (!sched.Rescan()) {
    return 1;
  }
  sched.ReportMissedSince(ReadState());
  ORVA_LOG(LOG_INFO, "watching %zu task(s) in %s; next run %s", sched.TaskCount(), db.c_str(),
           ORVASchedFormatTriggerTime(sched.NextWake()).c_str());
  sched.Tick();
  WriteState(sched.Checked());

  // A writer's WAL write wakes us before its commit is visible (the commit itself
  // only touches the mmapped index), so after any write the generation is read again
  // a few times with growing pauses: 25 ms doubling to 3.2 s, then quiet again.
  int rechecks = 0;
  int recheckMs = 0;
  auto checkStore = [&]() {
    // Another file now at the store's path: its generation says nothing; read it all.
    if (ORVASchedStoreReopenIfReplaced() == 1) {
      generation = -1;
    }
    const int64_t g = ORVASchedStoreGeneration();
    if (g >= 0 && g != generation) {
      generation = g;
      sched.Rescan();
      ORVA_LOG(LOG_INFO, "store changed; %zu task(s), next run %s", sched.TaskCount(),
               ORVASchedFormatTriggerTime(sched.NextWake()).c_str());
      // A task saved for this very second runs now.
      sched.Tick();
    }
  };

  for (;;) {
    // Nothing scheduled: still wake once a day, harmlessly, so the timer stays armed.
    time_t wake = sched.NextWake();
    if (wake == -1) {
      wake = time(nullptr) + 86400;
    }
    Arm(tfd, wake);
    struct pollfd pfd[3] = {{sfd, POLLIN, 0}, {tfd, POLLIN, 0}, {ifd, POLLIN, 0}};
    const int ready = poll(pfd, 3, rechecks > 0 ? recheckMs : -1);
    if (ready < 0) {
      if (errno == EINTR) continue;
      ORVA_LOG(LOG_ERR, "poll failed: %m");
      return 1;
    }
    if (ready > 0 && !(pfd[2].revents & POLLIN)) {
      checkStore();  // every wake notices a replaced store
    }
    if (ready == 0) {
      checkStore();
      --rechecks;
      recheckMs *= 2;
      continue;
    }
    if (pfd[0].revents & POLLIN) {
      struct signalfd_siginfo si;
      while (read(sfd, &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
        if (si.ssi_signo == SIGHUP) {
          sched.Rescan();
        } else {
          WriteState(sched.Checked());
          ORVA_LOG(LOG_INFO, "stopping on signal %u", si.ssi_signo);
          return 0;
        }
      }
    }
    if (pfd[1].revents & POLLIN) {
      uint64_t expirations = 0;
      if (read(tfd, &expirations, sizeof expirations) < 0 && errno == ECANCELED) {
        sched.ClockChanged();
      } else {
        sched.Tick();
      }
      WriteState(sched.Checked());
    }
    if (pfd[2].revents & POLLIN) {
      alignas(struct inotify_event) char buf[8192];
      bool relevant = false;
      ssize_t n;
      while ((n = read(ifd, buf, sizeof buf)) > 0) {
        for (char* p = buf; p < buf + n;) {
          auto* ev = reinterpret_cast<struct inotify_event*>(p);
          if (ev->len > 0 && strncmp(ev->name, dbName.c_str(), dbName.size()) == 0) {
            relevant = true;
          }
          p += sizeof(struct inotify_event) + ev->len;
        }
      }
      if (relevant) {
        checkStore();
        rechecks = 8;
        recheckMs = 25;
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  static const option kOptions[] = {
      ORVA::kRootOption, {"event", required_argument, nullptr, 'e'}, {"help", no_argument, nullptr, 'h'}, {}};
  std::string event;
  bool haveEvent = false;
  opterr = 0;
  for (int c; (c = ORVA::GetOpt(argc, argv, "h", kOptions)) != -1 || optind < argc;) {
    if (c == 'h') {
      fputs(kUsage, stdout);
      return 0;
    } else if (c == 'e') {
      event = optarg;
      haveEvent = true;
    } else {
      fprintf(stderr, "orva-schedulerd: unexpected argument \"%s\"\n%s", argv[c == -1 ? optind : optind - 1], kUsage);
      return 2;
    }
  }
  if (haveEvent && event != ORVA_SCHED_EVENT_BOOTUP && event != ORVA_SCHED_EVENT_SHUTDOWN) {
    fprintf(stderr, "orva-schedulerd: the event is bootup or shutdown, not \"%s\"\n", event.c_str());
    return 2;
  }
  // Children (the runner) find the same root.
  setenv("ORVA_ROOT", ORVA::ORVARootGet().c_str(), 1);
  openlog("orva-schedulerd", LOG_PID | LOG_PERROR, LOG_DAEMON);
  return haveEvent ? RunEvent(event) : Serve();
}
