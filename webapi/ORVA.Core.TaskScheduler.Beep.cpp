// Beep test task: the scheduler tool's --beep command and its action text.
#include "ORVA.Core.TaskScheduler.Beep.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

namespace {

const long long kMaxSeconds = 600;
const long long kMinSeconds = 1;

// The form writes numbers; a new task's default is the text "60", so a decimal text
// that a client sends back is read as its number. A missing member reads as 0. Any
// other value (a number out of range, other text, an array) is not a duration.
bool DurationOf(const Json::Value& value, long long& out) {
  if (value.isString()) {
    const std::string text = value.asString();
    char* end = nullptr;
    errno = 0;
    long long n = strtoll(text.c_str(), &end, 10);
    if (!text.empty() && end && *end == '\0' && errno == 0) {
      out = n;
      return true;
    }
    return false;
  }
  if (value.isNull() || value.isBool() || value.isInt64()) {
    out = value.isNull() ? 0 : value.asLargestInt();
    return true;
  }
  // A real within the 64-bit range counts by its whole part (NaN fails both tests).
  if (value.isDouble() && value.asDouble() > -9.2e18 && value.asDouble() < 9.2e18) {
    out = static_cast<long long>(value.asDouble());
    return true;
  }
  return false;
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

  long long duration = 0;
  if (!DurationOf(json["app"]["beep_duration"], duration)) {
    SetError(4800, "beep_duration must be a number of seconds");
    return false;
  }
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
