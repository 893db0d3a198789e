// Beep and script tasks: command lines, action texts, fixed flags and stored arguments,
// through "create" and "get" with the real store.
#include <gtest/gtest.h>

#include <string>

#include "ORVA.Core.TaskScheduler.Beep.h"
#include "ORVA.Core.TaskScheduler.Script.h"
#include "app_test_util.h"
#include "test_support.h"

namespace {

using apptest::Create;
using apptest::Parse;
using apptest::Record;
using tstest::Call;

struct BeepCase {
  const char* duration;  // JSON of "beep_duration"
  const char* seconds;   // what command and action show
};

TEST(BeepTask, DurationIsClampedInCommandAndActionButStoredAsSent) {
  tstest::TempRoot root;
  const BeepCase cases[] = {
      {"0", "1"},      {"-5", "1"},       {"1", "1"},       {"60", "60"},   {"600", "600"},
      {"601", "600"},  {"100000", "600"}, {"900", "600"},   {"\"60\"", "60"}, {"\"0\"", "1"},
      {"-2147483649", "1"}, {"99999999999", "600"},
  };
  for (const BeepCase& c : cases) {
    SCOPED_TRACE(c.duration);
    Json::Value extra;
    extra["beep_duration"] = Parse(c.duration);
    long id = Create("beep", extra);
    ASSERT_GT(id, 0);
    _tag_orva_sched_task_ record = Record(id);
    EXPECT_EQ(std::string(ORVASchedTaskGetCommand(record)),
              std::string("/usr/orva/bin/orvaschedtool --beep ") + c.seconds);
    EXPECT_EQ(std::string(ORVASchedTaskGetAction(record)),
              std::string("#volume:beep_on# ") + c.seconds + " #common:time_seconds#");
    // The stored arguments keep the value as the client sent it.
    Json::FastWriter writer;
    EXPECT_EQ(std::string(ORVASchedTaskGetAppArgs(record)), writer.write(extra));

    tstest::Reply got = Call(2, "get", Parse("{\"id\": " + std::to_string(id) + "}"));
    ASSERT_TRUE(got.success);
    EXPECT_EQ(writer.write(got.data["extra"]), writer.write(extra));
    EXPECT_EQ(got.data["type"], "beep");
    EXPECT_EQ(got.data["can_edit_owner"], false);
  }
}

TEST(BeepTask, MissingDurationBeepsOneSecondAndTextIsAnError) {
  tstest::TempRoot root;
  long id = Create("beep", Json::Value(Json::objectValue));
  ASSERT_GT(id, 0);
  EXPECT_STREQ(ORVASchedTaskGetCommand(Record(id)), "/usr/orva/bin/orvaschedtool --beep 1");

  // Not a number at all: the JSON library's conversion fails and the server answers 100.
  Json::Value reply = apptest::ServerCall(2, "create", apptest::TaskObject("beep", Parse("{\"beep_duration\": \"x\"}")));
  EXPECT_FALSE(reply["success"].asBool());
  EXPECT_EQ(reply["error"]["code"], 100);
}

TEST(BeepTask, FixedValuesOfTheRecord) {
  tstest::TempRoot root;
  long id = Create("beep", Parse("{\"beep_duration\": 10}"));
  ASSERT_GT(id, 0);
  _tag_orva_sched_task_ r = Record(id);
  EXPECT_STREQ(r.edit_form, "ORVA.VEK.TaskScheduler.Beep.FormPanel");
  EXPECT_EQ(r.simple_edit_form, 1);
  EXPECT_EQ(r.can_edit_name, 1);
  EXPECT_EQ(r.can_edit_owner, 0);
  EXPECT_EQ(r.can_run_app_same_time, 1);
  EXPECT_EQ(r.listable, 1);
  EXPECT_STREQ(r.app, "ORVA.VEK.TaskScheduler.Beep");
  EXPECT_STREQ(r.app_name, "#beep:beep_title#");
  // Never set by this kind: the fresh record's default stays.
  EXPECT_EQ(r.can_run_task_same_time, apptest::FreshRecord().can_run_task_same_time);
}

struct ScriptCase {
  const char* name;
  std::string script;
};

TEST(ScriptTask, CommandIsTheScriptByteForByte) {
  tstest::TempRoot root;
  const ScriptCase cases[] = {
      {"two commands", "echo a; echo b"},
      {"empty", ""},
      {"lines and quotes", "#!/bin/sh\nset -e\necho \"$HOME\" 'x y' `date`\n\tcd /tmp && ls | wc -l\n"},
      {"unicode and hashes", "echo 'Grüße #common:run# 100%' > /tmp/x"},
      {"backslashes", "printf '%s\\n' a\\\\b"},
  };
  for (const ScriptCase& c : cases) {
    SCOPED_TRACE(c.name);
    Json::Value extra;
    extra["script"] = c.script;
    extra["note"] = "kept";  // any other key survives the round trip
    long id = Create("script", extra);
    ASSERT_GT(id, 0);
    _tag_orva_sched_task_ record = Record(id);
    EXPECT_EQ(std::string(ORVASchedTaskGetCommand(record)), c.script);
    EXPECT_EQ(std::string(ORVASchedTaskGetAction(record)), "#common:run#: " + c.script);
    tstest::Reply got = Call(1, "get", Parse("{\"id\": " + std::to_string(id) + "}"));
    ASSERT_TRUE(got.success);
    EXPECT_EQ(got.data["extra"], extra);
    EXPECT_EQ(got.data["type"], "script");
    EXPECT_EQ(got.data["can_edit_owner"], true);
  }
}

TEST(ScriptTask, FixedValuesOfTheRecord) {
  tstest::TempRoot root;
  long id = Create("script", Parse("{\"script\": \"true\"}"));
  ASSERT_GT(id, 0);
  _tag_orva_sched_task_ r = Record(id);
  EXPECT_STREQ(r.edit_form, "ORVA.VEK.TaskScheduler.Script.FormPanel");
  EXPECT_EQ(r.simple_edit_form, 1);
  EXPECT_EQ(r.can_edit_name, 1);
  EXPECT_EQ(r.can_edit_owner, 1);
  EXPECT_EQ(r.can_run_task_same_time, 0);
  EXPECT_EQ(r.can_run_app_same_time, 1);
  EXPECT_EQ(r.listable, 1);
  EXPECT_STREQ(r.app_name, "#common:command_line#");
  EXPECT_STREQ(r.app, "ORVA.VEK.TaskScheduler.Script");
  EXPECT_STREQ(r.app_args, "{\"script\":\"true\"}\n");
}

TEST(ScriptTask, ScriptThatIsNotAStringFailsTheRequestAndStoresNothing) {
  tstest::TempRoot root;
  const char* bad[] = {"5", "null", "[\"ls\"]", "{\"a\": 1}", "true"};
  for (const char* value : bad) {
    SCOPED_TRACE(value);
    Json::Value extra;
    extra["script"] = Parse(value);
    Json::Value reply = apptest::ServerCall(2, "create", apptest::TaskObject("script", extra));
    EXPECT_FALSE(reply["success"].asBool());
    EXPECT_EQ(reply["error"]["code"], 100);
  }
  ORVA_SCHED_TASK* list = nullptr;
  EXPECT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), 0);
  ORVASchedTaskListFree(list);
}

TEST(ScriptTask, UnparsableStoredArgumentsGetWithoutError) {
  tstest::TempRoot root;
  tstest::TaskSpec spec;
  spec.appArgs = "{not json";
  long id = tstest::AddTask(spec);
  ASSERT_GT(id, 0);
  tstest::Reply got = Call(2, "get", Parse("{\"id\": " + std::to_string(id) + "}"));
  EXPECT_TRUE(got.success) << got.envelope.toStyledString();
  EXPECT_EQ(got.data["type"], "script");
}

// A record that was never saved reads back with each kind's defaults.
TEST(NewTaskDefaults, BeepAndScript) {
  tstest::TempRoot root;
  const struct {
    const char* type;
    const char* extra;
  } cases[] = {
      {"beep", "{\"beep_duration\": \"60\"}"},
      {"script", "{\"script\": \"\"}"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    Json::Value params;
    params["id"] = -1;
    params["type"] = c.type;
    tstest::Reply got = Call(2, "get", params);
    ASSERT_TRUE(got.success) << got.envelope.toStyledString();
    EXPECT_EQ(got.data["extra"], Parse(c.extra));
    EXPECT_TRUE(got.data["extra"]["beep_duration"].isString() || std::string(c.type) != "beep");
  }
}

}  // namespace
