// liborvaschedulercgi: the "basic" and "schedule" JSON objects of a task record.
// Conversions from JSON work on a copy and touch the record only when every value
// is good.
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <charconv>
#include <memory>
#include <string>

#include "core/user.h"
#include "internal.h"
#include "scheduler/schedule.h"
#include "scheduler/task_fields.h"
#include "scheduler/task_json.h"
#include "scheduler/task_ptr.h"

namespace {

const char* const kRepeatNames[] = {"daily", "weekly", "monthly", "once"};

bool Fail(int code, const char* what, int line) {
  syslog(LOG_ERR, "%s:%d %s", __FILE_NAME__, line, what);
  KELCErrSetEx(code, __FILE_NAME__, line);
  return false;
}
#define FAIL(code, what) Fail((code), (what), __LINE__)

using ORVA::UserName;

// The member `key` of `parent`, which must be an object (or absent/null: empty).
bool Member(const Json::Value& json, const char* key, const Json::Value*& out) {
  static const Json::Value kEmpty(Json::objectValue);
  if (!json.isObject()) return false;
  const Json::Value* m = json.find(key, key + strlen(key));
  if (!m || m->isNull()) {
    out = &kEmpty;
    return true;
  }
  if (!m->isObject()) return false;
  out = m;
  return true;
}

bool GetInt(const Json::Value& obj, const char* key, int lo, int hi, uint8_t& out) {
  if (!obj.isMember(key)) return true;
  const Json::Value& v = obj[key];
  if (!v.isInt() || v.asInt() < lo || v.asInt() > hi) return false;
  out = static_cast<uint8_t>(v.asInt());
  return true;
}

bool ParseDate(const std::string& s, ORVA_SCHED_SCHEDULE& out) {
  if (s.size() != 10 || s[4] != '-' || s[7] != '-') return false;
  for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9}) {
    if (s[i] < '0' || s[i] > '9') return false;
  }
  out.year = static_cast<uint16_t>(atoi(s.substr(0, 4).c_str()));
  out.month = static_cast<uint8_t>(atoi(s.substr(5, 2).c_str()));
  out.day = static_cast<uint8_t>(atoi(s.substr(8, 2).c_str()));
  return out.month >= 1 && out.month <= 12;  // day and year: checked with the whole schedule
}

bool ParseWeek(const std::string& s, uint8_t& mask) {
  mask = 0;
  if (s.empty()) return true;
  for (size_t i = 0; i < s.size(); i += 2) {
    if (s[i] < '0' || s[i] > '6' || (i + 1 < s.size() && s[i + 1] != ',') || i + 1 == s.size() - 1) return false;
    uint8_t bit = static_cast<uint8_t>(1u << (s[i] - '0'));
    if (mask & bit) return false;
    mask |= bit;
  }
  return true;
}

bool ParseConfig(const Json::Value& obj, const char* key, int hi, uint8_t* values, uint8_t& n) {
  if (!obj.isMember(key)) return true;
  const Json::Value& v = obj[key];
  if (!v.isArray() || v.size() > ORVA_SCHED_REPEAT_CFG_MAX) return false;
  uint8_t tmp[ORVA_SCHED_REPEAT_CFG_MAX];
  for (Json::ArrayIndex i = 0; i < v.size(); ++i) {
    if (!v[i].isInt() || v[i].asInt() < 1 || v[i].asInt() > hi) return false;
    tmp[i] = static_cast<uint8_t>(v[i].asInt());
  }
  n = static_cast<uint8_t>(v.size());
  memcpy(values, tmp, n);
  return true;
}

// "id": a decimal string ("-1": new) or an integer; -1 or a positive id.
bool ParseId(const Json::Value& v, long& id) {
  if (v.isString()) {
    std::string s = v.asString();
    const char* end = s.data() + s.size();
    auto res = std::from_chars(s.data(), end, id);
    if (s.empty() || res.ec != std::errc() || res.ptr != end) return false;
  } else if (v.isInt64()) {
    id = static_cast<long>(v.asInt64());
  } else {
    return false;
  }
  return id == -1 || id > 0;
}

bool FromJsonBasic(const Json::Value& json, _tag_orva_sched_task_& task, const char* byUser) {
  const Json::Value* basic = nullptr;
  if (!Member(json, "basic", basic)) return FAIL(ORVA_SCHED_ERR_INVALID, "basic: not an object");
  unsigned userUid = 0;
  if (byUser) {
    PORVAUSER u = nullptr;
    if (ORVAUserGetByName(byUser, &u) != 0) return FAIL(ORVA_SCHED_ERR_NO_USER, "basic: unknown acting user");
    userUid = u->uid;
    ORVAUserFree(u);
  }
  ORVASchedTaskPtr copy(static_cast<ORVA_SCHED_TASK*>(malloc(sizeof(ORVA_SCHED_TASK))));
  if (!copy) return FAIL(KELC_ERR_OUT_OF_MEMORY, "basic: out of memory");
  *copy = orva_sched::Full(task);
  ORVA_SCHED_TASK& t = *copy;
  if (basic->isMember("id")) {
    long id = 0;
    if (!ParseId((*basic)["id"], id)) return FAIL(ORVA_SCHED_ERR_INVALID, "basic: bad id");
    t.id = id;
    if (id == -1) t.saved = 0;
  }
  if (basic->isMember("task_name")) {
    const Json::Value& v = (*basic)["task_name"];
    if (!v.isString() || v.asString().empty() || v.asString().find('\0') != std::string::npos) {
      return FAIL(ORVA_SCHED_ERR_INVALID, "basic: task_name must be a non-empty string");
    }
    if (v.asString().size() >= sizeof(t.name)) return FAIL(ORVA_SCHED_ERR_TOO_LONG, "basic: task_name too long");
    ORVASchedCTaskSetName(&t, v.asCString());
  }
  if (basic->isMember("owner")) {
    const Json::Value& v = (*basic)["owner"];
    PORVAUSER u = nullptr;
    if (!v.isString() || ORVAUserGetByName(v.asCString(), &u) != 0) {
      ORVAUserFree(u);
      return FAIL(ORVA_SCHED_ERR_NO_USER, "basic: owner is not an existing user");
    }
    t.owner = u->uid;
    ORVAUserFree(u);
  } else if (byUser) {
    t.owner = userUid;
  }
  if (basic->isMember("enabled")) {
    const Json::Value& v = (*basic)["enabled"];
    if (v.isString() && strcasecmp(v.asCString(), "on") == 0) {
      t.enabled = 1;
    } else if (v.isString() && strcasecmp(v.asCString(), "off") == 0) {
      t.enabled = 0;
    } else {
      return FAIL(ORVA_SCHED_ERR_INVALID, "basic: enabled must be \"on\" or \"off\"");
    }
  }
  if (byUser) {
    if (t.owner != userUid) return FAIL(ORVA_SCHED_ERR_NOT_OWNER, "basic: a user's task must run as that user");
    ORVASchedCTaskSetRealOwner(&t, true, userUid);
  }
  orva_sched::Assign(task, t, true);
  return true;
}

}  // namespace

bool ORVASchedTaskConvertToJson_Basic(const _tag_orva_sched_task_& t, Json::Value& json) {
  if (!json.isNull() && !json.isObject()) return FAIL(ORVA_SCHED_ERR_INVALID, "basic: target is not an object");
  Json::Value b(Json::objectValue);
  const ORVA_SCHED_TASK& r = orva_sched::Full(t);
#define BASIC(K, m, key, where, arg, get, set) BASIC_##K(key, ORVA_SCHED_FIELD(K, r, m))
#define BASIC_ID(key, v) b[key] = static_cast<Json::Int64>(v);
#define BASIC_UID(key, v) b[key] = UserName(v);
#define BASIC_STATE(key, v) b[key] = (v) ? "on" : "off";
#define BASIC_FLAG(key, v) b[key] = (v) != 0;
#define BASIC_TEXT(key, v) \
  if (*(key)) b[key] = (v);
#define BASIC_MARKER(key, v)
#define BASIC_S8 BASIC_MARKER
#define BASIC_S16 BASIC_MARKER
#define BASIC_LIST BASIC_MARKER
  ORVA_SCHED_TASK_FIELDS(BASIC)
  // A system task's real owner is nobody's.
  if (r.marker != ORVA_SCHED_MARKER_BY_USER) b["real_owner"] = "";
  json["basic"] = b;
  return true;
}

bool ORVASchedTaskConvertToJson_Schedule(const _tag_orva_sched_task_& t, Json::Value& json) {
  if (!json.isNull() && !json.isObject()) return FAIL(ORVA_SCHED_ERR_INVALID, "schedule: target is not an object");
  const ORVA_SCHED_SCHEDULE& s = ORVASchedTaskGetSchedule(t);
  Json::Value o(Json::objectValue);
  o["repeat"] = s.repeat <= ORVA_SCHED_REPEAT_ONCE ? kRepeatNames[s.repeat] : "";
  char date[16] = "";
  if (s.month) snprintf(date, sizeof(date), "%04u-%02u-%02u", s.year, s.month, s.day);
  o["date"] = date;
  std::string week;
  for (int d = 0; d < 7; ++d) {
    if (s.week_mask & (1u << d)) {
      if (!week.empty()) week += ',';
      week += static_cast<char>('0' + d);
    }
  }
  o["week_name"] = week;
  o["hour"] = s.hour;
  o["min"] = s.min;
  o["repeat_hour"] = s.repeat_hour;
  o["repeat_min"] = s.repeat_min;
  o["last_work_hour"] = s.last_work_hour;
  Json::Value minCfg(Json::arrayValue), hourCfg(Json::arrayValue);
  for (unsigned i = 0; i < s.n_repeat_min_cfg && i < ORVA_SCHED_REPEAT_CFG_MAX; ++i) minCfg.append(s.repeat_min_cfg[i]);
  for (unsigned i = 0; i < s.n_repeat_hour_cfg && i < ORVA_SCHED_REPEAT_CFG_MAX; ++i) {
    hourCfg.append(s.repeat_hour_cfg[i]);
  }
  o["repeat_min_store_config"] = minCfg;
  o["repeat_hour_store_config"] = hourCfg;
  o["next_trigger_time"] = ORVASchedTaskGetNextTriggerTime(t);
  json["schedule"] = o;
  return true;
}

bool ORVASchedTaskConvertFromJson_Basic(const Json::Value& json, _tag_orva_sched_task_& task) {
  return FromJsonBasic(json, task, nullptr);
}

bool ORVASchedTaskConvertFromJson_Basic_ByUser(const std::string& user, const Json::Value& json,
                                               _tag_orva_sched_task_& task) {
  return FromJsonBasic(json, task, user.c_str());
}

bool ORVASchedTaskConvertFromJson_Schedule(const Json::Value& json, _tag_orva_sched_task_& task) {
  const Json::Value* obj = nullptr;
  if (!Member(json, "schedule", obj)) return FAIL(ORVA_SCHED_ERR_INVALID, "schedule: not an object");
  ORVA_SCHED_SCHEDULE s = ORVASchedTaskGetSchedule(task);
  const Json::Value& o = *obj;
  if (o.isMember("repeat")) {
    const Json::Value& v = o["repeat"];
    int found = -1;
    for (int i = 0; v.isString() && i <= ORVA_SCHED_REPEAT_ONCE; ++i) {
      if (v.asString() == kRepeatNames[i]) found = i;
    }
    if (found < 0) return FAIL(ORVA_SCHED_ERR_INVALID, "schedule: repeat must be once, daily, weekly or monthly");
    s.repeat = static_cast<uint8_t>(found);
  }
  if (o.isMember("date") && (!o["date"].isString() || !ParseDate(o["date"].asString(), s))) {
    return FAIL(ORVA_SCHED_ERR_INVALID, "schedule: date must be YYYY-MM-DD");
  }
  if (o.isMember("week_name") && (!o["week_name"].isString() || !ParseWeek(o["week_name"].asString(), s.week_mask))) {
    return FAIL(ORVA_SCHED_ERR_INVALID, "schedule: week_name must list days 0-6, e.g. \"1,3,5\"");
  }
  if (!GetInt(o, "hour", 0, 23, s.hour) || !GetInt(o, "min", 0, 59, s.min) ||
      !GetInt(o, "repeat_hour", 0, 23, s.repeat_hour) || !GetInt(o, "repeat_min", 0, 59, s.repeat_min) ||
      !GetInt(o, "last_work_hour", 0, 23, s.last_work_hour)) {
    return FAIL(ORVA_SCHED_ERR_INVALID, "schedule: an hour, minute or interval is out of range");
  }
  if (!ParseConfig(o, "repeat_min_store_config", 59, s.repeat_min_cfg, s.n_repeat_min_cfg) ||
      !ParseConfig(o, "repeat_hour_store_config", 23, s.repeat_hour_cfg, s.n_repeat_hour_cfg)) {
    return FAIL(ORVA_SCHED_ERR_INVALID, "schedule: a store_config is not a list of intervals");
  }
  if (s.month == 0) return FAIL(ORVA_SCHED_ERR_INVALID, "schedule: no date");
  if (!ORVASchedScheduleValidate(s)) return false;
  orva_sched::Edit(&task, [&s](ORVA_SCHED_TASK& w) { w.schedule = s; });
  return true;
}
