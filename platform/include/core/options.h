// Command lines (liborvacore.so.7): every program reads its options with getopt_long
// and takes --root DIR, the system root, through this helper.
#pragma once

#include <getopt.h>

namespace ORVA {

constexpr int kOptRoot = 0x100;
// The --root entry of a program's option table.
inline constexpr option kRootOption = {"root", required_argument, nullptr, kOptRoot};

// getopt_long() that sets the system root itself on --root and returns the next
// other option (or -1 at the end). `longOnly` is getopt_long_only(): options with
// one dash may be long ones.
int GetOpt(int argc, char** argv, const char* shortopts, const option* longopts, bool longOnly = false);

}  // namespace ORVA
