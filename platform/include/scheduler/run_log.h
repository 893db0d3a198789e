// Run records (liborvascheduler.so.7), written by orva-schedrun. The module and the
// web UI read them through ORVASchedTaskGetRunStatus and ORVASchedTaskGetRuns.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>

enum ORVA_SCHED_RUN_KIND {
  ORVA_SCHED_RUN_TASK = 0,        // a task of the tasks table
  ORVA_SCHED_RUN_EVENT_TASK = 1,  // an event task
};

// Output kept per run: the last bytes of stdout and stderr together.
#define ORVA_SCHED_RUN_OUTPUT_MAX (64 * 1024)
// Runs kept per task; older ones are dropped when a run is recorded.
#define ORVA_SCHED_RUN_HISTORY_MAX 50

// Records a run that starts now, run by the process `runnerPid`. Returns the run id
// (positive) or negative with the error facility set.
int64_t ORVASchedRunBegin(int kind, long taskId, const char* trigger, pid_t runnerPid);
// The pid of the process that runs the command.
int ORVASchedRunSetPid(int64_t runId, pid_t pid);
// The output so far of a run in progress (the kept tail; `truncated`: bytes before it
// were dropped). Does nothing once the run has ended.
int ORVASchedRunSetOutput(int64_t runId, const std::string& output, bool truncated);
// Ends a run: exitCode is -1 when the command was killed by `signal` (0: none);
// result is "success", "failed" or "stopped".
int ORVASchedRunEnd(int64_t runId, int exitCode, int signal, const std::string& output, const char* result,
                    bool truncated = false);
// Records, in one step, a run that never started (result "skipped" or "failed" with
// the reason in `output`).
int ORVASchedRunRecord(int kind, long taskId, const char* trigger, const char* result, const std::string& output);
