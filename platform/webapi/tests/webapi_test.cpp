// The framework without any HTTP: typed readers, reply envelopes, access levels of
// descriptors, a broken module file. Lookup codes, guarded and in-process calls, modules
// loaded with their descriptors: the server's tests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "webapi/registry.h"
#include "webapi/webapi.h"
#include "orvatest.h"

namespace {

using orvatest::ParseJson;

// Each JSON type against each reader: only the reader of its own type takes it.
TEST(WebapiRequest, TypedReaders) {
  struct Case {
    const char* json;
    bool intOk = false, stringOk = false, arrayOk = false;
  };
  const Case cases[] = {
      {"-2147483648", true}, {"2147483647", true},
      // Beyond int; stored unsigned by JsonCpp; a real, even if integral.
      {"2147483648"}, {"-2147483649"}, {"18446744073709551615"}, {"3.0"},
      {"\"7\"", false, true}, {"true"}, {"null"}, {"[1,\"a\"]", false, false, true}, {"{}"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    ORVA::APIRequest req("A", 1, "m", ParseJson(std::string("{\"p\":") + c.json + "}"), "u", "en");
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
      EXPECT_EQ(c.arrayOk ? v : Json::Value(), a.Get());
    }
  }
}

// A module's data never overrides the code; the first reply stands; no reply is 100.
TEST(WebapiEnvelope, ShapesAndTheFirstReplyStands) {
  const struct {
    std::vector<std::pair<int, const char*>> replies;  // code -1: success with data
    const char* envelope;
  } cases[] = {
      {{{-1, "null"}}, R"({"success":true,"data":null})"},
      {{{4800, "null"}}, R"({"success":false,"error":{"code":4800}})"},
      {{{117, R"("boom")"}}, R"({"success":false,"error":{"code":117,"data":"boom"}})"},
      {{{117, R"({"code":5,"x":1})"}}, R"({"success":false,"error":{"code":117,"x":1}})"},
      {{{4801, R"({"msg":"first"})"}, {-1, "{}"}, {4802, "null"}},
       R"({"success":false,"error":{"code":4801,"msg":"first"}})"},
      {{{-1, R"({"x":1})"}, {1, "null"}}, R"({"success":true,"data":{"x":1}})"},
      {{}, R"({"success":false,"error":{"code":100}})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.envelope);
    ORVA::APIResponse r;
    for (const auto& [code, data] : c.replies) {
      if (code < 0) {
        r.SetSuccess(ParseJson(data));
      } else {
        r.SetError(code, ParseJson(data));
      }
    }
    EXPECT_EQ(ParseJson(c.envelope), r.GetEnvelope());
    EXPECT_EQ(static_cast<int>(c.replies.size()), r.GetReplyCount());
  }
}

// Levels per API and per method; a malformed descriptor applies nothing, so admin stays.
TEST(WebapiDescriptor, LevelsAndMalformedDescriptorsApplyNothing) {
  orvatest::TempRoot root{"orva-desc"};
  ORVA::APIRegistry reg;
  root.Write("ok.json", R"({"apis": {
      "ORVA.D.X": {"auth": "user", "methods": {"login": "public", "wipe": "admin"}},
      "ORVA.D.Y": {"auth": "public"},
      "ORVA.D.Z": {},
      "ORVA.D.Q\nsecret": {"auth": "public"}}})");
  ASSERT_TRUE(reg.LoadDescriptor(root.Real("ok.json")));
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
  for (const char* text : {
           "[]", R"({"apis": []})", R"({"apis": {"ORVA.D.W": {"auth": "Public"}}})",
           R"({"apis": {"ORVA.D.W": {"auth": 1}}})", R"({"apis": {"ORVA.D.W": "public"}})",
           R"({"apis": {"ORVA.D.W": {"auth": "public", "methods": {"m": "everyone"}}}})",
           R"({"apis": {"ORVA.D.W": {"auth": "public"}, "ORVA.D.V": {"auth": "nobody"}}})",
           R"({"apis": {"ORVA.D.W": {"auth": "public"}}} trailing)",
       }) {
    SCOPED_TRACE(text);
    root.Write("bad.json", text);
    std::string why;
    EXPECT_FALSE(reg.LoadDescriptor(root.Real("bad.json"), &why));
    EXPECT_FALSE(why.empty());
    EXPECT_EQ(ORVA::API_AUTH_ADMIN, reg.GetAuth("ORVA.D.W", "m"));
  }
  EXPECT_FALSE(reg.LoadDescriptor(root.Real("absent.json")));
}

// A file in the module folder that is not a shared object is skipped; the others load.
TEST(WebapiLoader, BrokenModuleFileIsSkipped) {
  orvatest::TempRoot root{"orva-load"};
  root.Write("a-broken.so", "not an ELF file");
  const std::string lib = std::string(ORVA_BUILD_DIR) + "/lib/webapi/ORVA.API.Info.so";
  ASSERT_EQ(0, symlink(lib.c_str(), root.Real("b.so").c_str()));
  ORVA::APIRegistry reg;
  EXPECT_EQ(1, reg.LoadDirectory(root.path()));
  EXPECT_FALSE(reg.Rows().empty());
}

}  // namespace
