// Service task: offered services and packages, the start/stop command lines and action
// text, the stored selection kept up to date with installed packages, and the form's
// round trip through get and set.
#include <gtest/gtest.h>

#include <string>

#include "ORVA.Core.TaskScheduler.Service.h"
#include "app_test_util.h"
#include "test_support.h"

namespace {

using apptest::Parse;
using apptest::Record;
using tstest::Call;
namespace ts = ORVA::Core::TaskScheduler;

void AddPackage(const tstest::TempRoot& root, const std::string& name, const std::string& manifest) {
  root.WriteFile("var/lib/orva/packages/" + name + "/package.json", manifest);
}

void RemovePackage(const tstest::TempRoot& root, const std::string& name) {
  std::string dir = root.Path() + "/var/lib/orva/packages/" + name;
  unlink((dir + "/package.json").c_str());
  rmdir(dir.c_str());
}

// Three packages: one offered with a display name, one not offered, one unreadable.
void StandardPackages(const tstest::TempRoot& root) {
  AddPackage(root, "alpha", R"({"name": "alpha", "display_name": "Alpha Pro", "service": true})");
  AddPackage(root, "beta", R"({"name": "beta", "display_name": "Beta", "service": false})");
  AddPackage(root, "gamma", "{broken");
}

std::string IdParams(long id) { return "{\"id\": " + std::to_string(id) + "}"; }

const char* const kEightServices[] = {"WinShare",    "MacShare",    "PrinterBeacon", "LoginGuard",
                                      "FileXfer",    "FileXferTls", "FileXferSsh",   "ClockServer"};

TEST(ServiceTask, NewTaskOffersBuiltinServicesThenPackages) {
  tstest::TempRoot root;
  StandardPackages(root);
  Json::Value packages(Json::arrayValue);
  ASSERT_TRUE(ts::EnumInstalledPackagesAsJson(packages));
  EXPECT_EQ(packages, Parse(R"([{"display_name": "Alpha Pro", "enabled": false, "name": "alpha", "service_type": 2},
                                {"display_name": "gamma", "enabled": false, "name": "gamma", "service_type": 2}])"));

  tstest::Reply got = Call(2, "get", Parse(R"({"id": -1, "type": "service"})"));
  ASSERT_TRUE(got.success) << got.envelope.toStyledString();
  Json::Value expected;
  expected["action"] = "stop";
  for (const char* id : kEightServices) {
    Json::Value e;
    e["type"] = "service";
    e["id"] = id;
    e["name"] = id;
    e["enable"] = false;
    expected["services"].append(e);
  }
  expected["services"].append(Parse(R"({"type": "package", "id": "alpha", "name": "Alpha Pro", "enable": false})"));
  expected["services"].append(Parse(R"({"type": "package", "id": "gamma", "name": "gamma", "enable": false})"));
  EXPECT_EQ(got.data["extra"], expected) << got.data["extra"].toStyledString();
  EXPECT_EQ(got.data["can_edit_owner"], false);
}

TEST(ServiceTask, UnixShareIsOfferedOnlyWhenConfigured) {
  const struct {
    const char* conf;
    bool offered;
  } cases[] = {
      {"", false},
      {"supportUnixShare=\"yes\"\n", true},
      {"supportUnixShare=\"YES\"\n", true},
      {"other=\"1\"\nsupportUnixShare=\"Yes\"\n", true},
      {"supportUnixShare=\"no\"\n", false},
      {"supportUnixShare=\"1\"\n", false},
      {"supportUnixShare=\"yes please\"\n", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.conf);
    tstest::TempRoot root;
    root.WriteFile("etc/orva/orva.conf", c.conf);
    _tag_orva_sched_task_ fresh = apptest::FreshRecord();
    Json::Value json;
    ASSERT_TRUE(ts::ServiceTaskAppArgsToJson(fresh, Json::Value(Json::arrayValue), json));
    const Json::Value& store = json["app"]["service_store"];
    ASSERT_EQ(store.size(), c.offered ? 9u : 8u);
    EXPECT_EQ(json["app"]["service_action"], "0");
    std::vector<std::string> ids;
    for (const Json::Value& e : store) {
      ids.push_back(e["name"].asString());
      EXPECT_EQ(e["service_type"], 1);
      EXPECT_EQ(e["enabled"], false);
      EXPECT_EQ(e["display_name"], "");
    }
    std::vector<std::string> expected(std::begin(kEightServices), std::end(kEightServices));
    if (c.offered) expected.insert(expected.begin() + 3, "UnixShare");
    EXPECT_EQ(ids, expected);
  }
}

struct FromCase {
  const char* name;
  const char* app;      // stored form
  const char* command;  // null: the conversion fails
  const char* action;
};

const FromCase kFromCases[] = {
    {"start services and a package",
     R"({"service_action": "1", "service_store": [
         {"name": "WinShare", "display_name": "", "enabled": true, "service_type": 1},
         {"name": "MacShare", "display_name": "", "enabled": false, "service_type": 1},
         {"name": "alpha", "display_name": "Alpha Pro", "enabled": true, "service_type": 2},
         {"name": "FileXfer", "display_name": "", "enabled": true, "service_type": 1}]})",
     "/usr/orva/bin/orvaschedtool --start-service WinShare FileXfer;\n/usr/orva/bin/orvapkg start alpha;\n",
     "#common:start_service#: \"WinShare\" \"Alpha Pro\" \"FileXfer\""},
    {"stop only packages",
     R"({"service_action": "0", "service_store": [
         {"name": "WinShare", "enabled": false, "service_type": 1},
         {"name": "my pkg", "display_name": "Mine", "enabled": true, "service_type": 2},
         {"name": "alpha", "display_name": "Alpha", "enabled": true, "service_type": 7}]})",
     "/usr/orva/bin/orvapkg stop my\\ pkg;\n/usr/orva/bin/orvapkg stop alpha;\n",
     "#common:stop_service#: \"Mine\" \"Alpha\""},
    {"stop one service",
     R"({"service_action": "0", "service_store": [{"name": "ClockServer", "enabled": true, "service_type": 1}]})",
     "/usr/orva/bin/orvaschedtool --stop-service ClockServer;\n", "#common:stop_service#: \"ClockServer\""},
    {"nothing enabled",
     R"({"service_action": "1", "service_store": [{"name": "WinShare", "enabled": false, "service_type": 1},
         {"name": "x", "enabled": "true", "service_type": 1}]})",
     "", "#common:start_service#:"},
    {"action 2", R"({"service_action": "2", "service_store": [{"name": "WinShare", "enabled": true, "service_type": 1}]})",
     nullptr, nullptr},
    {"action missing", R"({"service_store": [{"name": "WinShare", "enabled": true, "service_type": 1}]})", nullptr,
     nullptr},
    {"empty list", R"({"service_action": "1", "service_store": []})", nullptr, nullptr},
    {"no list", R"({"service_action": "0"})", nullptr, nullptr},
};

TEST(ServiceTask, CommandLineAndActionOfTheStoredForm) {
  tstest::TempRoot root;
  for (const FromCase& c : kFromCases) {
    SCOPED_TRACE(c.name);
    _tag_orva_sched_task_ record = apptest::FreshRecord();
    Json::Value json;
    json["app"] = Parse(c.app);
    bool ok = ts::ServiceTaskAppArgsFromJson(json, record);
    EXPECT_STREQ(record.edit_form, "ORVA.VEK.TaskScheduler.Service.FormPanel");
    EXPECT_EQ(record.can_edit_owner, 0);
    EXPECT_EQ(record.can_run_app_same_time, 0);
    EXPECT_EQ(record.can_run_task_same_time, 0);
    EXPECT_STREQ(record.app, "ORVA.VEK.TaskScheduler.Service");
    EXPECT_STREQ(record.app_name, "#service:service_subject#");
    Json::FastWriter writer;
    EXPECT_EQ(std::string(record.app_args), writer.write(json["app"]));
    if (!c.command) {
      EXPECT_FALSE(ok);
      EXPECT_STREQ(record.command, "");
      EXPECT_STREQ(record.action, "");
      continue;
    }
    EXPECT_TRUE(ok);
    EXPECT_EQ(std::string(record.command), c.command);
    EXPECT_EQ(std::string(record.action), c.action);
  }
}

TEST(ServiceTask, PackageListMustBeAnArray) {
  tstest::TempRoot root;
  _tag_orva_sched_task_ record = apptest::FreshRecord();
  Json::Value json;
  EXPECT_FALSE(ts::ServiceTaskAppArgsToJson(record, Json::Value(Json::objectValue), json));
  EXPECT_TRUE(json.isNull());
  auto lines = tstest::LogsWith("ORVA.Core.TaskScheduler.Service:");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].text.find(" Package list must be json array."), std::string::npos);
}

// The stored selection follows the installed packages: gone ones drop out, new ones join
// unselected, display names are today's.
TEST(ServiceTask, SelectionFollowsInstalledPackages) {
  tstest::TempRoot root;
  StandardPackages(root);
  Json::Value form = Parse(R"({"action": "start", "services": [{"id": "WinShare", "enable": true},
                                {"id": "alpha", "enable": true}, {"id": "gamma", "enable": true}]})");
  long id = apptest::Create("service", form);
  ASSERT_GT(id, 0);
  _tag_orva_sched_task_ r = Record(id);
  EXPECT_STREQ(r.command,
               "/usr/orva/bin/orvaschedtool --start-service WinShare;\n/usr/orva/bin/orvapkg start alpha;\n"
               "/usr/orva/bin/orvapkg start gamma;\n");
  EXPECT_STREQ(r.action, "#common:start_service#: \"WinShare\" \"Alpha Pro\" \"gamma\"");

  RemovePackage(root, "gamma");
  AddPackage(root, "alpha", R"({"name": "alpha", "display_name": "Alpha Next", "service": true})");
  AddPackage(root, "delta", R"({"name": "delta", "control": {"start": "a", "stop": "b"}})");
  AddPackage(root, "aaa", R"({"name": "aaa", "display_name": "First", "service": true})");

  tstest::Reply got = Call(2, "get", Parse(IdParams(id)));
  ASSERT_TRUE(got.success) << got.envelope.toStyledString();
  const Json::Value& services = got.data["extra"]["services"];
  EXPECT_EQ(got.data["extra"]["action"], "start");
  ASSERT_EQ(services.size(), 11u) << services.toStyledString();
  EXPECT_EQ(services[0], Parse(R"({"type": "service", "id": "WinShare", "name": "WinShare", "enable": true})"));
  EXPECT_EQ(services[8], Parse(R"({"type": "package", "id": "alpha", "name": "Alpha Next", "enable": true})"));
  // Newly installed packages follow, unselected, in enumeration order.
  EXPECT_EQ(services[9], Parse(R"({"type": "package", "id": "aaa", "name": "First", "enable": false})"));
  EXPECT_EQ(services[10], Parse(R"({"type": "package", "id": "delta", "name": "delta", "enable": false})"));

  // A set that only changes the action keeps the selection as it is now.
  Json::Value params = apptest::TaskObject("service", Parse(R"({"action": "stop"})"));
  params["id"] = static_cast<Json::Int64>(id);
  ASSERT_TRUE(Call(2, "set", params).success);
  r = Record(id);
  EXPECT_STREQ(r.command,
               "/usr/orva/bin/orvaschedtool --stop-service WinShare;\n/usr/orva/bin/orvapkg stop alpha;\n");
  EXPECT_STREQ(r.action, "#common:stop_service#: \"WinShare\" \"Alpha Next\"");
}

TEST(ServiceTask, SetMergesTheFormAndRejectsBadEntries) {
  tstest::TempRoot root;
  StandardPackages(root);
  long id = apptest::Create("service", Parse(R"({"action": "stop", "services": [{"id": "MacShare", "enable": true}]})"));
  ASSERT_GT(id, 0);
  const std::string before = Record(id).app_args;
  const struct {
    const char* form;
    bool ok;
    const char* command;  // after a successful set
  } cases[] = {
      {R"({"action": "start"})", true, "/usr/orva/bin/orvaschedtool --start-service MacShare;\n"},
      {R"({"services": [{"id": "MacShare", "enable": false}, {"id": "nosuch", "enable": true},
                        {"id": "alpha", "enable": true}]})",
       true, "/usr/orva/bin/orvapkg stop alpha;\n"},
      {R"({"services": "WinShare", "action": 3})", true, "/usr/orva/bin/orvaschedtool --stop-service MacShare;\n"},
      {R"({"services": [{"id": "WinShare", "enable": "yes"}]})", false, nullptr},
      {R"({"services": [{"id": 5, "enable": true}]})", false, nullptr},
      {R"({"services": [{"enable": true}]})", false, nullptr},
      {R"({"services": ["WinShare"]})", false, nullptr},
      {R"({"action": "restart"})", false, nullptr},
      {R"({"action": "START"})", false, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.form);
    // Start each case from the same stored task.
    tstest::TaskSpec spec;
    spec.app = "ORVA.VEK.TaskScheduler.Service";
    spec.appArgs = before;
    long taskId = tstest::AddTask(spec);
    tstest::ClearLogs();
    Json::Value params = apptest::TaskObject("service", Parse(c.form));
    params["id"] = static_cast<Json::Int64>(taskId);
    tstest::Reply set = Call(2, "set", params);
    if (c.ok) {
      ASSERT_TRUE(set.success) << set.envelope.toStyledString();
      EXPECT_STREQ(Record(taskId).command, c.command);
    } else {
      EXPECT_FALSE(set.success);
      EXPECT_EQ(set.code, 4800);
      EXPECT_EQ(set.data, Parse(R"({"msg": "invalid (app) object"})"));
      EXPECT_EQ(tstest::LogsWith("Convert task from json (app) failed.").size(), 1u);
      EXPECT_EQ(std::string(Record(taskId).app_args), before);
      EXPECT_STREQ(Record(taskId).command, "true");
    }
  }
}

TEST(ServiceTask, GetOfStoredForms) {
  tstest::TempRoot root;
  const struct {
    const char* stored;
    bool ok;
    const char* action;
  } cases[] = {
      {R"({"service_action": "2", "service_store": [{"name": "WinShare", "enabled": true, "service_type": 1}]})", true,
       "start"},
      {R"({"service_action": "0", "service_store": []})", true, "stop"},
      {"{broken", false, nullptr},          // only packages, no action: the form cannot be built
      {R"({"service_store": []})", false, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stored);
    tstest::TaskSpec spec;
    spec.app = "ORVA.VEK.TaskScheduler.Service";
    spec.appArgs = c.stored;
    long id = tstest::AddTask(spec);
    tstest::ClearLogs();
    tstest::Reply got = Call(2, "get", Parse(IdParams(id)));
    if (c.ok) {
      ASSERT_TRUE(got.success) << got.envelope.toStyledString();
      EXPECT_EQ(got.data["extra"]["action"], c.action);
    } else {
      EXPECT_FALSE(got.success);
      EXPECT_EQ(got.code, 117);
      EXPECT_EQ(got.data, Parse(R"({"msg": "Failed to convert app object"})"));
      EXPECT_EQ(tstest::LogsWith("ORVA.Core.TaskScheduler.Basic:").size(), 1u);
      EXPECT_EQ(tstest::LogsWith("Convert task from json (app) failed. [0x").size(), 1u);
    }
  }
}

TEST(ServiceTask, UnreadablePackagesFailTheGet) {
  tstest::TempRoot root;
  tstest::TaskSpec spec;
  spec.app = "ORVA.VEK.TaskScheduler.Service";
  spec.appArgs = R"({"service_action": "0", "service_store": []})";
  long id = tstest::AddTask(spec);
  rmdir((root.Path() + "/var/lib/orva/packages").c_str());
  tstest::ClearLogs();
  tstest::Reply got = Call(2, "get", Parse(IdParams(id)));
  EXPECT_FALSE(got.success);
  EXPECT_EQ(got.code, 117);
  EXPECT_EQ(got.data, Parse(R"({"msg": "Failed to convert app object"})"));
  EXPECT_EQ(tstest::LogsWith("ORVA.Core.TaskScheduler.Service:").size(), 2u);
  EXPECT_EQ(tstest::LogsWith(" init PackageManager failed").size(), 1u);
  EXPECT_EQ(tstest::LogsWith(" Failed to enum packages").size(), 1u);
  EXPECT_EQ(tstest::LogsWith("convert task to json (app) faield. id:[" + std::to_string(id) + "] [0x").size(), 1u);
}

}  // namespace
