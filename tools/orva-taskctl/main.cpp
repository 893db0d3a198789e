// orva-taskctl: raw task records for other packages and for tests.
//   orva-taskctl [--root DIR] add JSON | show ID | list | remove ID
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <string>

#include "core/json_read.h"
#include "core/kelc.h"
#include "core/program.h"
#include "core/root.h"
#include "core/user.h"
#include "scheduler/schedule.h"
#include "scheduler/store.h"
#include "scheduler/task_fields.h"
#include "scheduler/task_json.h"
#include "scheduler/task_ptr.h"

namespace {

void Usage(FILE* out) {
  fprintf(out,
          "usage: orva-taskctl [--root DIR] add JSON\n"
          "       orva-taskctl [--root DIR] show ID\n"
          "       orva-taskctl [--root DIR] list\n"
          "       orva-taskctl [--root DIR] remove ID\n"
          "add prints the new task's id. JSON members: name, app, app_name, action, command,\n"
          "app_args, edit_form, event (texts); owner, real_owner (user names; no real_owner:\n"
          "a system task); enabled, listable, can_edit_from_ui, can_delete_from_ui,\n"
          "can_run_from_ui, can_edit_name, can_edit_owner, simple_edit_form,\n"
          "can_run_app_same_time, can_run_task_same_time (booleans); schedule (object);\n"
          "id (integer: store under this id). Absent members keep the defaults.\n");
}

int Error(const std::string& msg) {
  fprintf(stderr, "orva-taskctl: %s\n", msg.c_str());
  return 1;
}

std::string StoreError() {
  char buf[64];
  snprintf(buf, sizeof(buf), " [0x%04X %s:%d]", KELCErrGet(), KELCErrorGetFile(), KELCErrorGetLine());
  return buf;
}

bool UserUid(const std::string& name, unsigned& uid) {
  PORVAUSER u = nullptr;
  if (ORVAUserGetByName(name.c_str(), &u) != 0) return false;
  uid = u->uid;
  ORVAUserFree(u);
  return true;
}

std::string OneLine(const Json::Value& v) {
  Json::StreamWriterBuilder w;
  w["indentation"] = "";
  w["emitUTF8"] = true;
  return Json::writeString(w, v);
}

// Every field of the record under its member's name (uids under their column's), with
// the owners' names and the schedule object.
Json::Value ToJson(const ORVA_SCHED_TASK& t) {
  Json::Value o(Json::objectValue);
#define SHOW(K, m, basic, where, arg, get, set) SHOW_##K(m, get)
#define SHOW_ID(m, get) o[#m] = static_cast<Json::Int64>(get(t));
#define SHOW_MARKER SHOW_ID
#define SHOW_UID(m, get) o[ORVA_SCHED_COLUMN(UID, m)] = get(t);
#define SHOW_STATE(m, get) o[#m] = get(t);
#define SHOW_FLAG SHOW_STATE
#define SHOW_TEXT SHOW_STATE
#define SHOW_S8(m, get)
#define SHOW_S16 SHOW_S8
#define SHOW_LIST SHOW_S8
  ORVA_SCHED_TASK_FIELDS(SHOW)
  o["owner"] = ORVA::UserName(ORVASchedTaskGetOwner(t));
  bool byUser = ORVASchedTaskGetMarker(t) == ORVA_SCHED_MARKER_BY_USER;
  o["real_owner"] = byUser ? Json::Value(ORVA::UserName(ORVASchedTaskGetRealOwner(t))) : Json::Value();
  Json::Value sched;
  ORVASchedTaskConvertToJson_Schedule(t, sched);
  o["schedule"] = sched["schedule"];
  o["next_trigger_time"] = ORVASchedTaskGetNextTriggerTime(t);
  return o;
}

typedef void (*TextSetter)(ORVA_SCHED_TASK*, const char*);
typedef void (*FlagSetter)(ORVA_SCHED_TASK*, int);

int Add(const char* text) {
  Json::Value in;
  std::string errs;
  if (!ORVA::JsonParse(text, &in, &errs) || !in.isObject()) {
    return Error("the task must be a JSON object");
  }
#define ROW(K, m, basic, where, arg, get, set) ROW_##K(m, arg, set)
#define ROW_TEXT(m, arg, set) {#m, set, arg, sizeof(ORVA_SCHED_TASK::m)},
#define ROW_ID(m, arg, set)
#define ROW_MARKER ROW_ID
#define ROW_UID ROW_ID
#define ROW_STATE ROW_ID
#define ROW_FLAG ROW_ID
#define ROW_S8 ROW_ID
#define ROW_S16 ROW_ID
#define ROW_LIST ROW_ID
  static const struct {
    const char* key;
    TextSetter set;
    uint32_t bit;
    size_t max;
  } kTexts[] = {ORVA_SCHED_TASK_FIELDS(ROW)};
#undef ROW_TEXT
#undef ROW_STATE
#undef ROW_FLAG
#define ROW_TEXT ROW_ID
#define ROW_STATE(m, arg, set) {#m, [](ORVA_SCHED_TASK* t, int v) { set(t, v); }},
#define ROW_FLAG ROW_STATE
  static const struct {
    const char* key;
    FlagSetter set;
  } kFlags[] = {ORVA_SCHED_TASK_FIELDS(ROW)};
  ORVASchedTaskPtr task(ORVASchedTaskAllocFast());
  if (!task) return Error("out of memory");
  ORVA_SCHED_TASK* t = task.get();

  for (const std::string& key : in.getMemberNames()) {
    const Json::Value& v = in[key];
    bool known = false;
    for (const auto& f : kTexts) {
      if (key != f.key) continue;
      known = true;
      if (!v.isString()) return Error("\"" + key + "\" must be a string");
      f.set(t, v.asCString());
      if (ORVASchedTaskGetTruncated(*t) & f.bit || v.asString().size() != strlen(v.asCString())) {
        return Error("\"" + key + "\" is too long or holds a NUL (at most " + std::to_string(f.max - 1) +
                     " bytes)");
      }
    }
    for (const auto& f : kFlags) {
      if (key != f.key) continue;
      known = true;
      if (!v.isBool()) return Error("\"" + key + "\" must be true or false");
      f.set(t, v.asBool());
    }
    if (known) continue;
    if (key == "id") {
      if (!v.isInt64() || v.asInt64() <= 0) return Error("\"id\" must be a positive integer");
      ORVASchedCTaskSetID(t, static_cast<long>(v.asInt64()));
    } else if (key == "owner" || key == "real_owner") {
      // handled below
    } else if (key == "schedule") {
      Json::Value wrap(Json::objectValue);
      wrap["schedule"] = v;
      if (!v.isObject() || !ORVASchedTaskConvertFromJson_Schedule(wrap, *t)) {
        return Error("\"schedule\" is not a valid schedule object" + StoreError());
      }
    } else {
      return Error("unknown member \"" + key + "\"");
    }
  }
  unsigned uid = 0;
  if (in.isMember("owner")) {
    if (!in["owner"].isString() || !UserUid(in["owner"].asString(), uid)) {
      return Error("\"owner\" must name an existing user");
    }
    ORVASchedCTaskSetOwner(t, uid);
  }
  if (in.isMember("real_owner") && !in["real_owner"].isNull()) {
    unsigned real = 0;
    if (!in["real_owner"].isString() || !UserUid(in["real_owner"].asString(), real)) {
      return Error("\"real_owner\" must name an existing user");
    }
    if (!in.isMember("owner")) ORVASchedCTaskSetOwner(t, real);
    ORVASchedCTaskSetRealOwner(t, true, real);
  }
  if (ORVASchedTaskSave(t) != 0) {
    if (KELCErrGet() == ORVA_SCHED_ERR_NOT_OWNER) {
      return Error("a user's task must run as that user (owner = real_owner)" + StoreError());
    }
    return Error("cannot save the task" + StoreError());
  }
  printf("%ld\n", ORVASchedTaskGetID(*t));
  return 0;
}

int Show(long id) {
  ORVASchedTaskPtr task(ORVASchedTaskAllocFast());
  if (!task) return Error("out of memory");
  if (id == -1 || ORVASchedTaskLoad(id, task.get()) != 0) {
    return Error("no task " + std::to_string(id) + StoreError());
  }
  printf("%s\n", OneLine(ToJson(*task)).c_str());
  return 0;
}

int List() {
  ORVA_SCHED_TASK* list = nullptr;
  if (ORVASchedTaskListGet(&list, nullptr, nullptr) < 0) return Error("cannot list the tasks" + StoreError());
  for (ORVA_SCHED_TASK* t = list; t; t = ORVASchedTaskNext(t)) {
    printf("%s\n", OneLine(ToJson(*t)).c_str());
  }
  ORVASchedTaskListFree(list);
  return 0;
}

int Remove(long id) {
  if (ORVASchedTaskRemove(id) != 0) {
    return Error((KELCErrGet() == ORVA_SCHED_ERR_NOT_FOUND ? "no task " : "cannot remove task ") +
                 std::to_string(id) + StoreError());
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  openlog("orva-taskctl", LOG_PID, LOG_USER);
  static const struct option kOptions[] = {
      ORVA::kRootOption,
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  int opt;
  while ((opt = ORVA::GetOpt(argc, argv, "+", kOptions)) != -1) {
    switch (opt) {
      case 'h':
        Usage(stdout);
        return 0;
      default:
        Usage(stderr);
        return 2;
    }
  }
  int n = argc - optind;
  const char* cmd = n > 0 ? argv[optind] : "";
  long id = 0;
  if (strcmp(cmd, "add") == 0 && n == 2) return Add(argv[optind + 1]);
  if (strcmp(cmd, "list") == 0 && n == 1) return List();
  if ((strcmp(cmd, "show") == 0 || strcmp(cmd, "remove") == 0) && n == 2) {
    if (!ORVA::ParseLong(argv[optind + 1], LONG_MIN, LONG_MAX, &id)) {
      return Error(std::string("not a task id: ") + argv[optind + 1]);
    }
    return cmd[0] == 's' ? Show(id) : Remove(id);
  }
  Usage(stderr);
  return 2;
}
