// Recycle-bin switches of the shares in etc/orva/shares.json.
#include "recycle/recycle.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <json/json.h>

#include <memory>

#include "core/file.h"
#include "core/json_read.h"
#include "core/kelc.h"
#include "core/log.h"
#include "core/root.h"

namespace {

const char kTempPrefix[] = ".shares.json.";

// Reads shares.json into `root` (an empty array when the file does not exist).
// Every entry must be an object with a non-empty string "name".
bool ReadShares(const std::string& path, Json::Value& root) {
  std::string errs;
  bool ok = ORVA::JsonReadFile(path, &root, &errs);
  if (!ok && errno == ENOENT) {
    root = Json::Value(Json::arrayValue);
    return true;
  }
  if (!ok && errno != EINVAL) {
    ORVA_LOG(LOG_ERR, "%s: %s", path.c_str(), errs.c_str());
    KELC_ERR_SET(KELC_ERR_IO);
    return false;
  }
  ok = ok && root.isArray();
  for (Json::ArrayIndex i = 0; ok && i < root.size(); ++i) {
    ok = root[i].isObject() && root[i]["name"].isString() && !root[i]["name"].asString().empty();
  }
  if (!ok) {
    ORVA_LOG(LOG_ERR, "malformed %s", path.c_str());
    KELC_ERR_SET(KELC_ERR_PARSE);
    return false;
  }
  return true;
}

// Temporary files are only created under the folder lock, so any found while holding
// it were left by a writer that died.
void RemoveStaleTemps(int dirFd) {
  int fd = dup(dirFd);
  DIR* d = fd >= 0 ? fdopendir(fd) : nullptr;
  if (!d) {
    if (fd >= 0) {
      close(fd);
    }
    return;
  }
  const std::string pattern = std::string(kTempPrefix) + "??????";
  while (struct dirent* e = readdir(d)) {
    if (fnmatch(pattern.c_str(), e->d_name, FNM_PERIOD) == 0) {
      unlinkat(dirFd, e->d_name, 0);
    }
  }
  closedir(d);
}

// Replaces `path` by `text` atomically, keeping its permissions.
bool ReplaceFile(const std::string& path, const std::string& text) {
  struct stat st;
  if (ORVA::WriteFileAtomic(path, text, stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0644)) return true;
  ORVA_LOG(LOG_ERR, "cannot write %s: %m", path.c_str());
  KELC_ERR_SET(KELC_ERR_IO);
  return false;
}

}  // namespace

extern "C" {

int ORVARecycleStatusSet(const char* share, int enable) {
  if (!share || !*share || (enable != 0 && enable != 1)) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return -1;
  }
  const std::string dir = ORVA::ORVAPathMap("/etc/orva");
  const std::string path = dir + "/shares.json";

  // The folder's own descriptor is the lock: the file itself is replaced by rename.
  int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd < 0) {
    ORVA_LOG(LOG_ERR, "cannot open %s: %s", dir.c_str(), strerror(errno));
    KELC_ERR_SET(KELC_ERR_IO);
    return -1;
  }
  while (flock(dirFd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      close(dirFd);
      KELC_ERR_SET(KELC_ERR_IO);
      return -1;
    }
  }
  RemoveStaleTemps(dirFd);

  int rc = -1;
  Json::Value root;
  if (ReadShares(path, root)) {
    Json::Value* entry = nullptr;
    for (Json::Value& e : root) {
      if (e["name"].asString() == share) {
        entry = &e;
        break;
      }
    }
    if (!entry && strcmp(share, "home") == 0) {
      Json::Value home(Json::objectValue);
      home["name"] = "home";
      home["path"] = "";
      home["recycle_bin"] = false;
      entry = &root.append(home);
    }
    if (!entry) {
      ORVA_LOG(LOG_ERR, "no share named %s", share);
      KELC_ERR_SET(KELC_ERR_NOT_FOUND);
    } else if ((*entry)["recycle_bin"].isBool() && (*entry)["recycle_bin"].asBool() == (enable == 1)) {
      rc = 0;  // already so: no rewrite
    } else {
      (*entry)["recycle_bin"] = enable == 1;
      Json::StreamWriterBuilder wb;
      wb["indentation"] = "  ";
      wb["emitUTF8"] = true;
      if (ReplaceFile(path, Json::writeString(wb, root) + "\n")) {
        rc = 0;
      }
    }
  }
  flock(dirFd, LOCK_UN);
  close(dirFd);
  return rc;
}

int ORVARecycleShareListGet(PORVA_RECYCLE_SHARE* ppShares) {
  if (!ppShares) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return -1;
  }
  *ppShares = nullptr;
  Json::Value root;
  if (!ReadShares(ORVA::ORVAPathMap("/etc/orva/shares.json"), root)) {
    return -1;
  }
  const int count = static_cast<int>(root.size());
  if (count == 0) {
    return 0;
  }
  auto* shares = static_cast<PORVA_RECYCLE_SHARE>(calloc(static_cast<size_t>(count), sizeof(ORVA_RECYCLE_SHARE)));
  if (!shares) {
    KELC_ERR_SET(KELC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  for (int i = 0; i < count; ++i) {
    const Json::Value& e = root[static_cast<Json::ArrayIndex>(i)];
    const Json::Value& path = e["path"];
    shares[i].szName = strdup(e["name"].asCString());
    shares[i].szPath = strdup(path.isString() ? path.asCString() : "");
    shares[i].recycleBin = e["recycle_bin"].isBool() && e["recycle_bin"].asBool() ? 1 : 0;
    if (!shares[i].szName || !shares[i].szPath) {
      ORVARecycleShareListFree(shares, i + 1);
      KELC_ERR_SET(KELC_ERR_OUT_OF_MEMORY);
      return -1;
    }
  }
  *ppShares = shares;
  return count;
}

void ORVARecycleShareListFree(PORVA_RECYCLE_SHARE pShares, int count) {
  if (!pShares) {
    return;
  }
  for (int i = 0; i < count; ++i) {
    free(pShares[i].szName);
    free(pShares[i].szPath);
  }
  free(pShares);
}

}  // extern "C"
