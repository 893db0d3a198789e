// "set_enable", "delete" and "run" of both versions: parameter checks, bulk operations
// that stop at the first failure, acting on behalf of users and the real runner.
#include <unistd.h>

#include <sstream>

#include "scheduler/run.h"
#include "test_support.h"

using namespace orvatest;

namespace {

TEST(ModuleOps, ParameterShapes) {
  ModuleRoot root;
  const long id = AddTask({});
  const char* v1Element = "id must be an integer, enabled must be a boolean";
  const char* v2Element = "id must be an integer, enable must be a boolean";
  const char* noArray = "tasks must be an array";
  const char* v1Task = "task must be an array of id or a single id";
  const char* v2Tasks = "tasks must be an array of {id, real_owner}";
  const char* badId = "id must be an integer";
  // msg (empty: success)
  const struct { int version; const char* method; const char* params; const char* msg; } cases[] = {
      {1, "set_enable", R"({})", noArray}, {1, "set_enable", R"({"status": {"id": 1, "enable": true}})", noArray},
      {2, "set_enable", R"({"status": "x"})", noArray},
      {1, "set_enable", R"({"status": [{"id": "1", "enable": true}]})", v1Element},
      {1, "set_enable", R"({"status": [{"id": 1, "enable": "yes"}]})", v1Element},
      {1, "set_enable", R"({"status": [5]})", v1Element}, {2, "set_enable", R"({"status": [{"id": 1}]})", v2Element},
      {2, "set_enable", R"({"status": [{"id": 1.5, "enable": true}]})", v2Element},
      {2, "set_enable", R"({"status": [[1, true]]})", v2Element}, {1, "delete", R"({})", v1Task},
      {1, "delete", R"({"task": "7"})", v1Task}, {1, "delete", R"({"task": {"id": 7}})", v1Task},
      {1, "run", R"({"task": true})", v1Task}, {1, "run", R"({"task": [1.25]})", badId},
      {2, "delete", R"({})", v2Tasks}, {2, "delete", R"({"tasks": 7})", v2Tasks},
      {2, "run", R"({"tasks": {"id": 7}})", v2Tasks}, {2, "delete", R"({"tasks": [7]})", badId},
      {2, "run", R"({"tasks": [{"real_owner": "root"}]})", badId}, {2, "run", R"({"tasks": [{"id": "7"}]})", badId},
      {1, "set_enable", R"({"status": []})", ""}, {2, "set_enable", R"({"status": []})", ""},
      {1, "delete", R"({"task": []})", ""}, {2, "delete", R"({"tasks": []})", ""}, {1, "run", R"({"task": []})", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " v" + std::to_string(c.version) + " " + c.params);
    ExpectReply(Call(c.version, c.method, c.params), *c.msg ? 4800 : 0, c.msg);
  }
  EXPECT_TRUE(TaskEnabled(id));
}

// Bulk requests in order on system tasks 0-5 and alice's task M. In the texts $0-$5 and
// $M stand for the ids, $A and $B for alice and bob. `after` lists tasks as enabled (+),
// disabled (-), present (=) or gone (x).
TEST(ModuleOps, BulkOperationsStopAtTheFirstFailureOnBehalfOfUsers) {
  ModuleRoot root;
  TestUser alice, bob;
  ASSERT_TRUE(alice.Ok() && bob.Ok());
  std::map<char, std::string> ids = {{'A', alice.Name()}, {'B', bob.Name()}};
  for (char t : std::string("012345")) ids[t] = std::to_string(AddTask({.name = std::string(1, t)}));
  ids['M'] = std::to_string(AddTask({.name = "alice's", .byUser = alice.Name()}));
  auto expand = [&](std::string text) {
    for (size_t p; (p = text.find('$')) != std::string::npos;) text.replace(p, 2, ids[text[p + 1]]);
    return text;
  };
  const char* failedGet = "Failed to get task";
  const char* failedDelete = "Failed to delete task";
  const char* failedRun = "Failed to run task";
  const std::string ts = "ORVA.Core.TaskScheduler:";
  const struct {
    int version;
    const char* method;
    const char* params;
    int code;
    const char* msg;
    std::vector<std::string> logs;  // each logged exactly once
    const char* after;
  } steps[] = {
      {1, "set_enable", R"({"status": [{"id": $0, "enable": false}, {"id": 99999, "enable": false},
                                      {"id": $1, "enable": false}]})",
       4801, failedGet, {ts + "585 backend_orvaschedule: disabled task [$0]", ts + "573 Failed to get task 99999. [0x"},
       "0- 1+"},
      // A bad element after a good one: the good one stays changed.
      {1, "set_enable", R"({"status": [{"id": $1, "enable": false}, {"id": "x", "enable": true}]})", 4800,
       "id must be an integer, enabled must be a boolean", {}, "1-"},
      {1, "set_enable", R"({"status": [{"id": $0, "enable": true}, {"id": $1, "enable": true}]})", 0, "",
       {ts + "585 backend_orvaschedule: enabled task [$0]", ts + "585 backend_orvaschedule: enabled task [$1]"},
       "0+ 1+"},
      {1, "delete", R"({"task": $0})", 0, "", {}, "0x"},
      {1, "delete", R"({"task": [$1, "x", $2]})", 4800, "id must be an integer", {}, "1x 2="},
      {1, "delete", R"({"task": [424242, $2]})", 4802, failedDelete, {ts + "429 Failed to delete task 424242. [0x"},
       "2="},
      {1, "run", R"({"task": 424242})", 4803, failedRun, {ts + "498 Failed to run task [424242]. [0x"}, ""},
      {2, "set_enable", R"({"status": [{"id": $M, "enable": false, "real_owner": "$B"}]})", 4801, failedGet,
       {ts + "621 Failed to get task [$B][$M]. [0x"}, "M+"},
      {2, "set_enable", R"({"status": [{"id": $M, "enable": false, "real_owner": "$A"},
                                      {"id": $3, "enable": false, "real_owner": ""}]})",
       0, "", {ts + "634 backend_orvaschedule: disabled task [$A][$M]",
               ts + "634 backend_orvaschedule: disabled task [-][$3]"},
       "M- 3-"},
      // Alice may not act on a system task on her behalf.
      {2, "set_enable", R"({"status": [{"id": $4, "enable": false, "real_owner": "$A"}]})", 4801, failedGet, {}, "4+"},
      {2, "run", R"({"tasks": [{"id": $M, "real_owner": "$B"}]})", 4803, failedRun,
       {ts + "529 Failed to run task [$B][$M]. [0x"}, ""},
      {2, "run", R"({"tasks": [{"id": 424242, "real_owner": ""}]})", 4803, failedRun,
       {ts + "535 Failed to run task [424242]. [0x"}, ""},
      {2, "delete", R"({"tasks": [{"id": $M, "real_owner": "$B"}, {"id": $5}]})", 4802, failedDelete,
       {ts + "461 Failed to delete task [$B][$M]. [0x"}, "M= 5="},
      {2, "delete", R"({"tasks": [{"id": $M, "real_owner": "$A"}, {"id": $5, "real_owner": 5}]})", 0, "", {}, "Mx 5x"},
      // A missing task on the system's behalf: the bare-id form below the module line.
      {2, "delete", R"({"tasks": [{"id": 424242}]})", 4802, failedDelete,
       {ts + "461 Failed to delete task [-][424242]. [0x", "lib:"}, ""},
  };
  for (const auto& s : steps) {
    SCOPED_TRACE(std::string(s.method) + " v" + std::to_string(s.version) + " " + s.params);
    ClearLogs();
    ExpectReply(Call(s.version, s.method, expand(s.params)), s.code, s.msg);
    for (const std::string& log : s.logs) ExpectOneLog(expand(log));
    std::istringstream after(s.after);
    for (std::string t; after >> t;) {
      const long id = std::stol(ids[t[0]]);
      EXPECT_EQ(TaskExists(id), t[1] != 'x') << t;
      if (t[1] == '+' || t[1] == '-') { EXPECT_EQ(TaskEnabled(id), t[1] == '+') << t; }
    }
  }
}

// The last run of `id` once the runner recorded it (null after about 20 s).
Json::Value WaitForLastRun(long id) {
  Json::Value status;
  const bool done = WaitFor([&] {
    status = Json::Value();
    return ORVASchedTaskGetRunStatus(static_cast<int>(id), status) >= 0 && status["last_run"].isObject() &&
           !status["running"].asBool();
  }, 20);
  return done ? status["last_run"] : Json::Value();
}

TEST(ModuleOps, RunStartsTheRealRunnerAsTheUser) {
  ModuleRoot root;
  const std::string runner = std::string(ORVA_BUILD_DIR) + "/bin/orva-schedrun";
  ASSERT_EQ(access(runner.c_str(), X_OK), 0) << runner;
  ASSERT_EQ(symlink(runner.c_str(), (root.path() + "/usr/orva/bin/orva-schedrun").c_str()), 0);
  TestUser alice;
  ASSERT_TRUE(alice.Ok());
  const long ids[] = {AddTask({}), AddTask({}), AddTask({})};
  const long mine =
      AddTask({.name = "alice's", .command = "test \"$(id -un)\" = " + alice.Name(), .byUser = alice.Name()});
  ExpectReply(Call(1, "run", "{\"task\": [" + std::to_string(ids[0]) + ", " + std::to_string(ids[1]) + "]}"), 0);
  ExpectReply(Call(2, "run", "{\"tasks\": [{\"id\": " + std::to_string(mine) + ", \"real_owner\": \"" + alice.Name() +
                                 "\"}]}"), 0);
  for (long id : {ids[0], ids[1], mine}) {
    SCOPED_TRACE(id);
    Json::Value last = WaitForLastRun(id);
    ASSERT_TRUE(last.isObject());
    ExpectMembers(last, R"({"trigger": "manual", "result": "success"})");
  }
  Json::Value untouched;
  ASSERT_GE(ORVASchedTaskGetRunStatus(static_cast<int>(ids[2]), untouched), 0);
  EXPECT_TRUE(untouched["last_run"].isNull());
  // "view" reports what the store records.
  EXPECT_EQ(Call(1, "view", IdParams(mine)).data["last_run"]["result"], "success");
}

}  // namespace
