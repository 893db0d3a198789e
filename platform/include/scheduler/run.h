// Runs of tasks (liborvascheduler.so.7): starting them through orva-schedrun, their
// status and history, stopping them.
//
// Integer results: negative means failure, with the error facility (core/kelc.h) set.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
#include <json/json.h>

#include <string>
#include <vector>

extern "C" {
#endif

// Starts the task now, detached, through orva-schedrun; returns at once. The two
// trailing arguments are reserved and must be 0.
int ORVASchedTaskRun(long id, int reserved1, int reserved2);
int ORVASchedTaskRunByUser(const char* user, long id, int reserved1, int reserved2);

#ifdef __cplusplus
}  // extern "C"

// {"id", "running", "pid", "last_run": {...} or null}; negative for an unknown task.
// last_run is the run in progress when there is one (pid: its command's; output: what
// it wrote so far), else the newest run (a skipped run never hides one in progress).
// last_run: {"trigger", "start", "end" ("YYYY-MM-DD HH:MM:SS" local, end null while
// unknown), "exit_code" (or null), "signal" (or null), "output" (the last 64 KiB of
// stdout and stderr, invalid UTF-8 replaced), "result" ("running"/"success"/"failed"/
// "skipped"/"stopped")}.
int ORVASchedTaskGetRunStatus(int id, Json::Value& status);


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
#endif
