// The task record: allocation, setters (which mark truncation), getters, and the
// chain operations (next, sort, free).
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "core/user.h"
#include "internal.h"

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

bool ParseByteList(const std::string& text, uint8_t* v, uint8_t& n, unsigned max, unsigned lo, unsigned hi) {
  n = 0;
  if (text.empty()) {
    return true;
  }
  size_t pos = 0;
  while (true) {
    size_t end = text.find(',', pos);
    std::string item = text.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
    if (item.empty() || item.size() > 3 || item.find_first_not_of("0123456789") != std::string::npos) {
      return false;
    }
    unsigned value = static_cast<unsigned>(atoi(item.c_str()));
    if (value < lo || value > hi || n >= max) {
      return false;
    }
    v[n++] = static_cast<uint8_t>(value);
    if (end == std::string::npos) {
      return true;
    }
    pos = end + 1;
  }
}

}  // namespace orva_sched

using orva_sched::CopyText;

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
  task->enabled = 1;
  task->listable = 1;
  task->can_edit_from_ui = 1;
  task->can_delete_from_ui = 1;
  task->can_run_from_ui = 1;
  task->can_edit_name = 1;
  task->can_run_app_same_time = 1;
  orva_sched::DefaultSchedule(task->schedule);
  return task;
}

void ORVASchedTaskFree(ORVA_SCHED_TASK* pTask) {
  if (pTask && !orva_sched::ListingRelease(pTask)) free(pTask);
}

ORVA_SCHED_TASK* ORVASchedTaskNext(const ORVA_SCHED_TASK* pTask) { return pTask ? pTask->next : nullptr; }

void ORVASchedTaskListFree(ORVA_SCHED_TASK* pList) { orva_sched::ListingFreeChain(pList); }

void ORVASchedCTaskSetID(ORVA_SCHED_TASK* t, long id) {
  if (t) t->id = id;
}
void ORVASchedCTaskSetName(ORVA_SCHED_TASK* t, const char* v) {
  if (t) SetText(t, t->name, sizeof(t->name), ORVA_SCHED_TRUNC_NAME, v);
}
void ORVASchedCTaskSetOwner(ORVA_SCHED_TASK* t, unsigned int uid) {
  if (t) t->owner = uid;
}
void ORVASchedCTaskSetState(ORVA_SCHED_TASK* t, unsigned char enabled) {
  if (t) t->enabled = enabled ? 1 : 0;
}
void ORVASchedCTaskSetApp(ORVA_SCHED_TASK* t, const char* v) {
  if (t) SetText(t, t->app, sizeof(t->app), ORVA_SCHED_TRUNC_APP, v);
}
void ORVASchedCTaskSetAppName(ORVA_SCHED_TASK* t, const char* v) {
  if (t) SetText(t, t->app_name, sizeof(t->app_name), ORVA_SCHED_TRUNC_APP_NAME, v);
}
void ORVASchedCTaskSetAppArgs(ORVA_SCHED_TASK* t, const char* v) {
  if (!t) return;
  t->lazy &= static_cast<uint8_t>(~orva_sched::kLazyAppArgs);
  SetText(t, t->app_args, sizeof(t->app_args), ORVA_SCHED_TRUNC_APP_ARGS, v);
}
void ORVASchedCTaskSetAction(ORVA_SCHED_TASK* t, const char* v) {
  if (!t) return;
  t->lazy &= static_cast<uint8_t>(~orva_sched::kLazyAction);
  SetText(t, t->action, sizeof(t->action), ORVA_SCHED_TRUNC_ACTION, v);
}
void ORVASchedCTaskSetCommand(ORVA_SCHED_TASK* t, const char* v) {
  if (!t) return;
  t->lazy &= static_cast<uint8_t>(~orva_sched::kLazyCommand);
  SetText(t, t->command, sizeof(t->command), ORVA_SCHED_TRUNC_COMMAND, v);
}
void ORVASchedCTaskSetEditForm(ORVA_SCHED_TASK* t, const char* v) {
  if (t) SetText(t, t->edit_form, sizeof(t->edit_form), ORVA_SCHED_TRUNC_EDIT_FORM, v);
}
void ORVASchedCTaskSetEvent(ORVA_SCHED_TASK* t, const char* v) {
  if (t) SetText(t, t->event, sizeof(t->event), ORVA_SCHED_TRUNC_EVENT, v);
}
void ORVASchedCTaskSetListable(ORVA_SCHED_TASK* t, int f) {
  if (t) t->listable = f ? 1 : 0;
}
void ORVASchedCTaskSetSimpleEditForm(ORVA_SCHED_TASK* t, int f) {
  if (t) t->simple_edit_form = f ? 1 : 0;
}
void ORVASchedCTaskSetCanEditName(ORVA_SCHED_TASK* t, int f) {
  if (t) t->can_edit_name = f ? 1 : 0;
}
void ORVASchedCTaskSetCanEditOwner(ORVA_SCHED_TASK* t, int f) {
  if (t) t->can_edit_owner = f ? 1 : 0;
}
void ORVASchedCTaskSetCanEditFromUI(ORVA_SCHED_TASK* t, int f) {
  if (t) t->can_edit_from_ui = f ? 1 : 0;
}
void ORVASchedCTaskSetCanDeleteFromUI(ORVA_SCHED_TASK* t, int f) {
  if (t) t->can_delete_from_ui = f ? 1 : 0;
}
void ORVASchedCTaskSetCanRunFromUI(ORVA_SCHED_TASK* t, int f) {
  if (t) t->can_run_from_ui = f ? 1 : 0;
}
void ORVASchedCTaskSetCanRunAppSameTime(ORVA_SCHED_TASK* t, int f) {
  if (t) t->can_run_app_same_time = f ? 1 : 0;
}
void ORVASchedCTaskSetCanRunTaskSameTime(ORVA_SCHED_TASK* t, int f) {
  if (t) t->can_run_task_same_time = f ? 1 : 0;
}

}  // extern "C"

void ORVASchedCTaskSetRealOwner(ORVA_SCHED_TASK* t, bool byUser, unsigned int uid) {
  if (!t) return;
  t->marker = byUser ? ORVA_SCHED_MARKER_BY_USER : ORVA_SCHED_MARKER_SYSTEM;
  t->real_owner = byUser ? uid : 0;
}

long ORVASchedTaskGetID(const _tag_orva_sched_task_& t) { return static_cast<long>(t.id); }
bool ORVASchedTaskIsNew(const _tag_orva_sched_task_& t) { return !t.saved; }
bool ORVASchedTaskIsEnabled(const _tag_orva_sched_task_& t) { return t.enabled; }
bool ORVASchedTaskIsListable(const _tag_orva_sched_task_& t) { return t.listable; }
bool ORVASchedTaskIsCanEditFromUI(const _tag_orva_sched_task_& t) { return t.can_edit_from_ui; }
bool ORVASchedTaskIsCanDeleteFromUI(const _tag_orva_sched_task_& t) { return t.can_delete_from_ui; }
bool ORVASchedTaskIsCanRunFromUI(const _tag_orva_sched_task_& t) { return t.can_run_from_ui; }
bool ORVASchedTaskIsSimpleEditForm(const _tag_orva_sched_task_& t) { return t.simple_edit_form; }
bool ORVASchedTaskIsCanEditName(const _tag_orva_sched_task_& t) { return t.can_edit_name; }
bool ORVASchedTaskIsCanEditOwner(const _tag_orva_sched_task_& t) { return t.can_edit_owner; }
bool ORVASchedTaskIsCanRunAppSameTime(const _tag_orva_sched_task_& t) { return t.can_run_app_same_time; }
bool ORVASchedTaskIsCanRunTaskSameTime(const _tag_orva_sched_task_& t) { return t.can_run_task_same_time; }
const char* ORVASchedTaskGetName(const _tag_orva_sched_task_& t) { return t.name; }
const char* ORVASchedTaskGetApp(const _tag_orva_sched_task_& t) { return t.app; }
const char* ORVASchedTaskGetAppName(const _tag_orva_sched_task_& t) { return t.app_name; }
// A listed record's large texts may still be aside: these copy them in on first use.
const char* ORVASchedTaskGetAppArgs(const _tag_orva_sched_task_& t) {
  return orva_sched::LazyText(t, orva_sched::kLazyAppArgs);
}
const char* ORVASchedTaskGetAction(const _tag_orva_sched_task_& t) {
  return orva_sched::LazyText(t, orva_sched::kLazyAction);
}
const char* ORVASchedTaskGetCommand(const _tag_orva_sched_task_& t) {
  return orva_sched::LazyText(t, orva_sched::kLazyCommand);
}
const char* ORVASchedTaskGetEditForm(const _tag_orva_sched_task_& t) { return t.edit_form; }
const char* ORVASchedTaskGetEvent(const _tag_orva_sched_task_& t) { return t.event; }
int64_t ORVASchedTaskGetMarker(const _tag_orva_sched_task_& t) { return t.marker; }
unsigned int ORVASchedTaskGetOwner(const _tag_orva_sched_task_& t) { return t.owner; }
unsigned int ORVASchedTaskGetRealOwner(const _tag_orva_sched_task_& t) { return t.real_owner; }
uint32_t ORVASchedTaskGetTruncated(const _tag_orva_sched_task_& t) { return t.truncated; }

namespace {

// Case-insensitive (ASCII) text order, then bytewise, so that the order is total.
int CompareText(const char* a, const char* b) {
  int c = strcasecmp(a, b);
  return c ? c : strcmp(a, b);
}

struct SortItem {
  ORVA_SCHED_TASK* task;
  int64_t key = 0;              // numeric keys
  const char* text = nullptr;   // text keys, read once per record
  int64_t id = 0;               // the tie-breaker, beside the keys
};

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
    syslog(LOG_ERR, "%s:%d unknown sort key [%s]", __FILE_NAME__, __LINE__, key);
    SCHED_ERR(ORVA_SCHED_ERR_INVALID);
    return -1;
  }
  which = found->second;

  std::vector<SortItem> items;
  for (ORVA_SCHED_TASK* t = *ppList; t; t = t->next) {
    items.push_back(SortItem{t, 0, nullptr, t->id});
  }
  std::map<unsigned, std::string> names;  // one user lookup per owner uid
  PORVAUSER user = nullptr;
  time_t now = time(nullptr);
  for (SortItem& it : items) {
    switch (which) {
      case kState:
        it.key = it.task->enabled ? 1 : 0;
        break;
      case kId:
        it.key = it.task->id;
        break;
      case kNext: {
        time_t next = ORVASchedTaskNextTrigger(*it.task, now);
        it.key = next < 0 ? INT64_MAX : static_cast<int64_t>(next);
        break;
      }
      case kOwner: {
        auto ins = names.emplace(it.task->owner, std::string());
        if (ins.second && ORVAUserGetByUID(it.task->owner, &user) == 0) {
          ins.first->second = user->szName;
        }
        it.text = ins.first->second.c_str();
        break;
      }
      case kName:
        it.text = it.task->name;
        break;
      case kAppName:
        it.text = it.task->app_name;
        break;
      case kAction:
        // Compared where it is: a text still aside is not copied into the record.
        it.text = orva_sched::PeekText(*it.task, orva_sched::kLazyAction);
        break;
    }
  }
  ORVAUserFree(user);

  const bool asc = ascending != 0;
  auto keyCompare = [](const SortItem& a, const SortItem& b) -> int {
    if (a.text) return CompareText(a.text, b.text);
    return a.key < b.key ? -1 : (a.key > b.key ? 1 : 0);
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
