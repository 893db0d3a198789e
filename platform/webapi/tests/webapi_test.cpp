// The framework without any HTTP: parameters, typed readers, reply envelopes, and the
// registry (lookup codes, guarded calls, in-process calls, descriptors, module loading).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <vector>

#include "webapi/registry.h"
#include "webapi/webapi.h"
#include "orvatest.h"

namespace {

using orvatest::ParseJson;

ORVA::APIRequest Req(const std::string& params) {
  return ORVA::APIRequest("ORVA.Test", 1, "m", ParseJson(params), "alice", "en");
}

// Each JSON type against each reader: only the reader of its own type takes it.
TEST(WebapiTypedReaders, EachReaderAcceptsOnlyItsOwnType) {
  struct Case {
    const char* json;
    bool intOk = false, stringOk = false, arrayOk = false;
  };
  const Case cases[] = {
      {"7", true}, {"-2147483648", true}, {"2147483647", true},
      // Beyond int; stored unsigned by JsonCpp; a real, even if integral.
      {"2147483648"}, {"-2147483649"}, {"9223372036854775808"}, {"18446744073709551615"}, {"3.0"},
      {"\"7\"", false, true}, {"\"\"", false, true}, {"true"}, {"null"}, {"[]", false, false, true},
      {"[1,\"a\"]", false, false, true}, {"{}"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    auto req = Req(std::string("{\"p\":") + c.json + "}");
    const Json::Value v = ParseJson(c.json);
    for (auto nec : {ORVA::PARAM_REQUIRED, ORVA::PARAM_OPTIONAL}) {
      auto i = req.GetAndCheckInt("p", nec, nullptr);
      auto s = req.GetAndCheckString("p", nec, nullptr);
      auto a = req.GetAndCheckArray("p", nec, nullptr);
      EXPECT_TRUE(i.IsSet() && s.IsSet() && a.IsSet());
      EXPECT_EQ((std::vector<bool>{!c.intOk, !c.stringOk, !c.arrayOk}),
                (std::vector<bool>{i.IsInvalid(), s.IsInvalid(), a.IsInvalid()}));
      EXPECT_EQ(c.intOk ? v.asInt() : 0, i.Get());
      EXPECT_EQ(c.stringOk ? v.asString() : "", s.Get());
      if (c.arrayOk) {
        EXPECT_EQ(v, a.Get());
      }
    }
  }
}

TEST(WebapiTypedReaders, NecessityAndValidators) {
  static_assert(ORVA::PARAM_REQUIRED == 0 && ORVA::PARAM_OPTIONAL == 1);
  auto req = Req(R"({"other": 1, "n": 5, "s": "abc", "a": [1]})");
  for (auto [nec, invalid] : {std::pair{ORVA::PARAM_REQUIRED, true}, std::pair{ORVA::PARAM_OPTIONAL, false}}) {
    SCOPED_TRACE(nec);
    auto i = req.GetAndCheckInt("id", nec, nullptr);
    auto s = req.GetAndCheckString("id", nec, nullptr);
    auto a = req.GetAndCheckArray("id", nec, nullptr);
    EXPECT_FALSE(i.IsSet() || s.IsSet() || a.IsSet());
    EXPECT_EQ(std::vector<bool>(3, invalid), (std::vector<bool>{i.IsInvalid(), s.IsInvalid(), a.IsInvalid()}));
  }
  // Present but of the wrong type is invalid even when optional.
  EXPECT_TRUE(req.GetAndCheckString("other", ORVA::PARAM_OPTIONAL, nullptr).IsInvalid());
  // A validator's refusal makes the value invalid.
  EXPECT_TRUE(req.GetAndCheckInt("n", ORVA::PARAM_REQUIRED, [](const int& v) { return v > 10; }).IsInvalid());
  EXPECT_FALSE(req.GetAndCheckInt("n", ORVA::PARAM_REQUIRED, [](const int& v) { return v == 5; }).IsInvalid());
  EXPECT_TRUE(
      req.GetAndCheckString("s", ORVA::PARAM_REQUIRED, [](const std::string& v) { return v.empty(); }).IsInvalid());
  EXPECT_TRUE(
      req.GetAndCheckArray("a", ORVA::PARAM_REQUIRED, [](const Json::Value& v) { return v.size() == 2; }).IsInvalid());
}

TEST(WebapiGetParam, EmptyNameGivesAllParamsAndDefaultsApply) {
  auto req = Req(R"({"a": 1, "b": [true], "c": null})");
  EXPECT_EQ(ParseJson(R"({"a": 1, "b": [true], "c": null})"), req.GetParam(""));
  EXPECT_EQ(Json::Value(1), req.GetParam("a"));
  EXPECT_TRUE(req.GetParam("zz").isNull());
  EXPECT_EQ(Json::Value("d"), req.GetParam("zz", Json::Value("d")));
  // A present null is the parameter's value, not the default.
  EXPECT_TRUE(req.GetParam("c", Json::Value("d")).isNull());
  // Params that are not an object count as none.
  ORVA::APIRequest arr("A", 1, "m", ParseJson("[1,2]"), "u", "en");
  EXPECT_EQ(Json::Value(Json::objectValue), arr.GetParam(""));
  EXPECT_FALSE(arr.GetAndCheckInt("0").IsSet());
  ORVA::APIRequest none("A", 1, "m", Json::Value(), "u", "de");
  EXPECT_EQ(Json::Value(Json::objectValue), none.GetParam(""));
  EXPECT_EQ("de", none.GetUILanguage());
  EXPECT_EQ("u", none.GetLoginUserName());
}

TEST(WebapiEnvelope, ShapesAndTheFirstReplyStands) {
  struct Case {
    const char* name;
    bool success;
    int code;
    const char* data;
    const char* envelope;
  };
  const Case cases[] = {
      {"success object", true, 0, R"({"tasks":[],"total":0})", R"({"success":true,"data":{"tasks":[],"total":0}})"},
      {"success null", true, 0, "null", R"({"success":true,"data":null})"},
      {"success array", true, 0, "[1]", R"({"success":true,"data":[1]})"},
      {"error object", false, 4800, R"({"msg":"id must be an integer"})",
       R"({"success":false,"error":{"code":4800,"msg":"id must be an integer"}})"},
      {"error null", false, 4800, "null", R"({"success":false,"error":{"code":4800}})"},
      {"error code 0", false, 0, "null", R"({"success":false,"error":{"code":0}})"},
      {"error string", false, 117, R"("boom")", R"({"success":false,"error":{"code":117,"data":"boom"}})"},
      {"error array", false, 117, "[1,2]", R"({"success":false,"error":{"code":117,"data":[1,2]}})"},
      {"error data has code", false, 117, R"({"code":5,"x":1})", R"({"success":false,"error":{"code":117,"x":1}})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ORVA::APIResponse r;
    if (c.success) {
      r.SetSuccess(ParseJson(c.data));
    } else {
      r.SetError(c.code, ParseJson(c.data));
    }
    EXPECT_EQ(ParseJson(c.envelope), r.GetEnvelope());
    EXPECT_EQ(1, r.GetReplyCount());
  }
  ORVA::APIResponse r;
  r.SetError(4801, ParseJson(R"({"msg":"first"})"));
  r.SetSuccess(ParseJson(R"({"x":1})"));
  r.SetError(4802, ParseJson(R"({"msg":"third"})"));
  EXPECT_EQ(3, r.GetReplyCount());
  EXPECT_EQ(ParseJson(R"({"success":false,"error":{"code":4801,"msg":"first"}})"), r.GetEnvelope());
  ORVA::APIResponse s;
  s.SetSuccess(ParseJson(R"({"x":1})"));
  s.SetError(1, Json::Value());
  EXPECT_EQ(ParseJson(R"({"success":true,"data":{"x":1}})"), s.GetEnvelope());
  EXPECT_EQ(ParseJson(R"({"success":false,"error":{"code":100}})"), ORVA::APIResponse().GetEnvelope());
}

void Echo(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  Json::Value d;
  d["user"] = req->GetLoginUserName();
  d["lang"] = req->GetUILanguage();
  d["params"] = req->GetParam("");
  d["version"] = req->GetAPIVersion();
  resp->SetSuccess(d);
}
void Fail(ORVA::APIRequest*, ORVA::APIResponse* resp) { resp->SetError(4800, ParseJson(R"({"msg":"bad"})")); }
void Throw(ORVA::APIRequest*, ORVA::APIResponse*) { throw std::runtime_error("boom"); }
void ThrowInt(ORVA::APIRequest*, ORVA::APIResponse* resp) {
  resp->SetSuccess(Json::Value(1));
  throw 5;
}
// Calls Echo in-process, as the module that lists tasks calls the event scheduler.
void Nested(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  Json::Value d;
  d["result"] = Json::Value(Json::objectValue);
  ORVA::APIRunner::Exec(d["result"], "ORVA.Reg.A", 1, "echo", req->GetParam("inner"), "admin");
  d["missing"] = Json::Value(Json::objectValue);
  ORVA::APIRunner::Exec(d["missing"], "ORVA.Reg.None", 1, "echo", Json::Value(), "admin");
  d["outer_user"] = req->GetLoginUserName();
  resp->SetSuccess(d);
}

const ORVA::APITableRow kTable[] = {
    {"ORVA.Reg.A", 1, "echo", Echo},     {"ORVA.Reg.A", 2, "echo", Echo},          {"ORVA.Reg.A", 1, "fail", Fail},
    {"ORVA.Reg.A", 1, "throw", Throw},   {"ORVA.Reg.A", 1, "throw_int", ThrowInt},
    {"ORVA.Reg.A", 1, "nested", Nested}, {"ORVA.Reg.A", 1, "echo", Fail},  // duplicate: first stays
    {nullptr, 0, nullptr, nullptr},
};

class WebapiRegistry : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ORVA::APIRegistry::Instance().RegisterTable(kTable); }
  ORVA::APIRegistry& reg = ORVA::APIRegistry::Instance();
};

TEST_F(WebapiRegistry, FindGivesTheRowOrTheRightErrorCode) {
  struct Case {
    const char* api;
    int version;
    const char* method;
    int code;
  };
  const Case cases[] = {
      {"ORVA.Reg.A", 1, "echo", 0}, {"ORVA.Reg.A", 2, "echo", 0},
      {"ORVA.Reg.B", 1, "echo", ORVA::WEBAPI_ERR_NO_API}, {"orva.reg.a", 1, "echo", ORVA::WEBAPI_ERR_NO_API},
      {"ORVA.Reg.A", 1, "nope", ORVA::WEBAPI_ERR_NO_METHOD}, {"ORVA.Reg.A", 1, "Echo", ORVA::WEBAPI_ERR_NO_METHOD},
      {"ORVA.Reg.A", 2, "fail", ORVA::WEBAPI_ERR_NO_VERSION}, {"ORVA.Reg.A", 3, "echo", ORVA::WEBAPI_ERR_NO_VERSION},
      {"ORVA.Reg.A", 0, "echo", ORVA::WEBAPI_ERR_NO_VERSION},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.api) + " " + std::to_string(c.version) + " " + c.method);
    int code = -1;
    const ORVA::APITableRow* row = reg.Find(c.api, c.version, c.method, &code);
    EXPECT_EQ(c.code, code);
    EXPECT_EQ(c.code == 0, row != nullptr);
    if (row != nullptr) {
      EXPECT_EQ(c.version, row->version);
      EXPECT_EQ(Echo, row->func);  // the duplicate row did not replace the first
    }
  }
}

TEST_F(WebapiRegistry, CallGuardsAgainstThrowingAndSilentModules) {
  const char* moduleFailure = R"({"success":false,"error":{"code":100}})";
  struct Case {
    const char* method;
    int frameworkError;
    const char* envelope;
  };
  const Case cases[] = {
      {"fail", 0, R"({"success":false,"error":{"code":4800,"msg":"bad"}})"},
      // A std::exception and a module that writes no reply: the server's tests, with their status.
      {"throw_int", 100, moduleFailure},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method);
    const ORVA::APITableRow* row = reg.Find("ORVA.Reg.A", 1, c.method);
    ASSERT_NE(nullptr, row);
    ORVA::APIRequest req("ORVA.Reg.A", 1, c.method, Json::Value(), "u", "en");
    ORVA::APIResponse resp;
    int fw = -1;
    EXPECT_EQ(ParseJson(c.envelope), reg.Call(*row, req, &resp, &fw));
    EXPECT_EQ(c.frameworkError, fw);
    EXPECT_EQ(nullptr, ORVA::APIRegistry::CurrentRequest());
  }
}

TEST_F(WebapiRegistry, ExecRunsAnotherApiInProcessAsTheGivenUser) {
  const ORVA::APITableRow* row = reg.Find("ORVA.Reg.A", 1, "nested");
  ASSERT_NE(nullptr, row);
  ORVA::APIRequest req("ORVA.Reg.A", 1, "nested", ParseJson(R"({"inner": {"k": [1]}})"), "bob", "de");
  Json::Value env = reg.Call(*row, req);
  EXPECT_EQ(ParseJson(R"({"success":true,"data":{"user":"admin","lang":"de","params":{"k":[1]},"version":1}})"),
            env["data"]["result"]);
  EXPECT_EQ(ParseJson(R"({"success":false,"error":{"code":102}})"), env["data"]["missing"]);
  EXPECT_EQ("bob", env["data"]["outer_user"].asString());

  // Outside any request: the default language, and null params become an empty object.
  // Each call replaces the whole of `out`.
  Json::Value out(Json::objectValue);
  struct Case {
    int version;
    const char* method;
    const char* envelope;
  };
  for (Case c : {Case{2, "echo", R"({"success":true,"data":{"user":"root","lang":"en","params":{},"version":2}})"},
                 Case{1, "nope", R"({"success":false,"error":{"code":103}})"},
                 Case{1, "throw", R"({"success":false,"error":{"code":100}})"}}) {
    SCOPED_TRACE(c.method);
    ORVA::APIRunner::Exec(out, "ORVA.Reg.A", c.version, c.method, Json::Value(), "root");
    EXPECT_EQ(ParseJson(c.envelope), out);
  }
}

class WebapiDescriptor : public ::testing::Test {
 protected:
  std::string Write(const std::string& name, const std::string& text) {
    root.Write(name, text);
    return root.Real(name);
  }
  orvatest::TempRoot root{"orva-desc"};
  const std::string& dir = root.path();
};

TEST_F(WebapiDescriptor, LevelsAndMalformedDescriptorsApplyNothing) {
  ORVA::APIRegistry reg;
  EXPECT_EQ(ORVA::API_AUTH_ADMIN, reg.GetAuth("ORVA.D.X", "m"));
  ASSERT_TRUE(reg.LoadDescriptor(Write("ok.json", R"({"apis": {
      "ORVA.D.X": {"auth": "user", "methods": {"login": "public", "wipe": "admin"}},
      "ORVA.D.Y": {"auth": "public"},
      "ORVA.D.Z": {},
      "ORVA.D.Q\nsecret": {"auth": "public"}}})")));
  struct Case {
    const char* api;
    const char* method;
    ORVA::APIAuth level;
  };
  for (Case c : {Case{"ORVA.D.X", "query", ORVA::API_AUTH_USER}, Case{"ORVA.D.X", "login", ORVA::API_AUTH_PUBLIC},
                 Case{"ORVA.D.X", "wipe", ORVA::API_AUTH_ADMIN}, Case{"ORVA.D.Y", "any", ORVA::API_AUTH_PUBLIC},
                 Case{"ORVA.D.Z", "any", ORVA::API_AUTH_ADMIN}, Case{"ORVA.D.Other", "any", ORVA::API_AUTH_ADMIN},
                 Case{"ORVA.D.Q", "secret", ORVA::API_AUTH_ADMIN}}) {  // an API name never names a method
    SCOPED_TRACE(std::string(c.api) + " " + c.method);
    EXPECT_EQ(c.level, reg.GetAuth(c.api, c.method));
  }
  const char* bad[] = {
      "not json", "[]", R"({"apis": []})", R"({"apis": {"ORVA.D.W": {"auth": "root"}}})",
      R"({"apis": {"ORVA.D.W": {"auth": "Public"}}})", R"({"apis": {"ORVA.D.W": {"auth": 1}}})",
      R"({"apis": {"ORVA.D.W": "public"}})",
      R"({"apis": {"ORVA.D.W": {"auth": "public", "methods": {"m": "everyone"}}}})",
      R"({"apis": {"ORVA.D.W": {"auth": "public"}, "ORVA.D.V": {"auth": "nobody"}}})",
      R"({"apis": {"ORVA.D.W": {"auth": "public"}}} trailing)",
  };
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    std::string why;
    EXPECT_FALSE(reg.LoadDescriptor(Write("bad.json", text), &why));
    EXPECT_FALSE(why.empty());
    EXPECT_EQ(ORVA::API_AUTH_ADMIN, reg.GetAuth("ORVA.D.W", "m"));
  }
  EXPECT_FALSE(reg.LoadDescriptor(dir + "/absent.json"));
}

TEST_F(WebapiDescriptor, LoadDirectoryLoadsModulesWithTheirDescriptors) {
  ORVA::APIRegistry reg;
  std::string error;
  EXPECT_FALSE(reg.LoadModule(dir + "/absent.so", &error));
  EXPECT_FALSE(error.empty());
  // A file that is not a shared object is skipped; the real module is loaded.
  Write("broken.so", "not an ELF file");
  ASSERT_EQ(0, symlink(LOADER_TEST_MODULE, (dir + "/loaded.so").c_str()));
  Write("loaded.json", R"({"apis": {"ORVA.Test.Loaded": {"auth": "public"}}})");
  EXPECT_EQ(1, reg.LoadDirectory(dir));
  const ORVA::APITableRow* row = reg.Find("ORVA.Test.Loaded", 1, "hello");
  ASSERT_NE(nullptr, row);
  EXPECT_EQ(1u, reg.Rows().size());  // incomplete row skipped, rows after the end not read
  EXPECT_EQ(nullptr, reg.Find("ORVA.Test.Loaded", 3, "after_end"));
  EXPECT_EQ(ORVA::API_AUTH_PUBLIC, reg.GetAuth("ORVA.Test.Loaded", "hello"));
  ORVA::APIRequest req("ORVA.Test.Loaded", 1, "hello", Json::Value(), "carol", "en");
  EXPECT_EQ(ParseJson(R"({"success":true,"data":{"hello":"carol"}})"), reg.Call(*row, req));
  EXPECT_EQ(0, reg.LoadDirectory(dir + "/absent"));
}

}  // namespace
