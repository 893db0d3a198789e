// The recycle-bin task: empties the recycle bins of shares by a policy, or switches them
// on or off. The UI edits a structured object; the task stores a flat one.
#pragma once

#include <json/json.h>

#include <boost/optional.hpp>
#include <string>

#include "ORVA.Core.TaskScheduler.Basic.h"

class TaskSchedulerRecycleHandler : public TaskSchedulerBasicHandler {
 public:
  TaskSchedulerRecycleHandler(ORVA::APIRequest* request, ORVA::APIResponse* response,
                              boost::optional<std::string> owner)
      : TaskSchedulerBasicHandler(request, response, std::move(owner)) {}

  bool ConvertToJson_App(const _tag_orva_sched_task_& task, Json::Value& json) override;
  bool ConvertFromJson_App(const Json::Value& json, _tag_orva_sched_task_& task) override;
  bool ReConstructJsonGet_App(Json::Value& app) override;
  bool ReConstructJsonSet_App(Json::Value& app) override;
  bool GetAppEditOwnerValue() override;

  // Switches on the recycle bins of `shares` ("select"), or of every share (any other
  // value), plus "home" for "all_include_home". False only when shares cannot be listed.
  bool EnableRecycleBin(const Json::Value& shares, const Json::Value& enableRecycle);
};
