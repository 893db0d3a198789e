// Shared layer: store access for the system or a user, app keys, shell words, UI texts.
#include "lib.h"

#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include "core/kelc.h"
#include "scheduler/store.h"
#include "scheduler/task_json.h"

namespace {

const char kSrc[] = "lib";
const char kWebmanDir[] = "/usr/orva/orvaman/webman/";

const char* OwnerText(const boost::optional<std::string>& owner) {
  return owner ? owner->c_str() : "-";
}

// The error facility's file may be unset; syslog must never see a null "%s".
const char* ErrFile() {
  const char* file = KELCErrorGetFile();
  return file ? file : "";
}

// section -> key -> text lookup that treats any other shape as missing.
std::string LookupText(const Json::Value& texts, const std::string& section, const std::string& key) {
  if (!texts.isObject()) {
    return std::string();
  }
  const Json::Value* sect = texts.find(section.data(), section.data() + section.size());
  if (!sect || !sect->isObject()) {
    return std::string();
  }
  const Json::Value* text = sect->find(key.data(), key.data() + key.size());
  if (!text || !text->isString()) {
    return std::string();
  }
  return text->asString();
}

}  // namespace

namespace ORVA {
namespace Core {
namespace TaskScheduler {

boost::optional<std::string> GetRealOwner(const Json::Value& param) {
  if (param.isObject() && param.isMember("real_owner") && param["real_owner"].isString()) {
    std::string owner = param["real_owner"].asString();
    if (!owner.empty()) {
      return owner;
    }
  }
  return boost::none;
}

boost::optional<std::string> GetRealOwner(ORVA::APIRequest& request) {
  ORVA::APIParameter<std::string> owner =
      request.GetAndCheckString("real_owner", ORVA::PARAM_OPTIONAL, nullptr);
  if (owner.IsSet() && !owner.IsInvalid() && !owner.Get().empty()) {
    return owner.Get();
  }
  return boost::none;
}

bool InitTask(boost::optional<std::string> owner, _tag_orva_sched_task_& task) {
  _tag_orva_sched_task_* fresh = ORVASchedTaskAllocFast();
  if (!fresh) {
    syslog(LOG_ERR, "%s:%d alloc task failed. user:[%s][0x%04X %s:%d]", kSrc, __LINE__, OwnerText(owner),
           KELCErrGet(), ErrFile(), KELCErrorGetLine());
    return false;
  }
  task = *fresh;
  ORVASchedTaskFree(fresh);
  return true;
}

bool LoadTask(boost::optional<std::string> owner, long id, _tag_orva_sched_task_& task) {
  _tag_orva_sched_task_ local;
  memset(&local, 0, sizeof(local));
  if (!InitTask(owner, local)) {
    syslog(LOG_ERR, "%s:%d alloc task failed. user:[%s] id:[%ld] [0x%04X %s:%d]", kSrc, __LINE__, OwnerText(owner),
           id, KELCErrGet(), ErrFile(), KELCErrorGetLine());
    return false;
  }
  if (owner) {
    if (ORVASchedTaskLoadByUser(owner->c_str(), id, &local) < 0) {
      syslog(LOG_ERR, "%s:%d load task failed. user:[%s] id:[%ld] [0x%04X %s:%d]", kSrc, __LINE__,
             owner->c_str(), id, KELCErrGet(), ErrFile(), KELCErrorGetLine());
      return false;
    }
  } else if (ORVASchedTaskLoad(id, &local) < 0) {
    syslog(LOG_ERR, "%s:%d load task failed. id:[%ld] [0x%04X %s:%d]", kSrc, __LINE__, id, KELCErrGet(),
           ErrFile(), KELCErrorGetLine());
    return false;
  }
  task = local;
  return true;
}

bool SaveTask(boost::optional<std::string> owner, _tag_orva_sched_task_& task) {
  long idBefore = ORVASchedTaskGetID(task);
  if (owner) {
    if (ORVASchedTaskSaveByUser(owner->c_str(), &task) < 0) {
      // Read the error before anything else can overwrite it.
      int code = KELCErrGet();
      const char* file = ErrFile();
      int line = KELCErrorGetLine();
      syslog(LOG_ERR, "%s:%d Failed to save task [%s][%ld][%ld]. [0x%04X %s:%d]", kSrc, __LINE__,
             owner->c_str(), idBefore, ORVASchedTaskGetID(task), code, file, line);
      return false;
    }
  } else if (ORVASchedTaskSave(&task) < 0) {
    int code = KELCErrGet();
    const char* file = ErrFile();
    int line = KELCErrorGetLine();
    syslog(LOG_ERR, "%s:%d Failed to save task [%ld][%ld]. [0x%04X %s:%d]", kSrc, __LINE__, idBefore,
           ORVASchedTaskGetID(task), code, file, line);
    return false;
  }
  return true;
}

bool RemoveTask(boost::optional<std::string> owner, long id) {
  if (owner) {
    if (ORVASchedTaskRemoveByUser(owner->c_str(), id) < 0) {
      syslog(LOG_ERR, "%s:%d Failed to delete task [%s][%ld]. [0x%04X %s:%d]", kSrc, __LINE__, owner->c_str(), id,
             KELCErrGet(), ErrFile(), KELCErrorGetLine());
      return false;
    }
  } else if (ORVASchedTaskRemove(id) < 0) {
    syslog(LOG_ERR, "%s:%d Failed to delete task %ld. [0x%04X %s:%d]", kSrc, __LINE__, id, KELCErrGet(), ErrFile(),
           KELCErrorGetLine());
    return false;
  }
  return true;
}

std::string GetAppKeyFromNameSpace(const std::string& nameSpace) {
  static const struct {
    const char* nameSpace;
    const char* key;
  } kAppKeys[] = {
      {"ORVA.VEK.TaskScheduler.Beep", "beep"},
      {"ORVA.VEK.TaskScheduler.Script", "script"},
      {"ORVA.VEK.TaskScheduler.Service", "service"},
      {"ORVA.VEK.TaskScheduler.Recycle", "recycle"},
      {"ORVA.VEK.DataAnalysis", "report"},
      {"ORVA.VEK.TaskScheduler.AutoPower", "power"},
      {"ORVA.VEK.TaskScheduler.ZEMAutoUpdate", "zemupdate"},
      {"ORVA.VEK.BackupApp.NetBackup", "backup"},
      {"ORVA.VEK.BackupApp.LocalBackup", "backup"},
      {"ORVA.VEK.BackupApp.LUNBackup", "backup"},
      {"ORVA.VEK.BackupApp.S3Backup", "backup"},
      {"ORVA.VEK.EventScheduler.Script", "event_script"},
  };
  for (const auto& row : kAppKeys) {
    if (nameSpace == row.nameSpace) {
      return row.key;
    }
  }
  return "custom";
}

bool GetAppTypeByID(boost::optional<std::string> owner, long id, std::string& key) {
  _tag_orva_sched_task_ task;
  memset(&task, 0, sizeof(task));
  if (!LoadTask(owner, id, task)) {
    syslog(LOG_ERR, "%s:%d Load Task failed [%s][%ld]", kSrc, __LINE__, OwnerText(owner), id);
    return false;
  }
  Json::Value json;
  if (!ORVASchedTaskConvertToJson_Basic(task, json)) {
    syslog(LOG_ERR, "%s:%d convert task to json (basic) faield. user:[%s] id:[%ld] [0x%04X %s:%d]", kSrc, __LINE__,
           OwnerText(owner), id, KELCErrGet(), ErrFile(), KELCErrorGetLine());
    return false;
  }
  std::string app;
  if (json.isObject() && json["basic"].isObject() && !json["basic"]["app"].isNull()) {
    app = json["basic"]["app"].asString();
  }
  key = GetAppKeyFromNameSpace(app);
  return true;
}

std::string EscapeShellName(std::string name) {
  size_t n = name.size() + 1;
  char* buffer = static_cast<char*>(calloc(2 * n, 1));
  if (!buffer) {
    syslog(LOG_ERR, "%s:%d malloc failed, errno=%m", kSrc, __LINE__);
    return std::string();
  }
  std::string escaped;
  if (KELCEncShParam(name.c_str(), buffer, static_cast<int>(2 * n)) < 0 || buffer[0] == '\0') {
    syslog(LOG_ERR, "%s:%d escape cmd=%s failed, errno=%m", kSrc, __LINE__, name.c_str());
  } else {
    escaped = buffer;
  }
  free(buffer);
  return escaped;
}

AppParser::AppParser(const std::string& lang)
    : lang_(lang), configParser_(lang_.c_str(), false), textParser_(), appTexts_(), sysTexts_() {
  configParser_.Parse(nullptr);
  appTexts_ = configParser_.GetTexts();
  sysTexts_ = textParser_.Texts(std::string(kWebmanDir) + "texts/" + lang_);
}

bool AppParser::IsSectionKey(const std::string& text) const {
  return !text.empty() && text.front() == '#' && text.back() == '#' && text.find(':') != std::string::npos;
}

bool AppParser::Is3rdPartyApp(const std::string& appKey) const {
  return appTexts_.isObject() && appTexts_.isMember(appKey);
}

std::string AppParser::GetString(const std::string& appKey, const std::string& text) const {
  if (!IsSectionKey(text)) {
    return text;
  }
  // Both ends are '#', so the first ':' lies strictly between them.
  size_t colon = text.find(':');
  std::string section = text.substr(1, colon - 1);
  std::string key = text.substr(colon + 1, text.size() - 1 - (colon + 1));

  std::string result;
  if (Is3rdPartyApp(appKey)) {
    // Read again on every lookup (a changed file is seen at once); an unchanged file
    // is served from the parser's cache, shared rather than copied.
    result = LookupText(*textParser_.Texts(std::string(kWebmanDir) + appTexts_[appKey].asString()), section, key);
  }
  if (result.empty()) {
    result = LookupText(*sysTexts_, section, key);
  }
  return result.empty() ? text : result;
}

}  // namespace TaskScheduler
}  // namespace Core
}  // namespace ORVA
