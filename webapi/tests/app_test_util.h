// Helpers of the get/set/create and app kind tests: task objects as the UI sends them,
// stored records, calls through the server's registry (which turns a throwing module
// into error 100) and handlers built directly around a request.
#pragma once

#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>

#include "ORVA.Core.TaskScheduler.Basic.h"
#include "lib.h"
#include "scheduler/task.h"
#include "test_support.h"
#include "webapi/registry.h"

namespace apptest {

inline Json::Value Parse(const std::string& text) {
  Json::Value v;
  Json::CharReaderBuilder b;
  std::string errs;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  if (!r->parse(text.data(), text.data() + text.size(), &v, &errs)) {
    ADD_FAILURE() << "bad test JSON: " << text << ": " << errs;
  }
  return v;
}

// A task object of a create or set request, as the edit dialog sends it.
inline Json::Value TaskObject(const std::string& type, const Json::Value& extra, const std::string& name = "t1") {
  Json::Value task;
  task["type"] = type;
  task["name"] = name;
  task["owner"] = "root";
  task["enable"] = true;
  task["schedule"]["repeat_date"] = "daily";
  task["schedule"]["hour"] = 3;
  task["schedule"]["minute"] = 30;
  if (!extra.isNull()) {
    task["extra"] = extra;
  }
  return task;
}

// The stored record of `id` (fails the test when it cannot be loaded).
inline _tag_orva_sched_task_ Record(long id) {
  _tag_orva_sched_task_ record;
  memset(&record, 0, sizeof(record));
  EXPECT_GE(ORVASchedTaskLoad(id, &record), 0) << "task " << id;
  return record;
}

// Creates a task through "create" version 2; returns its id or -1.
inline long Create(const std::string& type, const Json::Value& extra, int version = 2) {
  tstest::Reply reply = tstest::Call(version, "create", TaskObject(type, extra));
  EXPECT_TRUE(reply.success) << reply.envelope.toStyledString();
  if (!reply.success || !reply.data["id"].isIntegral()) {
    return -1;
  }
  return static_cast<long>(reply.data["id"].asInt64());
}

// Calls through the registry as the server does: the reply envelope, with a module that
// throws answered by error 100.
inline Json::Value ServerCall(int version, const std::string& method, const Json::Value& params) {
  const ORVA::APITableRow* row = tstest::FindRow(version, method);
  if (!row) {
    ADD_FAILURE() << "no row " << method;
    return Json::Value();
  }
  ORVA::APIRequest request("ORVA.Core.TaskScheduler", version, method, params, "admin", "en");
  return ORVA::APIRegistry::Instance().Call(*row, request);
}

// A handler of kind H around a request with `params`, for calling its operations directly.
template <typename H>
struct Direct {
  explicit Direct(const Json::Value& params = Json::Value(Json::objectValue), int version = 2,
                  const char* method = "set", boost::optional<std::string> owner = boost::none)
      : request("ORVA.Core.TaskScheduler", version, method, params, "admin", "en"),
        handler(&request, &response, std::move(owner)) {}
  ORVA::APIRequest request;
  ORVA::APIResponse response;
  H handler;
};

// A fresh record as the store gives it.
inline _tag_orva_sched_task_ FreshRecord() {
  _tag_orva_sched_task_ record;
  memset(&record, 0, sizeof(record));
  EXPECT_TRUE(ORVA::Core::TaskScheduler::InitTask(boost::none, record));
  return record;
}

}  // namespace apptest
