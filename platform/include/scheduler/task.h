// The task scheduler store (liborvascheduler.so.7): the task record and its operations.
//
// Integer results: negative means failure, and the error facility (core/kelc.h) then
// holds the code, file and line. Functions whose record argument is a reference have
// C++ linkage; the others are plain C functions.
#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
#include <json/json.h>

#include <string>
#include <vector>
#endif

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

// List filter: nonzero keeps the task. Called once per stored task.
typedef int (*ORVA_SCHED_TASK_FILTER)(const ORVA_SCHED_TASK* pTask, void* pArg);

#ifdef __cplusplus
extern "C" {
#endif

ORVA_SCHED_TASK* ORVASchedTaskAllocFast(void);
void ORVASchedTaskFree(ORVA_SCHED_TASK* pTask);

int ORVASchedTaskLoad(long id, ORVA_SCHED_TASK* pTask);
int ORVASchedTaskLoadByUser(const char* user, long id, ORVA_SCHED_TASK* pTask);
int ORVASchedTaskSave(ORVA_SCHED_TASK* pTask);
int ORVASchedTaskSaveByUser(const char* user, ORVA_SCHED_TASK* pTask);
int ORVASchedTaskRemove(long id);
int ORVASchedTaskRemoveByUser(const char* user, long id);
// Starts the task now, detached, through orva-schedrun; returns at once. The two
// trailing arguments are reserved and must be 0.
int ORVASchedTaskRun(long id, int reserved1, int reserved2);
int ORVASchedTaskRunByUser(const char* user, long id, int reserved1, int reserved2);

// Loads every stored task that `filter` keeps (NULL keeps all) into a new chain at
// *ppList. Returns the number of tasks; negative on failure (*ppList is then NULL).
int ORVASchedTaskListGet(ORVA_SCHED_TASK** ppList, ORVA_SCHED_TASK_FILTER filter, void* pArg);
// Sorts the chain in place by "state", "id", "name", "owner", "app name", "action" or
// "next trigger time"; ties by id ascending. `ascending` 1 or 0.
int ORVASchedTaskListSort(ORVA_SCHED_TASK** ppList, const char* key, int ascending);
ORVA_SCHED_TASK* ORVASchedTaskNext(const ORVA_SCHED_TASK* pTask);
// Frees every record of the chain that starts at pList.
void ORVASchedTaskListFree(ORVA_SCHED_TASK* pList);

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
// "YYYY-MM-DD HH:MM" in local time, or "N/A" (disabled, or nothing left to run).
std::string ORVASchedTaskGetNextTriggerTime(const _tag_orva_sched_task_& task);

// {"id", "running", "pid", "last_run": {...} or null}; negative for an unknown task.
// last_run is the run in progress when there is one (pid: its command's; output: what
// it wrote so far), else the newest run (a skipped run never hides one in progress).
// last_run: {"trigger", "start", "end" ("YYYY-MM-DD HH:MM:SS" local, end null while
// unknown), "exit_code" (or null), "signal" (or null), "output" (the last 64 KiB of
// stdout and stderr, invalid UTF-8 replaced), "result" ("running"/"success"/"failed"/
// "skipped"/"stopped")}.
int ORVASchedTaskGetRunStatus(int id, Json::Value& status);

// ---- Platform side: the daemon, the runner, tools and tests use these. ----

// Getters for the fields the module reaches only through setters.
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

// Checks a schedule: ranges, a valid date (month 0 = no schedule, allowed), a weekly
// schedule with at least one day, repeat_min and repeat_hour not both set. False with
// the error facility set (ORVA_SCHED_ERR_INVALID).
bool ORVASchedScheduleValidate(const ORVA_SCHED_SCHEDULE& schedule);
// The first trigger strictly after `after`, from the schedule alone, in the time zone
// of TZ: a wall time inside a spring-forward gap fires at the end of the gap, a wall
// time that occurs twice fires at its first occurrence only, a monthly day the month
// lacks is skipped. -1 when nothing is left.
time_t ORVASchedScheduleNextTrigger(const ORVA_SCHED_SCHEDULE& schedule, time_t after);
// The same for a task; -1 also when the task is disabled. The daemon's clock.
time_t ORVASchedTaskNextTrigger(const _tag_orva_sched_task_& task, time_t after);
// The first `count` triggers strictly after `after`, each found by
// ORVASchedScheduleNextTrigger from the one before (the same rules as next_trigger_time);
// fewer when nothing is left. Returns how many, or -1 for an invalid schedule. Saves nothing.
int ORVASchedScheduleNextTriggers(const ORVA_SCHED_SCHEDULE& schedule, time_t after, int count,
                                  std::vector<time_t>& out);
// ORVASchedTaskGetNextTriggerTime with a given "now" instead of the wall clock.
std::string ORVASchedTaskGetNextTriggerTimeAt(const _tag_orva_sched_task_& task, time_t now);
// "YYYY-MM-DD HH:MM" local, or "N/A" for -1.
std::string ORVASchedFormatTriggerTime(time_t t);

// The store database: $ROOT/var/lib/orva/scheduler.db (WAL: also -wal and -shm beside
// it). A daemon may watch its folder with inotify and then read the generation.
std::string ORVASchedStoreDbPath();
// A counter raised by every write of a task or an event task (not by run records):
// reading it is one indexed row. Negative on failure.
int64_t ORVASchedStoreGeneration();
// Every store call first checks that the file at the store's path is still the one this
// process has open (device and inode) and reopens it, logged, when it was replaced or
// removed. A long-lived process calls this at each wake to learn of it: 1 when the
// connection was dropped to be reopened (read everything again), else 0.
int ORVASchedStoreReopenIfReplaced();

// The runner program: ORVASchedSetRunnerPath, else $ORVA_SCHEDRUN, else
// ORVAPathMap("/usr/orva/bin/orva-schedrun"). An empty path restores the default.
void ORVASchedSetRunnerPath(const std::string& path);
std::string ORVASchedRunnerPath();

// Run history of a task, newest first, each entry shaped like "last_run" plus
// "running" (bool) and "pid". At most 50 runs are kept per task. Negative for an
// unknown task.
int ORVASchedTaskGetRunHistory(long id, Json::Value& runs);

// Run summaries: {"run_id", "trigger", "start", "end" (null while open), "exit_code",
// "signal", "result" (as in last_run), "output_bytes" (bytes kept, before invalid UTF-8
// is replaced), "truncated" (the output lost its beginning to the 64 KiB limit)}.
// {"running", "pid" (of the newest run in progress, or null), "runs": [summaries, newest
// first]}. Negative for an unknown task.
int ORVASchedTaskGetRuns(long id, Json::Value& out);
// One run of the task: its summary plus "output". ORVA_SCHED_ERR_NOT_FOUND for an unknown
// task or a run id that is not one of its runs.
int ORVASchedTaskGetRun(long id, int64_t runId, Json::Value& run);
// For the stored tasks among `ids` (others are left out), by id ascending, in one query:
// [{"id", "running", "last_run": summary or null}], last_run chosen as status chooses it.
int ORVASchedTaskGetRunSummaries(const std::vector<long>& ids, Json::Value& tasks);
// Asks the runner of every run of the task in progress to stop it, and returns at once:
// the runner sends SIGTERM to the command's process group, SIGKILL after a grace
// period, and records the run as "stopped". Only a process verified to be the runner
// recorded in the open run (pid and start time) is signalled. *runId (may be NULL): the
// newest run asked. Fails with ORVA_SCHED_ERR_NOT_FOUND (unknown task),
// ORVA_SCHED_ERR_NOT_RUNNING (nothing in progress), KELC_ERR_PERMISSION (the runner
// belongs to another account) or ORVA_SCHED_ERR_RUN.
int ORVASchedTaskStop(long id, int64_t* runId);

// ---- Event tasks: their own table in the same database. ORVASchedTaskListGet never
// returns them; their ids are their own. ----
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
// Starts `orva-schedrun --event-task ID --trigger event` detached; returns at once.
int ORVASchedEventTaskRun(long id);
// Same shape as ORVASchedTaskGetRunStatus / ORVASchedTaskGetRunHistory.
int ORVASchedEventTaskGetRunStatus(long id, Json::Value& status);
int ORVASchedEventTaskGetRunHistory(long id, Json::Value& runs);
#endif
