// User-defined script task: the typed command line runs as it stands.
#include "ORVA.Core.TaskScheduler.Script.h"

bool TaskSchedulerScriptHandler::ConvertToJson_App(const _tag_orva_sched_task_& task, Json::Value& json) {
  Json::Value app;
  if (ORVASchedTaskIsNew(task)) {
    app["script"] = "";
  } else {
    TaskSchedulerReadAppArgs(ORVASchedTaskGetAppArgs(task), app);
  }
  json["app"] = app;
  return true;
}

bool TaskSchedulerScriptHandler::ConvertFromJson_App(const Json::Value& json, _tag_orva_sched_task_& task) {
  ORVASchedCTaskSetEditForm(&task, "ORVA.VEK.TaskScheduler.Script.FormPanel");
  ORVASchedCTaskSetSimpleEditForm(&task, true);
  ORVASchedCTaskSetCanEditName(&task, true);
  ORVASchedCTaskSetCanEditOwner(&task, true);
  ORVASchedCTaskSetCanRunTaskSameTime(&task, false);
  ORVASchedCTaskSetCanRunAppSameTime(&task, true);
  ORVASchedCTaskSetListable(&task, true);
  ORVASchedCTaskSetAppName(&task, "#common:command_line#");
  ORVASchedCTaskSetApp(&task, "ORVA.VEK.TaskScheduler.Script");
  ORVASchedCTaskSetAppArgs(&task, TaskSchedulerWriteAppArgs(json["app"]).c_str());

  if (!json["app"]["script"].isString()) {
    SetError(4800, "script must be a string");
    return false;
  }
  const std::string action = "#common:run#: " + json["app"]["script"].asString();
  ORVASchedCTaskSetAction(&task, action.c_str());
  ORVASchedCTaskSetCommand(&task, json["app"]["script"].asCString());
  return true;
}

bool TaskSchedulerScriptHandler::GetAppEditOwnerValue() { return true; }
