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

#include <fstream>
#include <memory>
#include <sstream>

#include "core/kelc.h"
#include "core/root.h"

namespace {

const char kTempPrefix[] = ".shares.json.";

// Reads shares.json into `root` (an empty array when the file does not exist).
// Every entry must be an object with a non-empty string "name".
bool ReadShares(const std::string& path, Json::Value& root) {
  std::ifstream in(path);
  if (!in) {
    if (errno == ENOENT) {
      root = Json::Value(Json::arrayValue);
      return true;
    }
    syslog(LOG_ERR, "%s:%d cannot read %s: %s", "recycle", __LINE__, path.c_str(), strerror(errno));
    KELC_ERR_SET(KELC_ERR_IO);
    return false;
  }
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["failIfExtra"] = true;
  std::string errs;
  bool ok = Json::parseFromStream(builder, in, &root, &errs) && root.isArray();
  for (Json::ArrayIndex i = 0; ok && i < root.size(); ++i) {
    ok = root[i].isObject() && root[i]["name"].isString() && !root[i]["name"].asString().empty();
  }
  if (!ok) {
    syslog(LOG_ERR, "%s:%d malformed %s", "recycle", __LINE__, path.c_str());
    KELC_ERR_SET(KELC_ERR_PARSE);
    return false;
  }
  return true;
}

bool WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    done += static_cast<size_t>(n);
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

// Replaces `path` (in folder `dir`, open as dirFd) by `text` atomically.
bool ReplaceFile(const std::string& dir, int dirFd, const std::string& path, const std::string& text) {
  mode_t mode = 0644;
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    mode = st.st_mode & 07777;
  }
  std::string tmp = dir + "/" + kTempPrefix + "XXXXXX";
  int fd = mkostemp(tmp.data(), O_CLOEXEC);
  if (fd < 0) {
    syslog(LOG_ERR, "%s:%d cannot create %s: %s", "recycle", __LINE__, tmp.c_str(), strerror(errno));
    KELC_ERR_SET(KELC_ERR_IO);
    return false;
  }
  bool ok = fchmod(fd, mode) == 0 && WriteAll(fd, text) && fsync(fd) == 0;
  ok = (close(fd) == 0) && ok;
  if (ok && rename(tmp.c_str(), path.c_str()) == 0) {
    fsync(dirFd);  // make the rename itself durable
    return true;
  }
  syslog(LOG_ERR, "%s:%d cannot write %s: %s", "recycle", __LINE__, path.c_str(), strerror(errno));
  unlink(tmp.c_str());
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
    syslog(LOG_ERR, "%s:%d cannot open %s: %s", "recycle", __LINE__, dir.c_str(), strerror(errno));
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
      syslog(LOG_ERR, "%s:%d no share named %s", "recycle", __LINE__, share);
      KELC_ERR_SET(KELC_ERR_NOT_FOUND);
    } else if ((*entry)["recycle_bin"].isBool() && (*entry)["recycle_bin"].asBool() == (enable == 1)) {
      rc = 0;  // already so: no rewrite
    } else {
      (*entry)["recycle_bin"] = enable == 1;
      Json::StreamWriterBuilder wb;
      wb["indentation"] = "  ";
      wb["emitUTF8"] = true;
      if (ReplaceFile(dir, dirFd, path, Json::writeString(wb, root) + "\n")) {
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
