// The registry of web API modules (libwebapi-ZEM5.so), used by the server and by tests.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "webapi/webapi.h"

namespace ORVA {

// Who may call an API over HTTP or the Unix socket (a module descriptor says it).
enum APIAuth {
  API_AUTH_ADMIN = 0,   // root and the members of admin_group (the default)
  API_AUTH_USER = 1,    // any authenticated account
  API_AUTH_PUBLIC = 2,  // anyone, no session needed
};

class APIRegistry {
 public:
  // The process-wide registry that APIRunner::Exec uses.
  static APIRegistry& Instance();

  // dlopen()s a module, calls its GetAPITable and registers every row up to the
  // all-zero row. False (with a reason) when the module cannot be loaded.
  bool LoadModule(const std::string& path, std::string* error = nullptr);
  // Registers the rows of a table up to the all-zero row.
  void RegisterTable(const APITableRow* table);
  // Loads every *.so of `dir` (name order) with its descriptor NAME.json beside it.
  // A module that cannot be loaded is logged and skipped. Returns the number loaded.
  int LoadDirectory(const std::string& dir);
  // Reads a descriptor: {"apis": {API: {"auth": "admin"|"user"|"public",
  // "methods": {METHOD: LEVEL}}}}. False (logged, nothing applied) when malformed.
  bool LoadDescriptor(const std::string& path, std::string* error = nullptr);
  // The level of (api, method): the method's own, else the API's, else admin.
  APIAuth GetAuth(const std::string& api, const std::string& method) const;

  // Finds the row for (api, version, method). On failure `errorCode` is
  // WEBAPI_ERR_NO_API, WEBAPI_ERR_NO_VERSION or WEBAPI_ERR_NO_METHOD.
  const APITableRow* Find(const std::string& api, int version, const std::string& method,
                          int* errorCode = nullptr) const;

  // Runs a row's entry function; a throwing module or one that writes no reply gets
  // WEBAPI_ERR_MODULE_FAILED (logged). Returns the reply envelope.
  Json::Value Call(const APITableRow& row, APIRequest& request) const;
  // The same; `response` receives what the module wrote (cookie requests included) and
  // `frameworkError` is WEBAPI_ERR_MODULE_FAILED when the module failed, else 0.
  Json::Value Call(const APITableRow& row, APIRequest& request, APIResponse* response, int* frameworkError) const;

  // The request being served by Call on this thread (innermost), or null.
  static const APIRequest* CurrentRequest();

  // Every registered (api, version, method), in registration order.
  std::vector<const APITableRow*> Rows() const;

 private:
  // Parses "admin", "user", "public".
  static bool ParseAuth(const std::string& text, APIAuth* auth);

  std::vector<APITableRow> rows_;
  std::vector<void*> handles_;
  // (API, METHOD) of a method's own level, (API, "") of the API's.
  std::map<std::pair<std::string, std::string>, APIAuth> auth_;
};

}  // namespace ORVA
