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

// The clock, the store and the runner at once: a settable time, a task list, the launches.
class Fake : public orva_sched::Clock, public orva_sched::TaskSource, public orva_sched::Launcher {
 public:
  time_t Now() override { return now; }
  bool Load(std::vector<TaskSnapshot>& out) override {
    out = tasks;
    return !fail;
  }
  bool Launch(long id) override {
    launches.emplace_back(id, now);
    return true;
  }
  time_t now = 0;
  std::vector<TaskSnapshot> tasks;
  bool fail = false;
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
  t.schedule.year = 2024, t.schedule.month = 5, t.schedule.day = 1;
  t.schedule.repeat = ORVA_SCHED_REPEAT_DAILY;
  t.schedule.hour = static_cast<uint8_t>(h), t.schedule.min = static_cast<uint8_t>(mi);
  t.schedule.repeat_min = static_cast<uint8_t>(repeatMin);
  t.schedule.last_work_hour = static_cast<uint8_t>(repeatMin ? lastHour : h);
  return t;
}

class SchedulerTest : public ::testing::Test {
 protected:
  SchedulerTest() {
    setenv("TZ", "UTC", 1);
    tzset();
  }

  // What the daemon's loop does: sleep until the earliest trigger, then tick.
  void RunUntil(orva_sched::Scheduler& s, time_t end) {
    for (time_t w = s.NextWake(); w != -1 && w <= end; w = s.NextWake()) {
      ASSERT_GE(w, fake.now) << "a wake-up in the past would spin";
      fake.now = w;
      s.Tick();
    }
    fake.now = end;
    s.Tick();
  }

  orvatest::TempRoot root{"orvasched-core"};
  Fake fake;
};

TEST_F(SchedulerTest, ChangedAndDeletedTasksAreRescheduled) {
  fake.now = Local(2024, 5, 1, 9, 0);
  fake.tasks = {Daily(1, 10, 0), Daily(2, 10, 0), Daily(3, 9, 30)};
  fake.tasks[2].enabled = false;
  orva_sched::Scheduler s(fake, fake, fake);
  ASSERT_TRUE(s.Rescan());
  EXPECT_EQ(s.NextOf(3), -1);

  fake.tasks[0].schedule.hour = 11;  // moved
  fake.tasks[1].name = "renamed";    // same schedule: keeps its trigger
  ASSERT_TRUE(s.Rescan());
  EXPECT_EQ(s.NextOf(1), Local(2024, 5, 1, 11, 0));
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 1, 10, 0));
  RunUntil(s, Local(2024, 5, 1, 10, 0, 0));

  // A rename in the very second of a run does not run it again.
  fake.tasks[1].name = "renamed again";
  ASSERT_TRUE(s.Rescan());
  RunUntil(s, Local(2024, 5, 1, 12, 0));
  EXPECT_EQ(fake.launches, (Fired{{2, Local(2024, 5, 1, 10, 0)}, {1, Local(2024, 5, 1, 11, 0)}}));

  // Deleted, and enabled: the disabled task never ran, now it does.
  fake.tasks.erase(fake.tasks.begin());
  fake.tasks[1].enabled = true;
  ASSERT_TRUE(s.Rescan());
  EXPECT_EQ(s.NextOf(1), -1);
  fake.launches.clear();
  RunUntil(s, Local(2024, 5, 2, 12, 0));
  EXPECT_EQ(fake.launches, (Fired{{3, Local(2024, 5, 2, 9, 30)}, {2, Local(2024, 5, 2, 10, 0)}}));

  // A store that cannot be read leaves the table as it was.
  fake.fail = true;
  EXPECT_FALSE(s.Rescan());
  EXPECT_EQ(s.TaskCount(), 2u);
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 3, 10, 0));
}

// The clock set forward past a trigger misses it (unless within the grace), set back it
// comes again; a late wake-up misses what is past the grace; a stopped daemon reports
// what it missed at its next start and replays none of it.
TEST_F(SchedulerTest, ClockChangesAndLateWakeUps) {
  fake.now = Local(2024, 5, 1, 9, 0);
  fake.tasks = {Daily(1, 10, 0), Daily(2, 12, 0), Daily(3, 13, 0, 5, 23)};
  orva_sched::Scheduler s(fake, fake, fake);
  ASSERT_TRUE(s.Rescan());
  fake.now = Local(2024, 5, 1, 11, 0);
  s.ClockChanged();
  EXPECT_TRUE(fake.launches.empty());
  EXPECT_EQ(s.NextOf(1), Local(2024, 5, 2, 10, 0));
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 1, 12, 0));
  fake.now = Local(2024, 5, 1, 9, 30);
  s.ClockChanged();
  EXPECT_EQ(s.NextOf(1), Local(2024, 5, 1, 10, 0));
  RunUntil(s, Local(2024, 5, 1, 10, 0, 5));
  EXPECT_EQ(fake.launches, (Fired{{1, Local(2024, 5, 1, 10, 0)}}));

  fake.launches.clear();
  fake.now = Local(2024, 5, 1, 11, 59, 50);
  s.Tick();
  fake.now = Local(2024, 5, 1, 12, 0, 30);
  s.ClockChanged();
  s.Tick();
  EXPECT_EQ(fake.launches, (Fired{{2, Local(2024, 5, 1, 12, 0, 30)}}));
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 2, 12, 0));

  // Asleep from before 13:00 until 13:07:30: the 13:05 repeat is 150 s late, and all
  // before it is missed; within the grace the latest trigger runs, once.
  fake.launches.clear();
  fake.now = Local(2024, 5, 1, 13, 7, 30);
  s.Tick();
  EXPECT_TRUE(fake.launches.empty());
  EXPECT_EQ(s.NextOf(3), Local(2024, 5, 1, 13, 10));
  fake.now = Local(2024, 5, 1, 13, 10, 40);
  s.Tick();
  EXPECT_EQ(fake.launches, (Fired{{3, fake.now}}));

  Fake later;
  later.now = Local(2024, 5, 3, 9, 0);
  later.tasks = fake.tasks;
  orva_sched::Scheduler restarted(later, later, later);
  ASSERT_TRUE(restarted.Rescan());
  restarted.ReportMissedSince(Local(2024, 5, 1, 13, 11));
  restarted.Tick();
  EXPECT_TRUE(later.launches.empty());
  EXPECT_EQ(restarted.NextOf(1), Local(2024, 5, 3, 10, 0));
}

}  // namespace
