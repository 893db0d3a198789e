// ORVA.Core.EventScheduler loaded as the server loads it, on a temporary store.
#include <pwd.h>

#include <gtest/gtest.h>

#include <string>

#include "orvatest.h"
#include "webapi/registry.h"
#include "webapi/webapi.h"

namespace {

const char kApi[] = "ORVA.Core.EventScheduler";

class EventSchedulerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string err;
    ASSERT_TRUE(ORVA::APIRegistry::Instance().LoadModule(
        std::string(ORVA_BUILD_DIR) + "/lib/webapi/ORVA.Core.EventScheduler.so", &err))
        << err;
  }

  Json::Value Call(const char* method, const Json::Value& params = Json::Value(Json::objectValue)) {
    int code = 0;
    const ORVA::APITableRow* row = ORVA::APIRegistry::Instance().Find(kApi, 1, method, &code);
    EXPECT_NE(row, nullptr) << method << " " << code;
    if (!row) return Json::Value();
    ORVA::APIRequest req(kApi, 1, method, params, "admin", "en");
    return ORVA::APIRegistry::Instance().Call(*row, req);
  }
  static Json::Value Parse(const std::string& text) { return orvatest::ParseJson(text); }
  Json::Value Valid() {
    return Parse(R"({"task_name": "warm up", "owner": "root", "enable": true, "event": "bootup",
                    "script": "echo 'boot' > /tmp/x\necho done"})");
  }
  long Create(const Json::Value& p) {
    const Json::Value r = Call("create", p);
    EXPECT_TRUE(r["success"].asBool()) << r.toStyledString();
    return r["data"]["id"].asInt64();
  }

  orvatest::TempRoot root_{"orva-evsched"};
};

TEST_F(EventSchedulerTest, ListIsWhatTheTaskListMerges) {
  Json::Value r = Call("list");
  ASSERT_TRUE(r["success"].asBool());
  EXPECT_EQ(r["data"], Json::Value(Json::arrayValue));

  const long a = Create(Valid());
  const long b = Create(Parse(R"({"task_name": "flush", "owner": "nobody", "enable": false, "event": "shutdown",
                                  "script": ""})"));
  EXPECT_GT(a, 0);
  EXPECT_NE(a, b);

  r = Call("list");
  ASSERT_TRUE(r["success"].asBool());
  const struct passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  Json::Value want = Parse(R"([
      {"id": 0, "task_name": "warm up", "owner": {"0": "root"}, "enable": true, "event": "bootup",
       "script": "echo 'boot' > /tmp/x\necho done"},
      {"id": 0, "task_name": "flush", "owner": {}, "enable": false, "event": "shutdown", "script": ""}])");
  want[0]["id"] = static_cast<Json::Int64>(a);
  want[1]["id"] = static_cast<Json::Int64>(b);
  want[1]["owner"][std::to_string(nobody->pw_uid)] = "nobody";
  EXPECT_EQ(r["data"], want);
}

struct BadCase {
  const char* label;
  const char* member;  // changed (or removed when value is null)
  Json::Value value;
  int code;
};

TEST_F(EventSchedulerTest, CreateChecksEveryValue) {
  const std::vector<BadCase> cases = {
      {"no task_name", "task_name", Json::Value(), 6100},
      {"empty task_name", "task_name", "", 6100},
      {"task_name over 255 bytes", "task_name", std::string(256, 'n'), 6100},
      {"task_name with a NUL", "task_name", std::string("a\0b", 3), 6100},
      {"numeric task_name", "task_name", 5, 6100},
      {"no owner", "owner", Json::Value(), 6100},
      {"numeric owner", "owner", 0, 6100},
      {"unknown owner", "owner", "orvat-nosuch-user", 6102},
      {"no enable", "enable", Json::Value(), 6100},
      {"enable as text", "enable", "true", 6100},
      {"enable as number", "enable", 1, 6100},
      {"no event", "event", Json::Value(), 6100},
      {"unknown event", "event", "startup", 6100},
      {"event in capitals", "event", "BOOTUP", 6100},
      {"no script", "script", Json::Value(), 6100},
      {"script over 4095 bytes", "script", std::string(4096, 's'), 6100},
      {"script as array", "script", Json::Value(Json::arrayValue), 6100},
      {"create with an id", "id", 3, 6100},
  };
  for (const BadCase& c : cases) {
    SCOPED_TRACE(c.label);
    Json::Value p = Valid();
    if (c.value.isNull()) {
      p.removeMember(c.member);
    } else {
      p[c.member] = c.value;
    }
    const Json::Value r = Call("create", p);
    EXPECT_FALSE(r["success"].asBool());
    EXPECT_EQ(r["error"]["code"].asInt(), c.code) << r.toStyledString();
    EXPECT_EQ(r["error"]["param"].asString(), c.member);
    EXPECT_FALSE(r["error"]["msg"].asString().empty());
  }
  EXPECT_EQ(Call("list")["data"].size(), 0u) << "nothing bad was stored";

  // The limits themselves are accepted.
  Json::Value p = Valid();
  p["task_name"] = std::string(255, 'n');
  p["script"] = std::string(4095, 's');
  const long id = Create(p);
  const Json::Value listed = Call("list")["data"][0];
  EXPECT_EQ(listed["id"].asInt64(), id);
  EXPECT_EQ(listed["task_name"].asString().size(), 255u);
  EXPECT_EQ(listed["script"].asString().size(), 4095u);
}

TEST_F(EventSchedulerTest, SetAndDelete) {
  const long id = Create(Valid());
  const std::string sid = std::to_string(id);
  Json::Value r = Call("set", Parse(R"({"id": )" + sid + R"(, "enable": false, "event": "shutdown"})"));
  ASSERT_TRUE(r["success"].asBool()) << r.toStyledString();
  EXPECT_EQ(r["data"]["id"].asInt64(), id);
  // Members not given keep their value.
  Json::Value want = Valid();
  want["id"] = static_cast<Json::Int64>(id), want["owner"] = Parse(R"({"0": "root"})");
  want["enable"] = false, want["event"] = "shutdown";
  const Json::Value before = Call("list")["data"];
  ASSERT_EQ(before.size(), 1u);
  EXPECT_EQ(before[0], want);

  const std::vector<std::pair<std::string, int>> bad = {
      {R"({"enable": true})", 6100},  // no id
      {R"({"id": ")" + sid + R"("})", 6100},
      {R"({"id": 0})", 6100},
      {R"({"id": 999999})", 6101},
      {R"({"id": )" + sid + R"(, "event": "reboot"})", 6100},
      {R"({"id": )" + sid + R"(, "owner": "orvat-nosuch"})", 6102},
  };
  for (const auto& [params, code] : bad) {
    SCOPED_TRACE(params);
    r = Call("set", Parse(params));
    EXPECT_FALSE(r["success"].asBool());
    EXPECT_EQ(r["error"]["code"].asInt(), code);
  }
  EXPECT_EQ(Call("list")["data"], before) << "a refused set changes nothing";

  const Json::Value p = Parse(R"({"id": )" + sid + "}");
  EXPECT_TRUE(Call("delete", p)["success"].asBool());
  EXPECT_EQ(Call("list")["data"].size(), 0u);
  EXPECT_EQ(Call("delete", p)["error"]["code"].asInt(), 6101);
  EXPECT_EQ(Call("delete", Json::Value(Json::objectValue))["error"]["code"].asInt(), 6100);
}

}  // namespace
