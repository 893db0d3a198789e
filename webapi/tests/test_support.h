// Test support for the task scheduler module: a private system root, captured syslog
// lines, calls of the entry functions, the real store, test users, a stand-in event
// scheduler and handlers built directly around a request.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <string.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "ORVA.Core.TaskScheduler.Basic.h"
#include "lib.h"
#include "scheduler/record.h"
#include "webapi/webapi.h"
#include "orvatest.h"

extern "C" ORVA::APITableRow gTable[];

namespace orvatest {

// ---- syslog of the whole process (syslog, vsyslog and their _chk forms are interposed) ----
struct LogLine { int priority; std::string text; };
std::vector<LogLine> Logs();
void ClearLogs();
std::vector<LogLine> LogsWith(const std::string& needle);  // lines containing `needle`
inline size_t LogCount() { return Logs().size(); }
// Exactly one line holds `needle`; it was logged at `priority` (-1: any). Its text, or "".
std::string ExpectOneLog(const std::string& needle, int priority = -1);

// ---- a private system root with configuration, an empty store and UI texts ----
class ModuleRoot : public TempRoot {
 public:
  ModuleRoot();
  void WriteTexts(const std::string& lang, const std::string& json) const;
  // A 3rd-party app's own texts under namespace `nameSpace`.
  void WriteAppTexts(const std::string& app, const std::string& nameSpace, const std::string& json) const;
};

inline Json::Value Parse(const std::string& text) { return ParseJson(text); }
inline std::string IdParams(long id) { return "{\"id\": " + std::to_string(id) + "}"; }

// ---- calls of the entry functions, in-process ----
struct Reply {
  int replies = 0;  // SetSuccess/SetError calls
  bool success = false;
  int code = 0;
  Json::Value data;
  Json::Value envelope;
};
Reply ReplyOf(const ORVA::APIResponse& response);  // what a response holds
const ORVA::APITableRow* FindRow(int version, const std::string& method);
Reply Call(int version, const std::string& method, const Json::Value& params, const std::string& lang = "en");
// The same with the parameters as JSON text.
inline Reply Call(int v, const std::string& m, const std::string& params) { return Call(v, m, Parse(params)); }
inline Reply Call(int v, const std::string& method, const char* params) { return Call(v, method, Parse(params)); }

// One reply with `code`, success only for 0, and data {"msg": msg} (null for an empty `msg`).
void ExpectReply(const Reply& r, int code, const std::string& msg = "");

// `base` with `changes` merged in, objects member by member.
Json::Value Merged(Json::Value base, const Json::Value& changes);
// A task object of a create or set request, as the edit dialog sends it.
Json::Value TaskObject(const std::string& type, const Json::Value& extra, const std::string& name = "t1");
// The same for a set of task `id`.
inline Json::Value SetObject(long id, const std::string& type, const Json::Value& extra) {
  return Merged(TaskObject(type, extra), Parse(IdParams(id)));
}
// "create" with `params`; the new id or -1 (test failed).
long CreateTask(const Json::Value& params, int version = 2);
// "create" of `type`; the new id or -1.
inline long Create(const std::string& type, const Json::Value& extra, int version = 2) {
  return CreateTask(TaskObject(type, extra), version);
}
// The data of a successful "get" of task `id`.
Json::Value GetTask(long id, int version = 2);
// A "set" with `params` that succeeds and answers {"id": id}.
void ExpectSet(const Json::Value& params, long id, int version = 2);
// Each member of `want` (JSON text) equals that member of `item`.
void ExpectMembers(const Json::Value& item, const std::string& want);

// ---- the real store of the temp root ----
struct TaskSeed {
  std::string name = "task";
  std::string app = "ORVA.VEK.TaskScheduler.Script";
  std::string appName = "#common:command_line#";
  std::string action = "#common:run#: true";
  std::string command = "true";
  std::string appArgs = "";
  bool enabled = true;
  bool listable = true;
  int hour = 0;
  int min = 0;
  std::string byUser = "";  // non-empty: saved on behalf of (and run as) this user
  unsigned ownerUid = 0;  // the account it runs as
};
long AddTask(const TaskSeed& seed);  // the new id, or -1 (test failed)
bool TaskExists(long id);
bool TaskEnabled(long id);
_tag_orva_sched_task_ Record(long id);  // the stored record (fails the test if unloadable)
_tag_orva_sched_task_ FreshRecord();    // a never-saved record as the store gives it
int StoredCount();                      // every stored task

// ---- a stand-in for "ORVA.Core.EventScheduler" v1 "list" ----
// `reply` false: it answers an error without data.
void SetEventTasks(const Json::Value& data, bool reply = true);
int EventListCalls();

// A handler of kind H around a request with `params`, for calling its operations directly.
template <typename H>
struct Direct {
  explicit Direct(const Json::Value& params = Json::Value(Json::objectValue), int version = 2,
                  const char* method = "set")
      : request("ORVA.Core.TaskScheduler", version, method, params, "admin", "en"),
        handler(&request, &response, boost::none) {}
  ORVA::APIRequest request;
  ORVA::APIResponse response;
  H handler;
};

}  // namespace orvatest
