// What the programs share (liborvacore.so.7): their command line and running a shell
// command.
#pragma once

#include <getopt.h>

#include <functional>
#include <string>

namespace ORVA {

// The --root entry of a program's option table.
constexpr int kOptRoot = 0x100;
inline constexpr option kRootOption = {"root", required_argument, nullptr, kOptRoot};

// getopt_long() (getopt_long_only() when `longOnly`) that sets the system root on
// --root itself and returns the next other option, or -1 at the end.
int GetOpt(int argc, char** argv, const char* shortopts, const option* longopts, bool longOnly = false);

// A whole decimal number in [min, max] (no sign other than '-', no trailing text, no
// overflow); false otherwise, `out` unchanged.
bool ParseLong(const char* text, long min, long max, long* out);

// Runs `/bin/sh -c command` and waits for it; `inChild`, when given, runs in the child
// first (it may _exit). The wait status, or -1 (errno set) when no child started.
int RunShell(const std::string& command, const std::function<void()>& inChild = {});

}  // namespace ORVA
