// A web API module for the server tests: replies of every shape, failures, calls held
// and the serving worker's pid. Three APIs with the same methods and different rights.
#include <syslog.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <thread>

#include "webapi/webapi.h"

namespace {

void Echo(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  Json::Value d;
  d["user"] = req->GetLoginUserName();
  d["lang"] = req->GetUILanguage();
  d["params"] = req->GetParam("");
  d["pid"] = static_cast<int>(getpid());
  resp->SetSuccess(d);
}

// Marks "started" in the folder `dir`, then waits (at most 60 s) until "release" appears
// there: the test decides exactly how long this worker stays busy.
void Hold(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  auto dir = req->GetAndCheckString("dir", ORVA::PARAM_REQUIRED);
  if (dir.IsInvalid()) {
    resp->SetError(4800, Json::Value());
    return;
  }
  std::ofstream(dir.Get() + "/started") << getpid();
  const std::string release = dir.Get() + "/release";
  for (int i = 0; i < 6000 && access(release.c_str(), F_OK) != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  Echo(req, resp);
}

void Error(ORVA::APIRequest*, ORVA::APIResponse* resp) {
  Json::Value d;
  d["msg"] = "Failed to get task";
  d["extra"] = 7;
  resp->SetError(4801, d);
}

void Throw(ORVA::APIRequest*, ORVA::APIResponse*) { throw std::runtime_error("test module throws"); }
void NoReply(ORVA::APIRequest*, ORVA::APIResponse*) {}
void Ping(ORVA::APIRequest*, ORVA::APIResponse* resp) { resp->SetSuccess(Json::Value(Json::objectValue)); }

// Logs the parameter "text" as it stands, as a module logging request data would.
void Log(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  syslog(LOG_NOTICE, "test module logs [%s]", req->GetParam("text").asString().c_str());
  resp->SetSuccess(Json::Value(Json::objectValue));
}

#define TEST_ROWS(api)                                                                               \
  {api, 1, "echo", Echo}, {api, 2, "echo", Echo}, {api, 1, "hold", Hold}, {api, 1, "error", Error},    \
      {api, 1, "throw", Throw}, {api, 1, "noreply", NoReply}, {api, 1, "ping", Ping}, {api, 1, "log", Log}

const ORVA::APITableRow gTable[] = {
    TEST_ROWS("ORVA.Test.Admin"),
    TEST_ROWS("ORVA.Test.User"),
    TEST_ROWS("ORVA.Test.Public"),
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ORVA::APITableRow* GetAPITable() { return gTable; }
