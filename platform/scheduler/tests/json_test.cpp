// The "basic" and "schedule" objects: round trips at the limits, and every bad value
// refused with nothing applied.
#include <string.h>

#include <tuple>

#include "core/kelc.h"
#include "scheduler/schedule.h"
#include "scheduler/task_json.h"
#include "test_util.h"

using orvatest::NewTask;
using orvatest::ParseJson;
using orvatest::TestUser;

namespace {

// The record's bytes, to prove a refused conversion changed nothing.
std::string Bytes(const ORVA_SCHED_TASK& t) { return std::string(reinterpret_cast<const char*>(&t), sizeof(t)); }

// The "basic" or the "schedule" object of `in` into `t`, by the key `in` holds.
bool FromJson(const Json::Value& in, ORVA_SCHED_TASK& t) {
  return in.isObject() && in.isMember("schedule") ? ORVASchedTaskConvertFromJson_Schedule(in, t)
                                 : ORVASchedTaskConvertFromJson_Basic(in, t);
}

}  // namespace

// The keys the module shows, and what its get answers going back through set, are its
// tests': here the longest name and the id as text.
TEST(SchedJson, BasicAtTheLimitAndByUser) {
  TestUser a;
  const std::string longest(ORVA_SCHED_NAME_MAX - 1, 'n');
  Json::Value in = ParseJson(R"({"basic": {"id": "42", "enabled": "OFF"}})");
  in["basic"]["task_name"] = longest;
  in["basic"]["owner"] = a.Name();
  auto t = NewTask();
  ASSERT_TRUE(FromJson(in, *t));
  EXPECT_EQ(std::tuple(ORVASchedTaskGetID(*t), std::string(ORVASchedTaskGetName(*t)), ORVASchedTaskGetOwner(*t),
                       ORVASchedTaskIsEnabled(*t)),
            std::tuple(42L, longest, a.Uid(), false));

  // On behalf of a user, an absent owner is the user (another owner: the module's tests).
  auto mine = NewTask();
  ASSERT_TRUE(ORVASchedTaskConvertFromJson_Basic_ByUser(a.Name(), ParseJson(R"({"basic": {}})"), *mine));
  EXPECT_EQ(std::vector<int64_t>({ORVASchedTaskGetOwner(*mine), ORVASchedTaskGetRealOwner(*mine),
                                  ORVASchedTaskGetMarker(*mine)}),
            std::vector<int64_t>({a.Uid(), a.Uid(), ORVA_SCHED_MARKER_BY_USER}));
  EXPECT_FALSE(ORVASchedTaskConvertFromJson_Basic_ByUser("orvat-no-such-user", in, *mine));
  EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_NO_USER);
}

// Every key at its limit; what the store wrote reads back to the same record. (The keys by
// name: the module's get and set.)
TEST(SchedJson, ScheduleRoundTrip) {
  auto t = NewTask(), again = NewTask();
  Json::Value in = ParseJson(R"({"schedule": {
      "repeat": "weekly", "date": "2031-12-31", "week_name": "0,2,6", "hour": 23, "min": 59,
      "repeat_hour": 0, "repeat_min": 59, "last_work_hour": 23,
      "repeat_min_store_config": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 59],
      "repeat_hour_store_config": [23]}})");
  ASSERT_TRUE(FromJson(in, *t));
  Json::Value out;
  ASSERT_TRUE(ORVASchedTaskConvertToJson_Schedule(*t, out));
  for (const std::string& key : in["schedule"].getMemberNames()) EXPECT_EQ(out["schedule"][key], in["schedule"][key]);
  EXPECT_EQ(out["schedule"]["next_trigger_time"], ORVASchedTaskGetNextTriggerTime(*t));
  ASSERT_TRUE(FromJson(out, *again));
  EXPECT_EQ(memcmp(&again->schedule, &t->schedule, sizeof(ORVA_SCHED_SCHEDULE)), 0);
}

// One row per way a value can be wrong. A bad value spoils the whole object: the good ones
// beside it are not applied either.
TEST(SchedJson, BadValuesAreRefusedWithNothingApplied) {
  struct Case {
    std::string json;
    int code = ORVA_SCHED_ERR_INVALID;
  } cases[] = {
      {R"({"basic": 1})"}, {R"([])"}, {R"({"basic": {"id": "12x"}})"}, {R"({"basic": {"id": "0"}})"},
      {R"({"basic": {"id": 1.5}})"}, {R"({"basic": {"id": "99999999999999999999"}})"},
      {R"({"basic": {"task_name": ""}})"}, {R"({"basic": {"task_name": 5}})"},
      {R"({"basic": {"task_name": ")" + std::string(ORVA_SCHED_NAME_MAX, 'n') + "\"}}", ORVA_SCHED_ERR_TOO_LONG},
      {R"({"basic": {"owner": "orvat-no-such-user"}})", ORVA_SCHED_ERR_NO_USER}, {R"({"basic": {"enabled": true}})"},
      {R"({"basic": {"id": "5", "task_name": "x", "enabled": "maybe"}})"},
      {R"({"schedule": 3})"}, {R"({"schedule": {"repeat": "yearly"}})"}, {R"({"schedule": {"repeat": 1}})"},
      {R"({"schedule": {"date": "2024-02-30"}})"}, {R"({"schedule": {"date": "2023-02-29"}})"},
      {R"({"schedule": {"date": "2024-13-01"}})"}, {R"({"schedule": {"date": "2024-1-01"}})"},
      {R"({"schedule": {"date": "1969-12-31"}})"}, {R"({"schedule": {"date": 20240101}})"},
      {R"({"schedule": {"week_name": "7"}})"}, {R"({"schedule": {"week_name": "1,,2"}})"},
      {R"({"schedule": {"week_name": "1,1"}})"}, {R"({"schedule": {"week_name": "1 ,2"}})"},
      {R"({"schedule": {"week_name": [1, 2]}})"}, {R"({"schedule": {"repeat": "weekly", "week_name": ""}})"},
      {R"({"schedule": {"hour": 24}})"}, {R"({"schedule": {"hour": -1}})"}, {R"({"schedule": {"hour": "5"}})"},
      {R"({"schedule": {"min": 60}})"}, {R"({"schedule": {"repeat_hour": 24}})"},
      {R"({"schedule": {"repeat_min": 60}})"}, {R"({"schedule": {"repeat_min": 5, "repeat_hour": 2}})"},
      {R"({"schedule": {"last_work_hour": 24}})"}, {R"({"schedule": {"repeat_min_store_config": [0]}})"},
      {R"({"schedule": {"repeat_min_store_config": [60]}})"}, {R"({"schedule": {"repeat_min_store_config": "5"}})"},
      {R"({"schedule": {"repeat_hour_store_config": [1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17]}})"},
      {R"({"schedule": {"repeat_hour_store_config": [24]}})"},
      {R"({"schedule": {"hour": 7, "min": 7, "repeat": "never"}})"},
  };
  for (const Case& c : cases) {
    auto t = NewTask();
    const std::string before = Bytes(*t);
    EXPECT_FALSE(FromJson(ParseJson(c.json), *t)) << c.json;
    EXPECT_EQ(KELCErrGet(), c.code) << c.json;
    EXPECT_EQ(Bytes(*t), before) << c.json;
  }
}
