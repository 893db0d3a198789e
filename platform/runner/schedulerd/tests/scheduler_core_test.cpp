// The clock's logic on a fake clock in UTC. Daylight saving days are the store's schedule
// tests: the daemon asks the store for every next trigger.
#include <stdlib.h>
#include <time.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "orvatest.h"
#include "scheduler/schedule.h"
#include "scheduler_core.h"

namespace {

using orva_sched::TaskSnapshot;
using Fired = std::vector<std::pair<long, time_t>>;  // task id, when it was started

class FakeClock : public orva_sched::Clock {
 public:
  time_t Now() override { return now; }
  time_t now = 0;
};

class FakeSource : public orva_sched::TaskSource {
 public:
  bool Load(std::vector<TaskSnapshot>& out) override {
    out = tasks;
    return !fail;
  }
  std::vector<TaskSnapshot> tasks;
  bool fail = false;
};

class RecordingLauncher : public orva_sched::Launcher {
 public:
  explicit RecordingLauncher(FakeClock& c) : clock(c) {}
  bool Launch(long id) override {
    launches.emplace_back(id, clock.now);
    return true;
  }
  FakeClock& clock;
  Fired launches;
};

// A wall time (the tests run in UTC).
time_t Local(int y, int mo, int d, int h, int mi, int s = 0) {
  struct tm tm = {};
  tm.tm_year = y - 1900, tm.tm_mon = mo - 1, tm.tm_mday = d, tm.tm_hour = h, tm.tm_min = mi, tm.tm_sec = s;
  return timegm(&tm);
}

// An enabled daily task from 2024-05-01 at h:mi, repeated every `repeatMin` until `lastHour`.
TaskSnapshot Daily(long id, int h, int mi, int repeatMin = 0, int lastHour = 0) {
  TaskSnapshot t;
  t.id = id;
  t.enabled = true;
  t.name = "task " + std::to_string(id);
  t.schedule.year = 2024, t.schedule.month = 5, t.schedule.day = 1;
  t.schedule.repeat = ORVA_SCHED_REPEAT_DAILY;
  t.schedule.hour = static_cast<uint8_t>(h), t.schedule.min = static_cast<uint8_t>(mi);
  t.schedule.repeat_min = static_cast<uint8_t>(repeatMin);
  t.schedule.last_work_hour = static_cast<uint8_t>(repeatMin ? lastHour : h);
  return t;
}

class SchedulerTest : public ::testing::Test {
 protected:
  SchedulerTest() : launcher(clock) {
    setenv("TZ", "UTC", 1);
    tzset();
  }

  // What the daemon's loop does: sleep until the earliest trigger, then tick.
  void RunUntil(orva_sched::Scheduler& s, time_t end) {
    for (time_t w = s.NextWake(); w != -1 && w <= end; w = s.NextWake()) {
      ASSERT_GE(w, clock.now) << "a wake-up in the past would spin";
      clock.now = w;
      s.Tick();
    }
    clock.now = end;
    s.Tick();
  }

  orvatest::TempRoot root{"orvasched-core"};
  FakeClock clock;
  FakeSource source;
  RecordingLauncher launcher;
};

TEST_F(SchedulerTest, ChangedAndDeletedTasksAreRescheduled) {
  clock.now = Local(2024, 5, 1, 9, 0);
  source.tasks = {Daily(1, 10, 0), Daily(2, 10, 0), Daily(3, 9, 30)};
  source.tasks[2].enabled = false;
  orva_sched::Scheduler s(clock, source, launcher);
  ASSERT_TRUE(s.Rescan());
  EXPECT_EQ(s.NextOf(3), -1);

  source.tasks[0].schedule.hour = 11;  // moved
  source.tasks[1].name = "renamed";    // same schedule: keeps its trigger
  ASSERT_TRUE(s.Rescan());
  EXPECT_EQ(s.NextOf(1), Local(2024, 5, 1, 11, 0));
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 1, 10, 0));
  RunUntil(s, Local(2024, 5, 1, 10, 0, 0));

  // A rename in the very second of a run does not run it again.
  source.tasks[1].name = "renamed again";
  ASSERT_TRUE(s.Rescan());
  RunUntil(s, Local(2024, 5, 1, 12, 0));
  EXPECT_EQ(launcher.launches, (Fired{{2, Local(2024, 5, 1, 10, 0)}, {1, Local(2024, 5, 1, 11, 0)}}));

  // Deleted, and enabled: the disabled task never ran, now it does.
  source.tasks.erase(source.tasks.begin());
  source.tasks[1].enabled = true;
  ASSERT_TRUE(s.Rescan());
  EXPECT_EQ(s.NextOf(1), -1);
  launcher.launches.clear();
  RunUntil(s, Local(2024, 5, 2, 12, 0));
  EXPECT_EQ(launcher.launches, (Fired{{3, Local(2024, 5, 2, 9, 30)}, {2, Local(2024, 5, 2, 10, 0)}}));

  // A store that cannot be read leaves the table as it was.
  source.fail = true;
  EXPECT_FALSE(s.Rescan());
  EXPECT_EQ(s.TaskCount(), 2u);
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 3, 10, 0));
}

// The clock set forward past a trigger misses it (unless within the grace), set back it
// comes again; a late wake-up misses what is past the grace; a stopped daemon reports
// what it missed at its next start and replays none of it.
TEST_F(SchedulerTest, ClockChangesAndLateWakeUps) {
  clock.now = Local(2024, 5, 1, 9, 0);
  source.tasks = {Daily(1, 10, 0), Daily(2, 12, 0), Daily(3, 13, 0, 5, 23)};
  orva_sched::Scheduler s(clock, source, launcher);
  ASSERT_TRUE(s.Rescan());
  clock.now = Local(2024, 5, 1, 11, 0);
  s.ClockChanged();
  EXPECT_TRUE(launcher.launches.empty());
  EXPECT_EQ(s.NextOf(1), Local(2024, 5, 2, 10, 0));
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 1, 12, 0));
  clock.now = Local(2024, 5, 1, 9, 30);
  s.ClockChanged();
  EXPECT_EQ(s.NextOf(1), Local(2024, 5, 1, 10, 0));
  RunUntil(s, Local(2024, 5, 1, 10, 0, 5));
  EXPECT_EQ(launcher.launches, (Fired{{1, Local(2024, 5, 1, 10, 0)}}));

  launcher.launches.clear();
  clock.now = Local(2024, 5, 1, 11, 59, 50);
  s.Tick();
  clock.now = Local(2024, 5, 1, 12, 0, 30);
  s.ClockChanged();
  s.Tick();
  EXPECT_EQ(launcher.launches, (Fired{{2, Local(2024, 5, 1, 12, 0, 30)}}));
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 2, 12, 0));

  // Asleep from before 13:00 until 13:07:30: the 13:05 repeat is 150 s late, and all
  // before it is missed; within the grace the latest trigger runs, once.
  launcher.launches.clear();
  clock.now = Local(2024, 5, 1, 13, 7, 30);
  s.Tick();
  EXPECT_TRUE(launcher.launches.empty());
  EXPECT_EQ(s.NextOf(3), Local(2024, 5, 1, 13, 10));
  clock.now = Local(2024, 5, 1, 13, 10, 40);
  s.Tick();
  EXPECT_EQ(launcher.launches, (Fired{{3, clock.now}}));

  FakeClock later;
  later.now = Local(2024, 5, 3, 9, 0);
  RecordingLauncher l2(later);
  orva_sched::Scheduler restarted(later, source, l2);
  ASSERT_TRUE(restarted.Rescan());
  restarted.ReportMissedSince(Local(2024, 5, 1, 13, 11));
  restarted.Tick();
  EXPECT_TRUE(l2.launches.empty());
  EXPECT_EQ(restarted.NextOf(1), Local(2024, 5, 3, 10, 0));
}

}  // namespace
