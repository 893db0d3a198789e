// Cleaning of one recycle bin: option parsing, the choice of what goes, and the
// deletion itself. Kept apart from main() so that tests drive it directly.
#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include <optional>
#include <string>
#include <vector>

namespace orvarecycle {

enum class Op { None, Clean, Enable, Disable };

// Values of -o.
enum SizeOrder { kOldestFirst = 1, kLargestFirst = 2 };

struct Options {
  Op op = Op::None;
  bool help = false;
  std::vector<std::string> shares;          // bare arguments; none = every share
  std::optional<uint64_t> maxAgeDays;       // -t: delete files older than this
  std::optional<uint64_t> sizeLimit;        // -s: shrink the bin to this many bytes
  int order = kOldestFirst;                 // -o, with -s
  bool orderGiven = false;
  std::vector<std::string> keepExt;         // -file_ext=a.b.c (lower case)
  std::optional<uint64_t> keepLarger;       // -m: keep files larger than this
  std::optional<uint64_t> keepSmaller;      // -l: keep files smaller than this
};

// Parses the command line. False with a message in `error` on bad usage.
bool ParseArgs(int argc, char** argv, Options& opts, std::string& error);

// One non-directory found in a bin (regular file, symbolic link, or other node).
struct Entry {
  std::vector<std::string> path;  // components below the bin folder
  uint64_t size = 0;              // apparent size (lstat)
  int64_t mtime = 0;
  dev_t dev = 0;
  ino_t ino = 0;
  bool keep = false;              // excepted by -file_ext, -m or -l
};

// True when an exception option keeps a file of this name and size.
bool IsKept(const Options& opts, const std::string& name, uint64_t size);

// Indices of `entries` to delete under the policy, in deletion order. `bytesLeft`
// receives the size of what stays.
std::vector<size_t> SelectForDeletion(const std::vector<Entry>& entries, const Options& opts, time_t now,
                                      uint64_t* bytesLeft);

struct Stats {
  uint64_t removedFiles = 0;
  uint64_t removedBytes = 0;
  uint64_t keptFiles = 0;
  uint64_t bytesLeft = 0;
  uint64_t removedDirs = 0;
  uint64_t skippedMounts = 0;  // folders on another file system, left alone
  int errors = 0;
};

// Cleans the bin whose folder is open as `binFd` (opened without following a link).
// Never follows a symbolic link: links are removed themselves. Emptied folders below
// the bin are removed; the bin folder stays. False when anything could not be done
// (each failure is logged; the rest goes on).
bool CleanBin(int binFd, const Options& opts, time_t now, Stats& stats);

}  // namespace orvarecycle
