// Event tasks through the running server: the list the task list merges, and the
// daemon running them at boot-up.
#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <set>

#include "core/root.h"
#include "e2e_fixture.h"
#include "scheduler/event_task.h"

namespace {

TEST(EventE2E, EventTasksAreListedMergedAndRunAtTheirEvent) {
  e2e::StagedRoot root;
  ASSERT_TRUE(root.Ok());
  ORVA::ORVARootSet(root.Path());
  ASSERT_TRUE(root.StartServer()) << root.ServerLog();

  const struct passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  struct Seed {
    const char* name;
    const char* owner;
    bool enable;
    const char* event;
    std::string script;
  };
  const std::string mark = std::to_string(getpid());
  const std::vector<Seed> seeds = {
      {"boot greeting", "root", true, "bootup", "echo boot-" + mark},
      {"boot as nobody", "nobody", true, "bootup", "id -un"},
      {"boot but off", "root", false, "bootup", "echo never"},
      {"last words", "root", true, "shutdown", "echo bye-" + mark},
  };
  auto params = [](const Seed& s) {
    Json::Value p;
    p["task_name"] = s.name;
    p["owner"] = s.owner;
    p["enable"] = s.enable;
    p["event"] = s.event;
    p["script"] = s.script;
    return p;
  };
  std::vector<long> ids;
  for (const Seed& s : seeds) {
    const e2e::Result r = root.Api("ORVA.Core.EventScheduler", 1, "create", params(s));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    ids.push_back(r.json["data"]["id"].asInt64());
  }
  // A bad value is refused through the server too, with its code.
  Json::Value badParams = params(seeds[0]);
  badParams["enable"] = "yes";
  const e2e::Result refused = root.Api("ORVA.Core.EventScheduler", 1, "create", badParams);
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.json["error"]["code"].asInt(), 6100) << refused.out;

  // The list, exactly in the shape the task list reads.
  e2e::Result r = root.Api("ORVA.Core.EventScheduler", 1, "list");
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  ASSERT_EQ(r.json["data"].size(), seeds.size());
  for (Json::Value::ArrayIndex i = 0; i < seeds.size(); ++i) {
    const Json::Value& e = r.json["data"][i];
    SCOPED_TRACE(e.toStyledString());
    EXPECT_EQ(e["id"].asInt64(), ids[i]);
    EXPECT_EQ(e["task_name"].asString(), seeds[i].name);
    ASSERT_EQ(e["owner"].getMemberNames().size(), 1u);
    const uid_t uid = std::string(seeds[i].owner) == "root" ? 0 : nobody->pw_uid;
    EXPECT_EQ(e["owner"][std::to_string(uid)].asString(), seeds[i].owner);
    EXPECT_EQ(e["enable"], seeds[i].enable);
    EXPECT_EQ(e["event"].asString(), seeds[i].event);
    EXPECT_EQ(e["script"].asString(), seeds[i].script);
  }

  // Merged into the task list: every event task, translated, ids of their own.
  Json::Value lp;
  lp["sort_by"] = "name";
  r = root.Api("ORVA.Core.TaskScheduler", 2, "list", lp);
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.json["data"]["total"].asInt(), static_cast<int>(seeds.size()));
  std::set<std::string> names;
  for (const Json::Value& item : r.json["data"]["tasks"]) {
    SCOPED_TRACE(item.toStyledString());
    EXPECT_EQ(item["type"].asString(), "event_script");
    EXPECT_EQ(item["action"].asString(), "User-defined script");
    EXPECT_GE(item["id"].asInt(), 1000);
    names.insert(item["name"].asString() + "/" + item["owner"].asString() + "/" +
                 (item["enable"].asBool() ? "on" : "off"));
  }
  EXPECT_EQ(names, (std::set<std::string>{"boot greeting/root/on", "boot as nobody/nobody/on",
                                          "boot but off/root/off", "last words/root/on"}));

  // Boot-up: the enabled boot-up tasks run as their owners; the rest do not.
  const e2e::Result boot = e2e::Run({root.Bin("orva-schedulerd"), "--root", root.Path(), "--event", "bootup"});
  ASSERT_EQ(boot.status, 0) << boot.out << boot.err;
  const std::vector<std::string> want = {"boot-" + mark + "\n", "nobody\n", "", ""};
  for (size_t i = 0; i < ids.size(); ++i) {
    SCOPED_TRACE(seeds[i].name);
    Json::Value status;
    ASSERT_EQ(ORVASchedEventTaskGetRunStatus(ids[i], status), 0);
    if (want[i].empty()) {
      EXPECT_TRUE(status["last_run"].isNull()) << status.toStyledString();
    } else {
      ASSERT_TRUE(status["last_run"].isObject()) << status.toStyledString();
      EXPECT_EQ(status["last_run"]["trigger"].asString(), "event");
      EXPECT_EQ(status["last_run"]["result"].asString(), "success");
      EXPECT_EQ(status["last_run"]["output"].asString(), want[i]);
    }
  }
  const e2e::Result bad = e2e::Run({root.Bin("orva-schedulerd"), "--root", root.Path(), "--event", "reboot"});
  EXPECT_EQ(bad.status, 2);
}

}  // namespace
