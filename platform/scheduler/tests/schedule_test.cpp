// Next trigger times in pinned time zones, "now" given, clock changes included.
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/lookup_epoch.h"
#include "scheduler/task.h"

namespace {

// "YYYY-MM-DD HH:MM" read as UTC.
time_t Utc(const char* text) {
  struct tm tm;
  memset(&tm, 0, sizeof(tm));
  strptime(text, "%Y-%m-%d %H:%M", &tm);
  return timegm(&tm);
}

struct Case {
  const char* what;
  const char* tz;
  int repeat;
  const char* date;  // YYYY-MM-DD
  uint8_t weekMask;
  int hour, min, repeatHour, repeatMin, lastWorkHour;
  const char* nowUtc;
  const char* wantLocal;  // or "N/A"
  const char* wantUtc;    // the exact instant, where a clock change makes it matter
};

constexpr int D = ORVA_SCHED_REPEAT_DAILY, W = ORVA_SCHED_REPEAT_WEEKLY, M = ORVA_SCHED_REPEAT_MONTHLY,
              O = ORVA_SCHED_REPEAT_ONCE;
constexpr const char* BER = "Europe/Berlin";
constexpr const char* NY = "America/New_York";

const Case kCases[] = {
    // Daily.
    {"daily, later today", BER, D, "2024-01-01", 0, 8, 30, 0, 0, 23, "2024-06-10 05:00", "2024-06-10 08:30", nullptr},
    {"daily, passed today", BER, D, "2024-01-01", 0, 8, 30, 0, 0, 23, "2024-06-10 07:00", "2024-06-11 08:30", nullptr},
    {"daily, exactly now", BER, D, "2024-01-01", 0, 8, 30, 0, 0, 23, "2024-06-10 06:30", "2024-06-11 08:30", nullptr},
    {"daily, starts later", BER, D, "2024-07-01", 0, 8, 30, 0, 0, 23, "2024-06-10 05:00", "2024-07-01 08:30", nullptr},
    {"daily, year end", NY, D, "2024-01-01", 0, 0, 0, 0, 0, 23, "2024-12-31 12:00", "2025-01-01 00:00", nullptr},
    // Weekly (0 = Sunday).
    {"weekly, Tue -> Wed", BER, W, "2024-01-01", 0x2a, 10, 0, 0, 0, 23, "2024-06-11 10:00", "2024-06-12 10:00", nullptr},
    {"weekly, Sunday passed", BER, W, "2024-01-01", 0x01, 10, 0, 0, 0, 23, "2024-06-16 09:00", "2024-06-23 10:00",
     nullptr},
    {"weekly, Saturday", NY, W, "2024-01-01", 0x40, 23, 59, 0, 0, 23, "2024-06-10 12:00", "2024-06-15 23:59", nullptr},
    // Monthly: a day the month lacks is skipped.
    {"monthly 31, April skipped", BER, M, "2024-01-31", 0, 9, 0, 0, 0, 23, "2024-03-31 22:00", "2024-05-31 09:00",
     nullptr},
    {"monthly 31, February skipped", NY, M, "2024-01-31", 0, 9, 0, 0, 0, 23, "2024-02-01 12:00", "2024-03-31 09:00",
     nullptr},
    {"monthly 29, leap February", BER, M, "2023-01-29", 0, 12, 0, 0, 0, 23, "2024-02-01 00:00", "2024-02-29 12:00",
     nullptr},
    {"monthly 29, plain February", BER, M, "2023-01-29", 0, 12, 0, 0, 0, 23, "2023-02-01 00:00", "2023-03-29 12:00",
     nullptr},
    {"monthly, starts later", BER, M, "2024-08-15", 0, 6, 0, 0, 0, 23, "2024-06-20 00:00", "2024-08-15 06:00", nullptr},
    // Once.
    {"once, 29 February", BER, O, "2024-02-29", 0, 12, 0, 0, 0, 23, "2024-02-01 00:00", "2024-02-29 12:00", nullptr},
    {"once, in the past", BER, O, "2024-02-29", 0, 12, 0, 0, 0, 23, "2024-03-01 00:00", "N/A", nullptr},
    {"once, earlier the same day", NY, O, "2024-06-10", 0, 8, 0, 0, 0, 23, "2024-06-10 13:00", "N/A", nullptr},
    {"once, repeats within its day", NY, O, "2024-06-10", 0, 8, 0, 0, 20, 9, "2024-06-10 13:00", "2024-06-10 09:20",
     nullptr},
    // Repeats within the day, up to the last hour.
    {"every 15 min", BER, D, "2024-01-01", 0, 9, 0, 0, 15, 10, "2024-06-10 08:40", "2024-06-10 10:45", nullptr},
    {"every 15 min, exactly the last", BER, D, "2024-01-01", 0, 9, 0, 0, 15, 10, "2024-06-10 08:45",
     "2024-06-11 09:00", nullptr},
    {"every 4 h", NY, D, "2024-01-01", 0, 1, 0, 4, 0, 23, "2024-06-10 17:00", "2024-06-10 17:00", nullptr},
    {"every 4 h, after the last", NY, D, "2024-01-01", 0, 1, 0, 4, 0, 23, "2024-06-11 01:30", "2024-06-11 01:00",
     nullptr},
    {"last hour before the first", BER, D, "2024-01-01", 0, 9, 0, 0, 30, 5, "2024-06-10 07:05", "2024-06-11 09:00",
     nullptr},
    // Every minute or every 7 minutes late in the day (the day's earlier repeats are skipped).
    {"every minute, evening", BER, D, "2024-01-01", 0, 0, 0, 0, 1, 23, "2024-06-10 20:10", "2024-06-10 22:11",
     "2024-06-10 20:11"},
    {"every 7 min from 00:03", BER, D, "2024-01-01", 0, 0, 3, 0, 7, 23, "2024-06-10 20:10", "2024-06-10 22:13",
     nullptr},
    {"every minute, past the last hour", BER, D, "2024-01-01", 0, 0, 0, 0, 1, 22, "2024-06-10 21:30",
     "2024-06-11 00:00", nullptr},
    {"every minute, after spring forward", BER, D, "2024-03-01", 0, 0, 0, 0, 1, 23, "2024-03-31 01:30",
     "2024-03-31 03:31", "2024-03-31 01:31"},
    {"every minute, second pass of the repeated hour", BER, D, "2024-10-01", 0, 0, 0, 0, 1, 23, "2024-10-27 01:10",
     "2024-10-27 03:00", "2024-10-27 02:00"},
    {"every minute, evening after fall back", NY, D, "2024-10-01", 0, 0, 0, 0, 1, 23, "2024-11-04 04:30",
     "2024-11-03 23:31", "2024-11-04 04:31"},
    {"weekly with repeats", BER, W, "2024-01-01", 0x02, 22, 0, 1, 0, 23, "2024-06-10 20:30", "2024-06-10 23:00",
     nullptr},
    // Spring forward: a time in the gap runs when the gap ends, once.
    {"gap, Berlin", BER, D, "2024-03-01", 0, 2, 30, 0, 0, 23, "2024-03-30 22:00", "2024-03-31 03:00",
     "2024-03-31 01:00"},
    {"gap, Berlin, day after", BER, D, "2024-03-01", 0, 2, 30, 0, 0, 23, "2024-03-31 01:00", "2024-04-01 02:30",
     nullptr},
    {"gap, repeats fold into one", BER, D, "2024-03-01", 0, 1, 0, 0, 30, 5, "2024-03-31 00:30", "2024-03-31 03:00",
     "2024-03-31 01:00"},
    {"gap, repeats go on after", BER, D, "2024-03-01", 0, 1, 0, 0, 30, 5, "2024-03-31 01:00", "2024-03-31 03:30",
     "2024-03-31 01:30"},
    {"gap, New York", NY, D, "2024-03-01", 0, 2, 15, 0, 0, 23, "2024-03-09 17:00", "2024-03-10 03:00",
     "2024-03-10 07:00"},
    {"gap, monthly", NY, M, "2024-01-10", 0, 2, 0, 0, 0, 23, "2024-03-01 00:00", "2024-03-10 03:00",
     "2024-03-10 07:00"},
    // Fall back: a time that occurs twice runs at its first occurrence only.
    {"overlap, Berlin, first", BER, D, "2024-10-01", 0, 2, 30, 0, 0, 23, "2024-10-26 23:00", "2024-10-27 02:30",
     "2024-10-27 00:30"},
    {"overlap, Berlin, not twice", BER, D, "2024-10-01", 0, 2, 30, 0, 0, 23, "2024-10-27 00:30", "2024-10-28 02:30",
     nullptr},
    {"overlap, repeats skip the second hour", BER, D, "2024-10-01", 0, 0, 0, 0, 30, 5, "2024-10-27 00:30",
     "2024-10-27 03:00", "2024-10-27 02:00"},
    {"overlap, New York, first", NY, D, "2024-10-01", 0, 1, 30, 0, 0, 23, "2024-11-03 04:00", "2024-11-03 01:30",
     "2024-11-03 05:30"},
    {"overlap, New York, not twice", NY, D, "2024-10-01", 0, 1, 30, 0, 0, 23, "2024-11-03 05:30",
     "2024-11-04 01:30", "2024-11-04 06:30"},
};

ORVA_SCHED_SCHEDULE Make(const Case& c) {
  ORVA_SCHED_SCHEDULE s;
  memset(&s, 0, sizeof(s));
  int y = 0, m = 0, d = 0;
  sscanf(c.date, "%d-%d-%d", &y, &m, &d);
  s.year = static_cast<uint16_t>(y);
  s.month = static_cast<uint8_t>(m), s.day = static_cast<uint8_t>(d);
  s.repeat = static_cast<uint8_t>(c.repeat);
  s.week_mask = c.weekMask ? c.weekMask : 0x7f;
  s.hour = static_cast<uint8_t>(c.hour), s.min = static_cast<uint8_t>(c.min);
  s.repeat_hour = static_cast<uint8_t>(c.repeatHour), s.repeat_min = static_cast<uint8_t>(c.repeatMin);
  s.last_work_hour = static_cast<uint8_t>(c.lastWorkHour);
  return s;
}

}  // namespace

TEST(SchedSchedule, NextTriggerTable) {
  // Again within one lookup epoch, where answers are kept: each case is first asked in
  // another zone, and then again, which must not answer from what was kept.
  for (bool epoch : {false, true}) {
    if (epoch) ORVALookupEpochNext();
    for (const Case& c : kCases) {
      SCOPED_TRACE(std::string(c.what) + " (" + c.tz + (epoch ? ", epoch)" : ")"));
      ORVA_SCHED_SCHEDULE s = Make(c);
      if (epoch) {
        setenv("TZ", "UTC0", 1);
        ORVASchedScheduleNextTrigger(s, Utc(c.nowUtc));
      }
      setenv("TZ", c.tz, 1);
      tzset();
      ASSERT_TRUE(ORVASchedScheduleValidate(s));
      for (int again = 0; again <= epoch; ++again) {
        time_t next = ORVASchedScheduleNextTrigger(s, Utc(c.nowUtc));
        EXPECT_EQ(ORVASchedFormatTriggerTime(next), c.wantLocal);
        if (c.wantUtc) {
          EXPECT_EQ(next, Utc(c.wantUtc));
        }
      }
    }
  }
  unsetenv("TZ");
  tzset();
}

// Several start times in a row, as a preview lists them: clock changes inside the list,
// and fewer than asked when the schedule ends.
TEST(SchedSchedule, NextTriggersList) {
  struct ListCase {
    const char* what;
    Case schedule;
    int count;
    std::vector<std::string> want;
  } cases[] = {
      {"gap inside", {"", BER, D, "2024-03-01", 0, 2, 30, 0, 0, 23, "2024-03-29 12:00", "", nullptr}, 3,
       {"2024-03-30 02:30", "2024-03-31 03:00", "2024-04-01 02:30"}},
      {"overlap runs once", {"", BER, D, "2024-10-01", 0, 0, 0, 0, 30, 3, "2024-10-26 23:30", "", nullptr}, 4,
       {"2024-10-27 02:00", "2024-10-27 02:30", "2024-10-27 03:00", "2024-10-27 03:30"}},
      {"once: fewer", {"", BER, O, "2024-02-29", 0, 12, 0, 0, 0, 23, "2024-02-01 00:00", "", nullptr}, 5,
       {"2024-02-29 12:00"}},
      {"once, past: none", {"", BER, O, "2024-02-29", 0, 12, 0, 0, 0, 23, "2024-03-01 00:00", "", nullptr}, 5, {}},
  };
  setenv("TZ", BER, 1);
  tzset();
  for (const ListCase& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<time_t> next;
    EXPECT_EQ(ORVASchedScheduleNextTriggers(Make(c.schedule), Utc(c.schedule.nowUtc), c.count, next),
              static_cast<int>(c.want.size()));
    std::vector<std::string> got;
    for (time_t t : next) got.push_back(ORVASchedFormatTriggerTime(t));
    EXPECT_EQ(got, c.want);
  }
  ORVA_SCHED_SCHEDULE noDays = Make(kCases[0]);
  noDays.repeat = W;
  noDays.week_mask = 0;
  std::vector<time_t> next;
  EXPECT_EQ(ORVASchedScheduleNextTriggers(noDays, 0, 3, next), -1);
  unsetenv("TZ");
  tzset();
}

TEST(SchedSchedule, TaskStateAndEmptySchedules) {
  setenv("TZ", BER, 1);
  tzset();
  ORVA_SCHED_TASK* t = ORVASchedTaskAllocFast();
  ASSERT_NE(t, nullptr);
  t->schedule = Make(kCases[0]);
  time_t now = Utc(kCases[0].nowUtc);
  EXPECT_EQ(ORVASchedTaskGetNextTriggerTimeAt(*t, now), "2024-06-10 08:30");
  ORVALookupEpochNext();  // answers kept from here on: each time its own text
  EXPECT_EQ(ORVASchedTaskGetNextTriggerTimeAt(*t, now), "2024-06-10 08:30");
  for (time_t after = now; after < now + 2048 * 60; after += 60) {  // more than the memo holds
    ASSERT_EQ(ORVASchedTaskGetNextTriggerTimeAt(*t, after),
              ORVASchedFormatTriggerTime(ORVASchedTaskNextTrigger(*t, after)));
  }
  ORVASchedCTaskSetState(t, 0);  // disabled
  EXPECT_EQ(ORVASchedTaskGetNextTriggerTimeAt(*t, now), "N/A");
  EXPECT_EQ(ORVASchedTaskNextTrigger(*t, now), -1);
  EXPECT_EQ(ORVASchedTaskGetNextTriggerTime(*t), "N/A");
  ORVASchedCTaskSetState(t, 1);
  t->schedule.repeat = ORVA_SCHED_REPEAT_WEEKLY;
  t->schedule.week_mask = 0;  // no day at all
  EXPECT_FALSE(ORVASchedScheduleValidate(t->schedule));
  EXPECT_EQ(ORVASchedTaskGetNextTriggerTimeAt(*t, now), "N/A");
  memset(&t->schedule, 0, sizeof(t->schedule));  // zero-filled: no schedule
  EXPECT_TRUE(ORVASchedScheduleValidate(t->schedule));
  EXPECT_EQ(ORVASchedTaskGetNextTriggerTimeAt(*t, now), "N/A");
  ORVASchedTaskFree(t);
  unsetenv("TZ");
  tzset();
}
