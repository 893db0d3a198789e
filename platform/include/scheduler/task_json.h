// JSON conversions of the task record (liborvaschedulercgi.so.7): the "basic" and
// "schedule" objects that the web UI exchanges. Each returns false, with the error
// facility set, on a bad value; nothing partial reaches the record on failure.
#pragma once

#include <json/json.h>

#include <string>

#include "scheduler/record.h"

bool ORVASchedTaskConvertToJson_Basic(const _tag_orva_sched_task_& task, Json::Value& json);
bool ORVASchedTaskConvertToJson_Schedule(const _tag_orva_sched_task_& task, Json::Value& json);
bool ORVASchedTaskConvertFromJson_Basic(const Json::Value& json, _tag_orva_sched_task_& task);
bool ORVASchedTaskConvertFromJson_Basic_ByUser(const std::string& user, const Json::Value& json,
                                               _tag_orva_sched_task_& task);
bool ORVASchedTaskConvertFromJson_Schedule(const Json::Value& json, _tag_orva_sched_task_& task);
