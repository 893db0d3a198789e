// The task record: allocation, setters (which mark truncation), getters, and the
// chain operations (next, sort, free).
#include <ctype.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <map>
#include <unordered_map>
#include <string>
#include <vector>

#include "core/log.h"
#include "core/user.h"
#include "internal.h"
#include "scheduler/schedule.h"
#include "scheduler/store.h"
#include "scheduler/task_fields.h"

namespace orva_sched {

bool CopyText(char* dst, size_t size, const char* text, size_t len) {
  bool fits = len < size;
  size_t n = fits ? len : size - 1;
  memcpy(dst, text, n);
  dst[n] = '\0';
  return fits;
}

void DefaultSchedule(ORVA_SCHED_SCHEDULE& s) {
  memset(&s, 0, sizeof(s));
  time_t now = time(nullptr);
  struct tm lt;
  localtime_r(&now, &lt);
  s.year = static_cast<uint16_t>(lt.tm_year + 1900);
  s.month = static_cast<uint8_t>(lt.tm_mon + 1);
  s.day = static_cast<uint8_t>(lt.tm_mday);
  s.repeat = ORVA_SCHED_REPEAT_DAILY;
  s.week_mask = 0x7f;
  s.last_work_hour = 23;
  static const uint8_t kMin[] = {1, 5, 10, 15, 20, 30};
  static const uint8_t kHour[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  s.n_repeat_min_cfg = sizeof(kMin);
  memcpy(s.repeat_min_cfg, kMin, sizeof(kMin));
  s.n_repeat_hour_cfg = sizeof(kHour);
  memcpy(s.repeat_hour_cfg, kHour, sizeof(kHour));
}

std::string FormatByteList(const uint8_t* v, unsigned n) {
  std::string out;
  for (unsigned i = 0; i < n; ++i) {
    if (i) {
      out += ',';
    }
    out += std::to_string(v[i]);
  }
  return out;
}

bool ParseByteList(const char* text, size_t len, uint8_t* v, uint8_t& n, unsigned max, unsigned lo, unsigned hi) {
  n = 0;
  if (len == 0) {
    return true;
  }
  size_t pos = 0;
  while (true) {
    unsigned value = 0;
    size_t digits = 0;
    for (; pos < len && text[pos] >= '0' && text[pos] <= '9'; ++pos, ++digits) {
      value = value * 10 + static_cast<unsigned>(text[pos] - '0');
      if (digits == 3) return false;
    }
    if (digits == 0 || value < lo || value > hi || n >= max) {
      return false;
    }
    v[n++] = static_cast<uint8_t>(value);
    if (pos == len) {
      return true;
    }
    if (text[pos] != ',') {
      return false;
    }
    ++pos;
  }
}

bool ParseByteList(const std::string& text, uint8_t* v, uint8_t& n, unsigned max, unsigned lo, unsigned hi) {
  return ParseByteList(text.data(), text.size(), v, n, max, lo, hi);
}

}  // namespace orva_sched

using orva_sched::CopyText;
using orva_sched::Edit;

namespace {

void SetText(ORVA_SCHED_TASK* task, char* field, size_t size, uint32_t bit, const char* text) {
  if (!text) {
    text = "";
  }
  if (CopyText(field, size, text, strlen(text))) {
    task->truncated &= ~bit;
  } else {
    task->truncated |= bit;
  }
}

}  // namespace

extern "C" {

ORVA_SCHED_TASK* ORVASchedTaskAllocFast(void) {
  ORVA_SCHED_TASK* task = static_cast<ORVA_SCHED_TASK*>(calloc(1, sizeof(ORVA_SCHED_TASK)));
  if (!task) {
    SCHED_ERR(KELC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  task->id = -1;
#define FRESH(K, m, basic, where, arg, get, set) FRESH_##K(m, arg)
#define FRESH_STATE(m, arg) task->m = (arg);
#define FRESH_FLAG FRESH_STATE
#define FRESH_ID(m, arg)
#define FRESH_MARKER FRESH_ID
#define FRESH_UID FRESH_ID
#define FRESH_TEXT FRESH_ID
#define FRESH_S8 FRESH_ID
#define FRESH_S16 FRESH_ID
#define FRESH_LIST FRESH_ID
  ORVA_SCHED_TASK_FIELDS(FRESH)
  orva_sched::DefaultSchedule(task->schedule);
  return task;
}

void ORVASchedTaskFree(ORVA_SCHED_TASK* pTask) { orva_sched::ListingFreeOne(pTask); }

ORVA_SCHED_TASK* ORVASchedTaskNext(const ORVA_SCHED_TASK* pTask) { return pTask ? pTask->next : nullptr; }

void ORVASchedTaskListFree(ORVA_SCHED_TASK* pList) { orva_sched::ListingFreeChain(pList); }

// Setters write through Edit: a listed record gets a record of its own to write to.
void ORVASchedCTaskSetID(ORVA_SCHED_TASK* t, long id) {
  Edit(t, [id](ORVA_SCHED_TASK& w) { w.id = id; });
}
void ORVASchedCTaskSetOwner(ORVA_SCHED_TASK* t, unsigned int uid) {
  Edit(t, [uid](ORVA_SCHED_TASK& w) { w.owner = uid; });
}
void ORVASchedCTaskSetState(ORVA_SCHED_TASK* t, unsigned char enabled) {
  Edit(t, [enabled](ORVA_SCHED_TASK& w) { w.enabled = enabled ? 1 : 0; });
}
void ORVASchedCTaskSetName(ORVA_SCHED_TASK* t, const char* v) {
  Edit(t, [v](ORVA_SCHED_TASK& w) { SetText(&w, w.name, sizeof(w.name), ORVA_SCHED_TRUNC_NAME, v); });
}
void ORVASchedCTaskSetApp(ORVA_SCHED_TASK* t, const char* v) {
  Edit(t, [v](ORVA_SCHED_TASK& w) { SetText(&w, w.app, sizeof(w.app), ORVA_SCHED_TRUNC_APP, v); });
}
void ORVASchedCTaskSetAppName(ORVA_SCHED_TASK* t, const char* v) {
  Edit(t, [v](ORVA_SCHED_TASK& w) { SetText(&w, w.app_name, sizeof(w.app_name), ORVA_SCHED_TRUNC_APP_NAME, v); });
}
void ORVASchedCTaskSetAppArgs(ORVA_SCHED_TASK* t, const char* v) {
  Edit(t, [v](ORVA_SCHED_TASK& w) { SetText(&w, w.app_args, sizeof(w.app_args), ORVA_SCHED_TRUNC_APP_ARGS, v); });
}
void ORVASchedCTaskSetAction(ORVA_SCHED_TASK* t, const char* v) {
  Edit(t, [v](ORVA_SCHED_TASK& w) { SetText(&w, w.action, sizeof(w.action), ORVA_SCHED_TRUNC_ACTION, v); });
}
void ORVASchedCTaskSetCommand(ORVA_SCHED_TASK* t, const char* v) {
  Edit(t, [v](ORVA_SCHED_TASK& w) { SetText(&w, w.command, sizeof(w.command), ORVA_SCHED_TRUNC_COMMAND, v); });
}
void ORVASchedCTaskSetEditForm(ORVA_SCHED_TASK* t, const char* v) {
  Edit(t, [v](ORVA_SCHED_TASK& w) { SetText(&w, w.edit_form, sizeof(w.edit_form), ORVA_SCHED_TRUNC_EDIT_FORM, v); });
}
void ORVASchedCTaskSetEvent(ORVA_SCHED_TASK* t, const char* v) {
  Edit(t, [v](ORVA_SCHED_TASK& w) { SetText(&w, w.event, sizeof(w.event), ORVA_SCHED_TRUNC_EVENT, v); });
}
void ORVASchedCTaskSetListable(ORVA_SCHED_TASK* t, int f) {
  Edit(t, [f](ORVA_SCHED_TASK& w) { w.listable = f ? 1 : 0; });
}
void ORVASchedCTaskSetSimpleEditForm(ORVA_SCHED_TASK* t, int f) {
  Edit(t, [f](ORVA_SCHED_TASK& w) { w.simple_edit_form = f ? 1 : 0; });
}
void ORVASchedCTaskSetCanEditName(ORVA_SCHED_TASK* t, int f) {
  Edit(t, [f](ORVA_SCHED_TASK& w) { w.can_edit_name = f ? 1 : 0; });
}
void ORVASchedCTaskSetCanEditOwner(ORVA_SCHED_TASK* t, int f) {
  Edit(t, [f](ORVA_SCHED_TASK& w) { w.can_edit_owner = f ? 1 : 0; });
}
void ORVASchedCTaskSetCanEditFromUI(ORVA_SCHED_TASK* t, int f) {
  Edit(t, [f](ORVA_SCHED_TASK& w) { w.can_edit_from_ui = f ? 1 : 0; });
}
void ORVASchedCTaskSetCanDeleteFromUI(ORVA_SCHED_TASK* t, int f) {
  Edit(t, [f](ORVA_SCHED_TASK& w) { w.can_delete_from_ui = f ? 1 : 0; });
}
void ORVASchedCTaskSetCanRunFromUI(ORVA_SCHED_TASK* t, int f) {
  Edit(t, [f](ORVA_SCHED_TASK& w) { w.can_run_from_ui = f ? 1 : 0; });
}
void ORVASchedCTaskSetCanRunAppSameTime(ORVA_SCHED_TASK* t, int f) {
  Edit(t, [f](ORVA_SCHED_TASK& w) { w.can_run_app_same_time = f ? 1 : 0; });
}
void ORVASchedCTaskSetCanRunTaskSameTime(ORVA_SCHED_TASK* t, int f) {
  Edit(t, [f](ORVA_SCHED_TASK& w) { w.can_run_task_same_time = f ? 1 : 0; });
}

}  // extern "C"

void ORVASchedCTaskSetRealOwner(ORVA_SCHED_TASK* t, bool byUser, unsigned int uid) {
  Edit(t, [byUser, uid](ORVA_SCHED_TASK& w) {
    w.marker = byUser ? ORVA_SCHED_MARKER_BY_USER : ORVA_SCHED_MARKER_SYSTEM;
    w.real_owner = byUser ? uid : 0;
  });
}

// Getters read a listed record's side entry (HOT) or, for what a listing does not read,
// the full record (built on first use). Marker and owner are in every record itself.
#define HOT(expr) orva_sched::ReadField(t, [](const auto& r) { return (expr); })
#define FULL(field) orva_sched::Full(t).field
long ORVASchedTaskGetID(const _tag_orva_sched_task_& t) { return static_cast<long>(HOT(r.id)); }
bool ORVASchedTaskIsNew(const _tag_orva_sched_task_& t) { return HOT(!r.saved); }
bool ORVASchedTaskIsEnabled(const _tag_orva_sched_task_& t) { return HOT(r.enabled != 0); }
bool ORVASchedTaskIsListable(const _tag_orva_sched_task_& t) { return HOT(r.listable != 0); }
bool ORVASchedTaskIsSimpleEditForm(const _tag_orva_sched_task_& t) { return FULL(simple_edit_form) != 0; }
bool ORVASchedTaskIsCanEditName(const _tag_orva_sched_task_& t) { return FULL(can_edit_name) != 0; }
bool ORVASchedTaskIsCanEditOwner(const _tag_orva_sched_task_& t) { return FULL(can_edit_owner) != 0; }
bool ORVASchedTaskIsCanEditFromUI(const _tag_orva_sched_task_& t) { return HOT(r.can_edit_from_ui != 0); }
bool ORVASchedTaskIsCanDeleteFromUI(const _tag_orva_sched_task_& t) { return HOT(r.can_delete_from_ui != 0); }
bool ORVASchedTaskIsCanRunFromUI(const _tag_orva_sched_task_& t) { return HOT(r.can_run_from_ui != 0); }
bool ORVASchedTaskIsCanRunAppSameTime(const _tag_orva_sched_task_& t) { return FULL(can_run_app_same_time) != 0; }
bool ORVASchedTaskIsCanRunTaskSameTime(const _tag_orva_sched_task_& t) { return FULL(can_run_task_same_time) != 0; }
const char* ORVASchedTaskGetName(const _tag_orva_sched_task_& t) { return HOT(static_cast<const char*>(r.name)); }
const char* ORVASchedTaskGetApp(const _tag_orva_sched_task_& t) { return HOT(static_cast<const char*>(r.app)); }
const char* ORVASchedTaskGetAppName(const _tag_orva_sched_task_& t) {
  return HOT(static_cast<const char*>(r.app_name));
}
const char* ORVASchedTaskGetAppArgs(const _tag_orva_sched_task_& t) { return FULL(app_args); }
const char* ORVASchedTaskGetAction(const _tag_orva_sched_task_& t) { return HOT(static_cast<const char*>(r.action)); }
const char* ORVASchedTaskGetCommand(const _tag_orva_sched_task_& t) { return FULL(command); }
const char* ORVASchedTaskGetEditForm(const _tag_orva_sched_task_& t) { return FULL(edit_form); }
const char* ORVASchedTaskGetEvent(const _tag_orva_sched_task_& t) { return FULL(event); }
int64_t ORVASchedTaskGetMarker(const _tag_orva_sched_task_& t) { return t.marker; }
unsigned int ORVASchedTaskGetOwner(const _tag_orva_sched_task_& t) { return t.owner; }
unsigned int ORVASchedTaskGetRealOwner(const _tag_orva_sched_task_& t) { return HOT(r.real_owner); }
uint32_t ORVASchedTaskGetTruncated(const _tag_orva_sched_task_& t) { return FULL(truncated); }
const ORVA_SCHED_SCHEDULE& ORVASchedTaskGetSchedule(const _tag_orva_sched_task_& t) {
  return *HOT(&r.schedule);
}
#undef HOT
#undef FULL

namespace {

// Case-insensitive (ASCII) text order, then bytewise, so that the order is total.
int CompareText(const char* a, const char* b) {
  int c = strcasecmp(a, b);
  return c ? c : strcmp(a, b);
}

struct SortItem {
  ORVA_SCHED_TASK* task;
  int64_t key = 0;              // numeric keys; for text keys, the text's folded first bytes
  uint64_t key2 = 0;            // text keys: the next folded bytes
  const char* text = nullptr;   // text keys, read once per record
  int64_t id = 0;               // the tie-breaker, beside the keys
};

// The first 16 bytes of a text as strcasecmp sees them, in integers that order as they
// do: most comparisons are settled without reading the texts.
void FoldedPrefix(const char* s, SortItem& it) {
  uint64_t v[2] = {0, 0};
  int i = 0;
  for (; i < 16 && s[i]; ++i) v[i / 8] |= uint64_t{static_cast<uint8_t>(tolower(static_cast<unsigned char>(s[i])))}
                                         << (8 * (7 - i % 8));
  it.key = static_cast<int64_t>(v[0] ^ (uint64_t{1} << 63));  // unsigned order as signed
  it.key2 = v[1];
}

}  // namespace

extern "C" int ORVASchedTaskListSort(ORVA_SCHED_TASK** ppList, const char* key, int ascending) {
  if (!ppList || !key) {
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
    return -1;
  }
  enum Key { kState, kId, kName, kOwner, kAppName, kAction, kNext } which;
  static const std::pair<const char*, Key> kKeys[] = {
      {"state", kState},       {"id", kId},         {"name", kName},
      {"owner", kOwner},       {"app name", kAppName}, {"action", kAction},
      {"next trigger time", kNext},
  };
  const auto* found = std::find_if(std::begin(kKeys), std::end(kKeys),
                                   [key](const auto& row) { return strcmp(row.first, key) == 0; });
  if (found == std::end(kKeys)) {
    ORVA_LOG(LOG_ERR, "unknown sort key [%s]", key);
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
    return -1;
  }
  which = found->second;

  // Keys are read once per record, from a listed record's side entry where it has one.
  std::vector<SortItem> items;
  std::map<unsigned, std::string> names;  // one user lookup per owner uid
  time_t now = time(nullptr);
  // Tasks share schedules (the same time of day, say): one computation per schedule.
  // The trigger depends on the fields before the interval lists only.
  std::unordered_map<std::string, time_t> nextBySchedule;
  auto nextOf = [&nextBySchedule, now](const ORVA_SCHED_SCHEDULE& s) {
    static_assert(offsetof(ORVA_SCHED_SCHEDULE, n_repeat_min_cfg) == 11, "the fields a trigger depends on");
    auto ins = nextBySchedule.emplace(std::string(reinterpret_cast<const char*>(&s), 11), 0);
    if (ins.second) ins.first->second = ORVASchedScheduleNextTrigger(s, now);
    return ins.first->second;
  };
  for (ORVA_SCHED_TASK* t = *ppList; t; t = t->next) {
    SortItem it{t};
    orva_sched::ReadField(*t, [&](const auto& r) {
      it.id = r.id;
      switch (which) {
        case kState:
          it.key = r.enabled ? 1 : 0;
          break;
        case kId:
          it.key = r.id;
          break;
        case kNext: {
          time_t next = r.enabled ? nextOf(r.schedule) : -1;
          it.key = next < 0 ? INT64_MAX : static_cast<int64_t>(next);
          break;
        }
        case kOwner: {
          auto ins = names.emplace(t->owner, std::string());
          if (ins.second) ins.first->second = ORVA::UserName(t->owner);
          it.text = ins.first->second.c_str();
          break;
        }
        case kName:
          it.text = r.name;
          break;
        case kAppName:
          it.text = r.app_name;
          break;
        case kAction:
          it.text = r.action;
          break;
      }
      return 0;
    });
    items.push_back(it);
  }

  const bool asc = ascending != 0;
  if (which == kOwner || which == kName || which == kAppName || which == kAction) {
    for (SortItem& it : items) FoldedPrefix(it.text, it);
  }
  auto keyCompare = [](const SortItem& a, const SortItem& b) -> int {
    if (a.key != b.key) return a.key < b.key ? -1 : 1;
    if (a.key2 != b.key2) return a.key2 < b.key2 ? -1 : 1;
    return a.text ? CompareText(a.text, b.text) : 0;
  };
  std::sort(items.begin(), items.end(), [&](const SortItem& a, const SortItem& b) {
    if (which == kNext) {
      // Tasks with nothing to run come last in both directions.
      bool na = a.key == INT64_MAX, nb = b.key == INT64_MAX;
      if (na != nb) return nb;
    }
    int c = keyCompare(a, b);
    if (c != 0) return asc ? c < 0 : c > 0;
    return a.id < b.id;  // ties: id ascending in both directions
  });
  ORVA_SCHED_TASK* head = nullptr;
  for (size_t i = items.size(); i-- > 0;) {
    items[i].task->next = head;
    head = items[i].task;
  }
  *ppList = head;
  return 0;
}
