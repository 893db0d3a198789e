// "get", "set" and "create": the task object shared by every kind, the schedule's key
// names, version differences, the entries' parameter checks and handler choice, and
// acting on behalf of a user.
#include <gtest/gtest.h>

#include <string>

#include "ORVA.Core.TaskScheduler.Basic.h"
#include "ORVA.Core.TaskScheduler.Beep.h"
#include "app_test_util.h"
#include "test_support.h"

namespace {

using apptest::Create;
using apptest::Direct;
using apptest::Parse;
using apptest::Record;
using apptest::TaskObject;
using tstest::Call;

std::string IdParams(long id) { return "{\"id\": " + std::to_string(id) + "}"; }

const char* const kRepetition[] = {"repeat_min", "repeat_min_store_config", "repeat_hour_store_config"};

TEST(GetTask, TaskObjectOfABeepTask) {
  tstest::TempRoot root;
  root.WriteTexts("en", Parse(R"({"volume": {"beep_on": "Beep for"}, "common": {"time_seconds": "seconds"}})"));
  Json::Value params = TaskObject("beep", Parse(R"({"beep_duration": 10})"), "buzz");
  params["schedule"] = Parse(R"({"repeat_date": "weekly", "week_day": "1,3", "hour": 7, "minute": 45})");
  tstest::Reply created = Call(2, "create", params);
  ASSERT_TRUE(created.success) << created.envelope.toStyledString();
  long id = created.data["id"].asInt64();

  tstest::Reply got = Call(2, "get", Parse(IdParams(id)));
  ASSERT_TRUE(got.success) << got.envelope.toStyledString();
  const Json::Value& t = got.data;
  EXPECT_EQ(t["id"], static_cast<Json::Int64>(id));
  EXPECT_EQ(t["name"], "buzz");
  EXPECT_EQ(t["owner"], "root");
  EXPECT_EQ(t["enable"], true);
  EXPECT_EQ(t["type"], "beep");
  EXPECT_EQ(t["action"], "Beep for 10 seconds");
  EXPECT_EQ(t["can_edit_name"], true);
  EXPECT_EQ(t["can_edit_owner"], false);
  EXPECT_EQ(t["extra"], Parse(R"({"beep_duration": 10})"));
  EXPECT_FALSE(t.isMember("basic"));
  EXPECT_FALSE(t.isMember("app"));
  EXPECT_FALSE(t.isMember("real_owner"));
  const Json::Value& s = t["schedule"];
  EXPECT_EQ(s["repeat_date"], "weekly");
  EXPECT_EQ(s["week_day"], "1,3");
  EXPECT_EQ(s["hour"], 7);
  EXPECT_EQ(s["minute"], 45);
  for (const char* gone : {"repeat", "week_name", "min", "next_trigger_time"}) {
    EXPECT_FALSE(s.isMember(gone)) << gone;
  }
}

TEST(GetTask, VersionOneHidesMinuteAndHourRepetition) {
  tstest::TempRoot root;
  long id = Create("beep", Parse(R"({"beep_duration": 3})"));
  ASSERT_GT(id, 0);
  for (int version : {1, 2, 3}) {
    SCOPED_TRACE(version);
    tstest::Reply got = Call(version, "get", Parse(IdParams(id)));
    ASSERT_TRUE(got.success);
    for (const char* key : kRepetition) {
      EXPECT_EQ(got.data["schedule"].isMember(key), version >= 2) << key;
    }
    EXPECT_TRUE(got.data["schedule"].isMember("repeat_hour"));
  }
}

TEST(SetTask, VersionOneCannotSetMinuteRepetition) {
  tstest::TempRoot root;
  for (int version : {1, 2}) {
    SCOPED_TRACE(version);
    Json::Value params = TaskObject("script", Parse(R"({"script": "true"})"));
    params["schedule"]["repeat_min"] = 15;
    params["schedule"]["repeat_min_store_config"] = Parse("[5, 15]");
    params["schedule"]["repeat_hour_store_config"] = Parse("[2]");
    tstest::Reply created = Call(version, "create", params);
    ASSERT_TRUE(created.success) << created.envelope.toStyledString();
    long id = created.data["id"].asInt64();
    EXPECT_EQ(Record(id).schedule.repeat_min, version >= 2 ? 15 : 0);
    EXPECT_EQ(Record(id).schedule.n_repeat_min_cfg,
              version >= 2 ? 2 : apptest::FreshRecord().schedule.n_repeat_min_cfg);
    EXPECT_EQ(Record(id).schedule.n_repeat_hour_cfg,
              version >= 2 ? 1 : apptest::FreshRecord().schedule.n_repeat_hour_cfg);

    // The same through "set" on an existing task.
    Json::Value set = params;
    set.removeMember("type");
    set["id"] = static_cast<Json::Int64>(id);
    set["schedule"]["repeat_min"] = 30;
    ASSERT_TRUE(Call(version, "set", set).success);
    EXPECT_EQ(Record(id).schedule.repeat_min, version >= 2 ? 30 : 0);
  }
}

TEST(GetTask, TypeParameterIsEchoedAndChoosesTheHandler) {
  tstest::TempRoot root;
  long id = Create("beep", Parse(R"({"beep_duration": 10})"));
  ASSERT_GT(id, 0);
  const struct {
    const char* type;
    const char* extra;  // null: no app object
  } cases[] = {
      {"report", nullptr}, {"custom", nullptr}, {"backup", nullptr}, {"power", nullptr}, {"zemupdate", nullptr},
      {"beep", R"({"beep_duration": 10})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    Json::Value params = Parse(IdParams(id));
    params["type"] = c.type;
    tstest::Reply got = Call(2, "get", params);
    ASSERT_TRUE(got.success) << got.envelope.toStyledString();
    EXPECT_EQ(got.data["type"], c.type);
    EXPECT_EQ(got.data["extra"], c.extra ? Parse(c.extra) : Json::Value());
    EXPECT_EQ(got.data["name"], "t1");
  }
}

// Tasks of other apps are read and saved in their common part only.
TEST(GetTask, OtherAppsUseTheBasicHandler) {
  tstest::TempRoot root;
  const struct {
    const char* app;
    const char* key;
  } cases[] = {
      {"ORVA.VEK.DataAnalysis", "report"},
      {"ORVA.VEK.BackupApp.S3Backup", "backup"},
      {"ORVA.VEK.TaskScheduler.AutoPower", "power"},
      {"ORVA.VEK.TaskScheduler.ZEMAutoUpdate", "zemupdate"},
      {"com.example.Thing", "custom"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.app);
    tstest::TaskSpec spec;
    spec.app = c.app;
    spec.command = "/bin/echo keep";
    spec.appArgs = "{\"own\": 1}";
    long id = tstest::AddTask(spec);
    tstest::Reply got = Call(2, "get", Parse(IdParams(id)));
    ASSERT_TRUE(got.success);
    EXPECT_EQ(got.data["type"], c.key);
    EXPECT_TRUE(got.data["extra"].isNull());
    EXPECT_EQ(got.data["can_edit_owner"], false);

    Json::Value params = got.data;
    params["name"] = "renamed";
    params["enable"] = false;
    tstest::Reply set = Call(2, "set", params);
    ASSERT_TRUE(set.success) << set.envelope.toStyledString();
    EXPECT_EQ(set.data, Parse(IdParams(id)));
    _tag_orva_sched_task_ r = Record(id);
    EXPECT_STREQ(r.name, "renamed");
    EXPECT_EQ(r.enabled, 0);
  }
}

struct EntryError {
  int version;
  const char* method;
  const char* params;
  int code;
  const char* log;  // a line that must be logged, or null
};

TEST(Entries, ParameterAndTypeErrors) {
  tstest::TempRoot root;
  tstest::TaskSpec event;
  event.app = "ORVA.VEK.EventScheduler.Script";
  long eventId = tstest::AddTask(event);
  const std::string ev = std::to_string(eventId);
  const std::string getEvent = "{\"id\": " + ev + "}";
  const EntryError cases[] = {
      {2, "get", "{}", 4800, nullptr},
      {1, "get", R"({"id": "1"})", 4800, nullptr},
      {2, "get", R"({"id": 1, "type": 5})", 4800, nullptr},
      {2, "get", R"({"id": 999})", 4801, nullptr},
      {3, "get", R"({"id": 999, "real_owner": ""})", 4801, nullptr},
      {2, "get", R"({"id": 1, "type": "Beep"})", 4800, "Unknown app type: Beep"},
      {2, "get", R"({"id": 1, "type": "event_script"})", 4800, "Unknown app type: event_script"},
      {2, "get", getEvent.c_str(), 4800, "Unknown app type: event_script"},
      {2, "set", getEvent.c_str(), 4800, "Unknown app type: event_script"},
      {2, "set", "{}", 4800, nullptr},
      {2, "set", R"({"id": 1.5})", 4800, nullptr},
      {1, "set", R"({"id": 999, "type": "beep"})", 4801, nullptr},
      {2, "create", "{}", 4800, nullptr},
      {2, "create", R"({"type": 1})", 4800, nullptr},
      {1, "create", R"({"type": "custom"})", 4800, "Unknown app type: custom"},
      {3, "create", R"({"type": "report"})", 4800, "Unknown app type: report"},
      {2, "create", R"({"type": "event_script"})", 4800, "Unknown app type: event_script"},
      {2, "create", R"({"type": ""})", 4800, "Unknown app type: "},
  };
  for (const EntryError& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " v" + std::to_string(c.version) + " " + c.params);
    tstest::ClearLogs();
    tstest::Reply reply = Call(c.version, c.method, Parse(c.params));
    EXPECT_EQ(reply.replies, 1);
    EXPECT_FALSE(reply.success);
    EXPECT_EQ(reply.code, c.code);
    EXPECT_TRUE(reply.data.isNull()) << reply.data;
    if (c.log) {
      auto lines = tstest::LogsWith(c.log);
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_EQ(lines[0].priority, LOG_ERR);
      EXPECT_EQ(lines[0].text.rfind("main:", 0), 0u) << lines[0].text;
      EXPECT_EQ(lines[0].text.substr(lines[0].text.size() - strlen(c.log)), c.log);
    }
  }
  // Nothing was created by any of them.
  ORVA_SCHED_TASK* list = nullptr;
  EXPECT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), 1);
  ORVASchedTaskListFree(list);
}

TEST(Handler, GetWithoutIdIsRefusedBeforeTheStore) {
  tstest::TempRoot root;
  for (const char* params : {"{}", R"({"id": "5"})", R"({"id": null})"}) {
    SCOPED_TRACE(params);
    tstest::ClearLogs();
    Direct<TaskSchedulerBasicHandler> d(Parse(params), 2, "get");
    d.handler.Process("get", 2);
    EXPECT_EQ(d.response.GetReplyCount(), 1);
    EXPECT_EQ(d.response.GetErrorCode(), 4800);
    EXPECT_EQ(d.response.GetData(), Parse(R"({"msg": "id is invalid"})"));
    EXPECT_EQ(tstest::LogCount(), 0u);
  }
}

TEST(Handler, UnknownMethodReportsNothingRecorded) {
  tstest::TempRoot root;
  for (const char* method : {"list", "Get", "create", ""}) {
    SCOPED_TRACE(method);
    Direct<TaskSchedulerBasicHandler> d(Parse(R"({"id": 1})"), 2, "get");
    d.handler.Process(method, 2);
    EXPECT_EQ(d.response.GetReplyCount(), 1);
    EXPECT_FALSE(d.response.IsSuccess());
    EXPECT_EQ(d.response.GetErrorCode(), 0);
    EXPECT_TRUE(d.response.GetData().isNull());
  }
}

TEST(Handler, LoadFailureOfGetLogsAndAnswersCodeZero) {
  tstest::TempRoot root;
  Direct<TaskSchedulerBasicHandler> d(Parse(R"({"id": 4242})"), 1, "get");
  d.handler.Process_v1("get");
  EXPECT_EQ(d.response.GetErrorCode(), 0);
  auto lines = tstest::LogsWith("ORVA.Core.TaskScheduler.Basic:");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].text.find(" Load Task failed [-][4242]"), std::string::npos) << lines[0].text;
}

TEST(Handler, SetWithoutIdCreatesANewTask) {
  tstest::TempRoot root;
  Direct<TaskSchedulerBeepHandler> d(TaskObject("beep", Parse(R"({"beep_duration": 5})")), 2, "set");
  d.handler.Process_v2("set");
  ASSERT_TRUE(d.response.IsSuccess()) << d.response.GetEnvelope();
  long id = d.response.GetData()["id"].asInt64();
  EXPECT_GT(id, 0);
  EXPECT_STREQ(Record(id).command, "/usr/orva/bin/orvaschedtool --beep 5");
}

TEST(Handler, BasicObjectReshaping) {
  tstest::TempRoot root;
  Direct<TaskSchedulerBasicHandler> d;
  const struct {
    const char* enabled;
    bool enable;
  } gets[] = {{"\"on\"", true}, {"\"ON\"", true}, {"\"On\"", true}, {"\"off\"", false}, {"\"yes\"", false},
              {"null", false}};
  for (const auto& g : gets) {
    SCOPED_TRACE(g.enabled);
    Json::Value task = Parse(std::string(R"({"basic": {"id": 7, "task_name": "n", "owner": "u", "app":
        "ORVA.VEK.TaskScheduler.Service", "action": "plain", "can_edit_name": false, "enabled": )") +
                             g.enabled + "}, \"schedule\": {}}");
    ASSERT_TRUE(d.handler.ReConstructJsonGet_Basic(task));
    EXPECT_EQ(task, Parse(std::string(R"({"id": 7, "name": "n", "owner": "u", "action": "plain", "type": "service",
        "can_edit_name": false, "can_edit_owner": false, "schedule": {}, "enable": )") +
                          (g.enable ? "true" : "false") + "}"));
  }

  const struct {
    const char* task;
    const char* basic;
  } sets[] = {
      {R"({"id": 5, "name": "n", "owner": "o", "enable": true})",
       R"({"id": "5", "task_name": "n", "owner": "o", "enabled": "on"})"},
      {R"({"name": "n", "owner": "o", "enable": false})", R"({"id": "-1", "task_name": "n", "owner": "o", "enabled": "off"})"},
      {R"({"id": "12", "enable": "true"})", R"({"id": "12", "task_name": null, "owner": null, "enabled": "off"})"},
      {R"({"enable": 1, "other": 2})", R"({"id": "-1", "task_name": null, "owner": null, "enabled": "off"})"},
  };
  for (const auto& s : sets) {
    SCOPED_TRACE(s.task);
    Json::Value task = Parse(s.task);
    const bool hadOther = task.isMember("other");
    ASSERT_TRUE(d.handler.ReConstructJsonSet_Basic(task));
    EXPECT_EQ(task["basic"], Parse(s.basic));
    for (const char* gone : {"id", "name", "owner", "enable"}) EXPECT_FALSE(task.isMember(gone)) << gone;
    EXPECT_EQ(task.isMember("other"), hadOther);
  }
}

TEST(Handler, ScheduleKeysAreRenamedBothWays) {
  tstest::TempRoot root;
  Direct<TaskSchedulerBasicHandler> d;
  Json::Value schedule = Parse(R"({"week_name": "0,6", "repeat": "weekly", "min": 5, "hour": 2,
                                   "next_trigger_time": "N/A", "repeat_min": 0, "date": "2030-01-01"})");
  ASSERT_TRUE(d.handler.ReConstructJsonGet_Schedule(schedule));
  Json::Value ui = Parse(R"({"week_day": "0,6", "repeat_date": "weekly", "minute": 5, "hour": 2, "repeat_min": 0,
                             "date": "2030-01-01"})");
  EXPECT_EQ(schedule, ui);
  ASSERT_TRUE(d.handler.ReConstructJsonSet_Schedule(schedule));
  EXPECT_EQ(schedule, Parse(R"({"week_name": "0,6", "repeat": "weekly", "min": 5, "hour": 2, "repeat_min": 0,
                                "date": "2030-01-01"})"));
}

TEST(SetTask, EnableAndNameRoundTrip) {
  tstest::TempRoot root;
  long id = Create("script", Parse(R"({"script": "echo hi"})"));
  ASSERT_GT(id, 0);
  tstest::Reply got = Call(2, "get", Parse(IdParams(id)));
  ASSERT_TRUE(got.success);
  Json::Value params = got.data;
  params["enable"] = false;
  params["name"] = "second";
  params["extra"]["script"] = "echo bye";
  tstest::Reply set = Call(2, "set", params);
  ASSERT_TRUE(set.success) << set.envelope.toStyledString();
  EXPECT_EQ(set.data, Parse(IdParams(id)));
  got = Call(2, "get", Parse(IdParams(id)));
  EXPECT_EQ(got.data["enable"], false);
  EXPECT_EQ(got.data["name"], "second");
  EXPECT_EQ(got.data["extra"], Parse(R"({"script": "echo bye"})"));
  EXPECT_STREQ(Record(id).command, "echo bye");
}

TEST(SetTask, PlatformRefusalsAnswer117AndStoreNothing) {
  tstest::TempRoot root;
  long id = Create("beep", Parse(R"({"beep_duration": 4})"));
  ASSERT_GT(id, 0);
  const struct {
    const char* name;
    const char* changes;  // merged into a valid set request
    const char* msg;
    const char* log;
  } cases[] = {
      {"empty name", R"({"name": ""})", "Invalid (basic) object", "Convert task from json (basic) failed. [0x"},
      {"unknown owner", R"({"owner": "orvat-nobody"})", "Invalid (basic) object",
       "Convert task from json (basic) failed. [0x"},
      {"bad hour", R"({"schedule": {"hour": 24}})", "Invalid (schedule) object",
       "Convert task from json (schedule) failed. [0x"},
      {"schedule not an object", R"({"schedule": "daily"})", "Invalid (schedule) object",
       "Convert task from json (schedule) failed. [0x"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    tstest::ClearLogs();
    Json::Value params = TaskObject("beep", Parse(R"({"beep_duration": 9})"));
    params["id"] = static_cast<Json::Int64>(id);
    Json::Value changes = Parse(c.changes);
    for (const std::string& key : changes.getMemberNames()) params[key] = changes[key];
    tstest::Reply set = Call(2, "set", params);
    EXPECT_FALSE(set.success);
    EXPECT_EQ(set.code, 117);
    EXPECT_EQ(set.data["msg"], c.msg);
    auto lines = tstest::LogsWith("ORVA.Core.TaskScheduler.Basic:");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].text.find(c.log), std::string::npos) << lines[0].text;
    EXPECT_STREQ(Record(id).command, "/usr/orva/bin/orvaschedtool --beep 4");
  }
}

TEST(CreateTask, IdInTheRequestIsKept) {
  tstest::TempRoot root;
  Json::Value params = TaskObject("script", Parse(R"({"script": "echo 77"})"));
  params["id"] = 77;
  tstest::Reply created = Call(2, "create", params);
  ASSERT_TRUE(created.success) << created.envelope.toStyledString();
  EXPECT_EQ(created.data, Parse(R"({"id": 77})"));
  EXPECT_STREQ(Record(77).command, "echo 77");

  long fresh = Create("script", Parse(R"({"script": "x"})"));
  EXPECT_GT(fresh, 0);
  EXPECT_NE(fresh, 77);
}

TEST(CreateTask, EveryCreatableKindIsListedWithItsAction) {
  tstest::TempRoot root;
  const struct {
    const char* type;
    const char* extra;
    const char* app;
  } cases[] = {
      {"beep", R"({"beep_duration": 2})", "ORVA.VEK.TaskScheduler.Beep"},
      {"script", R"({"script": "true"})", "ORVA.VEK.TaskScheduler.Script"},
      {"recycle", "{}", "ORVA.VEK.TaskScheduler.Recycle"},
      {"service", R"({"action": "start"})", "ORVA.VEK.TaskScheduler.Service"},
  };
  for (int version : {1, 2, 3}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.type) + " v" + std::to_string(version));
      long id = Create(c.type, Parse(c.extra), version);
      ASSERT_GT(id, 0);
      EXPECT_STREQ(Record(id).app, c.app);
      tstest::Reply got = Call(version, "get", Parse(IdParams(id)));
      ASSERT_TRUE(got.success) << got.envelope.toStyledString();
      EXPECT_EQ(got.data["type"], c.type);
    }
  }
}

// Version 3 acts on behalf of "real_owner".
TEST(OnBehalfOfAUser, CreateGetSetAsTheUser) {
  tstest::TempRoot root;
  tstest::TestUser user;
  tstest::TestUser other;
  ASSERT_TRUE(user.Ok() && other.Ok());

  Json::Value params = TaskObject("script", Parse(R"({"script": "id -un"})"));
  params["owner"] = user.Name();
  params["real_owner"] = user.Name();
  tstest::Reply created = Call(3, "create", params);
  ASSERT_TRUE(created.success) << created.envelope.toStyledString();
  long id = created.data["id"].asInt64();
  _tag_orva_sched_task_ r = Record(id);
  EXPECT_EQ(r.marker, ORVA_SCHED_MARKER_BY_USER);
  EXPECT_EQ(r.real_owner, user.Uid());
  EXPECT_EQ(r.owner, user.Uid());

  Json::Value get = Parse(IdParams(id));
  get["real_owner"] = user.Name();
  tstest::Reply got = Call(3, "get", get);
  ASSERT_TRUE(got.success) << got.envelope.toStyledString();
  EXPECT_EQ(got.data["real_owner"], user.Name());
  EXPECT_EQ(got.data["owner"], user.Name());

  // Empty "real_owner" acts as the system: the answer has no "real_owner".
  get["real_owner"] = "";
  got = Call(3, "get", get);
  ASSERT_TRUE(got.success);
  EXPECT_FALSE(got.data.isMember("real_owner"));

  // Another user can neither read nor change the task.
  get["real_owner"] = other.Name();
  EXPECT_EQ(Call(3, "get", get).code, 4801);
  Json::Value set = got.data;
  set["name"] = "by other";
  set["real_owner"] = other.Name();
  EXPECT_EQ(Call(3, "set", set).code, 4801);
  EXPECT_STREQ(Record(id).name, "t1");

  // The owner changes it.
  set["real_owner"] = user.Name();
  set["name"] = "by owner";
  tstest::Reply changed = Call(3, "set", set);
  ASSERT_TRUE(changed.success) << changed.envelope.toStyledString();
  EXPECT_STREQ(Record(id).name, "by owner");
  EXPECT_EQ(Record(id).real_owner, user.Uid());
}

TEST(OnBehalfOfAUser, TaskMustRunAsThatUser) {
  tstest::TempRoot root;
  tstest::TestUser user;
  ASSERT_TRUE(user.Ok());
  Json::Value params = TaskObject("beep", Parse(R"({"beep_duration": 1})"));  // owner root
  params["real_owner"] = user.Name();
  tstest::Reply created = Call(3, "create", params);
  EXPECT_FALSE(created.success);
  EXPECT_EQ(created.code, 117);
  EXPECT_EQ(created.data["msg"], "Invalid (basic) object");
  auto lines = tstest::LogsWith("Convert task from json (basic) failed. [" + user.Name() + "][0x");
  EXPECT_EQ(lines.size(), 1u);
  ORVA_SCHED_TASK* list = nullptr;
  EXPECT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), 0);
  ORVASchedTaskListFree(list);
}

}  // namespace
