// An owning pointer to one task record (a list is freed with ORVASchedTaskListFree).
#pragma once

#include <memory>

#include "scheduler/record.h"

struct ORVASchedTaskDeleter {
  void operator()(ORVA_SCHED_TASK* t) const { ORVASchedTaskFree(t); }
};
using ORVASchedTaskPtr = std::unique_ptr<ORVA_SCHED_TASK, ORVASchedTaskDeleter>;
