// The operations of TaskSchedulerHandler. "list", versions 1 and 2: paging, sorting,
// version filter, event tasks and the items; app keys and the translation of
// "#section:key#" tokens in action texts. "view", and "set_enable", "delete" and "run"
// of both versions: parameter checks and bulk operations that stop at the first failure,
// on behalf of users.
#include <sstream>

#include "ORVA.Core.TaskScheduler.h"
#include "test_support.h"

using namespace orvatest;

namespace {

std::vector<std::string> Names(const Reply& r) {
  std::vector<std::string> out;
  for (const Json::Value& t : r.data["tasks"]) out.push_back(t["name"].asString());
  return out;
}

// A "list" by name that answers exactly `names`, in all.
Reply ListByName(int version, const std::vector<std::string>& names) {
  Reply r = Call(version, "list", R"({"sort_by": "name"})");
  EXPECT_TRUE(r.success && Names(r) == names && r.data["total"] == static_cast<int>(names.size())) << r.envelope;
  return r;
}

class ModuleList : public ::testing::Test {
 protected:
  void SetUp() override {
    root.WriteTexts("en", R"({"common": {"ok": "OK", "run": "Run", "command_line": "Command line", "empty": "",
                                         "num": 5, "ab": "#x:y#", "start_service": "Start service"},
                              "a": {"b": "AB", "b:c": "A-BC"}, "b": {"c": "BC"}, "x": {"y": "XY"},
                              "": {"": "empty both"}, "app": {"title": "System title"}, "sect": "not an object"})");
    root.WriteTexts("de", R"({"common": {"run": "Ausführen"}})");
    // A 3rd-party app with texts of its own.
    root.Write("usr/orva/orvaman/webman/3rdparty/vendor/config.json", R"({"namespace": "Vendor.App"})");
    root.Write("usr/orva/orvaman/webman/3rdparty/vendor/texts/en/strings.json",
               R"({"app": {"title": "Vendor Tool"}, "a": {"b": "vendor AB"}})");
    SetEventTasks(Json::Value(Json::arrayValue));
  }
  ModuleRoot root;
};

TEST_F(ModuleList, PagingArithmetic) {
  for (int i = 0; i < 8; ++i) ASSERT_GT(AddTask({.name = "t" + std::to_string(i)}), 0);
  const std::vector<std::string> all = {"t0", "t1", "t2", "t3", "t4", "t5", "t6", "t7"};
  const struct { const char* params; std::vector<std::string> names; } cases[] = {
      {R"({"offset": 3, "limit": 0})", {}}, {R"({"offset": 0, "limit": -1})", all},
      {R"({"offset": 6, "limit": 5})", {"t6", "t7"}}, {R"({"offset": 50})", {}},
      {R"({"offset": -5, "limit": 10})", {"t0", "t1", "t2", "t3", "t4"}},
      {R"({"offset": -2, "limit": 1})", all},  // the end index -1 is never met
      {R"({"offset": 2, "limit": -3})", {"t2", "t3", "t4", "t5", "t6", "t7"}},
      {R"({"offset": "2", "limit": "1"})", all}, {R"({"offset": 2147483647, "limit": 1})", {}},
  };
  for (const auto& c : cases) {
    const Reply r = Call(2, "list", Merged(ParseJson(c.params), ParseJson(R"({"sort_by": "name"})")));
    EXPECT_TRUE(r.success && Names(r) == c.names && r.data["total"] == 8 && r.data["tasks"].isArray())
        << c.params << r.envelope;
  }
}

// Five tasks whose orders differ by every key. Ties are broken by id ascending in both
// directions; only "desc" in any letter case sorts downwards.
TEST_F(ModuleList, SortKeysAndDirections) {
  TestUser u1, u2;  // user names sort before "root"
  ASSERT_TRUE(u1.Ok() && u2.Ok());
  const TaskSeed seeds[] = {
      {.name = "delta", .appName = "#c:c#", .action = "zz", .hour = 5, .ownerUid = u2.Uid()},
      {.name = "alpha", .appName = "#e:e#", .action = "mm", .enabled = false, .hour = 1},
      {.name = "echo", .appName = "#a:a#", .action = "aa", .hour = 3, .ownerUid = u1.Uid()},
      {.name = "bravo", .appName = "#d:d#", .action = "yy", .enabled = false, .hour = 9, .ownerUid = u1.Uid()},
      {.name = "charlie", .appName = "#b:b#", .action = "bb", .hour = 7},
  };
  for (const TaskSeed& seed : seeds) ASSERT_GT(AddTask(seed), 0);
  using V = std::vector<std::string>;
  // names: the whole listing, or its last two for the next trigger time
  const struct { const char* sortBy; const char* direction; V names; } cases[] = {
      {"enable", "asc", {"alpha", "bravo", "delta", "echo", "charlie"}},
      {"id", "DESC", {"charlie", "bravo", "echo", "alpha", "delta"}},
      {"name", "descending", {"alpha", "bravo", "charlie", "delta", "echo"}},
      {"owner", "", {"echo", "bravo", "delta", "alpha", "charlie"}},
      {"type", "asc", {"echo", "charlie", "delta", "bravo", "alpha"}},
      {"app_name", "desc", {"alpha", "bravo", "delta", "charlie", "echo"}},
      {"action", "asc", {"echo", "charlie", "alpha", "bravo", "delta"}},
      {"next_trigger_time", "asc", {"alpha", "bravo"}},  // disabled: none, after all others
      {"Name", "asc", {"alpha", "bravo"}},
  };
  for (const auto& c : cases) {
    Json::Value p;
    p["sort_by"] = c.sortBy;
    p["sort_direction"] = c.direction;
    const V names = Names(Call(2, "list", p));
    ASSERT_EQ(names.size(), 5u);
    EXPECT_EQ(V(names.end() - c.names.size(), names.end()), c.names) << c.sortBy << " " << c.direction;
  }
}

TEST_F(ModuleList, VersionFilterOwnersAndItemFields) {
  TestUser user;
  ASSERT_TRUE(user.Ok());
  AddTask({.name = "script", .action = "#common:run#: echo hi", .hour = 4, .min = 5});
  AddTask({.name = "off", .app = "ORVA.VEK.TaskScheduler.Beep", .enabled = false});
  AddTask({.name = "vendor", .app = "Vendor.App", .appName = "#app:title#", .action = "#app:title# runs"});
  AddTask({.name = "other", .app = "Other.App", .appName = "#app:title#", .action = "#app:title# runs"});
  AddTask({.name = "users", .byUser = user.Name()});
  AddTask({.name = "hidden", .listable = false});

  // Version 1 lists system tasks only and never "real_owner".
  const Reply v1 = ListByName(1, {"off", "other", "script", "vendor"});
  const Reply r = ListByName(2, {"off", "other", "script", "users", "vendor"});
  for (const Reply* reply : {&v1, &r}) {
    for (const Json::Value& t : reply->data["tasks"]) EXPECT_EQ(t.isMember("real_owner"), t["name"] == "users");
  }
  EXPECT_TRUE(r.data["tasks"][3]["real_owner"] == user.Name() && r.data["tasks"][3]["owner"] == user.Name());

  const Json::Value& script = r.data["tasks"][2];
  EXPECT_EQ(script.getMemberNames(), (std::vector<std::string>{"action", "can_delete", "can_edit", "can_run", "enable",
                                                                "id", "name", "next_trigger_time", "owner", "type"}));
  ExpectMembers(script, R"({"type": "script", "action": "Run: echo hi", "can_run": true, "owner": "root"})");
  const std::string next = script["next_trigger_time"].asString();
  EXPECT_TRUE(next.size() == 16 && next.substr(11) == "04:05") << next;
  EXPECT_FALSE(r.data["tasks"][0].isMember("app_name"));
  // A 3rd-party app's own texts, else the system texts.
  ExpectMembers(r.data["tasks"][4], R"({"type": "custom", "app_name": "Vendor Tool", "action": "Vendor Tool runs"})");
  ExpectMembers(r.data["tasks"][1], R"({"app_name": "System title", "action": "System title runs"})");
}

// Event tasks join both versions' listings; one without an owner is left out, and an
// event scheduler that fails means none.
TEST_F(ModuleList, EventTasksJoinEveryListing) {
  AddTask({.name = "stored"});
  const Json::Value boot = ParseJson(R"({"id": 1, "task_name": "on boot", "enable": true, "event": "bootup",
                                     "script": "echo up", "owner": {"0": "root"}})");
  Json::Value events(Json::arrayValue);
  events.append(boot);
  events.append(Merged(boot, ParseJson(R"({"task_name": "ownerless"})")))["owner"] = Json::Value(Json::objectValue);
  SetEventTasks(events);
  for (int version : {1, 2}) {
    gLogs.clear();
    const Reply r = ListByName(version, {"on boot", "stored"});
    ExpectMembers(r.data["tasks"][0], R"({"type": "event_script", "action": "Command line", "owner": "root"})");
    EXPECT_EQ(ExpectOneLog("Fail to get owner"), "ORVA.Core.TaskScheduler:69 Fail to get owner");
  }
  SetEventTasks(events, false);
  ListByName(2, {"stored"});
}

TEST_F(ModuleList, StoreFailureIs117AndEventsAreNotAsked) {
  // A folder where the database file should be: the store cannot open it.
  root.Write("var/lib/orva/scheduler.db/x", "");
  const int callsBefore = gEventCalls;
  ExpectReply(Call(2, "list", "{}"), 117, "get task list failed");
  ExpectOneLog("ORVA.Core.TaskScheduler:301 get task list failed. [0x");
  EXPECT_EQ(gEventCalls, callsBefore);
}

TEST(ModuleLib, AppKeysOfNamespaces) {
  // (The other kinds' keys show in the items of get and list.)
  const std::pair<const char*, const char*> cases[] = {
      {"ORVA.VEK.TaskScheduler.AutoPower", "power"}, {"ORVA.VEK.TaskScheduler.ZEMAutoUpdate", "zemupdate"},
      {"ORVA.VEK.BackupApp.NetBackup", "backup"},    {"ORVA.VEK.BackupApp.LocalBackup", "backup"},
      {"ORVA.VEK.BackupApp.LUNBackup", "backup"},    {"ORVA.VEK.BackupApp.S3Backup", "backup"},
      {"orva.vek.taskscheduler.beep", "custom"},     {"ORVA.VEK.TaskScheduler.Beep.FormPanel", "custom"},
  };
  for (const auto& [ns, key] : cases) EXPECT_EQ(ORVA::Core::TaskScheduler::GetAppKeyFromNameSpace(ns), key) << ns;
}

TEST_F(ModuleList, ActionTokensAreTranslatedByTheScanner) {
  // action (null: none, which is set to null); an action that is no string stays
  const struct { const char* lang; const char* app; Json::Value action; Json::Value want; } cases[] = {
      {"en", "", "", ""}, {"en", "", "plain text", "plain text"}, {"en", "", "#common:ok", "#common:ok"},
      {"en", "", "#common:start_service#: \"WinShare\" \"FileXfer\"", "Start service: \"WinShare\" \"FileXfer\""},
      {"en", "", "#a:b#c:d#", "ABc:d#"}, {"en", "", "## #x:y#", "## XY"}, {"en", "", "#a#b:c#", "#aBC"},
      {"en", "", "#nope:none# and #x:y#", "#nope:none# and XY"}, {"en", "", "#x:y##x:y#", "XYXY"},
      {"en", "", "#a:b:c#", "A-BC"}, {"en", "", "#:#", "empty both"}, {"en", "", "#", "#"},
      {"en", "", "::#x:y#::", "::XY::"}, {"en", "", "x:#y#", "x:#y#"},
      {"en", "", "#common:run#: echo '#'; date +%H:%M#", "Run: echo '#'; date +%H:%M#"},
      // Texts that are empty, no string, or under a section that is no object: the token stays.
      {"en", "", "#common:empty# #common:num# #sect:x#", "#common:empty# #common:num# #sect:x#"},
      {"en", "", "#Common:ok#", "#Common:ok#"},
      // "#common:ab#" gives "#x:y#"; the later token then replaces that copy, its own stays.
      {"en", "", "#common:ab# #x:y#", "XY #x:y#"},
      // A 3rd-party app's own texts first, then the system texts; other apps only the system's.
      {"en", "Vendor.App", "#a:b# / #x:y# / #app:title#", "vendor AB / XY / Vendor Tool"},
      {"en", "Other.App", "#a:b# #app:title# #nope:none#", "AB System title #nope:none#"},
      // No fallback to another language.
      {"de", "", "#common:run# #common:ok#", "Ausführen #common:ok#"}, {"fr", "", "#common:ok#", "#common:ok#"},
      {"en", "", Json::Value(), Json::Value()}, {"en", "", 12, 12},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.lang) + " " + c.app + " " + c.action.toStyledString());
    ORVA::APIRequest request("ORVA.Core.TaskScheduler", 2, "list", Json::Value(Json::objectValue), "admin", c.lang);
    ORVA::APIResponse response;
    TaskSchedulerHandler handler(&request, &response, 0, "", Json::Value(),
                                 new ORVA::Core::TaskScheduler::AppParser(c.lang));
    Json::Value item = ParseJson(R"({"other": 7})");
    if (!c.action.isNull()) item["action"] = c.action;
    Json::Value want = item;
    want["action"] = c.want;
    handler.TranslateActionKey(item, c.app);
    EXPECT_EQ(item, want);
  }
}

// Malformed parameters, and "view" of a task the store does not know ("view" of a known
// task answers its run status, end to end).
TEST(ModuleOps, ParameterShapesAndView) {
  ModuleRoot root;
  const char* v1Element = "id must be an integer, enabled must be a boolean";
  const char* v1Task = "task must be an array of id or a single id";
  const char* v2Tasks = "tasks must be an array of {id, real_owner}";
  const char* badId = "id must be an integer";
  const struct { int version; const char* method; const char* params; int code; const char* msg; } cases[] = {
      {1, "set_enable", R"({})", 4800, "tasks must be an array"},
      {2, "set_enable", R"({"status": "x"})", 4800, "tasks must be an array"},
      {1, "set_enable", R"({"status": [{"id": "1", "enable": true}]})", 4800, v1Element},
      {2, "set_enable", R"({"status": [{"id": 1}]})", 4800, "id must be an integer, enable must be a boolean"},
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
