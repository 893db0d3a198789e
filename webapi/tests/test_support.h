// Test support for the task scheduler module: a private system root, captured syslog
// lines, calls of the module's entry functions and a stand-in event scheduler reply.
#pragma once

#include <json/json.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "scheduler/task.h"
#include "webapi/webapi.h"

extern "C" ORVA::APITableRow gTable[];

namespace tstest {

// ---- syslog capture (syslog, vsyslog and their _chk forms are interposed) ----
struct LogLine {
  int priority;
  std::string text;
};
std::vector<LogLine> Logs();
void ClearLogs();
// Lines that contain `needle`.
std::vector<LogLine> LogsWith(const std::string& needle);
// Number of captured lines.
size_t LogCount();

// ---- a private system root with UI texts, configuration and an empty store ----
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  const std::string& Path() const { return path_; }
  // Writes `content` to ROOT/relative, creating folders.
  void WriteFile(const std::string& relative, const std::string& content) const;
  // UI texts of a language and of a 3rd-party app (namespace -> own texts).
  void WriteTexts(const std::string& lang, const Json::Value& sections) const;
  void WriteAppTexts(const std::string& app, const std::string& nameSpace, const std::string& lang,
                     const Json::Value& sections) const;

 private:
  std::string path_;
};

// ---- calls ----
struct Reply {
  int replies = 0;          // SetSuccess/SetError calls
  bool success = false;
  int code = 0;
  Json::Value data;         // what the module handed over
  Json::Value envelope;
};
const ORVA::APITableRow* FindRow(int version, const std::string& method);
// Calls the entry function of (version, method) in-process, as `user`.
Reply Call(int version, const std::string& method, const Json::Value& params, const std::string& lang = "en",
           const std::string& user = "admin");

// ---- store helpers (the real store of the temp root) ----
struct TaskSpec {
  std::string name = "task";
  std::string app = "ORVA.VEK.TaskScheduler.Script";
  std::string appName = "#common:command_line#";
  std::string action = "#common:run#: true";
  std::string command = "true";
  std::string appArgs;
  bool enabled = true;
  bool listable = true;
  int hour = 0;
  int min = 0;
  std::string byUser;       // non-empty: saved on behalf of this user
  unsigned ownerUid = 0;    // the account it runs as (byUser sets that user)
};
// Saves a new task; returns its id (fails the test and returns -1 on error).
long AddTask(const TaskSpec& spec);
bool TaskExists(long id);
bool TaskEnabled(long id);

// ---- a stand-in for "ORVA.Core.EventScheduler" v1 "list" ----
// data: the array it answers; `reply` false makes it answer an error (no "data").
void SetEventTasks(const Json::Value& data, bool reply = true);
int EventListCalls();

// ---- users: created with useradd, removed by the destructor ----
class TestUser {
 public:
  TestUser();
  ~TestUser();
  const std::string& Name() const { return name_; }
  unsigned Uid() const { return uid_; }
  bool Ok() const { return ok_; }

 private:
  std::string name_;
  unsigned uid_ = 0;
  bool ok_ = false;
};

}  // namespace tstest
