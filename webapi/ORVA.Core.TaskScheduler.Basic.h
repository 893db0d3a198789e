// The handler of "get", "set" and "create": the task object every kind shares (basic
// properties and schedule) plus five app operations that each kind of task overrides.
#pragma once

#include <json/json.h>

#include <boost/optional.hpp>
#include <string>

#include "ORVA.Core.TaskScheduler.h"
#include "scheduler/record.h"
#include "webapi/webapi.h"

class TaskSchedulerBasicHandler : public TaskSchedulerHandler {
 public:
  // Builds the text parser for the request's UI language. `owner` absent acts as the
  // system; present, every store call is made on behalf of that user.
  TaskSchedulerBasicHandler(ORVA::APIRequest* request, ORVA::APIResponse* response,
                            boost::optional<std::string> owner);

  // "get" runs GetData, "set" SetData; writes exactly one reply.
  void Process(const char* method, int version);
  void Process_v1(const char* method);
  void Process_v2(const char* method);

  bool GetData(Json::Value& result, int version);
  bool SetData(Json::Value& result, int version);

  bool ReConstructJsonGet_Basic(Json::Value& task);
  bool ReConstructJsonGet_Schedule(Json::Value& schedule);
  bool ReConstructJsonSet_Basic(Json::Value& task);
  bool ReConstructJsonSet_Schedule(Json::Value& schedule);

  // The stored app object of the request's "id" (-1 when absent: a new task's defaults).
  bool GetOriginAppObj(Json::Value& app);

  // The app operations, in slot order. The defaults do nothing and succeed.
  virtual bool ConvertToJson_App(const _tag_orva_sched_task_& task, Json::Value& json);
  virtual bool ConvertFromJson_App(const Json::Value& json, _tag_orva_sched_task_& task);
  virtual bool ReConstructJsonGet_App(Json::Value& app);
  virtual bool ReConstructJsonSet_App(Json::Value& app);
  virtual bool GetAppEditOwnerValue();

 protected:
  void KeepUserOwnership(_tag_orva_sched_task_& record);
  // Handlers are local objects of their concrete class, never deleted through a base
  // pointer, so the destructor stays non-virtual.
  boost::optional<std::string> owner;
};

// Compact one-line JSON, as stored in a task's app arguments (ends with "\n").
std::string TaskSchedulerWriteAppArgs(const Json::Value& app);
// Parses stored app arguments (comments allowed); returns the parser's result.
bool TaskSchedulerReadAppArgs(const std::string& text, Json::Value& app);
