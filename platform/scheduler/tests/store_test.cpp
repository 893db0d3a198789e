// The store: records, persistence at the field limits, ids, owners, listing, sorting.
#include <sqlite3.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <set>
#include <vector>

#include "core/kelc.h"
#include "scheduler/run_log.h"
#include "test_util.h"

using orva_test::Repeat;
using orva_test::Task;
using orva_test::TempRoot;
using orva_test::TestUser;

namespace {

struct TextField {
  const char* name;
  void (*set)(ORVA_SCHED_TASK*, const char*);
  const char* (*get)(const _tag_orva_sched_task_&);
  size_t size;
  uint32_t bit;
};

const TextField kTextFields[] = {
    {"name", ORVASchedCTaskSetName, ORVASchedTaskGetName, ORVA_SCHED_NAME_MAX, ORVA_SCHED_TRUNC_NAME},
    {"app", ORVASchedCTaskSetApp, ORVASchedTaskGetApp, ORVA_SCHED_APP_MAX, ORVA_SCHED_TRUNC_APP},
    {"app_name", ORVASchedCTaskSetAppName, ORVASchedTaskGetAppName, ORVA_SCHED_APP_NAME_MAX,
     ORVA_SCHED_TRUNC_APP_NAME},
    {"edit_form", ORVASchedCTaskSetEditForm, ORVASchedTaskGetEditForm, ORVA_SCHED_EDIT_FORM_MAX,
     ORVA_SCHED_TRUNC_EDIT_FORM},
    {"action", ORVASchedCTaskSetAction, ORVASchedTaskGetAction, ORVA_SCHED_ACTION_MAX, ORVA_SCHED_TRUNC_ACTION},
    {"command", ORVASchedCTaskSetCommand, ORVASchedTaskGetCommand, ORVA_SCHED_COMMAND_MAX,
     ORVA_SCHED_TRUNC_COMMAND},
    {"app_args", ORVASchedCTaskSetAppArgs, ORVASchedTaskGetAppArgs, ORVA_SCHED_APP_ARGS_MAX,
     ORVA_SCHED_TRUNC_APP_ARGS},
    {"event", ORVASchedCTaskSetEvent, ORVASchedTaskGetEvent, ORVA_SCHED_EVENT_MAX, ORVA_SCHED_TRUNC_EVENT},
};

int CountTasks() {
  ORVA_SCHED_TASK* list = nullptr;
  int n = ORVASchedTaskListGet(&list, nullptr, nullptr);
  ORVASchedTaskListFree(list);
  return n;
}

std::vector<long> Ids(ORVA_SCHED_TASK* list) {
  std::vector<long> ids;
  for (ORVA_SCHED_TASK* t = list; t; t = ORVASchedTaskNext(t)) ids.push_back(ORVASchedTaskGetID(*t));
  return ids;
}

void SetOnce(ORVA_SCHED_TASK* t, int year, int month, int day, int hour, int min) {
  t->schedule.repeat = ORVA_SCHED_REPEAT_ONCE;
  t->schedule.year = static_cast<uint16_t>(year);
  t->schedule.month = static_cast<uint8_t>(month);
  t->schedule.day = static_cast<uint8_t>(day);
  t->schedule.hour = static_cast<uint8_t>(hour);
  t->schedule.min = static_cast<uint8_t>(min);
}

}  // namespace

TEST(SchedStore, FreshRecordDefaults) {
  TempRoot root;
  TestUser a("a");
  Task alloc, loaded, byUser;
  memset(loaded.t, 0x5a, sizeof(*loaded.t));
  ASSERT_EQ(ORVASchedTaskLoad(-1, loaded.t), 0);
  ASSERT_EQ(ORVASchedTaskLoadByUser(a.c_str(), -1, byUser.t), 0);
  time_t now = time(nullptr);
  struct tm lt;
  localtime_r(&now, &lt);
  for (ORVA_SCHED_TASK* t : {alloc.t, loaded.t, byUser.t}) {
    EXPECT_EQ(ORVASchedTaskGetID(*t), -1);
    EXPECT_TRUE(ORVASchedTaskIsNew(*t));
    EXPECT_TRUE(ORVASchedTaskIsEnabled(*t));
    EXPECT_TRUE(ORVASchedTaskIsListable(*t));
    EXPECT_TRUE(ORVASchedTaskIsCanEditFromUI(*t));
    EXPECT_TRUE(ORVASchedTaskIsCanDeleteFromUI(*t));
    EXPECT_TRUE(ORVASchedTaskIsCanRunFromUI(*t));
    EXPECT_TRUE(ORVASchedTaskIsCanEditName(*t));
    EXPECT_FALSE(ORVASchedTaskIsCanEditOwner(*t));
    EXPECT_FALSE(ORVASchedTaskIsSimpleEditForm(*t));
    EXPECT_TRUE(ORVASchedTaskIsCanRunAppSameTime(*t));
    EXPECT_FALSE(ORVASchedTaskIsCanRunTaskSameTime(*t));
    EXPECT_EQ(t->next, nullptr);
    EXPECT_EQ(ORVASchedTaskGetTruncated(*t), 0u);
    for (const TextField& f : kTextFields) EXPECT_STREQ(f.get(*t), "") << f.name;
    EXPECT_EQ(t->schedule.repeat, ORVA_SCHED_REPEAT_DAILY);
    EXPECT_EQ(t->schedule.hour, 0);
    EXPECT_EQ(t->schedule.min, 0);
    EXPECT_EQ(t->schedule.year, lt.tm_year + 1900);
    EXPECT_EQ(t->schedule.month, lt.tm_mon + 1);
    EXPECT_EQ(t->schedule.day, lt.tm_mday);
  }
  for (ORVA_SCHED_TASK* t : {alloc.t, loaded.t}) {
    EXPECT_EQ(ORVASchedTaskGetOwner(*t), 0u);
    EXPECT_EQ(ORVASchedTaskGetRealOwner(*t), 0u);
    EXPECT_EQ(ORVASchedTaskGetMarker(*t), 0);
  }
  // A new task read on behalf of a user already runs as that user.
  EXPECT_EQ(ORVASchedTaskGetOwner(*byUser), a.uid());
  EXPECT_EQ(ORVASchedTaskGetRealOwner(*byUser), a.uid());
  EXPECT_EQ(ORVASchedTaskGetMarker(*byUser), ORVA_SCHED_MARKER_BY_USER);
  // Daily from today: the next run is the coming midnight.
  EXPECT_NE(ORVASchedTaskGetNextTriggerTime(*alloc), "N/A");
}

TEST(SchedStore, ZeroFilledRecordIsValid) {
  TempRoot root;
  ORVA_SCHED_TASK* t = static_cast<ORVA_SCHED_TASK*>(calloc(1, sizeof(ORVA_SCHED_TASK)));
  ORVASchedCTaskSetName(t, "zeroed");
  ORVASchedCTaskSetState(t, 1);
  EXPECT_TRUE(ORVASchedTaskIsNew(*t));
  EXPECT_EQ(ORVASchedTaskGetNextTriggerTime(*t), "N/A");  // no schedule
  ASSERT_EQ(ORVASchedTaskSave(t), 0);
  EXPECT_GT(ORVASchedTaskGetID(*t), 0);
  EXPECT_FALSE(ORVASchedTaskIsNew(*t));
  Task back;
  ASSERT_EQ(ORVASchedTaskLoad(ORVASchedTaskGetID(*t), back.t), 0);
  EXPECT_STREQ(ORVASchedTaskGetName(*back), "zeroed");
  free(t);
}

TEST(SchedStore, TextFieldsAtTheLimitAndOneByteOver) {
  TempRoot root;
  for (const TextField& f : kTextFields) {
    SCOPED_TRACE(f.name);
    Task t;
    std::string fits = Repeat('x', f.size - 2) + "\xc3";  // any byte, up to size - 1
    f.set(t.t, fits.c_str());
    EXPECT_EQ(ORVASchedTaskGetTruncated(*t), 0u);
    ASSERT_EQ(ORVASchedTaskSave(t.t), 0);
    Task back;
    ASSERT_EQ(ORVASchedTaskLoad(ORVASchedTaskGetID(*t), back.t), 0);
    EXPECT_EQ(std::string(f.get(*back)), fits);
    EXPECT_EQ(ORVASchedTaskGetTruncated(*back), 0u);

    int before = CountTasks();
    Task over;
    std::string tooLong = Repeat('y', f.size);
    f.set(over.t, tooLong.c_str());
    EXPECT_EQ(ORVASchedTaskGetTruncated(*over), f.bit);
    EXPECT_EQ(std::string(f.get(*over)), tooLong.substr(0, f.size - 1));  // kept the first bytes
    EXPECT_EQ(ORVASchedTaskSave(over.t), -1);
    EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_TOO_LONG);
    EXPECT_STREQ(KELCErrorGetFile(), "store.cpp");
    EXPECT_GT(KELCErrorGetLine(), 0);
    EXPECT_EQ(CountTasks(), before);
    // Saving an existing task cut short leaves the stored one as it was.
    f.set(back.t, tooLong.c_str());
    EXPECT_EQ(ORVASchedTaskSave(back.t), -1);
    Task again;
    ASSERT_EQ(ORVASchedTaskLoad(ORVASchedTaskGetID(*t), again.t), 0);
    EXPECT_EQ(std::string(f.get(*again)), fits);
    // A text that fits clears the mark.
    f.set(over.t, "short");
    EXPECT_EQ(ORVASchedTaskGetTruncated(*over), 0u);
    EXPECT_EQ(ORVASchedTaskSave(over.t), 0);
  }
}

TEST(SchedStore, EveryFieldRoundTrips) {
  TempRoot root;
  Task t;
  ORVASchedCTaskSetOwner(t.t, 2);
  ORVASchedCTaskSetState(t.t, 0);
  ORVASchedCTaskSetListable(t.t, 0);
  ORVASchedCTaskSetCanEditFromUI(t.t, 0);
  ORVASchedCTaskSetCanDeleteFromUI(t.t, 0);
  ORVASchedCTaskSetCanRunFromUI(t.t, 0);
  ORVASchedCTaskSetCanEditName(t.t, 0);
  ORVASchedCTaskSetCanEditOwner(t.t, 1);
  ORVASchedCTaskSetSimpleEditForm(t.t, 1);
  ORVASchedCTaskSetCanRunAppSameTime(t.t, 0);
  ORVASchedCTaskSetCanRunTaskSameTime(t.t, 1);
  for (const TextField& f : kTextFields) f.set(t.t, (std::string("text of ") + f.name + " \"'\n\t").c_str());
  ORVA_SCHED_SCHEDULE& s = t->schedule;
  s.repeat = ORVA_SCHED_REPEAT_WEEKLY;
  s.year = 2031;
  s.month = 12;
  s.day = 31;
  s.week_mask = 0x41;
  s.hour = 23;
  s.min = 59;
  s.repeat_min = 15;
  s.last_work_hour = 22;
  s.n_repeat_min_cfg = ORVA_SCHED_REPEAT_CFG_MAX;
  for (unsigned i = 0; i < ORVA_SCHED_REPEAT_CFG_MAX; ++i) s.repeat_min_cfg[i] = static_cast<uint8_t>(59 - i);
  memset(s.repeat_hour_cfg, 0, sizeof(s.repeat_hour_cfg));
  s.n_repeat_hour_cfg = 1;
  s.repeat_hour_cfg[0] = 23;
  ASSERT_EQ(ORVASchedTaskSave(t.t), 0);
  Task back;
  ASSERT_EQ(ORVASchedTaskLoad(ORVASchedTaskGetID(*t), back.t), 0);
  EXPECT_EQ(back->id, t->id);
  EXPECT_EQ(back->owner, 2u);
  EXPECT_EQ(back->marker, 0);
  for (const TextField& f : kTextFields) EXPECT_STREQ(f.get(*back), f.get(*t)) << f.name;
  const uint8_t flags[] = {back->enabled, back->listable, back->can_edit_from_ui, back->can_delete_from_ui,
                           back->can_run_from_ui, back->can_edit_name, back->can_edit_owner,
                           back->simple_edit_form, back->can_run_app_same_time, back->can_run_task_same_time};
  const uint8_t want[] = {0, 0, 0, 0, 0, 0, 1, 1, 0, 1};
  EXPECT_EQ(0, memcmp(flags, want, sizeof(want)));
  EXPECT_EQ(0, memcmp(&back->schedule, &t->schedule, sizeof(ORVA_SCHED_SCHEDULE)));
  EXPECT_FALSE(ORVASchedTaskIsNew(*back));
}

TEST(SchedStore, IdsAssignedAndKept) {
  TempRoot root;
  Task a, b, fixed;
  ASSERT_EQ(ORVASchedTaskSave(a.t), 0);
  ASSERT_EQ(ORVASchedTaskSave(b.t), 0);
  long idA = ORVASchedTaskGetID(*a);
  EXPECT_GT(idA, 0);
  EXPECT_EQ(ORVASchedTaskGetID(*b), idA + 1);
  // Saving again keeps the id and replaces the stored task.
  ORVASchedCTaskSetName(a.t, "renamed");
  ASSERT_EQ(ORVASchedTaskSave(a.t), 0);
  EXPECT_EQ(ORVASchedTaskGetID(*a), idA);
  EXPECT_EQ(CountTasks(), 2);
  // A new record that carries an id is stored under it; ids are never reused below it.
  ORVASchedCTaskSetID(fixed.t, 500);
  ASSERT_EQ(ORVASchedTaskSave(fixed.t), 0);
  EXPECT_EQ(ORVASchedTaskGetID(*fixed), 500);
  Task next;
  ASSERT_EQ(ORVASchedTaskSave(next.t), 0);
  EXPECT_EQ(ORVASchedTaskGetID(*next), 501);
  ASSERT_EQ(ORVASchedTaskRemove(501), 0);
  Task after;
  ASSERT_EQ(ORVASchedTaskSave(after.t), 0);
  EXPECT_EQ(ORVASchedTaskGetID(*after), 502);

  // Unknown ids: load leaves the record untouched, remove and run fail.
  Task untouched;
  ORVASchedCTaskSetName(untouched.t, "keep me");
  for (long id : {501L, 0L, 9999L, -5L}) {
    EXPECT_EQ(ORVASchedTaskLoad(id, untouched.t), -1) << id;
    EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_NOT_FOUND);
    EXPECT_EQ(ORVASchedTaskRemove(id), -1) << id;
    EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_NOT_FOUND);
    EXPECT_EQ(ORVASchedTaskRun(id, 0, 0), -1) << id;
    Json::Value status;
    EXPECT_EQ(ORVASchedTaskGetRunStatus(static_cast<int>(id), status), -1);
  }
  EXPECT_EQ(ORVASchedTaskRemove(-1), -1);
  EXPECT_STREQ(ORVASchedTaskGetName(*untouched), "keep me");
  Task loaded;
  ASSERT_EQ(ORVASchedTaskLoad(idA, loaded.t), 0);
  EXPECT_STREQ(ORVASchedTaskGetName(*loaded), "renamed");
}

TEST(SchedStore, BadScheduleIsNotSaved) {
  TempRoot root;
  struct Case {
    const char* what;
    void (*spoil)(ORVA_SCHED_SCHEDULE&);
  } cases[] = {
      {"hour 24", [](ORVA_SCHED_SCHEDULE& s) { s.hour = 24; }},
      {"min 60", [](ORVA_SCHED_SCHEDULE& s) { s.min = 60; }},
      {"both repeats", [](ORVA_SCHED_SCHEDULE& s) { s.repeat_hour = 2, s.repeat_min = 5; }},
      {"30 February", [](ORVA_SCHED_SCHEDULE& s) { s.year = 2024, s.month = 2, s.day = 30; }},
      {"29 February 2023", [](ORVA_SCHED_SCHEDULE& s) { s.year = 2023, s.month = 2, s.day = 29; }},
      {"month 13", [](ORVA_SCHED_SCHEDULE& s) { s.month = 13; }},
      {"weekly, no day", [](ORVA_SCHED_SCHEDULE& s) { s.repeat = ORVA_SCHED_REPEAT_WEEKLY, s.week_mask = 0; }},
      {"repeat 4", [](ORVA_SCHED_SCHEDULE& s) { s.repeat = 4; }},
      {"config 0", [](ORVA_SCHED_SCHEDULE& s) { s.repeat_min_cfg[0] = 0; }},
  };
  for (const Case& c : cases) {
    Task t;
    c.spoil(t->schedule);
    EXPECT_EQ(ORVASchedTaskSave(t.t), -1) << c.what;
    EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_INVALID) << c.what;
  }
  EXPECT_EQ(CountTasks(), 0);
}

TEST(SchedStore, ByUserMatrix) {
  TempRoot root;
  TestUser a("a"), b("b");
  enum Actor { kSystem, kA, kB };
  const char* names[] = {nullptr, a.c_str(), b.c_str()};
  // The task each actor may touch: system touches all, A and B only their own.
  auto allowed = [](Actor actor, Actor owner) { return actor == kSystem || actor == owner; };

  // Creates a task of `owner` (system, A or B) and returns its id.
  auto make = [&](Actor owner) -> long {
    Task t;
    ORVASchedCTaskSetName(t.t, "task");
    ORVASchedCTaskSetCommand(t.t, "true");
    if (owner == kSystem) {
      EXPECT_EQ(ORVASchedTaskSave(t.t), 0);
    } else {
      ORVASchedCTaskSetOwner(t.t, owner == kA ? a.uid() : b.uid());
      EXPECT_EQ(ORVASchedTaskSaveByUser(names[owner], t.t), 0);
      EXPECT_EQ(ORVASchedTaskGetMarker(*t), ORVA_SCHED_MARKER_BY_USER);
      EXPECT_EQ(ORVASchedTaskGetRealOwner(*t), owner == kA ? a.uid() : b.uid());
    }
    return ORVASchedTaskGetID(*t);
  };
  ORVASchedSetRunnerPath(ORVA_SCHEDRUN_PATH);

  for (Actor owner : {kSystem, kA, kB}) {
    for (Actor actor : {kSystem, kA, kB}) {
      SCOPED_TRACE(std::string("owner ") + std::to_string(owner) + " actor " + std::to_string(actor));
      long id = make(owner);
      bool ok = allowed(actor, owner);
      int expectErr = ok ? 0 : ORVA_SCHED_ERR_NOT_OWNER;
      Task t;
      int rc = actor == kSystem ? ORVASchedTaskLoad(id, t.t) : ORVASchedTaskLoadByUser(names[actor], id, t.t);
      EXPECT_EQ(rc, ok ? 0 : -1) << "load";
      if (!ok) {
        EXPECT_EQ(KELCErrGet(), expectErr);
      }

      // Save: the stored task loaded by the system, saved by the actor.
      Task s;
      ASSERT_EQ(ORVASchedTaskLoad(id, s.t), 0);
      ORVASchedCTaskSetName(s.t, "changed");
      rc = actor == kSystem ? ORVASchedTaskSave(s.t) : ORVASchedTaskSaveByUser(names[actor], s.t);
      if (actor != kSystem && owner != actor && rc == 0) ADD_FAILURE() << "save of another's task succeeded";
      EXPECT_EQ(rc, ok ? 0 : -1) << "save";
      Task check;
      ASSERT_EQ(ORVASchedTaskLoad(id, check.t), 0);
      EXPECT_STREQ(ORVASchedTaskGetName(*check), ok ? "changed" : "task");
      // A plain save keeps a user's task theirs.
      EXPECT_EQ(ORVASchedTaskGetMarker(*check), owner == kSystem ? 0 : ORVA_SCHED_MARKER_BY_USER);

      rc = actor == kSystem ? ORVASchedTaskRun(id, 0, 0) : ORVASchedTaskRunByUser(names[actor], id, 0, 0);
      EXPECT_EQ(rc, ok ? 0 : -1) << "run";
      if (!ok) {
        EXPECT_EQ(KELCErrGet(), expectErr);
      }

      rc = actor == kSystem ? ORVASchedTaskRemove(id) : ORVASchedTaskRemoveByUser(names[actor], id);
      EXPECT_EQ(rc, ok ? 0 : -1) << "remove";
      if (!ok) {
        EXPECT_EQ(KELCErrGet(), expectErr);
      }
      EXPECT_EQ(ORVASchedTaskLoad(id, check.t), ok ? -1 : 0);
    }
  }

  // A user can never make a task run as anyone else.
  Task other;
  ORVASchedCTaskSetOwner(other.t, b.uid());
  EXPECT_EQ(ORVASchedTaskSaveByUser(a.c_str(), other.t), -1);
  EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_NOT_OWNER);
  ORVASchedCTaskSetOwner(other.t, 0);
  EXPECT_EQ(ORVASchedTaskSaveByUser(a.c_str(), other.t), -1);
  // Nor through a plain save of a record marked as theirs.
  ORVASchedCTaskSetRealOwner(other.t, true, a.uid());
  EXPECT_EQ(ORVASchedTaskSave(other.t), -1);
  EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_NOT_OWNER);
  // A user's new record, and a stored id that is free, become the user's.
  Task mine;
  ASSERT_EQ(ORVASchedTaskLoadByUser(a.c_str(), -1, mine.t), 0);
  ORVASchedCTaskSetID(mine.t, 777);
  ASSERT_EQ(ORVASchedTaskSaveByUser(a.c_str(), mine.t), 0);
  EXPECT_EQ(ORVASchedTaskGetID(*mine), 777);
  EXPECT_EQ(ORVASchedTaskLoadByUser(a.c_str(), 777, mine.t), 0);
  EXPECT_EQ(ORVASchedTaskLoadByUser(b.c_str(), 777, mine.t), -1);
  // Unknown users fail everywhere.
  const char* ghost = "orvat-no-such-user";
  EXPECT_EQ(ORVASchedTaskLoadByUser(ghost, -1, mine.t), -1);
  EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_NO_USER);
  EXPECT_EQ(ORVASchedTaskSaveByUser(ghost, mine.t), -1);
  EXPECT_EQ(ORVASchedTaskRemoveByUser(ghost, 777), -1);
  EXPECT_EQ(ORVASchedTaskRunByUser(ghost, 777, 0, 0), -1);
  EXPECT_EQ(ORVASchedTaskRunByUser(a.c_str(), -1, 0, 0), -1);
  orva_test::WaitForRunners(root.path());
}

namespace {

int KeepListable(const ORVA_SCHED_TASK* t, void* arg) {
  ++*static_cast<int*>(arg);
  return ORVASchedTaskIsListable(*t);
}

}  // namespace

TEST(SchedStore, ListFiltersAndFreesForeignRecords) {
  TempRoot root;
  for (int i = 0; i < 10; ++i) {
    Task t;
    ORVASchedCTaskSetListable(t.t, i % 3 != 0);
    ASSERT_EQ(ORVASchedTaskSave(t.t), 0);
  }
  ORVASchedEventTask ev;
  ev.task_name = "boot";
  ev.event = "bootup";
  ASSERT_EQ(ORVASchedEventTaskSave(ev), 0);  // never listed with the tasks

  int calls = 0;
  ORVA_SCHED_TASK* list = reinterpret_cast<ORVA_SCHED_TASK*>(0x1);
  int n = ORVASchedTaskListGet(&list, KeepListable, &calls);
  EXPECT_EQ(n, 6);
  EXPECT_EQ(calls, 10);
  EXPECT_EQ(Ids(list), (std::vector<long>{2, 3, 5, 6, 8, 9}));
  // Records the caller allocated itself join the chain and are freed with it.
  ORVA_SCHED_TASK* last = list;
  while (ORVASchedTaskNext(last)) last = ORVASchedTaskNext(last);
  for (int i = 0; i < 3; ++i) {
    ORVA_SCHED_TASK* mine = static_cast<ORVA_SCHED_TASK*>(calloc(1, sizeof(ORVA_SCHED_TASK)));
    ORVASchedCTaskSetID(mine, 1000 + i);
    ORVASchedCTaskSetEvent(mine, "bootup");
    last->next = mine;
    last = mine;
  }
  ASSERT_EQ(ORVASchedTaskListSort(&list, "next trigger time", 1), 0);
  EXPECT_EQ(Ids(list).size(), 9u);
  ORVASchedTaskListFree(list);  // the sanitizer build checks nothing leaks

  ORVA_SCHED_TASK* empty = reinterpret_cast<ORVA_SCHED_TASK*>(0x1);
  EXPECT_EQ(ORVASchedTaskListGet(&empty, [](const ORVA_SCHED_TASK*, void*) { return 0; }, nullptr), 0);
  EXPECT_EQ(empty, nullptr);
  EXPECT_EQ(ORVASchedTaskListSort(&empty, "name", 1), 0);
  EXPECT_EQ(ORVASchedTaskListGet(nullptr, nullptr, nullptr), -1);
}

TEST(SchedStore, SortEveryKeyBothDirections) {
  TempRoot root;
  // id: name, enabled, owner uid (0 root, 1 daemon, 2 bin), app name, action, once at
  struct Row {
    const char* name;
    int enabled;
    unsigned owner;
    const char* appName;
    const char* action;
    int year;  // 0: a once task in the past
    int hour;
  } rows[] = {
      {"beta", 1, 0, "#b#", "x", 2090, 10},  {"Alpha", 0, 2, "#a#", "y", 2090, 9},
      {"beta", 1, 1, "#a#", "x", 0, 0},      {"gamma", 0, 0, "#c#", "w", 2090, 8},
      {"alpha", 1, 2, "#b#", "z", 2089, 7},  {"delta", 1, 1, "#c#", "x", 2090, 10},
  };
  for (const Row& r : rows) {
    Task t;
    ORVASchedCTaskSetName(t.t, r.name);
    ORVASchedCTaskSetState(t.t, static_cast<unsigned char>(r.enabled));
    ORVASchedCTaskSetOwner(t.t, r.owner);
    ORVASchedCTaskSetAppName(t.t, r.appName);
    ORVASchedCTaskSetAction(t.t, r.action);
    if (r.year) {
      SetOnce(t.t, r.year, 1, 1, r.hour, 0);
    } else {
      SetOnce(t.t, 2001, 5, 5, 12, 0);
    }
    ASSERT_EQ(ORVASchedTaskSave(t.t), 0);
  }
  struct Case {
    const char* key;
    int ascending;
    std::vector<long> ids;
  } cases[] = {
      {"state", 1, {2, 4, 1, 3, 5, 6}},
      {"state", 0, {1, 3, 5, 6, 2, 4}},
      {"id", 1, {1, 2, 3, 4, 5, 6}},
      {"id", 0, {6, 5, 4, 3, 2, 1}},
      {"name", 1, {2, 5, 1, 3, 6, 4}},
      {"name", 0, {4, 6, 1, 3, 5, 2}},
      {"owner", 1, {2, 5, 3, 6, 1, 4}},  // bin, daemon, root
      {"owner", 0, {1, 4, 3, 6, 2, 5}},
      {"app name", 1, {2, 3, 1, 5, 4, 6}},
      {"app name", 0, {4, 6, 1, 5, 2, 3}},
      {"action", 1, {4, 1, 3, 6, 2, 5}},
      {"action", 0, {5, 2, 1, 3, 6, 4}},
      {"next trigger time", 1, {5, 1, 6, 2, 3, 4}},  // disabled and past: last, by id
      {"next trigger time", 0, {1, 6, 5, 2, 3, 4}},
  };
  for (const Case& c : cases) {
    ORVA_SCHED_TASK* list = nullptr;
    ASSERT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), 6);
    // Start from a scrambled order so that the result owes nothing to the input.
    ASSERT_EQ(ORVASchedTaskListSort(&list, "id", 0), 0);
    ASSERT_EQ(ORVASchedTaskListSort(&list, c.key, c.ascending), 0) << c.key;
    EXPECT_EQ(Ids(list), c.ids) << c.key << (c.ascending ? " ascending" : " descending");
    ORVASchedTaskListFree(list);
  }
  ORVA_SCHED_TASK* list = nullptr;
  ASSERT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), 6);
  EXPECT_EQ(ORVASchedTaskListSort(&list, "type", 1), -1);
  EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_INVALID);
  EXPECT_EQ(Ids(list).size(), 6u);
  ORVASchedTaskListFree(list);
}

TEST(SchedStore, PagesNeitherOverlapNorSkip) {
  TempRoot root;
  const int kTasks = 47;
  for (int i = 0; i < kTasks; ++i) {
    Task t;
    ORVASchedCTaskSetName(t.t, (std::string("n") + std::to_string(i % 4)).c_str());  // many ties
    ORVASchedCTaskSetState(t.t, static_cast<unsigned char>(i % 2));
    ASSERT_EQ(ORVASchedTaskSave(t.t), 0);
  }
  for (const char* key : {"name", "state", "owner", "next trigger time"}) {
    for (int asc : {1, 0}) {
      std::vector<long> seen;
      const int kPage = 6;
      for (int offset = 0; offset < kTasks; offset += kPage) {
        // Each page from a fresh listing, as the web API does it.
        ORVA_SCHED_TASK* list = nullptr;
        ASSERT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), kTasks);
        ASSERT_EQ(ORVASchedTaskListSort(&list, key, asc), 0);
        std::vector<long> all = Ids(list);
        ORVASchedTaskListFree(list);
        for (int i = offset; i < offset + kPage && i < kTasks; ++i) seen.push_back(all[static_cast<size_t>(i)]);
      }
      std::set<long> unique(seen.begin(), seen.end());
      EXPECT_EQ(seen.size(), static_cast<size_t>(kTasks)) << key;
      EXPECT_EQ(unique.size(), static_cast<size_t>(kTasks)) << key << (asc ? " asc" : " desc");
    }
  }
}

TEST(SchedStore, GenerationCountsTaskWritesOnly) {
  TempRoot root;
  EXPECT_EQ(ORVASchedStoreDbPath(), root.path() + "/var/lib/orva/scheduler.db");
  int64_t g0 = ORVASchedStoreGeneration();
  ASSERT_GE(g0, 0);
  Task t;
  ASSERT_EQ(ORVASchedTaskSave(t.t), 0);
  int64_t g1 = ORVASchedStoreGeneration();
  EXPECT_GT(g1, g0);
  ASSERT_EQ(ORVASchedRunRecord(ORVA_SCHED_RUN_TASK, ORVASchedTaskGetID(*t), "manual", "skipped", "x"), 0);
  EXPECT_EQ(ORVASchedStoreGeneration(), g1);
  Task bad;
  ORVASchedCTaskSetName(bad.t, Repeat('n', ORVA_SCHED_NAME_MAX).c_str());
  EXPECT_EQ(ORVASchedTaskSave(bad.t), -1);
  EXPECT_EQ(ORVASchedStoreGeneration(), g1);
  ASSERT_EQ(ORVASchedTaskRemove(ORVASchedTaskGetID(*t)), 0);
  int64_t g2 = ORVASchedStoreGeneration();
  EXPECT_GT(g2, g1);
  ORVASchedEventTask ev;
  ev.task_name = "e";
  ev.event = "shutdown";
  ASSERT_EQ(ORVASchedEventTaskSave(ev), 0);
  EXPECT_GT(ORVASchedStoreGeneration(), g2);
}

TEST(SchedStore, EventTasks) {
  TempRoot root;
  TestUser a("a");
  ORVASchedEventTask boot;
  boot.task_name = "on boot";
  boot.owner = a.uid();
  boot.event = "bootup";
  boot.script = "echo up";
  ASSERT_EQ(ORVASchedEventTaskSave(boot), 0);
  EXPECT_EQ(boot.id, 1);
  ORVASchedEventTask down = boot;
  down.id = -1;
  down.event = "shutdown";
  down.enable = false;
  ASSERT_EQ(ORVASchedEventTaskSave(down), 0);
  EXPECT_EQ(down.id, 2);

  std::vector<ORVASchedEventTask> all;
  ASSERT_EQ(ORVASchedEventTaskList(all, nullptr), 2);
  ASSERT_EQ(ORVASchedEventTaskList(all, "shutdown"), 1);
  EXPECT_EQ(all[0].id, 2);
  EXPECT_FALSE(all[0].enable);
  EXPECT_EQ(all[0].owner, a.uid());
  EXPECT_EQ(all[0].script, "echo up");
  EXPECT_EQ(CountTasks(), 0);

  struct Bad {
    const char* what;
    void (*spoil)(ORVASchedEventTask&);
    int code;
  } bad[] = {
      {"empty name", [](ORVASchedEventTask& t) { t.task_name = ""; }, ORVA_SCHED_ERR_INVALID},
      {"long name", [](ORVASchedEventTask& t) { t.task_name = Repeat('n', ORVA_SCHED_NAME_MAX); },
       ORVA_SCHED_ERR_TOO_LONG},
      {"event", [](ORVASchedEventTask& t) { t.event = "reboot"; }, ORVA_SCHED_ERR_INVALID},
      {"long script", [](ORVASchedEventTask& t) { t.script = Repeat('s', ORVA_SCHED_COMMAND_MAX); },
       ORVA_SCHED_ERR_TOO_LONG},
      {"owner", [](ORVASchedEventTask& t) { t.owner = 4000000000u; }, ORVA_SCHED_ERR_NO_USER},
  };
  for (const Bad& b : bad) {
    ORVASchedEventTask t = boot;
    b.spoil(t);
    EXPECT_EQ(ORVASchedEventTaskSave(t), -1) << b.what;
    EXPECT_EQ(KELCErrGet(), b.code) << b.what;
  }
  ORVASchedEventTask longest = boot;
  longest.task_name = Repeat('n', ORVA_SCHED_NAME_MAX - 1);
  longest.script = Repeat('s', ORVA_SCHED_COMMAND_MAX - 1);
  ASSERT_EQ(ORVASchedEventTaskSave(longest), 0);
  ORVASchedEventTask back;
  ASSERT_EQ(ORVASchedEventTaskLoad(1, back), 0);
  EXPECT_EQ(back.task_name, longest.task_name);
  EXPECT_EQ(back.script, longest.script);

  ASSERT_EQ(ORVASchedEventTaskRemove(1), 0);
  EXPECT_EQ(ORVASchedEventTaskRemove(1), -1);
  EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_NOT_FOUND);
  EXPECT_EQ(ORVASchedEventTaskLoad(1, back), -1);
  EXPECT_EQ(ORVASchedEventTaskRun(1), -1);
  Json::Value status;
  EXPECT_EQ(ORVASchedEventTaskGetRunStatus(1, status), -1);
  ASSERT_EQ(ORVASchedEventTaskGetRunStatus(2, status), 0);
  EXPECT_TRUE(status["last_run"].isNull());
}

TEST(SchedStore, DatabaseSettingsAndSchemaVersion) {
  TempRoot root;
  ASSERT_GE(ORVASchedStoreGeneration(), 0);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(ORVASchedStoreDbPath().c_str(), &db), SQLITE_OK);
  auto pragma = [db](const char* sql) {
    sqlite3_stmt* st = nullptr;
    std::string out;
    if (sqlite3_prepare_v2(db, sql, -1, &st, nullptr) == SQLITE_OK && sqlite3_step(st) == SQLITE_ROW) {
      out = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
    }
    sqlite3_finalize(st);
    return out;
  };
  EXPECT_EQ(pragma("PRAGMA journal_mode"), "wal");
  EXPECT_EQ(pragma("PRAGMA user_version"), "1");
  // A database from a newer release is refused, not rewritten.
  ASSERT_EQ(sqlite3_exec(db, "PRAGMA user_version=99", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  TempRoot other;  // switching roots reopens
  ASSERT_GE(ORVASchedStoreGeneration(), 0);
  ORVA::ORVARootSet(root.path());
  EXPECT_EQ(ORVASchedStoreGeneration(), -1);
  EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_DATABASE);
  ORVA::ORVARootSet(other.path());
}

TEST(SchedStore, ConnectionIsNotCarriedAcrossFork) {
  TempRoot root;
  Task t;
  ASSERT_EQ(ORVASchedTaskSave(t.t), 0);  // the parent's connection is open
  pid_t pid = fork();
  if (pid == 0) {
    int ok = 0;
    for (int i = 0; i < 20; ++i) {
      Task c;
      ok += ORVASchedTaskSave(c.t) == 0;
    }
    _exit(ok == 20 ? 0 : 1);
  }
  for (int i = 0; i < 20; ++i) {
    Task p;
    EXPECT_EQ(ORVASchedTaskSave(p.t), 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(CountTasks(), 41);
}
