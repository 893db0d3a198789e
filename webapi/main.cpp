// The method table of "ORVA.Core.TaskScheduler" and every entry function.
#include <syslog.h>

#include <boost/optional.hpp>
#include <string>

#include "ORVA.Core.TaskScheduler.Basic.h"
#include "ORVA.Core.TaskScheduler.Beep.h"
#include "ORVA.Core.TaskScheduler.Recycle.h"
#include "ORVA.Core.TaskScheduler.Script.h"
#include "ORVA.Core.TaskScheduler.Service.h"
#include "ORVA.Core.TaskScheduler.h"
#include "lib.h"
#include "webapi/webapi.h"

namespace {

const char kSrc[] = "main";

using ORVA::Core::TaskScheduler::AppParser;
using ORVA::Core::TaskScheduler::GetRealOwner;

void RunV1(ORVA::APIRequest* request, ORVA::APIResponse* response, const char* method) {
  AppParser* parser = new AppParser(request->GetUILanguage());
  TaskSchedulerHandler handler(request, response, 0, "", Json::Value(), parser);
  handler.Process_v1(method);
}

void RunV2(ORVA::APIRequest* request, ORVA::APIResponse* response, const char* method) {
  AppParser* parser = new AppParser(request->GetUILanguage());
  TaskSchedulerHandler handler(request, response, 0, "", Json::Value(), parser);
  handler.Process_v2(std::string(method));
}

// Builds the handler class of `key` and runs `method`; false for a key without one.
// Create offers only the four built-in kinds.
bool RunAppHandler(const std::string& key, bool basicKinds, ORVA::APIRequest* request,
                   ORVA::APIResponse* response, const char* method, int version,
                   const boost::optional<std::string>& owner) {
  if (key == "beep") {
    TaskSchedulerBeepHandler handler(request, response, owner);
    handler.Process(method, version);
  } else if (key == "script") {
    TaskSchedulerScriptHandler handler(request, response, owner);
    handler.Process(method, version);
  } else if (key == "service") {
    TaskSchedulerServiceHandler handler(request, response, owner);
    handler.Process(method, version);
  } else if (key == "recycle") {
    TaskSchedulerRecycleHandler handler(request, response, owner);
    handler.Process(method, version);
  } else if (basicKinds && (key == "custom" || key == "report" || key == "backup" || key == "power" ||
                            key == "zemupdate")) {
    TaskSchedulerBasicHandler handler(request, response, owner);
    handler.Process(method, version);
  } else {
    syslog(LOG_ERR, "%s:%d Unknown app type: %s", kSrc, __LINE__, key.c_str());
    return false;
  }
  return true;
}

}  // namespace

void TaskSchedulerCreate(ORVA::APIRequest* request, ORVA::APIResponse* response, int version,
                         boost::optional<std::string> owner) {
  ORVA::APIParameter<std::string> type = request->GetAndCheckString("type", ORVA::PARAM_REQUIRED, nullptr);
  if (type.IsInvalid()) {
    response->SetError(4800, Json::Value());
    return;
  }
  if (!RunAppHandler(type.Get(), false, request, response, "set", version, owner)) {
    response->SetError(4800, Json::Value());
  }
}

void TaskSchedulerGet(ORVA::APIRequest* request, ORVA::APIResponse* response, int version,
                      boost::optional<std::string> owner) {
  ORVA::APIParameter<int> id = request->GetAndCheckInt("id", ORVA::PARAM_REQUIRED, nullptr);
  ORVA::APIParameter<std::string> type = request->GetAndCheckString("type", ORVA::PARAM_OPTIONAL, nullptr);
  if (id.IsInvalid() || type.IsInvalid()) {
    response->SetError(4800, Json::Value());
    return;
  }
  std::string key;
  if (type.IsSet()) {
    key = type.Get();
  } else if (!ORVA::Core::TaskScheduler::GetAppTypeByID(owner, id.Get(), key)) {
    response->SetError(4801, Json::Value());
    return;
  }
  if (!RunAppHandler(key, true, request, response, "get", version, owner)) {
    response->SetError(4800, Json::Value());
  }
}

void TaskSchedulerSet(ORVA::APIRequest* request, ORVA::APIResponse* response, int version,
                      boost::optional<std::string> owner) {
  ORVA::APIParameter<int> id = request->GetAndCheckInt("id", ORVA::PARAM_REQUIRED, nullptr);
  if (id.IsInvalid()) {
    response->SetError(4800, Json::Value());
    return;
  }
  std::string key;
  if (!ORVA::Core::TaskScheduler::GetAppTypeByID(owner, id.Get(), key)) {
    response->SetError(4801, Json::Value());
    return;
  }
  if (!RunAppHandler(key, true, request, response, "set", version, owner)) {
    response->SetError(4800, Json::Value());
  }
}

void TaskSchedulerCreate(ORVA::APIRequest* request, ORVA::APIResponse* response, int version) {
  TaskSchedulerCreate(request, response, version, boost::none);
}

void TaskSchedulerGet(ORVA::APIRequest* request, ORVA::APIResponse* response, int version) {
  TaskSchedulerGet(request, response, version, boost::none);
}

void TaskSchedulerSet(ORVA::APIRequest* request, ORVA::APIResponse* response, int version) {
  TaskSchedulerSet(request, response, version, boost::none);
}

void TaskSchedulerList_v1(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  RunV1(request, response, "list");
}

void TaskSchedulerList_v2(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  RunV2(request, response, "list");
}

void TaskSchedulerSetEnable_v1(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  RunV1(request, response, "set_enable");
}

void TaskSchedulerSetEnable_v2(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  RunV2(request, response, "set_enable");
}

void TaskSchedulerDelete_v1(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  RunV1(request, response, "delete");
}

void TaskSchedulerDelete_v2(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  RunV2(request, response, "delete");
}

void TaskSchedulerRun_v1(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  RunV1(request, response, "run");
}

void TaskSchedulerRun_v2(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  RunV2(request, response, "run");
}

void TaskSchedulerView_v1(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  ORVA::APIParameter<int> id = request->GetAndCheckInt("id", ORVA::PARAM_REQUIRED, nullptr);
  if (id.IsInvalid()) {
    response->SetError(4800, Json::Value());
    // Log-watching rules match this line number.
    syslog(LOG_ERR, "%s:%d Invalid paramters.", kSrc, 302);
    return;
  }
  RunV1(request, response, "view");
}

void TaskSchedulerGet_v1(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  TaskSchedulerGet(request, response, 1);
}

void TaskSchedulerGet_v2(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  TaskSchedulerGet(request, response, 2);
}

void TaskSchedulerGet_v3(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  TaskSchedulerGet(request, response, 3, GetRealOwner(*request));
}

void TaskSchedulerSet_v1(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  TaskSchedulerSet(request, response, 1);
}

void TaskSchedulerSet_v2(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  TaskSchedulerSet(request, response, 2);
}

void TaskSchedulerSet_v3(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  TaskSchedulerSet(request, response, 3, GetRealOwner(*request));
}

void TaskSchedulerCreate_v1(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  TaskSchedulerCreate(request, response, 1);
}

void TaskSchedulerCreate_v2(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  TaskSchedulerCreate(request, response, 2);
}

void TaskSchedulerCreate_v3(ORVA::APIRequest* request, ORVA::APIResponse* response) {
  TaskSchedulerCreate(request, response, 3, GetRealOwner(*request));
}

#define TS_API "ORVA.Core.TaskScheduler"

extern "C" {

__attribute__((visibility("default"))) ORVA::APITableRow gTable[] = {
    {TS_API, 1, "list", TaskSchedulerList_v1},
    {TS_API, 2, "list", TaskSchedulerList_v2},
    {TS_API, 1, "set_enable", TaskSchedulerSetEnable_v1},
    {TS_API, 2, "set_enable", TaskSchedulerSetEnable_v2},
    {TS_API, 1, "delete", TaskSchedulerDelete_v1},
    {TS_API, 2, "delete", TaskSchedulerDelete_v2},
    {TS_API, 1, "run", TaskSchedulerRun_v1},
    {TS_API, 2, "run", TaskSchedulerRun_v2},
    {TS_API, 1, "get", TaskSchedulerGet_v1},
    {TS_API, 2, "get", TaskSchedulerGet_v2},
    {TS_API, 3, "get", TaskSchedulerGet_v3},
    {TS_API, 1, "set", TaskSchedulerSet_v1},
    {TS_API, 2, "set", TaskSchedulerSet_v2},
    {TS_API, 3, "set", TaskSchedulerSet_v3},
    {TS_API, 1, "create", TaskSchedulerCreate_v1},
    {TS_API, 2, "create", TaskSchedulerCreate_v2},
    {TS_API, 3, "create", TaskSchedulerCreate_v3},
    {TS_API, 1, "view", TaskSchedulerView_v1},
    {nullptr, 0, nullptr, nullptr},
};

__attribute__((visibility("default"))) const ORVA::APITableRow* GetAPITable(void) {
  return gTable;
}

}  // extern "C"
