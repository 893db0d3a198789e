// Schedules (liborvascheduler.so.7): checking them and computing their triggers.
#pragma once

#include <time.h>

#include "scheduler/record.h"

#ifdef __cplusplus
#include <string>
#include <vector>

// "YYYY-MM-DD HH:MM" in local time, or "N/A" (disabled, or nothing left to run).
std::string ORVASchedTaskGetNextTriggerTime(const _tag_orva_sched_task_& task);
// The same at a given "now" instead of the wall clock.
std::string ORVASchedTaskGetNextTriggerTimeAt(const _tag_orva_sched_task_& task, time_t now);

// Checks a schedule: ranges, a valid date (month 0 = no schedule, allowed), a weekly
// schedule with at least one day, repeat_min and repeat_hour not both set. False with
// the error facility set (ORVA_SCHED_ERR_INVALID).
bool ORVASchedScheduleValidate(const ORVA_SCHED_SCHEDULE& schedule);
// The first trigger strictly after `after`, from the schedule alone, in the time zone
// of TZ: a wall time inside a spring-forward gap fires at the end of the gap, a wall
// time that occurs twice fires at its first occurrence only, a monthly day the month
// lacks is skipped. -1 when nothing is left.
time_t ORVASchedScheduleNextTrigger(const ORVA_SCHED_SCHEDULE& schedule, time_t after);
// The first `count` triggers strictly after `after`, each found by
// ORVASchedScheduleNextTrigger from the one before (the same rules as next_trigger_time);
// fewer when nothing is left. Returns how many, or -1 for an invalid schedule. Saves nothing.
int ORVASchedScheduleNextTriggers(const ORVA_SCHED_SCHEDULE& schedule, time_t after, int count,
                                  std::vector<time_t>& out);
// "YYYY-MM-DD HH:MM" local, or "N/A" for -1.
std::string ORVASchedFormatTriggerTime(time_t t);
#endif
