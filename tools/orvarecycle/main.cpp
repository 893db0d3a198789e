// orvarecycle: empties the recycle bins of shared folders by a policy, or switches
// them on and off. A share's bin is the folder .recycle at the share's root.
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/kelc.h"
#include "core/log.h"
#include "core/root.h"
#include "core/share.h"
#include "recycle/recycle.h"
#include "recycle_clean.h"

using orvarecycle::Op;
using orvarecycle::Options;

namespace {

const char kUsage[] =
    "usage: orvarecycle [--root DIR] --clean [-t DAYS] [-s BYTES -o 2|1]\n"
    "                   [-file_ext=EXT.EXT...] [-m BYTES] [-l BYTES] [--] [SHARE...]\n"
    "       orvarecycle [--root DIR] --enable|--disable [--] [SHARE...]\n"
    "\n"
    "Empties the recycle bins (SHARE_PATH/.recycle) of the named shared folders, or of\n"
    "every shared folder when none is named, or switches their recycle bins on or off.\n"
    "\"home\" names the users' home folders. Every word after \"--\" is a share name,\n"
    "and at least one must follow it.\n"
    "\n"
    "  --clean          delete the files in the bins (all of them unless a policy is given)\n"
    "  --enable         switch the recycle bins on\n"
    "  --disable        switch the recycle bins off\n"
    "  -t DAYS          delete only files older than DAYS days (by modification time)\n"
    "  -s BYTES         delete files until the bin holds at most BYTES bytes, in the order\n"
    "  -o 2|1           of -o: 2 largest files first, 1 oldest files first (default 1)\n"
    "  -file_ext=A.B    keep files whose extension is A or B (any letter case)\n"
    "  -m BYTES         keep files larger than BYTES\n"
    "  -l BYTES         keep files smaller than BYTES\n"
    "  --root DIR       the system root (default: $ORVA_ROOT, else /)\n"
    "  --help           this text\n"
    "\n"
    "Symbolic links are never followed: a link in a bin is deleted itself. Folders left\n"
    "empty are removed. Exit status: 0 done, 1 a failure, 2 bad usage.\n";

// Errors go to syslog and to stderr; the rest to syslog only.
void Fail(const char* fmt, const std::string& a = "", const std::string& b = "") {
  std::string msg(static_cast<size_t>(snprintf(nullptr, 0, fmt, a.c_str(), b.c_str())), '\0');
  snprintf(msg.data(), msg.size() + 1, fmt, a.c_str(), b.c_str());
  ORVA_LOG(LOG_ERR, "%s", msg.c_str());
  fprintf(stderr, "orvarecycle: %s\n", msg.c_str());
}

struct Bin {
  std::string label;  // share name, or "home:USER"
  std::string folder; // the folder whose .recycle is the bin
};

// Share name to path, from the shares file (through the recycle-bin service, which
// owns that file).
bool ReadSharePaths(std::map<std::string, std::string>& paths) {
  PORVA_RECYCLE_SHARE shares = nullptr;
  const int count = ORVARecycleShareListGet(&shares);
  if (count < 0) {
    Fail("cannot read the share list %s", ORVA::ORVAPathMap("/etc/orva/shares.json"));
    return false;
  }
  for (int i = 0; i < count; ++i) {
    paths[shares[i].szName] = shares[i].szPath;
  }
  ORVARecycleShareListFree(shares, count);
  return true;
}

// The users' home folders: accounts of people (uid 1000 and up, not "nobody").
void HomeBins(std::vector<Bin>& bins) {
  setpwent();
  while (struct passwd* pw = getpwent()) {
    struct stat st;
    if (pw->pw_uid >= 1000 && pw->pw_uid != 65534 && pw->pw_dir && pw->pw_dir[0] == '/' &&
        stat(pw->pw_dir, &st) == 0 && S_ISDIR(st.st_mode)) {
      bins.push_back({std::string("home:") + pw->pw_name, pw->pw_dir});
    }
  }
  endpwent();
}

bool CleanOne(const Bin& bin, const Options& opts) {
  const int folder = open(bin.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) {
    Fail("share %s: cannot open its folder: %s", bin.label, bin.folder + ": " + strerror(errno));
    return false;
  }
  const int binFd = openat(folder, ".recycle", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  const int err = errno;
  close(folder);
  if (binFd < 0) {
    if (err == ENOENT) {
      printf("%s: no recycle bin (%s/.recycle does not exist)\n", bin.label.c_str(), bin.folder.c_str());
      return true;
    }
    if (err == ELOOP || err == ENOTDIR) {
      Fail("share %s: %s is not a folder (a symbolic link?); left alone", bin.label, bin.folder + "/.recycle");
    } else {
      Fail("share %s: cannot open its recycle bin: %s", bin.label, strerror(err));
    }
    return false;
  }
  orvarecycle::Stats stats;
  const bool ok = orvarecycle::CleanBin(binFd, opts, time(nullptr), stats);
  close(binFd);
  printf("%s: removed %llu file(s), %llu bytes; kept %llu excepted file(s); removed %llu empty folder(s); "
         "%llu bytes left\n",
         bin.label.c_str(), (unsigned long long)stats.removedFiles, (unsigned long long)stats.removedBytes,
         (unsigned long long)stats.keptFiles, (unsigned long long)stats.removedDirs,
         (unsigned long long)stats.bytesLeft);
  ORVA_LOG(LOG_INFO, "cleaned the recycle bin of %s: %llu file(s), %llu bytes removed, %llu bytes left",
           bin.label.c_str(), (unsigned long long)stats.removedFiles, (unsigned long long)stats.removedBytes,
           (unsigned long long)stats.bytesLeft);
  if (opts.sizeLimit && stats.bytesLeft > *opts.sizeLimit) {
    printf("%s: the excepted files alone exceed the limit of %llu bytes\n", bin.label.c_str(),
           (unsigned long long)*opts.sizeLimit);
  }
  if (!ok) {
    Fail("share %s: %s", bin.label, std::to_string(stats.errors) + " item(s) could not be handled; see the log");
  }
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  openlog("orvarecycle", LOG_PID, LOG_USER);
  Options opts;
  std::string error;
  if (!orvarecycle::ParseArgs(argc, argv, opts, error)) {
    fprintf(stderr, "orvarecycle: %s\n%s", error.c_str(), kUsage);
    return 2;
  }
  if (opts.help) {
    fputs(kUsage, stdout);
    return 0;
  }

  // Every name must be a known share before anything is touched.
  PKELC_SZLIST list = KELCSzListAlloc(16);
  if (!list || ORVAShareEnum(&list, 0x7F0F) < 0) {
    Fail("cannot read the list of shared folders%s", "");
    KELCSzListFree(list);
    return 1;
  }
  std::vector<std::string> known;
  for (int i = 0; i < KELCSzListCount(list); ++i) {
    known.emplace_back(KELCSzListGet(list, i));
  }
  KELCSzListFree(list);
  std::vector<std::string> targets = opts.shares.empty() ? known : opts.shares;
  {
    std::set<std::string> seen;
    std::vector<std::string> unique;
    for (const std::string& s : targets) {
      if (seen.insert(s).second) {
        unique.push_back(s);
      }
    }
    targets.swap(unique);
  }
  bool unknown = false;
  for (const std::string& s : opts.shares) {
    if (s != "home" && std::find(known.begin(), known.end(), s) == known.end()) {
      Fail("unknown shared folder \"%s\"", s);
      unknown = true;
    }
  }
  if (unknown) {
    return 1;
  }

  bool ok = true;
  if (opts.op == Op::Enable || opts.op == Op::Disable) {
    const int enable = opts.op == Op::Enable ? 1 : 0;
    for (const std::string& s : targets) {
      if (ORVARecycleStatusSet(s.c_str(), enable) < 0) {
        Fail("cannot switch the recycle bin of \"%s\" %s", s, enable ? "on" : "off");
        ok = false;
      } else {
        printf("%s: recycle bin %s\n", s.c_str(), enable ? "enabled" : "disabled");
        ORVA_LOG(LOG_INFO, "recycle bin of %s %s", s.c_str(), enable ? "enabled" : "disabled");
      }
    }
    return ok ? 0 : 1;
  }

  std::map<std::string, std::string> paths;
  if (!ReadSharePaths(paths)) {
    return 1;
  }
  std::vector<Bin> bins;
  for (const std::string& s : targets) {
    if (s == "home") {
      HomeBins(bins);
      continue;
    }
    auto it = paths.find(s);
    if (it == paths.end() || it->second.empty() || it->second[0] != '/') {
      Fail("shared folder \"%s\" has no absolute path", s);
      ok = false;
      continue;
    }
    bins.push_back({s, it->second});
  }
  for (const Bin& b : bins) {
    ok = CleanOne(b, opts) && ok;
  }
  return ok ? 0 : 1;
}
