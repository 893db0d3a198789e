// ORVA.Core.EventScheduler loaded as the server loads it, on a temporary store. The list's
// shape after create is the event end-to-end test's; here every refusal and set/delete.
#include <gtest/gtest.h>

#include <string>

#include "orvatest.h"
#include "webapi/registry.h"
#include "webapi/webapi.h"

namespace {

using orvatest::ParseJson;

const char kApi[] = "ORVA.Core.EventScheduler";

class EventSchedulerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string err;
    ASSERT_TRUE(ORVA::APIRegistry::Instance().LoadModule(
        std::string(ORVA_BUILD_DIR) + "/lib/webapi/ORVA.Core.EventScheduler.so", &err))
        << err;
  }

  Json::Value Call(const char* method, const Json::Value& params) {
    const ORVA::APITableRow* row = ORVA::APIRegistry::Instance().Find(kApi, 1, method);
    EXPECT_NE(row, nullptr) << method;
    if (!row) return Json::Value();
    ORVA::APIRequest req(kApi, 1, method, params, "admin", "en");
    return ORVA::APIRegistry::Instance().Call(*row, req);
  }
  Json::Value List() { return Call("list", Json::Value(Json::objectValue))["data"]; }
  // Each refused call answers `code` naming `param` (when given) and changes no task.
  void ExpectRefused(const char* method, const Json::Value& params, int code, const char* param = nullptr) {
    const Json::Value before = List();
    const Json::Value r = Call(method, params);
    EXPECT_FALSE(r["success"].asBool());
    EXPECT_EQ(r["error"]["code"].asInt(), code) << r.toStyledString();
    if (param) {
      EXPECT_EQ(r["error"]["param"].asString(), param);
    }
    EXPECT_FALSE(r["error"]["msg"].asString().empty());
    EXPECT_EQ(List(), before);
  }
  const Json::Value valid_ = ParseJson(R"({"task_name": "warm up", "owner": "root", "enable": true,
                                          "event": "bootup", "script": "echo 'boot' > /tmp/x\necho done"})");
  orvatest::TempRoot root_{"orva-evsched"};
};

TEST_F(EventSchedulerTest, CreateSetDeleteAndEveryRefusal) {
  const struct {
    const char* member;  // changed (or removed when value is null)
    Json::Value value;
    int code;
  } cases[] = {
      {"task_name", "", 6100},
      {"task_name", std::string(256, 'n'), 6100},
      {"task_name", std::string("a\0b", 3), 6100},
      {"task_name", 5, 6100},
      {"owner", Json::Value(), 6100},
      {"owner", 0, 6100},
      {"owner", "orvat-nosuch-user", 6102},
      {"enable", "true", 6100},
      {"event", "startup", 6100},
      {"script", std::string(4096, 's'), 6100},
      {"script", Json::Value(Json::arrayValue), 6100},
      {"id", 3, 6100},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.member) + " " + orvatest::WriteJson(c.value).substr(0, 20));
    Json::Value p = valid_;
    if (c.value.isNull()) {
      p.removeMember(c.member);
    } else {
      p[c.member] = c.value;
    }
    ExpectRefused("create", p, c.code, c.member);
  }
  EXPECT_EQ(List(), Json::Value(Json::arrayValue));

  // The limits themselves are accepted; set changes only the members given.
  Json::Value want = valid_;
  want["task_name"] = std::string(255, 'n');
  want["script"] = std::string(4095, 's');
  const Json::Value created = Call("create", want);
  ASSERT_TRUE(created["success"].asBool()) << created.toStyledString();
  const long id = created["data"]["id"].asInt64();
  const std::string sid = std::to_string(id);
  Json::Value r = Call("set", ParseJson(R"({"id": )" + sid + R"(, "enable": false, "event": "shutdown"})"));
  ASSERT_TRUE(r["success"].asBool()) << r.toStyledString();
  EXPECT_EQ(r["data"]["id"].asInt64(), id);
  want["id"] = static_cast<Json::Int64>(id), want["owner"] = ParseJson(R"({"0": "root"})");
  want["enable"] = false, want["event"] = "shutdown";
  ASSERT_EQ(List().size(), 1u);
  EXPECT_EQ(List()[0], want);

  for (const auto& [params, code] : std::vector<std::pair<std::string, int>>{
           {R"({"enable": true})", 6100},
           {R"({"id": ")" + sid + R"("})", 6100},
           {R"({"id": 0})", 6100},
           {R"({"id": 999999})", 6101},
           {R"({"id": )" + sid + R"(, "owner": "orvat-nosuch"})", 6102},
       }) {
    SCOPED_TRACE(params);
    ExpectRefused("set", ParseJson(params), code);
  }
  const Json::Value p = ParseJson(R"({"id": )" + sid + "}");
  EXPECT_TRUE(Call("delete", p)["success"].asBool());
  EXPECT_EQ(List().size(), 0u);
  ExpectRefused("delete", p, 6101);
  ExpectRefused("delete", Json::Value(Json::objectValue), 6100);
}

}  // namespace
