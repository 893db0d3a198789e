// Schedules: validation and the next trigger time in the system time zone.
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "core/log.h"
#include "core/lookup_epoch.h"
#include "internal.h"
#include "scheduler/schedule.h"

namespace {

// tzset() reads the zone file again (a stat at least) on every call: do it once per
// lookup epoch (each request), on every call in a process without epochs, and
// whenever TZ changes. localtime_r() itself never reads the zone again. Returns a
// number that changes with every tzset().
uint64_t ZoneCheck() {
  static std::mutex mutex;
  static uint64_t checked = 0;
  static uint64_t loads = 0;
  static bool hadTz = false;
  static std::string lastTz;
  const uint64_t epoch = ORVALookupEpoch();
  const char* tz = getenv("TZ");
  std::lock_guard<std::mutex> lock(mutex);
  if (epoch != 0 && epoch == checked && (tz != nullptr) == hadTz && (!tz || lastTz == tz)) {
    return loads;
  }
  tzset();
  checked = epoch;
  hadTz = tz != nullptr;
  lastTz = tz ? tz : "";
  return ++loads;
}

using namespace std::chrono;

// A listing asks for every task's next trigger at the same second, and tasks share
// schedules: answers are kept per thread while the zone stays as loaded (a request in
// the server; never in a process without lookup epochs, which reloads it every call).
// The key is the fields the answer depends on, year to last_work_hour.
constexpr size_t kMemoKey = offsetof(ORVA_SCHED_SCHEDULE, n_repeat_min_cfg);
struct TriggerMemo {
  uint64_t zone = 0;  // 0: empty
  time_t after = 0;
  unsigned char key[kMemoKey] = {};
  time_t next = 0;
  char text[64] = {};  // `next` formatted, once asked for; "" until then
};
constexpr size_t kMemoSlots = 1024;  // direct-mapped; a few hundred schedules rarely collide
thread_local std::unique_ptr<TriggerMemo[]> tMemo;  // on the heap: a module's static TLS is small

TriggerMemo& MemoSlot(const ORVA_SCHED_SCHEDULE& s, time_t after) {
  if (!tMemo) tMemo.reset(new TriggerMemo[kMemoSlots]);
  uint64_t h = 1469598103934665603ull ^ static_cast<uint64_t>(after);
  const unsigned char* p = reinterpret_cast<const unsigned char*>(&s);
  for (size_t i = 0; i < kMemoKey; ++i) h = (h ^ p[i]) * 1099511628211ull;
  return tMemo[(h ^ (h >> 32)) % kMemoSlots];
}

time_t NextTriggerInZone(const ORVA_SCHED_SCHEDULE& s, time_t after);

// Days since 1970-01-01 of a civil date.
int64_t DaysFromCivil(int y, unsigned m, unsigned d) {
  return sys_days{year{y} / month{m} / day{d}}.time_since_epoch().count();
}

long OffsetAt(time_t t) {
  struct tm lt;
  localtime_r(&t, &lt);
  return lt.tm_gmtoff;
}

// The instant of a local wall time given as seconds since the epoch "as if UTC".
// Ambiguous (clocks went back): the first occurrence. Nonexistent (clocks went
// forward): the instant the gap ends.
time_t WallToInstant(int64_t wall) {
  const long offsets[] = {OffsetAt(wall - 86400), OffsetAt(wall), OffsetAt(wall + 86400)};
  bool any = false;
  time_t best = 0;
  for (long o : offsets) {
    time_t t = static_cast<time_t>(wall - o);
    if (OffsetAt(t) == o && (!any || t < best)) {
      best = t;
      any = true;
    }
  }
  if (any) {
    return best;
  }
  // In a gap: the offset rises from lo to hi. wall - hi lies before the change and
  // wall - lo after it; find the change.
  long lo = *std::min_element(std::begin(offsets), std::end(offsets));
  long hi = *std::max_element(std::begin(offsets), std::end(offsets));
  time_t a = static_cast<time_t>(wall - hi);  // old offset here
  time_t b = static_cast<time_t>(wall - lo);  // new offset here
  long after = OffsetAt(b);
  while (b - a > 1) {
    time_t mid = a + (b - a) / 2;
    if (OffsetAt(mid) == after) {
      b = mid;
    } else {
      a = mid;
    }
  }
  return (b + 59) / 60 * 60;
}

}  // namespace

bool ORVASchedScheduleValidate(const ORVA_SCHED_SCHEDULE& s) {
  auto bad = [](const char* what) {
    ORVA_LOG(LOG_ERR, "invalid schedule: %s", what);
    return false;
  };
  bool ok = true;
  if (s.repeat > ORVA_SCHED_REPEAT_ONCE) {
    ok = bad("repeat");
  } else if (s.month != 0 && (s.year < 1970 || s.year > 9999 || s.month > 12 || s.day < 1 ||
                              !(year{s.year} / month{s.month} / day{s.day}).ok())) {
    ok = bad("date");
  } else if (s.month == 0 && (s.year != 0 || s.day != 0)) {
    ok = bad("date");
  } else if (s.hour > 23 || s.min > 59 || s.last_work_hour > 23) {
    ok = bad("time of day");
  } else if (s.repeat_hour > 23 || s.repeat_min > 59) {
    ok = bad("repeat interval");
  } else if (s.repeat_hour && s.repeat_min) {
    ok = bad("repeat_hour and repeat_min both set");
  } else if ((s.week_mask & 0x80) || (s.repeat == ORVA_SCHED_REPEAT_WEEKLY && s.month && !s.week_mask)) {
    ok = bad("week days");
  } else if (s.n_repeat_min_cfg > ORVA_SCHED_REPEAT_CFG_MAX || s.n_repeat_hour_cfg > ORVA_SCHED_REPEAT_CFG_MAX) {
    ok = bad("repeat config");
  } else {
    for (unsigned i = 0; i < s.n_repeat_min_cfg && ok; ++i) {
      if (s.repeat_min_cfg[i] < 1 || s.repeat_min_cfg[i] > 59) ok = bad("repeat_min_store_config");
    }
    for (unsigned i = 0; i < s.n_repeat_hour_cfg && ok; ++i) {
      if (s.repeat_hour_cfg[i] < 1 || s.repeat_hour_cfg[i] > 23) ok = bad("repeat_hour_store_config");
    }
  }
  if (!ok) {
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
  }
  return ok;
}

namespace {

// The next trigger and, when there is a schedule, its memo entry.
time_t NextTrigger(const ORVA_SCHED_SCHEDULE& s, time_t after, TriggerMemo** entry) {
  if (s.year > 9999 || s.month == 0 || s.month > 12 || s.day < 1 || s.day > 31 || s.repeat > ORVA_SCHED_REPEAT_ONCE ||
      s.hour > 23 || s.min > 59) {
    return -1;  // no (usable) schedule
  }
  const uint64_t zone = ZoneCheck();
  TriggerMemo& memo = MemoSlot(s, after);
  *entry = &memo;
  if (memo.zone == zone && memo.after == after && memcmp(memo.key, &s, kMemoKey) == 0) {
    return memo.next;
  }
  const time_t next = NextTriggerInZone(s, after);
  memo.zone = zone;
  memo.after = after;
  memcpy(memo.key, &s, kMemoKey);
  memo.next = next;
  memo.text[0] = '\0';
  return next;
}

time_t NextTriggerInZone(const ORVA_SCHED_SCHEDULE& s, time_t after) {
  struct tm lt;
  localtime_r(&after, &lt);
  const int64_t today = DaysFromCivil(lt.tm_year + 1900, static_cast<unsigned>(lt.tm_mon + 1),
                                      static_cast<unsigned>(lt.tm_mday));
  const int64_t start = DaysFromCivil(s.year, s.month, s.day);
  int64_t first = std::max(today, start);
  int64_t last = first + 400;  // every rule repeats well within this
  if (s.repeat == ORVA_SCHED_REPEAT_ONCE) {
    first = last = start;
  }
  const unsigned step = s.repeat_min ? s.repeat_min : s.repeat_hour * 60u;
  const unsigned firstMin = s.hour * 60u + s.min;
  // Today's repeats that end before `after` cannot be next: start at the first one
  // within the widest offset change around now (a minute repeat is otherwise walked
  // from its first minute of the day, four zone lookups each).
  unsigned todayMin = firstMin;
  if (step && first == today) {
    const long offsets[] = {OffsetAt(after - 86400), lt.tm_gmtoff, OffsetAt(after + 86400)};
    const long spread = *std::max_element(std::begin(offsets), std::end(offsets)) -
                        *std::min_element(std::begin(offsets), std::end(offsets));
    const int64_t sinceFirst = (static_cast<int64_t>(after) + lt.tm_gmtoff - spread - 60 - today * 86400) / 60 -
                               static_cast<int64_t>(firstMin);
    if (sinceFirst > 0) {
      todayMin = firstMin + static_cast<unsigned>(std::min<int64_t>(sinceFirst / step, 24 * 60) * step);
    }
  }
  for (int64_t d = first; d <= last; ++d) {
    const sys_days date{days{d}};
    if (s.repeat == ORVA_SCHED_REPEAT_WEEKLY && !(s.week_mask & (1u << weekday{date}.c_encoding()))) {
      continue;
    }
    if (s.repeat == ORVA_SCHED_REPEAT_MONTHLY && year_month_day{date}.day() != day{s.day}) {
      continue;
    }
    for (unsigned m = d == today ? todayMin : firstMin; m < 24 * 60; m += step) {
      if (m / 60 > s.last_work_hour && m != firstMin) {
        break;
      }
      time_t t = WallToInstant(d * 86400 + m * 60);
      if (t > after) {
        return t;
      }
      if (!step) {
        break;
      }
    }
  }
  return -1;
}

}  // namespace

int ORVASchedScheduleNextTriggers(const ORVA_SCHED_SCHEDULE& s, time_t after, int count, std::vector<time_t>& out) {
  out.clear();
  if (count < 0 || !ORVASchedScheduleValidate(s)) {
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
    return -1;
  }
  for (time_t t = after; static_cast<int>(out.size()) < count;) {
    t = ORVASchedScheduleNextTrigger(s, t);
    if (t < 0) break;
    out.push_back(t);
  }
  return static_cast<int>(out.size());
}

time_t ORVASchedScheduleNextTrigger(const ORVA_SCHED_SCHEDULE& s, time_t after) {
  TriggerMemo* entry;
  return NextTrigger(s, after, &entry);
}

namespace {

void FormatTriggerTime(time_t t, char (&buf)[64]) {
  struct tm lt;
  localtime_r(&t, &lt);
  snprintf(buf, sizeof(buf), "%04d-%02d-%02d %02d:%02d", lt.tm_year + 1900, lt.tm_mon + 1, lt.tm_mday, lt.tm_hour,
           lt.tm_min);
}

}  // namespace

std::string ORVASchedFormatTriggerTime(time_t t) {
  if (t < 0) {
    return "N/A";
  }
  char buf[64];
  FormatTriggerTime(t, buf);
  return buf;
}

std::string ORVASchedTaskGetNextTriggerTimeAt(const _tag_orva_sched_task_& task, time_t now) {
  // A listing formats the same few instants over and over: the text is kept with the
  // memo entry (same zone).
  return orva_sched::ReadField(task, [now](const auto& r) -> std::string {
    if (!r.enabled) return "N/A";
    TriggerMemo* entry = nullptr;
    const time_t next = NextTrigger(r.schedule, now, &entry);
    if (next < 0) return "N/A";
    if (!entry->text[0]) FormatTriggerTime(next, entry->text);
    return entry->text;
  });
}

std::string ORVASchedTaskGetNextTriggerTime(const _tag_orva_sched_task_& task) {
  return ORVASchedTaskGetNextTriggerTimeAt(task, time(nullptr));
}
