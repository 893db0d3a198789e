// Package manager: var/lib/orva/packages/NAME/package.json.
#include "pkg/package_manager.h"

#include <dirent.h>
#include <errno.h>
#include <fnmatch.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>

#include <json/json.h>

#include <algorithm>

#include "core/json_read.h"
#include "core/kelc.h"
#include "core/log.h"
#include "core/root.h"

namespace ORVAPackageTool {

namespace {

// A package name is one folder level: no slash, not hidden, not "." or "..".
bool IsValidName(const std::string& name) {
  return !name.empty() && name[0] != '.' && name.find('/') == std::string::npos;
}

bool OptionalString(const Json::Value& obj, const char* key, std::string& out) {
  const Json::Value& v = obj[key];
  if (v.isNull()) {
    return true;
  }
  if (!v.isString()) {
    return false;
  }
  out = v.asString();
  return true;
}

}  // namespace

PackageManager::PackageManager() : dir_(ORVA::ORVAPathMap("/var/lib/orva/packages")) {}

bool PackageManager::init() {
  DIR* d = opendir(dir_.c_str());
  if (!d) {
    ORVA_LOG(LOG_ERR, "cannot read %s: %s", dir_.c_str(), strerror(errno));
    KELC_ERR_SET(errno == ENOENT ? KELC_ERR_NOT_FOUND : (errno == EACCES ? KELC_ERR_PERMISSION : KELC_ERR_IO));
    ready_ = false;
    return false;
  }
  closedir(d);
  ready_ = true;
  return true;
}

std::vector<std::string> PackageManager::enumPackages(const char* filter, unsigned long long /*flags*/) {
  std::vector<std::string> names;
  if (!ready_) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return names;
  }
  DIR* d = opendir(dir_.c_str());
  if (!d) {
    ORVA_LOG(LOG_ERR, "cannot read %s: %s", dir_.c_str(), strerror(errno));
    KELC_ERR_SET(KELC_ERR_IO);
    return names;
  }
  while (struct dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (!IsValidName(name)) {
      continue;
    }
    if (filter && fnmatch(filter, name.c_str(), 0) != 0) {
      continue;
    }
    struct stat st;
    const std::string manifest = dir_ + "/" + name + "/package.json";
    if (stat(manifest.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      names.push_back(name);
    }
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

bool PackageManager::getPackageInfo(const std::string& name, PackageInfo& info, const char* filter,
                                    unsigned long long /*flags*/) {
  if (!ready_ || !IsValidName(name)) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return false;
  }
  if (filter && fnmatch(filter, name.c_str(), 0) != 0) {
    KELC_ERR_SET(KELC_ERR_NOT_FOUND);
    return false;
  }
  const std::string manifest = dir_ + "/" + name + "/package.json";
  Json::Value root;
  std::string errs;
  const bool read = ORVA::JsonReadFile(manifest, &root, &errs);
  if (!read && errno != EINVAL) {
    KELC_ERR_SET(errno == ENOENT ? KELC_ERR_NOT_FOUND : KELC_ERR_IO);
    return false;
  }
  if (!read || !root.isObject()) {
    ORVA_LOG(LOG_ERR, "malformed %s: %s", manifest.c_str(), errs.empty() ? "not an object" : errs.c_str());
    KELC_ERR_SET(KELC_ERR_PARSE);
    return false;
  }

  PackageInfo out;
  out.name = name;
  std::string declared = name;
  const Json::Value& control = root["control"];
  bool ok = OptionalString(root, "name", declared) && declared == name &&
            OptionalString(root, "display_name", out.displayName) && OptionalString(root, "version", out.version) &&
            (control.isNull() || control.isObject());
  if (ok && control.isObject()) {
    ok = OptionalString(control, "start", out.startCommand) && OptionalString(control, "stop", out.stopCommand);
  }
  const Json::Value& service = root["service"];
  if (ok && !service.isNull() && !service.isBool()) {
    ok = false;
  }
  if (!ok) {
    ORVA_LOG(LOG_ERR, "malformed %s: wrong member type or name", manifest.c_str());
    KELC_ERR_SET(KELC_ERR_PARSE);
    return false;
  }
  if (out.displayName.empty()) {
    out.displayName = name;
  }
  // Without an explicit flag a package is offered when it can be both started and stopped.
  out.service = service.isBool() ? service.asBool() : (!out.startCommand.empty() && !out.stopCommand.empty());
  info = out;
  return true;
}

}  // namespace ORVAPackageTool
