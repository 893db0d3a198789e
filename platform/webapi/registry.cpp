// The registry of web API modules: loading, descriptors, lookup and guarded calls.
#include "webapi/registry.h"

#include <dirent.h>
#include <dlfcn.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>

#include "core/json_read.h"
#include "core/log.h"

namespace ORVA {

namespace {

thread_local const APIRequest* tlsCurrent = nullptr;

bool EndsWith(const std::string& s, const char* suffix) {
  size_t n = strlen(suffix);
  return s.size() > n && s.compare(s.size() - n, n, suffix) == 0;
}

}  // namespace

APIRegistry& APIRegistry::Instance() {
  static APIRegistry registry;
  return registry;
}

const APIRequest* APIRegistry::CurrentRequest() { return tlsCurrent; }

bool APIRegistry::LoadModule(const std::string& path, std::string* error) {
  // Modules are never unloaded: the rows point into them for the life of the process.
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* why = dlerror();
    if (error != nullptr) *error = why != nullptr ? why : "dlopen failed";
    ORVA_LOG(LOG_ERR, "cannot load module %s: %s", path.c_str(), why ? why : "");
    return false;
  }
  auto getTable = reinterpret_cast<ORVA_GET_API_TABLE>(dlsym(handle, "GetAPITable"));
  if (getTable == nullptr) {
    if (error != nullptr) *error = "no GetAPITable in " + path;
    ORVA_LOG(LOG_ERR, "module %s exports no GetAPITable", path.c_str());
    dlclose(handle);
    return false;
  }
  const APITableRow* table = getTable();
  if (table == nullptr) {
    if (error != nullptr) *error = "GetAPITable returned null in " + path;
    ORVA_LOG(LOG_ERR, "module %s returned no table", path.c_str());
    dlclose(handle);
    return false;
  }
  handles_.push_back(handle);
  RegisterTable(table);
  return true;
}

void APIRegistry::RegisterTable(const APITableRow* table) {
  if (table == nullptr) return;
  for (const APITableRow* r = table; r->api != nullptr || r->version != 0 || r->method != nullptr || r->func != nullptr;
       ++r) {
    if (r->api == nullptr || r->method == nullptr || r->func == nullptr) {
      ORVA_LOG(LOG_ERR, "skipping an incomplete table row (%s v%d %s)", r->api ? r->api : "(null)", r->version,
               r->method ? r->method : "(null)");
      continue;
    }
    bool duplicate = std::any_of(rows_.begin(), rows_.end(), [r](const APITableRow& x) {
      return x.version == r->version && strcmp(x.api, r->api) == 0 && strcmp(x.method, r->method) == 0;
    });
    if (duplicate) {
      ORVA_LOG(LOG_WARNING, "%s v%d %s is registered already; the first stays", r->api, r->version, r->method);
      continue;
    }
    rows_.push_back(*r);
  }
}

int APIRegistry::LoadDirectory(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) {
    ORVA_LOG(LOG_ERR, "cannot open module folder %s: %m", dir.c_str());
    return 0;
  }
  std::vector<std::string> names;
  while (dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (EndsWith(name, ".so")) names.push_back(name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  int loaded = 0;
  for (const std::string& name : names) {
    std::string path = dir + "/" + name;
    if (!LoadModule(path)) continue;
    ++loaded;
    std::string desc = dir + "/" + name.substr(0, name.size() - 3) + ".json";
    if (access(desc.c_str(), F_OK) == 0) {
      LoadDescriptor(desc);
    }
  }
  return loaded;
}

bool APIRegistry::ParseAuth(const std::string& text, APIAuth* auth) {
  if (text == "admin") {
    *auth = API_AUTH_ADMIN;
  } else if (text == "user") {
    *auth = API_AUTH_USER;
  } else if (text == "public") {
    *auth = API_AUTH_PUBLIC;
  } else {
    return false;
  }
  return true;
}

bool APIRegistry::LoadDescriptor(const std::string& path, std::string* error) {
  auto fail = [&](const std::string& why) {
    if (error != nullptr) *error = why;
    ORVA_LOG(LOG_ERR, "descriptor %s: %s; its APIs stay admin-only", path.c_str(), why.c_str());
    return false;
  };
  Json::Value root;
  std::string errs;
  if (!ORVA::JsonReadFile(path, &root, &errs)) return fail(errno == EINVAL ? "not JSON: " + errs : "cannot read");
  if (!root.isObject() || !root["apis"].isObject()) return fail("no \"apis\" object");
  // Check everything first so that a half-valid descriptor applies nothing.
  std::vector<std::pair<std::pair<std::string, std::string>, APIAuth>> entries;
  for (const std::string& api : root["apis"].getMemberNames()) {
    const Json::Value& a = root["apis"][api];
    if (!a.isObject()) return fail("\"" + api + "\" is not an object");
    APIAuth level = API_AUTH_ADMIN;
    if (a.isMember("auth") && (!a["auth"].isString() || !ParseAuth(a["auth"].asString(), &level))) {
      return fail("\"" + api + "\": \"auth\" must be \"admin\", \"user\" or \"public\"");
    }
    entries.push_back({{api, ""}, level});
    if (a.isMember("methods")) {
      if (!a["methods"].isObject()) return fail("\"" + api + "\": \"methods\" is not an object");
      for (const std::string& m : a["methods"].getMemberNames()) {
        APIAuth ml;
        const Json::Value& v = a["methods"][m];
        if (m.empty() || !v.isString() || !ParseAuth(v.asString(), &ml)) {
          return fail("\"" + api + "\" method \"" + m + "\": level must be \"admin\", \"user\" or \"public\"");
        }
        entries.push_back({{api, m}, ml});
      }
    }
  }
  for (const auto& [key, level] : entries) auth_[key] = level;
  return true;
}

APIAuth APIRegistry::GetAuth(const std::string& api, const std::string& method) const {
  auto it = auth_.find({api, method});
  if (it != auth_.end()) return it->second;
  it = auth_.find({api, ""});
  if (it != auth_.end()) return it->second;
  return API_AUTH_ADMIN;
}

const APITableRow* APIRegistry::Find(const std::string& api, int version, const std::string& method,
                                     int* errorCode) const {
  bool apiKnown = false;
  bool methodKnown = false;
  for (const APITableRow& r : rows_) {
    if (api != r.api) continue;
    apiKnown = true;
    if (method != r.method) continue;
    methodKnown = true;
    if (r.version == version) {
      if (errorCode != nullptr) *errorCode = 0;
      return &r;
    }
  }
  if (errorCode != nullptr) {
    *errorCode = !apiKnown ? WEBAPI_ERR_NO_API : !methodKnown ? WEBAPI_ERR_NO_METHOD : WEBAPI_ERR_NO_VERSION;
  }
  return nullptr;
}

Json::Value APIRegistry::Call(const APITableRow& row, APIRequest& request) const {
  APIResponse response;
  int err = 0;
  return Call(row, request, &response, &err);
}

Json::Value APIRegistry::Call(const APITableRow& row, APIRequest& request, APIResponse* response,
                              int* frameworkError) const {
  *frameworkError = 0;
  const APIRequest* outer = tlsCurrent;
  tlsCurrent = &request;
  bool threw = false;
  try {
    row.func(&request, response);
  } catch (const std::exception& e) {
    threw = true;
    ORVA_LOG(LOG_ERR, "%s v%d %s threw: %s", row.api, row.version, row.method, e.what());
  } catch (...) {
    threw = true;
    ORVA_LOG(LOG_ERR, "%s v%d %s threw", row.api, row.version, row.method);
  }
  tlsCurrent = outer;
  if (threw || response->GetReplyCount() == 0) {
    if (!threw) {
      ORVA_LOG(LOG_ERR, "%s v%d %s wrote no reply", row.api, row.version, row.method);
    }
    *frameworkError = WEBAPI_ERR_MODULE_FAILED;
    return ErrorEnvelope(WEBAPI_ERR_MODULE_FAILED);
  }
  if (response->GetReplyCount() > 1) {
    ORVA_LOG(LOG_ERR, "%s v%d %s replied %d times; the first reply stands", row.api, row.version, row.method,
             response->GetReplyCount());
  }
  return response->TakeEnvelope();
}

std::vector<const APITableRow*> APIRegistry::Rows() const {
  std::vector<const APITableRow*> out;
  out.reserve(rows_.size());
  for (const APITableRow& r : rows_) out.push_back(&r);
  return out;
}

}  // namespace ORVA
