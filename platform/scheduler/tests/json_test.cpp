// The "basic" and "schedule" objects: round trips at the limits, and every bad value
// refused with nothing applied.
#include <string.h>

#include <functional>
#include <tuple>

#include "core/kelc.h"
#include "scheduler/schedule.h"
#include "scheduler/task_json.h"
#include "test_util.h"

using orvatest::NewTask;
using orvatest::TestUser;

namespace {

Json::Value Parse(const std::string& text) { return orvatest::ParseJson(text); }

// The record's bytes, to prove a refused conversion changed nothing.
std::string Bytes(const ORVA_SCHED_TASK& t) { return std::string(reinterpret_cast<const char*>(&t), sizeof(t)); }

// `convert` refuses with `code` and leaves `t` as it was.
void ExpectRefused(const std::function<bool(ORVA_SCHED_TASK&)>& convert, ORVA_SCHED_TASK& t, int code,
                   const std::string& what) {
  const std::string before = Bytes(t);
  EXPECT_FALSE(convert(t)) << what;
  EXPECT_EQ(KELCErrGet(), code) << what;
  EXPECT_EQ(Bytes(t), before) << what;
}

// `schedule`: the value of the "schedule" key.
bool FromSchedule(const std::string& schedule, ORVA_SCHED_TASK& t) {
  return ORVASchedTaskConvertFromJson_Schedule(Parse(R"({"schedule": )" + schedule + "}"), t);
}

}  // namespace

TEST(SchedJson, BasicToJsonHasEveryKey) {
  TestUser a;
  auto t = NewTask();
  ORVASchedCTaskSetID(t.get(), 42);
  ORVASchedCTaskSetName(t.get(), "n\"ame");
  ORVASchedCTaskSetOwner(t.get(), a.Uid());
  ORVASchedCTaskSetRealOwner(t.get(), true, a.Uid());
  ORVASchedCTaskSetState(t.get(), 0);
  ORVASchedCTaskSetApp(t.get(), "ORVA.VEK.TaskScheduler.Beep");
  ORVASchedCTaskSetAppName(t.get(), "#beep:beep_title#");
  ORVASchedCTaskSetAction(t.get(), "#beep:beep_action#");
  ORVASchedCTaskSetEditForm(t.get(), "Form");
  ORVASchedCTaskSetCanEditOwner(t.get(), 1);
  Json::Value task = Parse(R"({"keep": 1})");
  ASSERT_TRUE(ORVASchedTaskConvertToJson_Basic(*t, task));
  Json::Value want = Parse(R"({"keep": 1, "basic": {"id": 42, "task_name": "n\"ame", "enabled": "off",
      "app": "ORVA.VEK.TaskScheduler.Beep", "app_name": "#beep:beep_title#", "action": "#beep:beep_action#",
      "edit_form": "Form", "can_edit_name": true, "can_edit_owner": true, "can_edit_from_ui": true,
      "can_delete_from_ui": true, "can_run_from_ui": true, "simple_edit_form": false, "listable": true,
      "can_run_app_same_time": true, "can_run_task_same_time": false}})");
  want["basic"]["owner"] = want["basic"]["real_owner"] = a.Name();
  EXPECT_EQ(task, want);

  auto sys = NewTask();  // a new system task
  Json::Value fresh;
  ASSERT_TRUE(ORVASchedTaskConvertToJson_Basic(*sys, fresh));
  const Json::Value want2 = Parse(R"({"id": -1, "owner": "root", "real_owner": "", "enabled": "on"})");
  for (const std::string& key : want2.getMemberNames()) EXPECT_EQ(fresh["basic"][key], want2[key]) << key;
  Json::Value notObject = 5;
  EXPECT_FALSE(ORVASchedTaskConvertToJson_Basic(*sys, notObject));
}

TEST(SchedJson, BasicFromJsonAtTheLimitAndOver) {
  TestUser a;
  auto t = NewTask();
  std::string longest(ORVA_SCHED_NAME_MAX - 1, 'n');
  Json::Value in = Parse(R"({"basic": {"id": "17", "enabled": "OFF"}})");
  in["basic"]["task_name"] = longest;
  in["basic"]["owner"] = a.Name();
  ASSERT_TRUE(ORVASchedTaskConvertFromJson_Basic(in, *t));
  EXPECT_EQ(std::tuple(ORVASchedTaskGetID(*t), std::string(ORVASchedTaskGetName(*t)), ORVASchedTaskGetOwner(*t),
                       ORVASchedTaskIsEnabled(*t)),
            std::tuple(17L, longest, a.Uid(), false));
  // Back to JSON and in again: the same record.
  Json::Value out;
  ASSERT_TRUE(ORVASchedTaskConvertToJson_Basic(*t, out));
  auto again = NewTask();
  out["basic"]["id"] = std::to_string(out["basic"]["id"].asInt());
  ASSERT_TRUE(ORVASchedTaskConvertFromJson_Basic(out, *again));
  EXPECT_EQ(Bytes(*again), Bytes(*t));

  in["basic"]["task_name"] = longest + "n";
  ExpectRefused([&](ORVA_SCHED_TASK& r) { return ORVASchedTaskConvertFromJson_Basic(in, r); }, *again,
                ORVA_SCHED_ERR_TOO_LONG, "one over");
  EXPECT_STREQ(KELCErrorGetFile(), "json.cpp");

  // Absent keys keep what the record holds; "-1" makes it new.
  Json::Value onlyId;
  onlyId["basic"]["id"] = "-1";
  ASSERT_TRUE(ORVASchedTaskConvertFromJson_Basic(onlyId, *again));
  EXPECT_EQ(ORVASchedTaskGetID(*again), -1);
  EXPECT_TRUE(ORVASchedTaskIsNew(*again));
  EXPECT_EQ(ORVASchedTaskGetName(*again), longest);
  EXPECT_EQ(ORVASchedTaskGetOwner(*again), a.Uid());
}

TEST(SchedJson, BasicFromJsonRefusesBadValues) {
  struct Case {
    const char* json;
    int code = ORVA_SCHED_ERR_INVALID;
  } cases[] = {
      {R"({"basic": 1})"}, {R"([])"}, {R"({"basic": {"id": "abc"}})"}, {R"({"basic": {"id": "12x"}})"},
      {R"({"basic": {"id": ""}})"}, {R"({"basic": {"id": "0"}})"}, {R"({"basic": {"id": "-2"}})"},
      {R"({"basic": {"id": 1.5}})"}, {R"({"basic": {"id": true}})"}, {R"({"basic": {"id": "99999999999999999999"}})"},
      {R"({"basic": {"task_name": ""}})"}, {R"({"basic": {"task_name": 5}})"},
      {R"({"basic": {"owner": "orvat-no-such-user"}})", ORVA_SCHED_ERR_NO_USER},
      {R"({"basic": {"owner": 0}})", ORVA_SCHED_ERR_NO_USER},
      {R"({"basic": {"enabled": true}})"}, {R"({"basic": {"enabled": "yes"}})"},
      // One bad value spoils the whole object: the good ones are not applied either.
      {R"({"basic": {"id": "5", "task_name": "x", "enabled": "maybe"}})"},
  };
  for (const Case& c : cases) {
    auto t = NewTask();
    ExpectRefused([&](ORVA_SCHED_TASK& r) { return ORVASchedTaskConvertFromJson_Basic(Parse(c.json), r); }, *t,
                  c.code, c.json);
  }
  // Accepted forms of the id.
  for (const char* ok : {R"({"basic": {"id": 12}})", R"({"basic": {"id": "12"}})", R"({"basic": {}})", R"({})"}) {
    auto t = NewTask();
    EXPECT_TRUE(ORVASchedTaskConvertFromJson_Basic(Parse(ok), *t)) << ok;
  }
}

TEST(SchedJson, BasicByUser) {
  TestUser a, b;
  auto t = NewTask();
  Json::Value in;
  in["basic"]["task_name"] = "mine";
  ASSERT_TRUE(ORVASchedTaskConvertFromJson_Basic_ByUser(a.Name(), in, *t));
  // Absent owner: the user.
  EXPECT_EQ(std::vector<int64_t>({ORVASchedTaskGetOwner(*t), ORVASchedTaskGetRealOwner(*t), ORVASchedTaskGetMarker(*t)}),
            std::vector<int64_t>({a.Uid(), a.Uid(), ORVA_SCHED_MARKER_BY_USER}));
  in["basic"]["owner"] = a.Name();
  EXPECT_TRUE(ORVASchedTaskConvertFromJson_Basic_ByUser(a.Name(), in, *t));
  for (const std::string& other : {b.Name(), std::string("root")}) {
    in["basic"]["owner"] = other;
    auto u = NewTask();
    ExpectRefused([&](ORVA_SCHED_TASK& r) { return ORVASchedTaskConvertFromJson_Basic_ByUser(a.Name(), in, r); }, *u,
                  ORVA_SCHED_ERR_NOT_OWNER, other);
  }
  in["basic"].removeMember("owner");
  EXPECT_FALSE(ORVASchedTaskConvertFromJson_Basic_ByUser("orvat-no-such-user", in, *t));
  EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_NO_USER);
}

TEST(SchedJson, ScheduleRoundTrip) {
  auto t = NewTask();
  Json::Value in = Parse(R"({"schedule": {
      "repeat": "weekly", "date": "2031-12-31", "week_name": "0,2,6", "hour": 23, "min": 59,
      "repeat_hour": 0, "repeat_min": 59, "last_work_hour": 23,
      "repeat_min_store_config": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 59],
      "repeat_hour_store_config": [23]}, "basic": {"ignored": true}})");
  ASSERT_TRUE(ORVASchedTaskConvertFromJson_Schedule(in, *t));
  Json::Value out = Parse(R"({"other": "kept"})");
  ASSERT_TRUE(ORVASchedTaskConvertToJson_Schedule(*t, out));
  EXPECT_EQ(out["other"], "kept");
  const Json::Value& s = out["schedule"];
  for (const std::string& key : in["schedule"].getMemberNames()) EXPECT_EQ(s[key], in["schedule"][key]) << key;
  EXPECT_EQ(s["next_trigger_time"], ORVASchedTaskGetNextTriggerTime(*t));
  EXPECT_NE(s["next_trigger_time"], "N/A");
  // The object the conversion wrote reads back to the same record.
  auto again = NewTask();
  ASSERT_TRUE(ORVASchedTaskConvertFromJson_Schedule(out, *again));
  EXPECT_EQ(memcmp(&again->schedule, &t->schedule, sizeof(ORVA_SCHED_SCHEDULE)), 0);

  // Absent keys keep the record's values.
  ASSERT_TRUE(FromSchedule(R"({"repeat": "once"})", *again));
  Json::Value disabled;
  ORVASchedCTaskSetState(again.get(), 0);
  ASSERT_TRUE(ORVASchedTaskConvertToJson_Schedule(*again, disabled));
  const Json::Value want =
      Parse(R"({"next_trigger_time": "N/A", "repeat": "once", "date": "2031-12-31", "week_name": "0,2,6"})");
  for (const std::string& key : want.getMemberNames()) EXPECT_EQ(disabled["schedule"][key], want[key]) << key;
}

TEST(SchedJson, ScheduleRefusesBadValues) {
  const char* cases[] = {
      "3", R"({"repeat": "yearly"})", R"({"repeat": 1})", R"({"date": "2024-02-30"})", R"({"date": "2023-02-29"})",
      R"({"date": "2024-13-01"})", R"({"date": "2024-1-01"})", R"({"date": "24-01-01xx"})", R"({"date": "1969-12-31"})",
      R"({"date": 20240101})", R"({"week_name": "7"})", R"({"week_name": "1,,2"})", R"({"week_name": "1,2,"})",
      R"({"week_name": "1,1"})", R"({"week_name": "1 ,2"})", R"({"week_name": [1, 2]})",
      R"({"repeat": "weekly", "week_name": ""})", R"({"hour": 24})", R"({"hour": -1})", R"({"hour": "5"})",
      R"({"hour": 5.5})", R"({"min": 60})", R"({"repeat_hour": 24})", R"({"repeat_min": 60})",
      R"({"repeat_min": 5, "repeat_hour": 2})", R"({"last_work_hour": 24})", R"({"repeat_min_store_config": [0]})",
      R"({"repeat_min_store_config": [60]})", R"({"repeat_min_store_config": "5"})",
      R"({"repeat_hour_store_config": [1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17]})",
      R"({"repeat_hour_store_config": [24]})",
      // Good values beside a bad one are not applied.
      R"({"hour": 7, "min": 7, "repeat": "never"})",
  };
  for (const char* c : cases) {
    auto t = NewTask();
    ExpectRefused([&](ORVA_SCHED_TASK& r) { return FromSchedule(c, r); }, *t, ORVA_SCHED_ERR_INVALID, c);
  }
  // A repeat_hour already set conflicts with a new repeat_min unless cleared with it.
  auto t = NewTask();
  ASSERT_TRUE(FromSchedule(R"({"repeat_hour": 3})", *t));
  EXPECT_FALSE(FromSchedule(R"({"repeat_min": 5})", *t));
  EXPECT_TRUE(FromSchedule(R"({"repeat_min": 5, "repeat_hour": 0})", *t));
  EXPECT_EQ(t->schedule.repeat_min, 5);
  // A record without a schedule (zero-filled) cannot take one that has no date.
  ORVA_SCHED_TASK* zero = static_cast<ORVA_SCHED_TASK*>(calloc(1, sizeof(ORVA_SCHED_TASK)));
  EXPECT_FALSE(FromSchedule(R"({"hour": 1})", *zero));
  EXPECT_TRUE(FromSchedule(R"({"date": "2030-01-01"})", *zero));
  free(zero);
}
