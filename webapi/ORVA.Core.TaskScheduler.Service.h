// The service task: starts or stops chosen built-in services and installed packages.
#pragma once

#include <json/json.h>

#include <boost/optional.hpp>
#include <string>

#include "ORVA.Core.TaskScheduler.Basic.h"
#include "scheduler/record.h"

namespace ORVA {
namespace Core {
namespace TaskScheduler {

// Appends one stored-form entry ({"name", "display_name", "enabled": false,
// "service_type": 2}) per package that service tasks may start and stop.
bool EnumInstalledPackagesAsJson(Json::Value& out);
// Fills the record (flags, app, stored arguments, action text, command) from the
// stored-form object json["app"]. False for an unknown "service_action" or an empty list.
bool ServiceTaskAppArgsFromJson(const Json::Value& json, _tag_orva_sched_task_& task);
// Writes the stored form to json["app"]: a new task's defaults, or the stored selection
// brought up to date with the installed `packages`.
bool ServiceTaskAppArgsToJson(const _tag_orva_sched_task_& task, const Json::Value& packages, Json::Value& json);

}  // namespace TaskScheduler
}  // namespace Core
}  // namespace ORVA

class TaskSchedulerServiceHandler : public TaskSchedulerBasicHandler {
 public:
  TaskSchedulerServiceHandler(ORVA::APIRequest* request, ORVA::APIResponse* response,
                              boost::optional<std::string> owner)
      : TaskSchedulerBasicHandler(request, response, std::move(owner)) {}

  bool ConvertToJson_App(const _tag_orva_sched_task_& task, Json::Value& json) override;
  bool ConvertFromJson_App(const Json::Value& json, _tag_orva_sched_task_& task) override;
  bool ReConstructJsonGet_App(Json::Value& app) override;
  bool ReConstructJsonSet_App(Json::Value& app) override;
  bool GetAppEditOwnerValue() override;
};
