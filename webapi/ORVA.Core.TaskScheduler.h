// The request handler of "ORVA.Core.TaskScheduler": dispatch, list, enable, delete, run,
// view, action text translation and the one reply of a request.
#pragma once

#include <json/json.h>

#include <boost/optional.hpp>

#include <functional>
#include <memory>
#include <string>

#include "lib.h"
#include "scheduler/record.h"
#include "webapi/webapi.h"

class TaskSchedulerHandler {
 public:
  // Owns `parser` (may be null for handlers that translate nothing).
  TaskSchedulerHandler(ORVA::APIRequest* request, ORVA::APIResponse* response, int errorCode,
                       const std::string& errorMessage, const Json::Value& errorData,
                       ORVA::Core::TaskScheduler::AppParser* parser);
  ~TaskSchedulerHandler();
  TaskSchedulerHandler(const TaskSchedulerHandler&) = delete;
  TaskSchedulerHandler& operator=(const TaskSchedulerHandler&) = delete;

  // Run one method and write exactly one reply (none for an empty method name).
  void Process_v1(const char* method);
  void Process_v2(const std::string& method);

  bool ListData_v1(Json::Value& result);
  bool ListData_v2(Json::Value& result);
  bool ListDataCommon(int version, Json::Value& result);
  bool SetEnableData_v1(Json::Value& result);
  bool SetEnableData_v2(Json::Value& result);
  bool DeleteData_v1(Json::Value& result);
  bool DeleteData_v2(Json::Value& result);
  bool RunData_v1(Json::Value& result);
  bool RunData_v2(Json::Value& result);
  bool ViewData_v1(Json::Value& result);

  // Calls `act` for each id of "task" (version 1) or each {id, real_owner} of "tasks"
  // (version 2) in order, stopping at the first malformed entry or failed act.
  bool EachTaskId_v1(const std::function<bool(long)>& act);
  bool EachTask_v2(const std::function<bool(long, const boost::optional<std::string>&)>& act);

  // Replaces the "#section:key#" tokens of item["action"] by their texts.
  void TranslateActionKey(Json::Value& item, const std::string& appKey);
  // Action text of a listed service task, with today's package display names.
  std::string RefreshServiceTaskAction(const _tag_orva_sched_task_& record);

  // Records an error; the first one recorded wins.
  void SetError(int code, const std::string& message);
  void SetError(int code, const std::string& message, const Json::Value& data);
  // Writes the recorded error into the response.
  void ReportError();

 protected:
  ORVA::APIRequest* request_;
  ORVA::APIResponse* response_;
  int errorCode_;
  std::string errorMessage_;
  Json::Value errorData_;
  std::unique_ptr<ORVA::Core::TaskScheduler::AppParser> parser;
};
