// Starting orva-schedrun: the one way every caller (the store's run functions, the
// daemon) starts a runner. Part of liborvascheduler.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace orva_sched {

// Starts `orva-schedrun ARGS... --root ROOT` detached: a double fork (two vfork-style
// clones, which copy nothing of the caller's memory), so the runner is never the
// caller's child to reap (a child subreaper gets it back); in a session of its own,
// stdio on /dev/null, no other descriptor of the caller, signal mask and dispositions
// reset, with the caller's identity (the runner drops to the task's owner itself).
// Waits only until the runner has been executed. Returns its pid, or -1 with the error
// facility set (ORVA_SCHED_ERR_RUN) and the failure logged.
pid_t StartRunner(const std::vector<std::string>& args);

}  // namespace orva_sched
