// The clock's logic on a fake clock, with the store's own trigger rules.
#include <stdlib.h>
#include <time.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvatest.h"
#include "scheduler/schedule.h"
#include "scheduler_core.h"

namespace {

using orva_sched::TaskSnapshot;

class FakeClock : public orva_sched::Clock {
 public:
  time_t Now() override { return now; }
  time_t now = 0;
};

class FakeSource : public orva_sched::TaskSource {
 public:
  bool Load(std::vector<TaskSnapshot>& out) override {
    if (fail) return false;
    out = tasks;
    return true;
  }
  TaskSnapshot* Find(long id) {
    for (auto& t : tasks) {
      if (t.id == id) return &t;
    }
    return nullptr;
  }
  std::vector<TaskSnapshot> tasks;
  bool fail = false;
};

struct Fired {
  long id;
  time_t at;
  bool operator==(const Fired& o) const { return id == o.id && at == o.at; }
};

std::ostream& operator<<(std::ostream& os, const Fired& l) {
  return os << "{task " << l.id << " at " << ORVASchedFormatTriggerTime(l.at) << " (" << l.at << ")}";
}

class RecordingLauncher : public orva_sched::Launcher {
 public:
  explicit RecordingLauncher(FakeClock& c) : clock(c) {}
  bool Launch(long id) override {
    launches.push_back({id, clock.now});
    return true;
  }
  FakeClock& clock;
  std::vector<Fired> launches;
};

void SetTZ(const char* tz) {
  setenv("TZ", tz, 1);
  tzset();
}

// A wall time read in the current TZ, or as UTC.
time_t At(bool utc, int y, int mo, int d, int h, int mi, int s = 0) {
  struct tm tm = {};
  tm.tm_year = y - 1900, tm.tm_mon = mo - 1, tm.tm_mday = d, tm.tm_hour = h, tm.tm_min = mi, tm.tm_sec = s;
  tm.tm_isdst = -1;
  return utc ? timegm(&tm) : mktime(&tm);
}
time_t Local(int y, int mo, int d, int h, int mi, int s = 0) { return At(false, y, mo, d, h, mi, s); }
time_t Utc(int y, int mo, int d, int h, int mi) { return At(true, y, mo, d, h, mi); }

// An enabled daily task from the given day, at the given time, no repeats.
TaskSnapshot Daily(long id, int y, int mo, int d, int h, int mi) {
  TaskSnapshot t;
  t.id = id;
  t.enabled = true;
  t.name = "task " + std::to_string(id);
  ORVA_SCHED_SCHEDULE& s = t.schedule;
  s.year = static_cast<uint16_t>(y);
  s.month = static_cast<uint8_t>(mo), s.day = static_cast<uint8_t>(d);
  s.repeat = ORVA_SCHED_REPEAT_DAILY;
  s.hour = s.last_work_hour = static_cast<uint8_t>(h);
  s.min = static_cast<uint8_t>(mi);
  return t;
}

class SchedulerTest : public ::testing::Test {
 protected:
  SchedulerTest() : launcher(clock) { SetTZ("UTC"); }

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

TEST_F(SchedulerTest, DueTasksStartOnceAtTheirTime) {
  clock.now = Local(2024, 5, 1, 9, 59, 30);
  source.tasks = {Daily(1, 2024, 5, 1, 10, 0)};
  TaskSnapshot rep = Daily(2, 2024, 5, 1, 10, 0);
  rep.schedule.repeat_min = 30;
  rep.schedule.last_work_hour = 11;
  source.tasks.push_back(rep);
  orva_sched::Scheduler s(clock, source, launcher);
  ASSERT_TRUE(s.Rescan());
  EXPECT_EQ(s.NextWake(), Local(2024, 5, 1, 10, 0));
  s.Tick();
  EXPECT_TRUE(launcher.launches.empty());

  clock.now = Local(2024, 5, 1, 10, 0);
  s.Tick();
  s.Tick();
  clock.now += 30;
  s.Tick();
  EXPECT_EQ(launcher.launches, (std::vector<Fired>{{1, Local(2024, 5, 1, 10, 0)}, {2, Local(2024, 5, 1, 10, 0)}}));
  EXPECT_EQ(s.NextOf(1), Local(2024, 5, 2, 10, 0));

  launcher.launches.clear();
  RunUntil(s, Local(2024, 5, 2, 10, 0) - 1);
  EXPECT_EQ(launcher.launches, (std::vector<Fired>{{2, Local(2024, 5, 1, 10, 30)},
                                                    {2, Local(2024, 5, 1, 11, 0)},
                                                    {2, Local(2024, 5, 1, 11, 30)}}));
}

TEST_F(SchedulerTest, DisabledTaskNeverRunsUntilEnabled) {
  clock.now = Local(2024, 5, 1, 8, 0);
  source.tasks = {Daily(7, 2024, 5, 1, 10, 0)};
  source.tasks[0].enabled = false;
  orva_sched::Scheduler s(clock, source, launcher);
  ASSERT_TRUE(s.Rescan());
  EXPECT_EQ(s.NextWake(), -1);
  RunUntil(s, Local(2024, 5, 4, 12, 0));
  EXPECT_TRUE(launcher.launches.empty());

  source.tasks[0].enabled = true;
  ASSERT_TRUE(s.Rescan());
  RunUntil(s, Local(2024, 5, 5, 11, 0));
  EXPECT_EQ(launcher.launches, (std::vector<Fired>{{7, Local(2024, 5, 5, 10, 0)}}));
}

TEST_F(SchedulerTest, ChangedAndDeletedTasksAreRescheduled) {
  clock.now = Local(2024, 5, 1, 9, 0);
  source.tasks = {Daily(1, 2024, 5, 1, 10, 0), Daily(2, 2024, 5, 1, 10, 0)};
  orva_sched::Scheduler s(clock, source, launcher);
  ASSERT_TRUE(s.Rescan());

  source.Find(1)->schedule.hour = 11;  // moved
  source.Find(2)->name = "renamed";    // same schedule: keeps its trigger
  ASSERT_TRUE(s.Rescan());
  EXPECT_EQ(s.NextOf(1), Local(2024, 5, 1, 11, 0));
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 1, 10, 0));
  RunUntil(s, Local(2024, 5, 1, 10, 0, 0));

  // A rename in the very second of a run does not run it again.
  source.Find(2)->name = "renamed again";
  ASSERT_TRUE(s.Rescan());
  RunUntil(s, Local(2024, 5, 1, 12, 0));
  EXPECT_EQ(launcher.launches, (std::vector<Fired>{{2, Local(2024, 5, 1, 10, 0)}, {1, Local(2024, 5, 1, 11, 0)}}));

  source.tasks.erase(source.tasks.begin());
  ASSERT_TRUE(s.Rescan());
  EXPECT_EQ(s.TaskCount(), 1u);
  EXPECT_EQ(s.NextOf(1), -1);
  launcher.launches.clear();
  RunUntil(s, Local(2024, 5, 2, 12, 0));
  EXPECT_EQ(launcher.launches, (std::vector<Fired>{{2, Local(2024, 5, 2, 10, 0)}}));

  // A store that cannot be read leaves the table as it was.
  source.fail = true;
  EXPECT_FALSE(s.Rescan());
  EXPECT_EQ(s.TaskCount(), 1u);
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 3, 10, 0));
}

TEST_F(SchedulerTest, ClockSetForwardOrBackRecomputes) {
  clock.now = Local(2024, 5, 1, 9, 0);
  source.tasks = {Daily(1, 2024, 5, 1, 10, 0), Daily(2, 2024, 5, 1, 12, 0)};
  orva_sched::Scheduler s(clock, source, launcher);
  ASSERT_TRUE(s.Rescan());

  // Forward past 10:00: that run is missed, not replayed; 12:00 still comes.
  clock.now = Local(2024, 5, 1, 11, 0);
  s.ClockChanged();
  EXPECT_TRUE(launcher.launches.empty());
  EXPECT_EQ(s.NextOf(1), Local(2024, 5, 2, 10, 0));
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 1, 12, 0));

  // Back before 10:00: 10:00 today comes again.
  clock.now = Local(2024, 5, 1, 9, 30);
  s.ClockChanged();
  EXPECT_EQ(s.NextOf(1), Local(2024, 5, 1, 10, 0));
  RunUntil(s, Local(2024, 5, 1, 10, 0, 5));
  EXPECT_EQ(launcher.launches, (std::vector<Fired>{{1, Local(2024, 5, 1, 10, 0)}}));

  // A small step over a trigger (within the grace) still runs it, once.
  launcher.launches.clear();
  clock.now = Local(2024, 5, 1, 11, 59, 50);
  s.Tick();
  clock.now = Local(2024, 5, 1, 12, 0, 30);
  s.ClockChanged();
  s.Tick();
  EXPECT_EQ(launcher.launches, (std::vector<Fired>{{2, Local(2024, 5, 1, 12, 0, 30)}}));
  EXPECT_EQ(s.NextOf(2), Local(2024, 5, 2, 12, 0));
}

TEST_F(SchedulerTest, LateWakeUpsAreMissedNotReplayed) {
  clock.now = Local(2024, 5, 1, 9, 0);
  TaskSnapshot rep = Daily(3, 2024, 5, 1, 10, 0);
  rep.schedule.repeat_min = 5;
  rep.schedule.last_work_hour = 23;
  source.tasks = {Daily(1, 2024, 5, 1, 10, 0), rep};
  orva_sched::Scheduler s(clock, source, launcher);
  ASSERT_TRUE(s.Rescan());

  // Asleep from before 10:00 until 10:07:30: the 10:05 repeat is 150 s late, and
  // everything before it is missed.
  clock.now = Local(2024, 5, 1, 10, 7, 30);
  s.Tick();
  EXPECT_TRUE(launcher.launches.empty());
  EXPECT_EQ(s.NextOf(1), Local(2024, 5, 2, 10, 0));
  EXPECT_EQ(s.NextOf(3), Local(2024, 5, 1, 10, 10));

  // Within the grace the latest trigger runs, once.
  clock.now = Local(2024, 5, 1, 10, 10, 40);
  s.Tick();
  EXPECT_EQ(launcher.launches, (std::vector<Fired>{{3, clock.now}}));

  // Triggers of a stopped daemon are only reported at the next start.
  launcher.launches.clear();
  FakeClock later;
  later.now = Local(2024, 5, 3, 9, 0);
  RecordingLauncher l2(later);
  orva_sched::Scheduler restarted(later, source, l2);
  ASSERT_TRUE(restarted.Rescan());
  restarted.ReportMissedSince(Local(2024, 5, 1, 10, 11));
  restarted.Tick();
  EXPECT_TRUE(l2.launches.empty());
  EXPECT_EQ(restarted.NextOf(1), Local(2024, 5, 3, 10, 0));
}

struct DstCase {
  const char* tz;
  int y, mo, d, h, mi;           // daily task's wall time, first day
  std::vector<time_t> expected;  // launch instants over the next two days
};

TEST_F(SchedulerTest, DaylightSavingDaysFollowTheStoreRules) {
  const std::vector<DstCase> cases = {
      // Spring forward: 02:30 does not exist that night, it runs at 03:00.
      {"Europe/Berlin", 2024, 3, 30, 2, 30,
       {Utc(2024, 3, 30, 1, 30), Utc(2024, 3, 31, 1, 0), Utc(2024, 4, 1, 0, 30)}},
      // Fall back: 02:30 occurs twice; it runs at the first one only.
      {"Europe/Berlin", 2024, 10, 26, 2, 30,
       {Utc(2024, 10, 26, 0, 30), Utc(2024, 10, 27, 0, 30), Utc(2024, 10, 28, 1, 30)}},
      {"America/New_York", 2024, 3, 9, 2, 30,
       {Utc(2024, 3, 9, 7, 30), Utc(2024, 3, 10, 7, 0), Utc(2024, 3, 11, 6, 30)}},
      {"America/New_York", 2024, 11, 2, 1, 30,
       {Utc(2024, 11, 2, 5, 30), Utc(2024, 11, 3, 5, 30), Utc(2024, 11, 4, 6, 30)}},
  };
  for (const DstCase& c : cases) {
    SCOPED_TRACE(std::string(c.tz) + " " + std::to_string(c.mo) + "/" + std::to_string(c.d));
    SetTZ(c.tz);
    launcher.launches.clear();
    clock.now = Local(c.y, c.mo, c.d, 0, 0);
    source.tasks = {Daily(5, c.y, c.mo, c.d, c.h, c.mi)};
    orva_sched::Scheduler s(clock, source, launcher);
    ASSERT_TRUE(s.Rescan());
    RunUntil(s, clock.now + 3 * 86400 - 3600);
    std::vector<Fired> want;
    for (time_t t : c.expected) want.push_back({5, t});
    EXPECT_EQ(launcher.launches, want);
    // The daemon fires exactly where the store says the next trigger is.
    for (size_t i = 1; i < launcher.launches.size(); ++i) {
      EXPECT_EQ(launcher.launches[i].at, ORVASchedScheduleNextTrigger(source.tasks[0].schedule,
                                                                        launcher.launches[i - 1].at));
    }
  }
}

TEST_F(SchedulerTest, RepeatsThroughTheFallBackHourRunEachWallTimeOnce) {
  SetTZ("Europe/Berlin");
  clock.now = Local(2024, 10, 26, 23, 0);
  TaskSnapshot rep = Daily(9, 2024, 10, 27, 1, 0);
  rep.schedule.repeat_min = 30;
  rep.schedule.last_work_hour = 3;
  source.tasks = {rep};
  orva_sched::Scheduler s(clock, source, launcher);
  ASSERT_TRUE(s.Rescan());
  RunUntil(s, Local(2024, 10, 27, 12, 0));
  std::vector<std::string> walls;
  for (const Fired& l : launcher.launches) walls.push_back(ORVASchedFormatTriggerTime(l.at));
  EXPECT_EQ(walls, (std::vector<std::string>{"2024-10-27 01:00", "2024-10-27 01:30", "2024-10-27 02:00",
                                             "2024-10-27 02:30", "2024-10-27 03:00", "2024-10-27 03:30"}));
}

}  // namespace
