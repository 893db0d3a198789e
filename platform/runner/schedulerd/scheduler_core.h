// The clock's logic, free of I/O: which task is due when, what runs and what was
// missed. The daemon drives it from timerfd/inotify; tests drive it with a fake clock.
#pragma once

#include <time.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "scheduler/record.h"

namespace orva_sched {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual time_t Now() = 0;
};

// What the scheduler needs of one stored task.
struct TaskSnapshot {
  long id = -1;
  bool enabled = false;
  ORVA_SCHED_SCHEDULE schedule{};
  std::string name;
};

class TaskSource {
 public:
  virtual ~TaskSource() = default;
  // Every stored task. False when the store cannot be read.
  virtual bool Load(std::vector<TaskSnapshot>& tasks) = 0;
};

class Launcher {
 public:
  virtual ~Launcher() = default;
  // Starts one scheduled run of the task; false when it could not be started.
  virtual bool Launch(long id) = 0;
  // Starts a run of each task (all due at once); started[i] says whether ids[i] was.
  // One after the other unless a launcher does better.
  virtual void LaunchAll(const std::vector<long>& ids, std::vector<char>& started) {
    started.assign(ids.size(), 0);
    for (size_t i = 0; i < ids.size(); ++i) started[i] = Launch(ids[i]);
  }
};

// The first trigger strictly after `after`, or -1 (the store's rules by default).
using NextTriggerFn = std::function<time_t(const ORVA_SCHED_SCHEDULE&, time_t after)>;

// A trigger found later than this after its time is missed, not run: the machine was
// asleep, the daemon was stopped, or the clock was set forward past it.
constexpr time_t kGraceSeconds = 60;
// Counting missed triggers stops here (a minute repeat over a long outage).
constexpr int kMissedCountMax = 100000;

class Scheduler {
 public:
  Scheduler(Clock& clock, TaskSource& source, Launcher& launcher, NextTriggerFn next = nullptr);

  // Reloads the tasks. New, re-enabled or rescheduled tasks get a fresh next trigger
  // from now; unchanged ones keep theirs; deleted ones are dropped. False (table kept)
  // when the store cannot be read.
  bool Rescan();
  // Runs every task that is due now; later ones wait. Each trigger starts at most once.
  void Tick();
  // The wall clock was set: runs what became due (or logs it missed), then computes
  // every next trigger again from the new time, so a clock set back runs again.
  void ClockChanged();
  // Logs, per task, the triggers between `lastChecked` (when the previous daemon had
  // handled everything) and now, which nobody ran. They are not replayed.
  void ReportMissedSince(time_t lastChecked);

  // The earliest next trigger, or -1 when nothing is scheduled.
  time_t NextWake() const;
  // The next trigger of one task (-1: none or unknown). For tests and logs.
  time_t NextOf(long id) const;
  // Every trigger up to this time has been handled.
  time_t Checked() const { return checked_; }
  size_t TaskCount() const { return tasks_.size(); }

 private:
  struct Entry {
    TaskSnapshot task;
    time_t next = -1;
  };
  // What one due task does at `now`: its triggers through now, and whether the latest
  // is still within the grace (then it runs).
  struct Due {
    Entry* entry;
    time_t first, last;
    int count;
    bool run;
  };
  time_t Next(const Entry& e, time_t after) const;
  Due PlanDue(Entry& e, time_t now);
  // Counts triggers in (from, to]; `first` and `last` receive the first and last.
  int CountBetween(const Entry& e, time_t from, time_t to, time_t* first, time_t* last) const;

  Clock& clock_;
  TaskSource& source_;
  Launcher& launcher_;
  NextTriggerFn next_;
  std::map<long, Entry> tasks_;
  time_t checked_ = 0;
};

}  // namespace orva_sched
