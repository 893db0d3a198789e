// Shared layer of the task scheduler module: store access on behalf of the system or a
// user, app keys, shell words and the UI text parser of one request.
#pragma once

#include <json/json.h>

#include <boost/optional.hpp>
#include <memory>
#include <string>

#include "core/vek_parser.h"
#include "scheduler/record.h"
#include "webapi/webapi.h"

namespace ORVA {
namespace Core {
namespace TaskScheduler {

// Owner of a store call: absent acts as the system, present on behalf of that user.
typedef boost::optional<std::string> Owner;

// "real_owner" of a parameter object: its text when a non-empty string, else absent.
boost::optional<std::string> GetRealOwner(const Json::Value& param);
// The request's optional string parameter "real_owner", absent when missing or empty.
boost::optional<std::string> GetRealOwner(ORVA::APIRequest& request);

// Store layer. Each returns false after one syslog line; on failure the caller's record
// is left as it was.
bool InitTask(boost::optional<std::string> owner, _tag_orva_sched_task_& task);
bool LoadTask(boost::optional<std::string> owner, long id, _tag_orva_sched_task_& task);
bool SaveTask(boost::optional<std::string> owner, _tag_orva_sched_task_& task);
bool RemoveTask(boost::optional<std::string> owner, long id);

// App namespace ("ORVA.VEK.TaskScheduler.Beep") to app key ("beep"); unknown is "custom".
std::string GetAppKeyFromNameSpace(const std::string& nameSpace);
// App key of stored task `id`; `key` is untouched on failure.
bool GetAppTypeByID(boost::optional<std::string> owner, long id, std::string& key);

// One shell word equal to `name`, or "" on failure (logged).
std::string EscapeShellName(std::string name);

// UI texts of one language: the system texts and the texts of apps that bring their own.
class AppParser {
 public:
  explicit AppParser(const std::string& lang);

  // "#section:key#"-shaped: starts and ends with '#' and holds a ':'.
  bool IsSectionKey(const std::string& text) const;
  // The app brings texts of its own.
  bool Is3rdPartyApp(const std::string& appKey) const;
  // Translation of a "#section:key#" text for the app, or `text` itself.
  std::string GetString(const std::string& appKey, const std::string& text) const;

 private:
  std::string lang_;
  ORVA::VEK::JSConfigParser configParser_;
  mutable ORVA::VEK::LocalizedStringParser textParser_;
  Json::Value appTexts_;  // app namespace -> text folder relative to the webman folder
  std::shared_ptr<const Json::Value> sysTexts_;  // section -> key -> text
};

}  // namespace TaskScheduler
}  // namespace Core
}  // namespace ORVA
