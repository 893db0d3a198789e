// Running a command line (liborvacore.so.7).
#pragma once

#include <functional>
#include <string>

namespace ORVA {

// Runs `/bin/sh -c command` and waits for it. `inChild`, when given, runs in the
// child first (it may _exit). Returns the wait status, or -1 (errno set) when no
// child could be started.
int RunShell(const std::string& command, const std::function<void()>& inChild = {});

}  // namespace ORVA
