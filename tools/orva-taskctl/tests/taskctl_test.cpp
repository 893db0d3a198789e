// orva-taskctl as other packages and tests use it: add, show, list, remove.
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/root.h"
#include "scheduler/task.h"

namespace {

struct Result {
  int status;
  std::string out;
};

std::string Quote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

class TaskctlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/orva-taskctl-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = tmpl;
    ORVA::ORVARootSet(root_);
  }
  void TearDown() override { system(("rm -rf " + Quote(root_)).c_str()); }

  Result Run(const std::string& args) {
    std::string cmd = std::string(ORVA_TASKCTL_PATH) + " --root " + Quote(root_) + " " + args + " 2>/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    Result r{-1, ""};
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
  }

  Json::Value Show(long id) {
    Result r = Run("show " + std::to_string(id));
    EXPECT_EQ(r.status, 0);
    Json::Value v;
    std::istringstream in(r.out);
    in >> v;
    return v;
  }

  std::string root_;
};

}  // namespace

TEST_F(TaskctlTest, AddShowListRemove) {
  std::string cmd = std::string(ORVA_SCHED_COMMAND_MAX - 1, 'c');
  Json::Value task;
  task["name"] = "Nightly report";
  task["app"] = "ORVA.Report.Task";
  task["app_name"] = "#report:title#";
  task["action"] = "#report:action#";
  task["command"] = cmd;
  task["app_args"] = "{\"a\":1}";
  task["owner"] = "daemon";
  task["enabled"] = false;
  task["listable"] = false;
  task["can_edit_from_ui"] = false;
  task["can_delete_from_ui"] = false;
  task["can_run_from_ui"] = false;
  task["can_edit_name"] = false;
  task["can_edit_owner"] = true;
  task["edit_form"] = "ReportForm";
  task["simple_edit_form"] = true;
  task["can_run_app_same_time"] = false;
  task["can_run_task_same_time"] = true;
  task["schedule"]["repeat"] = "monthly";
  task["schedule"]["date"] = "2030-01-31";
  task["schedule"]["hour"] = 3;
  task["schedule"]["min"] = 15;
  Json::StreamWriterBuilder w;
  w["indentation"] = "";
  Result added = Run("add " + Quote(Json::writeString(w, task)));
  ASSERT_EQ(added.status, 0);
  EXPECT_EQ(added.out, "1\n");

  Json::Value shown = Show(1);
  for (const std::string& key : task.getMemberNames()) {
    if (key != "schedule") {
      EXPECT_EQ(shown[key], task[key]) << key;
    }
  }
  EXPECT_EQ(shown["schedule"]["repeat"], "monthly");
  EXPECT_EQ(shown["schedule"]["date"], "2030-01-31");
  EXPECT_EQ(shown["schedule"]["hour"], 3);
  EXPECT_EQ(shown["id"], 1);
  EXPECT_EQ(shown["marker"], 0);
  EXPECT_EQ(shown["owner_uid"].asUInt(), getpwnam("daemon")->pw_uid);
  EXPECT_EQ(shown["real_owner_uid"], 0);
  EXPECT_TRUE(shown["real_owner"].isNull());
  EXPECT_EQ(shown["next_trigger_time"], "N/A");  // disabled

  // A user's task: real_owner given, the owner follows it.
  Result user = Run("add '{\"name\": \"mine\", \"real_owner\": \"bin\", \"id\": 40}'");
  ASSERT_EQ(user.status, 0);
  EXPECT_EQ(user.out, "40\n");
  Json::Value mine = Show(40);
  EXPECT_EQ(mine["marker"], ORVA_SCHED_MARKER_BY_USER);
  EXPECT_EQ(mine["owner"], "bin");
  EXPECT_EQ(mine["real_owner"], "bin");
  EXPECT_EQ(mine["enabled"], true);  // defaults for absent members
  EXPECT_EQ(mine["can_run_app_same_time"], true);
  EXPECT_NE(mine["next_trigger_time"], "N/A");  // daily from today

  Result list = Run("list");
  ASSERT_EQ(list.status, 0);
  std::istringstream lines(list.out);
  std::vector<long> ids;
  for (std::string line; std::getline(lines, line);) {
    Json::Value v;
    std::istringstream in(line);
    in >> v;
    ids.push_back(v["id"].asInt());
  }
  EXPECT_EQ(ids, (std::vector<long>{1, 40}));

  EXPECT_EQ(Run("remove 1").status, 0);
  EXPECT_EQ(Run("remove 1").status, 1);
  EXPECT_EQ(Run("show 1").status, 1);
  EXPECT_EQ(Run("show -1").status, 1);
  EXPECT_EQ(Run("list").out.find("\"id\":1,"), std::string::npos);
}

TEST_F(TaskctlTest, RefusesBadInputAndStoresNothing) {
  const char* bad[] = {
      "add 'not json'",
      "add '[]'",
      "add '{\"nam\": \"typo\"}'",
      "add '{\"name\": 5}'",
      "add '{\"enabled\": \"yes\"}'",
      "add '{\"owner\": \"orvat-no-such-user\"}'",
      "add '{\"owner\": \"daemon\", \"real_owner\": \"bin\"}'",
      "add '{\"schedule\": {\"hour\": 25}}'",
      "add '{\"id\": -4}'",
      "show abc",
  };
  for (const char* args : bad) EXPECT_EQ(Run(args).status, 1) << args;
  std::string tooLong = "add '{\"name\": \"" + std::string(ORVA_SCHED_NAME_MAX, 'n') + "\"}'";
  EXPECT_EQ(Run(tooLong).status, 1);
  EXPECT_EQ(Run("list").out, "");
  EXPECT_EQ(Run("").status, 2);
  EXPECT_EQ(Run("frobnicate").status, 2);
  Result help = Run("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("orva-taskctl"), std::string::npos);
}
