// ORVA.API.Info v1 "query": every registered API with its versions and methods,
// {"apis": {API: {"versions": [..], "methods": {METHOD: [versions..]}}}}.
#include <algorithm>

#include "webapi/registry.h"
#include "webapi/webapi.h"

namespace {

void Query(ORVA::APIRequest*, ORVA::APIResponse* resp) {
  Json::Value apis(Json::objectValue);
  for (const ORVA::APITableRow* row : ORVA::APIRegistry::Instance().Rows()) {
    Json::Value& api = apis[row->api];
    Json::Value& versions = api["versions"];
    Json::Value& methodVersions = api["methods"][row->method];
    auto add = [](Json::Value& list, int v) {
      for (const Json::Value& x : list) {
        if (x.asInt() == v) return;
      }
      // Keep ascending order.
      Json::Value sorted(Json::arrayValue);
      bool placed = false;
      for (const Json::Value& x : list) {
        if (!placed && v < x.asInt()) {
          sorted.append(v);
          placed = true;
        }
        sorted.append(x);
      }
      if (!placed) sorted.append(v);
      list = sorted;
    };
    if (versions.isNull()) versions = Json::Value(Json::arrayValue);
    if (methodVersions.isNull()) methodVersions = Json::Value(Json::arrayValue);
    add(versions, row->version);
    add(methodVersions, row->version);
  }
  Json::Value data;
  data["apis"] = apis;
  resp->SetSuccess(data);
}

const ORVA::APITableRow gTable[] = {
    {"ORVA.API.Info", 1, "query", Query},
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ORVA::APITableRow* GetAPITable() { return gTable; }
