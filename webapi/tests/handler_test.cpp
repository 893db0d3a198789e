// "get", "set" and "create": the task object every kind shares, the schedule's key names,
// version differences, parameter checks, handler choice and acting on behalf of a user.
#include "test_support.h"

using namespace orvatest;

namespace {

// A "type" in the request chooses the handler and is echoed; other apps' tasks are read
// and saved in their common part only.
TEST(ModuleHandler, TypeParameterAndOtherAppsUseTheBasicHandler) {
  ModuleRoot root;
  const long beep = Create("beep", ParseJson(R"({"beep_duration": 10})"));
  const Reply got = Call(2, "get", "{\"id\": " + std::to_string(beep) + ", \"type\": \"custom\"}");
  EXPECT_TRUE(got.data["type"] == "custom" && got.data["extra"].isNull()) << got.envelope;
  const long id = AddTask({.app = "ORVA.VEK.DataAnalysis"});
  const Json::Value report = GetTask(id);
  ExpectMembers(report, R"({"extra": null, "can_edit_owner": false, "type": "report"})");
  EXPECT_TRUE(Call(2, "set", Merged(report, ParseJson(R"({"name": "renamed", "enable": false})"))).success);
  EXPECT_TRUE(std::string(Record(id).name) == "renamed" && !Record(id).enabled);
}

TEST(ModuleHandler, EntryParameterAndTypeErrors) {
  ModuleRoot root;
  const std::string ofEvent = IdParams(AddTask({.app = "ORVA.VEK.EventScheduler.Script"}));
  // log: the line logged, or null
  const struct { int version; const char* method; std::string params; int code; const char* log; } cases[] = {
      {1, "get", R"({"id": "1"})", 4800, nullptr}, {2, "get", R"({"id": 1, "type": 5})", 4800, nullptr},
      {2, "get", R"({"id": 999})", 4801, nullptr},
      {2, "get", R"({"id": 1, "type": "Beep"})", 4800, "Unknown app type: Beep"},
      {2, "get", ofEvent, 4800, "Unknown app type: event_script"},
      {2, "set", ofEvent, 4800, "Unknown app type: event_script"}, {2, "set", R"({"id": 1.5})", 4800, nullptr},
      {1, "set", R"({"id": 999, "type": "beep"})", 4801, nullptr}, {2, "create", R"({"type": 1})", 4800, nullptr},
      {1, "create", R"({"type": "custom"})", 4800, "Unknown app type: custom"},
      {3, "create", R"({"type": "report"})", 4800, "Unknown app type: report"},
      {2, "create", R"({"type": "event_script"})", 4800, "Unknown app type: event_script"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " v" + std::to_string(c.version) + " " + c.params);
    gLogs.clear();
    ExpectReply(Call(c.version, c.method, c.params), c.code);
    if (c.log) { EXPECT_TRUE(ExpectOneLog(c.log, LOG_ERR).starts_with("main:")); }
  }
  EXPECT_EQ(StoredCount(), 1);  // none of them created anything
  // A task that the handler then cannot load: an error without code or message.
  gLogs.clear();
  const Reply r = Call(1, "get", R"({"id": 4242, "type": "beep"})");
  EXPECT_TRUE(r.replies == 1 && !r.success && r.code == 0 && r.data.isNull()) << r.envelope;
  EXPECT_TRUE(ExpectOneLog("ORVA.Core.TaskScheduler.Basic:").ends_with(" Load Task failed [-][4242]"));
}

TEST(ModuleHandler, PlatformRefusalsAnswer117AndStoreNothing) {
  ModuleRoot root;
  const long id = Create("beep", ParseJson(R"({"beep_duration": 4})"));
  const std::pair<std::string, const char*> cases[] = {  // merged into a valid set request, message
      {R"({"owner": "orvat-nobody"})", "Invalid (basic) object"},
      {R"({"schedule": {"hour": 24}})", "Invalid (schedule) object"},
      // Longer than the store keeps: refused, never cut short.
      {"{\"name\": \"" + std::string(ORVA_SCHED_NAME_MAX, 'n') + "\"}", "Invalid (basic) object"},
  };
  for (const auto& [changes, msg] : cases) {
    const Json::Value task = TaskObject("beep", ParseJson(R"({"beep_duration": 9})"), id);
    ExpectReply(Call(2, "set", Merged(task, ParseJson(changes))), 117, msg);
    EXPECT_STREQ(Record(id).command, "/usr/orva/bin/orvaschedtool --beep 4");
  }
}

// Every kind in every version: its record's fixed values (simple form, can edit name,
// can edit owner, may run beside the app's others, may run twice at once, listable) and
// the "extra" of a new task.
TEST(ModuleHandler, CreateKeepsAGivenIdAndMakesEveryKindInEveryVersion) {
  ModuleRoot root;
  Json::Value params = TaskObject("script", ParseJson(R"({"script": "echo 77"})"), 77);
  EXPECT_EQ(Call(2, "create", params).data, ParseJson(R"({"id": 77})"));
  EXPECT_STREQ(Record(77).command, "echo 77");
  // An id out of range would use up the id sequence: refused, and later creates still work.
  for (const char* id : {"1000000000", "-2", "18446744073709551615", "\"x\""}) {
    params["id"] = ParseJson(id);
    EXPECT_EQ(Call(2, "create", params).code, 4800) << id;
  }
  EXPECT_EQ(StoredCount(), 1);
  params["id"] = 999999999;
  EXPECT_TRUE(Call(2, "create", params).success);

  const struct { const char* type; const char* extra; const char* app; const char* appName; std::vector<int> flags;
                 const char* defaults; } kinds[] = {
      {"beep", "{}", "Beep", "#beep:beep_title#", {1, 1, 0, 1, 0, 1}, R"({"beep_duration": "60"})"},
      {"script", R"({"script": "true"})", "Script", "#common:command_line#", {1, 1, 1, 1, 0, 1}, R"({"script": ""})"},
      {"recycle", "{}", "Recycle", "#share:recycle_bin#", {1, 1, 0, 1, 0, 1}, nullptr},
      {"service", R"({"action": "start"})", "Service", "#service:service_subject#", {0, 1, 0, 0, 0, 1}, nullptr},
  };
  for (int version : {1, 2, 3}) {
    for (const auto& k : kinds) {
      SCOPED_TRACE(std::string(k.type) + " v" + std::to_string(version));
      Json::Value task = TaskObject(k.type, ParseJson(k.extra));
      task["schedule"]["repeat_min"] = 15;  // version 1 neither sets nor shows minute repetition
      const long id = CreateTask(task, version);
      const _tag_orva_sched_task_ r = Record(id);
      EXPECT_EQ(r.schedule.repeat_min, version == 1 ? 0 : 15);
      const std::string app = std::string("ORVA.VEK.TaskScheduler.") + k.app;
      EXPECT_TRUE(r.app == app && r.edit_form == app + ".FormPanel" && r.app_name == std::string(k.appName))
          << r.app << " " << r.edit_form << " " << r.app_name;
      EXPECT_EQ(std::vector<int>({r.simple_edit_form, r.can_edit_name, r.can_edit_owner, r.can_run_app_same_time,
                                  r.can_run_task_same_time, r.listable}), k.flags);
      // The task object, its schedule under the UI's key names.
      const Json::Value got = GetTask(id, version);
      EXPECT_TRUE(got["type"] == k.type && got["can_edit_owner"] == (std::string(k.type) == "script")) << got;
      EXPECT_EQ(got.getMemberNames(), (std::vector<std::string>{"action", "can_edit_name", "can_edit_owner", "enable",
                                                                 "extra", "id", "name", "owner", "schedule", "type"}));
      ExpectMembers(got["schedule"], R"({"repeat_date": "daily", "hour": 3, "minute": 30})");
      for (const char* gone : {"repeat", "min", "week_name", "next_trigger_time"}) {
        EXPECT_FALSE(got["schedule"].isMember(gone)) << gone;
      }
      for (const char* key : {"repeat_min", "repeat_min_store_config", "repeat_hour_store_config"}) {
        EXPECT_EQ(got["schedule"].isMember(key), version != 1) << key;
      }
      if (k.defaults) {
        const Reply fresh = Call(version, "get", std::string(R"({"id": -1, "type": ")") + k.type + "\"}");
        EXPECT_EQ(fresh.data["extra"], ParseJson(k.defaults)) << fresh.envelope;
      }
    }
  }
}

// Version 3 acts on behalf of "real_owner".
TEST(ModuleHandler, OnBehalfOfAUser) {
  ModuleRoot root;
  TestUser user, other;
  ASSERT_TRUE(user.Ok() && other.Ok());
  // The task must run as that user: owner root is refused and nothing is stored.
  Json::Value params = TaskObject("script", ParseJson(R"({"script": "id -un"})"));
  params["real_owner"] = user.Name();
  ExpectReply(Call(3, "create", params), 117, "Invalid (basic) object");
  EXPECT_EQ(StoredCount(), 0);

  params["owner"] = user.Name();
  const long id = CreateTask(params, 3);
  // The stored task is the user's, saved on the user's behalf, and named `name`.
  const auto expectUsers = [&](const char* name) {
    const _tag_orva_sched_task_ r = Record(id);
    EXPECT_TRUE(r.marker == ORVA_SCHED_MARKER_BY_USER && r.real_owner == user.Uid() && r.owner == user.Uid());
    EXPECT_STREQ(r.name, name);
  };
  expectUsers("t1");

  Json::Value get = ParseJson(IdParams(id));
  get["real_owner"] = user.Name();
  const Reply got = Call(3, "get", get);
  EXPECT_TRUE(got.data["real_owner"] == user.Name() && got.data["owner"] == user.Name()) << got.envelope;
  get["real_owner"] = other.Name();
  EXPECT_EQ(Call(3, "get", get).code, 4801);
  // Another user cannot change the task; the owner can, and so can the system (an empty
  // "real_owner"), which leaves it the user's.
  Json::Value set = got.data;
  std::string name = "t1";
  for (const std::string& who : {other.Name(), user.Name(), std::string()}) {
    set["real_owner"] = who;
    set["name"] = "by " + who;
    const Reply r = Call(3, "set", set);
    EXPECT_EQ(r.code, who == other.Name() ? 4801 : 0) << who;
    if (r.success) name = "by " + who;
    expectUsers(name.c_str());
  }
  EXPECT_FALSE(GetTask(id, 3).isMember("real_owner"));
}

}  // namespace
