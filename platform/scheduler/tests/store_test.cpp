// The store: records, persistence at the field limits, ids, owners, the database files.
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <type_traits>
#include <vector>

#include "core/kelc.h"
#include "scheduler/run.h"
#include "scheduler/schedule.h"
#include "scheduler/store.h"
#include "scheduler/task_fields.h"
#include "test_util.h"

using orvatest::NewTask;
using orvatest::TempRoot;
using orvatest::TestUser;

namespace {

// The text rows of the field table, with their accessors.
struct TextField {
  const char* name;
  void (*set)(ORVA_SCHED_TASK*, const char*);
  const char* (*get)(const _tag_orva_sched_task_&);
  size_t size;
  uint32_t bit;
};
std::vector<TextField> kTextFields;
template <class G, class S, class A>
void AddField(const char* name, G get, S set, size_t size, A arg) {
  if constexpr (std::is_same_v<S, void (*)(ORVA_SCHED_TASK*, const char*)>) {
    kTextFields.push_back({name, set, get, size, static_cast<uint32_t>(arg)});
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

// `rc` is -1 and the error recorded is `code`.
::testing::AssertionResult FailedWith(int64_t rc, int code) {
  const int err = KELCErrGet();
  if (rc == -1 && err == code) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "returned " << rc << " with error " << err << ", not -1 with " << code;
}

}  // namespace

// A fresh record (loaded as id -1 over garbage) with every text at its longest and the
// schedule changed comes back whole from the store, from a listing, and saved as listed
// (the flags: orva-taskctl's test); ids of removed tasks are never given out again.
TEST(SchedStore, EveryFieldRoundTripsAndIdsAreNotReused) {
  TempRoot root;
  auto t = NewTask(), back = NewTask();
  memset(back.get(), 0x5a, sizeof(*back.get()));
  ASSERT_EQ(ORVASchedTaskLoad(-1, back.get()), 0);
  EXPECT_EQ(memcmp(t.get(), back.get(), sizeof(ORVA_SCHED_TASK)), 0);
  ASSERT_EQ(kTextFields.size(), 8u);
  for (const TextField& f : kTextFields) {
    std::string text = std::string(f.name) + " \"'\n\t";
    f.set(t.get(), (text + std::string(f.size - 2 - text.size(), 'x') + "\xc3").c_str());  // any byte, up to size - 1
    EXPECT_EQ(ORVASchedTaskGetTruncated(*t), 0u) << f.name;
  }
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
  ASSERT_EQ(ORVASchedTaskLoad(4242, back.get()), 0);
  EXPECT_EQ(memcmp(t.get(), back.get(), sizeof(ORVA_SCHED_TASK)), 0);
  ORVA_SCHED_TASK* list = nullptr;
  ASSERT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), 1);
  for (const TextField& f : kTextFields) EXPECT_STREQ(f.get(*list), f.get(*t)) << f.name;
  EXPECT_EQ(memcmp(&ORVASchedTaskGetSchedule(*list), &s, sizeof(s)), 0);
  EXPECT_EQ(std::vector<int64_t>({ORVASchedTaskGetID(*list), ORVASchedTaskGetOwner(*list),
                                  ORVASchedTaskGetRealOwner(*list), ORVASchedTaskGetMarker(*list)}),
            std::vector<int64_t>({4242, 2, 2, ORVA_SCHED_MARKER_BY_USER}));
  ASSERT_EQ(ORVASchedTaskSave(list), 0);
  ORVASchedTaskListFree(list);
  ASSERT_EQ(ORVASchedTaskLoad(4242, back.get()), 0);
  EXPECT_EQ(memcmp(t.get(), back.get(), sizeof(ORVA_SCHED_TASK)), 0);

  // Nothing is cut silently: one byte over marks the record, which no save then takes
  // (a new record's: the module's tests); the stored text stays.
  for (const TextField& f : kTextFields) {
    const std::string tooLong(f.size, 'y');
    f.set(back.get(), tooLong.c_str());
    EXPECT_EQ(ORVASchedTaskGetTruncated(*back), f.bit) << f.name;
    EXPECT_EQ(std::string(f.get(*back)), tooLong.substr(0, f.size - 1)) << f.name;
    EXPECT_TRUE(FailedWith(ORVASchedTaskSave(back.get()), ORVA_SCHED_ERR_TOO_LONG)) << f.name;
    ASSERT_EQ(ORVASchedTaskLoad(4242, back.get()), 0);
    EXPECT_STREQ(f.get(*back), f.get(*t)) << f.name;
  }

  ASSERT_EQ(ORVASchedTaskRemove(4242), 0);
  auto next = NewTask();
  ASSERT_EQ(ORVASchedTaskSave(next.get()), 0);
  EXPECT_EQ(ORVASchedTaskGetID(*next), 4243);
  EXPECT_TRUE(FailedWith(ORVASchedTaskLoad(4242, back.get()), ORVA_SCHED_ERR_NOT_FOUND));
}

// A user touches only their own tasks: the module's tests walk load, save, run and remove
// of another's. Here what only the store refuses: a task that would run as anyone else.
TEST(SchedStore, AUsersTaskRunsAsThatUser) {
  TempRoot root;
  TestUser a, b;
  const char* user = a.Name().c_str();
  // A user's new record, and a stored id that is free, become the user's.
  auto mine = NewTask();
  ASSERT_EQ(ORVASchedTaskLoadByUser(user, -1, mine.get()), 0);
  EXPECT_EQ(std::vector<int64_t>({ORVASchedTaskGetOwner(*mine), ORVASchedTaskGetRealOwner(*mine),
                                  ORVASchedTaskGetMarker(*mine)}),
            std::vector<int64_t>({a.Uid(), a.Uid(), ORVA_SCHED_MARKER_BY_USER}));
  ORVASchedCTaskSetID(mine.get(), 777);
  ASSERT_EQ(ORVASchedTaskSaveByUser(user, mine.get()), 0);
  EXPECT_EQ(ORVASchedTaskLoadByUser(user, 777, mine.get()), 0);
  // A system task stays the system's, even one that runs as the user.
  auto sys = NewTask();
  ORVASchedCTaskSetOwner(sys.get(), a.Uid());
  ASSERT_EQ(ORVASchedTaskSave(sys.get()), 0);
  EXPECT_TRUE(FailedWith(ORVASchedTaskSaveByUser(user, sys.get()), ORVA_SCHED_ERR_NOT_OWNER));
  // Not as another user or root, nor through a plain save of a record marked as the user's.
  auto other = NewTask();
  for (uid_t uid : {b.Uid(), uid_t(0)}) {
    ORVASchedCTaskSetOwner(other.get(), uid);
    EXPECT_TRUE(FailedWith(ORVASchedTaskSaveByUser(user, other.get()), ORVA_SCHED_ERR_NOT_OWNER)) << uid;
  }
  ORVASchedCTaskSetRealOwner(other.get(), true, a.Uid());
  EXPECT_TRUE(FailedWith(ORVASchedTaskSave(other.get()), ORVA_SCHED_ERR_NOT_OWNER));
  EXPECT_EQ(orvatest::QueryOne(ORVASchedStoreDbPath(), "SELECT count(*) FROM tasks"), "2");
  // Unknown users fail everywhere; so does running a task that was never saved.
  const char* ghost = "orvat-no-such-user";
  EXPECT_TRUE(FailedWith(ORVASchedTaskLoadByUser(ghost, -1, mine.get()), ORVA_SCHED_ERR_NO_USER));
  EXPECT_EQ(std::vector<int>({ORVASchedTaskSaveByUser(ghost, mine.get()), ORVASchedTaskRemoveByUser(ghost, 777),
                              ORVASchedTaskRunByUser(ghost, 777, 0, 0), ORVASchedTaskRunByUser(user, -1, 0, 0)}),
            std::vector<int>(4, -1));
}

// WAL from the first open; commands and outputs private to the store's owner whatever the
// umask; a database from a newer release refused, not rewritten.
TEST(SchedStore, DatabaseFilesModesAndSchemaVersion) {
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
  EXPECT_EQ(orvatest::QueryOne(db, "PRAGMA journal_mode"), "wal");
  orvatest::QueryOne(db, "PRAGMA user_version=99");
  TempRoot other;  // switching roots reopens
  ASSERT_GE(ORVASchedStoreGeneration(), 0);
  ORVA::ORVARootSet(root.path());
  EXPECT_TRUE(FailedWith(ORVASchedStoreGeneration(), ORVA_SCHED_ERR_DATABASE));
  EXPECT_EQ(orvatest::QueryOne(db, "PRAGMA user_version"), "99");
  ORVA::ORVARootSet(other.path());
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
