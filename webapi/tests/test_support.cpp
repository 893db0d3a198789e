// Test support for the task scheduler module (see test_support.h).
#include "test_support.h"

#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>

#include "core/root.h"
#include "scheduler/task_json.h"
#include "webapi/registry.h"

namespace {

std::mutex gLogMutex;
std::vector<tstest::LogLine> gLogs;

void Capture(int priority, const char* format, va_list ap) {
  // Keep errno for %m, which vsnprintf expands from it.
  char buffer[8192];
  vsnprintf(buffer, sizeof(buffer), format, ap);
  std::lock_guard<std::mutex> lock(gLogMutex);
  gLogs.push_back({priority & LOG_PRIMASK, buffer});
}

}  // namespace

// Every syslog of the process (module and platform libraries) lands here.
extern "C" {
void syslog(int priority, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  Capture(priority, format, ap);
  va_end(ap);
}
void vsyslog(int priority, const char* format, va_list ap) { Capture(priority, format, ap); }
void __syslog_chk(int priority, int, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  Capture(priority, format, ap);
  va_end(ap);
}
void __vsyslog_chk(int priority, int, const char* format, va_list ap) { Capture(priority, format, ap); }
}

namespace tstest {

std::vector<LogLine> Logs() {
  std::lock_guard<std::mutex> lock(gLogMutex);
  return gLogs;
}

void ClearLogs() {
  std::lock_guard<std::mutex> lock(gLogMutex);
  gLogs.clear();
}

std::vector<LogLine> LogsWith(const std::string& needle) {
  std::vector<LogLine> out;
  for (const LogLine& l : Logs()) {
    if (l.text.find(needle) != std::string::npos) out.push_back(l);
  }
  return out;
}

size_t LogCount() {
  std::lock_guard<std::mutex> lock(gLogMutex);
  return gLogs.size();
}

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

void MakeDirs(const std::string& path) {
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = path.find('/', pos + 1);
    mkdir(path.substr(0, pos).c_str(), 0755);
  }
}

std::string WriteJson(const Json::Value& v) {
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  return Json::writeString(b, v);
}

}  // namespace

TempRoot::TempRoot() {
  char tmpl[] = "/tmp/orvat-module-XXXXXX";
  const char* dir = mkdtemp(tmpl);
  if (!dir) {
    ADD_FAILURE() << "mkdtemp failed";
    return;
  }
  path_ = dir;
  chmod(path_.c_str(), 0755);
  for (const char* sub : {"/usr/orva/bin", "/usr/orva/lib/webapi", "/usr/orva/orvaman/webman/texts/en",
                          "/etc/orva", "/var/lib/orva/packages", "/run/orva"}) {
    MakeDirs(path_ + sub);
  }
  WriteFile("etc/orva/orva.conf", "");
  WriteFile("etc/orva/shares.json", "[]");
  ORVA::ORVARootSet(path_);
  setenv("ORVA_ROOT", path_.c_str(), 1);
  ClearLogs();
}

TempRoot::~TempRoot() {
  if (!path_.empty()) {
    nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
  }
}

void TempRoot::WriteFile(const std::string& relative, const std::string& content) const {
  std::string full = path_ + "/" + relative;
  MakeDirs(full.substr(0, full.rfind('/')));
  std::ofstream out(full, std::ios::trunc);
  out << content;
}

void TempRoot::WriteTexts(const std::string& lang, const Json::Value& sections) const {
  WriteFile("usr/orva/orvaman/webman/texts/" + lang + "/strings.json", WriteJson(sections));
}

void TempRoot::WriteAppTexts(const std::string& app, const std::string& nameSpace, const std::string& lang,
                             const Json::Value& sections) const {
  Json::Value config;
  config["namespace"] = nameSpace;
  WriteFile("usr/orva/orvaman/webman/3rdparty/" + app + "/config.json", WriteJson(config));
  WriteFile("usr/orva/orvaman/webman/3rdparty/" + app + "/texts/" + lang + "/strings.json", WriteJson(sections));
}

const ORVA::APITableRow* FindRow(int version, const std::string& method) {
  for (const ORVA::APITableRow* row = gTable; row->api; ++row) {
    if (row->version == version && method == row->method) return row;
  }
  return nullptr;
}

Reply Call(int version, const std::string& method, const Json::Value& params, const std::string& lang,
           const std::string& user) {
  Reply reply;
  const ORVA::APITableRow* row = FindRow(version, method);
  if (!row) {
    ADD_FAILURE() << "no row for " << method << " v" << version;
    return reply;
  }
  ORVA::APIRequest request("ORVA.Core.TaskScheduler", version, method, params, user, lang);
  ORVA::APIResponse response;
  row->func(&request, &response);
  reply.replies = response.GetReplyCount();
  reply.success = response.IsSuccess();
  reply.code = response.GetErrorCode();
  reply.data = response.GetData();
  reply.envelope = response.GetEnvelope();
  return reply;
}

long AddTask(const TaskSpec& spec) {
  ORVA_SCHED_TASK* task = ORVASchedTaskAllocFast();
  if (!task) {
    ADD_FAILURE() << "alloc failed";
    return -1;
  }
  ORVASchedCTaskSetName(task, spec.name.c_str());
  ORVASchedCTaskSetApp(task, spec.app.c_str());
  ORVASchedCTaskSetAppName(task, spec.appName.c_str());
  ORVASchedCTaskSetAction(task, spec.action.c_str());
  ORVASchedCTaskSetCommand(task, spec.command.c_str());
  ORVASchedCTaskSetAppArgs(task, spec.appArgs.c_str());
  ORVASchedCTaskSetState(task, spec.enabled ? 1 : 0);
  ORVASchedCTaskSetListable(task, spec.listable ? 1 : 0);
  Json::Value schedule;
  schedule["schedule"]["repeat"] = "daily";
  schedule["schedule"]["hour"] = spec.hour;
  schedule["schedule"]["min"] = spec.min;
  if (!ORVASchedTaskConvertFromJson_Schedule(schedule, *task)) {
    ADD_FAILURE() << "schedule refused";
  }
  ORVASchedCTaskSetOwner(task, spec.ownerUid);
  int rc;
  if (!spec.byUser.empty()) {
    struct passwd* pw = getpwnam(spec.byUser.c_str());
    if (pw) ORVASchedCTaskSetOwner(task, pw->pw_uid);
    rc = ORVASchedTaskSaveByUser(spec.byUser.c_str(), task);
  } else {
    rc = ORVASchedTaskSave(task);
  }
  long id = ORVASchedTaskGetID(*task);
  ORVASchedTaskFree(task);
  if (rc < 0) {
    ADD_FAILURE() << "save failed for " << spec.name;
    return -1;
  }
  return id;
}

bool TaskExists(long id) {
  ORVA_SCHED_TASK* task = ORVASchedTaskAllocFast();
  bool ok = ORVASchedTaskLoad(id, task) >= 0;
  ORVASchedTaskFree(task);
  return ok;
}

bool TaskEnabled(long id) {
  ORVA_SCHED_TASK* task = ORVASchedTaskAllocFast();
  bool on = ORVASchedTaskLoad(id, task) >= 0 && ORVASchedTaskIsEnabled(*task);
  ORVASchedTaskFree(task);
  return on;
}

namespace {

std::mutex gEventMutex;
Json::Value gEventData(Json::arrayValue);
bool gEventReply = true;
std::atomic<int> gEventCalls{0};

void EventList(ORVA::APIRequest*, ORVA::APIResponse* response) {
  ++gEventCalls;
  std::lock_guard<std::mutex> lock(gEventMutex);
  if (gEventReply) {
    response->SetSuccess(gEventData);
  } else {
    response->SetError(117, Json::Value());
  }
}

ORVA::APITableRow gEventTable[] = {
    {"ORVA.Core.EventScheduler", 1, "list", EventList},
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

void SetEventTasks(const Json::Value& data, bool reply) {
  static std::once_flag registered;
  std::call_once(registered, [] { ORVA::APIRegistry::Instance().RegisterTable(gEventTable); });
  std::lock_guard<std::mutex> lock(gEventMutex);
  gEventData = data;
  gEventReply = reply;
}

int EventListCalls() { return gEventCalls; }

namespace {

int RunCommand(const std::vector<std::string>& args) {
  pid_t pid = fork();
  if (pid == 0) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    int devnull = open("/dev/null", O_WRONLY);
    if (devnull >= 0) {
      dup2(devnull, 1);
      dup2(devnull, 2);
    }
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) < 0) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TestUser::TestUser() {
  static std::atomic<int> counter{0};
  name_ = "orvat" + std::to_string(getpid() % 100000) + "m" + std::to_string(counter++);
  RunCommand({"userdel", "-r", name_});
  if (RunCommand({"useradd", "-M", "-s", "/bin/sh", name_}) != 0) {
    ADD_FAILURE() << "useradd " << name_ << " failed";
    return;
  }
  struct passwd* pw = getpwnam(name_.c_str());
  if (!pw) {
    ADD_FAILURE() << "no passwd entry for " << name_;
    return;
  }
  uid_ = pw->pw_uid;
  ok_ = true;
}

TestUser::~TestUser() {
  if (ok_) RunCommand({"userdel", name_});
}

}  // namespace tstest
