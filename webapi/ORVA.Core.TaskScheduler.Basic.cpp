// The handler of "get", "set" and "create": reads a task into the UI's task object and
// rebuilds a task from it. The kind-specific "app" part goes through the five virtual
// operations, which do nothing here.
#include "ORVA.Core.TaskScheduler.Basic.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>

#include <utility>

#include "core/kelc.h"
#include "lib.h"
#include "scheduler/store.h"
#include "scheduler/task_json.h"

using ORVA::Core::TaskScheduler::AppParser;
using ORVA::Core::TaskScheduler::GetAppKeyFromNameSpace;
using ORVA::Core::TaskScheduler::InitTask;
using ORVA::Core::TaskScheduler::LoadTask;
using ORVA::Core::TaskScheduler::SaveTask;

namespace {

const char kSrc[] = "ORVA.Core.TaskScheduler.Basic";

const char* OwnerText(const boost::optional<std::string>& owner) { return owner ? owner->c_str() : "-"; }

const char* ErrFile() {
  const char* file = KELCErrorGetFile();
  return file ? file : "";
}

// UI schedule key and the platform's name for it.
const char* const kScheduleKeys[][2] = {
    {"week_day", "week_name"},
    {"repeat_date", "repeat"},
    {"minute", "min"},
};

// Minute/hour repetition that a version-1 client neither sees nor sets.
void StripRepetition(Json::Value& schedule) {
  if (!schedule.isObject()) {
    return;
  }
  schedule.removeMember("repeat_min");
  schedule.removeMember("repeat_min_store_config");
  schedule.removeMember("repeat_hour_store_config");
}

// An id a request may give: -1 or 0 (a new task) or 1 to ORVA_SCHED_TASK_ID_MAX, as an
// integer or its decimal text. A larger one would use up the store's id sequence.
bool IsRequestId(const Json::Value& id) {
  long long n = 0;
  if (id.isInt64()) {
    n = id.asInt64();
  } else if (id.isString()) {
    const std::string text = id.asString();
    char* end = nullptr;
    errno = 0;
    n = strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0) {
      return false;
    }
  } else {
    return false;
  }
  return n >= -1 && n <= ORVA_SCHED_TASK_ID_MAX;
}

// Moves member `from` to `to` (a missing member moves as null).
void MoveMember(Json::Value& obj, const char* from, const char* to) {
  obj[to] = obj[from];
  obj.removeMember(from);
}

}  // namespace

std::string TaskSchedulerWriteAppArgs(const Json::Value& app) {
  Json::FastWriter writer;
  return writer.write(app);
}

bool TaskSchedulerReadAppArgs(const std::string& text, Json::Value& app) {
  Json::Reader reader;
  return reader.parse(text, app);
}

TaskSchedulerBasicHandler::TaskSchedulerBasicHandler(ORVA::APIRequest* request, ORVA::APIResponse* response,
                                                     boost::optional<std::string> owner)
    : TaskSchedulerHandler(request, response, 0, std::string(), Json::Value(),
                           new AppParser(request->GetUILanguage())),
      owner(std::move(owner)) {}

void TaskSchedulerBasicHandler::Process(const char* method, int version) {
  Json::Value result;
  bool ok = false;
  if (method && 0 == strcmp(method, "get")) {
    ok = GetData(result, version);
  } else if (method && 0 == strcmp(method, "set")) {
    ok = SetData(result, version);
  }
  if (ok) {
    response_->SetSuccess(std::move(result));
  } else {
    ReportError();
  }
}

void TaskSchedulerBasicHandler::Process_v1(const char* method) { Process(method, 1); }

void TaskSchedulerBasicHandler::Process_v2(const char* method) { Process(method, 2); }

bool TaskSchedulerBasicHandler::GetData(Json::Value& result, int version) {
  ORVA::APIParameter<int> id = request_->GetAndCheckInt("id", ORVA::PARAM_REQUIRED, nullptr);
  Json::Value params = request_->GetParam("", Json::Value());
  if (id.IsInvalid() || !id.IsSet()) {
    SetError(4800, "id is invalid");
    return false;
  }

  _tag_orva_sched_task_ record;
  memset(&record, 0, sizeof(record));
  if (!LoadTask(owner, id.Get(), record)) {
    syslog(LOG_ERR, "%s:%d Load Task failed [%s][%d]", kSrc, __LINE__, OwnerText(owner), id.Get());
    return false;
  }

  Json::Value task;
  if (!ORVASchedTaskConvertToJson_Basic(record, task)) {
    syslog(LOG_ERR, "%s:%d convert task to json (basic) faield. id:[%d] [0x%04X %s:%d]", kSrc, __LINE__, id.Get(),
           KELCErrGet(), ErrFile(), KELCErrorGetLine());
    SetError(117, "Failed to convert basic object");
    return false;
  }
  if (!ORVASchedTaskConvertToJson_Schedule(record, task)) {
    syslog(LOG_ERR, "%s:%d convert task to json (schedule) faield. id:[%d] [0x%04X %s:%d]", kSrc, __LINE__,
           id.Get(), KELCErrGet(), ErrFile(), KELCErrorGetLine());
    SetError(117, "Failed to convert schedule object");
    return false;
  }
  if (!ConvertToJson_App(record, task)) {
    syslog(LOG_ERR, "%s:%d convert task to json (app) faield. id:[%d] [0x%04X %s:%d]", kSrc, __LINE__, id.Get(),
           KELCErrGet(), ErrFile(), KELCErrorGetLine());
    SetError(117, "Failed to convert app object");
    return false;
  }
  if (!ReConstructJsonGet_Basic(task)) {
    syslog(LOG_ERR, "%s:%d Convert task from json (basic) failed. [0x%04X %s:%d]", kSrc, __LINE__, KELCErrGet(),
           ErrFile(), KELCErrorGetLine());
    SetError(117, "Failed to convert basic object");
    return false;
  }
  if (!ReConstructJsonGet_Schedule(task["schedule"])) {
    syslog(LOG_ERR, "%s:%d Convert task from json (schedule) failed. [0x%04X %s:%d]", kSrc, __LINE__, KELCErrGet(),
           ErrFile(), KELCErrorGetLine());
    SetError(117, "Failed to convert schedule object");
    return false;
  }
  if (!ReConstructJsonGet_App(task["app"])) {
    syslog(LOG_ERR, "%s:%d Convert task from json (app) failed. [0x%04X %s:%d]", kSrc, __LINE__, KELCErrGet(),
           ErrFile(), KELCErrorGetLine());
    SetError(117, "Failed to convert app object");
    return false;
  }

  MoveMember(task, "app", "extra");
  if (version < 2) {
    StripRepetition(task["schedule"]);
  }
  if (params.isObject() && params.isMember("type")) {
    task["type"] = params["type"];
  }
  if (owner) {
    task["real_owner"] = *owner;
  }
  result = task;
  return true;
}

bool TaskSchedulerBasicHandler::SetData(Json::Value& result, int version) {
  Json::Value task = request_->GetParam("", Json::Value());

  if (task.isMember("id") && !IsRequestId(task["id"])) {
    syslog(LOG_ERR, "%s:%d Invalid task id, json id=%s", kSrc, __LINE__, Json::FastWriter().write(task["id"]).c_str());
    SetError(4800, "id is invalid");
    return false;
  }
  if (!ReConstructJsonSet_Basic(task)) {
    syslog(LOG_ERR, "%s:%d Convert task from json (basic) failed. [0x%04X %s:%d]", kSrc, __LINE__, KELCErrGet(),
           ErrFile(), KELCErrorGetLine());
    SetError(4800, "invalid (basic) object");
    return false;
  }
  if (!ReConstructJsonSet_Schedule(task["schedule"])) {
    syslog(LOG_ERR, "%s:%d Convert task from json (schedule) failed. [0x%04X %s:%d]", kSrc, __LINE__, KELCErrGet(),
           ErrFile(), KELCErrorGetLine());
    SetError(4800, "invalid (schedule) object");
    return false;
  }
  MoveMember(task, "extra", "app");
  if (!task["app"].isNull() && !task["app"].isObject()) {
    syslog(LOG_ERR, "%s:%d Convert task from json (app) failed: not an object", kSrc, __LINE__);
    SetError(4800, "invalid (app) object");
    return false;
  }
  if (version < 2) {
    StripRepetition(task["schedule"]);
  }
  if (!ReConstructJsonSet_App(task["app"])) {
    syslog(LOG_ERR, "%s:%d Convert task from json (app) failed. [0x%04X %s:%d]", kSrc, __LINE__, KELCErrGet(),
           ErrFile(), KELCErrorGetLine());
    SetError(4800, "invalid (app) object");
    return false;
  }

  _tag_orva_sched_task_ record;
  memset(&record, 0, sizeof(record));
  if (!InitTask(owner, record)) {
    syslog(LOG_ERR, "%s:%d Failed to new task. [0x%04X %s:%d]", kSrc, __LINE__, KELCErrGet(), ErrFile(),
           KELCErrorGetLine());
    SetError(117, "Failed to new task");
    return false;
  }
  if (owner) {
    if (!ORVASchedTaskConvertFromJson_Basic_ByUser(*owner, task, record)) {
      syslog(LOG_ERR, "%s:%d Convert task from json (basic) failed. [%s][0x%04X %s:%d]", kSrc, __LINE__,
             owner->c_str(), KELCErrGet(), ErrFile(), KELCErrorGetLine());
      SetError(117, "Invalid (basic) object");
      return false;
    }
  } else if (!ORVASchedTaskConvertFromJson_Basic(task, record)) {
    syslog(LOG_ERR, "%s:%d Convert task from json (basic) failed. [0x%04X %s:%d]", kSrc, __LINE__, KELCErrGet(),
           ErrFile(), KELCErrorGetLine());
    SetError(117, "Invalid (basic) object");
    return false;
  }
  if (!ORVASchedTaskConvertFromJson_Schedule(task, record)) {
    syslog(LOG_ERR, "%s:%d Convert task from json (schedule) failed. [0x%04X %s:%d]", kSrc, __LINE__, KELCErrGet(),
           ErrFile(), KELCErrorGetLine());
    SetError(117, "Invalid (schedule) object");
    return false;
  }
  if (!ConvertFromJson_App(task, record)) {
    syslog(LOG_ERR, "%s:%d Convert task from json (app) failed. [0x%04X %s:%d]", kSrc, __LINE__, KELCErrGet(),
           ErrFile(), KELCErrorGetLine());
    SetError(117, "Invalid (app) object");
    return false;
  }
  if (!owner) {
    KeepUserOwnership(record);
  }
  if (!SaveTask(owner, record)) {
    syslog(LOG_ERR, "%s:%d Save task failed. [0x%04X %s:%d]", kSrc, __LINE__, KELCErrGet(), ErrFile(),
           KELCErrorGetLine());
    SetError(117, "Failed to save task");
    return false;
  }
  result["id"] = static_cast<Json::Int64>(ORVASchedTaskGetID(record));
  return true;
}

// The system changing a user's task: the record was rebuilt as a system task, but the
// task stays the user's (its owner must then stay that user, which the store checks).
void TaskSchedulerBasicHandler::KeepUserOwnership(_tag_orva_sched_task_& record) {
  if (ORVASchedTaskGetID(record) <= 0) {
    return;
  }
  _tag_orva_sched_task_ stored;
  memset(&stored, 0, sizeof(stored));
  if (ORVASchedTaskLoad(ORVASchedTaskGetID(record), &stored) >= 0 && stored.marker == ORVA_SCHED_MARKER_BY_USER) {
    ORVASchedCTaskSetRealOwner(&record, true, ORVASchedTaskGetRealOwner(stored));
  }
}

bool TaskSchedulerBasicHandler::ReConstructJsonGet_Basic(Json::Value& task) {
  Json::Value& basic = task["basic"];
  task["id"] = basic["id"];
  task["name"] = basic["task_name"];
  TranslateActionKey(basic, basic["app"].asString());
  task["action"] = basic["action"];
  task["type"] = GetAppKeyFromNameSpace(basic["app"].asString());
  task["can_edit_name"] = basic["can_edit_name"];
  task["can_edit_owner"] = GetAppEditOwnerValue();
  task["enable"] = 0 == strcasecmp(basic["enabled"].asString().c_str(), "on");
  task["owner"] = basic["owner"];
  task.removeMember("basic");
  return true;
}

bool TaskSchedulerBasicHandler::ReConstructJsonGet_Schedule(Json::Value& schedule) {
  if (!schedule.isObject()) {
    return true;
  }
  for (const auto& key : kScheduleKeys) {
    if (schedule.isMember(key[1])) {
      MoveMember(schedule, key[1], key[0]);
    }
  }
  schedule.removeMember("next_trigger_time");
  return true;
}

bool TaskSchedulerBasicHandler::ReConstructJsonSet_Basic(Json::Value& task) {
  task["basic"] = Json::Value(Json::objectValue);
  Json::Value& basic = task["basic"];
  basic["id"] = task.isMember("id") ? task["id"].asString() : std::string("-1");
  basic["task_name"] = task["name"];
  basic["owner"] = task["owner"];
  basic["enabled"] = task["enable"] == Json::Value(true) ? "on" : "off";
  task.removeMember("id");
  task.removeMember("name");
  task.removeMember("owner");
  task.removeMember("enable");
  return true;
}

bool TaskSchedulerBasicHandler::ReConstructJsonSet_Schedule(Json::Value& schedule) {
  // Anything but an object is left for the platform's conversion to refuse.
  if (!schedule.isObject()) {
    return true;
  }
  for (const auto& key : kScheduleKeys) {
    if (schedule.isMember(key[0])) {
      MoveMember(schedule, key[0], key[1]);
    }
  }
  return true;
}

bool TaskSchedulerBasicHandler::GetOriginAppObj(Json::Value& app) {
  Json::Value params = request_->GetParam("", Json::Value());
  long id = -1;
  if (params.isObject() && params.isMember("id")) {
    id = strtol(params["id"].asString().c_str(), nullptr, 10);
  }

  _tag_orva_sched_task_ record;
  memset(&record, 0, sizeof(record));
  if (!LoadTask(owner, id, record)) {
    syslog(LOG_ERR, "%s:%d Load Task failed [%s][%d]", kSrc, __LINE__, OwnerText(owner), static_cast<int>(id));
    return false;
  }
  Json::Value json;
  if (!ConvertToJson_App(record, json)) {
    syslog(LOG_ERR, "%s:%d convert task to json (app) faield. id:[%d] [0x%04X %s:%d]", kSrc, __LINE__,
           static_cast<int>(id), KELCErrGet(), ErrFile(), KELCErrorGetLine());
    SetError(117, "Failed to convert app object");
    return false;
  }
  app = json["app"];
  return true;
}

bool TaskSchedulerBasicHandler::ConvertToJson_App(const _tag_orva_sched_task_&, Json::Value&) { return true; }

bool TaskSchedulerBasicHandler::ConvertFromJson_App(const Json::Value&, _tag_orva_sched_task_&) { return true; }

bool TaskSchedulerBasicHandler::ReConstructJsonGet_App(Json::Value&) { return true; }

bool TaskSchedulerBasicHandler::ReConstructJsonSet_App(Json::Value&) { return true; }

bool TaskSchedulerBasicHandler::GetAppEditOwnerValue() { return false; }
