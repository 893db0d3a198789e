// "list", versions 1 and 2: paging, sorting, version filter, event tasks and the items.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "scheduler/task.h"
#include "test_support.h"

namespace {

using tstest::Call;
using tstest::Reply;

Json::Value Parse(const char* text) {
  Json::Value v;
  Json::Reader().parse(text, v);
  return v;
}

std::vector<std::string> Names(const Reply& r) {
  std::vector<std::string> out;
  for (const Json::Value& t : r.data["tasks"]) out.push_back(t["name"].asString());
  return out;
}

std::vector<long> Ids(const Reply& r) {
  std::vector<long> out;
  for (const Json::Value& t : r.data["tasks"]) out.push_back(t["id"].asInt64());
  return out;
}

class ListTasks : public ::testing::Test {
 protected:
  void SetUp() override {
    root.WriteTexts("en", Parse(R"({
      "common": {"run": "Run", "command_line": "Command line", "start_service": "Start service",
                 "ok": "OK"},
      "network": {"win_share_service": "Windows file service"},
      "app": {"title": "System title"}})"));
    root.WriteAppTexts("vendor", "Vendor.App", "en", Parse(R"({"app": {"title": "Vendor Tool"}})"));
    tstest::SetEventTasks(Json::Value(Json::arrayValue));
  }
  tstest::TempRoot root;
};

TEST_F(ListTasks, NothingAtAll) {
  for (int version : {1, 2}) {
    Reply r = Call(version, "list", Json::Value(Json::objectValue));
    ASSERT_TRUE(r.success) << r.envelope;
    EXPECT_EQ(r.replies, 1);
    EXPECT_EQ(r.data, Parse(R"({"tasks": [], "total": 0})"));
  }
}

TEST_F(ListTasks, PagingArithmetic) {
  for (int i = 0; i < 8; ++i) {
    tstest::TaskSpec spec;
    spec.name = "t" + std::to_string(i);
    ASSERT_GT(tstest::AddTask(spec), 0);
  }
  struct Case {
    const char* params;
    std::vector<std::string> names;
  } cases[] = {
      {R"({})", {"t0", "t1", "t2", "t3", "t4", "t5", "t6", "t7"}},
      {R"({"offset": 0, "limit": 0})", {}},
      {R"({"offset": 3, "limit": 0})", {}},
      {R"({"offset": 0, "limit": -1})", {"t0", "t1", "t2", "t3", "t4", "t5", "t6", "t7"}},
      {R"({"offset": 1, "limit": 2})", {"t1", "t2"}},
      {R"({"offset": 6, "limit": 5})", {"t6", "t7"}},
      {R"({"offset": 3})", {"t3", "t4", "t5", "t6", "t7"}},
      {R"({"offset": -5, "limit": 10})", {"t0", "t1", "t2", "t3", "t4"}},
      {R"({"offset": -2, "limit": 3})", {"t0"}},
      // The end index -1 is never met: the page never completes.
      {R"({"offset": -2, "limit": 1})", {"t0", "t1", "t2", "t3", "t4", "t5", "t6", "t7"}},
      {R"({"offset": 2, "limit": -3})", {"t2", "t3", "t4", "t5", "t6", "t7"}},
      {R"({"offset": 8, "limit": 2})", {}},
      {R"({"offset": 50})", {}},
      {R"({"offset": "2", "limit": "1"})", {"t0", "t1", "t2", "t3", "t4", "t5", "t6", "t7"}},
      {R"({"offset": 1.5, "limit": true})", {"t0", "t1", "t2", "t3", "t4", "t5", "t6", "t7"}},
      {R"({"offset": 2147483647, "limit": 1})", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.params);
    Json::Value p = Parse(c.params);
    p["sort_by"] = "name";
    Reply r = Call(2, "list", p);
    ASSERT_TRUE(r.success) << r.envelope;
    EXPECT_EQ(Names(r), c.names);
    EXPECT_EQ(r.data["total"], 8);
    EXPECT_TRUE(r.data["tasks"].isArray());
  }
}

// The listing's order for each "sort_by" is the store's order for the mapped key.
TEST_F(ListTasks, SortKeysMapToTheStoresKeys) {
  tstest::TestUser u1;
  tstest::TestUser u2;
  ASSERT_TRUE(u1.Ok() && u2.Ok());
  // Five tasks whose orders differ by every key.
  struct Spec {
    const char* name;
    const char* appName;
    const char* action;
    bool enabled;
    int hour;
    unsigned owner;
  } specs[] = {
      {"delta", "#c:c#", "zz", true, 5, u2.Uid()},
      {"alpha", "#e:e#", "mm", false, 1, 0},
      {"echo", "#a:a#", "aa", true, 3, u1.Uid()},
      {"bravo", "#d:d#", "yy", false, 9, u1.Uid()},
      {"charlie", "#b:b#", "bb", true, 7, 0},
  };
  int n = 0;
  for (const Spec& s : specs) {
    tstest::TaskSpec spec;
    spec.name = s.name;
    spec.appName = s.appName;
    spec.action = s.action;
    spec.enabled = s.enabled;
    spec.hour = s.hour;
    spec.ownerUid = s.owner;
    spec.app = "Vendor.Other";
    ASSERT_GT(tstest::AddTask(spec), 0);
    ++n;
  }
  struct Case {
    const char* sortBy;
    const char* storeKey;
  } cases[] = {
      {"enable", "state"},       {"id", "id"},         {"type", "app name"},
      {"owner", "owner"},        {"name", "name"},     {"app_name", "app name"},
      {"action", "action"},      {"next_trigger_time", "next trigger time"},
      {"", "next trigger time"}, {"Name", "next trigger time"}, {"bogus", "next trigger time"},
  };
  for (const Case& c : cases) {
    for (const char* direction : {"asc", "desc", "DESC", "Desc", "", "descending"}) {
      SCOPED_TRACE(std::string(c.sortBy) + " " + direction);
      bool descending = std::string(direction) == "desc" || std::string(direction) == "DESC" ||
                        std::string(direction) == "Desc";
      ORVA_SCHED_TASK* list = nullptr;
      ASSERT_EQ(ORVASchedTaskListGet(&list, nullptr, nullptr), n);
      ASSERT_GE(ORVASchedTaskListSort(&list, c.storeKey, descending ? 0 : 1), 0);
      std::vector<long> want;
      for (ORVA_SCHED_TASK* t = list; t; t = ORVASchedTaskNext(t)) want.push_back(ORVASchedTaskGetID(*t));
      ORVASchedTaskListFree(list);

      Json::Value p;
      p["sort_by"] = c.sortBy;
      p["sort_direction"] = direction;
      Reply r = Call(2, "list", p);
      ASSERT_TRUE(r.success) << r.envelope;
      EXPECT_EQ(Ids(r), want);
    }
  }
  // The keys really order differently, so a wrong mapping shows.
  auto order = [](const char* sortBy) {
    Json::Value p;
    p["sort_by"] = sortBy;
    return Ids(Call(2, "list", p));
  };
  std::set<std::vector<long>> distinct;
  for (const char* key : {"enable", "id", "owner", "name", "app_name", "action", "next_trigger_time"}) {
    distinct.insert(order(key));
  }
  EXPECT_EQ(distinct.size(), 7u);
  EXPECT_EQ(order("type"), order("app_name"));
}

TEST_F(ListTasks, VersionFilterAndOwners) {
  tstest::TestUser user;
  ASSERT_TRUE(user.Ok());
  tstest::TaskSpec sys;
  sys.name = "system";
  long sysId = tstest::AddTask(sys);
  tstest::TaskSpec mine;
  mine.name = "users";
  mine.byUser = user.Name();
  long userId = tstest::AddTask(mine);
  tstest::TaskSpec hidden;
  hidden.name = "hidden";
  hidden.listable = false;
  tstest::AddTask(hidden);
  ASSERT_GT(sysId, 0);
  ASSERT_GT(userId, 0);

  Reply v1 = Call(1, "list", Parse(R"({"sort_by": "id"})"));
  ASSERT_TRUE(v1.success) << v1.envelope;
  EXPECT_EQ(Names(v1), (std::vector<std::string>{"system"}));
  EXPECT_EQ(v1.data["total"], 1);
  EXPECT_FALSE(v1.data["tasks"][0].isMember("real_owner"));
  EXPECT_EQ(v1.data["tasks"][0]["owner"], "root");

  Reply v2 = Call(2, "list", Parse(R"({"sort_by": "id"})"));
  ASSERT_TRUE(v2.success) << v2.envelope;
  EXPECT_EQ(Names(v2), (std::vector<std::string>{"system", "users"}));
  EXPECT_EQ(v2.data["total"], 2);
  EXPECT_FALSE(v2.data["tasks"][0].isMember("real_owner"));
  EXPECT_EQ(v2.data["tasks"][1]["real_owner"], user.Name());
  EXPECT_EQ(v2.data["tasks"][1]["owner"], user.Name());
}

TEST_F(ListTasks, ItemFields) {
  tstest::TaskSpec script;
  script.name = "script";
  script.action = "#common:run#: echo hi";
  script.hour = 4;
  script.min = 5;
  long scriptId = tstest::AddTask(script);
  tstest::TaskSpec off;
  off.name = "off";
  off.enabled = false;
  off.app = "ORVA.VEK.TaskScheduler.Beep";
  off.appName = "#beep:beep_title#";
  tstest::AddTask(off);
  tstest::TaskSpec vendor;
  vendor.name = "vendor";
  vendor.app = "Vendor.App";
  vendor.appName = "#app:title#";
  vendor.action = "#app:title# runs";
  tstest::AddTask(vendor);
  tstest::TaskSpec other;
  other.name = "other";
  other.app = "Other.App";
  other.appName = "#app:title#";
  tstest::AddTask(other);

  Reply r = Call(2, "list", Parse(R"({"sort_by": "name"})"));
  ASSERT_TRUE(r.success) << r.envelope;
  ASSERT_EQ(r.data["tasks"].size(), 4u);
  const Json::Value& offItem = r.data["tasks"][0];
  const Json::Value& otherItem = r.data["tasks"][1];
  const Json::Value& scriptItem = r.data["tasks"][2];
  const Json::Value& vendorItem = r.data["tasks"][3];

  EXPECT_EQ(scriptItem.getMemberNames(),
            (std::vector<std::string>{"action", "can_delete", "can_edit", "can_run", "enable", "id", "name",
                                      "next_trigger_time", "owner", "type"}));
  EXPECT_EQ(scriptItem["id"], static_cast<Json::Int64>(scriptId));
  EXPECT_EQ(scriptItem["type"], "script");
  EXPECT_EQ(scriptItem["action"], "Run: echo hi");
  EXPECT_EQ(scriptItem["enable"], true);
  EXPECT_EQ(scriptItem["can_run"], true);
  EXPECT_EQ(scriptItem["owner"], "root");
  EXPECT_TRUE(scriptItem["next_trigger_time"].asString().size() == 16 &&
              scriptItem["next_trigger_time"].asString().substr(11) == "04:05")
      << scriptItem["next_trigger_time"];

  EXPECT_EQ(offItem["type"], "beep");
  EXPECT_EQ(offItem["enable"], false);
  EXPECT_EQ(offItem["next_trigger_time"], "-");
  EXPECT_FALSE(offItem.isMember("app_name"));

  EXPECT_EQ(vendorItem["type"], "custom");
  EXPECT_EQ(vendorItem["app_name"], "Vendor Tool");
  EXPECT_EQ(vendorItem["action"], "Vendor Tool runs");
  EXPECT_EQ(otherItem["type"], "custom");
  EXPECT_EQ(otherItem["app_name"], "System title");
}

TEST_F(ListTasks, EventTasksJoinEveryListingWithNewIds) {
  tstest::TestUser user;
  ASSERT_TRUE(user.Ok());
  tstest::TaskSpec spec;
  spec.name = "stored";
  tstest::AddTask(spec);
  Json::Value events(Json::arrayValue);
  Json::Value e1;
  e1["id"] = 1;
  e1["task_name"] = "on boot";
  e1["owner"][std::to_string(user.Uid())] = user.Name();
  e1["enable"] = true;
  e1["event"] = "bootup";
  e1["script"] = "echo up";
  events.append(e1);
  Json::Value e2 = e1;
  e2["task_name"] = "ownerless";
  e2["owner"] = Json::Value(Json::objectValue);
  events.append(e2);
  Json::Value e3 = e1;
  e3["task_name"] = "at shutdown";
  e3["owner"] = Json::Value(Json::objectValue);
  e3["owner"]["0"] = "root";
  e3["enable"] = false;
  events.append(e3);
  tstest::SetEventTasks(events);

  std::vector<long> firstIds;
  for (int version : {1, 2}) {
    SCOPED_TRACE(version);
    tstest::ClearLogs();
    Reply r = Call(version, "list", Parse(R"({"sort_by": "name"})"));
    ASSERT_TRUE(r.success) << r.envelope;
    EXPECT_EQ(Names(r), (std::vector<std::string>{"at shutdown", "on boot", "stored"}));
    EXPECT_EQ(r.data["total"], 3);
    const Json::Value& boot = r.data["tasks"][1];
    EXPECT_EQ(boot["type"], "event_script");
    EXPECT_EQ(boot["owner"], user.Name());
    EXPECT_EQ(boot["enable"], true);
    EXPECT_EQ(boot["action"], "Command line");
    EXPECT_EQ(boot["can_edit"], true);
    EXPECT_EQ(boot["next_trigger_time"], "-");
    EXPECT_FALSE(boot.isMember("real_owner"));
    EXPECT_EQ(r.data["tasks"][0]["enable"], false);
    EXPECT_EQ(r.data["tasks"][0]["owner"], "root");
    auto logs = tstest::LogsWith("Fail to get owner");
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].text, "ORVA.Core.TaskScheduler:69 Fail to get owner");
    std::vector<long> ids = {r.data["tasks"][0]["id"].asInt64(), boot["id"].asInt64()};
    for (long id : ids) EXPECT_GE(id, 1000);
    for (long id : firstIds) {
      EXPECT_EQ(std::count(ids.begin(), ids.end(), id), 0) << "id " << id << " reused";
    }
    firstIds = ids;
  }
}

TEST_F(ListTasks, EventSchedulerFailureMeansNoEventTasks) {
  tstest::TaskSpec spec;
  tstest::AddTask(spec);
  Json::Value e;
  e["task_name"] = "x";
  e["owner"]["0"] = "root";
  tstest::SetEventTasks(Json::Value(Json::arrayValue).append(e), false);
  Reply r = Call(2, "list", Json::Value(Json::objectValue));
  ASSERT_TRUE(r.success) << r.envelope;
  EXPECT_EQ(r.data["total"], 1);
  tstest::SetEventTasks(Json::Value(Json::arrayValue));
}

TEST(ListStoreFailure, StoreListFailsWith117AndEventsAreNotAsked) {
  tstest::TempRoot root;
  tstest::SetEventTasks(Json::Value(Json::arrayValue));
  // A folder where the database file should be: the store cannot open it.
  root.WriteFile("var/lib/orva/scheduler.db/x", "");
  int callsBefore = tstest::EventListCalls();
  tstest::ClearLogs();
  Reply r = Call(2, "list", Json::Value(Json::objectValue));
  EXPECT_FALSE(r.success);
  EXPECT_EQ(r.code, 117);
  EXPECT_EQ(r.data, Parse(R"({"msg": "get task list failed"})"));
  EXPECT_EQ(tstest::LogsWith("ORVA.Core.TaskScheduler:301 get task list failed. [0x").size(), 1u);
  EXPECT_EQ(tstest::EventListCalls(), callsBefore);
}

}  // namespace
