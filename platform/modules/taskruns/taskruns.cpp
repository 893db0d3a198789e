// ORVA.Core.TaskRuns v1: the runs of the tasks table's tasks ("list", "get", "summary"),
// stopping a run ("stop"), the next start times of a schedule ("preview") and the
// appliance's clock ("clock"). Event tasks are not served here.
//
// Error codes (with "msg", and "param" naming the offending parameter):
//   6200 a parameter is missing, of the wrong type or out of range
//   6201 no such task, or no such run of that task
//   6202 not allowed for this task (it cannot be run from the UI)
//   6203 stop: the task is not running
//   6204 the task store failed
#include <limits.h>
#include <string.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "core/kelc.h"
#include "core/log.h"
#include "scheduler/run.h"
#include "scheduler/schedule.h"
#include "scheduler/store.h"
#include "scheduler/task_json.h"
#include "scheduler/task_ptr.h"
#include "webapi/webapi.h"

namespace {

enum {
  kErrParam = 6200,
  kErrNotFound = 6201,
  kErrNotAllowed = 6202,
  kErrNotRunning = 6203,
  kErrStore = 6204,
};

// Most ids one "summary" takes (a page of the task grid is far fewer).
constexpr Json::ArrayIndex kMaxSummaryIds = 1000;
constexpr int kMaxPreview = 20;
constexpr int kDefaultPreview = 5;

// The page's names of three schedule keys and the store's.
const char* const kScheduleKeys[][2] = {
    {"repeat_date", "repeat"},
    {"week_day", "week_name"},
    {"minute", "min"},
};

// Store failures: the store's error code says which of ours it is.
void FailStore(ORVA::APIResponse* resp, const char* what) {
  const int code = KELCErrGet();
  ORVA_LOG(LOG_ERR, "%s failed. [0x%04X %s:%d]", what, code, KELCErrorGetFile(), KELCErrorGetLine());
  switch (code) {
    case ORVA_SCHED_ERR_NOT_FOUND:
      resp->SetErrorMessage(kErrNotFound, "no such task or run");
      break;
    case ORVA_SCHED_ERR_NOT_RUNNING:
      resp->SetErrorMessage(kErrNotRunning, "the task is not running");
      break;
    default:
      resp->SetErrorMessage(kErrStore, std::string(what) + " failed");
      break;
  }
}

// A positive integer parameter (written as an integer). False (reply written) otherwise.
bool ReadPositive(ORVA::APIRequest* req, ORVA::APIResponse* resp, const char* name, int64_t& out) {
  const Json::Value v = req->GetParam(name);
  const bool integer = v.type() == Json::intValue || v.type() == Json::uintValue;
  if (!integer || !v.isInt64() || v.asInt64() <= 0) {
    resp->SetErrorMessage(kErrParam, std::string("\"") + name + "\" must be a positive integer", name);
    return false;
  }
  out = v.asInt64();
  return true;
}

std::string Format(time_t t, const char* fmt) {
  struct tm lt;
  localtime_r(&t, &lt);
  char buf[64];
  strftime(buf, sizeof(buf), fmt, &lt);
  return buf;
}

// The zone's IANA name: TZ when set, else the target of /etc/localtime (a link into
// a zoneinfo folder), else /etc/timezone; "UTC" when none of them names one.
std::string TimeZoneName() {
  std::string name;
  const char* tz = getenv("TZ");
  if (tz && *tz) {
    name = tz[0] == ':' ? tz + 1 : tz;
  } else {
    char target[PATH_MAX];
    ssize_t n = readlink("/etc/localtime", target, sizeof(target) - 1);
    if (n > 0) {
      name.assign(target, static_cast<size_t>(n));
    } else if (FILE* f = fopen("/etc/timezone", "re")) {
      char line[256] = "";
      if (fgets(line, sizeof(line), f)) name = line;
      fclose(f);
      name.erase(name.find_last_not_of(" \t\r\n") + 1);
    }
  }
  const size_t zi = name.find("zoneinfo/");
  if (zi != std::string::npos) name.erase(0, zi + strlen("zoneinfo/"));
  if (name.empty() || name[0] == '/') name = "UTC";
  return name;
}

Json::Value Clock() {
  tzset();
  const time_t now = time(nullptr);
  struct tm lt;
  localtime_r(&now, &lt);
  const long off = lt.tm_gmtoff;
  char offset[48];
  snprintf(offset, sizeof(offset), "%c%02ld:%02ld", off < 0 ? '-' : '+', labs(off) / 3600, labs(off) % 3600 / 60);
  Json::Value data(Json::objectValue);
  data["now"] = Format(now, "%Y-%m-%d %H:%M:%S");
  data["time_zone"] = TimeZoneName();
  data["utc_offset"] = offset;
  return data;
}

void List(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  int64_t id = 0;
  if (!ReadPositive(req, resp, "id", id)) return;
  Json::Value data;
  if (ORVASchedTaskGetRuns(static_cast<long>(id), data) < 0) {
    FailStore(resp, "list runs");
    return;
  }
  resp->SetSuccess(data);
}

void Get(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  int64_t id = 0, runId = 0;
  if (!ReadPositive(req, resp, "id", id) || !ReadPositive(req, resp, "run_id", runId)) return;
  Json::Value run;
  if (ORVASchedTaskGetRun(static_cast<long>(id), runId, run) < 0) {
    FailStore(resp, "get run");
    return;
  }
  resp->SetSuccess(run);
}

void Summary(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  const Json::Value ids = req->GetParam("ids");
  if (!ids.isArray() || ids.size() > kMaxSummaryIds) {
    resp->SetErrorMessage(kErrParam, "\"ids\" must be an array of at most " + std::to_string(kMaxSummaryIds) + " task ids",
         "ids");
    return;
  }
  std::vector<long> list;
  for (const Json::Value& v : ids) {
    if ((v.type() != Json::intValue && v.type() != Json::uintValue) || !v.isInt64()) {
      resp->SetErrorMessage(kErrParam, "\"ids\" must hold integers only", "ids");
      return;
    }
    list.push_back(static_cast<long>(v.asInt64()));
  }
  Json::Value data(Json::objectValue);
  if (ORVASchedTaskGetRunSummaries(list, data["tasks"]) < 0) {
    FailStore(resp, "run summaries");
    return;
  }
  resp->SetSuccess(data);
}

void Stop(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  int64_t id = 0;
  if (!ReadPositive(req, resp, "id", id)) return;
  ORVASchedTaskPtr task(ORVASchedTaskAllocFast());
  if (!task || ORVASchedTaskLoad(static_cast<long>(id), task.get()) < 0) {
    FailStore(resp, "load task");
    return;
  }
  // Stopping is allowed where running is (the task scheduler's "run" checks the same flag).
  if (!ORVASchedTaskIsCanRunFromUI(*task)) {
    resp->SetErrorMessage(kErrNotAllowed, "this task cannot be run or stopped from the UI", "id");
    return;
  }
  int64_t runId = 0;
  if (ORVASchedTaskStop(static_cast<long>(id), &runId) < 0) {
    FailStore(resp, "stop task");
    return;
  }
  Json::Value data(Json::objectValue);
  data["id"] = static_cast<Json::Int64>(id);
  data["run_id"] = static_cast<Json::Int64>(runId);
  data["stopping"] = true;
  resp->SetSuccess(data);
}

// Which member of a refused schedule (store key names) is bad on its own, in the
// page's words; otherwise the members do not fit together.
std::string Culprit(const Json::Value& schedule) {
  for (const std::string& key : schedule.getMemberNames()) {
    ORVASchedTaskPtr t(ORVASchedTaskAllocFast());
    Json::Value one(Json::objectValue);
    one["schedule"][key] = schedule[key];
    if (t && !ORVASchedTaskConvertFromJson_Schedule(one, *t)) {
      std::string name = key;
      for (const auto& k : kScheduleKeys) {
        if (key == k[1]) name = k[0];
      }
      return "\"" + name + "\" is refused";
    }
  }
  return "its members do not fit together (repeat_hour with repeat_min, or weekly without days)";
}

void Preview(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  Json::Value schedule = req->GetParam("schedule");
  if (!schedule.isObject()) {
    resp->SetErrorMessage(kErrParam, "\"schedule\" must be a schedule object", "schedule");
    return;
  }
  int count = kDefaultPreview;
  const ORVA::APIParameter<int> c = req->GetAndCheckInt("count", ORVA::PARAM_OPTIONAL);
  if (c.IsSet()) {
    if (c.IsInvalid() || c.Get() < 1 || c.Get() > kMaxPreview) {
      resp->SetErrorMessage(kErrParam, "\"count\" must be an integer from 1 to " + std::to_string(kMaxPreview), "count");
      return;
    }
    count = c.Get();
  }
  // As the task scheduler's version-2 create and set read it: the page's key names,
  // absent keys taking a new task's defaults.
  for (const auto& key : kScheduleKeys) {
    if (schedule.isMember(key[0])) {
      schedule[key[1]] = schedule[key[0]];
      schedule.removeMember(key[0]);
    }
  }
  ORVASchedTaskPtr task(ORVASchedTaskAllocFast());
  Json::Value wrapped(Json::objectValue);
  wrapped["schedule"] = schedule;
  if (!task || !ORVASchedTaskConvertFromJson_Schedule(wrapped, *task)) {
    resp->SetErrorMessage(kErrParam, "\"schedule\" is not a valid schedule: " + Culprit(schedule), "schedule");
    return;
  }
  Json::Value data = Clock();
  std::vector<time_t> next;
  if (ORVASchedScheduleNextTriggers(task->schedule, time(nullptr), count, next) < 0) {
    resp->SetErrorMessage(kErrParam, "\"schedule\" is not a valid schedule", "schedule");
    return;
  }
  data["next"] = Json::Value(Json::arrayValue);
  for (time_t t : next) data["next"].append(ORVASchedFormatTriggerTime(t));
  resp->SetSuccess(data);
}

void ClockMethod(ORVA::APIRequest*, ORVA::APIResponse* resp) { resp->SetSuccess(Clock()); }

const ORVA::APITableRow gTable[] = {
    {"ORVA.Core.TaskRuns", 1, "list", List},
    {"ORVA.Core.TaskRuns", 1, "get", Get},
    {"ORVA.Core.TaskRuns", 1, "summary", Summary},
    {"ORVA.Core.TaskRuns", 1, "stop", Stop},
    {"ORVA.Core.TaskRuns", 1, "preview", Preview},
    {"ORVA.Core.TaskRuns", 1, "clock", ClockMethod},
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ORVA::APITableRow* GetAPITable() { return gTable; }
