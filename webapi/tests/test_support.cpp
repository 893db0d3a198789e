// Test support for the task scheduler module (see test_support.h).
#include "test_support.h"

#include <pwd.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <mutex>

#include "core/root.h"
#include "scheduler/task_json.h"
#include "webapi/registry.h"
#include "scheduler/store.h"
#include "scheduler/task_ptr.h"

namespace {

std::mutex gLogMutex;
std::vector<orvatest::LogLine> gLogs;

void Capture(int priority, const char* format, va_list ap) {
  char buffer[8192];
  vsnprintf(buffer, sizeof(buffer), format, ap);  // %m still sees the caller's errno
  std::lock_guard<std::mutex> lock(gLogMutex);
  gLogs.push_back({priority & LOG_PRIMASK, buffer});
}

}  // namespace

// Every syslog of the process (module and platform libraries) lands here.
extern "C" {
void syslog(int p, const char* format, ...) { va_list ap; va_start(ap, format); Capture(p, format, ap); va_end(ap); }
void __syslog_chk(int p, int, const char* f, ...) { va_list ap; va_start(ap, f); Capture(p, f, ap); va_end(ap); }
void vsyslog(int priority, const char* format, va_list ap) { Capture(priority, format, ap); }
void __vsyslog_chk(int priority, int, const char* format, va_list ap) { Capture(priority, format, ap); }
}

namespace orvatest {

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
  for (const LogLine& l : Logs()) if (l.text.find(needle) != std::string::npos) out.push_back(l);
  return out;
}

std::string ExpectOneLog(const std::string& needle, int priority) {
  const std::vector<LogLine> lines = LogsWith(needle);
  EXPECT_EQ(lines.size(), 1u) << needle;
  if (lines.size() != 1) return "";
  if (priority >= 0) { EXPECT_EQ(lines[0].priority, priority) << lines[0].text; }
  return lines[0].text;
}

void ExpectReply(const Reply& r, int code, const std::string& msg) {
  EXPECT_EQ(r.replies, 1);
  EXPECT_EQ(r.success, code == 0) << r.envelope;
  EXPECT_EQ(r.code, code);
  Json::Value want;
  if (!msg.empty()) want["msg"] = msg;
  EXPECT_EQ(r.data, want);
}

ModuleRoot::ModuleRoot() : TempRoot("orvat-module") {
  chmod(path().c_str(), 0755);  // runs as other users traverse it
  for (const char* sub : {"usr/orva/bin", "usr/orva/lib/webapi", "usr/orva/orvaman/webman/texts/en",
                          "var/lib/orva/packages", "run/orva"}) {
    std::filesystem::create_directories(Real(sub));
  }
  Write("etc/orva/orva.conf", "");
  Write("etc/orva/shares.json", "[]");
  ClearLogs();
}

void ModuleRoot::WriteTexts(const std::string& lang, const std::string& json) const {
  Write("usr/orva/orvaman/webman/texts/" + lang + "/strings.json", json);
}

void ModuleRoot::WriteAppTexts(const std::string& app, const std::string& nameSpace, const std::string& json) const {
  const std::string dir = "usr/orva/orvaman/webman/3rdparty/" + app;
  Write(dir + "/config.json", "{\"namespace\": \"" + nameSpace + "\"}");
  Write(dir + "/texts/en/strings.json", json);
}

const ORVA::APITableRow* FindRow(int version, const std::string& method) {
  for (const ORVA::APITableRow* row = gTable; row->api; ++row) {
    if (row->version == version && method == row->method) return row;
  }
  ADD_FAILURE() << "no row for " << method << " v" << version;
  return nullptr;
}

Reply Call(int version, const std::string& method, const Json::Value& params, const std::string& lang) {
  Reply reply;
  const ORVA::APITableRow* row = FindRow(version, method);
  if (!row) return reply;
  ORVA::APIRequest request("ORVA.Core.TaskScheduler", version, method, params, "admin", lang);
  ORVA::APIResponse response;
  row->func(&request, &response);
  return ReplyOf(response);
}

Reply ReplyOf(const ORVA::APIResponse& response) {
  Reply reply;
  reply.replies = response.GetReplyCount();
  reply.success = response.IsSuccess();
  reply.data = response.GetData();
  reply.envelope = response.GetEnvelope();
  reply.code = reply.replies ? reply.envelope["error"]["code"].asInt() : 0;
  return reply;
}

Json::Value TaskObject(const std::string& type, const Json::Value& extra, const std::string& name) {
  Json::Value task = Parse(R"({"owner": "root", "enable": true, "schedule": {"repeat_date": "daily", "hour": 3,
                               "minute": 30}})");
  task["type"] = type;
  task["name"] = name;
  if (!extra.isNull()) task["extra"] = extra;
  return task;
}

long CreateTask(const Json::Value& params, int version) {
  Reply reply = Call(version, "create", params);
  EXPECT_TRUE(reply.success) << reply.envelope;
  return reply.success && reply.data["id"].isIntegral() ? static_cast<long>(reply.data["id"].asInt64()) : -1;
}

Json::Value GetTask(long id, int version) {
  Reply reply = Call(version, "get", IdParams(id));
  EXPECT_TRUE(reply.success) << reply.envelope;
  return reply.data;
}

void ExpectSet(const Json::Value& params, long id, int version) {
  Reply reply = Call(version, "set", params);
  EXPECT_TRUE(reply.success) << reply.envelope;
  EXPECT_EQ(reply.data, Parse(IdParams(id)));
}

void ExpectMembers(const Json::Value& item, const std::string& want) {
  const Json::Value w = Parse(want);
  for (const std::string& key : w.getMemberNames()) EXPECT_EQ(item[key], w[key]) << key;
}

Json::Value Merged(Json::Value base, const Json::Value& changes) {
  for (const std::string& key : changes.getMemberNames()) {
    base[key] = changes[key].isObject() && base[key].isObject() ? Merged(base[key], changes[key]) : changes[key];
  }
  return base;
}

long AddTask(const TaskSeed& seed) {
  ORVASchedTaskPtr owned(ORVASchedTaskAllocFast());
  ORVA_SCHED_TASK* task = owned.get();
  if (!task) {
    ADD_FAILURE() << "alloc failed";
    return -1;
  }
  ORVASchedCTaskSetName(task, seed.name.c_str());
  ORVASchedCTaskSetApp(task, seed.app.c_str());
  ORVASchedCTaskSetAppName(task, seed.appName.c_str());
  ORVASchedCTaskSetAction(task, seed.action.c_str());
  ORVASchedCTaskSetCommand(task, seed.command.c_str());
  ORVASchedCTaskSetAppArgs(task, seed.appArgs.c_str());
  ORVASchedCTaskSetState(task, seed.enabled ? 1 : 0);
  ORVASchedCTaskSetListable(task, seed.listable ? 1 : 0);
  Json::Value schedule;
  schedule["schedule"]["repeat"] = "daily";
  schedule["schedule"]["hour"] = seed.hour;
  schedule["schedule"]["min"] = seed.min;
  EXPECT_TRUE(ORVASchedTaskConvertFromJson_Schedule(schedule, *task));
  ORVASchedCTaskSetOwner(task, seed.ownerUid);
  const char* byUser = seed.byUser.empty() ? nullptr : seed.byUser.c_str();
  if (struct passwd* pw = byUser ? getpwnam(byUser) : nullptr) ORVASchedCTaskSetOwner(task, pw->pw_uid);
  const int rc = byUser ? ORVASchedTaskSaveByUser(byUser, task) : ORVASchedTaskSave(task);
  EXPECT_GE(rc, 0) << "save failed for " << seed.name;
  return rc < 0 ? -1 : ORVASchedTaskGetID(*task);
}

bool TaskExists(long id) {
  _tag_orva_sched_task_ task{};
  return ORVASchedTaskLoad(id, &task) >= 0;
}

bool TaskEnabled(long id) {
  _tag_orva_sched_task_ task{};
  return ORVASchedTaskLoad(id, &task) >= 0 && ORVASchedTaskIsEnabled(task);
}

_tag_orva_sched_task_ Record(long id) {
  _tag_orva_sched_task_ record{};
  EXPECT_GE(ORVASchedTaskLoad(id, &record), 0) << "task " << id;
  return record;
}

_tag_orva_sched_task_ FreshRecord() {
  _tag_orva_sched_task_ record{};
  EXPECT_TRUE(ORVA::Core::TaskScheduler::InitTask(boost::none, record));
  return record;
}

int StoredCount() {
  ORVA_SCHED_TASK* list = nullptr;
  int n = ORVASchedTaskListGet(&list, nullptr, nullptr);
  ORVASchedTaskListFree(list);
  return n;
}

namespace {

std::mutex gEventMutex;
Json::Value gEventData(Json::arrayValue);
bool gEventReply = true;
std::atomic<int> gEventCalls{0};

void EventList(ORVA::APIRequest*, ORVA::APIResponse* response) {
  ++gEventCalls;
  std::lock_guard<std::mutex> lock(gEventMutex);
  gEventReply ? response->SetSuccess(gEventData) : response->SetError(117, Json::Value());
}

ORVA::APITableRow gEventTable[] = {
    {"ORVA.Core.EventScheduler", 1, "list", EventList}, {nullptr, 0, nullptr, nullptr},
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

}  // namespace orvatest
