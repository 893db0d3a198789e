// Service task: offered services and packages, the start/stop command lines and action
// text, the stored selection kept up to date with installed packages, the form's round
// trip through get and set, and listed service tasks with today's package names.
#include <unistd.h>

#include <filesystem>

#include "ORVA.Core.TaskScheduler.Service.h"
#include "test_support.h"

using namespace orvatest;

namespace {

namespace ts = ORVA::Core::TaskScheduler;

void AddPackage(const ModuleRoot& root, const std::string& name, const std::string& manifest) {
  root.Write("var/lib/orva/packages/" + name + "/package.json", manifest);
}

// Three packages: one offered with a display name, one not offered, one unreadable.
void StandardPackages(const ModuleRoot& root) {
  AddPackage(root, "alpha", R"({"name": "alpha", "display_name": "Alpha Pro", "service": true})");
  AddPackage(root, "beta", R"({"name": "beta", "display_name": "Beta", "service": false})");
  AddPackage(root, "gamma", "{broken");
}

long AddServiceTask(const std::string& appArgs) {
  return AddTask({.app = "ORVA.VEK.TaskScheduler.Service", .appArgs = appArgs});
}

// (Without "supportUnixShare" the selection below shows the other eight.)
TEST(ModuleService, NewTaskOffersBuiltinServicesThenPackages) {
  ModuleRoot root;
  root.Write("etc/orva/orva.conf", "other=\"1\"\nsupportUnixShare=\"YES\"\n");
  StandardPackages(root);
  Json::Value want = Parse(R"({"action": "stop", "services": []})");
  // Each one offered can be started and stopped through the installed services.json.
  const Json::Value installed = Parse(Slurp(std::string(ORVA_SOURCE_DIR) + "/data/etc/services.json"));
  for (const char* id : {"WinShare", "MacShare", "PrinterBeacon", "UnixShare", "LoginGuard", "FileXfer", "FileXferTls",
                         "FileXferSsh", "ClockServer"}) {
    EXPECT_TRUE(installed[id]["start"].isString() && installed[id]["stop"].isString()) << id;
    Json::Value& e = want["services"].append(Parse(R"({"type": "service", "enable": false})"));
    e["id"] = e["name"] = id;
  }
  want["services"].append(Parse(R"({"type": "package", "id": "alpha", "name": "Alpha Pro", "enable": false})"));
  want["services"].append(Parse(R"({"type": "package", "id": "gamma", "name": "gamma", "enable": false})"));
  EXPECT_EQ(Call(2, "get", R"({"id": -1, "type": "service"})").data["extra"], want);
}

// app: stored form; command (null: the conversion fails)
const struct { const char* app; const char* command; const char* action; } kFromCases[] = {
    {R"({"service_action": "1", "service_store": [{"name": "WinShare", "enabled": true, "service_type": 1},
         {"name": "alpha", "display_name": "Alpha Pro", "enabled": true, "service_type": 2},
         {"name": "MacShare", "enabled": "true", "service_type": 1}, {"name": "FileXfer", "enabled": true,
         "service_type": 1}]})",
     "/usr/orva/bin/orvaschedtool --start-service WinShare FileXfer;\n/usr/orva/bin/orvapkg start alpha;\n",
     "#common:start_service#: \"WinShare\" \"Alpha Pro\" \"FileXfer\""},
    // Only packages: no orvaschedtool part at all.
    {R"({"service_action": "0", "service_store": [{"name": "WinShare", "enabled": false, "service_type": 1},
         {"name": "my pkg", "display_name": "Mine", "enabled": true, "service_type": 2},
         {"name": "alpha", "display_name": "Alpha", "enabled": true, "service_type": 7}]})",
     "/usr/orva/bin/orvapkg stop my\\ pkg;\n/usr/orva/bin/orvapkg stop alpha;\n",
     "#common:stop_service#: \"Mine\" \"Alpha\""},
    {R"({"service_action": "2", "service_store": [{"name": "WinShare", "enabled": true, "service_type": 1}]})",
     nullptr, nullptr},
    {R"({"service_action": "1", "service_store": []})", nullptr, nullptr},
};

TEST(ModuleService, CommandLineAndActionOfTheStoredForm) {
  ModuleRoot root;
  for (const auto& c : kFromCases) {
    SCOPED_TRACE(c.app);
    _tag_orva_sched_task_ record{};
    ASSERT_TRUE(ts::InitTask(boost::none, record));
    const Json::Value json = Parse(std::string(R"({"app": )") + c.app + "}");
    EXPECT_EQ(ts::ServiceTaskAppArgsFromJson(json, record), c.command != nullptr);
    EXPECT_EQ(std::string(record.app_args), Json::FastWriter().write(json["app"]));
    EXPECT_STREQ(record.command, c.command ? c.command : "");
    EXPECT_STREQ(record.action, c.action ? c.action : "");
  }
}

// The stored selection follows the installed packages: gone ones drop out, new ones join
// unselected, display names are today's.
TEST(ModuleService, SelectionFollowsInstalledPackages) {
  ModuleRoot root;
  StandardPackages(root);
  const long id = Create("service", Parse(R"({"action": "start", "services": [
      {"id": "WinShare", "enable": true}, {"id": "alpha", "enable": true}, {"id": "gamma", "enable": true}]})"));
  EXPECT_STREQ(Record(id).command, "/usr/orva/bin/orvaschedtool --start-service WinShare;\n"
                                   "/usr/orva/bin/orvapkg start alpha;\n/usr/orva/bin/orvapkg start gamma;\n");

  std::filesystem::remove_all(root.path() + "/var/lib/orva/packages/gamma");
  AddPackage(root, "alpha", R"({"name": "alpha", "display_name": "Alpha Next", "service": true})");
  AddPackage(root, "delta", R"({"name": "delta", "control": {"start": "a", "stop": "b"}})");
  AddPackage(root, "aaa", R"({"name": "aaa", "display_name": "First", "service": true})");
  const Json::Value services = GetTask(id)["extra"]["services"];
  ASSERT_EQ(services.size(), 11u) << services.toStyledString();  // eight services, alpha, aaa, delta
  EXPECT_EQ(services[0], Parse(R"({"type": "service", "id": "WinShare", "name": "WinShare", "enable": true})"));
  EXPECT_EQ(services[8], Parse(R"({"type": "package", "id": "alpha", "name": "Alpha Next", "enable": true})"));
  // Newly installed packages follow, unselected, in enumeration order.
  EXPECT_EQ(services[9], Parse(R"({"type": "package", "id": "aaa", "name": "First", "enable": false})"));
  EXPECT_EQ(services[10], Parse(R"({"type": "package", "id": "delta", "name": "delta", "enable": false})"));

  // A set that only changes the action keeps the selection as it is now.
  EXPECT_TRUE(Call(2, "set", TaskObject("service", Parse(R"({"action": "stop"})"), id)).success);
  EXPECT_STREQ(Record(id).command,
               "/usr/orva/bin/orvaschedtool --stop-service WinShare;\n/usr/orva/bin/orvapkg stop alpha;\n");
  EXPECT_STREQ(Record(id).action, "#common:stop_service#: \"WinShare\" \"Alpha Next\"");
}

TEST(ModuleService, SetMergesTheFormAndRejectsBadEntries) {
  ModuleRoot root;
  StandardPackages(root);
  const Json::Value form = Parse(R"({"action": "stop", "services": [{"id": "MacShare", "enable": true}]})");
  const std::string before = Record(Create("service", form)).app_args;
  const std::pair<const char*, const char*> cases[] = {  // form, command after it (null: refused)
      {R"({"services": [{"id": "MacShare", "enable": false}, {"id": "nosuch", "enable": true},
                        {"id": "alpha", "enable": true}]})",
       "/usr/orva/bin/orvapkg stop alpha;\n"},
      {R"({"services": "WinShare", "action": 3})", "/usr/orva/bin/orvaschedtool --stop-service MacShare;\n"},
      {R"({"services": [{"id": "WinShare", "enable": "yes"}]})", nullptr},
      {R"({"action": "START"})", nullptr},
  };
  for (const auto& [form, command] : cases) {
    SCOPED_TRACE(form);
    const long id = AddServiceTask(before);  // each case starts from the same stored task
    gLogs.clear();
    const Reply set = Call(2, "set", TaskObject("service", Parse(form), id));
    if (command) {
      EXPECT_TRUE(set.success) << set.envelope;
      EXPECT_STREQ(Record(id).command, command);
      continue;
    }
    ExpectReply(set, 4800, "invalid (app) object");
    EXPECT_TRUE(Record(id).app_args == before && std::string(Record(id).command).empty());
  }
}

// Stored forms that cannot be shown, or packages that cannot be enumerated, fail the get.
TEST(ModuleService, GetOfStoredForms) {
  ModuleRoot root;
  const long shown = AddServiceTask(R"({"service_action": "2", "service_store": []})");
  EXPECT_EQ(GetTask(shown)["extra"]["action"], "start");
  const long broken = AddServiceTask("{broken");
  ExpectReply(Call(2, "get", IdParams(broken)), 117, "Failed to convert app object");
  ExpectOneLog("Convert task from json (app) failed. [0x");
  rmdir((root.path() + "/var/lib/orva/packages").c_str());
  ExpectReply(Call(2, "get", IdParams(shown)), 117, "Failed to convert app object");
  ExpectOneLog("convert task to json (app) faield. id:[" + std::to_string(shown) + "] [0x");
}

// Listed service tasks show today's package display names from the process-wide package
// cache, filled by the first successful enumeration (only listings fill it), and the text
// of "WinShare".
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
                 R"({"name":"pkga","display_name":"Old Name","enabled":true,"service_type":2}]})"};
  const long serviceId = AddTask(service);
  AddTask({.name = "beep", .app = "ORVA.VEK.TaskScheduler.Beep", .action = "WinShare #common:stop_service#"});
  // A stored action so long that the rewritten one would not fit: it stays as it is.
  TaskSeed full = service;
  full.name = "full";
  const std::string head = R"(#common:start_service#: "WinShare" ")";
  full.action = head + std::string(ORVA_SCHED_ACTION_MAX - 2 - head.size(), 'p') + "\"";
  ASSERT_GT(AddTask(full), 0);

  // 1. Packages cannot be enumerated: the stored action, rewritten and translated; every
  //    service task of the listing tries the enumeration again.
  gLogs.clear();
  Json::Value tasks = Call(2, "list", R"({"sort_by": "name"})").data["tasks"];  // beep, full, svc
  EXPECT_EQ(tasks[2]["action"], R"(Start service: "Windows file service" "Old Name")");
  EXPECT_EQ(tasks[0]["action"], "WinShare Stop service");
  EXPECT_EQ(tasks[1]["action"], "Start service" + full.action.substr(strlen("#common:start_service#")));
  EXPECT_EQ(ExpectOneLog("replace string failed"), "ORVA.Core.TaskScheduler:174 replace string failed");
  EXPECT_EQ(LogsWith("ORVA.Core.TaskScheduler:190 Failed to enum packages").size(), 2u);
  ExpectOneLog("ORVA.Core.TaskScheduler:214 Unable to update service task package display names [" +
                   std::to_string(serviceId) + "]", LOG_WARNING);

  // 2. The package appears renamed: the next listing enumerates again and shows the new
  //    name; the stored task keeps the old one.
  root.Write("var/lib/orva/packages/pkga/package.json", R"({"name": "pkga", "display_name": "New Name",
                                                          "service": true})");
  gLogs.clear();
  tasks = Call(2, "list", R"({"sort_by": "name"})").data["tasks"];
  EXPECT_EQ(tasks[2]["action"], R"(Start service: "Windows file service" "New Name")");
  EXPECT_STREQ(Record(serviceId).action, service.action.c_str());
  EXPECT_EQ(LogsWith("Failed to enum packages").size(), 0u);
}

}  // namespace
