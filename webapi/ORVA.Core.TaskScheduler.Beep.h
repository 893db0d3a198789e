// The beep test task: sounds the buzzer for a number of seconds.
#pragma once

#include <json/json.h>

#include <boost/optional.hpp>
#include <string>

#include "ORVA.Core.TaskScheduler.Basic.h"

class TaskSchedulerBeepHandler : public TaskSchedulerBasicHandler {
 public:
  TaskSchedulerBeepHandler(ORVA::APIRequest* request, ORVA::APIResponse* response,
                           boost::optional<std::string> owner)
      : TaskSchedulerBasicHandler(request, response, std::move(owner)) {}

  bool ConvertToJson_App(const _tag_orva_sched_task_& task, Json::Value& json) override;
  bool ConvertFromJson_App(const Json::Value& json, _tag_orva_sched_task_& task) override;
  bool GetAppEditOwnerValue() override;
};
