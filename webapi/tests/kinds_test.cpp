// The kinds' command lines, action texts and stored arguments. Beep and script. Recycle
// bin: the flat object, the form's round trip and switching the bins on against a real
// shares.json. Service: offered services and packages, the selection kept up to date with
// installed packages, the form's round trip through get and set, and listed service tasks
// with today's package names.
#include <unistd.h>

#include <filesystem>

#include "ORVA.Core.TaskScheduler.Recycle.h"
#include "ORVA.Core.TaskScheduler.Service.h"
#include "test_support.h"

using namespace orvatest;

namespace {

namespace ts = ORVA::Core::TaskScheduler;

// The beep's duration is clamped in command and action but stored as sent; values that
// are no duration, no script, or an "extra" that is no object fail with 4800.
TEST(ModuleBeepScript, BeepDurationIsClampedButStoredAsSentAndBadValuesAreRefused) {
  ModuleRoot root;
  const std::pair<const char*, const char*> cases[] = {  // duration, seconds (null: refused)
      {"0", "1"},     {"1", "1"},          {"600", "600"},          {"601", "600"},
      {"\"60\"", "60"}, {"-2147483649", "1"}, {"99999999999", "600"}, {nullptr, "1"},  // missing: 0, so one second
      {"\"5s\"", nullptr}, {"1e300", nullptr}, {"[5]", nullptr},
  };
  for (const auto& [duration, seconds] : cases) {
    SCOPED_TRACE(duration ? duration : "missing");
    Json::Value extra(Json::objectValue);
    if (duration) extra["beep_duration"] = ParseJson(duration);
    if (!seconds) {
      EXPECT_EQ(Call(2, "create", TaskObject("beep", extra)).code, 4800);
      continue;
    }
    const _tag_orva_sched_task_ r = Record(Create("beep", extra));
    EXPECT_EQ(std::vector<std::string>({r.command, r.action, r.app_args}),
              std::vector<std::string>({std::string("/usr/orva/bin/orvaschedtool --beep ") + seconds,
                                        std::string("#volume:beep_on# ") + seconds + " #common:time_seconds#",
                                        Json::FastWriter().write(extra)}));
  }
  for (const char* extra : {R"({"script": 5})", R"({"script": null})", R"("x")"}) {
    EXPECT_EQ(Call(2, "create", TaskObject("script", ParseJson(extra))).code, 4800) << extra;
  }
  EXPECT_EQ(StoredCount(), 8);
}

TEST(ModuleBeepScript, ScriptCommandIsTheScriptByteForByte) {
  ModuleRoot root;
  for (const std::string script : {"", "#!/bin/sh\nset -e\necho \"$HOME\" 'x y' `date`\n\tcd /tmp\n",
                                   "echo 'Grüße #common:run# 100%' > /tmp/x"}) {
    SCOPED_TRACE(script);
    Json::Value extra;
    extra["script"] = script;
    extra["note"] = "kept";  // any other key survives the round trip
    const _tag_orva_sched_task_ r = Record(Create("script", extra));
    EXPECT_EQ(std::vector<std::string>({r.command, r.action, r.app_args}),
              std::vector<std::string>({script, "#common:run#: " + script, Json::FastWriter().write(extra)}));
  }
  // Stored arguments that are not JSON still get without an error.
  EXPECT_EQ(GetTask(AddTask({.appArgs = "{not json"}))["type"], "script");
}

const char kAll[] = "#share:share_clean_all_recycle_bin#";

const struct FlatCase {
  const char* app;      // the flat object
  const char* command;  // after the program; null: the conversion fails
  const char* action;   // the action text, or the failure's log text
} kFlatCases[] = {
    {R"({"recycle_action": "1", "clean_all": "yes"})", " --enable", kAll},
    {R"({"recycle_action": "0", "clean_all": "no", "selected_shares": ["a b"]})", " --disable a\\ b",
     "#share:share_disable_recycle_bin#: \"a b\""},
    {R"({"recycle_action": "1", "clean_all": "no", "selected_shares": ["x", "y$z"]})", " --enable x y\\$z",
     "#share:share_enable_recycle_bin#: \"x\" \"y$z\""},
    {R"({"recycle_action": "2", "clean_all": "yes", "clean_policy": "clean_policy_by_time",
         "clean_policy_by_time_day": "30"})", " --clean -t 30", kAll},
    {R"({"recycle_action": "2", "clean_policy": "clean_policy_by_size", "clean_policy_by_size_MB_number": "4096",
         "clean_policy_by_size_sort_type": "Delete large files first"})", " --clean -s 4294967296 -o 2", kAll},
    // Policies and exceptions are ignored when enabling.
    {R"({"recycle_action": "1", "clean_policy": "clean_policy_by_size", "clean_policy_by_size_MB_number": "5",
         "advconfig": {"reserve_policy_extension_check": "on", "reserve_policy_extension": [{"file_ext": "a"}],
                       "reserve_policy_size_greater_check": "on", "reserve_policy_size_greater": "1"}})",
     " --enable", kAll},
    {R"({"recycle_action": "2", "advconfig": {"reserve_policy_size_smaller_check": "on",
         "reserve_policy_size_smaller": "2", "reserve_policy_size_greater_check": "on",
         "reserve_policy_size_greater": "-1"}})", " --clean -m 18446744073708503040 -l 2097152", kAll},
    {R"({"recycle_action": "3", "clean_all": "yes"})", nullptr,
     "error recycle_action, json app={\"clean_all\":\"yes\",\"recycle_action\":\"3\"}"},
    {R"({"recycle_action": "2", "clean_all": "no", "selected_shares": []})", nullptr,
     "error selected_shares, json app="},
    // A name that is empty, not a share, or option-like never reaches the command line.
    {R"({"recycle_action": "2", "clean_all": "no", "selected_shares": ["--root=/elsewhere"]})", nullptr,
     "not a shared folder"},
    {R"({"recycle_action": "2", "clean_all": "no", "selected_shares": ["-t"]})", nullptr, "not a shared folder"},
};

TEST(ModuleRecycle, CommandLineAndActionOfTheFlatObject) {
  ModuleRoot root;
  root.Write("etc/orva/shares.json", R"([{"name": "docs"}, {"name": "media"}, {"name": "a b"}, {"name": "x"},
                                             {"name": "y$z"}, {"name": "-t"}])");
  for (const FlatCase& c : kFlatCases) {
    SCOPED_TRACE(c.app);
    gLogs.clear();
    ORVA::APIRequest request("ORVA.Core.TaskScheduler", 2, "set", Json::Value(Json::objectValue), "admin", "en");
    ORVA::APIResponse response;
    TaskSchedulerRecycleHandler handler(&request, &response, boost::none);
    _tag_orva_sched_task_ record{};
    ASSERT_TRUE(ts::InitTask(boost::none, record));
    EXPECT_EQ(handler.ConvertFromJson_App(ParseJson(std::string(R"({"app": )") + c.app + "}"), record), !!c.command);
    EXPECT_EQ(std::string(record.command), c.command ? std::string("/usr/orva/bin/orvarecycle") + c.command : "");
    EXPECT_EQ(std::string(record.action), c.command ? c.action : "");
    EXPECT_EQ(gLogs.size(), c.command ? 0u : 1u);
    if (!c.command) { EXPECT_TRUE(ExpectOneLog(c.action, LOG_ERR).starts_with("ORVA.Core.TaskScheduler.Recycle:")); }
  }
}

// The shares of the root's shares.json whose recycle bin is on, blank-separated.
std::string BinsOn(const ModuleRoot& root) {
  std::string out;
  for (const Json::Value& s : ParseJson(root.Read("/etc/orva/shares.json"))) {
    if (s["recycle_bin"].asBool()) out += (out.empty() ? "" : " ") + s["name"].asString();
  }
  return out;
}

// The form a create sends comes back from get, and "enableRecycle" switches the bins on at
// once (the chosen shares, or all) without being stored. Sets in turn merge their form into
// the stored flat object (values of the wrong type are skipped); one that the kind refuses
// keeps the task.
TEST(ModuleRecycle, FormRoundTripAndMergingSets) {
  ModuleRoot root;
  root.Write("etc/orva/shares.json", R"([{"name": "docs", "path": "/srv/docs", "recycle_bin": false},
                                         {"name": "home", "path": "/home", "recycle_bin": false},
                                         {"name": "web", "path": "/srv/web", "recycle_bin": false}])");
  const Json::Value form = ParseJson(R"({"clean_share_policy": {"clean_all": false, "shares": ["docs", "web"]},
      "clean_file_policy": {"policy": "size", "size": 100, "sort_type": 0,
        "reserve_policy": {"size_greater_check": true, "size_greater": 5, "size_smaller_check": true, "size_smaller": 1,
                           "extension_check": true, "extension": [{"file_ext": "doc"}, {"file_ext": "pdf"}]}}})");
  const long id = Create("recycle", Merged(form, ParseJson(R"({"enableRecycle": "select"})")));
  EXPECT_EQ(BinsOn(root), "docs web");
  EXPECT_STREQ(Record(id).action, "#schedule:clean_recycle_bin#: \"docs\" \"web\"");
  EXPECT_EQ(std::string(Record(id).app_args).find("enableRecycle"), std::string::npos) << Record(id).app_args;
  EXPECT_EQ(GetTask(id)["extra"], form);
  Create("recycle", ParseJson(R"({"enableRecycle": "all_include_home"})"));  // every share and the home folders
  EXPECT_EQ(BinsOn(root), "docs home web");

  const std::string all = " --clean -s 104857600 -o 1 -file_ext=doc.pdf -l 1048576";
  const std::pair<const char*, std::string> sets[] = {  // form sent, the command after it
      {"{}", " --clean docs web -s 104857600 -o 2 -file_ext=doc.pdf -m 5242880 -l 1048576"},
      {R"({"clean_file_policy": {"policy": "time", "time": 14, "reserve_policy": {"size_greater_check": false}}})",
       " --clean docs web -t 14 -file_ext=doc.pdf -l 1048576"},
      {R"({"clean_share_policy": {"clean_all": true, "shares": "x"},
          "clean_file_policy": {"policy": "size", "size": "9", "sort_type": 1}})", all},
      {R"({"clean_share_policy": [true], "clean_file_policy": "size"})", all},
      {R"({"clean_share_policy": {"clean_all": false, "shares": []}})", all},  // refused: kept
  };
  for (size_t i = 0; i < std::size(sets); ++i) {
    const Reply r = Call(2, "set", TaskObject("recycle", ParseJson(sets[i].first), id));
    const bool refused = i + 1 == std::size(sets);
    EXPECT_TRUE(refused ? r.code == 117 && r.data["msg"] == "Invalid (app) object" : r.success) << r.envelope;
    EXPECT_EQ(Record(id).command, "/usr/orva/bin/orvarecycle" + sets[i].second) << sets[i].first;
  }
  // Characters that may not be in a kept extension: refused, the task kept.
  for (const char* ext : {"tar.gz", "a b", "^", "\\", "?", "/", ":", "*", "`", "$", "\"", ">", "<", "|"}) {
    Json::Value sent = ParseJson(R"({"clean_file_policy": {"reserve_policy": {"extension_check": true}}})");
    sent["clean_file_policy"]["reserve_policy"]["extension"][0]["file_ext"] = ext;
    ExpectReply(Call(2, "set", TaskObject("recycle", sent, id)), 4800, "invalid (app) object");
  }
  EXPECT_EQ(Record(id).command, "/usr/orva/bin/orvarecycle" + all);
}

void AddPackage(const ModuleRoot& root, const std::string& name, const std::string& manifest) {
  root.Write("var/lib/orva/packages/" + name + "/package.json", manifest);
}

// Three packages: one offered with a display name, one not offered, one unreadable.
void StandardPackages(const ModuleRoot& root) {
  AddPackage(root, "alpha", R"({"name": "alpha", "display_name": "Alpha Pro", "service": true})");
  AddPackage(root, "beta", R"({"name": "beta", "display_name": "Beta", "service": false})");
  AddPackage(root, "gamma", "{broken");
}

// (Without "supportUnixShare" the selection below shows the other eight.)
TEST(ModuleService, NewTaskOffersBuiltinServicesThenPackages) {
  ModuleRoot root;
  root.Write("etc/orva/orva.conf", "other=\"1\"\nsupportUnixShare=\"YES\"\n");
  StandardPackages(root);
  Json::Value want = ParseJson(R"({"action": "stop", "services": []})");
  // Each one offered can be started and stopped through the installed services.json.
  const Json::Value installed = ParseJson(Slurp(std::string(ORVA_SOURCE_DIR) + "/data/etc/services.json"));
  for (const char* id : {"WinShare", "MacShare", "PrinterBeacon", "UnixShare", "LoginGuard", "FileXfer", "FileXferTls",
                         "FileXferSsh", "ClockServer"}) {
    EXPECT_TRUE(installed[id]["start"].isString() && installed[id]["stop"].isString()) << id;
    Json::Value& e = want["services"].append(ParseJson(R"({"type": "service", "enable": false})"));
    e["id"] = e["name"] = id;
  }
  want["services"].append(ParseJson(R"({"type": "package", "id": "alpha", "name": "Alpha Pro", "enable": false})"));
  want["services"].append(ParseJson(R"({"type": "package", "id": "gamma", "name": "gamma", "enable": false})"));
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
    const Json::Value json = ParseJson(std::string(R"({"app": )") + c.app + "}");
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
  const long id = Create("service", ParseJson(R"({"action": "start", "services": [
      {"id": "WinShare", "enable": true}, {"id": "alpha", "enable": true}, {"id": "gamma", "enable": true}]})"));
  EXPECT_STREQ(Record(id).command, "/usr/orva/bin/orvaschedtool --start-service WinShare;\n"
                                   "/usr/orva/bin/orvapkg start alpha;\n/usr/orva/bin/orvapkg start gamma;\n");

  std::filesystem::remove_all(root.path() + "/var/lib/orva/packages/gamma");
  AddPackage(root, "alpha", R"({"name": "alpha", "display_name": "Alpha Next", "service": true})");
  AddPackage(root, "delta", R"({"name": "delta", "control": {"start": "a", "stop": "b"}})");
  AddPackage(root, "aaa", R"({"name": "aaa", "display_name": "First", "service": true})");
  const Json::Value services = GetTask(id)["extra"]["services"];
  ASSERT_EQ(services.size(), 11u) << services.toStyledString();  // eight services, alpha, aaa, delta
  EXPECT_EQ(services[0], ParseJson(R"({"type": "service", "id": "WinShare", "name": "WinShare", "enable": true})"));
  EXPECT_EQ(services[8], ParseJson(R"({"type": "package", "id": "alpha", "name": "Alpha Next", "enable": true})"));
  // Newly installed packages follow, unselected, in enumeration order.
  EXPECT_EQ(services[9], ParseJson(R"({"type": "package", "id": "aaa", "name": "First", "enable": false})"));
  EXPECT_EQ(services[10], ParseJson(R"({"type": "package", "id": "delta", "name": "delta", "enable": false})"));

  // A set that only changes the action keeps the selection as it is now.
  EXPECT_TRUE(Call(2, "set", TaskObject("service", ParseJson(R"({"action": "stop"})"), id)).success);
  EXPECT_STREQ(Record(id).command,
               "/usr/orva/bin/orvaschedtool --stop-service WinShare;\n/usr/orva/bin/orvapkg stop alpha;\n");
  EXPECT_STREQ(Record(id).action, "#common:stop_service#: \"WinShare\" \"Alpha Next\"");
}

TEST(ModuleService, SetMergesTheFormAndRejectsBadEntries) {
  ModuleRoot root;
  StandardPackages(root);
  const Json::Value form = ParseJson(R"({"action": "stop", "services": [{"id": "MacShare", "enable": true}]})");
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
    // Each case starts from the same stored task.
    const long id = AddTask({.app = "ORVA.VEK.TaskScheduler.Service", .appArgs = before});
    const Reply set = Call(2, "set", TaskObject("service", ParseJson(form), id));
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
  const std::string app = "ORVA.VEK.TaskScheduler.Service";
  const long shown = AddTask({.app = app, .appArgs = R"({"service_action": "2", "service_store": []})"});
  EXPECT_EQ(GetTask(shown)["extra"]["action"], "start");
  const long broken = AddTask({.app = app, .appArgs = "{broken"});
  ExpectReply(Call(2, "get", IdParams(broken)), 117, "Failed to convert app object");
  rmdir((root.path() + "/var/lib/orva/packages").c_str());
  ExpectReply(Call(2, "get", IdParams(shown)), 117, "Failed to convert app object");
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
}

}  // namespace
