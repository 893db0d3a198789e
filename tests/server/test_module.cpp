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
  const std::string dir = req->GetParam("dir").asString();
  std::ofstream(dir + "/started") << getpid();
  for (int i = 0; i < 6000 && access((dir + "/release").c_str(), F_OK) != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  Echo(req, resp);
}

// By the method's name: "ping" answers {}, "error" a module error, "throw" throws, "noreply"
// writes nothing, "log" logs the parameter "text" as it stands (as a module logging request
// data would) and answers {}.
void Reply(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  const std::string& method = req->GetAPIMethod();
  if (method == "throw") throw std::runtime_error("test module throws");
  if (method == "log") syslog(LOG_NOTICE, "test module logs [%s]", req->GetParam("text").asString().c_str());
  Json::Value error;
  error["msg"] = "Failed to get task";
  error["extra"] = 7;
  if (method == "error") resp->SetError(4801, error);
  if (method == "ping" || method == "log") resp->SetSuccess(Json::Value(Json::objectValue));
}

#define TEST_ROWS(api)                                                                                   \
  {api, 1, "echo", Echo}, {api, 2, "echo", Echo}, {api, 1, "hold", Hold}, {api, 1, "error", Reply},       \
      {api, 1, "throw", Reply}, {api, 1, "noreply", Reply}, {api, 1, "ping", Reply}, {api, 1, "log", Reply}

const ORVA::APITableRow gTable[] = {
    TEST_ROWS("ORVA.Test.Admin"),
    TEST_ROWS("ORVA.Test.User"),
    TEST_ROWS("ORVA.Test.Public"),
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ORVA::APITableRow* GetAPITable() { return gTable; }
