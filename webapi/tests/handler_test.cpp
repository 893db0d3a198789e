// "get", "set" and "create": the task object every kind shares, the schedule's key names,
// version differences, parameter checks, handler choice, acting on behalf of a user, and
// the beep and script kinds' command lines, action texts and stored arguments.
#include "ORVA.Core.TaskScheduler.Beep.h"
#include "test_support.h"

namespace {

using tstest::Call;
using tstest::Create;
using tstest::IdParams;
using tstest::Parse;
using tstest::Record;
using tstest::TaskObject;

TEST(ModuleHandler, GetAnswersTheTaskObjectAndSetChangesIt) {
  tstest::TempRoot root;
  root.WriteTexts("en", R"({"volume": {"beep_on": "Beep for"}, "common": {"time_seconds": "seconds"}})");
  Json::Value params = TaskObject("beep", Parse(R"({"beep_duration": 10})"), "buzz");
  params["schedule"] = Parse(R"({"repeat_date": "weekly", "week_day": "1,3", "hour": 7, "minute": 45})");
  tstest::Reply created = Call(2, "create", params);
  ASSERT_TRUE(created.success) << created.envelope;
  const long id = created.data["id"].asInt64();

  tstest::Reply got = Call(2, "get", IdParams(id));
  ASSERT_TRUE(got.success) << got.envelope;
  Json::Value t = got.data;
  EXPECT_EQ(t["schedule"]["week_day"], "1,3");
  EXPECT_EQ(t["schedule"]["minute"], 45);
  for (const char* gone : {"repeat", "week_name", "min", "next_trigger_time"}) {
    EXPECT_FALSE(t["schedule"].isMember(gone)) << gone;
  }
  t.removeMember("schedule");
  Json::Value want = Parse(R"({"name": "buzz", "owner": "root", "enable": true, "type": "beep",
      "action": "Beep for 10 seconds", "can_edit_name": true, "can_edit_owner": false,
      "extra": {"beep_duration": 10}})");
  want["id"] = static_cast<Json::Int64>(id);
  EXPECT_EQ(t, want);

  // What get answered, changed, goes back through set.
  t = got.data;
  t["enable"] = false;
  t["name"] = "second";
  t["extra"]["beep_duration"] = 20;
  tstest::Reply set = Call(2, "set", t);
  ASSERT_TRUE(set.success) << set.envelope;
  EXPECT_EQ(set.data, Parse(IdParams(id)));
  got = Call(2, "get", IdParams(id));
  EXPECT_EQ(got.data["enable"], false);
  EXPECT_EQ(got.data["name"], "second");
  EXPECT_EQ(got.data["action"], "Beep for 20 seconds");
  EXPECT_EQ(got.data["schedule"]["repeat_date"], "weekly");
  EXPECT_STREQ(Record(id).command, "/usr/orva/bin/orvaschedtool --beep 20");
}

TEST(ModuleHandler, VersionOneNeitherShowsNorSetsMinuteAndHourRepetition) {
  tstest::TempRoot root;
  const _tag_orva_sched_task_ fresh = tstest::FreshRecord();
  for (int version : {1, 2, 3}) {
    SCOPED_TRACE(version);
    Json::Value params = TaskObject("script", Parse(R"({"script": "true"})"));
    params["schedule"]["repeat_min"] = 15;
    params["schedule"]["repeat_min_store_config"] = Parse("[5, 15]");
    params["schedule"]["repeat_hour_store_config"] = Parse("[2]");
    tstest::Reply created = Call(version, "create", params);
    ASSERT_TRUE(created.success) << created.envelope;
    const long id = created.data["id"].asInt64();
    const bool v1 = version == 1;
    EXPECT_EQ(Record(id).schedule.repeat_min, v1 ? 0 : 15);
    EXPECT_EQ(Record(id).schedule.n_repeat_min_cfg, v1 ? fresh.schedule.n_repeat_min_cfg : 2);
    EXPECT_EQ(Record(id).schedule.n_repeat_hour_cfg, v1 ? fresh.schedule.n_repeat_hour_cfg : 1);
    tstest::Reply got = Call(version, "get", IdParams(id));
    ASSERT_TRUE(got.success);
    for (const char* key : {"repeat_min", "repeat_min_store_config", "repeat_hour_store_config"}) {
      EXPECT_EQ(got.data["schedule"].isMember(key), !v1) << key;
    }
    EXPECT_TRUE(got.data["schedule"].isMember("repeat_hour"));
    // The same through "set" on the existing task.
    params.removeMember("type");
    params["id"] = static_cast<Json::Int64>(id);
    params["schedule"]["repeat_min"] = 30;
    ASSERT_TRUE(Call(version, "set", params).success);
    EXPECT_EQ(Record(id).schedule.repeat_min, v1 ? 0 : 30);
  }
}

// A "type" in the request chooses the handler and is echoed; other apps' tasks are read
// and saved in their common part only.
TEST(ModuleHandler, TypeParameterAndOtherAppsUseTheBasicHandler) {
  tstest::TempRoot root;
  const long beep = Create("beep", Parse(R"({"beep_duration": 10})"));
  for (const char* type : {"report", "custom", "backup", "power", "zemupdate", "beep"}) {
    SCOPED_TRACE(type);
    Json::Value params = Parse(IdParams(beep));
    params["type"] = type;
    tstest::Reply got = Call(2, "get", params);
    ASSERT_TRUE(got.success) << got.envelope;
    EXPECT_EQ(got.data["type"], type);
    EXPECT_EQ(got.data["extra"], std::string(type) == "beep" ? Parse(R"({"beep_duration": 10})") : Json::Value());
    EXPECT_EQ(got.data["name"], "t1");
  }
  const std::pair<const char*, const char*> apps[] = {
      {"ORVA.VEK.DataAnalysis", "report"},
      {"ORVA.VEK.BackupApp.S3Backup", "backup"},
      {"ORVA.VEK.TaskScheduler.AutoPower", "power"},
      {"ORVA.VEK.TaskScheduler.ZEMAutoUpdate", "zemupdate"},
      {"com.example.Thing", "custom"},
  };
  for (const auto& [app, key] : apps) {
    SCOPED_TRACE(app);
    const long id = tstest::AddTask({.app = app, .command = "/bin/echo keep", .appArgs = "{\"own\": 1}"});
    tstest::Reply got = Call(2, "get", IdParams(id));
    ASSERT_TRUE(got.success);
    EXPECT_EQ(got.data["type"], key);
    EXPECT_TRUE(got.data["extra"].isNull());
    EXPECT_EQ(got.data["can_edit_owner"], false);
    Json::Value params = got.data;
    params["name"] = "renamed";
    params["enable"] = false;
    tstest::Reply set = Call(2, "set", params);
    ASSERT_TRUE(set.success) << set.envelope;
    EXPECT_EQ(set.data, Parse(IdParams(id)));
    const _tag_orva_sched_task_ r = Record(id);
    EXPECT_STREQ(r.name, "renamed");
    EXPECT_EQ(r.enabled, 0);
  }
}

TEST(ModuleHandler, EntryParameterAndTypeErrors) {
  tstest::TempRoot root;
  const std::string ofEvent = IdParams(tstest::AddTask({.app = "ORVA.VEK.EventScheduler.Script"}));
  const struct {
    int version;
    const char* method;
    std::string params;
    int code;
    const char* log;  // the line logged, or null
  } cases[] = {
      {2, "get", "{}", 4800, nullptr},
      {1, "get", R"({"id": "1"})", 4800, nullptr},
      {2, "get", R"({"id": 1, "type": 5})", 4800, nullptr},
      {2, "get", R"({"id": 999})", 4801, nullptr},
      {3, "get", R"({"id": 999, "real_owner": ""})", 4801, nullptr},
      {2, "get", R"({"id": 1, "type": "Beep"})", 4800, "Unknown app type: Beep"},
      {2, "get", R"({"id": 1, "type": "event_script"})", 4800, "Unknown app type: event_script"},
      {2, "get", ofEvent, 4800, "Unknown app type: event_script"},
      {2, "set", ofEvent, 4800, "Unknown app type: event_script"},
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
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " v" + std::to_string(c.version) + " " + c.params);
    tstest::ClearLogs();
    tstest::Reply reply = Call(c.version, c.method, c.params);
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
  EXPECT_EQ(tstest::StoredCount(), 1);  // none of them created anything
}

TEST(ModuleHandler, DirectCallsOfTheBasicHandler) {
  tstest::TempRoot root;
  const struct {
    const char* params;
    int version;
    const char* method;
    const char* data;  // of the error reply
    int code;
    const char* log;   // null: nothing logged
  } cases[] = {
      // Without an id, get is refused before the store.
      {"{}", 2, "get", R"({"msg": "id is invalid"})", 4800, nullptr},
      {R"({"id": "5"})", 2, "get", R"({"msg": "id is invalid"})", 4800, nullptr},
      {R"({"id": null})", 1, "get", R"({"msg": "id is invalid"})", 4800, nullptr},
      {R"({"id": 4242})", 1, "get", "null", 0, "ORVA.Core.TaskScheduler.Basic:"},
      {R"({"id": 1})", 2, "Get", "null", 0, nullptr},  // not a method of this handler
      {R"({"id": 1})", 2, "create", "null", 0, nullptr},
      {R"({"id": 1})", 2, "", "null", 0, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + c.params);
    tstest::ClearLogs();
    tstest::Direct<TaskSchedulerBasicHandler> d(Parse(c.params), c.version, "get");
    d.handler.Process(c.method, c.version);
    EXPECT_EQ(d.response.GetReplyCount(), 1);
    EXPECT_FALSE(d.response.IsSuccess());
    EXPECT_EQ(d.response.GetEnvelope()["error"]["code"], c.code);
    EXPECT_EQ(d.response.GetData(), Parse(c.data));
    if (!c.log) {
      EXPECT_EQ(tstest::LogCount(), 0u);
      continue;
    }
    auto lines = tstest::LogsWith(c.log);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].text.find(" Load Task failed [-][4242]"), std::string::npos) << lines[0].text;
  }
  // Set without an id creates a new task.
  tstest::Direct<TaskSchedulerBeepHandler> d(TaskObject("beep", Parse(R"({"beep_duration": 5})")), 2, "set");
  d.handler.Process_v2("set");
  ASSERT_TRUE(d.response.IsSuccess()) << d.response.GetEnvelope();
  EXPECT_STREQ(Record(d.response.GetData()["id"].asInt64()).command, "/usr/orva/bin/orvaschedtool --beep 5");
}

TEST(ModuleHandler, BasicAndScheduleObjectsAreReshapedBothWays) {
  tstest::TempRoot root;
  tstest::Direct<TaskSchedulerBasicHandler> d;
  for (const auto& [enabled, enable] : {std::pair<const char*, bool>{"\"on\"", true}, {"\"ON\"", true},
                                        {"\"On\"", true}, {"\"off\"", false}, {"\"yes\"", false}, {"null", false}}) {
    SCOPED_TRACE(enabled);
    Json::Value task = Parse(std::string(R"({"basic": {"id": 7, "task_name": "n", "owner": "u", "action": "plain",
        "app": "ORVA.VEK.TaskScheduler.Service", "can_edit_name": false, "enabled": )") + enabled +
                             "}, \"schedule\": {}}");
    ASSERT_TRUE(d.handler.ReConstructJsonGet_Basic(task));
    Json::Value want = Parse(R"({"id": 7, "name": "n", "owner": "u", "action": "plain", "type": "service",
                                 "can_edit_name": false, "can_edit_owner": false, "schedule": {}})");
    want["enable"] = enable;
    EXPECT_EQ(task, want);
  }
  const std::pair<const char*, const char*> sets[] = {
      {R"({"id": 5, "name": "n", "owner": "o", "enable": true})",
       R"({"id": "5", "task_name": "n", "owner": "o", "enabled": "on"})"},
      {R"({"name": "n", "owner": "o", "enable": false})",
       R"({"id": "-1", "task_name": "n", "owner": "o", "enabled": "off"})"},
      {R"({"id": "12", "enable": "true"})", R"({"id": "12", "task_name": null, "owner": null, "enabled": "off"})"},
      {R"({"enable": 1, "other": 2})", R"({"id": "-1", "task_name": null, "owner": null, "enabled": "off"})"},
  };
  for (const auto& [in, basic] : sets) {
    SCOPED_TRACE(in);
    Json::Value task = Parse(in);
    const bool hadOther = task.isMember("other");
    ASSERT_TRUE(d.handler.ReConstructJsonSet_Basic(task));
    EXPECT_EQ(task["basic"], Parse(basic));
    for (const char* gone : {"id", "name", "owner", "enable"}) EXPECT_FALSE(task.isMember(gone)) << gone;
    EXPECT_EQ(task.isMember("other"), hadOther);
  }
  const Json::Value stored = Parse(R"({"week_name": "0,6", "repeat": "weekly", "min": 5, "hour": 2, "repeat_min": 0,
                                       "date": "2030-01-01"})");
  Json::Value schedule = stored;
  schedule["next_trigger_time"] = "N/A";
  ASSERT_TRUE(d.handler.ReConstructJsonGet_Schedule(schedule));
  EXPECT_EQ(schedule, Parse(R"({"week_day": "0,6", "repeat_date": "weekly", "minute": 5, "hour": 2, "repeat_min": 0,
                                "date": "2030-01-01"})"));
  ASSERT_TRUE(d.handler.ReConstructJsonSet_Schedule(schedule));
  EXPECT_EQ(schedule, stored);
}

TEST(ModuleHandler, PlatformRefusalsAnswer117AndStoreNothing) {
  tstest::TempRoot root;
  const long id = Create("beep", Parse(R"({"beep_duration": 4})"));
  const char* basic = "Convert task from json (basic) failed. [0x";
  const char* schedule = "Convert task from json (schedule) failed. [0x";
  const struct {
    const char* changes;  // merged into a valid set request
    const char* msg;
    const char* log;
  } cases[] = {
      {R"({"name": ""})", "Invalid (basic) object", basic},
      {R"({"owner": "orvat-nobody"})", "Invalid (basic) object", basic},
      {R"({"schedule": {"hour": 24}})", "Invalid (schedule) object", schedule},
      {R"({"schedule": "daily"})", "Invalid (schedule) object", schedule},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.changes);
    tstest::ClearLogs();
    Json::Value params = TaskObject("beep", Parse(R"({"beep_duration": 9})"));
    params["id"] = static_cast<Json::Int64>(id);
    const Json::Value changes = Parse(c.changes);
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

TEST(ModuleHandler, CreateKeepsAGivenIdAndMakesEveryKindInEveryVersion) {
  tstest::TempRoot root;
  Json::Value params = TaskObject("script", Parse(R"({"script": "echo 77"})"));
  params["id"] = 77;
  tstest::Reply created = Call(2, "create", params);
  ASSERT_TRUE(created.success) << created.envelope;
  EXPECT_EQ(created.data, Parse(R"({"id": 77})"));
  EXPECT_STREQ(Record(77).command, "echo 77");
  // An id out of range would use up the id sequence: refused, and later creates still work.
  for (const char* id : {"9223372036854775807", "1000000000", "-2", "18446744073709551615", "1.5", "[1]", "\"x\""}) {
    SCOPED_TRACE(id);
    params["id"] = Parse(id);
    EXPECT_EQ(Call(2, "create", params).code, 4800);
  }
  EXPECT_EQ(tstest::StoredCount(), 1);
  params["id"] = 999999999;
  EXPECT_TRUE(Call(2, "create", params).success);
  EXPECT_EQ(tstest::LogsWith("Invalid task id, json id=").size(), 7u);

  const struct {
    const char* type;
    const char* extra;
    const char* app;
  } kinds[] = {
      {"beep", R"({"beep_duration": 2})", "ORVA.VEK.TaskScheduler.Beep"},
      {"script", R"({"script": "true"})", "ORVA.VEK.TaskScheduler.Script"},
      {"recycle", "{}", "ORVA.VEK.TaskScheduler.Recycle"},
      {"service", R"({"action": "start"})", "ORVA.VEK.TaskScheduler.Service"},
  };
  for (int version : {1, 2, 3}) {
    for (const auto& c : kinds) {
      SCOPED_TRACE(std::string(c.type) + " v" + std::to_string(version));
      const long id = Create(c.type, Parse(c.extra), version);
      ASSERT_GT(id, 0);
      EXPECT_NE(id, 77);
      EXPECT_STREQ(Record(id).app, c.app);
      tstest::Reply got = Call(version, "get", IdParams(id));
      ASSERT_TRUE(got.success) << got.envelope;
      EXPECT_EQ(got.data["type"], c.type);
      EXPECT_EQ(got.data["can_edit_owner"], std::string(c.type) == "script");
    }
  }
}

// Version 3 acts on behalf of "real_owner".
TEST(ModuleHandler, OnBehalfOfAUser) {
  tstest::TempRoot root;
  tstest::TestUser user;
  tstest::TestUser other;
  ASSERT_TRUE(user.Ok() && other.Ok());
  // The task must run as that user: owner root is refused and nothing is stored.
  Json::Value params = TaskObject("script", Parse(R"({"script": "id -un"})"));
  params["real_owner"] = user.Name();
  tstest::Reply created = Call(3, "create", params);
  EXPECT_EQ(created.code, 117);
  EXPECT_EQ(created.data, Parse(R"({"msg": "Invalid (basic) object"})"));
  tstest::ExpectOneLog("Convert task from json (basic) failed. [" + user.Name() + "][0x");
  EXPECT_EQ(tstest::StoredCount(), 0);

  params["owner"] = user.Name();
  created = Call(3, "create", params);
  ASSERT_TRUE(created.success) << created.envelope;
  const long id = created.data["id"].asInt64();
  _tag_orva_sched_task_ r = Record(id);
  EXPECT_EQ(r.marker, ORVA_SCHED_MARKER_BY_USER);
  EXPECT_EQ(r.real_owner, user.Uid());
  EXPECT_EQ(r.owner, user.Uid());

  Json::Value get = Parse(IdParams(id));
  get["real_owner"] = user.Name();
  tstest::Reply got = Call(3, "get", get);
  ASSERT_TRUE(got.success) << got.envelope;
  EXPECT_EQ(got.data["real_owner"], user.Name());
  EXPECT_EQ(got.data["owner"], user.Name());
  // Empty "real_owner" acts as the system: the answer has no "real_owner".
  get["real_owner"] = "";
  got = Call(3, "get", get);
  ASSERT_TRUE(got.success);
  EXPECT_FALSE(got.data.isMember("real_owner"));

  // Another user can neither read nor change the task; the owner can.
  get["real_owner"] = other.Name();
  EXPECT_EQ(Call(3, "get", get).code, 4801);
  Json::Value set = got.data;
  set["name"] = "by other";
  set["real_owner"] = other.Name();
  EXPECT_EQ(Call(3, "set", set).code, 4801);
  EXPECT_STREQ(Record(id).name, "t1");
  set["real_owner"] = user.Name();
  set["name"] = "by owner";
  ASSERT_TRUE(Call(3, "set", set).success);
  EXPECT_STREQ(Record(id).name, "by owner");
  EXPECT_EQ(Record(id).real_owner, user.Uid());
  // The system changing the task (version 2) leaves it the user's.
  set.removeMember("real_owner");
  set["name"] = "by the system";
  ASSERT_TRUE(Call(2, "set", set).success);
  r = Record(id);
  EXPECT_STREQ(r.name, "by the system");
  EXPECT_EQ(r.marker, ORVA_SCHED_MARKER_BY_USER);
  EXPECT_EQ(r.real_owner, user.Uid());
  set["real_owner"] = user.Name();
  EXPECT_TRUE(Call(3, "get", set).success);
}

TEST(ModuleBeepScript, BeepDurationIsClampedInCommandAndActionButStoredAsSent) {
  tstest::TempRoot root;
  const std::pair<const char*, const char*> cases[] = {
      {"0", "1"},       {"-5", "1"},      {"1", "1"},        {"60", "60"},          {"600", "600"},
      {"601", "600"},   {"100000", "600"}, {"900", "600"},   {"\"60\"", "60"},      {"\"0\"", "1"},
      {"-2147483649", "1"}, {"99999999999", "600"}, {nullptr, "1"},  // missing: 0, so one second
  };
  Json::FastWriter writer;
  for (const auto& [duration, seconds] : cases) {
    SCOPED_TRACE(duration ? duration : "missing");
    Json::Value extra(Json::objectValue);
    if (duration) extra["beep_duration"] = Parse(duration);
    const long id = Create("beep", extra);
    ASSERT_GT(id, 0);
    const _tag_orva_sched_task_ r = Record(id);
    EXPECT_EQ(std::string(r.command), std::string("/usr/orva/bin/orvaschedtool --beep ") + seconds);
    EXPECT_EQ(std::string(r.action), std::string("#volume:beep_on# ") + seconds + " #common:time_seconds#");
    EXPECT_EQ(std::string(r.app_args), writer.write(extra));
    tstest::Reply got = Call(2, "get", IdParams(id));
    ASSERT_TRUE(got.success);
    EXPECT_EQ(writer.write(got.data["extra"]), writer.write(extra));
  }
}

TEST(ModuleBeepScript, ScriptCommandIsTheScriptByteForByte) {
  tstest::TempRoot root;
  for (const std::string script : {"echo a; echo b", "", "#!/bin/sh\nset -e\necho \"$HOME\" 'x y' `date`\n\tcd /tmp\n",
                                   "echo 'Grüße #common:run# 100%' > /tmp/x", "printf '%s\\n' a\\\\b"}) {
    SCOPED_TRACE(script);
    Json::Value extra;
    extra["script"] = script;
    extra["note"] = "kept";  // any other key survives the round trip
    const long id = Create("script", extra);
    ASSERT_GT(id, 0);
    EXPECT_EQ(std::string(Record(id).command), script);
    EXPECT_EQ(std::string(Record(id).action), "#common:run#: " + script);
    tstest::Reply got = Call(1, "get", IdParams(id));
    ASSERT_TRUE(got.success);
    EXPECT_EQ(got.data["extra"], extra);
  }
  // Stored arguments that are not JSON still get without an error.
  tstest::Reply got = Call(2, "get", IdParams(tstest::AddTask({.appArgs = "{not json"})));
  EXPECT_TRUE(got.success) << got.envelope;
  EXPECT_EQ(got.data["type"], "script");
}

TEST(ModuleBeepScript, FixedValuesOfTheRecord) {
  tstest::TempRoot root;
  const _tag_orva_sched_task_ fresh = tstest::FreshRecord();
  const _tag_orva_sched_task_ beep = Record(Create("beep", Parse(R"({"beep_duration": 10})")));
  EXPECT_STREQ(beep.edit_form, "ORVA.VEK.TaskScheduler.Beep.FormPanel");
  EXPECT_STREQ(beep.app_name, "#beep:beep_title#");
  EXPECT_EQ(beep.can_edit_owner, 0);
  EXPECT_EQ(beep.can_run_task_same_time, fresh.can_run_task_same_time);  // never set by this kind
  const _tag_orva_sched_task_ script = Record(Create("script", Parse(R"({"script": "true"})")));
  EXPECT_STREQ(script.edit_form, "ORVA.VEK.TaskScheduler.Script.FormPanel");
  EXPECT_STREQ(script.app_name, "#common:command_line#");
  EXPECT_EQ(script.can_edit_owner, 1);
  EXPECT_EQ(script.can_run_task_same_time, 0);
  EXPECT_STREQ(script.app_args, "{\"script\":\"true\"}\n");
  for (const _tag_orva_sched_task_* r : {&beep, &script}) {
    EXPECT_EQ(r->simple_edit_form, 1);
    EXPECT_EQ(r->can_edit_name, 1);
    EXPECT_EQ(r->can_run_app_same_time, 1);
    EXPECT_EQ(r->listable, 1);
  }
}

// Values that are no duration or script, or an "extra" that is no object: 4800, nothing stored.
TEST(ModuleBeepScript, UnconvertibleValuesFailTheRequestAndStoreNothing) {
  tstest::TempRoot root;
  const std::pair<const char*, const char*> cases[] = {
      {"beep", R"({"beep_duration": "x"})"}, {"script", R"({"script": 5})"},      {"script", R"({"script": null})"},
      {"script", R"({"script": ["ls"]})"},   {"script", R"({"script": {"a": 1}})"}, {"script", R"({"script": true})"},
      {"beep", R"({"beep_duration": "5s"})"}, {"beep", R"({"beep_duration": 1e300})"},
      {"beep", R"({"beep_duration": 18446744073709551615})"}, {"beep", R"({"beep_duration": [5]})"},
      {"script", R"("x")"}, {"beep", "[1]"},
  };
  for (const auto& [type, extra] : cases) {
    SCOPED_TRACE(extra);
    Json::Value reply = tstest::ServerCall(2, "create", TaskObject(type, Parse(extra)));
    EXPECT_FALSE(reply["success"].asBool());
    EXPECT_EQ(reply["error"]["code"], 4800);
  }
  EXPECT_EQ(tstest::StoredCount(), 0);
}

// A record that was never saved reads back with each kind's defaults (a recycle create with
// an empty form, above and end to end, already stands on the recycle kind's).
TEST(ModuleBeepScript, NewTaskDefaults) {
  tstest::TempRoot root;
  const std::pair<const char*, const char*> cases[] = {
      {"beep", R"({"beep_duration": "60"})"},
      {"script", R"({"script": ""})"},
  };
  for (const auto& [type, extra] : cases) {
    SCOPED_TRACE(type);
    tstest::Reply got = Call(2, "get", std::string(R"({"id": -1, "type": ")") + type + "\"}");
    ASSERT_TRUE(got.success) << got.envelope;
    EXPECT_EQ(got.data["extra"], Parse(extra));
  }
}

}  // namespace
