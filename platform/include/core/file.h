// Files and folders (liborvacore.so.7).
#pragma once

#include <sys/types.h>

#include <string>

namespace ORVA {

// `mkdir -p`: creates every missing folder of `dir` with `mode`. True when `dir` is
// a folder afterwards; false with errno set otherwise.
bool MakeDirs(const std::string& dir, mode_t mode);

// Replaces `path` by `text` all at once: a temporary file ".NAME.XXXXXX" beside it,
// written and fsync'd, renamed over `path`, then the folder fsync'd so that the
// rename lasts. The new file gets `mode`. False with errno set (nothing replaced, the
// temporary file removed); logging is the caller's.
bool WriteFileAtomic(const std::string& path, const std::string& text, mode_t mode);

}  // namespace ORVA
