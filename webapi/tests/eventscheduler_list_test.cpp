// The listing merged with the real "ORVA.Core.EventScheduler" module, loaded as the
// server loads it.
#include <gtest/gtest.h>

#include <string>

#include "test_support.h"
#include "webapi/registry.h"

namespace {

TEST(EventSchedulerList, RealModuleTasksAreListedInBothVersions) {
  tstest::TempRoot root;
  std::string error;
  ASSERT_TRUE(ORVA::APIRegistry::Instance().LoadModule(
      std::string(ORVA_BUILD_DIR) + "/lib/webapi/ORVA.Core.EventScheduler.so", &error))
      << error;
  tstest::TestUser user;
  ASSERT_TRUE(user.Ok());

  Json::Value create;
  create["task_name"] = "at boot";
  create["owner"] = user.Name();
  create["enable"] = true;
  create["event"] = "bootup";
  create["script"] = "echo up";
  Json::Value reply;
  ORVA::APIRunner::Exec(reply, "ORVA.Core.EventScheduler", 1, "create", create, "admin");
  ASSERT_TRUE(reply["success"].asBool()) << reply;

  tstest::TaskSpec spec;
  spec.name = "stored";
  ASSERT_GT(tstest::AddTask(spec), 0);

  long previous = -1;
  for (int version : {1, 2, 2}) {
    SCOPED_TRACE(version);
    Json::Value params;
    params["sort_by"] = "name";
    tstest::Reply r = tstest::Call(version, "list", params);
    ASSERT_TRUE(r.success) << r.envelope;
    ASSERT_EQ(r.data["total"], 2);
    const Json::Value& event = r.data["tasks"][0];
    EXPECT_EQ(event["name"], "at boot");
    EXPECT_EQ(event["type"], "event_script");
    EXPECT_EQ(event["owner"], user.Name());
    EXPECT_EQ(event["enable"], true);
    EXPECT_EQ(event["action"], "#common:command_line#");
    EXPECT_GE(event["id"].asInt64(), 1000);
    EXPECT_NE(event["id"].asInt64(), previous);
    previous = event["id"].asInt64();
    EXPECT_EQ(r.data["tasks"][1]["name"], "stored");
  }
}

}  // namespace
