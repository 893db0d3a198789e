// orva-taskctl as other packages and tests use it: add, show, list, remove.
#include <pwd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <string>
#include <vector>

#include "scheduler/record.h"
#include "orvatest.h"

TEST(Taskctl, AddShowListRemoveAndBadInput) {
  orvatest::TempRoot temp{"orva-taskctl-test"};
  auto run = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {ORVA_TASKCTL_PATH, "--root", temp.path()});
    return orvatest::Spawn(args, temp.path());
  };
  // Every member, the command at its longest, flags opposite to their defaults.
  Json::Value task = orvatest::ParseJson(R"({"name": "Nightly report", "app": "ORVA.Report.Task",
      "app_name": "#report:title#", "action": "#report:action#", "app_args": "{\"a\":1}", "owner": "daemon",
      "enabled": false, "listable": false, "can_edit_from_ui": false, "can_delete_from_ui": false,
      "can_run_from_ui": false, "can_edit_name": false, "can_edit_owner": true, "edit_form": "ReportForm",
      "simple_edit_form": true, "can_run_app_same_time": false, "can_run_task_same_time": true,
      "schedule": {"repeat": "monthly", "date": "2030-01-31", "hour": 3, "min": 15}})");
  task["command"] = std::string(ORVA_SCHED_COMMAND_MAX - 1, 'c');
  orvatest::Result added = run({"add", orvatest::WriteJson(task)});
  ASSERT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(added.out, "1\n");

  Json::Value shown = run({"show", "1"}).json;
  for (const std::string& key : task.getMemberNames()) {
    if (key != "schedule") {
      EXPECT_EQ(shown[key], task[key]) << key;
    }
  }
  for (const char* key : {"repeat", "date", "hour", "min"}) EXPECT_EQ(shown["schedule"][key], task["schedule"][key]);
  EXPECT_EQ(shown["id"], 1);
  EXPECT_EQ(shown["marker"], 0);
  EXPECT_EQ(shown["owner_uid"].asUInt(), getpwnam("daemon")->pw_uid);
  EXPECT_EQ(shown["real_owner_uid"], 0);
  EXPECT_TRUE(shown["real_owner"].isNull());
  EXPECT_EQ(shown["next_trigger_time"], "N/A");  // disabled

  // A user's task: real_owner given, the owner follows it; absent members take defaults.
  orvatest::Result user = run({"add", R"({"name": "mine", "real_owner": "bin", "id": 40})"});
  ASSERT_EQ(user.status, 0) << user.err;
  EXPECT_EQ(user.out, "40\n");
  Json::Value mine = run({"show", "40"}).json;
  EXPECT_EQ(mine["marker"], ORVA_SCHED_MARKER_BY_USER);
  EXPECT_EQ(mine["owner"], "bin");
  EXPECT_EQ(mine["real_owner"], "bin");
  EXPECT_NE(mine["next_trigger_time"], "N/A");  // enabled, daily from today

  // One object a line; an unknown id is status 1.
  const std::string listed = run({"list"}).out;
  EXPECT_EQ(std::count(listed.begin(), listed.end(), '\n'), 2);
  EXPECT_EQ(shown, orvatest::ParseJson(listed.substr(0, listed.find('\n'))));
  EXPECT_EQ(run({"remove", "1"}).status, 0);
  EXPECT_EQ(run({"list"}).json, mine);
  EXPECT_EQ(run({"remove", "1"}).status, 1);
  EXPECT_EQ(run({"show", "1"}).status, 1);

  // Bad input is refused and stores nothing.
  const std::string tooLong = R"({"name": ")" + std::string(ORVA_SCHED_NAME_MAX, 'n') + "\"}";
  for (const std::string json : {R"({"nam": "typo"})", R"({"name": 5})", R"({"enabled": "yes"})", "not json",
                                 R"({"owner": "orvat-no-such-user"})", R"({"owner": "daemon", "real_owner": "bin"})",
                                 R"({"schedule": {"hour": 25}})", R"({"id": -4})", tooLong.c_str()}) {
    SCOPED_TRACE(json);
    orvatest::Result r = run({"add", json});
    EXPECT_EQ(r.status, 1);
    EXPECT_FALSE(r.err.empty());
  }
  EXPECT_EQ(run({"list"}).json, mine);
  // An id past the range of a long is no id, not the largest one.
  EXPECT_EQ(run({"remove", "99999999999999999999"}).err, "orva-taskctl: not a task id: 99999999999999999999\n");
}
