// Service task: the offered built-in services and packages, the stored selection, the
// start/stop command lines and action text, and the UI's form of the selection.
#include "ORVA.Core.TaskScheduler.Service.h"

#include <strings.h>
#include <syslog.h>

#include <memory>
#include <unordered_map>
#include <vector>

#include "core/conf.h"
#include "lib.h"
#include "pkg/package_manager.h"

namespace {

const char kSrc[] = "ORVA.Core.TaskScheduler.Service";
const int kTypeService = 1;
const int kTypePackage = 2;
const unsigned long long kAllPackages = ~0ULL;

struct BuiltinService {
  const char* id;
  const char* confKey;  // offered only when this key says "yes"; null: always
};

const BuiltinService kBuiltinServices[] = {
    {"WinShare", nullptr},    {"MacShare", nullptr}, {"PrinterBeacon", nullptr},
    {"UnixShare", "supportUnixShare"}, {"LoginGuard", nullptr}, {"FileXfer", nullptr},
    {"FileXferTls", nullptr}, {"FileXferSsh", nullptr}, {"ClockServer", nullptr},
};

bool IsBuiltin(const Json::Value& entry) {
  const Json::Value& type = entry["service_type"];
  return type.isInt() && type.asInt() == kTypeService;
}

}  // namespace

namespace ORVA {
namespace Core {
namespace TaskScheduler {

bool EnumInstalledPackagesAsJson(Json::Value& out) {
  ORVAPackageTool::PackageManager manager;
  if (!manager.init()) {
    syslog(LOG_ERR, "%s:%d init PackageManager failed", kSrc, __LINE__);
    return false;
  }
  for (const std::string& name : manager.enumPackages(nullptr, kAllPackages)) {
    ORVAPackageTool::PackageInfo info;
    std::string displayName;
    if (manager.getPackageInfo(name, info, nullptr, kAllPackages)) {
      if (!info.service) {
        continue;
      }
      displayName = info.displayName;
    } else {
      displayName = name;
    }
    Json::Value entry;
    entry["display_name"] = displayName;
    entry["enabled"] = false;
    entry["name"] = name;
    entry["service_type"] = kTypePackage;
    out.append(entry);
  }
  return true;
}

bool ServiceTaskAppArgsToJson(const _tag_orva_sched_task_& task, const Json::Value& packages, Json::Value& json) {
  if (!packages.isArray()) {
    syslog(LOG_ERR, "%s:%d Package list must be json array.", kSrc, __LINE__);
    return false;
  }

  Json::Value app;
  if (ORVASchedTaskIsNew(task)) {
    Json::Value store(Json::arrayValue);
    std::unique_ptr<OrvaConf> conf;
    for (const BuiltinService& service : kBuiltinServices) {
      if (service.confKey) {
        if (!conf) {
          conf = std::make_unique<OrvaConf>();
        }
        if (0 != strcasecmp(conf->Def(service.confKey, "no").c_str(), "yes")) {
          continue;
        }
      }
      Json::Value entry;
      entry["enabled"] = false;
      entry["name"] = service.id;
      entry["service_type"] = kTypeService;
      entry["display_name"] = "";
      store.append(entry);
    }
    for (const Json::Value& package : packages) {
      store.append(package);
    }
    app["service_store"] = store;
    app["service_action"] = "0";
  } else {
    if (!TaskSchedulerReadAppArgs(ORVASchedTaskGetAppArgs(task), app) || !app.isObject()) {
      app = Json::Value(Json::objectValue);
    }
    std::unordered_map<std::string, Json::Value> installed;
    for (const Json::Value& package : packages) {
      installed[package["name"].asString()] = package;
    }
    Json::Value store(Json::arrayValue);
    const Json::Value& stored = app["service_store"];
    for (Json::ArrayIndex i = 0; i < stored.size(); ++i) {
      const Json::Value& entry = stored[i];
      if (IsBuiltin(entry)) {
        store.append(entry);
        continue;
      }
      auto found = installed.find(entry["name"].asString());
      if (found == installed.end()) {
        continue;  // uninstalled, or no longer offered
      }
      Json::Value kept = entry;
      kept["display_name"] = found->second["display_name"];
      store.append(kept);
      installed.erase(found);
    }
    // Packages installed since the task was saved join unselected, in enumeration order.
    for (const Json::Value& package : packages) {
      if (installed.count(package["name"].asString())) {
        store.append(package);
        installed.erase(package["name"].asString());
      }
    }
    app["service_store"] = store;
  }
  json["app"] = app;
  return true;
}

bool ServiceTaskAppArgsFromJson(const Json::Value& json, _tag_orva_sched_task_& task) {
  const Json::Value& app = json["app"];
  ORVASchedCTaskSetEditForm(&task, "ORVA.VEK.TaskScheduler.Service.FormPanel");
  ORVASchedCTaskSetCanEditOwner(&task, false);
  ORVASchedCTaskSetCanRunAppSameTime(&task, false);
  ORVASchedCTaskSetCanRunTaskSameTime(&task, false);
  ORVASchedCTaskSetApp(&task, "ORVA.VEK.TaskScheduler.Service");
  ORVASchedCTaskSetAppName(&task, "#service:service_subject#");
  ORVASchedCTaskSetAppArgs(&task, TaskSchedulerWriteAppArgs(app).c_str());

  std::string action;
  std::string serviceCommand = "/usr/orva/bin/orvaschedtool";
  std::string packageVerb;
  const std::string serviceAction = app["service_action"].asString();
  if (serviceAction == "1") {
    action = "#common:start_service#:";
    serviceCommand += " --start-service";
    packageVerb = " start ";
  } else if (serviceAction == "0") {
    action = "#common:stop_service#:";
    serviceCommand += " --stop-service";
    packageVerb = " stop ";
  } else {
    return false;
  }

  const Json::Value& store = app["service_store"];
  if (store.empty()) {
    return false;
  }
  bool anyService = false;
  std::string packageCommands;
  for (Json::ArrayIndex i = 0; i < store.size(); ++i) {
    const Json::Value& entry = store[i];
    if (!(entry["enabled"].isBool() && entry["enabled"].asBool())) {
      continue;
    }
    const std::string name = entry["name"].asString();
    if (IsBuiltin(entry)) {
      action += " \"" + name + "\"";
      serviceCommand += " " + EscapeShellName(name);
      anyService = true;
    } else {
      action += " \"" + entry["display_name"].asString() + "\"";
      packageCommands += "/usr/orva/bin/orvapkg" + packageVerb + EscapeShellName(name) + ";\n";
    }
  }

  std::string command;
  if (anyService) {
    command = serviceCommand + ";\n";
  }
  command += packageCommands;
  ORVASchedCTaskSetAction(&task, action.c_str());
  ORVASchedCTaskSetCommand(&task, command.c_str());
  return true;
}

}  // namespace TaskScheduler
}  // namespace Core
}  // namespace ORVA

bool TaskSchedulerServiceHandler::ConvertToJson_App(const _tag_orva_sched_task_& task, Json::Value& json) {
  Json::Value packages(Json::arrayValue);
  if (!ORVA::Core::TaskScheduler::EnumInstalledPackagesAsJson(packages)) {
    syslog(LOG_ERR, "%s:%d Failed to enum packages", kSrc, __LINE__);
    return false;
  }
  return ORVA::Core::TaskScheduler::ServiceTaskAppArgsToJson(task, packages, json);
}

bool TaskSchedulerServiceHandler::ConvertFromJson_App(const Json::Value& json, _tag_orva_sched_task_& task) {
  return ORVA::Core::TaskScheduler::ServiceTaskAppArgsFromJson(json, task);
}

bool TaskSchedulerServiceHandler::ReConstructJsonGet_App(Json::Value& app) {
  const Json::Value& view = app;
  if (!view["service_store"].isArray() || !view["service_action"].isString()) {
    return false;
  }
  app["services"] = app["service_store"];
  app["action"] = app["service_action"].asString() == "0" ? "stop" : "start";
  app.removeMember("service_store");
  app.removeMember("service_action");

  Json::Value& services = app["services"];
  for (Json::ArrayIndex i = 0; i < services.size(); ++i) {
    Json::Value& entry = services[i];
    const bool builtin = IsBuiltin(entry);
    const Json::Value& type = entry["service_type"];
    entry["type"] = builtin ? "service" : "package";
    entry["id"] = entry["name"];
    if (type.isInt() && type.asInt() == kTypePackage) {
      entry["name"] = entry["display_name"];
    }
    entry["enable"] = entry["enabled"];
    entry.removeMember("enabled");
    entry.removeMember("display_name");
    entry.removeMember("service_type");
  }
  return true;
}

bool TaskSchedulerServiceHandler::ReConstructJsonSet_App(Json::Value& app) {
  Json::Value orig;
  if (!GetOriginAppObj(orig)) {
    return false;
  }
  const Json::Value& view = app;
  if (view.isMember("action") && view["action"].isString()) {
    const std::string action = view["action"].asString();
    if (action == "stop") {
      orig["service_action"] = "0";
    } else if (action == "start") {
      orig["service_action"] = "1";
    } else {
      return false;
    }
  }
  if (view.isMember("services") && view["services"].isArray()) {
    const Json::Value& services = view["services"];
    Json::Value& store = orig["service_store"];
    for (Json::ArrayIndex i = 0; i < services.size(); ++i) {
      const Json::Value& wanted = services[i];
      if (!wanted.isObject() || !wanted["id"].isString() || !wanted["enable"].isBool()) {
        return false;
      }
      for (Json::ArrayIndex j = 0; j < store.size(); ++j) {
        if (store[j]["name"] == wanted["id"]) {
          store[j]["enabled"] = wanted["enable"].asBool();
        }
      }
    }
  }
  app = orig;
  return true;
}

bool TaskSchedulerServiceHandler::GetAppEditOwnerValue() { return false; }
