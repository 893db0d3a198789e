// ORVA.Core.EventScheduler v1: tasks run at boot-up or shutdown. "list" answers what
// the task scheduler's list merges: [{"id", "task_name", "owner": {"UID": "name"},
// "enable", "event", "script"}]; "create", "set" and "delete" change them.
//
// Error codes (with "msg", and "param" naming the offending parameter):
//   6100 a parameter is missing, of the wrong type or out of range
//   6101 no event task has that id
//   6102 the owner is not an existing user
//   6103 the task store failed
#include <string.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "core/kelc.h"
#include "core/log.h"
#include "core/user.h"
#include "scheduler/event_task.h"
#include "webapi/webapi.h"

namespace {

enum {
  kErrParam = 6100,
  kErrNotFound = 6101,
  kErrNoUser = 6102,
  kErrStore = 6103,
};

// Store failures: the store's error code says which of ours it is.
void FailStore(ORVA::APIResponse* resp, const char* what) {
  const int code = KELCErrGet();
  ORVA_LOG(LOG_ERR, "%s failed. [0x%04X %s:%d]", what, code, KELCErrorGetFile(), KELCErrorGetLine());
  switch (code) {
    case ORVA_SCHED_ERR_NOT_FOUND:
      resp->SetErrorMessage(kErrNotFound, "no such event task", "id");
      break;
    case ORVA_SCHED_ERR_NO_USER:
      resp->SetErrorMessage(kErrNoUser, "the owner is not an existing user", "owner");
      break;
    case ORVA_SCHED_ERR_INVALID:
    case ORVA_SCHED_ERR_TOO_LONG:
      resp->SetErrorMessage(kErrParam, std::string(what) + ": a value was refused by the store");
      break;
    default:
      resp->SetErrorMessage(kErrStore, std::string(what) + " failed");
      break;
  }
}

Json::Value ToJson(const ORVASchedEventTask& t) {
  Json::Value v(Json::objectValue);
  v["id"] = static_cast<Json::Int64>(t.id);
  v["task_name"] = t.task_name;
  Json::Value owner(Json::objectValue);
  owner[std::to_string(t.owner)] = ORVA::UserName(t.owner);
  v["owner"] = owner;
  v["enable"] = t.enable;
  v["event"] = t.event;
  v["script"] = t.script;
  return v;
}

bool HasNul(const std::string& s) { return s.find('\0') != std::string::npos; }

// Reads the editable members into `t`. With `all`, each must be present; without,
// absent ones keep the value `t` holds. False (reply written) on a bad value.
bool ReadFields(ORVA::APIRequest* req, ORVA::APIResponse* resp, bool all, ORVASchedEventTask& t) {
  const Json::Value params = req->GetParam("");
  for (const char* name : {"task_name", "owner", "enable", "event", "script"}) {
    if (!params.isMember(name)) {
      if (all) {
        resp->SetErrorMessage(kErrParam, std::string("\"") + name + "\" is required", name);
        return false;
      }
      continue;
    }
    const Json::Value& v = params[name];
    const std::string field = name;
    if (field == "task_name") {
      if (!v.isString() || v.asString().empty() || HasNul(v.asString()) ||
          v.asString().size() > ORVA_SCHED_NAME_MAX - 1) {
        resp->SetErrorMessage(kErrParam,
             "\"task_name\" must be a text of 1 to " + std::to_string(ORVA_SCHED_NAME_MAX - 1) + " bytes", name);
        return false;
      }
      t.task_name = v.asString();
    } else if (field == "owner") {
      if (!v.isString() || v.asString().empty() || HasNul(v.asString())) {
        resp->SetErrorMessage(kErrParam, "\"owner\" must be a user name", name);
        return false;
      }
      PORVAUSER user = nullptr;
      if (ORVAUserGetByName(v.asCString(), &user) < 0 || !user) {
        ORVAUserFree(user);
        resp->SetErrorMessage(kErrNoUser, "no user named \"" + v.asString() + "\"", name);
        return false;
      }
      t.owner = user->uid;
      ORVAUserFree(user);
    } else if (field == "enable") {
      if (!v.isBool()) {
        resp->SetErrorMessage(kErrParam, "\"enable\" must be true or false", name);
        return false;
      }
      t.enable = v.asBool();
    } else if (field == "event") {
      if (!v.isString() || (v.asString() != ORVA_SCHED_EVENT_BOOTUP && v.asString() != ORVA_SCHED_EVENT_SHUTDOWN)) {
        resp->SetErrorMessage(kErrParam, "\"event\" must be \"bootup\" or \"shutdown\"", name);
        return false;
      }
      t.event = v.asString();
    } else {
      if (!v.isString() || HasNul(v.asString()) || v.asString().size() > ORVA_SCHED_COMMAND_MAX - 1) {
        resp->SetErrorMessage(kErrParam,
             "\"script\" must be a text of at most " + std::to_string(ORVA_SCHED_COMMAND_MAX - 1) + " bytes", name);
        return false;
      }
      t.script = v.asString();
    }
  }
  return true;
}

// The "id" of an existing task. False (reply written) otherwise.
bool ReadId(ORVA::APIRequest* req, ORVA::APIResponse* resp, long& id) {
  const ORVA::APIParameter<int> p = req->GetAndCheckInt("id");
  if (!p.IsSet() || p.IsInvalid() || p.Get() <= 0) {
    resp->SetErrorMessage(kErrParam, "\"id\" must be a positive integer", "id");
    return false;
  }
  id = p.Get();
  return true;
}

void List(ORVA::APIRequest*, ORVA::APIResponse* resp) {
  std::vector<ORVASchedEventTask> tasks;
  if (ORVASchedEventTaskList(tasks, nullptr) < 0) {
    FailStore(resp, "list event tasks");
    return;
  }
  Json::Value data(Json::arrayValue);
  for (const ORVASchedEventTask& t : tasks) {
    data.append(ToJson(t));
  }
  resp->SetSuccess(data);
}

// Saves `t` and answers its id.
void SaveAndReply(ORVA::APIResponse* resp, ORVASchedEventTask& t) {
  if (ORVASchedEventTaskSave(t) < 0) {
    FailStore(resp, "save event task");
    return;
  }
  Json::Value data(Json::objectValue);
  data["id"] = static_cast<Json::Int64>(t.id);
  resp->SetSuccess(data);
}

void Create(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  ORVASchedEventTask t;
  if (req->GetParam("").isMember("id")) {
    resp->SetErrorMessage(kErrParam, "\"create\" takes no \"id\"; use \"set\"", "id");
    return;
  }
  if (!ReadFields(req, resp, true, t)) {
    return;
  }
  t.id = -1;
  SaveAndReply(resp, t);
}

void Set(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  long id = 0;
  if (!ReadId(req, resp, id)) {
    return;
  }
  ORVASchedEventTask t;
  if (ORVASchedEventTaskLoad(id, t) < 0) {
    FailStore(resp, "load event task");
    return;
  }
  if (!ReadFields(req, resp, false, t)) {
    return;
  }
  t.id = id;
  SaveAndReply(resp, t);
}

void Delete(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  long id = 0;
  if (!ReadId(req, resp, id)) {
    return;
  }
  if (ORVASchedEventTaskRemove(id) < 0) {
    FailStore(resp, "remove event task");
    return;
  }
  resp->SetSuccess(Json::Value(Json::objectValue));
}

const ORVA::APITableRow gTable[] = {
    {"ORVA.Core.EventScheduler", 1, "list", List},
    {"ORVA.Core.EventScheduler", 1, "create", Create},
    {"ORVA.Core.EventScheduler", 1, "set", Set},
    {"ORVA.Core.EventScheduler", 1, "delete", Delete},
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ORVA::APITableRow* GetAPITable() { return gTable; }
