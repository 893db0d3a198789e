// ORVA.Core.TaskRuns through the running server: run history while a run goes on and
// after it, the grid summary, stopping, schedule previews and the clock, refusals.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <regex>

#include "e2e_fixture.h"

namespace {

const char kApi[] = "ORVA.Core.TaskRuns";

Json::Value Parse(const std::string& text) { return orvatest::ParseJson(text); }
using orvatest::WaitFor;

class TaskRunsE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(root_.Ok());
    chmod(root_.Path().c_str(), 0755);  // other accounts reach the socket
    ASSERT_TRUE(root_.StartServer()) << root_.ServerLog();
  }
  long Add(const std::string& json) {
    const e2e::Result r = e2e::Run({root_.Bin("orva-taskctl"), "--root", root_.Path(), "add", json});
    EXPECT_EQ(r.status, 0) << r.err;
    return std::stol("0" + r.out);
  }
  Json::Value Call(const std::string& method, const Json::Value& params) const {
    const e2e::Result r = root_.Api(kApi, 1, method, params);
    EXPECT_TRUE(r.json.isObject()) << r.out << r.err;
    return r.json;
  }
  Json::Value Data(const std::string& method, const Json::Value& params) const {
    const Json::Value r = Call(method, params);
    EXPECT_TRUE(r["success"].asBool()) << method << " " << r.toStyledString();
    return r["data"];
  }
  Json::Value Runs(long id) const { return Data("list", Parse("{\"id\": " + std::to_string(id) + "}")); }

  e2e::StagedRoot root_;
};

TEST_F(TaskRunsE2E, RefusedRequestsChangeNothing) {
  const long locked = Add(R"({"name": "locked", "command": "sleep 30", "can_run_from_ui": false})");
  const long idle = Add(R"({"name": "idle", "command": "true"})");
  const std::string L = std::to_string(locked), I = std::to_string(idle);
  std::string many = "[";
  for (int i = 1; i <= 1001; ++i) many += (i > 1 ? "," : "") + std::to_string(i);
  many += "]";
  struct Case {
    const char* method;
    std::string params;
    int code;
    const char* param;  // "" when the reply names none
  } cases[] = {
      {"list", "{}", 6200, "id"},
      {"list", R"({"id": "1"})", 6200, "id"},
      {"list", R"({"id": 1.0})", 6200, "id"},
      {"list", R"({"id": 0})", 6200, "id"},
      {"list", R"({"id": 999999})", 6201, ""},
      {"get", "{\"id\": " + I + "}", 6200, "run_id"},
      {"get", "{\"id\": " + I + ", \"run_id\": 999999}", 6201, ""},
      {"summary", R"({"ids": 3})", 6200, "ids"},
      {"summary", R"({"ids": [1, "2"]})", 6200, "ids"},
      {"summary", "{\"ids\": " + many + "}", 6200, "ids"},
      {"stop", "{\"id\": " + I + "}", 6203, ""},
      {"stop", "{\"id\": " + L + "}", 6202, "id"},
      {"stop", R"({"id": 999999})", 6201, ""},
      {"preview", "{}", 6200, "schedule"},
      {"preview", R"({"schedule": {"minute": 60}})", 6200, "schedule"},
      {"preview", R"({"schedule": {"repeat_date": "yearly"}})", 6200, "schedule"},
      {"preview", R"({"schedule": {"repeat_date": "weekly", "week_day": ""}})", 6200, "schedule"},
      {"preview", R"({"schedule": {"repeat_min": 5, "repeat_hour": 1}})", 6200, "schedule"},
      {"preview", R"({"schedule": {}, "count": 0})", 6200, "count"},
      {"preview", R"({"schedule": {}, "count": 21})", 6200, "count"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + c.params.substr(0, 80));
    const Json::Value r = Call(c.method, Parse(c.params));
    EXPECT_FALSE(r["success"].asBool());
    EXPECT_EQ(r["error"]["code"].asInt(), c.code) << r.toStyledString();
    EXPECT_EQ(r["error"]["param"].asString(), c.param);
    EXPECT_TRUE(r["error"]["msg"].isString());
  }
  // A named key at fault is named in the message, in the page's words.
  EXPECT_NE(Call("preview", Parse(R"({"schedule": {"minute": 60}})"))["error"]["msg"].asString().find("\"minute\""),
            std::string::npos);
  // Nothing ran or stopped.
  for (long id : {locked, idle}) EXPECT_EQ(Runs(id)["runs"].size(), 0u);

  // Administrators only: any other account is refused by the server.
  for (const char* method : {"list", "get", "summary", "stop", "preview", "clock"}) {
    const e2e::Result r = e2e::Run({"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups",
                                    root_.Bin("orva-api"), "--root", root_.Path(), kApi, "1", method,
                                    "{\"id\": " + I + "}"});
    EXPECT_EQ(r.json["error"]["code"].asInt(), 105) << method << r.out << r.err;
  }
}

TEST_F(TaskRunsE2E, HistorySummaryAndStopOfRealRuns) {
  const long slow = Add(R"({"name": "slow", "command": "echo begun; sleep 30"})");
  const long chatty = Add(R"({"name": "chatty", "command": "head -c 70000 /dev/zero | tr '\\0' x; echo; exit 3"})");
  const long never = Add(R"({"name": "never", "command": "true"})");
  auto run = [&](long id) {
    Json::Value p;
    p["task"].append(static_cast<Json::Int64>(id));
    ASSERT_EQ(root_.Api("ORVA.Core.TaskScheduler", 1, "run", p).status, 0);
  };
  run(slow);
  run(chatty);
  ASSERT_TRUE(WaitFor([&] { return Runs(slow)["running"].asBool(); }));
  run(slow);  // skipped: the task may not run twice at once

  // The skipped run is listed, but the run in progress is what counts, with its output.
  Json::Value list;
  ASSERT_TRUE(WaitFor([&] {
    list = Runs(slow);
    return list["runs"].size() == 2 && list["runs"][1]["output_bytes"].asInt() > 0;
  })) << list.toStyledString();
  EXPECT_TRUE(list["running"].asBool());
  EXPECT_TRUE(list["pid"].isInt());
  const Json::Value& skipped = list["runs"][0];
  const Json::Value& going = list["runs"][1];
  EXPECT_EQ(skipped["result"], "skipped");
  EXPECT_EQ(going["result"], "running");
  EXPECT_TRUE(going["end"].isNull());
  EXPECT_EQ(going["trigger"], "manual");
  EXPECT_TRUE(std::regex_match(going["start"].asString(), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)")));
  const Json::Value one = Data("get", Parse("{\"id\": " + std::to_string(slow) + ", \"run_id\": " +
                                                going["run_id"].asString() + "}"));
  EXPECT_EQ(one["output"], "begun\n");
  EXPECT_EQ(one["output_bytes"], 6);

  Json::Value summary = Data("summary", Parse("{\"ids\": [999999, " + std::to_string(never) + ", " +
                                                  std::to_string(slow) + "]}"))["tasks"];
  ASSERT_EQ(summary.size(), 2u) << summary.toStyledString();  // the unknown id is left out
  EXPECT_EQ(summary[0]["id"].asInt64(), slow);
  EXPECT_TRUE(summary[0]["running"].asBool());
  EXPECT_EQ(summary[0]["last_run"]["run_id"], going["run_id"]);
  EXPECT_EQ(summary[1]["id"].asInt64(), never);
  EXPECT_FALSE(summary[1]["running"].asBool());
  EXPECT_TRUE(summary[1]["last_run"].isNull());

  const Json::Value stop = Data("stop", Parse("{\"id\": " + std::to_string(slow) + "}"));
  EXPECT_EQ(stop["id"].asInt64(), slow);
  EXPECT_EQ(stop["run_id"], going["run_id"]);
  EXPECT_EQ(stop["stopping"], true);
  ASSERT_TRUE(WaitFor([&] { return !(list = Runs(slow))["running"].asBool(); })) << list.toStyledString();
  EXPECT_EQ(list["runs"][1]["result"], "stopped");
  EXPECT_EQ(list["runs"][1]["signal"], 15);
  EXPECT_TRUE(list["runs"][1]["end"].isString());

  // Output beyond 64 KiB: the last 64 KiB are kept, and the run says so.
  Json::Value runs;
  ASSERT_TRUE(WaitFor([&] { return !(runs = Runs(chatty))["running"].asBool() && runs["runs"].size() == 1; }));
  const Json::Value done = Data("get", Parse("{\"id\": " + std::to_string(chatty) + ", \"run_id\": " +
                                                 runs["runs"][0]["run_id"].asString() + "}"));
  EXPECT_EQ(done["result"], "failed");
  EXPECT_EQ(done["exit_code"], 3);
  EXPECT_EQ(done["output_bytes"], 65536);
  EXPECT_EQ(done["truncated"], true);
  EXPECT_EQ(done["output"].asString(), std::string(65535, 'x') + "\n");
  // A run of another task is not this task's.
  const Json::Value other = Call("get", Parse("{\"id\": " + std::to_string(slow) + ", \"run_id\": " +
                                                  done["run_id"].asString() + "}"));
  EXPECT_EQ(other["error"]["code"].asInt(), 6201);
}

TEST_F(TaskRunsE2E, PreviewIsTheStoresNextTriggerAndClockIsTheAppliances) {
  // The first start time is the one the store shows as the task's next trigger.
  const long id = Add(R"({"name": "weekly", "command": "true", "schedule": {"repeat": "weekly",
      "week_name": "1,3", "date": "2024-01-01", "hour": 9, "min": 30}})");
  const e2e::Result show = e2e::Run({root_.Bin("orva-taskctl"), "--root", root_.Path(), "show", std::to_string(id)});
  const Json::Value preview = Data("preview", Parse(R"({"schedule": {"repeat_date": "weekly", "week_day": "1,3",
      "date": "2024-01-01", "hour": 9, "minute": 30}})"));
  ASSERT_EQ(preview["next"].size(), 5u);  // the default count
  EXPECT_EQ(preview["next"][0], Parse(show.out)["next_trigger_time"]);
  for (Json::ArrayIndex i = 1; i < preview["next"].size(); ++i) {
    EXPECT_LT(preview["next"][i - 1].asString(), preview["next"][i].asString());
    EXPECT_EQ(preview["next"][i].asString().substr(10), " 09:30");
  }
  const Json::Value past = Data("preview", Parse(R"({"schedule": {"repeat_date": "once", "date": "2020-02-29"},
      "count": 20})"));
  EXPECT_EQ(past["next"], Json::Value(Json::arrayValue));
  EXPECT_EQ(Data("preview", Parse(R"({"schedule": {"repeat_date": "once", "date": "2099-02-28", "hour": 1,
      "repeat_hour": 8, "last_work_hour": 23}, "count": 20})"))["next"],
            Parse(R"(["2099-02-28 01:00", "2099-02-28 09:00", "2099-02-28 17:00"])"));

  for (const Json::Value& c : {Data("clock", Json::Value(Json::objectValue)), preview}) {
    EXPECT_TRUE(std::regex_match(c["now"].asString(), std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)"))) << c;
    EXPECT_TRUE(std::regex_match(c["utc_offset"].asString(), std::regex(R"([+-]\d\d:\d\d)"))) << c;
    EXPECT_FALSE(c["time_zone"].asString().empty());
  }
}

}  // namespace
