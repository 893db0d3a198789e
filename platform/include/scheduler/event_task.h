// Event tasks (liborvascheduler.so.7): tasks run at boot-up or shutdown, kept in a
// table of their own in the store's database. ORVASchedTaskListGet never returns them;
// their ids are their own.
//
// Integer results: negative means failure, with the error facility (core/kelc.h) set.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "scheduler/record.h"

#define ORVA_SCHED_EVENT_BOOTUP "bootup"
#define ORVA_SCHED_EVENT_SHUTDOWN "shutdown"

struct ORVASchedEventTask {
  long id = -1;                 // -1 until saved
  std::string task_name;        // 1 .. ORVA_SCHED_NAME_MAX - 1 bytes
  unsigned int owner = 0;       // uid the script runs as; must exist
  bool enable = true;
  std::string event;            // "bootup" or "shutdown"
  std::string script;           // /bin/sh -c text, 0 .. ORVA_SCHED_COMMAND_MAX - 1 bytes
};

// Every event task (event NULL) or those of one event, by id. Returns the count.
int ORVASchedEventTaskList(std::vector<ORVASchedEventTask>& tasks, const char* event);
int ORVASchedEventTaskLoad(long id, ORVASchedEventTask& task);
// Checks every field; an id <= 0 creates (the new id is written back), any other id
// is stored under that id (insert or replace).
int ORVASchedEventTaskSave(ORVASchedEventTask& task);
int ORVASchedEventTaskRemove(long id);
// Same shape as ORVASchedTaskGetRunStatus.
int ORVASchedEventTaskGetRunStatus(long id, Json::Value& status);
