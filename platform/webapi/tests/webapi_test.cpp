// Parameters, typed readers and reply envelopes of the framework, without any HTTP.
#include <gtest/gtest.h>

#include "webapi/webapi.h"

namespace {

Json::Value Parse(const std::string& text) {
  Json::Value v;
  Json::CharReaderBuilder b;
  std::string errs;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  EXPECT_TRUE(r->parse(text.data(), text.data() + text.size(), &v, &errs)) << text;
  return v;
}

ORVA::APIRequest Req(const std::string& params) {
  return ORVA::APIRequest("ORVA.Test", 1, "m", Parse(params), "alice", "en");
}

// Each JSON type against each reader: only the reader of its own type takes it.
TEST(WebapiTypedReaders, EachReaderAcceptsOnlyItsOwnType) {
  struct Case {
    const char* json;
    bool intOk, stringOk, arrayOk;
  };
  const Case cases[] = {
      {"7", true, false, false},
      {"-2147483648", true, false, false},
      {"2147483647", true, false, false},
      {"2147483648", false, false, false},   // beyond int
      {"-2147483649", false, false, false},
      {"3.0", false, false, false},          // a real, even if integral
      {"3.5", false, false, false},
      {"\"7\"", false, true, false},
      {"\"\"", false, true, false},
      {"true", false, false, false},
      {"false", false, false, false},
      {"null", false, false, false},
      {"[]", false, false, true},
      {"[1,\"a\"]", false, false, true},
      {"{}", false, false, false},
      {"{\"a\":1}", false, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    auto req = Req(std::string("{\"p\":") + c.json + "}");
    for (auto nec : {ORVA::PARAM_REQUIRED, ORVA::PARAM_OPTIONAL}) {
      auto i = req.GetAndCheckInt("p", nec, nullptr);
      auto s = req.GetAndCheckString("p", nec, nullptr);
      auto a = req.GetAndCheckArray("p", nec, nullptr);
      EXPECT_TRUE(i.IsSet());
      EXPECT_TRUE(s.IsSet());
      EXPECT_TRUE(a.IsSet());
      EXPECT_EQ(!c.intOk, i.IsInvalid());
      EXPECT_EQ(!c.stringOk, s.IsInvalid());
      EXPECT_EQ(!c.arrayOk, a.IsInvalid());
      if (c.intOk) {
        EXPECT_EQ(Parse(c.json).asInt(), i.Get());
      }
      if (c.stringOk) {
        EXPECT_EQ(Parse(c.json).asString(), s.Get());
      }
      if (c.arrayOk) {
        EXPECT_EQ(Parse(c.json), a.Get());
      }
      if (!c.intOk) {
        EXPECT_EQ(0, i.Get());
      }
      if (!c.stringOk) {
        EXPECT_EQ("", s.Get());
      }
    }
  }
}

TEST(WebapiTypedReaders, NecessityDecidesWhetherAbsenceIsInvalid) {
  auto req = Req("{\"other\": 1}");
  struct Case {
    ORVA::PARAM_NECESSITY nec;
    bool invalid;
  };
  for (Case c : {Case{ORVA::PARAM_REQUIRED, true}, Case{ORVA::PARAM_OPTIONAL, false},
                 Case{static_cast<ORVA::PARAM_NECESSITY>(0), true}, Case{static_cast<ORVA::PARAM_NECESSITY>(1), false}}) {
    SCOPED_TRACE(c.nec);
    auto i = req.GetAndCheckInt("id", c.nec, nullptr);
    auto s = req.GetAndCheckString("id", c.nec, nullptr);
    auto a = req.GetAndCheckArray("id", c.nec, nullptr);
    EXPECT_FALSE(i.IsSet());
    EXPECT_FALSE(s.IsSet());
    EXPECT_FALSE(a.IsSet());
    EXPECT_EQ(c.invalid, i.IsInvalid());
    EXPECT_EQ(c.invalid, s.IsInvalid());
    EXPECT_EQ(c.invalid, a.IsInvalid());
  }
  // Present but of the wrong type is invalid even when optional.
  EXPECT_TRUE(req.GetAndCheckString("other", ORVA::PARAM_OPTIONAL, nullptr).IsInvalid());
}

TEST(WebapiTypedReaders, ValidatorRefusalMakesInvalid) {
  auto req = Req("{\"n\": 5, \"s\": \"abc\", \"a\": [1]}");
  EXPECT_TRUE(req.GetAndCheckInt("n", ORVA::PARAM_REQUIRED, [](const int& v) { return v > 10; }).IsInvalid());
  EXPECT_FALSE(req.GetAndCheckInt("n", ORVA::PARAM_REQUIRED, [](const int& v) { return v == 5; }).IsInvalid());
  EXPECT_TRUE(
      req.GetAndCheckString("s", ORVA::PARAM_REQUIRED, [](const std::string& v) { return v.empty(); }).IsInvalid());
  EXPECT_TRUE(
      req.GetAndCheckArray("a", ORVA::PARAM_REQUIRED, [](const Json::Value& v) { return v.size() == 2; }).IsInvalid());
}

TEST(WebapiGetParam, EmptyNameGivesAllParamsAndDefaultsApply) {
  auto req = Req("{\"a\": 1, \"b\": [true], \"c\": null}");
  EXPECT_EQ(Parse("{\"a\": 1, \"b\": [true], \"c\": null}"), req.GetParam(""));
  EXPECT_EQ(Json::Value(1), req.GetParam("a"));
  EXPECT_TRUE(req.GetParam("zz").isNull());
  EXPECT_EQ(Json::Value("d"), req.GetParam("zz", Json::Value("d")));
  // A present null is the parameter's value, not the default.
  EXPECT_TRUE(req.GetParam("c", Json::Value("d")).isNull());
  // Params that are not an object count as none.
  ORVA::APIRequest arr("A", 1, "m", Parse("[1,2]"), "u", "en");
  EXPECT_EQ(Json::Value(Json::objectValue), arr.GetParam(""));
  EXPECT_FALSE(arr.GetAndCheckInt("0").IsSet());
  ORVA::APIRequest none("A", 1, "m", Json::Value(), "u", "de");
  EXPECT_EQ(Json::Value(Json::objectValue), none.GetParam(""));
  EXPECT_EQ("de", none.GetUILanguage());
  EXPECT_EQ("u", none.GetLoginUserName());
}

TEST(WebapiEnvelope, Shapes) {
  struct Case {
    const char* name;
    bool success;
    int code;
    const char* data;
    const char* envelope;
  };
  const Case cases[] = {
      {"success object", true, 0, "{\"tasks\":[],\"total\":0}",
       "{\"success\":true,\"data\":{\"tasks\":[],\"total\":0}}"},
      {"success null", true, 0, "null", "{\"success\":true,\"data\":null}"},
      {"success array", true, 0, "[1]", "{\"success\":true,\"data\":[1]}"},
      {"error object", false, 4800, "{\"msg\":\"id must be an integer\"}",
       "{\"success\":false,\"error\":{\"code\":4800,\"msg\":\"id must be an integer\"}}"},
      {"error null", false, 4800, "null", "{\"success\":false,\"error\":{\"code\":4800}}"},
      {"error code 0", false, 0, "null", "{\"success\":false,\"error\":{\"code\":0}}"},
      {"error string", false, 117, "\"boom\"", "{\"success\":false,\"error\":{\"code\":117,\"data\":\"boom\"}}"},
      {"error array", false, 117, "[1,2]", "{\"success\":false,\"error\":{\"code\":117,\"data\":[1,2]}}"},
      {"error data has code", false, 117, "{\"code\":5,\"x\":1}",
       "{\"success\":false,\"error\":{\"code\":117,\"x\":1}}"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ORVA::APIResponse r;
    if (c.success) {
      r.SetSuccess(Parse(c.data));
    } else {
      r.SetError(c.code, Parse(c.data));
    }
    EXPECT_EQ(Parse(c.envelope), r.GetEnvelope());
    EXPECT_EQ(1, r.GetReplyCount());
  }
}

TEST(WebapiEnvelope, FirstReplyStandsAndNoReplyIsModuleFailure) {
  ORVA::APIResponse r;
  r.SetError(4801, Parse("{\"msg\":\"first\"}"));
  r.SetSuccess(Parse("{\"x\":1}"));
  r.SetError(4802, Parse("{\"msg\":\"third\"}"));
  EXPECT_EQ(3, r.GetReplyCount());
  EXPECT_EQ(Parse("{\"success\":false,\"error\":{\"code\":4801,\"msg\":\"first\"}}"), r.GetEnvelope());

  ORVA::APIResponse s;
  s.SetSuccess(Parse("{\"x\":1}"));
  s.SetError(1, Json::Value());
  EXPECT_EQ(Parse("{\"success\":true,\"data\":{\"x\":1}}"), s.GetEnvelope());

  ORVA::APIResponse none;
  EXPECT_EQ(Parse("{\"success\":false,\"error\":{\"code\":100}}"), none.GetEnvelope());
}

}  // namespace
