// UI text parsers over usr/orva/orvaman/webman: texts/LANG/strings.json and the
// 3rd-party apps' 3rdparty/APP/config.json. Parsed files are cached process-wide by
// path and file identity (device, inode, size, mtime, ctime), so parsers built per
// request cost no parsing while nothing changes.
#include "core/vek_parser.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/json_read.h"
#include "core/kelc.h"
#include "core/log.h"
#include "core/root.h"

namespace ORVA {
namespace VEK {

namespace {

const char kWebman[] = "/usr/orva/orvaman/webman";
// Far more files than an appliance's UI has; past it the cache starts over.
const size_t kCacheLimit = 4096;

struct FileId {
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  timespec mtime{};
  timespec ctime{};
  bool operator==(const FileId& o) const {
    return dev == o.dev && ino == o.ino && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
           mtime.tv_nsec == o.mtime.tv_nsec && ctime.tv_sec == o.ctime.tv_sec && ctime.tv_nsec == o.ctime.tv_nsec;
  }
};

FileId IdOf(const struct stat& st) {
  FileId id;
  id.dev = st.st_dev;
  id.ino = st.st_ino;
  id.size = st.st_size;
  id.mtime = st.st_mtim;
  id.ctime = st.st_ctim;
  return id;
}

struct CacheEntry {
  FileId id;
  std::shared_ptr<const Json::Value> value;
};

std::mutex gCacheMutex;
std::unordered_map<std::string, CacheEntry> gCache;
std::atomic<unsigned long long> gParseCount{0};

std::shared_ptr<const Json::Value> EmptyObject() {
  return std::make_shared<const Json::Value>(Json::objectValue);
}

// The JSON object in `path`, or an empty object when the file is missing, unreadable,
// malformed or not an object. Served from the cache while the file is unchanged; the
// value is shared, not copied (strings.json is some 16 KiB of values).
std::shared_ptr<const Json::Value> LoadObject(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    KELC_ERR_SET(KELC_ERR_NOT_FOUND);
    return EmptyObject();
  }
  {
    std::lock_guard<std::mutex> lock(gCacheMutex);
    auto it = gCache.find(path);
    if (it != gCache.end() && it->second.id == IdOf(st)) {
      return it->second.value;
    }
  }

  // Identity and content come from the same open file, so a file replaced between
  // stat and read is cached under the identity of what was actually read.
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    if (fd >= 0) {
      close(fd);
    }
    KELC_ERR_SET(KELC_ERR_IO);
    return EmptyObject();
  }
  std::string text;
  char buf[65536];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) {
    text.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  if (n < 0) {
    KELC_ERR_SET(KELC_ERR_IO);
    return EmptyObject();
  }

  gParseCount.fetch_add(1, std::memory_order_relaxed);
  Json::Value value;
  std::string errs;
  if (!ORVA::JsonParse(text, &value, &errs) || !value.isObject()) {
    ORVA_LOG(LOG_ERR, "malformed %s: %s", path.c_str(), errs.empty() ? "not an object" : errs.c_str());
    KELC_ERR_SET(KELC_ERR_PARSE);
    value = Json::Value(Json::objectValue);  // cached too: a bad file is not re-parsed until it changes
  }

  std::lock_guard<std::mutex> lock(gCacheMutex);
  if (gCache.size() >= kCacheLimit) {
    gCache.clear();
  }
  auto shared = std::make_shared<const Json::Value>(std::move(value));
  gCache[path] = CacheEntry{IdOf(st), shared};
  return shared;
}

// A language code or app folder name that can only name one folder level.
bool IsPlainName(const std::string& s) {
  if (s.empty() || s == "." || s == "..") {
    return false;
  }
  return std::all_of(s.begin(), s.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.';
  });
}

bool HasDotDot(const std::string& path) {
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) {
      end = path.size();
    }
    if (path.compare(start, end - start, "..") == 0 && end - start == 2) {
      return true;
    }
    start = end + 1;
  }
  return false;
}

}  // namespace

unsigned long long TextFileParseCount() { return gParseCount.load(std::memory_order_relaxed); }

struct JSConfigParser::State {
  std::string lang;
  Json::Value texts{Json::objectValue};
};

JSConfigParser::JSConfigParser(const char* lang, bool /*reserved*/) : state_(std::make_shared<State>()) {
  state_->lang = lang ? lang : "";
}

namespace {

// Adds NS -> "3rdparty/APP/texts/LANG" for the app folder APP, when its config names a namespace.
bool AddApp(const std::string& app, const std::string& lang, Json::Value& texts) {
  std::shared_ptr<const Json::Value> conf =
      LoadObject(ORVAPathMap(std::string(kWebman) + "/3rdparty/" + app + "/config.json"));
  const Json::Value& ns = (*conf)["namespace"];
  if (!ns.isString() || ns.asString().empty()) {
    return false;
  }
  texts[ns.asString()] = "3rdparty/" + app + "/texts/" + lang;
  return true;
}

}  // namespace

bool JSConfigParser::Parse(const char* path) {
  State& s = *state_;
  s.texts = Json::Value(Json::objectValue);
  if (!IsPlainName(s.lang)) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return false;
  }
  if (path) {
    // One app: the appliance path of its folder or of its config.json, inside 3rdparty.
    std::string p = path;
    const std::string suffix = "/config.json";
    if (p.size() > suffix.size() && p.compare(p.size() - suffix.size(), suffix.size(), suffix) == 0) {
      p.erase(p.size() - suffix.size());
    }
    while (p.size() > 1 && p.back() == '/') {
      p.pop_back();
    }
    const std::string prefix = std::string(kWebman) + "/3rdparty/";
    if (p.compare(0, prefix.size(), prefix) != 0 || !IsPlainName(p.substr(prefix.size()))) {
      KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
      return false;
    }
    return AddApp(p.substr(prefix.size()), s.lang, s.texts);
  }

  const std::string dir = ORVAPathMap(std::string(kWebman) + "/3rdparty");
  DIR* d = opendir(dir.c_str());
  if (!d) {
    KELC_ERR_SET(KELC_ERR_NOT_FOUND);
    return false;
  }
  std::vector<std::string> apps;
  while (struct dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name[0] != '.' && IsPlainName(name)) {
      apps.push_back(name);
    }
  }
  closedir(d);
  // Name order, so that two apps claiming one namespace resolve the same way every time.
  std::sort(apps.begin(), apps.end());
  for (const std::string& app : apps) {
    AddApp(app, s.lang, s.texts);
  }
  return true;
}

Json::Value JSConfigParser::GetTexts() const { return state_->texts; }

LocalizedStringParser::LocalizedStringParser() = default;

Json::Value LocalizedStringParser::ParseTexts(std::string dir) { return *Texts(std::move(dir)); }

std::shared_ptr<const Json::Value> LocalizedStringParser::Texts(std::string dir) {
  if (dir.empty() || dir.front() != '/' || HasDotDot(dir)) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return EmptyObject();
  }
  while (dir.size() > 1 && dir.back() == '/') {
    dir.pop_back();
  }
  return LoadObject(ORVAPathMap(dir + "/strings.json"));
}

}  // namespace VEK
}  // namespace ORVA
