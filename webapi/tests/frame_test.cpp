// The module frame: method table, exported symbols, dispatch, the one reply and "view".
#include <dlfcn.h>

#include <functional>
#include <set>
#include <sstream>

#include "ORVA.Core.TaskScheduler.h"
#include "scheduler/run.h"
#include "test_support.h"

using namespace orvatest;

namespace {

const std::pair<int, const char*> kRows[] = {
    {1, "list"}, {2, "list"}, {1, "set_enable"}, {2, "set_enable"}, {1, "delete"}, {2, "delete"},
    {1, "run"},  {2, "run"},  {1, "get"},        {2, "get"},        {3, "get"},    {1, "set"},
    {2, "set"},  {3, "set"},  {1, "create"},     {2, "create"},     {3, "create"}, {1, "view"},
};

void ExpectTable(const ORVA::APITableRow* table) {
  ASSERT_NE(table, nullptr);
  for (size_t i = 0; i < std::size(kRows); ++i) {
    SCOPED_TRACE(i);
    ASSERT_NE(table[i].api, nullptr);
    EXPECT_STREQ(table[i].api, "ORVA.Core.TaskScheduler");
    EXPECT_EQ(table[i].version, kRows[i].first);
    EXPECT_STREQ(table[i].method, kRows[i].second);
    EXPECT_NE(table[i].func, nullptr);
  }
  const ORVA::APITableRow& end = table[std::size(kRows)];
  EXPECT_TRUE(!end.api && !end.version && !end.method && !end.func);
}

const std::string kModule = std::string(ORVA_BUILD_DIR) + "/lib/webapi/ORVA.Core.TaskScheduler.so";

TEST(ModuleTable, LoadedModuleServesEighteenRowsThenTheZeroRow) {
  ExpectTable(gTable);
  void* handle = dlopen(kModule.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  auto get = reinterpret_cast<ORVA_GET_API_TABLE>(dlsym(handle, "GetAPITable"));
  ASSERT_NE(get, nullptr);
  EXPECT_EQ(static_cast<const void*>(get()), dlsym(handle, "gTable"));
  ExpectTable(get());
  EXPECT_EQ(dlsym(handle, "TaskSchedulerList_v2"), nullptr);
  dlclose(handle);
}

TEST(ModuleTable, ExportsOnlyTheTable) {
  TempRoot dir;
  const Result nm = Spawn({"/usr/bin/nm", "-D", "--defined-only", kModule}, dir.path());
  ASSERT_EQ(nm.status, 0) << nm.err;
  std::set<std::string> names;
  std::istringstream lines(nm.out);
  for (std::string line; std::getline(lines, line);) names.insert(line.substr(line.rfind(' ') + 1));
  EXPECT_EQ(names, (std::set<std::string>{"GetAPITable", "gTable"}));
}

// A handler built directly, to check dispatch and error reporting.
struct Handler {
  ORVA::APIRequest request{"ORVA.Core.TaskScheduler", 1, "x", Json::Value(Json::objectValue), "admin", "en"};
  ORVA::APIResponse response;
  TaskSchedulerHandler handler{&request, &response, 0, "", Json::Value(),
                               new ORVA::Core::TaskScheduler::AppParser("en")};
};

TEST(ModuleFrame, DispatchOfUnknownMisplacedAndEmptyMethods) {
  ModuleRoot root;
  const struct {
    int version;
    const char* method;  // null: no method at all
    int replies;         // an empty method writes no reply; the rest code 0 with null data
  } cases[] = {{1, "bogus", 1}, {1, "List", 1}, {2, "view", 1}, {2, "get", 1}, {1, "list ", 1},
               {1, nullptr, 0}, {1, "", 0},     {2, "", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.version) + (c.method ? c.method : "(null)"));
    Handler h;
    c.version == 1 ? h.handler.Process_v1(c.method) : h.handler.Process_v2(c.method);
    const Reply r = ReplyOf(h.response);
    EXPECT_TRUE(r.replies == c.replies &&
                (!r.replies || (!r.success && r.envelope["error"]["code"] == 0 && r.data.isNull()))) << r.envelope;
  }
}

TEST(ModuleFrame, FirstErrorWinsAndDataCombines) {
  ModuleRoot root;
  const Json::Value extra = Parse(R"({"where": "x"})");
  const struct { std::function<void(TaskSchedulerHandler&)> steps; int code; const char* data; } cases[] = {
      {[](TaskSchedulerHandler& h) { h.SetError(4801, "first"); h.SetError(117, "second"); }, 4801,
       R"({"msg":"first"})"},
      {[&](TaskSchedulerHandler& h) { h.SetError(4800, "one"); h.SetError(117, "two", extra); }, 4800,
       R"({"msg":"one"})"},
      {[&](TaskSchedulerHandler& h) { h.SetError(117, "m", extra); h.SetError(4800, "n"); }, 117,
       R"({"msg":"m","where":"x"})"},
      {[&](TaskSchedulerHandler& h) { h.SetError(4802, "", extra); }, 4802, R"({"where":"x"})"},
      {[](TaskSchedulerHandler&) {}, 0, "null"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.data);
    Handler h;
    c.steps(h.handler);
    h.handler.ReportError();
    const Reply r = ReplyOf(h.response);
    EXPECT_TRUE(r.replies == 1 && r.envelope["error"]["code"] == c.code && r.data == Parse(c.data)) << r.envelope;
  }
}

TEST(ModuleFrame, ViewAnswersTheStoresRunStatus) {
  ModuleRoot root;
  const long id = AddTask({});
  ASSERT_GT(id, 0);
  // code (0: success); log: the one line logged
  const struct { std::string params; int code; const char* log; } cases[] = {
      {"{}", 4800, "main:302 Invalid paramters."}, {R"({"id": "12"})", 4800, "main:302 Invalid paramters."},
      {R"({"id": 1.5})", 4800, "main:302 Invalid paramters."},
      {R"({"id": true})", 4800, "main:302 Invalid paramters."},
      {R"({"id": null})", 4800, "main:302 Invalid paramters."},
      {R"({"id": 424242})", 117, "ORVA.Core.TaskScheduler:652 get run status failed [0x"}, {IdParams(id), 0, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.params);
    ClearLogs();
    const Reply r = Call(1, "view", c.params);
    if (c.code == 0) {
      Json::Value status;
      ASSERT_GE(ORVASchedTaskGetRunStatus(static_cast<int>(id), status), 0);
      EXPECT_TRUE(r.success && r.replies == 1 && r.data == status) << r.envelope;
      continue;
    }
    ExpectReply(r, c.code, c.code == 117 ? "get run status failed" : "");
    // The entry's refusal logs exactly one line and calls nothing else.
    if (c.code == 4800) { EXPECT_EQ(LogCount(), 1u); }
    const std::string line = ExpectOneLog(c.log, LOG_ERR);
    EXPECT_TRUE(c.code == 4800 ? line == c.log : line.starts_with(c.log)) << line;
  }
}

}  // namespace
