// The store: records, persistence at the field limits, ids, owners, listing, sorting.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <tuple>
#include <type_traits>
#include <vector>

#include "core/kelc.h"
#include "scheduler/event_task.h"
#include "scheduler/run.h"
#include "scheduler/run_log.h"
#include "scheduler/schedule.h"
#include "scheduler/store.h"
#include "scheduler/task_fields.h"
#include "test_util.h"

using orvatest::NewTask;
using orvatest::TempRoot;
using orvatest::TestUser;

namespace {

// The text and flag rows of the field table, with their accessors.
struct TextField {
  const char* name;
  void (*set)(ORVA_SCHED_TASK*, const char*);
  const char* (*get)(const _tag_orva_sched_task_&);
  size_t size;
  uint32_t bit;
};
struct FlagField {
  const char* name;
  std::function<void(ORVA_SCHED_TASK*, int)> set;
  bool (*get)(const _tag_orva_sched_task_&);
};
std::vector<TextField> kTextFields;
std::vector<FlagField> kFlagFields;
template <class G, class S, class A>
void AddField(const char* name, G get, S set, size_t size, A arg) {
  if constexpr (std::is_same_v<S, void (*)(ORVA_SCHED_TASK*, const char*)>) {
    kTextFields.push_back({name, set, get, size, static_cast<uint32_t>(arg)});
  } else if constexpr (!std::is_same_v<G, std::nullptr_t> && !std::is_same_v<S, std::nullptr_t>) {
    if constexpr (std::is_same_v<G, bool (*)(const _tag_orva_sched_task_&)>) {
      kFlagFields.push_back({name, [set](ORVA_SCHED_TASK* t, int v) { set(t, v); }, get});
    }
  }
}
const bool kFieldsRead = [] {
  static ORVA_SCHED_TASK r;
  constexpr std::nullptr_t _ = nullptr;
#define ADD_FIELD(K, m, basic, where, arg, get, set) \
  AddField(#m, get, set, sizeof(ORVA_SCHED_FIELD(K, r, m)), ORVA_SCHED_FIELD_ARG(K, r, arg));
  ORVA_SCHED_TASK_FIELDS(ADD_FIELD)
  return true;
}();

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

ORVA_SCHED_TASK* Find(ORVA_SCHED_TASK* list, long id) {
  while (list && ORVASchedTaskGetID(*list) != id) list = ORVASchedTaskNext(list);
  return list;
}

// `rc` is -1 and the error recorded is `code`.
::testing::AssertionResult FailedWith(int64_t rc, int code) {
  const int err = KELCErrGet();
  if (rc == -1 && err == code) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "returned " << rc << " with error " << err << ", not -1 with " << code;
}

}  // namespace

// Allocated, loaded as id -1 (over garbage) or for a user, or zero-filled: a new task.
TEST(SchedStore, FreshRecords) {
  TempRoot root;
  TestUser a;
  auto alloc = NewTask(), loaded = NewTask(), byUser = NewTask();
  memset(loaded.get(), 0x5a, sizeof(*loaded.get()));
  ASSERT_EQ(ORVASchedTaskLoad(-1, loaded.get()), 0);
  ASSERT_EQ(ORVASchedTaskLoadByUser(a.Name().c_str(), -1, byUser.get()), 0);
  EXPECT_EQ(memcmp(alloc.get(), loaded.get(), sizeof(ORVA_SCHED_TASK)), 0);
  // Read on behalf of a user, it already runs as that user and is theirs.
  EXPECT_EQ(std::vector<int64_t>({ORVASchedTaskGetOwner(*byUser), ORVASchedTaskGetRealOwner(*byUser),
                                  ORVASchedTaskGetMarker(*byUser)}),
            std::vector<int64_t>({a.Uid(), a.Uid(), ORVA_SCHED_MARKER_BY_USER}));
  EXPECT_TRUE(ORVASchedTaskIsNew(*byUser) && ORVASchedTaskIsNew(*alloc));
  EXPECT_EQ(ORVASchedTaskGetID(*alloc), -1);
  std::string on;
  for (const FlagField& f : kFlagFields) on += f.get(*byUser) ? f.name + std::string(" ") : "";
  EXPECT_EQ(on, "enabled listable can_edit_from_ui can_delete_from_ui can_run_from_ui can_edit_name can_run_app_same_time ");
  // Daily from today at 00:00.
  time_t now = time(nullptr);
  struct tm lt;
  localtime_r(&now, &lt);
  const ORVA_SCHED_SCHEDULE& s = alloc->schedule;
  EXPECT_EQ(std::vector<int>({s.repeat, s.hour, s.min, s.year, s.month, s.day}),
            std::vector<int>({ORVA_SCHED_REPEAT_DAILY, 0, 0, lt.tm_year + 1900, lt.tm_mon + 1, lt.tm_mday}));

  ORVA_SCHED_TASK* zero = static_cast<ORVA_SCHED_TASK*>(calloc(1, sizeof(ORVA_SCHED_TASK)));
  ORVASchedCTaskSetName(zero, "zeroed");
  EXPECT_TRUE(ORVASchedTaskIsNew(*zero));
  EXPECT_EQ(ORVASchedTaskGetNextTriggerTime(*zero), "N/A");  // no schedule
  ASSERT_EQ(ORVASchedTaskSave(zero), 0);
  EXPECT_FALSE(ORVASchedTaskIsNew(*zero));
  ASSERT_EQ(ORVASchedTaskLoad(ORVASchedTaskGetID(*zero), alloc.get()), 0);
  EXPECT_STREQ(ORVASchedTaskGetName(*alloc), "zeroed");
  free(zero);
}

TEST(SchedStore, TextFieldsAtTheLimitAndOneByteOver) {
  TempRoot root;
  ASSERT_EQ(kTextFields.size(), 8u);
  for (const TextField& f : kTextFields) {
    SCOPED_TRACE(f.name);
    auto t = NewTask();
    std::string fits = std::string(f.size - 2, 'x') + "\xc3";  // any byte, up to size - 1
    f.set(t.get(), fits.c_str());
    ASSERT_EQ(ORVASchedTaskSave(t.get()), 0);
    // Listed, the text reads in full from the record, from a copy, and from a copy that
    // outlives its listing; saved as listed it is kept; a text set on a listed record or
    // a copy is what was set there only.
    ORVA_SCHED_TASK* list = nullptr;
    ASSERT_GT(ORVASchedTaskListGet(&list, nullptr, nullptr), 0);
    ORVA_SCHED_TASK* listed = Find(list, ORVASchedTaskGetID(*t));
    ORVA_SCHED_TASK copy = *listed, late = *listed, mine = *listed;
    f.set(&mine, "mine");
    EXPECT_EQ(std::string(f.get(*listed)), fits);
    ASSERT_EQ(ORVASchedTaskSave(listed), 0);
    auto back = NewTask();
    ASSERT_EQ(ORVASchedTaskLoad(ORVASchedTaskGetID(*t), back.get()), 0);
    EXPECT_EQ(std::string(f.get(*back)), fits);
    EXPECT_EQ(ORVASchedTaskGetTruncated(*back), 0u);
    f.set(listed, "set");
    EXPECT_STREQ(f.get(*listed), "set");
    EXPECT_EQ(std::string(f.get(copy)), fits);
    ORVASchedTaskListFree(list);
    EXPECT_EQ(std::string(f.get(late)), fits);
    EXPECT_STREQ(f.get(mine), "mine");

    // One byte over: kept cut and marked, refused by save (a new task and a stored one
    // alike), until a text that fits clears the mark.
    std::string tooLong(f.size, 'y');
    f.set(back.get(), tooLong.c_str());
    EXPECT_EQ(ORVASchedTaskGetTruncated(*back), f.bit);
    EXPECT_EQ(std::string(f.get(*back)), tooLong.substr(0, f.size - 1));
    EXPECT_TRUE(FailedWith(ORVASchedTaskSave(back.get()), ORVA_SCHED_ERR_TOO_LONG));
    EXPECT_STREQ(KELCErrorGetFile(), "store.cpp");
    auto over = NewTask();
    f.set(over.get(), tooLong.c_str());
    EXPECT_EQ(ORVASchedTaskSave(over.get()), -1);
    EXPECT_EQ(CountTasks(), 1);
    ASSERT_EQ(ORVASchedTaskLoad(ORVASchedTaskGetID(*t), back.get()), 0);
    EXPECT_EQ(std::string(f.get(*back)), fits);
    f.set(over.get(), "short");
    EXPECT_EQ(ORVASchedTaskGetTruncated(*over), 0u);
    ASSERT_EQ(ORVASchedTaskSave(over.get()), 0);
    ASSERT_EQ(ORVASchedTaskRemove(ORVASchedTaskGetID(*over)), 0);
    ASSERT_EQ(ORVASchedTaskRemove(ORVASchedTaskGetID(*t)), 0);
  }
}

// Every field away from a fresh record's value comes back whole from the store, and the
// same through its getter from a listing.
TEST(SchedStore, EveryFieldRoundTrips) {
  TempRoot root;
  auto t = NewTask();
  for (const TextField& f : kTextFields) f.set(t.get(), (std::string("text of ") + f.name + " \"'\n\t").c_str());
  for (const FlagField& f : kFlagFields) f.set(t.get(), !f.get(*t));
  ORVASchedCTaskSetID(t.get(), 4242);
  ORVASchedCTaskSetOwner(t.get(), 2);
  ORVASchedCTaskSetRealOwner(t.get(), true, 2);
  ORVA_SCHED_SCHEDULE& s = t->schedule;
  s.repeat = ORVA_SCHED_REPEAT_WEEKLY;
  s.year = 2031, s.month = 12, s.day = 31, s.week_mask = 0x41;
  s.hour = 23, s.min = 59, s.repeat_min = 15, s.last_work_hour = 22;
  s.n_repeat_min_cfg = ORVA_SCHED_REPEAT_CFG_MAX;
  for (unsigned i = 0; i < ORVA_SCHED_REPEAT_CFG_MAX; ++i) s.repeat_min_cfg[i] = static_cast<uint8_t>(59 - i);
  memset(s.repeat_hour_cfg, 0, sizeof(s.repeat_hour_cfg));
  s.n_repeat_hour_cfg = 1, s.repeat_hour_cfg[0] = 23;
  ASSERT_EQ(ORVASchedTaskSave(t.get()), 0);
  auto back = NewTask();
  ASSERT_EQ(ORVASchedTaskLoad(4242, back.get()), 0);
  EXPECT_EQ(memcmp(t.get(), back.get(), sizeof(ORVA_SCHED_TASK)), 0);
  EXPECT_FALSE(ORVASchedTaskIsNew(*back));
  ORVA_SCHED_TASK* list = nullptr;
  ASSERT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), 1);
  for (const TextField& f : kTextFields) EXPECT_STREQ(f.get(*list), f.get(*t)) << f.name;
  for (const FlagField& f : kFlagFields) EXPECT_EQ(f.get(*list), f.get(*t)) << f.name;
  EXPECT_EQ(memcmp(&ORVASchedTaskGetSchedule(*list), &s, sizeof(s)), 0);
  EXPECT_EQ(std::vector<int64_t>({ORVASchedTaskGetID(*list), ORVASchedTaskGetOwner(*list),
                                  ORVASchedTaskGetRealOwner(*list), ORVASchedTaskGetMarker(*list)}),
            std::vector<int64_t>({4242, 2, 2, ORVA_SCHED_MARKER_BY_USER}));
  ORVASchedTaskListFree(list);
}

TEST(SchedStore, IdsAssignedAndKept) {
  TempRoot root;
  auto a = NewTask(), b = NewTask(), fixed = NewTask(), next = NewTask();
  ASSERT_EQ(ORVASchedTaskSave(a.get()), 0);
  ASSERT_EQ(ORVASchedTaskSave(b.get()), 0);
  const long idA = ORVASchedTaskGetID(*a);
  EXPECT_EQ(ORVASchedTaskGetID(*b), idA + 1);
  // Saving again keeps the id and replaces the stored task.
  ORVASchedCTaskSetName(a.get(), "renamed");
  ASSERT_EQ(ORVASchedTaskSave(a.get()), 0);
  EXPECT_EQ(ORVASchedTaskGetID(*a), idA);
  // A record that carries an id is stored under it; ids are never reused.
  ORVASchedCTaskSetID(fixed.get(), 500);
  ASSERT_EQ(ORVASchedTaskSave(fixed.get()), 0);
  ASSERT_EQ(ORVASchedTaskSave(next.get()), 0);
  ASSERT_EQ(ORVASchedTaskRemove(501), 0);
  ORVASchedCTaskSetID(next.get(), -1);
  ASSERT_EQ(ORVASchedTaskSave(next.get()), 0);
  EXPECT_EQ(ORVASchedTaskGetID(*next), 502);
  EXPECT_EQ(CountTasks(), 4);
  // Unknown ids: load leaves the record untouched; remove, run and status fail.
  for (long id : {501L, 0L, 9999L, -5L}) {
    EXPECT_TRUE(FailedWith(ORVASchedTaskLoad(id, a.get()), ORVA_SCHED_ERR_NOT_FOUND)) << id;
    EXPECT_TRUE(FailedWith(ORVASchedTaskRemove(id), ORVA_SCHED_ERR_NOT_FOUND)) << id;
    EXPECT_EQ(ORVASchedTaskRun(id, 0, 0), -1) << id;
    Json::Value status;
    EXPECT_EQ(ORVASchedTaskGetRunStatus(static_cast<int>(id), status), -1);
  }
  EXPECT_EQ(ORVASchedTaskRemove(-1), -1);
  EXPECT_STREQ(ORVASchedTaskGetName(*a), "renamed");
  ASSERT_EQ(ORVASchedTaskLoad(idA, b.get()), 0);
  EXPECT_STREQ(ORVASchedTaskGetName(*b), "renamed");
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
      {"repeat 4", [](ORVA_SCHED_SCHEDULE& s) { s.repeat = 4; }},
      {"weekly, no day", [](ORVA_SCHED_SCHEDULE& s) { s.repeat = ORVA_SCHED_REPEAT_WEEKLY, s.week_mask = 0; }},
      {"config 0", [](ORVA_SCHED_SCHEDULE& s) { s.repeat_min_cfg[0] = 0; }},
  };
  for (const Case& c : cases) {
    auto t = NewTask();
    c.spoil(t->schedule);
    EXPECT_TRUE(FailedWith(ORVASchedTaskSave(t.get()), ORVA_SCHED_ERR_INVALID)) << c.what;
  }
  EXPECT_EQ(CountTasks(), 0);
}

TEST(SchedStore, ByUserMatrix) {
  TempRoot root;
  TestUser a, b;
  setenv("ORVA_SCHEDRUN", ORVA_SCHEDRUN_PATH, 1);
  enum Actor { kSystem, kA, kB };
  const char* names[] = {nullptr, a.Name().c_str(), b.Name().c_str()};
  const uid_t uids[] = {0, a.Uid(), b.Uid()};
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
      auto made = NewTask();
      ORVASchedCTaskSetName(made.get(), "task");
      ORVASchedCTaskSetCommand(made.get(), "true");
      ORVASchedCTaskSetOwner(made.get(), uids[owner]);
      ASSERT_EQ(save(names[owner], made.get()), 0);
      EXPECT_EQ(ORVASchedTaskGetMarker(*made), owner == kSystem ? 0 : ORVA_SCHED_MARKER_BY_USER);
      EXPECT_EQ(ORVASchedTaskGetRealOwner(*made), uids[owner]);
      const long id = ORVASchedTaskGetID(*made);

      auto t = NewTask(), check2 = NewTask();
      check(load(names[actor], id, t.get()), ok, "load");
      // Save: the stored task loaded by the system, changed and saved by the actor.
      ASSERT_EQ(ORVASchedTaskLoad(id, t.get()), 0);
      ORVASchedCTaskSetName(t.get(), "changed");
      check(save(names[actor], t.get()), ok, "save");
      ASSERT_EQ(ORVASchedTaskLoad(id, check2.get()), 0);
      EXPECT_STREQ(ORVASchedTaskGetName(*check2), ok ? "changed" : "task");
      // A plain save keeps a user's task theirs.
      EXPECT_EQ(ORVASchedTaskGetMarker(*check2), owner == kSystem ? 0 : ORVA_SCHED_MARKER_BY_USER);
      check(run(names[actor], id), ok, "run");
      check(remove(names[actor], id), ok, "remove");
      EXPECT_EQ(ORVASchedTaskLoad(id, check2.get()), ok ? -1 : 0);
    }
  }

  // A user can never make a task run as anyone else, nor through a plain save of a
  // record marked as theirs.
  auto other = NewTask();
  for (uid_t uid : {b.Uid(), uid_t(0)}) {
    ORVASchedCTaskSetOwner(other.get(), uid);
    check(save(a.Name().c_str(), other.get()), false, "save as another");
  }
  ORVASchedCTaskSetRealOwner(other.get(), true, a.Uid());
  check(save(nullptr, other.get()), false, "plain save of a user's record run as root");
  // A user's new record, and a stored id that is free, become the user's.
  auto mine = NewTask();
  ASSERT_EQ(load(a.Name().c_str(), -1, mine.get()), 0);
  ORVASchedCTaskSetID(mine.get(), 777);
  ASSERT_EQ(save(a.Name().c_str(), mine.get()), 0);
  EXPECT_EQ(ORVASchedTaskGetID(*mine), 777);
  EXPECT_EQ(load(a.Name().c_str(), 777, mine.get()), 0);
  EXPECT_EQ(load(b.Name().c_str(), 777, mine.get()), -1);
  // Unknown users fail everywhere; so does running a task that was never saved.
  const char* ghost = "orvat-no-such-user";
  EXPECT_TRUE(FailedWith(load(ghost, -1, mine.get()), ORVA_SCHED_ERR_NO_USER));
  EXPECT_EQ(std::vector<int>({save(ghost, mine.get()), remove(ghost, 777), run(ghost, 777), run(a.Name().c_str(), -1)}),
            std::vector<int>(4, -1));
  orvatest::WaitForRunners(root.path());
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
    auto t = NewTask();
    ORVASchedCTaskSetListable(t.get(), i % 3 != 0);
    ASSERT_EQ(ORVASchedTaskSave(t.get()), 0);
  }
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
    last = last->next = static_cast<ORVA_SCHED_TASK*>(calloc(1, sizeof(ORVA_SCHED_TASK)));
    ORVASchedCTaskSetID(last, 1000 + i);
    ORVASchedCTaskSetEvent(last, "bootup");
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
    auto t = NewTask();
    ORVASchedCTaskSetName(t.get(), r.name);
    ORVASchedCTaskSetState(t.get(), static_cast<unsigned char>(r.enabled));
    ORVASchedCTaskSetOwner(t.get(), r.owner);
    ORVASchedCTaskSetAppName(t.get(), r.appName);
    ORVASchedCTaskSetAction(t.get(), r.action);
    ORVA_SCHED_SCHEDULE& s = t->schedule;
    s.repeat = ORVA_SCHED_REPEAT_ONCE, s.year = static_cast<uint16_t>(r.year ? r.year : 2001), s.month = s.day = 1;
    s.hour = static_cast<uint8_t>(r.hour), s.min = 0;
    ASSERT_EQ(ORVASchedTaskSave(t.get()), 0);
  }
  struct Case {
    const char* key;
    std::vector<long> ascending, descending;
  } cases[] = {
      {"state", {2, 4, 1, 3, 5, 6}, {1, 3, 5, 6, 2, 4}},
      {"id", {1, 2, 3, 4, 5, 6}, {6, 5, 4, 3, 2, 1}},
      {"name", {2, 5, 1, 3, 6, 4}, {4, 6, 1, 3, 5, 2}},
      {"owner", {2, 5, 3, 6, 1, 4}, {1, 4, 3, 6, 2, 5}},  // bin, daemon, root
      {"app name", {2, 3, 1, 5, 4, 6}, {4, 6, 1, 5, 2, 3}},
      {"action", {4, 1, 3, 6, 2, 5}, {5, 2, 1, 3, 6, 4}},
      {"next trigger time", {5, 1, 6, 2, 3, 4}, {1, 6, 5, 2, 3, 4}},  // disabled and past: last, by id
  };
  for (const Case& c : cases) {
    for (int ascending : {1, 0}) {
      ORVA_SCHED_TASK* list = nullptr;
      ASSERT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), 6);
      // Start from a scrambled order so that the result owes nothing to the input.
      ASSERT_EQ(ORVASchedTaskListSort(&list, "id", 0), 0);
      ASSERT_EQ(ORVASchedTaskListSort(&list, c.key, ascending), 0) << c.key;
      EXPECT_EQ(Ids(list), ascending ? c.ascending : c.descending) << c.key << " ascending " << ascending;
      ORVASchedTaskListFree(list);
    }
  }
  ORVA_SCHED_TASK* list = nullptr;
  ASSERT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), 6);
  EXPECT_TRUE(FailedWith(ORVASchedTaskListSort(&list, "type", 1), ORVA_SCHED_ERR_INVALID));
  EXPECT_EQ(Ids(list).size(), 6u);
  ORVASchedTaskListFree(list);
}

// Task and event task writes raise the generation; run records and refused saves do not.
TEST(SchedStore, GenerationCountsTaskWritesOnly) {
  TempRoot root;
  auto t = NewTask(), bad = NewTask();
  ORVASchedEventTask ev{-1, "e", 0, true, "shutdown", ""};
  ORVASchedCTaskSetName(bad.get(), std::string(ORVA_SCHED_NAME_MAX, 'n').c_str());
  int64_t last = ORVASchedStoreGeneration();
  ASSERT_GE(last, 0);
  // A step's return code, and whether it raised the generation.
  auto step = [&last](int rc, int wantRc, bool rises) {
    EXPECT_EQ(rc, wantRc);
    const int64_t was = last;
    EXPECT_EQ((last = ORVASchedStoreGeneration()) > was, rises) << "after a step returning " << rc;
  };
  step(ORVASchedTaskSave(t.get()), 0, true);
  step(ORVASchedRunRecord(ORVA_SCHED_RUN_TASK, ORVASchedTaskGetID(*t), "manual", "skipped", "x"), 0, false);
  step(ORVASchedTaskSave(bad.get()), -1, false);
  step(ORVASchedTaskRemove(ORVASchedTaskGetID(*t)), 0, true);
  step(ORVASchedEventTaskSave(ev), 0, true);
}

TEST(SchedStore, EventTasks) {
  TempRoot root;
  TestUser a;
  ORVASchedEventTask boot{-1, "on boot", a.Uid(), true, "bootup", "echo up"};
  ASSERT_EQ(ORVASchedEventTaskSave(boot), 0);
  EXPECT_EQ(boot.id, 1);
  ORVASchedEventTask down{-1, "on boot", a.Uid(), false, "shutdown", "echo up"};
  ASSERT_EQ(ORVASchedEventTaskSave(down), 0);
  EXPECT_EQ(down.id, 2);

  std::vector<ORVASchedEventTask> all;
  ASSERT_EQ(ORVASchedEventTaskList(all, nullptr), 2);
  ASSERT_EQ(ORVASchedEventTaskList(all, "shutdown"), 1);
  EXPECT_EQ(std::tuple(all[0].id, all[0].enable, all[0].owner, all[0].script),
            std::tuple(2L, false, a.Uid(), std::string("echo up")));
  EXPECT_EQ(CountTasks(), 0);

  struct Bad {
    const char* what;
    void (*spoil)(ORVASchedEventTask&);
    int code;
  } bad[] = {
      {"empty name", [](ORVASchedEventTask& t) { t.task_name = ""; }, ORVA_SCHED_ERR_INVALID},
      {"long name", [](ORVASchedEventTask& t) { t.task_name = std::string(ORVA_SCHED_NAME_MAX, 'n'); },
       ORVA_SCHED_ERR_TOO_LONG},
      {"event", [](ORVASchedEventTask& t) { t.event = "reboot"; }, ORVA_SCHED_ERR_INVALID},
      {"long script", [](ORVASchedEventTask& t) { t.script = std::string(ORVA_SCHED_COMMAND_MAX, 's'); },
       ORVA_SCHED_ERR_TOO_LONG},
      {"owner", [](ORVASchedEventTask& t) { t.owner = 4000000000u; }, ORVA_SCHED_ERR_NO_USER},
  };
  for (const Bad& b : bad) {
    ORVASchedEventTask t = boot;
    b.spoil(t);
    EXPECT_TRUE(FailedWith(ORVASchedEventTaskSave(t), b.code)) << b.what;
  }
  ORVASchedEventTask longest = boot;
  longest.task_name = std::string(ORVA_SCHED_NAME_MAX - 1, 'n');
  longest.script = std::string(ORVA_SCHED_COMMAND_MAX - 1, 's');
  ASSERT_EQ(ORVASchedEventTaskSave(longest), 0);
  ORVASchedEventTask back;
  ASSERT_EQ(ORVASchedEventTaskLoad(1, back), 0);
  EXPECT_EQ(std::pair(back.task_name, back.script), std::pair(longest.task_name, longest.script));

  ASSERT_EQ(ORVASchedEventTaskRemove(1), 0);
  EXPECT_TRUE(FailedWith(ORVASchedEventTaskRemove(1), ORVA_SCHED_ERR_NOT_FOUND));
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
  EXPECT_EQ(orvatest::QueryOne(db, "PRAGMA journal_mode"), "wal");
  EXPECT_EQ(orvatest::QueryOne(db, "PRAGMA user_version"), "2");
  // A database from a newer release is refused, not rewritten.
  orvatest::QueryOne(db, "PRAGMA user_version=99");
  TempRoot other;  // switching roots reopens
  ASSERT_GE(ORVASchedStoreGeneration(), 0);
  ORVA::ORVARootSet(root.path());
  EXPECT_TRUE(FailedWith(ORVASchedStoreGeneration(), ORVA_SCHED_ERR_DATABASE));
  EXPECT_EQ(orvatest::QueryOne(db, "PRAGMA user_version"), "99");
  ORVA::ORVARootSet(other.path());
}

// Commands and outputs are private to the store's owner from the first open on, whatever
// the umask.
TEST(SchedStore, StoreFilesArePrivateFromTheFirstOpen) {
  TempRoot root;
  const mode_t oldMask = umask(022);
  auto t = NewTask();
  ORVASchedCTaskSetCommand(t.get(), "echo secret");
  ASSERT_EQ(ORVASchedTaskSave(t.get()), 0);
  umask(oldMask);
  const std::string db = ORVASchedStoreDbPath();
  for (const auto& [path, mode] : {std::pair{root.path() + "/var/lib/orva", 0700}, std::pair{db, 0600},
                                   std::pair{db + "-wal", 0600}, std::pair{db + "-shm", 0600}}) {
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
    EXPECT_EQ(st.st_mode & 0777, static_cast<mode_t>(mode)) << path;
  }
}

// A store file put back from a copy, or removed, while this process has it open: the
// next call works on the file now at the path, not on the one it had open.
TEST(SchedStore, ReplacedOrRemovedStoreIsReopened) {
  TempRoot root;
  const std::string db = ORVASchedStoreDbPath();
  auto a = NewTask(), b = NewTask(), c = NewTask();
  ASSERT_EQ(ORVASchedTaskSave(a.get()), 0);
  orvatest::QueryOne(db, ("VACUUM INTO '" + db + ".copy'").c_str());  // a copy holding task a only
  ASSERT_EQ(ORVASchedTaskSave(b.get()), 0);
  for (const char* suffix : {"-wal", "-shm"}) unlink((db + suffix).c_str());
  ASSERT_EQ(rename((db + ".copy").c_str(), db.c_str()), 0);
  EXPECT_EQ(ORVASchedStoreReopenIfReplaced(), 1);
  EXPECT_EQ(ORVASchedStoreReopenIfReplaced(), 0);
  auto loaded = NewTask();
  EXPECT_EQ(ORVASchedTaskLoad(a.get()->id, loaded.get()), 0);
  EXPECT_LT(ORVASchedTaskLoad(b.get()->id, loaded.get()), 0);
  // Removed: a save creates a new store at the path instead of writing into the deleted file.
  for (const char* suffix : {"", "-wal", "-shm"}) unlink((db + suffix).c_str());
  ASSERT_EQ(ORVASchedTaskSave(c.get()), 0);
  EXPECT_EQ(orvatest::QueryOne(db, "SELECT count(*) FROM tasks"), "1");
}

TEST(SchedStore, ConnectionIsNotCarriedAcrossFork) {
  TempRoot root;
  auto t = NewTask();
  ASSERT_EQ(ORVASchedTaskSave(t.get()), 0);  // the parent's connection is open
  // Both save 20 new tasks at once.
  auto save20 = [] {
    int ok = 0;
    for (int i = 0; i < 20; ++i) ok += ORVASchedTaskSave(NewTask().get()) == 0;
    return ok;
  };
  pid_t pid = fork();
  if (pid == 0) _exit(save20() == 20 ? 0 : 1);
  EXPECT_EQ(save20(), 20);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(CountTasks(), 41);
}
