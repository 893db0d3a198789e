// Users and groups over NSS.
#include "core/user.h"

#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "core/conf.h"
#include "core/kelc.h"
#include "core/log.h"
#include "core/lookup_epoch.h"

namespace {

// Runs getpwuid_r/getpwnam_r with a buffer that grows until the entry fits.
// Returns 1 found, 0 no such user, -1 error (error facility set).
template <typename Lookup>
int LookupUser(Lookup lookup, struct passwd* pw, std::vector<char>& buf) {
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  buf.resize(hint > 0 ? static_cast<size_t>(hint) : 1024);
  for (;;) {
    struct passwd* result = nullptr;
    int rc = lookup(pw, buf.data(), buf.size(), &result);
    if (rc == ERANGE && buf.size() < (1u << 24)) {
      buf.resize(buf.size() * 2);
      continue;
    }
    if (rc == 0 && result) {
      return 1;
    }
    if (rc == 0 || rc == ENOENT || rc == ESRCH || rc == EBADF || rc == EPERM) {
      KELC_ERR_SET(KELC_ERR_NO_USER);
      return 0;
    }
    ORVA_LOG(LOG_ERR, "user lookup failed: %s", strerror(rc));
    KELC_ERR_SET(KELC_ERR_IO);
    return -1;
  }
}

void ClearUser(PORVAUSER user) {
  free(user->szName);
  free(user->szHome);
  free(user->szShell);
  user->szName = user->szHome = user->szShell = nullptr;
}

int FillUser(const struct passwd& pw, PORVAUSER* ppUser) {
  char* name = strdup(pw.pw_name ? pw.pw_name : "");
  char* home = strdup(pw.pw_dir ? pw.pw_dir : "");
  char* shell = strdup(pw.pw_shell ? pw.pw_shell : "");
  PORVAUSER user = *ppUser;
  bool allocated = false;
  if (!user) {
    user = static_cast<PORVAUSER>(calloc(1, sizeof(ORVAUSER)));
    allocated = true;
  }
  if (!name || !home || !shell || !user) {
    free(name);
    free(home);
    free(shell);
    if (allocated) {
      free(user);
    }
    KELC_ERR_SET(KELC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  ClearUser(user);
  user->szName = name;
  user->uid = pw.pw_uid;
  user->gid = pw.pw_gid;
  user->szHome = home;
  user->szShell = shell;
  *ppUser = user;
  return 0;
}

// Answers of the current lookup epoch (core/lookup_epoch.h), by uid and by name; a
// listing asks for the same few owners thousands of times.
struct CachedUser {
  bool found = false;
  std::string name, home, shell;
  uid_t uid = 0;
  gid_t gid = 0;
};

struct UserCache {
  std::mutex mutex;
  uint64_t epoch = 0;
  std::map<uid_t, CachedUser> byUid;
  std::map<std::string, CachedUser> byName;
};

UserCache& Cache() {
  static UserCache* cache = new UserCache;  // never destroyed: usable from atexit code
  return *cache;
}

// Looks the user up through the cache when the process uses lookup epochs.
template <typename Key, typename Lookup>
int CachedLookup(std::map<Key, CachedUser> UserCache::*table, const Key& key, Lookup lookup, PORVAUSER* ppUser) {
  const uint64_t epoch = ORVALookupEpoch();
  UserCache& cache = Cache();
  CachedUser entry;
  bool hit = false;
  if (epoch != 0) {
    std::lock_guard<std::mutex> lock(cache.mutex);
    if (cache.epoch != epoch) {
      cache.byUid.clear();
      cache.byName.clear();
      cache.epoch = epoch;
    }
    auto it = (cache.*table).find(key);
    if (it != (cache.*table).end()) {
      entry = it->second;
      hit = true;
    }
  }
  if (!hit) {
    struct passwd pw;
    std::vector<char> buf;
    int found = LookupUser(lookup, &pw, buf);
    if (found < 0) {
      return -1;  // a failure is not remembered
    }
    entry.found = found > 0;
    if (entry.found) {
      entry.name = pw.pw_name ? pw.pw_name : "";
      entry.home = pw.pw_dir ? pw.pw_dir : "";
      entry.shell = pw.pw_shell ? pw.pw_shell : "";
      entry.uid = pw.pw_uid;
      entry.gid = pw.pw_gid;
    }
    if (epoch != 0) {
      std::lock_guard<std::mutex> lock(cache.mutex);
      if (cache.epoch == epoch) {
        (cache.*table)[key] = entry;
      }
    }
  }
  if (!entry.found) {
    KELC_ERR_SET(KELC_ERR_NO_USER);
    return -1;
  }
  struct passwd pw {};
  pw.pw_name = entry.name.data();
  pw.pw_dir = entry.home.data();
  pw.pw_shell = entry.shell.data();
  pw.pw_uid = entry.uid;
  pw.pw_gid = entry.gid;
  return FillUser(pw, ppUser);
}

}  // namespace

extern "C" {

int ORVAUserGetByUID(uid_t uid, PORVAUSER* ppUser) {
  if (!ppUser) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return -1;
  }
  return CachedLookup(
      &UserCache::byUid, uid,
      [uid](struct passwd* p, char* b, size_t n, struct passwd** r) { return getpwuid_r(uid, p, b, n, r); }, ppUser);
}

int ORVAUserGetByName(const char* name, PORVAUSER* ppUser) {
  if (!ppUser || !name || !*name) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return -1;
  }
  return CachedLookup(
      &UserCache::byName, std::string(name),
      [name](struct passwd* p, char* b, size_t n, struct passwd** r) { return getpwnam_r(name, p, b, n, r); },
      ppUser);
}

void ORVAUserFree(PORVAUSER pUser) {
  if (!pUser) {
    return;
  }
  ClearUser(pUser);
  free(pUser);
}

int ORVAUserIsAdmin(const char* name) {
  if (!name || !*name) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return -1;
  }
  struct passwd pw;
  std::vector<char> buf;
  int found = LookupUser(
      [name](struct passwd* p, char* b, size_t n, struct passwd** r) { return getpwnam_r(name, p, b, n, r); }, &pw,
      buf);
  if (found <= 0) {
    return -1;
  }
  if (pw.pw_uid == 0) {
    return 1;
  }
  const std::string groupName = OrvaConf().Def("admin_group", "administrators");

  struct group gr;
  struct group* grResult = nullptr;
  long hint = sysconf(_SC_GETGR_R_SIZE_MAX);
  std::vector<char> gbuf(hint > 0 ? static_cast<size_t>(hint) : 1024);
  int rc;
  while ((rc = getgrnam_r(groupName.c_str(), &gr, gbuf.data(), gbuf.size(), &grResult)) == ERANGE &&
         gbuf.size() < (1u << 24)) {
    gbuf.resize(gbuf.size() * 2);
  }
  if (rc != 0 || !grResult) {
    return 0;  // no such group: nobody but root is an administrator
  }
  const gid_t adminGid = gr.gr_gid;
  if (pw.pw_gid == adminGid) {
    return 1;
  }

  std::vector<gid_t> groups(32);
  for (;;) {
    int n = static_cast<int>(groups.size());
    if (getgrouplist(name, pw.pw_gid, groups.data(), &n) >= 0) {
      groups.resize(static_cast<size_t>(n));
      break;
    }
    if (n <= static_cast<int>(groups.size())) {
      groups.resize(groups.size() * 2);
    } else {
      groups.resize(static_cast<size_t>(n));
    }
    if (groups.size() > 65536) {
      KELC_ERR_SET(KELC_ERR_IO);
      return -1;
    }
  }
  for (gid_t g : groups) {
    if (g == adminGid) {
      return 1;
    }
  }
  return 0;
}

}  // extern "C"

std::string ORVA::UserName(uid_t uid) {
  PORVAUSER user = nullptr;
  std::string name;
  if (ORVAUserGetByUID(uid, &user) == 0 && user->szName) name = user->szName;
  ORVAUserFree(user);
  return name;
}
