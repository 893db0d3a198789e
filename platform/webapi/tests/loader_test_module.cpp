// A minimal module for the loader test.
#include "webapi/webapi.h"

namespace {

void Hello(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  Json::Value data;
  data["hello"] = req->GetLoginUserName();
  resp->SetSuccess(data);
}

const ORVA::APITableRow gTable[] = {
    {"ORVA.Test.Loaded", 1, "hello", Hello},
    {"ORVA.Test.Loaded", 2, nullptr, Hello},  // incomplete: skipped
    {nullptr, 0, nullptr, nullptr},
    {"ORVA.Test.Loaded", 3, "after_end", Hello},  // never read
};

}  // namespace

extern "C" const ORVA::APITableRow* GetAPITable() { return gTable; }
