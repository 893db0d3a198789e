// TaskSchedulerHandler: list, enable, delete, run and view of tasks, action translation
// and the one reply of a request. Log lines that log-watching rules match carry fixed
// line numbers; the others carry the line of the call.
#include "ORVA.Core.TaskScheduler.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ORVA.Core.TaskScheduler.Service.h"
#include "core/kelc.h"
#include "core/user.h"
#include "scheduler/run.h"
#include "scheduler/schedule.h"
#include "scheduler/store.h"
#include "scheduler/task_ptr.h"

using ORVA::Core::TaskScheduler::GetRealOwner;

namespace {

const char kSrc[] = "ORVA.Core.TaskScheduler";

// Store list filter of version 2: every listable task.
int IsTaskListable(const ORVA_SCHED_TASK* pTask, void*) {
  if (!pTask) {
    syslog(LOG_ERR, "%s:%d Invaild Argument (%s)=[%d]\n", kSrc, 25, "__null != pTask", 0);
    KELCErrSetEx(3328, kSrc, 25);
    return false;
  }
  return ORVASchedTaskIsListable(*pTask);
}

// Store list filter of version 1: listable tasks that belong to root.
int IsRootTaskListable(const ORVA_SCHED_TASK* pTask, void*) {
  if (!pTask) {
    syslog(LOG_ERR, "%s:%d Invaild Argument (%s)=[%d]\n", kSrc, 32, "__null != pTask", 0);
    KELCErrSetEx(3328, kSrc, 32);
    return false;
  }
  return ORVASchedTaskIsListable(*pTask) && ORVASchedTaskGetRealOwner(*pTask) == 0;
}

const char* ErrFile() {
  const char* file = KELCErrorGetFile();
  return file ? file : "";
}

const char* OwnerText(const boost::optional<std::string>& owner) {
  return owner ? owner->c_str() : "-";
}

// A JSON integer (not a real, bool or string).
bool IsInteger(const Json::Value& v) {
  return (v.type() == Json::intValue) || (v.type() == Json::uintValue && v.isInt64());
}

// Ids of event tasks: different in every listing, never reset.
long nextEventTaskId = 1000;

// Installed packages, enumerated once per process after the first success.
Json::Value& InstalledPackagesCache() {
  static Json::Value cache;
  return cache;
}

const struct {
  const char* sortBy;
  const char* storeKey;
} sortKeyTable[] = {
    {"enable", "state"},
    {"id", "id"},
    {"type", "app name"},
    {"owner", "owner"},
    {"name", "name"},
    {"app_name", "app name"},
    {"action", "action"},
    {"next_trigger_time", "next trigger time"},
};

const struct {
  const char* needle;
  const char* replacement;
} serviceActionReplaceTable[] = {
    {"WinShare", "#network:win_share_service#"},
    {nullptr, nullptr},
};

const char kServiceNameSpace[] = "ORVA.VEK.TaskScheduler.Service";

}  // namespace

TaskSchedulerHandler::TaskSchedulerHandler(ORVA::APIRequest* request, ORVA::APIResponse* response, int errorCode,
                                           const std::string& errorMessage, const Json::Value& errorData,
                                           ORVA::Core::TaskScheduler::AppParser* parser)
    : request_(request),
      response_(response),
      errorCode_(errorCode),
      errorMessage_(errorMessage),
      errorData_(errorData),
      parser(parser) {}

TaskSchedulerHandler::~TaskSchedulerHandler() = default;

void TaskSchedulerHandler::SetError(int code, const std::string& message) {
  if (errorCode_ != 0) {
    return;
  }
  errorCode_ = code;
  errorMessage_ = message;
}

void TaskSchedulerHandler::SetError(int code, const std::string& message, const Json::Value& data) {
  if (errorCode_ != 0) {
    return;
  }
  SetError(code, message);
  errorData_ = data;
}

void TaskSchedulerHandler::ReportError() {
  Json::Value data;
  if (!errorData_.empty()) {
    data = errorData_;
  }
  if (!errorMessage_.empty()) {
    data["msg"] = errorMessage_;
  }
  response_->SetError(errorCode_, data);
}

void TaskSchedulerHandler::Process_v1(const char* method) {
  if (!method || !*method) {
    return;
  }
  Json::Value result;
  bool ok = false;
  if (0 == strcmp(method, "list")) {
    ok = ListData_v1(result);
  } else if (0 == strcmp(method, "set_enable")) {
    ok = SetEnableData_v1(result);
  } else if (0 == strcmp(method, "delete")) {
    ok = DeleteData_v1(result);
  } else if (0 == strcmp(method, "run")) {
    ok = RunData_v1(result);
  } else if (0 == strcmp(method, "view")) {
    ok = ViewData_v1(result);
  }
  if (ok) {
    response_->SetSuccess(std::move(result));
  } else {
    ReportError();
  }
}

void TaskSchedulerHandler::Process_v2(const std::string& method) {
  if (method.empty()) {
    return;
  }
  Json::Value result;
  bool ok = false;
  if (method == "list") {
    ok = ListData_v2(result);
  } else if (method == "set_enable") {
    ok = SetEnableData_v2(result);
  } else if (method == "delete") {
    ok = DeleteData_v2(result);
  } else if (method == "run") {
    ok = RunData_v2(result);
  }
  if (ok) {
    response_->SetSuccess(std::move(result));
  } else {
    ReportError();
  }
}

bool TaskSchedulerHandler::ListData_v1(Json::Value& result) {
  return ListDataCommon(1, result);
}

bool TaskSchedulerHandler::ListData_v2(Json::Value& result) {
  return ListDataCommon(2, result);
}

std::string TaskSchedulerHandler::RefreshServiceTaskAction(const _tag_orva_sched_task_& record) {
  _tag_orva_sched_task_ copy = record;
  std::string id = std::to_string(ORVASchedTaskGetID(record));
  Json::Value& cache = InstalledPackagesCache();
  Json::Value args;
  if (cache.empty()) {
    // Enumerate into a fresh list so that a failure leaves the cache empty.
    Json::Value packages(Json::arrayValue);
    if (!ORVA::Core::TaskScheduler::EnumInstalledPackagesAsJson(packages)) {
      syslog(LOG_ERR, "%s:%d Failed to enum packages", kSrc, 190);
      goto fallback;
    }
    cache = packages;
  }
  if (!ORVA::Core::TaskScheduler::ServiceTaskAppArgsToJson(copy, cache, args)) {
    syslog(LOG_ERR, "%s:%d Failed to convert service task app args to json [%s]", kSrc, 196, id.c_str());
    goto fallback;
  }
  if (!ORVA::Core::TaskScheduler::ServiceTaskAppArgsFromJson(args, copy)) {
    syslog(LOG_ERR, "%s:%d Failed to convert service task app args from json [%s]", kSrc, 201, id.c_str());
    goto fallback;
  }
  return ORVASchedTaskGetAction(copy);

fallback:
  syslog(LOG_WARNING, "%s:%d Unable to update service task package display names [%s]", kSrc, 214, id.c_str());
  return ORVASchedTaskGetAction(record);
}

bool TaskSchedulerHandler::ListDataCommon(int version, Json::Value& result) {
  std::string sortBy = request_->GetAndCheckString("sort_by", ORVA::PARAM_OPTIONAL, nullptr).Get();
  std::string sortDirection = request_->GetAndCheckString("sort_direction", ORVA::PARAM_OPTIONAL, nullptr).Get();
  ORVA::APIParameter<int> offsetParam = request_->GetAndCheckInt("offset", ORVA::PARAM_OPTIONAL, nullptr);
  ORVA::APIParameter<int> limitParam = request_->GetAndCheckInt("limit", ORVA::PARAM_OPTIONAL, nullptr);
  int offset = (offsetParam.IsSet() && !offsetParam.IsInvalid()) ? offsetParam.Get() : 0;
  int limit = (limitParam.IsSet() && !limitParam.IsInvalid()) ? limitParam.Get() : -1;
  bool descending = 0 == strcasecmp(sortDirection.c_str(), "desc");

  ORVA_SCHED_TASK* storeList = nullptr;
  int total = ORVASchedTaskListGet(&storeList, version == 1 ? IsRootTaskListable : IsTaskListable, nullptr);
  if (total < 0) {
    syslog(LOG_ERR, "%s:%d get task list failed. [0x%04X %s:%d]", kSrc, 301, KELCErrGet(), ErrFile(),
           KELCErrorGetLine());
    SetError(117, "get task list failed");
    result["total"] = 0;
    return false;
  }

  Json::Value events(Json::objectValue);
  ORVA::APIRunner::Exec(events, "ORVA.Core.EventScheduler", 1, "list", Json::Value(), "admin");

  ORVA_SCHED_TASK* eventHead = nullptr;
  ORVA_SCHED_TASK* eventTail = nullptr;
  int eventCount = 0;
  bool allocFailed = false;
  if (events.isObject() && events.isMember("data") && events["data"].isArray()) {
    const Json::Value& entries = events["data"];
    for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
      const Json::Value& entry = entries[i];
      ORVA_SCHED_TASK* task = static_cast<ORVA_SCHED_TASK*>(calloc(1, sizeof(ORVA_SCHED_TASK)));
      if (!task) {
        syslog(LOG_ERR, "%s:%d Allocate ORVA_SCHED_TASK failed. %m", kSrc, 62);
        KELCErrSetEx(512, kSrc, 63);
        allocFailed = true;
        break;
      }
      std::vector<std::string> owners;
      if (entry.isObject() && entry["owner"].isObject()) {
        owners = entry["owner"].getMemberNames();
      }
      if (owners.empty()) {
        syslog(LOG_ERR, "%s:%d Fail to get owner", kSrc, 69);
        ORVASchedTaskFree(task);
        continue;
      }
      uid_t uid = static_cast<uid_t>(strtoul(owners[0].c_str(), nullptr, 10));
      ORVASchedCTaskSetAction(task, "#common:command_line#");
      ORVASchedCTaskSetName(task, entry["task_name"].asString().c_str());
      ORVASchedCTaskSetAppName(task, "#common:command_line#");
      ORVASchedCTaskSetApp(task, "ORVA.VEK.EventScheduler.Script");
      ORVASchedCTaskSetID(task, nextEventTaskId++);
      ORVASchedCTaskSetOwner(task, uid);
      ORVASchedCTaskSetState(task, entry["enable"].asBool());
      ORVASchedCTaskSetCanDeleteFromUI(task, 1);
      ORVASchedCTaskSetCanEditFromUI(task, 1);
      ORVASchedCTaskSetCanRunFromUI(task, 1);
      // The store has no setter for the event name of an in-memory record.
      strncpy(task->event, entry["event"].asString().c_str(), sizeof(task->event) - 1);
      task->event[sizeof(task->event) - 1] = '\0';
      task->next = nullptr;
      if (eventTail) {
        eventTail->next = task;
      } else {
        eventHead = task;
      }
      eventTail = task;
      ++eventCount;
    }
  }
  if (allocFailed) {
    syslog(LOG_ERR, "%s:%d get event task list failed. [0x%04X %s:%d]", kSrc, 306, KELCErrGet(), ErrFile(),
           KELCErrorGetLine());
    SetError(117, "get event task list failed");
    if (storeList) {
      ORVASchedTaskListFree(storeList);
    }
    if (eventHead) {
      ORVASchedTaskListFree(eventHead);
    }
    return false;
  }
  total += eventCount;

  const char* sortKey = "next trigger time";
  for (const auto& row : sortKeyTable) {
    if (sortBy == row.sortBy) {
      sortKey = row.storeKey;
      break;
    }
  }

  ORVA_SCHED_TASK* list = storeList;
  if (!list) {
    list = eventHead;
  } else {
    ORVA_SCHED_TASK* last = list;
    while (last->next) {
      last = last->next;
    }
    last->next = eventHead;
  }

  if (total > 1 && ORVASchedTaskListSort(&list, sortKey, descending ? 0 : 1) < 0) {
    syslog(LOG_ERR, "%s:%d sort task list failed. [0x%04X %s:%d]", kSrc, 321, KELCErrGet(), ErrFile(),
           KELCErrorGetLine());
    SetError(117, "sort task list failed");
    if (list) {
      ORVASchedTaskListFree(list);
    }
    return false;
  }

  // Item member names are literals: static keys spare each item a copy of every name.
  using Key = Json::StaticString;
  Json::Value& tasks = result["tasks"];
  tasks = Json::Value(Json::arrayValue);
  // The page ends where offset + limit, as a 32-bit sum, meets the index.
  int32_t pageEnd = static_cast<int32_t>(static_cast<uint32_t>(offset) + static_cast<uint32_t>(limit));
  int i = 0;
  for (ORVA_SCHED_TASK* task = list; task; task = ORVASchedTaskNext(task), ++i) {
    if (limit != -1 && pageEnd == i) {
      break;
    }
    if (offset > i) {
      continue;
    }
    std::string app = ORVASchedTaskGetApp(*task);
    std::string type = ORVA::Core::TaskScheduler::GetAppKeyFromNameSpace(app);
    Json::Value item;
    item[Key("enable")] = ORVASchedTaskIsEnabled(*task);
    item[Key("id")] = static_cast<Json::Int64>(ORVASchedTaskGetID(*task));
    item[Key("name")] = ORVASchedTaskGetName(*task);
    item[Key("type")] = type;
    if (type == "custom") {
      item[Key("app_name")] = parser->GetString(app, ORVASchedTaskGetAppName(*task));
    }
    item[Key("can_run")] = ORVASchedTaskIsCanRunFromUI(*task);
    item[Key("can_delete")] = ORVASchedTaskIsCanDeleteFromUI(*task);
    item[Key("can_edit")] = ORVASchedTaskIsCanEditFromUI(*task);
    if (app == kServiceNameSpace) {
      item[Key("action")] = RefreshServiceTaskAction(*task);
    } else {
      item[Key("action")] = ORVASchedTaskGetAction(*task);
    }
    std::string nextTrigger = ORVASchedTaskGetNextTriggerTime(*task);
    item[Key("next_trigger_time")] = nextTrigger == "N/A" ? std::string("-") : nextTrigger;
    if (version == 2 && task->marker == -2) {
      item[Key("real_owner")] = ORVA::UserName(ORVASchedTaskGetRealOwner(*task));
    }
    item[Key("owner")] = ORVA::UserName(task->owner);

    if (0 == strcasecmp(type.c_str(), "service")) {
      for (int row = 0; serviceActionReplaceTable[row].needle; ++row) {
        std::string action = item["action"].asString();
        if (action.find(serviceActionReplaceTable[row].needle) == std::string::npos) {
          continue;
        }
        char buffer[4096];
        memset(buffer, 0, sizeof(buffer));
        strncpy(buffer, action.c_str(), sizeof(buffer) - 1);
        if (KELCStrReplace(buffer, serviceActionReplaceTable[row].needle, serviceActionReplaceTable[row].replacement,
                           0, sizeof(buffer)) < 0) {
          syslog(LOG_ERR, "%s:%d replace string failed", kSrc, 174);
        } else {
          item["action"] = buffer;
        }
      }
    }
    TranslateActionKey(item, app);
    tasks.append(std::move(item));
  }

  if (list) {
    ORVASchedTaskListFree(list);
  }
  result["total"] = total;
  return true;
}

bool TaskSchedulerHandler::SetEnableData_v1(Json::Value&) {
  Json::Value status = request_->GetParam("status", Json::Value());
  if (!status.isArray()) {
    SetError(4800, "tasks must be an array");
    return false;
  }
  ORVASchedTaskPtr task(ORVASchedTaskAllocFast());
  if (!task) {
    syslog(LOG_ERR, "%s:%d Failed to new task %ld. [0x%04X %s:%d]", kSrc, 560, -1L, KELCErrGet(), ErrFile(),
           KELCErrorGetLine());
    SetError(117, "Failed to create task");
    return false;
  }
  for (const Json::Value& element : status) {
    if (!element.isObject() || !IsInteger(element["id"]) || !element["enable"].isBool()) {
      SetError(4800, "id must be an integer, enabled must be a boolean");
      return false;
    }
    long id = static_cast<long>(element["id"].asInt64());
    bool enable = element["enable"].asBool();
    if (ORVASchedTaskLoad(id, task.get()) < 0) {
      syslog(LOG_ERR, "%s:%d Failed to get task %ld. [0x%04X %s:%d]", kSrc, 573, id, KELCErrGet(), ErrFile(),
             KELCErrorGetLine());
      SetError(4801, "Failed to get task");
      return false;
    }
    ORVASchedCTaskSetState(task.get(), enable);
    if (ORVASchedTaskSave(task.get()) < 0) {
      syslog(LOG_ERR, "%s:%d Failed to upadte task %ld. [0x%04X %s:%d]", kSrc, 580, id, KELCErrGet(), ErrFile(),
             KELCErrorGetLine());
      SetError(4804, "Failed to update task");
      return false;
    }
    syslog(LOG_ERR, "%s:%d backend_orvaschedule: %s task [%ld]", kSrc, 585, enable ? "enabled" : "disabled", id);
  }
  return true;
}

bool TaskSchedulerHandler::SetEnableData_v2(Json::Value&) {
  Json::Value status = request_->GetParam("status", Json::Value());
  if (!status.isArray()) {
    SetError(4800, "tasks must be an array");
    return false;
  }
  for (const Json::Value& element : status) {
    if (!element.isObject() || !element.isMember("id") || !IsInteger(element["id"]) || !element.isMember("enable") ||
        !element["enable"].isBool()) {
      SetError(4800, "id must be an integer, enable must be a boolean");
      return false;
    }
    long id = static_cast<long>(element["id"].asInt64());
    bool enable = element["enable"].asBool();
    boost::optional<std::string> owner = GetRealOwner(element);
    _tag_orva_sched_task_ task;
    memset(&task, 0, sizeof(task));
    if (!ORVA::Core::TaskScheduler::LoadTask(owner, id, task)) {
      syslog(LOG_ERR, "%s:%d Failed to get task [%s][%ld]. [0x%04X %s:%d]", kSrc, 621, OwnerText(owner), id,
             KELCErrGet(), ErrFile(), KELCErrorGetLine());
      SetError(4801, "Failed to get task");
      return false;
    }
    ORVASchedCTaskSetState(&task, enable);
    if (!ORVA::Core::TaskScheduler::SaveTask(owner, task)) {
      syslog(LOG_ERR, "%s:%d Failed to update task [%s][%ld]. [0x%04X %s:%d]", kSrc, 629, OwnerText(owner), id,
             KELCErrGet(), ErrFile(), KELCErrorGetLine());
      SetError(4804, "Failed to update task");
      return false;
    }
    syslog(LOG_ERR, "%s:%d backend_orvaschedule: %s task [%s][%ld]", kSrc, 634, enable ? "enabled" : "disabled",
           OwnerText(owner), id);
  }
  return true;
}

namespace {

// "task" of version 1: one id or an array of ids, as an array; false when neither.
bool ReadTaskIds(const Json::Value& param, Json::Value& ids) {
  if (param.isArray()) {
    ids = param;
    return true;
  }
  if (IsInteger(param)) {
    ids = Json::Value(Json::arrayValue);
    ids.append(param);
    return true;
  }
  return false;
}

}  // namespace

bool TaskSchedulerHandler::EachTaskId_v1(const std::function<bool(long)>& act) {
  Json::Value ids;
  if (!ReadTaskIds(request_->GetParam("task", Json::Value()), ids)) {
    SetError(4800, "task must be an array of id or a single id");
    return false;
  }
  // Checked one by one: the tasks before a malformed id are already done.
  for (const Json::Value& element : ids) {
    if (!IsInteger(element)) {
      SetError(4800, "id must be an integer");
      return false;
    }
    if (!act(static_cast<long>(element.asInt64()))) {
      return false;
    }
  }
  return true;
}

bool TaskSchedulerHandler::EachTask_v2(const std::function<bool(long, const boost::optional<std::string>&)>& act) {
  ORVA::APIParameter<Json::Value> tasks = request_->GetAndCheckArray("tasks", ORVA::PARAM_REQUIRED, nullptr);
  if (!tasks.IsSet() || tasks.IsInvalid()) {
    SetError(4800, "tasks must be an array of {id, real_owner}");
    return false;
  }
  for (const Json::Value& element : tasks.Get()) {
    if (!element.isObject() || !element.isMember("id") || !IsInteger(element["id"])) {
      SetError(4800, "id must be an integer");
      return false;
    }
    if (!act(static_cast<long>(element["id"].asInt64()), GetRealOwner(element))) {
      return false;
    }
  }
  return true;
}

bool TaskSchedulerHandler::DeleteData_v1(Json::Value&) {
  return EachTaskId_v1([this](long id) {
    if (ORVASchedTaskRemove(id) < 0) {
      syslog(LOG_ERR, "%s:%d Failed to delete task %ld. [0x%04X %s:%d]", kSrc, 429, id, KELCErrGet(), ErrFile(),
             KELCErrorGetLine());
      SetError(4802, "Failed to delete task");
      return false;
    }
    return true;
  });
}

bool TaskSchedulerHandler::DeleteData_v2(Json::Value&) {
  return EachTask_v2([this](long id, const boost::optional<std::string>& owner) {
    if (!ORVA::Core::TaskScheduler::RemoveTask(owner, id)) {
      syslog(LOG_ERR, "%s:%d Failed to delete task [%s][%ld]. [0x%04X %s:%d]", kSrc, 461, OwnerText(owner), id,
             KELCErrGet(), ErrFile(), KELCErrorGetLine());
      SetError(4802, "Failed to delete task");
      return false;
    }
    return true;
  });
}

bool TaskSchedulerHandler::RunData_v1(Json::Value&) {
  return EachTaskId_v1([this](long id) {
    if (ORVASchedTaskRun(id, 0, 0) < 0) {
      syslog(LOG_ERR, "%s:%d Failed to run task [%ld]. [0x%04X %s:%d]", kSrc, 498, id, KELCErrGet(), ErrFile(),
             KELCErrorGetLine());
      SetError(4803, "Failed to run task");
      return false;
    }
    return true;
  });
}

bool TaskSchedulerHandler::RunData_v2(Json::Value&) {
  return EachTask_v2([this](long id, const boost::optional<std::string>& owner) {
    if (owner) {
      if (ORVASchedTaskRunByUser(owner->c_str(), id, 0, 0) < 0) {
        syslog(LOG_ERR, "%s:%d Failed to run task [%s][%ld]. [0x%04X %s:%d]", kSrc, 529, owner->c_str(), id,
               KELCErrGet(), ErrFile(), KELCErrorGetLine());
        SetError(4803, "Failed to run task");
        return false;
      }
    } else if (ORVASchedTaskRun(id, 0, 0) < 0) {
      syslog(LOG_ERR, "%s:%d Failed to run task [%ld]. [0x%04X %s:%d]", kSrc, 535, id, KELCErrGet(), ErrFile(),
             KELCErrorGetLine());
      SetError(4803, "Failed to run task");
      return false;
    }
    return true;
  });
}

bool TaskSchedulerHandler::ViewData_v1(Json::Value& result) {
  Json::Value id = request_->GetParam("id", Json::Value());
  if (!IsInteger(id) || !id.isInt()) {
    SetError(4800, "task id must be int");
    return false;
  }
  if (ORVASchedTaskGetRunStatus(id.asInt(), result) < 0) {
    syslog(LOG_ERR, "%s:%d get run status failed [0x%04X %s:%d]", kSrc, 652, KELCErrGet(), ErrFile(),
           KELCErrorGetLine());
    SetError(117, "get run status failed");
    return false;
  }
  return true;
}

void TaskSchedulerHandler::TranslateActionKey(Json::Value& item, const std::string& appKey) {
  Json::Value& action = item["action"];
  if (!action.isString() || !parser) {
    return;
  }
  const std::string scanned = action.asString();
  std::string working = scanned;
  int32_t open = -1;
  int32_t colon = -1;
  for (int32_t i = 0; i < static_cast<int32_t>(scanned.size()); ++i) {
    char c = scanned[i];
    if (c != '#') {
      if (c == ':') {
        colon = i;
      }
      continue;
    }
    if (open < 0) {
      open = i;
      continue;
    }
    if (colon < open) {
      // No colon since the opening mark: this '#' opens instead, so a stray '#'
      // never swallows text.
      open = i;
      colon = -1;
      continue;
    }
    std::string section = scanned.substr(open + 1, colon - open - 1);
    std::string key = scanned.substr(colon + 1, i - colon - 1);
    std::string token = "#" + section + ":" + key + "#";
    std::string text = parser->GetString(appKey, token);
    if (!text.empty()) {
      // The first remaining occurrence; throws out_of_range when there is none.
      working.replace(working.find(token), token.size(), text);
    }
    open = -1;
    colon = -1;
  }
  action = working;
}
