// "view", and "set_enable", "delete" and "run" of both
// versions: parameter checks and bulk operations that stop at the first failure, on
// behalf of users.
#include <sstream>

#include "test_support.h"

using namespace orvatest;

namespace {

// Malformed parameters, and "view" of a task the store does not know ("view" of a known
// task answers its run status, end to end).
TEST(ModuleOps, ParameterShapesAndView) {
  ModuleRoot root;
  const char* v1Element = "id must be an integer, enabled must be a boolean";
  const char* v2Element = "id must be an integer, enable must be a boolean";
  const char* noArray = "tasks must be an array";
  const char* v1Task = "task must be an array of id or a single id";
  const char* v2Tasks = "tasks must be an array of {id, real_owner}";
  const char* badId = "id must be an integer";
  const struct { int version; const char* method; const char* params; int code; const char* msg; } cases[] = {
      {1, "set_enable", R"({})", 4800, noArray}, {2, "set_enable", R"({"status": "x"})", 4800, noArray},
      {1, "set_enable", R"({"status": [{"id": "1", "enable": true}]})", 4800, v1Element},
      {2, "set_enable", R"({"status": [{"id": 1}]})", 4800, v2Element},
      {1, "delete", R"({"task": "7"})", 4800, v1Task}, {1, "run", R"({"task": {"id": 7}})", 4800, v1Task},
      {1, "run", R"({"task": [1.25]})", 4800, badId}, {2, "delete", R"({"tasks": 7})", 4800, v2Tasks},
      {2, "run", R"({})", 4800, v2Tasks}, {2, "delete", R"({"tasks": [7]})", 4800, badId},
      {2, "run", R"({"tasks": [{"id": "7"}]})", 4800, badId},
      {1, "delete", R"({"task": []})", 0, ""}, {2, "set_enable", R"({"status": []})", 0, ""},
      {1, "view", R"({"id": 1.5})", 4800, ""}, {1, "view", R"({"id": 424242})", 117, "get run status failed"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " v" + std::to_string(c.version) + " " + c.params);
    ExpectReply(Call(c.version, c.method, c.params), c.code, c.msg);
  }
  // Lines that log-watching rules match, each logged once.
  ExpectOneLog("main:302 Invalid paramters.", LOG_ERR);
  ExpectOneLog("ORVA.Core.TaskScheduler:652 get run status failed [0x", LOG_ERR);
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
  const struct { int version; const char* method; const char* params; int code; const char* msg; const char* after; }
      steps[] = {
          {1, "set_enable", R"({"status": [{"id": $0, "enable": false}, {"id": 99999, "enable": false},
                                          {"id": $1, "enable": false}]})", 4801, failedGet, "0- 1+"},
          // A bad element after a good one: the good one stays changed.
          {1, "set_enable", R"({"status": [{"id": $1, "enable": false}, {"id": "x", "enable": true}]})", 4800,
           "id must be an integer, enabled must be a boolean", "1-"},
          {1, "set_enable", R"({"status": [{"id": $0, "enable": true}, {"id": $1, "enable": true}]})", 0, "", "0+ 1+"},
          {1, "delete", R"({"task": $0})", 0, "", "0x"},
          {1, "delete", R"({"task": [$1, "x", $2]})", 4800, "id must be an integer", "1x 2="},
          {1, "delete", R"({"task": [424242, $2]})", 4802, failedDelete, "2="},
          {1, "run", R"({"task": 424242})", 4803, failedRun, ""},
          {2, "set_enable", R"({"status": [{"id": $M, "enable": false, "real_owner": "$B"}]})", 4801, failedGet, "M+"},
          {2, "set_enable", R"({"status": [{"id": $M, "enable": false, "real_owner": "$A"},
                                          {"id": $3, "enable": false, "real_owner": ""}]})", 0, "", "M- 3-"},
          // Alice may not act on a system task on her behalf.
          {2, "set_enable", R"({"status": [{"id": $4, "enable": false, "real_owner": "$A"}]})", 4801, failedGet, "4+"},
          {2, "run", R"({"tasks": [{"id": $M, "real_owner": "$B"}]})", 4803, failedRun, ""},
          {2, "run", R"({"tasks": [{"id": 424242, "real_owner": ""}]})", 4803, failedRun, ""},
          {2, "delete", R"({"tasks": [{"id": $M, "real_owner": "$B"}, {"id": $5}]})", 4802, failedDelete, "M= 5="},
          {2, "delete", R"({"tasks": [{"id": $M, "real_owner": "$A"}, {"id": $5, "real_owner": 5}]})", 0, "", "Mx 5x"},
          {2, "delete", R"({"tasks": [{"id": 424242}]})", 4802, failedDelete, ""},
      };
  for (const auto& s : steps) {
    SCOPED_TRACE(std::string(s.method) + " v" + std::to_string(s.version) + " " + s.params);
    ExpectReply(Call(s.version, s.method, expand(s.params)), s.code, s.msg);
    std::istringstream after(s.after);
    for (std::string t; after >> t;) {
      _tag_orva_sched_task_ task{};
      const bool exists = ORVASchedTaskLoad(std::stol(ids[t[0]]), &task) >= 0;
      EXPECT_EQ(exists, t[1] != 'x') << t;
      if (t[1] == '+' || t[1] == '-') { EXPECT_EQ(ORVASchedTaskIsEnabled(task), t[1] == '+') << t; }
    }
  }
  // The lines that log-watching rules match, each logged once.
  for (const char* line : {"585 backend_orvaschedule: disabled task [$0]", "573 Failed to get task 99999. [0x",
                           "585 backend_orvaschedule: enabled task [$0]", "585 backend_orvaschedule: enabled task [$1]",
                           "429 Failed to delete task 424242. [0x", "498 Failed to run task [424242]. [0x",
                           "621 Failed to get task [$B][$M]. [0x", "634 backend_orvaschedule: disabled task [$A][$M]",
                           "634 backend_orvaschedule: disabled task [-][$3]", "529 Failed to run task [$B][$M]. [0x",
                           "535 Failed to run task [424242]. [0x", "461 Failed to delete task [$B][$M]. [0x",
                           "461 Failed to delete task [-][424242]. [0x"}) {
    ExpectOneLog(expand(std::string("ORVA.Core.TaskScheduler:") + line));
  }
}

}  // namespace
