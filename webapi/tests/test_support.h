// Test support for the task scheduler module: a private system root, captured syslog
// lines, calls of the entry functions, the real store and a stand-in event scheduler.
// Each test program is one file that includes this once (it defines the process's syslog).
#pragma once

#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

#include <mutex>

#include "ORVA.Core.TaskScheduler.Basic.h"
#include "orvatest.h"
#include "scheduler/store.h"
#include "scheduler/task_json.h"
#include "scheduler/task_ptr.h"
#include "webapi/registry.h"

extern "C" ORVA::APITableRow gTable[];

namespace orvatest {

// ---- syslog of the whole process (module and platform libraries) ----
struct LogLine { int priority; std::string text; };
inline std::vector<LogLine> gLogs;

inline std::vector<LogLine> LogsWith(const std::string& needle) {
  std::vector<LogLine> out;
  for (const LogLine& l : gLogs) if (l.text.find(needle) != std::string::npos) out.push_back(l);
  return out;
}
// Exactly one line holds `needle`; it was logged at `priority` (-1: any). Its text, or "".
inline std::string ExpectOneLog(const std::string& needle, int priority = -1) {
  const std::vector<LogLine> lines = LogsWith(needle);
  EXPECT_EQ(lines.size(), 1u) << needle;
  if (lines.size() != 1) return "";
  if (priority >= 0) { EXPECT_EQ(lines[0].priority, priority) << lines[0].text; }
  return lines[0].text;
}


// ---- a private system root with configuration, an empty store and UI texts ----
class ModuleRoot : public TempRoot {
 public:
  ModuleRoot() : TempRoot("orvat-module") {
    std::filesystem::create_directories(Real("var/lib/orva/packages"));
    Write("etc/orva/orva.conf", "");
    Write("etc/orva/shares.json", "[]");
    gLogs.clear();
  }
  void WriteTexts(const std::string& lang, const std::string& json) const {
    Write("usr/orva/orvaman/webman/texts/" + lang + "/strings.json", json);
  }
};

inline std::string IdParams(long id) { return "{\"id\": " + std::to_string(id) + "}"; }

// ---- calls of the entry functions, in-process ----
struct Reply {
  int replies = 0;  // SetSuccess/SetError calls
  bool success = false;
  int code = 0;
  Json::Value data;
  Json::Value envelope;
};

inline Reply Call(int version, const std::string& method, const Json::Value& params) {
  for (const ORVA::APITableRow* row = gTable; row->api; ++row) {
    if (row->version != version || method != row->method) continue;
    ORVA::APIRequest request("ORVA.Core.TaskScheduler", version, method, params, "admin", "en");
    ORVA::APIResponse response;
    row->func(&request, &response);
    const Json::Value envelope = response.GetEnvelope();
    return {response.GetReplyCount(), response.IsSuccess(), envelope["error"]["code"].asInt(), response.GetData(),
            envelope};
  }
  ADD_FAILURE() << "no row for " << method << " v" << version;
  return Reply();
}
// The same with the parameters as JSON text.
inline Reply Call(int v, const std::string& m, const std::string& params) { return Call(v, m, ParseJson(params)); }
inline Reply Call(int v, const std::string& method, const char* params) { return Call(v, method, ParseJson(params)); }

// One reply with `code`, success only for 0, and data {"msg": msg} (null for an empty `msg`).
inline void ExpectReply(const Reply& r, int code, const std::string& msg = "") {
  Json::Value want;
  if (!msg.empty()) want["msg"] = msg;
  EXPECT_TRUE(r.replies == 1 && r.success == (code == 0) && r.code == code && r.data == want) << r.envelope;
}

// `base` with `changes` merged in, objects member by member.
inline Json::Value Merged(Json::Value base, const Json::Value& changes) {
  for (const std::string& key : changes.getMemberNames()) {
    base[key] = changes[key].isObject() && base[key].isObject() ? Merged(base[key], changes[key]) : changes[key];
  }
  return base;
}

// A task object of a create request (with an id > 0, of a set), as the edit dialog sends it.
inline Json::Value TaskObject(const std::string& type, const Json::Value& extra, long id = 0) {
  Json::Value task = ParseJson(R"({"owner": "root", "enable": true, "schedule": {"repeat_date": "daily", "hour": 3,
                               "minute": 30}})");
  task["type"] = type;
  task["name"] = "t1";
  if (!extra.isNull()) task["extra"] = extra;
  if (id > 0) task["id"] = static_cast<Json::Int64>(id);
  return task;
}
// "create" with `params`; the new id or -1 (test failed).
inline long CreateTask(const Json::Value& params, int version = 2) {
  const Reply reply = Call(version, "create", params);
  EXPECT_TRUE(reply.success) << reply.envelope;
  return reply.success && reply.data["id"].isIntegral() ? static_cast<long>(reply.data["id"].asInt64()) : -1;
}
inline long Create(const std::string& type, const Json::Value& extra, int version = 2) {
  return CreateTask(TaskObject(type, extra), version);
}
inline Json::Value GetTask(long id, int version = 2) {
  const Reply reply = Call(version, "get", IdParams(id));
  EXPECT_TRUE(reply.success) << reply.envelope;
  return reply.data;
}
// Each member of `want` (JSON text) equals that member of `item`.
inline void ExpectMembers(const Json::Value& item, const std::string& want) {
  const Json::Value w = ParseJson(want);
  for (const std::string& key : w.getMemberNames()) EXPECT_EQ(item[key], w[key]) << key;
}

// ---- the real store of the temp root ----
struct TaskSeed {
  std::string name = "task";
  std::string app = "ORVA.VEK.TaskScheduler.Script";
  std::string appName = "#common:command_line#";
  std::string action = "#common:run#: true";
  std::string appArgs = "";
  bool enabled = true;
  bool listable = true;
  int hour = 0;
  int min = 0;
  std::string byUser = "";  // non-empty: saved on behalf of (and run as) this user
  unsigned ownerUid = 0;  // the account it runs as
};

inline long AddTask(const TaskSeed& seed) {
  ORVASchedTaskPtr owned(ORVASchedTaskAllocFast());
  ORVA_SCHED_TASK* task = owned.get();
  ORVASchedCTaskSetName(task, seed.name.c_str());
  ORVASchedCTaskSetApp(task, seed.app.c_str());
  ORVASchedCTaskSetAppName(task, seed.appName.c_str());
  ORVASchedCTaskSetAction(task, seed.action.c_str());
  ORVASchedCTaskSetAppArgs(task, seed.appArgs.c_str());
  ORVASchedCTaskSetState(task, seed.enabled ? 1 : 0);
  ORVASchedCTaskSetListable(task, seed.listable ? 1 : 0);
  EXPECT_TRUE(ORVASchedTaskConvertFromJson_Schedule(ParseJson("{\"schedule\": {\"repeat\": \"daily\", \"hour\": " +
      std::to_string(seed.hour) + ", \"min\": " + std::to_string(seed.min) + "}}"), *task));
  ORVASchedCTaskSetOwner(task, seed.ownerUid);
  const char* byUser = seed.byUser.empty() ? nullptr : seed.byUser.c_str();
  if (struct passwd* pw = byUser ? getpwnam(byUser) : nullptr) ORVASchedCTaskSetOwner(task, pw->pw_uid);
  const int rc = byUser ? ORVASchedTaskSaveByUser(byUser, task) : ORVASchedTaskSave(task);
  EXPECT_GE(rc, 0) << "save failed for " << seed.name;
  return rc < 0 ? -1 : ORVASchedTaskGetID(*task);
}

inline _tag_orva_sched_task_ Record(long id) {
  _tag_orva_sched_task_ record{};
  EXPECT_GE(ORVASchedTaskLoad(id, &record), 0) << "task " << id;
  return record;
}
inline int StoredCount() {
  ORVA_SCHED_TASK* list = nullptr;
  const int n = ORVASchedTaskListGet(&list, nullptr, nullptr);
  ORVASchedTaskListFree(list);
  return n;
}

// ---- a stand-in for "ORVA.Core.EventScheduler" v1 "list" ----
inline Json::Value gEventData(Json::arrayValue);
inline bool gEventReply = true;  // false: it answers an error without data
inline int gEventCalls = 0;

inline void SetEventTasks(const Json::Value& data, bool reply = true) {
  static ORVA::APITableRow table[] = {
      {"ORVA.Core.EventScheduler", 1, "list",
       [](ORVA::APIRequest*, ORVA::APIResponse* r) {
         ++gEventCalls;
         gEventReply ? r->SetSuccess(gEventData) : r->SetError(117, Json::Value());
       }},
      {nullptr, 0, nullptr, nullptr},
  };
  static std::once_flag registered;
  std::call_once(registered, [] { ORVA::APIRegistry::Instance().RegisterTable(table); });
  gEventData = data;
  gEventReply = reply;
}

}  // namespace orvatest

inline void OrvaCapture(int priority, const char* format, va_list ap) {
  char buffer[8192];
  vsnprintf(buffer, sizeof(buffer), format, ap);  // %m still sees the caller's errno
  orvatest::gLogs.push_back({priority & LOG_PRIMASK, buffer});
}

extern "C" {
void syslog(int p, const char* f, ...) { va_list ap; va_start(ap, f); OrvaCapture(p, f, ap); va_end(ap); }
void __syslog_chk(int p, int, const char* f, ...) { va_list ap; va_start(ap, f); OrvaCapture(p, f, ap); va_end(ap); }
void vsyslog(int priority, const char* format, va_list ap) { OrvaCapture(priority, format, ap); }
void __vsyslog_chk(int priority, int, const char* format, va_list ap) { OrvaCapture(priority, format, ap); }
}
