// Next trigger times in pinned time zones, "now" given, clock changes included.
#include <stdlib.h>
#include <time.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/lookup_epoch.h"
#include "scheduler/schedule.h"

namespace {

// "YYYY-MM-DD HH:MM" read as UTC.
time_t Utc(const char* text) {
  struct tm tm = {};
  strptime(text, "%Y-%m-%d %H:%M", &tm);
  return timegm(&tm);
}

struct Case {
  const char* what;
  const char* tz;
  const char* schedule;   // see Make
  const char* nowUtc;
  const char* wantLocal;  // or "N/A"
  const char* wantUtc = nullptr;  // the exact instant, where a clock change makes it matter
};

constexpr const char* BER = "Europe/Berlin";
constexpr const char* NY = "America/New_York";

const Case kCases[] = {
    // Daily.
    {"daily, exactly now", BER, "D 2024-01-01 08:30", "2024-06-10 06:30", "2024-06-11 08:30"},
    {"daily, starts later", BER, "D 2024-07-01 08:30", "2024-06-10 05:00", "2024-07-01 08:30"},
    // Weekly (0 = Sunday).
    {"weekly, Tue -> Wed", BER, "W 2024-01-01 10:00 0:00 23 2a", "2024-06-11 10:00", "2024-06-12 10:00"},
    {"weekly, Sunday passed", BER, "W 2024-01-01 10:00 0:00 23 01", "2024-06-16 09:00", "2024-06-23 10:00"},
    // Monthly: a day the month lacks is skipped.
    {"monthly 31, April skipped", BER, "M 2024-01-31 09:00", "2024-03-31 22:00", "2024-05-31 09:00"},
    {"monthly 29, leap February", BER, "M 2023-01-29 12:00", "2024-02-01 00:00", "2024-02-29 12:00"},
    {"monthly 29, plain February", BER, "M 2023-01-29 12:00", "2023-02-01 00:00", "2023-03-29 12:00"},
    // Once.
    {"once, earlier the same day", NY, "O 2024-06-10 08:00", "2024-06-10 13:00", "N/A"},
    {"once, repeats within its day", NY, "O 2024-06-10 08:00 0:20 9", "2024-06-10 13:00", "2024-06-10 09:20"},
    // Repeats within the day, up to the last hour.
    {"every 15 min", BER, "D 2024-01-01 09:00 0:15 10", "2024-06-10 08:40", "2024-06-10 10:45"},
    {"every 15 min, exactly the last", BER, "D 2024-01-01 09:00 0:15 10", "2024-06-10 08:45", "2024-06-11 09:00"},
    {"every 4 h", NY, "D 2024-01-01 01:00 4:00 23", "2024-06-10 17:00", "2024-06-10 17:00"},
    {"last hour before the first", BER, "D 2024-01-01 09:00 0:30 5", "2024-06-10 07:05", "2024-06-11 09:00"},
    // Late in the day (the day's earlier repeats are skipped).
    {"every 7 min from 00:03", BER, "D 2024-01-01 00:03 0:07 23", "2024-06-10 20:10", "2024-06-10 22:13"},
    {"every minute, past the last hour", BER, "D 2024-01-01 00:00 0:01 22", "2024-06-10 21:30", "2024-06-11 00:00"},
    {"every minute, after spring forward", BER, "D 2024-03-01 00:00 0:01 23", "2024-03-31 01:30", "2024-03-31 03:31", "2024-03-31 01:31"},
    {"every minute, second pass of the repeated hour", BER, "D 2024-10-01 00:00 0:01 23", "2024-10-27 01:10", "2024-10-27 03:00", "2024-10-27 02:00"},
    {"every minute, evening after fall back", NY, "D 2024-10-01 00:00 0:01 23", "2024-11-04 04:30", "2024-11-03 23:31", "2024-11-04 04:31"},
    {"weekly with repeats", BER, "W 2024-01-01 22:00 1:00 23 02", "2024-06-10 20:30", "2024-06-10 23:00"},
    // Spring forward: a time in the gap runs when the gap ends, once.
    {"gap, Berlin", BER, "D 2024-03-01 02:30", "2024-03-30 22:00", "2024-03-31 03:00", "2024-03-31 01:00"},
    {"gap, repeats fold into one", BER, "D 2024-03-01 01:00 0:30 5", "2024-03-31 00:30", "2024-03-31 03:00", "2024-03-31 01:00"},
    {"gap, repeats go on after", BER, "D 2024-03-01 01:00 0:30 5", "2024-03-31 01:00", "2024-03-31 03:30", "2024-03-31 01:30"},
    {"gap, monthly", NY, "M 2024-01-10 02:00", "2024-03-01 00:00", "2024-03-10 03:00", "2024-03-10 07:00"},
    // Fall back: a time that occurs twice runs at its first occurrence only.
    {"overlap, Berlin, first", BER, "D 2024-10-01 02:30", "2024-10-26 23:00", "2024-10-27 02:30", "2024-10-27 00:30"},
    {"overlap, Berlin, not twice", BER, "D 2024-10-01 02:30", "2024-10-27 00:30", "2024-10-28 02:30"},
    {"overlap, repeats skip the second hour", BER, "D 2024-10-01 00:00 0:30 5", "2024-10-27 00:30", "2024-10-27 03:00", "2024-10-27 02:00"},
};

// "R YYYY-MM-DD HH:MM [RH:RM LAST [DAYS]]": R is D(aily), W(eekly), M(onthly) or O(nce);
// repeats every RH hours or RM minutes until the hour LAST; DAYS a hex week mask (bit 0 Sunday).
ORVA_SCHED_SCHEDULE Make(const char* text) {
  char r = 0;
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, rh = 0, rm = 0, last = 23;
  unsigned days = 0x7f;
  sscanf(text, "%c %d-%d-%d %d:%d %d:%d %d %x", &r, &y, &mo, &d, &h, &mi, &rh, &rm, &last, &days);
  ORVA_SCHED_SCHEDULE s{};
  s.repeat = static_cast<uint8_t>(r == 'D'   ? ORVA_SCHED_REPEAT_DAILY
                                  : r == 'W' ? ORVA_SCHED_REPEAT_WEEKLY
                                  : r == 'M' ? ORVA_SCHED_REPEAT_MONTHLY
                                             : ORVA_SCHED_REPEAT_ONCE);
  s.year = static_cast<uint16_t>(y), s.month = static_cast<uint8_t>(mo), s.day = static_cast<uint8_t>(d);
  s.hour = static_cast<uint8_t>(h), s.min = static_cast<uint8_t>(mi);
  s.repeat_hour = static_cast<uint8_t>(rh), s.repeat_min = static_cast<uint8_t>(rm);
  s.last_work_hour = static_cast<uint8_t>(last), s.week_mask = static_cast<uint8_t>(days);
  return s;
}

}  // namespace

TEST(SchedSchedule, NextTriggers) {
  // Within one lookup epoch, where answers are kept: each case is first asked in another
  // zone, then twice in its own, which must not answer from what the other zone left.
  ORVALookupEpochNext();
  for (const Case& c : kCases) {
    SCOPED_TRACE(std::string(c.what) + " (" + c.tz + ")");
    ORVA_SCHED_SCHEDULE s = Make(c.schedule);
    setenv("TZ", "UTC0", 1);
    ORVASchedScheduleNextTrigger(s, Utc(c.nowUtc));
    setenv("TZ", c.tz, 1);
    tzset();
    ASSERT_TRUE(ORVASchedScheduleValidate(s));
    for (int again = 0; again < 2; ++again) {
      time_t next = ORVASchedScheduleNextTrigger(s, Utc(c.nowUtc));
      EXPECT_EQ(ORVASchedFormatTriggerTime(next), c.wantLocal);
      if (c.wantUtc) {
        EXPECT_EQ(next, Utc(c.wantUtc));
      }
    }
  }

  // Several start times in a row, as a preview lists them: clock changes inside the list,
  // and fewer than asked when the schedule ends.
  const struct {
    const char *schedule, *nowUtc;
    int count;
    std::vector<std::string> want;
  } cases[] = {
      {"D 2024-03-01 02:30", "2024-03-29 12:00", 3, {"2024-03-30 02:30", "2024-03-31 03:00", "2024-04-01 02:30"}},
      {"D 2024-10-01 00:00 0:30 3", "2024-10-26 23:30", 4,
       {"2024-10-27 02:00", "2024-10-27 02:30", "2024-10-27 03:00", "2024-10-27 03:30"}},
      {"O 2024-02-29 12:00", "2024-02-01 00:00", 5, {"2024-02-29 12:00"}},
  };
  setenv("TZ", BER, 1);
  tzset();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.schedule);
    std::vector<time_t> next;
    const int n = ORVASchedScheduleNextTriggers(Make(c.schedule), Utc(c.nowUtc), c.count, next);
    EXPECT_EQ(n, static_cast<int>(c.want.size()));
    std::vector<std::string> got;
    for (time_t t : next) got.push_back(ORVASchedFormatTriggerTime(t));
    EXPECT_EQ(got, c.want);
  }
  unsetenv("TZ");
  tzset();
}
