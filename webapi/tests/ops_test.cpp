// "set_enable", "delete" and "run" of both versions: parameter checks, bulk operations
// that stop at the first failure, acting on behalf of users and the real runner.
#include <unistd.h>

#include <chrono>
#include <thread>

#include "test_support.h"

namespace {

using tstest::Call;
using tstest::Parse;
using tstest::Reply;

std::string S(long id) { return std::to_string(id); }

class ModuleOps : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < 3; ++i) {
      tstest::TaskSeed seed;
      seed.name = "t" + S(i);
      ids[i] = tstest::AddTask(seed);
      ASSERT_GT(ids[i], 0);
    }
  }
  // One error reply with `code` and {"msg": msg}; an empty `msg`: success with null data.
  static void ExpectError(const Reply& r, int code, const std::string& msg) {
    EXPECT_EQ(r.replies, 1);
    EXPECT_EQ(r.success, msg.empty());
    EXPECT_EQ(r.code, code);
    Json::Value want;
    if (!msg.empty()) want["msg"] = msg;
    EXPECT_EQ(r.data, want);
  }
  tstest::TempRoot root;
  long ids[3] = {0, 0, 0};
};

TEST_F(ModuleOps, ParameterShapes) {
  struct Case {
    int version;
    const char* method;
    std::string params;
    const char* msg;
  } cases[] = {
      {1, "set_enable", R"({})", "tasks must be an array"},
      {1, "set_enable", R"({"status": {"id": 1, "enable": true}})", "tasks must be an array"},
      {2, "set_enable", R"({"status": "x"})", "tasks must be an array"},
      {1, "set_enable", R"({"status": [{"id": "1", "enable": true}]})",
       "id must be an integer, enabled must be a boolean"},
      {1, "set_enable", R"({"status": [{"id": 1, "enable": "yes"}]})",
       "id must be an integer, enabled must be a boolean"},
      {1, "set_enable", R"({"status": [5]})", "id must be an integer, enabled must be a boolean"},
      {2, "set_enable", R"({"status": [{"id": 1}]})", "id must be an integer, enable must be a boolean"},
      {2, "set_enable", R"({"status": [{"id": 1.5, "enable": true}]})",
       "id must be an integer, enable must be a boolean"},
      {2, "set_enable", R"({"status": [[1, true]]})", "id must be an integer, enable must be a boolean"},
      {1, "delete", R"({})", "task must be an array of id or a single id"},
      {1, "delete", R"({"task": "7"})", "task must be an array of id or a single id"},
      {1, "delete", R"({"task": {"id": 7}})", "task must be an array of id or a single id"},
      {1, "run", R"({"task": true})", "task must be an array of id or a single id"},
      {1, "run", R"({"task": [1.25]})", "id must be an integer"},
      {2, "delete", R"({})", "tasks must be an array of {id, real_owner}"},
      {2, "delete", R"({"tasks": 7})", "tasks must be an array of {id, real_owner}"},
      {2, "run", R"({"tasks": {"id": 7}})", "tasks must be an array of {id, real_owner}"},
      {2, "delete", R"({"tasks": [7]})", "id must be an integer"},
      {2, "run", R"({"tasks": [{"real_owner": "root"}]})", "id must be an integer"},
      {2, "run", R"({"tasks": [{"id": "7"}]})", "id must be an integer"},
      // Empty lists succeed with null data.
      {1, "set_enable", R"({"status": []})", ""},
      {2, "set_enable", R"({"status": []})", ""},
      {1, "delete", R"({"task": []})", ""},
      {2, "delete", R"({"tasks": []})", ""},
      {1, "run", R"({"task": []})", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " v" + S(c.version) + " " + c.params);
    ExpectError(Call(c.version, c.method, Parse(c.params)), *c.msg ? 4800 : 0, c.msg);
  }
  for (long id : ids) EXPECT_TRUE(tstest::TaskExists(id) && tstest::TaskEnabled(id));
}

TEST_F(ModuleOps, SetEnableV1StopsAtTheFirstFailureAndKeepsEarlierChanges) {
  std::string p = R"({"status": [{"id": )" + S(ids[0]) + R"(, "enable": false}, {"id": 99999, "enable": false},
                                 {"id": )" + S(ids[1]) + R"(, "enable": false}]})";
  tstest::ClearLogs();
  ExpectError(Call(1, "set_enable", Parse(p)), 4801, "Failed to get task");
  EXPECT_FALSE(tstest::TaskEnabled(ids[0]));
  EXPECT_TRUE(tstest::TaskEnabled(ids[1]));
  tstest::ExpectOneLog("ORVA.Core.TaskScheduler:585 backend_orvaschedule: disabled task [" + S(ids[0]) + "]");
  tstest::ExpectOneLog("ORVA.Core.TaskScheduler:573 Failed to get task 99999. [0x");

  // A bad element after a good one: the good one stays changed, 4800 is reported.
  p = R"({"status": [{"id": )" + S(ids[1]) + R"(, "enable": false}, {"id": "x", "enable": true}]})";
  ExpectError(Call(1, "set_enable", Parse(p)), 4800, "id must be an integer, enabled must be a boolean");
  EXPECT_FALSE(tstest::TaskEnabled(ids[1]));

  p = R"({"status": [{"id": )" + S(ids[0]) + R"(, "enable": true}, {"id": )" + S(ids[1]) + R"(, "enable": true}]})";
  tstest::ClearLogs();
  Reply r = Call(1, "set_enable", Parse(p));
  EXPECT_TRUE(r.success);
  EXPECT_TRUE(tstest::TaskEnabled(ids[0]) && tstest::TaskEnabled(ids[1]));
  EXPECT_EQ(tstest::LogsWith(":585 backend_orvaschedule: enabled task [").size(), 2u);
}

TEST_F(ModuleOps, DeleteAndRunV1) {
  // A single id, then an array whose second element is not an integer.
  ExpectError(Call(1, "delete", Parse(R"({"task": )" + S(ids[0]) + "}")), 0, "");
  EXPECT_FALSE(tstest::TaskExists(ids[0]));
  ExpectError(Call(1, "delete", Parse(R"({"task": [)" + S(ids[1]) + R"(, "x", )" + S(ids[2]) + "]}")), 4800,
              "id must be an integer");
  EXPECT_FALSE(tstest::TaskExists(ids[1]));
  EXPECT_TRUE(tstest::TaskExists(ids[2]));

  tstest::ClearLogs();
  ExpectError(Call(1, "delete", Parse(R"({"task": [424242, )" + S(ids[2]) + "]}")), 4802, "Failed to delete task");
  EXPECT_TRUE(tstest::TaskExists(ids[2]));
  tstest::ExpectOneLog("ORVA.Core.TaskScheduler:429 Failed to delete task 424242. [0x");

  tstest::ClearLogs();
  ExpectError(Call(1, "run", Parse(R"({"task": 424242})")), 4803, "Failed to run task");
  tstest::ExpectOneLog("ORVA.Core.TaskScheduler:498 Failed to run task [424242]. [0x");
}

TEST_F(ModuleOps, VersionTwoActsOnBehalfOfUsers) {
  tstest::TestUser alice;
  tstest::TestUser bob;
  ASSERT_TRUE(alice.Ok() && bob.Ok());
  tstest::TaskSeed seed;
  seed.name = "alice's";
  seed.byUser = alice.Name();
  long mine = tstest::AddTask(seed);
  ASSERT_GT(mine, 0);

  // Bob cannot touch it on his behalf; the system or alice can.
  std::string asBob = R"({"id": )" + S(mine) + R"(, "real_owner": ")" + bob.Name() + R"("})";
  std::string asAlice = R"({"id": )" + S(mine) + R"(, "real_owner": ")" + alice.Name() + R"("})";
  tstest::ClearLogs();
  ExpectError(Call(2, "set_enable", Parse(R"({"status": [{"id": )" + S(mine) + R"(, "enable": false, "real_owner": ")" +
                                          bob.Name() + R"("}]})")),
              4801, "Failed to get task");
  tstest::ExpectOneLog("ORVA.Core.TaskScheduler:621 Failed to get task [" + bob.Name() + "][" + S(mine) + "]. [0x");
  EXPECT_TRUE(tstest::TaskEnabled(mine));

  tstest::ClearLogs();
  Reply r = Call(2, "set_enable", Parse(R"({"status": [{"id": )" + S(mine) + R"(, "enable": false, "real_owner": ")" +
                                        alice.Name() + R"("}, {"id": )" + S(ids[0]) +
                                        R"(, "enable": false, "real_owner": ""}]})"));
  EXPECT_TRUE(r.success) << r.envelope;
  EXPECT_FALSE(tstest::TaskEnabled(mine));
  EXPECT_FALSE(tstest::TaskEnabled(ids[0]));
  tstest::ExpectOneLog("ORVA.Core.TaskScheduler:634 backend_orvaschedule: disabled task [" + alice.Name() + "][" +
                       S(mine) + "]");
  tstest::ExpectOneLog(":634 backend_orvaschedule: disabled task [-][" + S(ids[0]) + "]");

  // Alice may not act on a system task on her behalf: 4801, nothing changes.
  ExpectError(Call(2, "set_enable", Parse(R"({"status": [{"id": )" + S(ids[1]) + R"(, "enable": false, "real_owner": ")" +
                                          alice.Name() + R"("}]})")),
              4801, "Failed to get task");
  EXPECT_TRUE(tstest::TaskEnabled(ids[1]));

  tstest::ClearLogs();
  ExpectError(Call(2, "run", Parse(R"({"tasks": [)" + asBob + "]}")), 4803, "Failed to run task");
  tstest::ExpectOneLog("ORVA.Core.TaskScheduler:529 Failed to run task [" + bob.Name() + "][" + S(mine) + "]. [0x");
  tstest::ClearLogs();
  ExpectError(Call(2, "run", Parse(R"({"tasks": [{"id": 424242, "real_owner": ""}]})")), 4803, "Failed to run task");
  tstest::ExpectOneLog("ORVA.Core.TaskScheduler:535 Failed to run task [424242]. [0x");

  // Delete: bob fails first and stops the bulk; alice's own, then a system task as the
  // system, succeed.
  tstest::ClearLogs();
  ExpectError(Call(2, "delete", Parse(R"({"tasks": [)" + asBob + R"(, {"id": )" + S(ids[2]) + "}]}")), 4802,
              "Failed to delete task");
  tstest::ExpectOneLog("ORVA.Core.TaskScheduler:461 Failed to delete task [" + bob.Name() + "][" + S(mine) +
                       "]. [0x");
  EXPECT_TRUE(tstest::TaskExists(mine));
  EXPECT_TRUE(tstest::TaskExists(ids[2]));
  r = Call(2, "delete", Parse(R"({"tasks": [)" + asAlice + R"(, {"id": )" + S(ids[2]) + R"(, "real_owner": 5}]})"));
  EXPECT_TRUE(r.success) << r.envelope;
  EXPECT_FALSE(tstest::TaskExists(mine));
  EXPECT_FALSE(tstest::TaskExists(ids[2]));
  // A missing task on the system's behalf logs the bare-id form below the module line.
  tstest::ClearLogs();
  ExpectError(Call(2, "delete", Parse(R"({"tasks": [{"id": 424242}]})")), 4802, "Failed to delete task");
  tstest::ExpectOneLog("ORVA.Core.TaskScheduler:461 Failed to delete task [-][424242]. [0x");
  tstest::ExpectOneLog("lib:");
}

// The last run of `id` once the runner recorded it (null after about 20 s).
Json::Value WaitForLastRun(long id) {
  for (int i = 0; i < 400; ++i) {
    Json::Value status;
    if (ORVASchedTaskGetRunStatus(static_cast<int>(id), status) >= 0 && status["last_run"].isObject() &&
        !status["running"].asBool()) {
      return status["last_run"];
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return Json::Value();
}

TEST_F(ModuleOps, RunStartsTheRealRunner) {
  std::string runner = std::string(ORVA_BUILD_DIR) + "/bin/orva-schedrun";
  ASSERT_EQ(access(runner.c_str(), X_OK), 0) << runner;
  ASSERT_EQ(symlink(runner.c_str(), (root.Path() + "/usr/orva/bin/orva-schedrun").c_str()), 0);
  tstest::TestUser alice;
  ASSERT_TRUE(alice.Ok());
  tstest::TaskSeed seed;
  seed.name = "alice's";
  seed.byUser = alice.Name();
  seed.command = "test \"$(id -un)\" = " + alice.Name();
  long mine = tstest::AddTask(seed);

  Reply r = Call(1, "run", Parse(R"({"task": [)" + S(ids[0]) + ", " + S(ids[1]) + "]}"));
  ASSERT_TRUE(r.success) << r.envelope;
  r = Call(2, "run", Parse(R"({"tasks": [{"id": )" + S(mine) + R"(, "real_owner": ")" + alice.Name() + R"("}]})"));
  ASSERT_TRUE(r.success) << r.envelope;
  for (long id : {ids[0], ids[1], mine}) {
    SCOPED_TRACE(id);
    Json::Value last = WaitForLastRun(id);
    ASSERT_TRUE(last.isObject());
    EXPECT_EQ(last["trigger"], "manual");
    EXPECT_EQ(last["result"], "success") << last;
  }
  Json::Value untouched;
  ASSERT_GE(ORVASchedTaskGetRunStatus(static_cast<int>(ids[2]), untouched), 0);
  EXPECT_TRUE(untouched["last_run"].isNull());

  // "view" reports what the store records.
  r = Call(1, "view", Parse(R"({"id": )" + S(mine) + "}"));
  ASSERT_TRUE(r.success);
  EXPECT_EQ(r.data["last_run"]["result"], "success");
}

}  // namespace
