// The store: records, persistence at the field limits, ids, owners, listing, sorting.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <vector>

#include "core/kelc.h"
#include "scheduler/event_task.h"
#include "scheduler/run.h"
#include "scheduler/run_log.h"
#include "scheduler/schedule.h"
#include "scheduler/store.h"
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

// The ten flags through their getters, in the record's order, and their defaults.
std::vector<bool> Flags(const ORVA_SCHED_TASK& t) {
  return {ORVASchedTaskIsEnabled(t),        ORVASchedTaskIsListable(t),         ORVASchedTaskIsCanEditFromUI(t),
          ORVASchedTaskIsCanDeleteFromUI(t), ORVASchedTaskIsCanRunFromUI(t),     ORVASchedTaskIsCanEditName(t),
          ORVASchedTaskIsCanEditOwner(t),    ORVASchedTaskIsSimpleEditForm(t),   ORVASchedTaskIsCanRunAppSameTime(t),
          ORVASchedTaskIsCanRunTaskSameTime(t)};
}
const std::vector<bool> kDefaultFlags = {true, true, true, true, true, true, false, false, true, false};
// Setters of all flags but the first (the state), in the same order.
void (*const kFlagSetters[])(ORVA_SCHED_TASK*, int) = {
    ORVASchedCTaskSetListable,      ORVASchedCTaskSetCanEditFromUI,  ORVASchedCTaskSetCanDeleteFromUI,
    ORVASchedCTaskSetCanRunFromUI,  ORVASchedCTaskSetCanEditName,    ORVASchedCTaskSetCanEditOwner,
    ORVASchedCTaskSetSimpleEditForm, ORVASchedCTaskSetCanRunAppSameTime, ORVASchedCTaskSetCanRunTaskSameTime};

void SetOnce(ORVA_SCHED_TASK* t, int year, int hour) {
  t->schedule.repeat = ORVA_SCHED_REPEAT_ONCE;
  t->schedule.year = static_cast<uint16_t>(year);
  t->schedule.month = t->schedule.day = 1;
  t->schedule.hour = static_cast<uint8_t>(hour);
  t->schedule.min = 0;
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
  // Owner, real owner, marker: a new task read on behalf of a user already runs as that user.
  const std::vector<int64_t> systemOwners = {0, 0, ORVA_SCHED_MARKER_SYSTEM};
  const std::vector<int64_t> userOwners = {a.uid(), a.uid(), ORVA_SCHED_MARKER_BY_USER};
  for (ORVA_SCHED_TASK* t : {alloc.t, loaded.t, byUser.t}) {
    EXPECT_EQ(ORVASchedTaskGetID(*t), -1);
    EXPECT_EQ(std::vector<int64_t>({ORVASchedTaskGetOwner(*t), ORVASchedTaskGetRealOwner(*t),
                                    ORVASchedTaskGetMarker(*t)}),
              t == byUser.t ? userOwners : systemOwners);
    EXPECT_TRUE(ORVASchedTaskIsNew(*t));
    EXPECT_EQ(Flags(*t), kDefaultFlags);
    EXPECT_EQ(t->next, nullptr);
    EXPECT_EQ(ORVASchedTaskGetTruncated(*t), 0u);
    for (const TextField& f : kTextFields) EXPECT_STREQ(f.get(*t), "") << f.name;
    const ORVA_SCHED_SCHEDULE& s = t->schedule;
    EXPECT_EQ(std::vector<int>({s.repeat, s.hour, s.min, s.year, s.month, s.day}),
              std::vector<int>({ORVA_SCHED_REPEAT_DAILY, 0, 0, lt.tm_year + 1900, lt.tm_mon + 1, lt.tm_mday}));
  }
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
    // Listed, the text reads in full from the record, from a copy, and from a copy that
    // outlives its listing; saved as listed it is kept; a text set on a listed record or
    // a copy is what was set there only.
    ORVA_SCHED_TASK* list = nullptr;
    ASSERT_GT(ORVASchedTaskListGet(&list, nullptr, nullptr), 0);
    ORVA_SCHED_TASK* listed = list;
    while (ORVASchedTaskGetID(*listed) != ORVASchedTaskGetID(*t)) listed = ORVASchedTaskNext(listed);
    ORVA_SCHED_TASK copy = *listed, late = *listed, mine = *listed;
    f.set(&mine, "mine");
    EXPECT_EQ(std::string(f.get(*listed)), fits);
    ASSERT_EQ(ORVASchedTaskSave(listed), 0);
    Task saved;
    ASSERT_EQ(ORVASchedTaskLoad(ORVASchedTaskGetID(*t), saved.t), 0);
    EXPECT_EQ(std::string(f.get(*saved)), fits);
    f.set(listed, "set");
    EXPECT_STREQ(f.get(*listed), "set");
    EXPECT_EQ(std::string(f.get(copy)), fits);
    ORVASchedTaskListFree(list);
    EXPECT_EQ(std::string(f.get(late)), fits);
    EXPECT_STREQ(f.get(mine), "mine");

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
  // Every flag away from its default.
  std::vector<bool> flipped(kDefaultFlags.size());
  for (size_t i = 0; i < flipped.size(); ++i) flipped[i] = !kDefaultFlags[i];
  ORVASchedCTaskSetState(t.t, flipped[0]);
  for (size_t i = 1; i < flipped.size(); ++i) kFlagSetters[i - 1](t.t, flipped[i]);
  for (const TextField& f : kTextFields) f.set(t.t, (std::string("text of ") + f.name + " \"'\n\t").c_str());
  ORVA_SCHED_SCHEDULE& s = t->schedule;
  s.repeat = ORVA_SCHED_REPEAT_WEEKLY;
  s.year = 2031, s.month = 12, s.day = 31, s.week_mask = 0x41;
  s.hour = 23, s.min = 59, s.repeat_min = 15, s.last_work_hour = 22;
  s.n_repeat_min_cfg = ORVA_SCHED_REPEAT_CFG_MAX;
  for (unsigned i = 0; i < ORVA_SCHED_REPEAT_CFG_MAX; ++i) s.repeat_min_cfg[i] = static_cast<uint8_t>(59 - i);
  memset(s.repeat_hour_cfg, 0, sizeof(s.repeat_hour_cfg));
  s.n_repeat_hour_cfg = 1, s.repeat_hour_cfg[0] = 23;
  ASSERT_EQ(ORVASchedTaskSave(t.t), 0);
  Task back;
  ASSERT_EQ(ORVASchedTaskLoad(ORVASchedTaskGetID(*t), back.t), 0);
  EXPECT_EQ(back->id, t->id);
  EXPECT_EQ(back->owner, 2u);
  EXPECT_EQ(back->marker, 0);
  for (const TextField& f : kTextFields) EXPECT_STREQ(f.get(*back), f.get(*t)) << f.name;
  EXPECT_EQ(Flags(*back), flipped);
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
  setenv("ORVA_SCHEDRUN", ORVA_SCHEDRUN_PATH, 1);
  enum Actor { kSystem, kA, kB };
  const char* names[] = {nullptr, a.c_str(), b.c_str()};
  const uid_t uids[] = {0, a.uid(), b.uid()};
  // Each operation as the system (no user name) or on behalf of a user.
  auto load = [](const char* u, long id, ORVA_SCHED_TASK* t) {
    return u ? ORVASchedTaskLoadByUser(u, id, t) : ORVASchedTaskLoad(id, t);
  };
  auto save = [](const char* u, ORVA_SCHED_TASK* t) { return u ? ORVASchedTaskSaveByUser(u, t) : ORVASchedTaskSave(t); };
  auto run = [](const char* u, long id) { return u ? ORVASchedTaskRunByUser(u, id, 0, 0) : ORVASchedTaskRun(id, 0, 0); };
  auto remove = [](const char* u, long id) { return u ? ORVASchedTaskRemoveByUser(u, id) : ORVASchedTaskRemove(id); };
  // A failure refused for ownership says so.
  auto check = [](int rc, bool ok, const char* what) {
    EXPECT_EQ(rc, ok ? 0 : -1) << what;
    if (!ok) {
      EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_NOT_OWNER) << what;
    }
  };

  for (Actor owner : {kSystem, kA, kB}) {
    for (Actor actor : {kSystem, kA, kB}) {
      SCOPED_TRACE("owner " + std::to_string(owner) + " actor " + std::to_string(actor));
      // The system touches every task, a user only their own.
      const bool ok = actor == kSystem || actor == owner;
      Task made;
      ORVASchedCTaskSetName(made.t, "task");
      ORVASchedCTaskSetCommand(made.t, "true");
      ORVASchedCTaskSetOwner(made.t, uids[owner]);
      ASSERT_EQ(save(names[owner], made.t), 0);
      EXPECT_EQ(ORVASchedTaskGetMarker(*made), owner == kSystem ? 0 : ORVA_SCHED_MARKER_BY_USER);
      EXPECT_EQ(ORVASchedTaskGetRealOwner(*made), uids[owner]);
      const long id = ORVASchedTaskGetID(*made);

      Task t, check2;
      check(load(names[actor], id, t.t), ok, "load");
      // Save: the stored task loaded by the system, changed and saved by the actor.
      ASSERT_EQ(ORVASchedTaskLoad(id, t.t), 0);
      ORVASchedCTaskSetName(t.t, "changed");
      check(save(names[actor], t.t), ok, "save");
      ASSERT_EQ(ORVASchedTaskLoad(id, check2.t), 0);
      EXPECT_STREQ(ORVASchedTaskGetName(*check2), ok ? "changed" : "task");
      // A plain save keeps a user's task theirs.
      EXPECT_EQ(ORVASchedTaskGetMarker(*check2), owner == kSystem ? 0 : ORVA_SCHED_MARKER_BY_USER);
      check(run(names[actor], id), ok, "run");
      check(remove(names[actor], id), ok, "remove");
      EXPECT_EQ(ORVASchedTaskLoad(id, check2.t), ok ? -1 : 0);
    }
  }

  // A user can never make a task run as anyone else, nor through a plain save of a
  // record marked as theirs.
  Task other;
  for (uid_t uid : {b.uid(), uid_t(0)}) {
    ORVASchedCTaskSetOwner(other.t, uid);
    check(save(a.c_str(), other.t), false, "save as another");
  }
  ORVASchedCTaskSetRealOwner(other.t, true, a.uid());
  check(save(nullptr, other.t), false, "plain save of a user's record run as root");
  // A user's new record, and a stored id that is free, become the user's.
  Task mine;
  ASSERT_EQ(load(a.c_str(), -1, mine.t), 0);
  ORVASchedCTaskSetID(mine.t, 777);
  ASSERT_EQ(save(a.c_str(), mine.t), 0);
  EXPECT_EQ(ORVASchedTaskGetID(*mine), 777);
  EXPECT_EQ(load(a.c_str(), 777, mine.t), 0);
  EXPECT_EQ(load(b.c_str(), 777, mine.t), -1);
  // Unknown users fail everywhere; so does running a task that was never saved.
  const char* ghost = "orvat-no-such-user";
  EXPECT_EQ(load(ghost, -1, mine.t), -1);
  EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_NO_USER);
  EXPECT_EQ(save(ghost, mine.t), -1);
  EXPECT_EQ(remove(ghost, 777), -1);
  EXPECT_EQ(run(ghost, 777), -1);
  EXPECT_EQ(run(a.c_str(), -1), -1);
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
  // Freed one record at a time (one of them written to), a listing goes with its last.
  ASSERT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), 10);
  ORVASchedCTaskSetName(ORVASchedTaskNext(list), "written");
  EXPECT_STREQ(ORVASchedTaskGetName(*ORVASchedTaskNext(list)), "written");
  while (list) {
    ORVA_SCHED_TASK* next = ORVASchedTaskNext(list);
    ORVASchedTaskFree(list);
    list = next;
  }

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
    SetOnce(t.t, r.year ? r.year : 2001, r.hour);
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
  ORVASchedEventTask boot{-1, "on boot", a.uid(), true, "bootup", "echo up"};
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
  Json::Value status;
  EXPECT_EQ(ORVASchedEventTaskGetRunStatus(1, status), -1);
  ASSERT_EQ(ORVASchedEventTaskGetRunStatus(2, status), 0);
  EXPECT_TRUE(status["last_run"].isNull());
}

TEST(SchedStore, DatabaseSettingsAndSchemaVersion) {
  TempRoot root;
  ASSERT_GE(ORVASchedStoreGeneration(), 0);
  const std::string db = ORVASchedStoreDbPath();
  EXPECT_EQ(db, root.path() + "/var/lib/orva/scheduler.db");
  EXPECT_EQ(orva_test::QueryOne(db, "PRAGMA journal_mode"), "wal");
  EXPECT_EQ(orva_test::QueryOne(db, "PRAGMA user_version"), "2");
  // A database from a newer release is refused, not rewritten.
  orva_test::QueryOne(db, "PRAGMA user_version=99");
  TempRoot other;  // switching roots reopens
  ASSERT_GE(ORVASchedStoreGeneration(), 0);
  ORVA::ORVARootSet(root.path());
  EXPECT_EQ(ORVASchedStoreGeneration(), -1);
  EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_DATABASE);
  EXPECT_EQ(orva_test::QueryOne(db, "PRAGMA user_version"), "99");
  ORVA::ORVARootSet(other.path());
}

// Commands and outputs are private to the store's owner from the first open on, whatever
// the umask: an ordinary account can read neither the database nor its WAL.
TEST(SchedStore, StoreFilesArePrivateFromTheFirstOpen) {
  TempRoot root;
  TestUser user("p");
  ASSERT_EQ(chmod(root.path().c_str(), 0755), 0);
  const mode_t oldMask = umask(022);
  Task t;
  ORVASchedCTaskSetCommand(t.t, "echo secret");
  ASSERT_EQ(ORVASchedTaskSave(t.t), 0);
  umask(oldMask);
  const std::string db = ORVASchedStoreDbPath();
  for (const auto& [path, mode] : {std::pair{root.path() + "/var/lib/orva", 0700}, std::pair{db, 0600},
                                   std::pair{db + "-wal", 0600}, std::pair{db + "-shm", 0600}}) {
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
    EXPECT_EQ(st.st_mode & 0777, static_cast<mode_t>(mode)) << path;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    if (setgid(user.gid()) != 0 || setuid(user.uid()) != 0) _exit(3);
    for (const std::string& path : {db, db + "-wal"}) {
      if (open(path.c_str(), O_RDONLY) >= 0 || errno != EACCES) _exit(1);
    }
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// A store file put back from a copy, or removed, while this process has it open: the
// next call works on the file now at the path, not on the one it had open.
TEST(SchedStore, ReplacedOrRemovedStoreIsReopened) {
  TempRoot root;
  const std::string db = ORVASchedStoreDbPath();
  Task a, b, c;
  ASSERT_EQ(ORVASchedTaskSave(a.t), 0);
  orva_test::QueryOne(db, ("VACUUM INTO '" + db + ".copy'").c_str());  // a copy holding task a only
  ASSERT_EQ(ORVASchedTaskSave(b.t), 0);
  for (const char* suffix : {"-wal", "-shm"}) unlink((db + suffix).c_str());
  ASSERT_EQ(rename((db + ".copy").c_str(), db.c_str()), 0);
  EXPECT_EQ(ORVASchedStoreReopenIfReplaced(), 1);
  EXPECT_EQ(ORVASchedStoreReopenIfReplaced(), 0);
  Task loaded;
  EXPECT_EQ(ORVASchedTaskLoad(a.t->id, loaded.t), 0);
  EXPECT_LT(ORVASchedTaskLoad(b.t->id, loaded.t), 0);
  // Removed: a save creates a new store at the path instead of writing into the deleted file.
  for (const char* suffix : {"", "-wal", "-shm"}) unlink((db + suffix).c_str());
  ASSERT_EQ(ORVASchedTaskSave(c.t), 0);
  EXPECT_EQ(orva_test::QueryOne(db, "SELECT count(*) FROM tasks"), "1");
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
