// orva-taskctl as other packages and tests use it: add, show, list, remove.
#include <pwd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <sstream>
#include <string>
#include <vector>

#include "scheduler/record.h"
#include "orvatest.h"

namespace {

Json::Value Parse(const std::string& text) { return orvatest::ParseJson(text); }

class TaskctlTest : public ::testing::Test {
 protected:
  orvatest::Result Run(std::vector<std::string> args) {
    args.insert(args.begin(), {ORVA_TASKCTL_PATH, "--root", temp_.path()});
    return orvatest::Spawn(args, temp_.path());
  }
  Json::Value Show(long id) {
    orvatest::Result r = Run({"show", std::to_string(id)});
    EXPECT_EQ(r.status, 0) << r.err;
    return Parse(r.out);
  }
  // The ids that "list" prints, one JSON object a line.
  std::vector<long> Listed() {
    std::istringstream lines(Run({"list"}).out);
    std::vector<long> ids;
    for (std::string line; std::getline(lines, line);) ids.push_back(Parse(line)["id"].asInt());
    return ids;
  }

  orvatest::TempRoot temp_{"orva-taskctl-test"};
};

}  // namespace

TEST_F(TaskctlTest, AddShowListRemove) {
  // Every member, the command at its longest, flags opposite to their defaults.
  Json::Value task = Parse(R"({"name": "Nightly report", "app": "ORVA.Report.Task", "app_name": "#report:title#",
      "action": "#report:action#", "app_args": "{\"a\":1}", "owner": "daemon", "enabled": false,
      "listable": false, "can_edit_from_ui": false, "can_delete_from_ui": false, "can_run_from_ui": false,
      "can_edit_name": false, "can_edit_owner": true, "edit_form": "ReportForm", "simple_edit_form": true,
      "can_run_app_same_time": false, "can_run_task_same_time": true,
      "schedule": {"repeat": "monthly", "date": "2030-01-31", "hour": 3, "min": 15}})");
  task["command"] = std::string(ORVA_SCHED_COMMAND_MAX - 1, 'c');
  Json::StreamWriterBuilder w;
  w["indentation"] = "";
  orvatest::Result added = Run({"add", Json::writeString(w, task)});
  ASSERT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(added.out, "1\n");

  Json::Value shown = Show(1);
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
  orvatest::Result user = Run({"add", R"({"name": "mine", "real_owner": "bin", "id": 40})"});
  ASSERT_EQ(user.status, 0) << user.err;
  EXPECT_EQ(user.out, "40\n");
  Json::Value mine = Show(40);
  EXPECT_EQ(mine["marker"], ORVA_SCHED_MARKER_BY_USER);
  EXPECT_EQ(mine["owner"], "bin");
  EXPECT_EQ(mine["real_owner"], "bin");
  EXPECT_EQ(mine["enabled"], true);
  EXPECT_EQ(mine["can_run_app_same_time"], true);
  EXPECT_NE(mine["next_trigger_time"], "N/A");  // daily from today

  EXPECT_EQ(Listed(), (std::vector<long>{1, 40}));
  EXPECT_EQ(Run({"remove", "1"}).status, 0);
  EXPECT_EQ(Listed(), (std::vector<long>{40}));
  EXPECT_EQ(Run({"remove", "1"}).status, 1);
  EXPECT_EQ(Run({"show", "1"}).status, 1);
  EXPECT_EQ(Run({"show", "-1"}).status, 1);
}

TEST_F(TaskctlTest, RefusesBadInputAndStoresNothing) {
  const std::vector<std::vector<std::string>> bad = {
      {"add", "not json"},
      {"add", "[]"},
      {"add", R"({"nam": "typo"})"},
      {"add", R"({"name": 5})"},
      {"add", R"({"enabled": "yes"})"},
      {"add", R"({"owner": "orvat-no-such-user"})"},
      {"add", R"({"owner": "daemon", "real_owner": "bin"})"},
      {"add", R"({"schedule": {"hour": 25}})"},
      {"add", R"({"id": -4})"},
      {"add", R"({"name": ")" + std::string(ORVA_SCHED_NAME_MAX, 'n') + "\"}"},
      {"show", "abc"},
  };
  for (const auto& args : bad) {
    SCOPED_TRACE(orvatest::Shown(args));
    orvatest::Result r = Run(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_FALSE(r.err.empty());
  }
  EXPECT_EQ(Run({"list"}).out, "");
  EXPECT_EQ(Run({}).status, 2);
  EXPECT_EQ(Run({"frobnicate"}).status, 2);
  orvatest::Result help = Run({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("orva-taskctl"), std::string::npos);
}
