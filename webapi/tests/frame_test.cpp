// The module frame: method table, exported symbols, dispatch and the one reply.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <functional>
#include <set>
#include <string>

#include "ORVA.Core.TaskScheduler.h"
#include "test_support.h"

namespace {

using tstest::Call;

struct Row {
  int version;
  const char* method;
};

const Row kExpectedRows[] = {
    {1, "list"},   {2, "list"},   {1, "set_enable"}, {2, "set_enable"}, {1, "delete"}, {2, "delete"},
    {1, "run"},    {2, "run"},    {1, "get"},        {2, "get"},        {3, "get"},    {1, "set"},
    {2, "set"},    {3, "set"},    {1, "create"},     {2, "create"},     {3, "create"}, {1, "view"},
};

void ExpectTable(const ORVA::APITableRow* table) {
  ASSERT_NE(table, nullptr);
  for (size_t i = 0; i < std::size(kExpectedRows); ++i) {
    SCOPED_TRACE(i);
    ASSERT_NE(table[i].api, nullptr);
    EXPECT_STREQ(table[i].api, "ORVA.Core.TaskScheduler");
    EXPECT_EQ(table[i].version, kExpectedRows[i].version);
    EXPECT_STREQ(table[i].method, kExpectedRows[i].method);
    EXPECT_NE(table[i].func, nullptr);
  }
  const ORVA::APITableRow& end = table[std::size(kExpectedRows)];
  EXPECT_EQ(end.api, nullptr);
  EXPECT_EQ(end.version, 0);
  EXPECT_EQ(end.method, nullptr);
  EXPECT_EQ(end.func, nullptr);
}

std::string ModulePath() { return std::string(ORVA_BUILD_DIR) + "/lib/webapi/ORVA.Core.TaskScheduler.so"; }

TEST(ModuleTable, EighteenRowsInOrderThenZeroRow) { ExpectTable(gTable); }

TEST(ModuleTable, LoadedModuleServesTheSameTable) {
  void* handle = dlopen(ModulePath().c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  auto get = reinterpret_cast<ORVA_GET_API_TABLE>(dlsym(handle, "GetAPITable"));
  ASSERT_NE(get, nullptr);
  void* table = dlsym(handle, "gTable");
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(static_cast<const void*>(get()), table);
  ExpectTable(get());
  // Entry functions are not reachable by name.
  EXPECT_EQ(dlsym(handle, "TaskSchedulerList_v2"), nullptr);
  EXPECT_EQ(dlsym(handle, "_Z20TaskSchedulerList_v2PN4ORVA10APIRequestEPNS_11APIResponseE"), nullptr);
  dlclose(handle);
}

TEST(ModuleTable, ExportsOnlyTheTable) {
  std::string cmd = "nm -D --defined-only " + ModulePath();
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::set<std::string> names;
  char line[1024];
  while (fgets(line, sizeof(line), p)) {
    std::string s(line);
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    size_t sp = s.rfind(' ');
    names.insert(sp == std::string::npos ? s : s.substr(sp + 1));
  }
  ASSERT_EQ(pclose(p), 0);
  EXPECT_EQ(names, (std::set<std::string>{"GetAPITable", "gTable"}));
}

// A handler built directly, to check dispatch and error reporting.
struct Handler {
  ORVA::APIRequest request;
  ORVA::APIResponse response;
  TaskSchedulerHandler handler;
  explicit Handler(const Json::Value& params = Json::Value(Json::objectValue))
      : request("ORVA.Core.TaskScheduler", 1, "x", params, "admin", "en"),
        response(),
        handler(&request, &response, 0, "", Json::Value(), new ORVA::Core::TaskScheduler::AppParser("en")) {}
};

TEST(HandlerDispatch, UnknownOrMisplacedMethodsReportCodeZero) {
  tstest::TempRoot root;
  struct Case {
    int version;
    const char* method;
  } cases[] = {{1, "bogus"}, {1, "List"}, {2, "view"}, {2, "get"}, {1, "list "}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method);
    Handler h;
    if (c.version == 1) {
      h.handler.Process_v1(c.method);
    } else {
      h.handler.Process_v2(c.method);
    }
    EXPECT_EQ(h.response.GetReplyCount(), 1);
    EXPECT_FALSE(h.response.IsSuccess());
    EXPECT_EQ(h.response.GetErrorCode(), 0);
    EXPECT_TRUE(h.response.GetData().isNull());
  }
}

TEST(HandlerDispatch, EmptyMethodWritesNoReply) {
  tstest::TempRoot root;
  Handler a;
  a.handler.Process_v1(nullptr);
  EXPECT_EQ(a.response.GetReplyCount(), 0);
  Handler b;
  b.handler.Process_v1("");
  EXPECT_EQ(b.response.GetReplyCount(), 0);
  Handler c;
  c.handler.Process_v2("");
  EXPECT_EQ(c.response.GetReplyCount(), 0);
}

TEST(ErrorReporting, FirstErrorWinsAndDataCombines) {
  tstest::TempRoot root;
  Json::Value extra;
  extra["where"] = "x";
  struct Case {
    const char* name;
    std::function<void(TaskSchedulerHandler&)> steps;
    int code;
    const char* expected;  // JSON of the reply data
  } cases[] = {
      {"two plain errors", [](TaskSchedulerHandler& h) { h.SetError(4801, "first"); h.SetError(117, "second"); },
       4801, R"({"msg":"first"})"},
      {"data after plain", [&](TaskSchedulerHandler& h) { h.SetError(4800, "one"); h.SetError(117, "two", extra); },
       4800, R"({"msg":"one"})"},
      {"data first", [&](TaskSchedulerHandler& h) { h.SetError(117, "m", extra); h.SetError(4800, "n"); }, 117,
       R"({"msg":"m","where":"x"})"},
      {"data without message", [&](TaskSchedulerHandler& h) { h.SetError(4802, "", extra); }, 4802,
       R"({"where":"x"})"},
      {"nothing recorded", [](TaskSchedulerHandler&) {}, 0, "null"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Handler h;
    c.steps(h.handler);
    h.handler.ReportError();
    EXPECT_EQ(h.response.GetReplyCount(), 1);
    EXPECT_EQ(h.response.GetErrorCode(), c.code);
    Json::Value want;
    Json::Reader().parse(c.expected, want);
    EXPECT_EQ(h.response.GetData(), want) << h.response.GetData().toStyledString();
  }
}

TEST(ViewEntry, MissingOrNonIntegerIdIs4800WithNullDataAndOneLogLine) {
  tstest::TempRoot root;
  const char* params[] = {R"({})", R"({"id":"12"})", R"({"id":1.5})", R"({"id":true})", R"({"id":null})"};
  for (const char* text : params) {
    SCOPED_TRACE(text);
    Json::Value p;
    Json::Reader().parse(text, p);
    tstest::ClearLogs();
    tstest::Reply r = Call(1, "view", p);
    EXPECT_EQ(r.replies, 1);
    EXPECT_FALSE(r.success);
    EXPECT_EQ(r.code, 4800);
    EXPECT_TRUE(r.data.isNull());
    auto logs = tstest::Logs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].text, "main:302 Invalid paramters.");
    EXPECT_EQ(logs[0].priority, LOG_ERR);
  }
}

TEST(ViewEntry, UnknownTaskReaches117FromTheHandler) {
  tstest::TempRoot root;
  Json::Value p;
  p["id"] = 424242;
  tstest::Reply r = Call(1, "view", p);
  EXPECT_EQ(r.code, 117);
  EXPECT_EQ(r.data["msg"], "get run status failed");
  EXPECT_EQ(tstest::LogsWith("ORVA.Core.TaskScheduler:652 get run status failed [0x").size(), 1u);
}

TEST(ViewEntry, StoredTaskGivesTheStoresRunStatus) {
  tstest::TempRoot root;
  long id = tstest::AddTask({});
  ASSERT_GT(id, 0);
  Json::Value p;
  p["id"] = static_cast<int>(id);
  tstest::Reply r = Call(1, "view", p);
  ASSERT_TRUE(r.success) << r.envelope;
  Json::Value status;
  ASSERT_GE(ORVASchedTaskGetRunStatus(static_cast<int>(id), status), 0);
  EXPECT_EQ(r.data, status);
  EXPECT_FALSE(r.data["running"].asBool());
}

}  // namespace
