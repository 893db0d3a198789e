// The registry of web API modules (libwebapi-ZEM5.so), used by the server and by tests.
#pragma once

#include <string>
#include <vector>

#include "webapi/webapi.h"

namespace ORVA {

class APIRegistry {
 public:
  // The process-wide registry that APIRunner::Exec uses.
  static APIRegistry& Instance();

  // dlopen()s a module, calls its GetAPITable and registers every row up to the
  // all-zero row. False (with a reason) when the module cannot be loaded.
  bool LoadModule(const std::string& path, std::string* error = nullptr);
  // Registers the rows of a table up to the all-zero row.
  void RegisterTable(const APITableRow* table);

  // Finds the row for (api, version, method). On failure `errorCode` is
  // WEBAPI_ERR_NO_API, WEBAPI_ERR_NO_VERSION or WEBAPI_ERR_NO_METHOD.
  const APITableRow* Find(const std::string& api, int version, const std::string& method,
                          int* errorCode = nullptr) const;

  // Runs a row's entry function; a throwing module or one that writes no reply gets
  // WEBAPI_ERR_MODULE_FAILED (logged). Returns the reply envelope.
  Json::Value Call(const APITableRow& row, APIRequest& request) const;

  // Every registered (api, version, method), in registration order.
  std::vector<const APITableRow*> Rows() const;

 private:
  std::vector<APITableRow> rows_;
  std::vector<void*> handles_;
};

}  // namespace ORVA
