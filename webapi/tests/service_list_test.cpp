// Listed service tasks: today's package display names, the process-wide package cache
// and the WinShare rewrite. One test per program, since the cache lives for the process.
#include <unistd.h>

#include "test_support.h"

using namespace orvatest;

namespace {

std::string ActionOf(const Reply& r, const std::string& name) {
  for (const Json::Value& t : r.data["tasks"]) if (t["name"] == name) return t["action"].asString();
  return "<missing>";
}

// The service package "pkga" as installed with `displayName` and `version`.
void WritePackage(const ModuleRoot& root, const std::string& displayName, const std::string& version) {
  root.Write("var/lib/orva/packages/pkga/package.json",
             R"({"name":"pkga","display_name":")" + displayName + R"(","version":")" + version +
                 R"(","service":true,"control":{"start":"true","stop":"true"}})");
}

TEST(ModuleServiceList, DisplayNamesRefreshFromTheFirstSuccessfulEnumeration) {
  ModuleRoot root;
  SetEventTasks(Json::Value(Json::arrayValue));
  root.WriteTexts("en", R"({"common": {"start_service": "Start service", "stop_service": "Stop service"},
                            "network": {"win_share_service": "Windows file service"}})");
  ASSERT_EQ(rmdir((root.path() + "/var/lib/orva/packages").c_str()), 0);

  const TaskSeed service = {
      .name = "svc", .app = "ORVA.VEK.TaskScheduler.Service", .appName = "#service:service_subject#",
      .action = R"(#common:start_service#: "WinShare" "Old Name")",
      .appArgs = R"({"service_action":"1","service_store":[)"
                 R"({"name":"WinShare","display_name":"","enabled":true,"service_type":1},)"
                 R"({"name":"FileXfer","display_name":"","enabled":false,"service_type":1},)"
                 R"({"name":"pkga","display_name":"Old Name","enabled":true,"service_type":2}]})"};
  const long serviceId = AddTask(service);
  ASSERT_GT(serviceId, 0);
  AddTask({.name = "beep", .app = "ORVA.VEK.TaskScheduler.Beep", .action = "WinShare #common:stop_service#"});

  // A stored action so long that the rewritten one would not fit: it stays as it is.
  TaskSeed full = service;
  full.name = "full";
  std::string head = R"(#common:start_service#: "WinShare" ")";
  full.action = head + std::string(ORVA_SCHED_ACTION_MAX - 2 - head.size(), 'p') + "\"";
  ASSERT_EQ(full.action.size(), static_cast<size_t>(ORVA_SCHED_ACTION_MAX - 1));
  ASSERT_GT(AddTask(full), 0);

  // 1. Packages cannot be enumerated: the stored action, rewritten and translated, and
  //    the two log lines.
  ClearLogs();
  Reply r = Call(2, "list", Json::Value(Json::objectValue));
  ASSERT_TRUE(r.success) << r.envelope;
  EXPECT_EQ(ActionOf(r, "svc"), R"(Start service: "Windows file service" "Old Name")");
  EXPECT_EQ(ActionOf(r, "beep"), "WinShare Stop service");
  EXPECT_EQ(ActionOf(r, "full"), "Start service" + full.action.substr(strlen("#common:start_service#")));
  EXPECT_EQ(ExpectOneLog("replace string failed"), "ORVA.Core.TaskScheduler:174 replace string failed");
  // Every service task of the listing tries the enumeration again.
  auto enumLogs = LogsWith("ORVA.Core.TaskScheduler:190 Failed to enum packages");
  ASSERT_EQ(enumLogs.size(), 2u);
  EXPECT_EQ(enumLogs[0].priority, LOG_ERR);
  ExpectOneLog("ORVA.Core.TaskScheduler:214 Unable to update service task package display names [" +
                   std::to_string(serviceId) + "]", LOG_WARNING);
  EXPECT_EQ(LogsWith(":214 Unable to update service task package display names [").size(), 2u);

  // 2. The package appears renamed: the next listing enumerates again and shows the new
  //    name; the stored task keeps the old one. Unparsable arguments fall back.
  WritePackage(root, "New Name", "1.0");
  const long brokenId = AddTask({.name = "broken", .app = service.app, .appName = service.appName,
                                 .action = "#common:stop_service#: \"WinShare\"", .appArgs = "not json"});
  ClearLogs();
  r = Call(2, "list", Json::Value(Json::objectValue));
  ASSERT_TRUE(r.success) << r.envelope;
  EXPECT_EQ(ActionOf(r, "svc"), R"(Start service: "Windows file service" "New Name")");
  EXPECT_EQ(std::string(Record(serviceId).action), R"(#common:start_service#: "WinShare" "Old Name")");
  EXPECT_EQ(ActionOf(r, "broken"), "Stop service: \"Windows file service\"");
  EXPECT_EQ(LogsWith("Failed to enum packages").size(), 0u);
  const std::string brokenTag = "[" + std::to_string(brokenId) + "]";
  ExpectOneLog("ORVA.Core.TaskScheduler:201 Failed to convert service task app args from json " + brokenTag);
  ExpectOneLog(":214 Unable to update service task package display names " + brokenTag);

  // 3. Renamed again: this process keeps what it enumerated first.
  WritePackage(root, "Newest Name", "1.1");
  r = Call(1, "list", Json::Value(Json::objectValue));
  ASSERT_TRUE(r.success) << r.envelope;
  EXPECT_EQ(ActionOf(r, "svc"), R"(Start service: "Windows file service" "New Name")");
}

}  // namespace
