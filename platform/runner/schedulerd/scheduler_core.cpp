#include "scheduler_core.h"

#include <string.h>
#include <syslog.h>

#include "core/log.h"
#include "scheduler/schedule.h"

namespace orva_sched {
namespace {

std::string Stamp(time_t t) {
  return ORVASchedFormatTriggerTime(t);
}

bool SameSchedule(const ORVA_SCHED_SCHEDULE& a, const ORVA_SCHED_SCHEDULE& b) {
  return memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

Scheduler::Scheduler(Clock& clock, TaskSource& source, Launcher& launcher, NextTriggerFn next)
    : clock_(clock), source_(source), launcher_(launcher), next_(std::move(next)) {
  if (!next_) {
    next_ = [](const ORVA_SCHED_SCHEDULE& s, time_t after) { return ORVASchedScheduleNextTrigger(s, after); };
  }
  checked_ = clock_.Now();
}

time_t Scheduler::Next(const Entry& e, time_t after) const {
  if (!e.task.enabled) {
    return -1;
  }
  const time_t t = next_(e.task.schedule, after);
  // A schedule must move forward; anything else would fire in a loop.
  return t > after ? t : -1;
}

bool Scheduler::Rescan() {
  std::vector<TaskSnapshot> loaded;
  if (!source_.Load(loaded)) {
    ORVA_LOG(LOG_ERR, "cannot read the tasks; keeping the %zu known", tasks_.size());
    return false;
  }
  const time_t now = clock_.Now();
  std::map<long, Entry> fresh;
  for (TaskSnapshot& t : loaded) {
    Entry e;
    auto old = tasks_.find(t.id);
    const bool same = old != tasks_.end() && old->second.task.enabled == t.enabled &&
                      SameSchedule(old->second.task.schedule, t.schedule);
    e.task = std::move(t);
    // A trigger at this very second still counts for a task saved at it.
    e.next = same ? old->second.next : Next(e, now - 1);
    if (!same && old != tasks_.end()) {
      ORVA_LOG(LOG_INFO, "task %ld changed; next run %s", e.task.id, Stamp(e.next).c_str());
    }
    fresh.emplace(e.task.id, std::move(e));
  }
  for (const auto& [id, e] : tasks_) {
    if (!fresh.count(id)) {
      ORVA_LOG(LOG_INFO, "task %ld is gone; no longer scheduled", id);
    }
  }
  tasks_.swap(fresh);
  return true;
}

int Scheduler::CountBetween(const Entry& e, time_t from, time_t to, time_t* first, time_t* last) const {
  int n = 0;
  *first = *last = -1;
  for (time_t t = Next(e, from); t != -1 && t <= to && n < kMissedCountMax; t = Next(e, t)) {
    if (n == 0) {
      *first = t;
    }
    *last = t;
    ++n;
  }
  return n;
}

Scheduler::Due Scheduler::PlanDue(Entry& e, time_t now) {
  // Every trigger from e.next through now; only the latest may still run.
  Due d{&e, e.next, e.next, 1, false};
  time_t t = Next(e, e.next);
  while (t != -1 && t <= now && d.count < kMissedCountMax) {
    d.last = t;
    ++d.count;
    t = Next(e, t);
  }
  d.run = now - d.last <= kGraceSeconds;
  e.next = t <= now ? Next(e, now) : t;
  return d;
}

void Scheduler::Tick() {
  const time_t now = clock_.Now();
  // Everything due is planned first and started together: with thousands due in the
  // same second, starting them is the slow part.
  std::vector<Due> due;
  std::vector<long> ids;
  for (auto& [id, e] : tasks_) {
    if (e.next != -1 && e.next <= now) {
      due.push_back(PlanDue(e, now));
      if (due.back().run) ids.push_back(id);
    }
  }
  std::vector<char> started;
  if (!ids.empty()) launcher_.LaunchAll(ids, started);
  size_t launched = 0;
  for (const Due& d : due) {
    const Entry& e = *d.entry;
    int missed = d.count;
    if (d.run) {
      --missed;
      if (started[launched++]) {
        ORVA_LOG(LOG_INFO, "started task %ld \"%s\" (due %s)", e.task.id, e.task.name.c_str(), Stamp(d.last).c_str());
      } else {
        ORVA_LOG(LOG_ERR, "could not start task %ld \"%s\" (due %s)", e.task.id, e.task.name.c_str(),
                 Stamp(d.last).c_str());
      }
    }
    if (missed > 0) {
      ORVA_LOG(LOG_WARNING, "task %ld \"%s\": %d run(s) missed, first due %s; not replayed", e.task.id,
               e.task.name.c_str(), missed, Stamp(d.first).c_str());
    }
  }
  if (now > checked_) {
    checked_ = now;
  }
}

void Scheduler::ClockChanged() {
  const time_t now = clock_.Now();
  ORVA_LOG(LOG_NOTICE, "the wall clock was set (now %s); rescheduling", Stamp(now).c_str());
  Tick();
  for (auto& [id, e] : tasks_) {
    e.next = Next(e, now);
  }
  checked_ = now;
}

void Scheduler::ReportMissedSince(time_t lastChecked) {
  const time_t now = clock_.Now();
  if (lastChecked <= 0 || lastChecked >= now) {
    return;
  }
  for (const auto& [id, e] : tasks_) {
    time_t first = -1;
    time_t last = -1;
    // Triggers at this very second are still run by the first Tick.
    const int n = CountBetween(e, lastChecked, now - 1, &first, &last);
    if (n > 0) {
      ORVA_LOG(LOG_WARNING,
               "task %ld \"%s\": %s%d run(s) missed while the scheduler was not running, first due %s; "
               "not replayed",
               id, e.task.name.c_str(), n >= kMissedCountMax ? "at least " : "", n, Stamp(first).c_str());
    }
  }
}

time_t Scheduler::NextWake() const {
  time_t best = -1;
  for (const auto& [id, e] : tasks_) {
    if (e.next != -1 && (best == -1 || e.next < best)) {
      best = e.next;
    }
  }
  return best;
}

time_t Scheduler::NextOf(long id) const {
  auto it = tasks_.find(id);
  return it == tasks_.end() ? -1 : it->second.next;
}

}  // namespace orva_sched
