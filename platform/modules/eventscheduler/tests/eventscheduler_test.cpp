// ORVA.Core.EventScheduler loaded as the server loads it, on a temporary store.
#include <pwd.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "core/root.h"
#include "webapi/registry.h"
#include "webapi/webapi.h"

namespace fs = std::filesystem;

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
  void SetUp() override {
    char tmpl[] = "/tmp/orva-evsched-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = tmpl;
    setenv("ORVA_ROOT", root_.c_str(), 1);
    ORVA::ORVARootSet(root_);
  }
  void TearDown() override { fs::remove_all(root_); }

  Json::Value Call(const char* method, const Json::Value& params = Json::Value(Json::objectValue)) {
    int code = 0;
    const ORVA::APITableRow* row = ORVA::APIRegistry::Instance().Find(kApi, 1, method, &code);
    EXPECT_NE(row, nullptr) << method << " " << code;
    if (!row) return Json::Value();
    ORVA::APIRequest req(kApi, 1, method, params, "admin", "en");
    return ORVA::APIRegistry::Instance().Call(*row, req);
  }
  Json::Value Valid() {
    Json::Value p;
    p["task_name"] = "warm up";
    p["owner"] = "root";
    p["enable"] = true;
    p["event"] = "bootup";
    p["script"] = "echo 'boot' > /tmp/x\necho done";
    return p;
  }
  long Create(const Json::Value& p) {
    const Json::Value r = Call("create", p);
    EXPECT_TRUE(r["success"].asBool()) << r.toStyledString();
    return r["data"]["id"].asInt64();
  }

  std::string root_;
};

TEST_F(EventSchedulerTest, ListIsWhatTheTaskListMerges) {
  Json::Value r = Call("list");
  ASSERT_TRUE(r["success"].asBool());
  EXPECT_EQ(r["data"], Json::Value(Json::arrayValue));

  const long a = Create(Valid());
  Json::Value p = Valid();
  p["task_name"] = "flush";
  p["owner"] = "nobody";
  p["enable"] = false;
  p["event"] = "shutdown";
  p["script"] = "";
  const long b = Create(p);
  EXPECT_GT(a, 0);
  EXPECT_NE(a, b);

  r = Call("list");
  ASSERT_TRUE(r["success"].asBool());
  ASSERT_EQ(r["data"].size(), 2u);
  const struct passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  Json::Value want0;
  want0["id"] = static_cast<Json::Int64>(a);
  want0["task_name"] = "warm up";
  want0["owner"]["0"] = "root";
  want0["enable"] = true;
  want0["event"] = "bootup";
  want0["script"] = "echo 'boot' > /tmp/x\necho done";
  Json::Value want1;
  want1["id"] = static_cast<Json::Int64>(b);
  want1["task_name"] = "flush";
  want1["owner"][std::to_string(nobody->pw_uid)] = "nobody";
  want1["enable"] = false;
  want1["event"] = "shutdown";
  want1["script"] = "";
  EXPECT_EQ(r["data"][0], want0);
  EXPECT_EQ(r["data"][1], want1);
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
  Json::Value p;
  p["id"] = static_cast<int>(id);
  p["enable"] = false;
  p["event"] = "shutdown";
  Json::Value r = Call("set", p);
  ASSERT_TRUE(r["success"].asBool()) << r.toStyledString();
  EXPECT_EQ(r["data"]["id"].asInt64(), id);
  Json::Value listed = Call("list")["data"][0];
  EXPECT_EQ(listed["enable"], false);
  EXPECT_EQ(listed["event"], "shutdown");
  EXPECT_EQ(listed["task_name"], "warm up") << "members not given keep their value";

  const Json::Value before = Call("list")["data"];
  const std::vector<std::pair<Json::Value, int>> bad = {
      {[] { Json::Value v; v["enable"] = true; return v; }(), 6100},                 // no id
      {[&] { Json::Value v; v["id"] = std::to_string(id); return v; }(), 6100},      // id as text
      {[] { Json::Value v; v["id"] = 0; return v; }(), 6100},
      {[] { Json::Value v; v["id"] = 999999; return v; }(), 6101},
      {[&] { Json::Value v; v["id"] = static_cast<int>(id); v["event"] = "reboot"; return v; }(), 6100},
      {[&] { Json::Value v; v["id"] = static_cast<int>(id); v["owner"] = "orvat-nosuch"; return v; }(), 6102},
  };
  for (const auto& [params, code] : bad) {
    SCOPED_TRACE(params.toStyledString());
    r = Call("set", params);
    EXPECT_FALSE(r["success"].asBool());
    EXPECT_EQ(r["error"]["code"].asInt(), code);
  }
  EXPECT_EQ(Call("list")["data"], before) << "a refused set changes nothing";

  p = Json::Value();
  p["id"] = static_cast<int>(id);
  r = Call("delete", p);
  EXPECT_TRUE(r["success"].asBool()) << r.toStyledString();
  EXPECT_EQ(Call("list")["data"].size(), 0u);
  r = Call("delete", p);
  EXPECT_EQ(r["error"]["code"].asInt(), 6101);
  r = Call("delete", Json::Value(Json::objectValue));
  EXPECT_EQ(r["error"]["code"].asInt(), 6100);
}

}  // namespace
