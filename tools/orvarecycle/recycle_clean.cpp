#include "recycle_clean.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <sstream>

#include "core/log.h"
#include "core/program.h"

namespace orvarecycle {
namespace {

// Deeper trees are left alone: one descriptor is held per level.
constexpr int kMaxDepth = 256;

bool ParseBytes(const char* text, uint64_t& out) {
  if (!text || !*text) {
    return false;
  }
  uint64_t v = 0;
  for (const char* p = text; *p; ++p) {
    if (*p < '0' || *p > '9') {
      return false;
    }
    const uint64_t digit = static_cast<uint64_t>(*p - '0');
    if (v > (UINT64_MAX - digit) / 10) {
      return false;
    }
    v = v * 10 + digit;
  }
  out = v;
  return true;
}

std::string Lower(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<char>(c - 'A' + 'a');
    }
  }
  return s;
}

std::string Joined(const std::vector<std::string>& path) {
  std::string out;
  for (const std::string& c : path) {
    if (!out.empty()) {
      out += '/';
    }
    out += c;
  }
  return out;
}

int OpenSubdir(int dirFd, const char* name) {
  return openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// Names in a folder, without "." and "..". False when it cannot be read.
bool ListNames(int dirFd, std::vector<std::string>& names) {
  const int fd = openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  DIR* dir = fdopendir(fd);
  if (!dir) {
    close(fd);
    return false;
  }
  errno = 0;
  while (struct dirent* de = readdir(dir)) {
    if (strcmp(de->d_name, ".") != 0 && strcmp(de->d_name, "..") != 0) {
      names.emplace_back(de->d_name);
    }
    errno = 0;
  }
  const bool ok = errno == 0;
  closedir(dir);
  return ok;
}

void Walk(int dirFd, dev_t dev, std::vector<std::string>& prefix, const Options& opts,
          std::vector<Entry>& out, Stats& stats) {
  std::vector<std::string> names;
  if (!ListNames(dirFd, names)) {
    ORVA_LOG(LOG_ERR, "cannot read folder .recycle/%s: %m", Joined(prefix).c_str());
    ++stats.errors;
    return;
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    struct stat st;
    if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT) {
        ORVA_LOG(LOG_ERR, "cannot stat .recycle/%s/%s: %m", Joined(prefix).c_str(), name.c_str());
        ++stats.errors;
      }
      continue;
    }
    prefix.push_back(name);
    if (S_ISDIR(st.st_mode)) {
      if (st.st_dev != dev) {
        ORVA_LOG(LOG_WARNING, "not entering .recycle/%s: another file system is mounted there", Joined(prefix).c_str());
        ++stats.skippedMounts;
      } else if (prefix.size() > static_cast<size_t>(kMaxDepth)) {
        ORVA_LOG(LOG_ERR, "not entering .recycle/%s: deeper than %d folders", Joined(prefix).c_str(), kMaxDepth);
        ++stats.errors;
      } else {
        const int sub = OpenSubdir(dirFd, name.c_str());
        struct stat sst;
        if (sub < 0) {
          if (errno != ENOENT) {
            ORVA_LOG(LOG_ERR, "cannot open .recycle/%s: %m", Joined(prefix).c_str());
            ++stats.errors;
          }
        } else if (fstat(sub, &sst) != 0 || sst.st_dev != st.st_dev || sst.st_ino != st.st_ino) {
          // Replaced between the stat and the open: leave it for the next run.
          ORVA_LOG(LOG_WARNING, "folder .recycle/%s changed while being read; skipped", Joined(prefix).c_str());
          close(sub);
        } else {
          Walk(sub, dev, prefix, opts, out, stats);
          close(sub);
        }
      }
    } else {
      Entry e;
      e.path = prefix;
      e.size = static_cast<uint64_t>(st.st_size);
      e.mtime = st.st_mtim.tv_sec;
      e.dev = st.st_dev;
      e.ino = st.st_ino;
      e.keep = IsKept(opts, name, e.size);
      out.push_back(std::move(e));
    }
    prefix.pop_back();
  }
}

// Opens the parent folder of an entry by walking its components from the bin without
// following any link. Reuses the previous entry's parent when it is the same.
class ParentCache {
 public:
  explicit ParentCache(int binFd) : binFd_(binFd) {}
  ~ParentCache() { Reset(); }

  int Open(const std::vector<std::string>& path) {
    const std::vector<std::string> parent(path.begin(), path.end() - 1);
    if (fd_ >= 0 && parent == parent_) {
      return fd_;
    }
    Reset();
    int fd = dup(binFd_);
    for (size_t i = 0; fd >= 0 && i < parent.size(); ++i) {
      const int next = OpenSubdir(fd, parent[i].c_str());
      close(fd);
      fd = next;
    }
    if (fd >= 0) {
      fd_ = fd;
      parent_ = parent;
    }
    return fd;
  }

 private:
  void Reset() {
    if (fd_ >= 0) {
      close(fd_);
    }
    fd_ = -1;
    parent_.clear();
  }

  int binFd_;
  int fd_ = -1;
  std::vector<std::string> parent_;
};

enum class Outcome { Deleted, Gone, LeftInPlace, Failed };

Outcome Delete(ParentCache& parents, const Entry& e, Stats& stats) {
  const std::string shown = Joined(e.path);
  const int fd = parents.Open(e.path);
  if (fd < 0) {
    ORVA_LOG(LOG_ERR, "cannot reach .recycle/%s: %m", shown.c_str());
    return Outcome::Failed;
  }
  struct stat st;
  if (fstatat(fd, e.path.back().c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) {
      return Outcome::Gone;
    }
    ORVA_LOG(LOG_ERR, "cannot stat .recycle/%s: %m", shown.c_str());
    return Outcome::Failed;
  }
  if (st.st_dev != e.dev || st.st_ino != e.ino || S_ISDIR(st.st_mode)) {
    ORVA_LOG(LOG_WARNING, ".recycle/%s changed since it was read; left in place", shown.c_str());
    return Outcome::LeftInPlace;
  }
  if (unlinkat(fd, e.path.back().c_str(), 0) != 0) {
    if (errno == ENOENT) {
      return Outcome::Gone;
    }
    ORVA_LOG(LOG_ERR, "cannot delete .recycle/%s: %m", shown.c_str());
    return Outcome::Failed;
  }
  ++stats.removedFiles;
  stats.removedBytes += e.size;
  return Outcome::Deleted;
}

// Removes the empty folders below dirFd, deepest first.
void RemoveEmptyFolders(int dirFd, dev_t dev, std::vector<std::string>& prefix, Stats& stats) {
  std::vector<std::string> names;
  if (!ListNames(dirFd, names)) {
    return;
  }
  for (const std::string& name : names) {
    struct stat st;
    if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode) ||
        st.st_dev != dev || prefix.size() >= static_cast<size_t>(kMaxDepth)) {
      continue;
    }
    const int sub = OpenSubdir(dirFd, name.c_str());
    if (sub < 0) {
      continue;
    }
    prefix.push_back(name);
    RemoveEmptyFolders(sub, dev, prefix, stats);
    close(sub);
    if (unlinkat(dirFd, name.c_str(), AT_REMOVEDIR) == 0) {
      ++stats.removedDirs;
    } else if (errno != ENOTEMPTY && errno != EEXIST && errno != ENOENT) {
      ORVA_LOG(LOG_ERR, "cannot remove folder .recycle/%s: %m", Joined(prefix).c_str());
      ++stats.errors;
    }
    prefix.pop_back();
  }
}

}  // namespace

bool ParseArgs(int argc, char** argv, Options& opts, std::string& error) {
  // One dash is enough for a long option: -file_ext=EXT is one.
  enum { kFileExt = 0x200 };
  static const option kOptions[] = {ORVA::kRootOption,
                                    {"clean", no_argument, nullptr, 'C'},
                                    {"enable", no_argument, nullptr, 'E'},
                                    {"disable", no_argument, nullptr, 'D'},
                                    {"file_ext", required_argument, nullptr, kFileExt},
                                    {"help", no_argument, nullptr, 'h'},
                                    {}};
  static const std::map<int, std::optional<uint64_t> Options::*> kNumbers = {{'t', &Options::maxAgeDays},
                                                                             {'s', &Options::sizeLimit},
                                                                             {'m', &Options::keepLarger},
                                                                             {'l', &Options::keepSmaller}};
  opterr = 0;
  optind = 0;
  for (int c; (c = ORVA::GetOpt(argc, argv, ":t:s:o:m:l:h", kOptions, true)) != -1;) {
    const std::string flag = argv[optind - 1];
    uint64_t v = 0;
    if (c == 'h') {
      opts.help = true;
    } else if (c == 'C' || c == 'E' || c == 'D') {
      if (opts.op != Op::None) {
        error = "only one of --clean, --enable and --disable may be given (" + flag + ")";
        return false;
      }
      opts.op = c == 'C' ? Op::Clean : c == 'E' ? Op::Enable : Op::Disable;
    } else if (kNumbers.count(c) || c == 'o') {
      if (!ParseBytes(optarg, v)) {
        error = std::string("-") + static_cast<char>(c) + " needs a non-negative whole number, not \"" + optarg + "\"";
        return false;
      }
      if (c != 'o') {
        opts.*kNumbers.at(c) = v;
      } else if (v != kOldestFirst && v != kLargestFirst) {
        error = "-o must be 2 (largest files first) or 1 (oldest files first)";
        return false;
      } else {
        opts.order = static_cast<int>(v);
        opts.orderGiven = true;
      }
    } else if (c == kFileExt) {
      // Dot-separated; empty items (from an empty extension) add nothing.
      std::istringstream items(optarg);
      for (std::string item; std::getline(items, item, '.');) {
        if (!item.empty()) opts.keepExt.push_back(Lower(item));
      }
    } else {
      error = c == ':' ? flag + " needs a value" : "unknown option \"" + flag + "\"";
      return false;
    }
  }
  // "--" ends the options: every word after it is a share name.
  const bool endOfOptions = optind > 1 && strcmp(argv[optind - 1], "--") == 0;
  for (int i = optind; i < argc; ++i) {
    if (!*argv[i]) {
      error = "an empty share name was given";
      return false;
    }
    opts.shares.push_back(argv[i]);
  }
  if (opts.help) {
    return true;
  }
  if (opts.op == Op::None) {
    error = "one of --clean, --enable or --disable is needed";
    return false;
  }
  // "--" announces share names: none after it means a name was lost on the way, and
  // acting on every share instead would do more than asked.
  if (endOfOptions && opts.shares.empty()) {
    error = "no share name after \"--\"";
    return false;
  }
  const bool policy = opts.maxAgeDays || opts.sizeLimit || opts.orderGiven || !opts.keepExt.empty() ||
                      opts.keepLarger || opts.keepSmaller;
  if (opts.op != Op::Clean && policy) {
    error = "-t, -s, -o, -file_ext=, -m and -l apply to --clean only";
    return false;
  }
  if (opts.orderGiven && !opts.sizeLimit) {
    error = "-o needs -s";
    return false;
  }
  return true;
}

bool IsKept(const Options& opts, const std::string& name, uint64_t size) {
  if (opts.keepLarger && size > *opts.keepLarger) {
    return true;
  }
  if (opts.keepSmaller && size < *opts.keepSmaller) {
    return true;
  }
  if (!opts.keepExt.empty()) {
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0 && dot + 1 < name.size()) {
      const std::string ext = Lower(name.substr(dot + 1));
      return std::find(opts.keepExt.begin(), opts.keepExt.end(), ext) != opts.keepExt.end();
    }
  }
  return false;
}

std::vector<size_t> SelectForDeletion(const std::vector<Entry>& entries, const Options& opts, time_t now,
                                      uint64_t* bytesLeft) {
  std::vector<size_t> out;
  std::vector<bool> gone(entries.size(), false);
  uint64_t total = 0;
  for (const Entry& e : entries) {
    total += e.size;
  }
  auto take = [&](size_t i) {
    gone[i] = true;
    total -= entries[i].size;
    out.push_back(i);
  };
  if (!opts.maxAgeDays && !opts.sizeLimit) {
    for (size_t i = 0; i < entries.size(); ++i) {
      if (!entries[i].keep) {
        take(i);
      }
    }
  }
  if (opts.maxAgeDays) {
    // Saturate: a limit beyond the epoch keeps everything.
    const uint64_t days = *opts.maxAgeDays;
    const bool never = days > static_cast<uint64_t>(INT64_MAX / 86400);
    for (size_t i = 0; i < entries.size() && !never; ++i) {
      const int64_t age = static_cast<int64_t>(now) - entries[i].mtime;
      if (!entries[i].keep && age >= static_cast<int64_t>(days * 86400)) {
        take(i);
      }
    }
  }
  if (opts.sizeLimit && total > *opts.sizeLimit) {
    std::vector<size_t> order;
    for (size_t i = 0; i < entries.size(); ++i) {
      if (!entries[i].keep && !gone[i]) {
        order.push_back(i);
      }
    }
    const bool largest = opts.order == kLargestFirst;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
      const Entry& x = entries[a];
      const Entry& y = entries[b];
      if (largest && x.size != y.size) {
        return x.size > y.size;
      }
      if (x.mtime != y.mtime) {
        return x.mtime < y.mtime;
      }
      if (!largest && x.size != y.size) {
        return x.size > y.size;
      }
      return x.path < y.path;
    });
    for (size_t i : order) {
      if (total <= *opts.sizeLimit) {
        break;
      }
      take(i);
    }
  }
  if (bytesLeft) {
    *bytesLeft = total;
  }
  return out;
}

bool CleanBin(int binFd, const Options& opts, time_t now, Stats& stats) {
  struct stat st;
  if (fstat(binFd, &st) != 0) {
    ORVA_LOG(LOG_ERR, "cannot stat the recycle bin: %m");
    ++stats.errors;
    return false;
  }
  std::vector<Entry> entries;
  std::vector<std::string> prefix;
  Walk(binFd, st.st_dev, prefix, opts, entries, stats);
  const std::vector<size_t> doomed = SelectForDeletion(entries, opts, now, nullptr);
  std::vector<bool> deleted(entries.size(), false);
  {
    // Delete grouped by folder so that each parent is opened once.
    std::vector<size_t> sorted = doomed;
    std::sort(sorted.begin(), sorted.end(), [&](size_t a, size_t b) { return entries[a].path < entries[b].path; });
    ParentCache parents(binFd);
    for (size_t i : sorted) {
      switch (Delete(parents, entries[i], stats)) {
        case Outcome::Deleted:
        case Outcome::Gone:
          deleted[i] = true;
          break;
        case Outcome::LeftInPlace:
          break;
        case Outcome::Failed:
          ++stats.errors;
          break;
      }
    }
  }
  stats.bytesLeft = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (!deleted[i]) {
      stats.bytesLeft += entries[i].size;
      if (entries[i].keep) {
        ++stats.keptFiles;
      }
    }
  }
  prefix.clear();
  RemoveEmptyFolders(binFd, st.st_dev, prefix, stats);
  return stats.errors == 0;
}

}  // namespace orvarecycle
