// One real run on schedule: a task created through the running server for the coming
// minute is started by the running daemon and leaves its output in its run status.
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "e2e_fixture.h"

namespace {

TEST(ScheduleE2E, TaskCreatedThroughTheServerRunsAtItsMinute) {
  e2e::StagedRoot root;
  ASSERT_TRUE(root.Ok());
  ASSERT_TRUE(root.StartServer()) << root.ServerLog();
  ASSERT_TRUE(root.StartDaemon()) << root.DaemonLog();

  // The coming minute, in local time as the schedule is written.
  const time_t created = time(nullptr);
  const time_t due = (created / 60 + 1) * 60;
  struct tm lt;
  localtime_r(&due, &lt);
  char date[16];
  strftime(date, sizeof date, "%Y-%m-%d", &lt);
  const std::string mark = "e2e-ran-" + std::to_string(getpid());

  Json::Value p;
  p["type"] = "script";
  p["name"] = "e2e coming minute";
  p["owner"] = "root";
  p["enable"] = true;
  p["schedule"]["repeat_date"] = "once";
  p["schedule"]["date"] = date;
  p["schedule"]["hour"] = lt.tm_hour;
  p["schedule"]["minute"] = lt.tm_min;
  p["extra"]["script"] = "echo " + mark + "; id -un";
  const e2e::Result created_ = root.Api("ORVA.Core.TaskScheduler", 2, "create", p);
  ASSERT_EQ(created_.status, 0) << created_.out << created_.err;
  const int id = created_.json["data"]["id"].asInt();
  ASSERT_GT(id, 0) << created_.out;

  Json::Value last;
  Json::Value view;
  view["id"] = id;
  while (time(nullptr) < created + 70) {
    const e2e::Result r = root.Api("ORVA.Core.TaskScheduler", 1, "view", view);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    last = r.json["data"]["last_run"];
    if (last.isObject() && !last["end"].isNull()) break;
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  ASSERT_TRUE(last.isObject()) << "no run within 70 s\n" << root.DaemonLog();
  EXPECT_EQ(last["trigger"].asString(), "schedule");
  EXPECT_EQ(last["result"].asString(), "success");
  EXPECT_EQ(last["output"].asString(), mark + "\nroot\n");
  EXPECT_NE(root.DaemonLog().find("started task " + std::to_string(id)), std::string::npos) << root.DaemonLog();
  EXPECT_LE(time(nullptr), due + 70);
}

}  // namespace
