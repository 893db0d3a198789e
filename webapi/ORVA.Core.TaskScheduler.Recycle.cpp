// Recycle-bin task: the orvarecycle command line and action text built from the flat
// app object, the reshaping between that object and the UI's form, and switching the
// recycle bins on when a task is saved with "enableRecycle".
#include "ORVA.Core.TaskScheduler.Recycle.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/kelc.h"
#include "core/share.h"
#include "lib.h"
#include "recycle/recycle.h"

using ORVA::Core::TaskScheduler::EscapeShellName;

namespace {

const char kSrc[] = "ORVA.Core.TaskScheduler.Recycle";
// Characters that may not appear in a kept file extension.
const char kForbiddenExtChars[] = "^.\\?/:*`$\"><| ";
const char kSortLargeFirst[] = "Delete large files first";
const char kSortOldFirst[] = "Delete old files first";

// The flat object in a log line, on one line.
std::string AppText(const Json::Value& app) {
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  return writer.write(app);
}

// A number of MB as the decimal text of its bytes. The count is read as a 32-bit number,
// so a negative count prints as a large unsigned value, as orvarecycle expects.
std::string MBToBytes(const std::string& mb) {
  int32_t n = static_cast<int32_t>(strtol(mb.c_str(), nullptr, 10));
  int64_t bytes = static_cast<int64_t>(n) * 1048576;
  std::vector<char> buf(4096, '\0');
  snprintf(buf.data(), buf.size(), "%llu", static_cast<unsigned long long>(bytes));
  return std::string(buf.data());
}

int TextToInt(const Json::Value& value) { return static_cast<int>(strtol(value.asString().c_str(), nullptr, 10)); }

// One file exception of the form: its check key and value key in the UI and in
// "advconfig". Sizes are MB numbers in the UI and decimal texts when flat; the
// extension list is the same array in both.
struct Reserve {
  const char* uiCheck;
  const char* flatCheck;
  const char* uiValue;
  const char* flatValue;
  bool isList;
};

const Reserve kReserves[] = {
    {"size_greater_check", "reserve_policy_size_greater_check", "size_greater", "reserve_policy_size_greater", false},
    {"size_smaller_check", "reserve_policy_size_smaller_check", "size_smaller", "reserve_policy_size_smaller", false},
    {"extension_check", "reserve_policy_extension_check", "extension", "reserve_policy_extension", true},
};

// The names of the shared folders, and "home" (the users' home folders).
std::vector<std::string> KnownShares() {
  std::vector<std::string> names = {"home"};
  PKELC_SZLIST list = KELCSzListAlloc(100);
  if (list && ORVAShareEnum(&list, 0x7F0F) >= 0) {
    for (int i = 0; i < KELCSzListCount(list); ++i) {
      names.push_back(KELCSzListGet(list, i));
    }
  } else {
    syslog(LOG_ERR, "%s:%d enum share failed", kSrc, __LINE__);
  }
  KELCSzListFree(list);
  return names;
}

}  // namespace

bool TaskSchedulerRecycleHandler::ConvertToJson_App(const _tag_orva_sched_task_& task, Json::Value& json) {
  Json::Value app;
  if (ORVASchedTaskIsNew(task)) {
    app["recycle_action"] = "2";
    app["clean_all"] = "yes";
  } else {
    TaskSchedulerReadAppArgs(ORVASchedTaskGetAppArgs(task), app);
  }
  json["app"] = app;
  return true;
}

bool TaskSchedulerRecycleHandler::ConvertFromJson_App(const Json::Value& json, _tag_orva_sched_task_& task) {
  Json::Value copy = json;
  std::vector<std::string> args;
  std::string command = "/usr/orva/bin/orvarecycle";
  std::string action;
  Json::Value shares(Json::arrayValue);
  Json::Value enable;

  ORVASchedCTaskSetEditForm(&task, "ORVA.VEK.TaskScheduler.Recycle.FormPanel");
  ORVASchedCTaskSetSimpleEditForm(&task, true);
  ORVASchedCTaskSetCanEditName(&task, true);
  ORVASchedCTaskSetCanEditOwner(&task, false);
  ORVASchedCTaskSetCanRunAppSameTime(&task, true);
  ORVASchedCTaskSetListable(&task, true);
  ORVASchedCTaskSetApp(&task, "ORVA.VEK.TaskScheduler.Recycle");
  ORVASchedCTaskSetAppName(&task, "#share:recycle_bin#");

  Json::Value& app = copy["app"];
  if (app.isMember("enableRecycle")) {
    enable = app["enableRecycle"];
    app.removeMember("enableRecycle");
  }
  ORVASchedCTaskSetAppArgs(&task, TaskSchedulerWriteAppArgs(app).c_str());
  const std::string appText = AppText(app);

  const std::string recycleAction = app["recycle_action"].asString();
  if (recycleAction == "0") {
    action = "#share:share_disable_recycle_bin#:";
    args.push_back("--disable");
  } else if (recycleAction == "1") {
    action = "#share:share_enable_recycle_bin#:";
    args.push_back("--enable");
  } else if (recycleAction == "2") {
    action = "#schedule:clean_recycle_bin#:";
    args.push_back("--clean");
  } else {
    syslog(LOG_ERR, "%s:%d error recycle_action, json app=%s", kSrc, __LINE__, appText.c_str());
    return false;
  }

  if (app["clean_all"].asString() != "no") {
    action = "#share:share_clean_all_recycle_bin#";
  } else {
    const Json::Value& selected = app["selected_shares"];
    if (!selected.isArray() || selected.size() == 0) {
      syslog(LOG_ERR, "%s:%d error selected_shares, json app=%s", kSrc, __LINE__, appText.c_str());
      if (!selected.isArray() && !selected.isNull()) {
        SetError(4800, "invalid (app) object");
      }
      return false;
    }
    // A name that is not a share could vanish from the command line (leaving "all
    // shares"), and one that begins with "-" would read as an option: neither passes.
    const std::vector<std::string> known = KnownShares();
    for (Json::ArrayIndex i = 0; i < selected.size(); ++i) {
      const std::string name = selected[i].isString() ? selected[i].asString() : std::string();
      if (std::find(known.begin(), known.end(), name) == known.end() || EscapeShellName(name).empty() ||
          name[0] == '-') {
        syslog(LOG_ERR, "%s:%d error selected_shares, not a shared folder, json app=%s", kSrc, __LINE__,
               appText.c_str());
        SetError(4800, "invalid (app) object");
        return false;
      }
      action += " \"" + name + "\"";
      args.push_back(name);
    }
    shares = selected;
  }

  if (recycleAction == "2") {
    const std::string policy = app["clean_policy"].asString();
    if (policy == "clean_policy_by_time") {
      args.push_back("-t");
      args.push_back(app["clean_policy_by_time_day"].asString());
    } else if (policy == "clean_policy_by_size") {
      args.push_back("-s");
      args.push_back(MBToBytes(app["clean_policy_by_size_MB_number"].asString()));
      args.push_back("-o");
      args.push_back(app["clean_policy_by_size_sort_type"].asString() == kSortLargeFirst ? "2" : "1");
    }

    Json::Value& adv = app["advconfig"];
    if (adv["reserve_policy_extension_check"].asString() == "on") {
      const Json::Value& exts = adv["reserve_policy_extension"];
      std::string extArg;
      for (Json::ArrayIndex i = 0; exts.isArray() && i < exts.size(); ++i) {
        extArg += (i == 0) ? "-file_ext=" : ".";
        // Only an object (or null) entry with a scalar "file_ext" has an extension to read.
        const Json::Value& entry = exts[i];
        const bool scalar = (entry.isObject() || entry.isNull()) && !entry["file_ext"].isArray() &&
                            !entry["file_ext"].isObject();
        const std::string ext = scalar ? entry["file_ext"].asString() : AppText(entry);
        if (!scalar || ext.find_first_of(kForbiddenExtChars) != std::string::npos) {
          syslog(LOG_ERR, "%s:%d Invalid file extension arguments [%s]", kSrc, __LINE__, ext.c_str());
          syslog(LOG_ERR, "%s:%d Failed to check clean policy, json app=%s", kSrc, __LINE__, appText.c_str());
          SetError(4800, "invalid (app) object");
          return false;
        }
        extArg += ext;
      }
      if (!extArg.empty()) {
        args.push_back(extArg);
      }
    }
    if (adv["reserve_policy_size_greater_check"].asString() == "on") {
      args.push_back("-m");
      args.push_back(MBToBytes(adv["reserve_policy_size_greater"].asString()));
    }
    if (adv["reserve_policy_size_smaller_check"].asString() == "on") {
      args.push_back("-l");
      args.push_back(MBToBytes(adv["reserve_policy_size_smaller"].asString()));
    }
  }

  for (const std::string& arg : args) {
    command += " " + EscapeShellName(arg);
  }
  ORVASchedCTaskSetAction(&task, action.c_str());
  ORVASchedCTaskSetCommand(&task, command.c_str());

  if (!enable.isNull()) {
    // Bins are switched on when the task is saved; a share that fails does not fail the set.
    EnableRecycleBin(shares, enable);
  }
  return true;
}

bool TaskSchedulerRecycleHandler::ReConstructJsonGet_App(Json::Value& app) {
  Json::Value& sharePolicy = app["clean_share_policy"];
  sharePolicy["clean_all"] = app["clean_all"].asString() == "yes";
  sharePolicy["shares"] = app["selected_shares"];

  Json::Value& filePolicy = app["clean_file_policy"];
  const std::string policy = app["clean_policy"].asString();
  if (policy == "clean_policy_by_size") {
    filePolicy["policy"] = "size";
    filePolicy["size"] = TextToInt(app["clean_policy_by_size_MB_number"]);
    filePolicy["sort_type"] = app["clean_policy_by_size_sort_type"].asString() == kSortLargeFirst ? 0 : 1;
  } else if (policy == "clean_policy_by_time") {
    filePolicy["policy"] = "time";
    filePolicy["time"] = TextToInt(app["clean_policy_by_time_day"]);
  } else {
    filePolicy["policy"] = "clean_all";
  }

  Json::Value& adv = app["advconfig"];
  Json::Value& reserve = filePolicy["reserve_policy"];
  for (const Reserve& r : kReserves) {
    if (!adv.isMember(r.flatCheck)) {
      reserve[r.uiCheck] = false;
      continue;
    }
    const bool on = adv[r.flatCheck].asString() == "on";
    reserve[r.uiCheck] = on;
    if (on) {
      if (r.isList) {
        reserve[r.uiValue] = adv[r.flatValue];
      } else {
        reserve[r.uiValue] = TextToInt(adv[r.flatValue]);
      }
    }
  }

  static const char* const kFlatKeys[] = {"clean_all",
                                          "selected_shares",
                                          "clean_policy",
                                          "recycle_action",
                                          "clean_policy_by_size_MB_number",
                                          "clean_policy_by_time_day",
                                          "clean_policy_by_size_sort_type",
                                          "advconfig"};
  for (const char* key : kFlatKeys) {
    app.removeMember(key);
  }
  return true;
}

bool TaskSchedulerRecycleHandler::ReConstructJsonSet_App(Json::Value& app) {
  Json::Value orig;
  if (!GetOriginAppObj(orig)) {
    return false;
  }
  if (app.isMember("enableRecycle")) {
    orig["enableRecycle"] = app["enableRecycle"];
  }

  const Json::Value& sharePolicy = app["clean_share_policy"];
  if (sharePolicy.isObject()) {
    if (sharePolicy["shares"].isArray()) {
      orig["selected_shares"] = sharePolicy["shares"];
    }
    if (sharePolicy["clean_all"].isBool()) {
      orig["clean_all"] = sharePolicy["clean_all"].asBool() ? "yes" : "no";
    }
  }

  const Json::Value& filePolicy = app["clean_file_policy"];
  if (filePolicy.isObject()) {
    const Json::Value& policy = filePolicy["policy"];
    if (policy.isString()) {
      if (policy.asString() == "size") {
        orig["clean_policy"] = "clean_policy_by_size";
        if (filePolicy["size"].isInt()) {
          orig["clean_policy_by_size_MB_number"] = std::to_string(filePolicy["size"].asInt());
        }
        if (filePolicy["sort_type"].isInt()) {
          orig["clean_policy_by_size_sort_type"] = filePolicy["sort_type"].asInt() == 1 ? kSortOldFirst : kSortLargeFirst;
        }
      } else if (policy.asString() == "time") {
        orig["clean_policy"] = "clean_policy_by_time";
        if (filePolicy["time"].isInt()) {
          orig["clean_policy_by_time_day"] = std::to_string(filePolicy["time"].asInt());
        }
      } else {
        orig["clean_policy"] = "clean_policy_default";
      }
    }

    const Json::Value& reserve = filePolicy["reserve_policy"];
    if (reserve.isObject()) {
      for (const Reserve& r : kReserves) {
        const Json::Value& check = reserve[r.uiCheck];
        if (!check.isBool()) {
          continue;
        }
        orig["advconfig"][r.flatCheck] = check.asBool() ? "on" : "off";
        if (!check.asBool()) {
          continue;
        }
        const Json::Value& value = reserve[r.uiValue];
        if (r.isList) {
          if (value.isArray()) {
            orig["advconfig"][r.flatValue] = value;
          }
        } else if (value.isInt()) {
          orig["advconfig"][r.flatValue] = std::to_string(value.asInt());
        }
      }
    }
  }

  app = orig;
  return true;
}

bool TaskSchedulerRecycleHandler::GetAppEditOwnerValue() { return false; }

bool TaskSchedulerRecycleHandler::EnableRecycleBin(const Json::Value& shares, const Json::Value& enableRecycle) {
  std::vector<std::string> names;
  PKELC_SZLIST list = nullptr;
  const std::string mode = enableRecycle.isString() ? enableRecycle.asString() : std::string();

  if (mode == "select") {
    for (Json::ArrayIndex i = 0; i < shares.size(); ++i) {
      if (shares[i].isString()) {
        names.push_back(shares[i].asString());
      }
    }
  } else {
    list = KELCSzListAlloc(100);
    if (!list) {
      syslog(LOG_ERR, "%s:%d malloc failed", kSrc, __LINE__);
      return false;
    }
    if (ORVAShareEnum(&list, 0x7F0F) < 0) {
      syslog(LOG_ERR, "%s:%d enum share failed", kSrc, __LINE__);
      KELCSzListFree(list);
      return false;
    }
    for (int i = 0; i < KELCSzListCount(list); ++i) {
      names.push_back(KELCSzListGet(list, i));
    }
    if (mode == "all_include_home") {
      names.push_back("home");
    }
  }

  for (const std::string& name : names) {
    if (ORVARecycleStatusSet(name.c_str(), 1) < 0) {
      syslog(LOG_ERR, "%s:%d enable share=%s recycle bin failed", kSrc, __LINE__, name.c_str());
    }
  }
  if (list) {
    KELCSzListFree(list);
  }
  return true;
}
