// Beep test task: the scheduler tool's --beep command and its action text.
#include "ORVA.Core.TaskScheduler.Beep.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

namespace {

const long long kMaxSeconds = 600;
const long long kMinSeconds = 1;

// The form writes numbers; a new task's default is the text "60", so a decimal text
// that a client sends back is read as its number. Anything else is the JSON library's
// integer conversion (a missing member reads as 0).
long long DurationOf(const Json::Value& value) {
  if (value.isString()) {
    const std::string text = value.asString();
    char* end = nullptr;
    errno = 0;
    long long n = strtoll(text.c_str(), &end, 10);
    if (!text.empty() && end && *end == '\0' && errno == 0) {
      return n;
    }
  }
  return value.asLargestInt();
}

}  // namespace

bool TaskSchedulerBeepHandler::ConvertToJson_App(const _tag_orva_sched_task_& task, Json::Value& json) {
  Json::Value app;
  if (ORVASchedTaskIsNew(task)) {
    app["beep_duration"] = "60";
  } else {
    TaskSchedulerReadAppArgs(ORVASchedTaskGetAppArgs(task), app);
  }
  json["app"] = app;
  return true;
}

bool TaskSchedulerBeepHandler::ConvertFromJson_App(const Json::Value& json, _tag_orva_sched_task_& task) {
  ORVASchedCTaskSetEditForm(&task, "ORVA.VEK.TaskScheduler.Beep.FormPanel");
  ORVASchedCTaskSetSimpleEditForm(&task, true);
  ORVASchedCTaskSetCanEditName(&task, true);
  ORVASchedCTaskSetCanEditOwner(&task, false);
  ORVASchedCTaskSetCanRunAppSameTime(&task, true);
  ORVASchedCTaskSetListable(&task, true);
  ORVASchedCTaskSetApp(&task, "ORVA.VEK.TaskScheduler.Beep");
  ORVASchedCTaskSetAppName(&task, "#beep:beep_title#");
  ORVASchedCTaskSetAppArgs(&task, TaskSchedulerWriteAppArgs(json["app"]).c_str());

  long long duration = DurationOf(json["app"]["beep_duration"]);
  if (duration > kMaxSeconds) {
    duration = kMaxSeconds;
  }
  if (duration < kMinSeconds) {
    duration = kMinSeconds;
  }
  char digits[8] = {0};
  snprintf(digits, sizeof(digits), "%d", static_cast<int>(duration));

  const std::string action = std::string("#volume:beep_on# ") + digits + " #common:time_seconds#";
  const std::string command = std::string("/usr/orva/bin/orvaschedtool --beep ") + digits;
  ORVASchedCTaskSetAction(&task, action.c_str());
  ORVASchedCTaskSetCommand(&task, command.c_str());
  return true;
}

bool TaskSchedulerBeepHandler::GetAppEditOwnerValue() { return false; }
