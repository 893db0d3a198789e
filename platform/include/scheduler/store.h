// The task store (liborvascheduler.so.7): loading, saving, removing and listing tasks,
// and the database they live in.
//
// Integer results: negative means failure, with the error facility (core/kelc.h) set.
#pragma once

#include <stdint.h>

#include "scheduler/record.h"

// List filter: nonzero keeps the task. Called once per stored task.
typedef int (*ORVA_SCHED_TASK_FILTER)(const ORVA_SCHED_TASK* pTask, void* pArg);

#ifdef __cplusplus
extern "C" {
#endif

int ORVASchedTaskLoad(long id, ORVA_SCHED_TASK* pTask);
int ORVASchedTaskLoadByUser(const char* user, long id, ORVA_SCHED_TASK* pTask);
int ORVASchedTaskSave(ORVA_SCHED_TASK* pTask);
int ORVASchedTaskSaveByUser(const char* user, ORVA_SCHED_TASK* pTask);
int ORVASchedTaskRemove(long id);
int ORVASchedTaskRemoveByUser(const char* user, long id);

// Loads every stored task that `filter` keeps (NULL keeps all) into a new chain at
// *ppList. Returns the number of tasks; negative on failure (*ppList is then NULL).
int ORVASchedTaskListGet(ORVA_SCHED_TASK** ppList, ORVA_SCHED_TASK_FILTER filter, void* pArg);
// Sorts the chain in place by "state", "id", "name", "owner", "app name", "action" or
// "next trigger time"; ties by id ascending. `ascending` 1 or 0.
int ORVASchedTaskListSort(ORVA_SCHED_TASK** ppList, const char* key, int ascending);
ORVA_SCHED_TASK* ORVASchedTaskNext(const ORVA_SCHED_TASK* pTask);
// Frees every record of the chain that starts at pList.
void ORVASchedTaskListFree(ORVA_SCHED_TASK* pList);

#ifdef __cplusplus
}  // extern "C"

#include <string>

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
#endif
