// The web API framework (libwebapi-ZEM5.so): requests, parameters, responses, in-process
// calls and the registry of loaded modules.
#pragma once

#include <json/json.h>

#include <string>

namespace ORVA {

// Whether a parameter must be present.
enum PARAM_NECESSITY {
  PARAM_REQUIRED = 0,
  PARAM_OPTIONAL = 1,
};

// A typed request parameter.
template <typename T>
class APIParameter {
 public:
  APIParameter() = default;
  APIParameter(bool set, bool invalid, T value) : set_(set), invalid_(invalid), value_(std::move(value)) {}
  // The request carried the parameter (of any type).
  bool IsSet() const { return set_; }
  // Required but missing, present but not of this type, or refused by the validator.
  bool IsInvalid() const { return invalid_; }
  // The converted value (a default-constructed T when not set or invalid).
  const T& Get() const { return value_; }

 private:
  bool set_ = false;
  bool invalid_ = false;
  T value_{};
};

class APIRequest {
 public:
  // `params` must be an object (anything else is taken as no parameters).
  APIRequest(const std::string& api, int version, const std::string& method, const Json::Value& params,
             const std::string& user, const std::string& lang);

  const std::string& GetAPIName() const { return api_; }
  int GetAPIVersion() const { return version_; }
  const std::string& GetAPIMethod() const { return method_; }
  // The caller's account name.
  const std::string& GetLoginUserName() const { return user_; }
  // The UI language code, e.g. "en".
  std::string GetUILanguage() const { return lang_; }

  // The parameter's value, or `defaultValue` when absent. An empty name gives every
  // parameter as one object.
  Json::Value GetParam(const std::string& name, const Json::Value& defaultValue = Json::Value()) const;
  // Typed readers: each accepts only its own JSON type (an integer that fits in int; a
  // string; an array). The validator, when given, must accept the value.
  APIParameter<int> GetAndCheckInt(const std::string& name, PARAM_NECESSITY necessity = PARAM_REQUIRED,
                                   bool (*validator)(const int&) = nullptr) const;
  APIParameter<std::string> GetAndCheckString(const std::string& name, PARAM_NECESSITY necessity = PARAM_REQUIRED,
                                              bool (*validator)(const std::string&) = nullptr) const;
  APIParameter<Json::Value> GetAndCheckArray(const std::string& name, PARAM_NECESSITY necessity = PARAM_REQUIRED,
                                             bool (*validator)(const Json::Value&) = nullptr) const;

  // The id of the session cookie the request came with ("" when none); the Auth
  // module ends it at login and logout.
  const std::string& GetSessionId() const { return sessionId_; }
  void SetSessionId(const std::string& id) { sessionId_ = id; }

 private:
  std::string api_;
  int version_;
  std::string method_;
  Json::Value params_;
  std::string user_;
  std::string lang_;
  std::string sessionId_;
};

class APIResponse {
 public:
  void SetSuccess(const Json::Value& data = Json::Value());
  // The same without copying: a listing's reply may hold thousands of values.
  void SetSuccess(Json::Value&& data);
  // `data`: null, or an object whose members go beside "code" in the reply.
  void SetError(int code, const Json::Value& data = Json::Value());
  // SetError with {"msg": msg} and, when given, "param": the parameter at fault (the
  // platform modules' style).
  void SetErrorMessage(int code, const std::string& msg, const char* param = nullptr);

  // How many times SetSuccess/SetError were called (a module must call exactly one, once).
  int GetReplyCount() const { return replies_; }
  bool IsSuccess() const { return success_; }
  const Json::Value& GetData() const { return data_; }
  // The reply envelope: {"success": true, "data": D} or {"success": false, "error":
  // {"code": C, ...members of an object data...}} (other non-null data under "data").
  // The first reply counts when a module replied more than once.
  // A module that wrote no reply gets the framework's error 100.
  Json::Value GetEnvelope() const;
  // GetEnvelope, moving the data out (the response is spent).
  Json::Value TakeEnvelope();

  // Asks the server to send a new session cookie with this reply (an empty id clears
  // the cookie). Only the Auth module uses it.
  void SetSessionCookie(const std::string& id);
  bool HasSessionCookie() const { return cookieSet_; }
  const std::string& GetSessionCookie() const { return cookie_; }

 private:
  int replies_ = 0;
  bool success_ = false;
  int code_ = 0;
  Json::Value data_;
  bool cookieSet_ = false;
  std::string cookie_;
};

typedef void (*APIEntryFunc)(APIRequest*, APIResponse*);

// One row of a module's method table; a table ends with an all-zero row.
struct APITableRow {
  const char* api;
  int version;
  const char* method;
  APIEntryFunc func;
};

// Framework error codes (and the HTTP statuses the server answers them with).
enum {
  WEBAPI_ERR_MODULE_FAILED = 100,     // 500: the module threw or wrote no reply
  WEBAPI_ERR_BAD_REQUEST = 101,       // 400
  WEBAPI_ERR_NO_API = 102,            // 404
  WEBAPI_ERR_NO_METHOD = 103,         // 404
  WEBAPI_ERR_NO_VERSION = 104,        // 404
  WEBAPI_ERR_PERMISSION = 105,        // 403
  WEBAPI_ERR_NOT_LOGGED_IN = 106,     // 401
  WEBAPI_ERR_TOO_LARGE = 107,         // 413
};

// {"success": false, "error": {"code": code}}.
Json::Value ErrorEnvelope(int code);

class APIRunner {
 public:
  // Calls another registered API in-process as `user` (trusted: no permission check)
  // and writes its whole reply envelope into `result`. An unknown API, version or
  // method gives the framework's error envelope.
  static void Exec(Json::Value& result, const char* api, int version, const char* method,
                   const Json::Value& params, const char* user);
};

}  // namespace ORVA

extern "C" {
// What a module exports: its method table.
typedef const ORVA::APITableRow* (*ORVA_GET_API_TABLE)(void);
}
