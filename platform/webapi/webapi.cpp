// Requests, parameters, responses and in-process calls of the web API framework.
#include "webapi/webapi.h"

#include <syslog.h>

#include <limits>

#include "core/log.h"
#include "core/lookup_epoch.h"
#include "webapi/registry.h"

namespace ORVA {

APIRequest::APIRequest(const std::string& api, int version, const std::string& method, const Json::Value& params,
                       const std::string& user, const std::string& lang)
    : api_(api),
      version_(version),
      method_(method),
      params_(params.isObject() ? params : Json::Value(Json::objectValue)),
      user_(user),
      lang_(lang) {
  // Each call may reuse user and time zone lookups, but never those of an earlier call.
  ORVALookupEpochNext();
}

Json::Value APIRequest::GetParam(const std::string& name, const Json::Value& defaultValue) const {
  if (name.empty()) {
    return params_;
  }
  if (!params_.isMember(name)) {
    return defaultValue;
  }
  return params_[name];
}

namespace {

// Shared shape of the typed readers: absent -> set=false, invalid when required;
// present -> invalid unless `convert` accepts the JSON type and the validator the value.
template <typename T, typename Convert, typename Validator>
APIParameter<T> ReadParam(const Json::Value& params, const std::string& name, PARAM_NECESSITY necessity,
                          Validator validator, Convert convert) {
  if (name.empty() || !params.isMember(name)) {
    return APIParameter<T>(false, necessity == PARAM_REQUIRED, T{});
  }
  const Json::Value& v = params[name];
  T value{};
  if (!convert(v, value)) {
    return APIParameter<T>(true, true, T{});
  }
  if (validator != nullptr && !validator(value)) {
    return APIParameter<T>(true, true, T{});
  }
  return APIParameter<T>(true, false, std::move(value));
}

}  // namespace

APIParameter<int> APIRequest::GetAndCheckInt(const std::string& name, PARAM_NECESSITY necessity,
                                             bool (*validator)(const int&)) const {
  return ReadParam<int>(params_, name, necessity, validator, [](const Json::Value& v, int& out) {
    // JsonCpp calls 3.0 "integral"; only a number written as an integer counts here.
    if (v.type() == Json::intValue && v.isInt()) {
      out = v.asInt();
      return true;
    }
    // asUInt() would throw above 2^32-1: compare the widest form instead.
    if (v.type() == Json::uintValue && v.asLargestUInt() <= static_cast<Json::LargestUInt>(std::numeric_limits<int>::max())) {
      out = static_cast<int>(v.asLargestUInt());
      return true;
    }
    return false;
  });
}

APIParameter<std::string> APIRequest::GetAndCheckString(const std::string& name, PARAM_NECESSITY necessity,
                                                        bool (*validator)(const std::string&)) const {
  return ReadParam<std::string>(params_, name, necessity, validator, [](const Json::Value& v, std::string& out) {
    if (!v.isString()) {
      return false;
    }
    out = v.asString();
    return true;
  });
}

APIParameter<Json::Value> APIRequest::GetAndCheckArray(const std::string& name, PARAM_NECESSITY necessity,
                                                       bool (*validator)(const Json::Value&)) const {
  return ReadParam<Json::Value>(params_, name, necessity, validator, [](const Json::Value& v, Json::Value& out) {
    if (!v.isArray()) {
      return false;
    }
    out = v;
    return true;
  });
}

void APIResponse::SetSuccess(const Json::Value& data) { SetSuccess(Json::Value(data)); }

void APIResponse::SetSuccess(Json::Value&& data) {
  if (replies_++ > 0) {
    ORVA_LOG(LOG_ERR, "module replied more than once; the first reply stands");
    return;
  }
  success_ = true;
  code_ = 0;
  data_ = std::move(data);
}

void APIResponse::SetError(int code, const Json::Value& data) {
  if (replies_++ > 0) {
    ORVA_LOG(LOG_ERR, "module replied more than once; the first reply stands");
    return;
  }
  success_ = false;
  code_ = code;
  data_ = data;
}

void APIResponse::SetErrorMessage(int code, const std::string& msg, const char* param) {
  Json::Value data(Json::objectValue);
  data["msg"] = msg;
  if (param) {
    data["param"] = param;
  }
  SetError(code, data);
}

void APIResponse::SetSessionCookie(const std::string& id) {
  cookieSet_ = true;
  cookie_ = id;
}

Json::Value APIResponse::GetEnvelope() const {
  Json::Value env(Json::objectValue);
  if (replies_ == 0) {
    return ErrorEnvelope(WEBAPI_ERR_MODULE_FAILED);
  }
  if (success_) {
    env["success"] = true;
    env["data"] = data_;
    return env;
  }
  env["success"] = false;
  Json::Value err(Json::objectValue);
  if (data_.isObject()) {
    err = data_;
  } else if (!data_.isNull()) {
    err["data"] = data_;
  }
  // "code" is the framework's: a member of that name in the data does not replace it.
  err["code"] = code_;
  env["error"] = err;
  return env;
}

Json::Value APIResponse::TakeEnvelope() {
  if (replies_ == 0 || !success_) {
    return GetEnvelope();
  }
  Json::Value env(Json::objectValue);
  env["success"] = true;
  env["data"] = std::move(data_);
  return env;
}

Json::Value ErrorEnvelope(int code) {
  Json::Value env(Json::objectValue);
  env["success"] = false;
  env["error"]["code"] = code;
  return env;
}

void APIRunner::Exec(Json::Value& result, const char* api, int version, const char* method, const Json::Value& params,
                     const char* user) {
  if (api == nullptr || method == nullptr) {
    ORVA_LOG(LOG_ERR, "in-process call without API or method");
    result = ErrorEnvelope(WEBAPI_ERR_BAD_REQUEST);
    return;
  }
  APIRegistry& reg = APIRegistry::Instance();
  int err = 0;
  const APITableRow* row = reg.Find(api, version, method, &err);
  if (row == nullptr) {
    result = ErrorEnvelope(err);
    return;
  }
  // The nested call speaks the language of the request that is being served.
  const APIRequest* outer = APIRegistry::CurrentRequest();
  APIRequest request(api, version, method, params, user != nullptr ? user : "",
                     outer != nullptr ? outer->GetUILanguage() : std::string("en"));
  result = reg.Call(*row, request);
}

}  // namespace ORVA
