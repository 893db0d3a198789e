// The task record (liborvascheduler.so.7): its fields and their limits, the store's
// error codes, allocation, setters and getters.
//
// Integer results: negative means failure, and the error facility (core/kelc.h) then
// holds the code, file and line. Functions whose record argument is a reference have
// C++ linkage; the others are plain C functions.
#pragma once

#include <stdint.h>
#include <sys/types.h>

// Text field sizes, in bytes, terminator included. A setter given a longer text keeps
// the first (size - 1) bytes and marks the field in `truncated`; saving a marked record
// fails with ORVA_SCHED_ERR_TOO_LONG, so a task is never stored cut short.
#define ORVA_SCHED_EVENT_MAX 1024      // name of the triggering event (event tasks)
#define ORVA_SCHED_NAME_MAX 256        // task name
#define ORVA_SCHED_APP_MAX 128         // app namespace, e.g. "ORVA.VEK.TaskScheduler.Beep"
#define ORVA_SCHED_APP_NAME_MAX 128    // app display-name key, e.g. "#beep:beep_title#"
#define ORVA_SCHED_EDIT_FORM_MAX 128   // edit form panel name
#define ORVA_SCHED_COMMAND_MAX 4096    // command line run by /bin/sh -c (a script: 4095 bytes)
// Action text. A script task's action is "#common:run#: " + its script, so the action
// holds every command that fits, with room for a short prefix.
#define ORVA_SCHED_ACTION_MAX (ORVA_SCHED_COMMAND_MAX + 64)
// The app's own arguments as compact JSON. A script task keeps its script here too,
// escaped: half as much again as the command leaves room for quotes and newlines.
#define ORVA_SCHED_APP_ARGS_MAX 6144
#define ORVA_SCHED_REPEAT_CFG_MAX 16   // intervals in each repeat_*_store_config list
// Highest id a caller may give a task. Ids are never reused, so a given id near the
// top of the range would leave no room for the ids assigned after it; the web API
// reads ids as int, so assigned ids must stay well below 2^31 too.
#define ORVA_SCHED_TASK_ID_MAX 999999999L

// Bits of `truncated`: which text field was cut by a setter.
enum {
  ORVA_SCHED_TRUNC_NAME = 1 << 0,
  ORVA_SCHED_TRUNC_APP = 1 << 1,
  ORVA_SCHED_TRUNC_APP_NAME = 1 << 2,
  ORVA_SCHED_TRUNC_EDIT_FORM = 1 << 3,
  ORVA_SCHED_TRUNC_ACTION = 1 << 4,
  ORVA_SCHED_TRUNC_COMMAND = 1 << 5,
  ORVA_SCHED_TRUNC_APP_ARGS = 1 << 6,
  ORVA_SCHED_TRUNC_EVENT = 1 << 7,
};

// Marker values.
#define ORVA_SCHED_MARKER_SYSTEM 0      // a system task (real owner root)
#define ORVA_SCHED_MARKER_BY_USER (-2)  // a task that belongs to a user (saved ByUser)

enum ORVA_SCHED_REPEAT {
  ORVA_SCHED_REPEAT_DAILY = 0,  // zero so that a zero-filled schedule is daily
  ORVA_SCHED_REPEAT_WEEKLY = 1,
  ORVA_SCHED_REPEAT_MONTHLY = 2,
  ORVA_SCHED_REPEAT_ONCE = 3,
};

typedef struct _tag_orva_sched_schedule_ {
  uint16_t year;            // date: once, the day; otherwise the first day it may run
  uint8_t month;            // 1-12 (0 in a zero-filled record: no date, nothing to run)
  uint8_t day;              // 1-31; monthly: the day of month
  uint8_t repeat;           // ORVA_SCHED_REPEAT
  uint8_t week_mask;        // weekly: bit d set = runs on weekday d (0 = Sunday)
  uint8_t hour;             // first run of the day, 0-23
  uint8_t min;              // 0-59
  uint8_t repeat_hour;      // 0, or repeat every N hours within the day
  uint8_t repeat_min;       // 0, or repeat every N minutes within the day
  uint8_t last_work_hour;   // last hour in which a repeat may start, 0-23
  uint8_t n_repeat_min_cfg;
  uint8_t n_repeat_hour_cfg;
  uint8_t repeat_min_cfg[ORVA_SCHED_REPEAT_CFG_MAX];   // intervals the UI offers
  uint8_t repeat_hour_cfg[ORVA_SCHED_REPEAT_CFG_MAX];
} ORVA_SCHED_SCHEDULE;

// One task. Trivially copyable and standard-layout: records are allocated with calloc,
// freed with free and copied by value. A zero-filled record filled with setters is
// valid (it lists, sorts and frees like any other).
typedef struct _tag_orva_sched_task_ {
  struct _tag_orva_sched_task_* next;   // list link; NULL at the end of a list
  int64_t marker;                       // ORVA_SCHED_MARKER_*
  uint32_t owner;                       // uid the task runs as
  char event[ORVA_SCHED_EVENT_MAX];     // event tasks: "bootup" / "shutdown"
  uint32_t real_owner;                  // uid the task belongs to (0: system task)
  int64_t id;                           // -1 until first saved
  uint8_t saved;                        // 0 until stored once (zero-filled: new)
  uint8_t enabled;
  uint8_t listable;
  uint8_t can_edit_from_ui;
  uint8_t can_delete_from_ui;
  uint8_t can_run_from_ui;
  uint8_t can_edit_name;
  uint8_t can_edit_owner;
  uint8_t simple_edit_form;
  uint8_t can_run_app_same_time;
  uint8_t can_run_task_same_time;
  uint8_t reserved;
  uint32_t truncated;                   // ORVA_SCHED_TRUNC_* bits
  ORVA_SCHED_SCHEDULE schedule;
  char name[ORVA_SCHED_NAME_MAX];
  char app[ORVA_SCHED_APP_MAX];
  char app_name[ORVA_SCHED_APP_NAME_MAX];
  char edit_form[ORVA_SCHED_EDIT_FORM_MAX];
  char action[ORVA_SCHED_ACTION_MAX];
  char command[ORVA_SCHED_COMMAND_MAX];
  char app_args[ORVA_SCHED_APP_ARGS_MAX];
} ORVA_SCHED_TASK;

// Store error codes (KELCErrGet), besides the KELC_ERR_* ones.
enum {
  ORVA_SCHED_ERR_NOT_FOUND = 0x2101,     // no stored task of that id
  ORVA_SCHED_ERR_NOT_OWNER = 0x2102,     // ByUser call on a task that is not the user's
  ORVA_SCHED_ERR_TOO_LONG = 0x2103,      // a text field was truncated by its setter
  ORVA_SCHED_ERR_NO_USER = 0x2104,       // unknown user name or uid
  ORVA_SCHED_ERR_DATABASE = 0x2105,      // SQLite failed
  ORVA_SCHED_ERR_INVALID = 0x2106,       // bad argument or schedule
  ORVA_SCHED_ERR_RUN = 0x2107,           // the runner could not be started (or signalled)
  ORVA_SCHED_ERR_NOT_RUNNING = 0x2108,   // stop: no run of the task is in progress
};

#ifdef __cplusplus
extern "C" {
#endif

ORVA_SCHED_TASK* ORVASchedTaskAllocFast(void);
void ORVASchedTaskFree(ORVA_SCHED_TASK* pTask);

void ORVASchedCTaskSetID(ORVA_SCHED_TASK* pTask, long id);
void ORVASchedCTaskSetName(ORVA_SCHED_TASK* pTask, const char* name);
void ORVASchedCTaskSetOwner(ORVA_SCHED_TASK* pTask, unsigned int uid);
void ORVASchedCTaskSetState(ORVA_SCHED_TASK* pTask, unsigned char enabled);
void ORVASchedCTaskSetApp(ORVA_SCHED_TASK* pTask, const char* app);
void ORVASchedCTaskSetAppName(ORVA_SCHED_TASK* pTask, const char* appName);
void ORVASchedCTaskSetAppArgs(ORVA_SCHED_TASK* pTask, const char* appArgs);
void ORVASchedCTaskSetAction(ORVA_SCHED_TASK* pTask, const char* action);
void ORVASchedCTaskSetCommand(ORVA_SCHED_TASK* pTask, const char* command);
void ORVASchedCTaskSetEditForm(ORVA_SCHED_TASK* pTask, const char* editForm);
void ORVASchedCTaskSetEvent(ORVA_SCHED_TASK* pTask, const char* event);
void ORVASchedCTaskSetListable(ORVA_SCHED_TASK* pTask, int flag);
void ORVASchedCTaskSetSimpleEditForm(ORVA_SCHED_TASK* pTask, int flag);
void ORVASchedCTaskSetCanEditName(ORVA_SCHED_TASK* pTask, int flag);
void ORVASchedCTaskSetCanEditOwner(ORVA_SCHED_TASK* pTask, int flag);
void ORVASchedCTaskSetCanEditFromUI(ORVA_SCHED_TASK* pTask, int flag);
void ORVASchedCTaskSetCanDeleteFromUI(ORVA_SCHED_TASK* pTask, int flag);
void ORVASchedCTaskSetCanRunFromUI(ORVA_SCHED_TASK* pTask, int flag);
void ORVASchedCTaskSetCanRunAppSameTime(ORVA_SCHED_TASK* pTask, int flag);
void ORVASchedCTaskSetCanRunTaskSameTime(ORVA_SCHED_TASK* pTask, int flag);

#ifdef __cplusplus
}  // extern "C"

long ORVASchedTaskGetID(const _tag_orva_sched_task_& task);
bool ORVASchedTaskIsNew(const _tag_orva_sched_task_& task);
bool ORVASchedTaskIsEnabled(const _tag_orva_sched_task_& task);
bool ORVASchedTaskIsListable(const _tag_orva_sched_task_& task);
bool ORVASchedTaskIsCanEditFromUI(const _tag_orva_sched_task_& task);
bool ORVASchedTaskIsCanDeleteFromUI(const _tag_orva_sched_task_& task);
bool ORVASchedTaskIsCanRunFromUI(const _tag_orva_sched_task_& task);
const char* ORVASchedTaskGetName(const _tag_orva_sched_task_& task);
const char* ORVASchedTaskGetApp(const _tag_orva_sched_task_& task);
const char* ORVASchedTaskGetAppName(const _tag_orva_sched_task_& task);
const char* ORVASchedTaskGetAppArgs(const _tag_orva_sched_task_& task);
const char* ORVASchedTaskGetAction(const _tag_orva_sched_task_& task);
const char* ORVASchedTaskGetCommand(const _tag_orva_sched_task_& task);
unsigned int ORVASchedTaskGetOwner(const _tag_orva_sched_task_& task);
unsigned int ORVASchedTaskGetRealOwner(const _tag_orva_sched_task_& task);

// Platform side: getters for the fields the module reaches only through setters.
const char* ORVASchedTaskGetEditForm(const _tag_orva_sched_task_& task);
const char* ORVASchedTaskGetEvent(const _tag_orva_sched_task_& task);
int64_t ORVASchedTaskGetMarker(const _tag_orva_sched_task_& task);
bool ORVASchedTaskIsSimpleEditForm(const _tag_orva_sched_task_& task);
bool ORVASchedTaskIsCanEditName(const _tag_orva_sched_task_& task);
bool ORVASchedTaskIsCanEditOwner(const _tag_orva_sched_task_& task);
bool ORVASchedTaskIsCanRunAppSameTime(const _tag_orva_sched_task_& task);
bool ORVASchedTaskIsCanRunTaskSameTime(const _tag_orva_sched_task_& task);
const ORVA_SCHED_SCHEDULE& ORVASchedTaskGetSchedule(const _tag_orva_sched_task_& task);
// Nonzero ORVA_SCHED_TRUNC_* bits: a setter cut a text, the record cannot be saved.
uint32_t ORVASchedTaskGetTruncated(const _tag_orva_sched_task_& task);

// Makes the record a user's task (marker -2, real owner uid) or, with byUser false,
// a system task (marker 0, real owner 0). Plain saves keep what the record says.
void ORVASchedCTaskSetRealOwner(ORVA_SCHED_TASK* pTask, bool byUser, unsigned int uid);
#endif
