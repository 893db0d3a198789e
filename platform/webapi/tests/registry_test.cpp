// Module registry: lookup codes, guarded calls, in-process calls, descriptors, loading.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

#include "webapi/registry.h"

namespace {

Json::Value Parse(const std::string& text) {
  Json::Value v;
  Json::CharReaderBuilder b;
  std::string errs;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  EXPECT_TRUE(r->parse(text.data(), text.data() + text.size(), &v, &errs)) << text;
  return v;
}

void Echo(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  Json::Value d;
  d["user"] = req->GetLoginUserName();
  d["lang"] = req->GetUILanguage();
  d["params"] = req->GetParam("");
  d["version"] = req->GetAPIVersion();
  resp->SetSuccess(d);
}
void Fail(ORVA::APIRequest*, ORVA::APIResponse* resp) { resp->SetError(4800, Parse("{\"msg\":\"bad\"}")); }
void Throw(ORVA::APIRequest*, ORVA::APIResponse*) { throw std::runtime_error("boom"); }
void ThrowInt(ORVA::APIRequest*, ORVA::APIResponse* resp) {
  resp->SetSuccess(Json::Value(1));
  throw 5;
}
void Silent(ORVA::APIRequest*, ORVA::APIResponse*) {}
// Calls Echo in-process, as the module that lists tasks calls the event scheduler.
void Nested(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  Json::Value result(Json::objectValue);
  ORVA::APIRunner::Exec(result, "ORVA.Reg.A", 1, "echo", req->GetParam("inner"), "admin");
  Json::Value missing(Json::objectValue);
  ORVA::APIRunner::Exec(missing, "ORVA.Reg.None", 1, "echo", Json::Value(), "admin");
  Json::Value d;
  d["result"] = result;
  d["missing"] = missing;
  d["outer_user"] = req->GetLoginUserName();
  resp->SetSuccess(d);
}

const ORVA::APITableRow kTable[] = {
    {"ORVA.Reg.A", 1, "echo", Echo},     {"ORVA.Reg.A", 2, "echo", Echo},       {"ORVA.Reg.A", 1, "fail", Fail},
    {"ORVA.Reg.A", 1, "throw", Throw},   {"ORVA.Reg.A", 1, "throw_int", ThrowInt}, {"ORVA.Reg.A", 1, "silent", Silent},
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
      {"ORVA.Reg.A", 1, "echo", 0},
      {"ORVA.Reg.A", 2, "echo", 0},
      {"ORVA.Reg.B", 1, "echo", ORVA::WEBAPI_ERR_NO_API},
      {"orva.reg.a", 1, "echo", ORVA::WEBAPI_ERR_NO_API},
      {"ORVA.Reg.A", 1, "nope", ORVA::WEBAPI_ERR_NO_METHOD},
      {"ORVA.Reg.A", 1, "Echo", ORVA::WEBAPI_ERR_NO_METHOD},
      {"ORVA.Reg.A", 2, "fail", ORVA::WEBAPI_ERR_NO_VERSION},
      {"ORVA.Reg.A", 3, "echo", ORVA::WEBAPI_ERR_NO_VERSION},
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
  struct Case {
    const char* method;
    int frameworkError;
    const char* envelope;
  };
  const Case cases[] = {
      {"fail", 0, "{\"success\":false,\"error\":{\"code\":4800,\"msg\":\"bad\"}}"},
      {"throw", 100, "{\"success\":false,\"error\":{\"code\":100}}"},
      {"throw_int", 100, "{\"success\":false,\"error\":{\"code\":100}}"},
      {"silent", 100, "{\"success\":false,\"error\":{\"code\":100}}"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method);
    const ORVA::APITableRow* row = reg.Find("ORVA.Reg.A", 1, c.method);
    ASSERT_NE(nullptr, row);
    ORVA::APIRequest req("ORVA.Reg.A", 1, c.method, Json::Value(), "u", "en");
    ORVA::APIResponse resp;
    int fw = -1;
    EXPECT_EQ(Parse(c.envelope), reg.Call(*row, req, &resp, &fw));
    EXPECT_EQ(c.frameworkError, fw);
    EXPECT_EQ(nullptr, ORVA::APIRegistry::CurrentRequest());
  }
}

TEST_F(WebapiRegistry, ExecRunsAnotherApiInProcessAsTheGivenUser) {
  const ORVA::APITableRow* row = reg.Find("ORVA.Reg.A", 1, "nested");
  ASSERT_NE(nullptr, row);
  ORVA::APIRequest req("ORVA.Reg.A", 1, "nested", Parse("{\"inner\": {\"k\": [1]}}"), "bob", "de");
  Json::Value env = reg.Call(*row, req);
  EXPECT_EQ(Parse("{\"success\":true,\"data\":{\"user\":\"admin\",\"lang\":\"de\",\"params\":{\"k\":[1]},"
                  "\"version\":1}}"),
            env["data"]["result"]);
  EXPECT_EQ(Parse("{\"success\":false,\"error\":{\"code\":102}}"), env["data"]["missing"]);
  EXPECT_EQ("bob", env["data"]["outer_user"].asString());

  // Outside any request: the default language, and null params become an empty object.
  Json::Value out(Json::objectValue);
  ORVA::APIRunner::Exec(out, "ORVA.Reg.A", 2, "echo", Json::Value(), "root");
  EXPECT_EQ(Parse("{\"success\":true,\"data\":{\"user\":\"root\",\"lang\":\"en\",\"params\":{},\"version\":2}}"), out);
  ORVA::APIRunner::Exec(out, "ORVA.Reg.A", 1, "nope", Json::Value(), "root");
  EXPECT_EQ(Parse("{\"success\":false,\"error\":{\"code\":103}}"), out);
  ORVA::APIRunner::Exec(out, "ORVA.Reg.A", 1, "throw", Json::Value(), "root");
  EXPECT_EQ(Parse("{\"success\":false,\"error\":{\"code\":100}}"), out);
}

class WebapiDescriptor : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/orva-desc-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    dir = tmpl;
  }
  void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }
  std::string Write(const std::string& name, const std::string& text) {
    std::string p = dir + "/" + name;
    std::ofstream(p) << text;
    return p;
  }
  std::string dir;
};

TEST_F(WebapiDescriptor, LevelsAndMalformedDescriptorsApplyNothing) {
  ORVA::APIRegistry reg;
  EXPECT_EQ(ORVA::API_AUTH_ADMIN, reg.GetAuth("ORVA.D.X", "m"));
  ASSERT_TRUE(reg.LoadDescriptor(Write("ok.json", R"({"apis": {
      "ORVA.D.X": {"auth": "user", "methods": {"login": "public", "wipe": "admin"}},
      "ORVA.D.Y": {"auth": "public"},
      "ORVA.D.Z": {}}})")));
  struct Case {
    const char* api;
    const char* method;
    ORVA::APIAuth level;
  };
  for (Case c : {Case{"ORVA.D.X", "query", ORVA::API_AUTH_USER}, Case{"ORVA.D.X", "login", ORVA::API_AUTH_PUBLIC},
                 Case{"ORVA.D.X", "wipe", ORVA::API_AUTH_ADMIN}, Case{"ORVA.D.Y", "any", ORVA::API_AUTH_PUBLIC},
                 Case{"ORVA.D.Z", "any", ORVA::API_AUTH_ADMIN}, Case{"ORVA.D.Other", "any", ORVA::API_AUTH_ADMIN}}) {
    SCOPED_TRACE(std::string(c.api) + " " + c.method);
    EXPECT_EQ(c.level, reg.GetAuth(c.api, c.method));
  }
  const char* bad[] = {
      "not json",
      "[]",
      R"({"apis": []})",
      R"({"apis": {"ORVA.D.W": {"auth": "root"}}})",
      R"({"apis": {"ORVA.D.W": {"auth": "Public"}}})",
      R"({"apis": {"ORVA.D.W": {"auth": 1}}})",
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
  int code = -1;
  const ORVA::APITableRow* row = reg.Find("ORVA.Test.Loaded", 1, "hello", &code);
  ASSERT_NE(nullptr, row);
  EXPECT_EQ(1u, reg.Rows().size());  // incomplete row skipped, rows after the end not read
  EXPECT_EQ(nullptr, reg.Find("ORVA.Test.Loaded", 3, "after_end"));
  EXPECT_EQ(ORVA::API_AUTH_PUBLIC, reg.GetAuth("ORVA.Test.Loaded", "hello"));
  ORVA::APIRequest req("ORVA.Test.Loaded", 1, "hello", Json::Value(), "carol", "en");
  EXPECT_EQ(Parse("{\"success\":true,\"data\":{\"hello\":\"carol\"}}"), reg.Call(*row, req));
  EXPECT_EQ(0, reg.LoadDirectory(dir + "/absent"));
}

}  // namespace
