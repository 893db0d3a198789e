// The web API entry point of the real server: envelopes, framework error codes with
// their HTTP statuses, sessions, CSRF and language negotiation.
#include <iostream>

#include "server_fixture.h"

namespace {

using orvatest::Envelope;
using orvatest::ParseJson;

class ServerEntry : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.Start(1)); }
  void TearDown() override {
    if (HasFailure()) std::cerr << "server log:\n" << server.Log();
  }
  orvatest::TempRoot root;
  orvatest::Server server{root};
};

TEST_F(ServerEntry, ModuleRepliesKeepTheirShapeAndHttp200) {
  struct Case {
    const char* method;
    const char* expected;
  };
  const Case cases[] = {
      {"ping", R"({"success": true, "data": {}})"},
      {"error", R"({"success": false, "error": {"code": 4801, "msg": "Failed to get task", "extra": 7}})"},
      {"error_scalar", R"({"success": false, "error": {"code": 117, "data": "plain text"}})"},
      {"error_null", R"({"success": false, "error": {"code": 4800}})"},
      {"twice", R"({"success": true, "data": "first"})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method);
    auto r = server.Api(Envelope("ORVA.Test.Public", 1, c.method));
    EXPECT_EQ(200, r.status);
    EXPECT_EQ(ParseJson(c.expected), r.json);
    EXPECT_EQ("application/json; charset=utf-8", r.Header("content-type"));
  }
  auto echo = server.Api(Envelope("ORVA.Test.Public", 2, "echo", ParseJson(R"({"a": [1, {"b": null}]})")));
  EXPECT_EQ(200, echo.status);
  EXPECT_EQ(ParseJson(R"({"a": [1, {"b": null}]})"), echo.json["data"]["params"]);
  EXPECT_EQ("", echo.json["data"]["user"].asString());  // public: nobody logged in
}

TEST_F(ServerEntry, FrameworkErrorsHaveTheirCodeAndStatus) {
  // Inside the envelope's object and "params": 62 more levels make 64.
  std::string deep64 = std::string(62, '[') + std::string(62, ']');
  std::string deep65 = std::string(63, '[') + std::string(63, ']');
  auto withParams = [](const std::string& inner) {
    return R"({"api": "ORVA.Test.Public", "version": 1, "method": "echo", "params": {"x": )" + inner + "}}";
  };
  struct Case {
    const char* name;
    std::string body;
    int status;
    int code;  // 0: success expected
  };
  const Case cases[] = {
      {"not JSON", "{\"api\": ", 400, 101},
      {"empty body", "", 400, 101},
      {"array", "[1]", 400, 101},
      {"trailing garbage", Envelope("ORVA.Test.Public", 1, "ping") + "x", 400, 101},
      {"no api", R"({"version": 1, "method": "ping"})", 400, 101},
      {"api not a string", R"({"api": 5, "version": 1, "method": "ping"})", 400, 101},
      {"version a string", R"({"api": "ORVA.Test.Public", "version": "1", "method": "ping"})", 400, 101},
      {"version a real", R"({"api": "ORVA.Test.Public", "version": 1.5, "method": "ping"})", 400, 101},
      {"no method", R"({"api": "ORVA.Test.Public", "version": 1})", 400, 101},
      {"params an array", R"({"api": "ORVA.Test.Public", "version": 1, "method": "ping", "params": []})", 400, 101},
      {"lang a number", R"({"api": "ORVA.Test.Public", "version": 1, "method": "ping", "lang": 3})", 400, 101},
      {"nesting 64", withParams(deep64), 200, 0},
      {"nesting 65", withParams(deep65), 400, 101},
      {"nesting 65 in a string is text", withParams("\"" + std::string(100, '[') + "\""), 200, 0},
      {"unknown API", Envelope("ORVA.Test.Nope", 1, "ping"), 404, 102},
      {"unknown method", Envelope("ORVA.Test.Public", 1, "nope"), 404, 103},
      {"unsupported version", Envelope("ORVA.Test.Public", 2, "ping"), 404, 104},
      {"no session", Envelope("ORVA.Test.User", 1, "echo"), 401, 106},
      {"no session, admin API", Envelope("ORVA.Test.Admin", 1, "echo"), 401, 106},
      {"module throws", Envelope("ORVA.Test.Public", 1, "throw"), 500, 100},
      {"module writes no reply", Envelope("ORVA.Test.Public", 1, "noreply"), 500, 100},
      {"too large", withParams("\"" + std::string(1024 * 1024, 'a') + "\""), 413, 107},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto r = server.Api(c.body);
    EXPECT_EQ(c.status, r.status);
    if (c.code == 0) {
      EXPECT_TRUE(r.json["success"].asBool()) << r.body;
    } else {
      EXPECT_EQ(ParseJson("{\"success\": false, \"error\": {\"code\": " + std::to_string(c.code) + "}}"), r.json)
          << r.body;
    }
  }
  // The worker went on after the failures.
  EXPECT_EQ(200, server.Api(Envelope("ORVA.Test.Public", 1, "ping")).status);
  EXPECT_NE(std::string::npos, server.Log().find("threw: test module throws"));
  EXPECT_NE(std::string::npos, server.Log().find("wrote no reply"));
}

TEST_F(ServerEntry, WrongHttpMethodOnEntryAndInProcessCallsAreTrusted) {
  auto get = server.Http("GET", "/webapi/entry");
  EXPECT_EQ(405, get.status);
  EXPECT_EQ(101, get.json["error"]["code"].asInt());
  // A public method may call an admin-only API in-process.
  auto exec = server.Api(Envelope("ORVA.Test.Public", 1, "exec", ParseJson(R"({"k": 1})")));
  EXPECT_EQ(ParseJson(R"({"k": 1})"), exec.json["data"]["data"]["params"]) << exec.body;
  EXPECT_EQ("admin", exec.json["data"]["data"]["user"].asString());
}

TEST_F(ServerEntry, TokenLoginGivesAStrictHttpOnlyCookieAndCsrfIsRequired) {
  auto bad = orvatest::LoginWith(server, ParseJson(R"({"token": "0000"})"));
  EXPECT_EQ(200, bad.reply.status);
  EXPECT_FALSE(bad.reply.json["success"].asBool());
  EXPECT_EQ("", bad.reply.Header("set-cookie"));

  Json::Value p;
  p["token"] = server.Token();
  auto login = orvatest::LoginWith(server, p);
  ASSERT_TRUE(login.reply.json["success"].asBool()) << login.reply.body;
  std::string setCookie = login.reply.Header("set-cookie");
  EXPECT_NE(std::string::npos, setCookie.find("HttpOnly"));
  EXPECT_NE(std::string::npos, setCookie.find("SameSite=Strict"));
  EXPECT_EQ(64u, login.sessionId.size());
  EXPECT_EQ(64u, login.csrf.size());
  EXPECT_EQ(ParseJson("{\"csrf_token\": \"" + login.csrf + "\"}"), login.reply.json["data"]);

  const std::string whoami = Envelope("ORVA.API.Auth", 1, "whoami");
  struct Case {
    const char* name;
    std::map<std::string, std::string> headers;
    int status;
  };
  const Case cases[] = {
      {"cookie and CSRF", login.Headers(), 200},
      {"cookie without CSRF", {{"Cookie", login.cookie}}, 403},
      {"cookie with a wrong CSRF", {{"Cookie", login.cookie}, {"X-ORVA-CSRF", std::string(64, 'a')}}, 403},
      {"cookie with the session id as CSRF", {{"Cookie", login.cookie}, {"X-ORVA-CSRF", login.sessionId}}, 403},
      {"CSRF without cookie", {{"X-ORVA-CSRF", login.csrf}}, 401},
      {"unknown session", {{"Cookie", "orva_session=" + std::string(64, 'b')}, {"X-ORVA-CSRF", login.csrf}}, 401},
      {"cookie among others", {{"Cookie", "a=1; " + login.cookie + "; b=2"}, {"X-ORVA-CSRF", login.csrf}}, 200},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto r = server.Api(whoami, c.headers);
    EXPECT_EQ(c.status, r.status) << r.body;
    if (c.status == 200) {
      EXPECT_EQ(ParseJson(R"({"user": "root", "is_admin": true, "lang": "en"})"), r.json["data"]);
    }
  }
  // The same session over an admin API.
  EXPECT_EQ(200, server.Api(Envelope("ORVA.Test.Admin", 1, "echo"), login.Headers()).status);
  EXPECT_EQ(403, server.Api(Envelope("ORVA.Test.Admin", 1, "echo"), {{"Cookie", login.cookie}}).status);

  // Logout ends the session and clears the cookie.
  auto out = server.Api(Envelope("ORVA.API.Auth", 1, "logout"), login.Headers());
  EXPECT_EQ(200, out.status);
  EXPECT_NE(std::string::npos, out.Header("set-cookie").find("Max-Age=0"));
  EXPECT_EQ(401, server.Api(whoami, login.Headers()).status);
}

TEST_F(ServerEntry, SessionIdChangesAtLoginAndTheOldOneIsRefused) {
  Json::Value p;
  p["token"] = server.Token();
  auto first = orvatest::LoginWith(server, p);
  ASSERT_FALSE(first.sessionId.empty());
  auto second = orvatest::LoginWith(server, p, first.Headers());
  ASSERT_FALSE(second.sessionId.empty());
  EXPECT_NE(first.sessionId, second.sessionId);
  EXPECT_NE(first.csrf, second.csrf);
  const std::string whoami = Envelope("ORVA.API.Auth", 1, "whoami");
  EXPECT_EQ(401, server.Api(whoami, first.Headers()).status);
  EXPECT_EQ(200, server.Api(whoami, second.Headers()).status);
}

TEST_F(ServerEntry, LanguageNegotiationAcceptsOnlyExistingTextFolders) {
  struct Case {
    const char* name;
    const char* lang;  // nullptr: none in the request
    const char* acceptLanguage;
    const char* expected;
  };
  const Case cases[] = {
      {"none", nullptr, nullptr, "en"},
      {"existing", "de", nullptr, "de"},
      {"traversal", "../../etc", nullptr, "en"},
      {"traversal with accept", "../de", "fr", "en"},
      {"unknown", "xx", nullptr, "en"},
      {"empty", "", nullptr, "en"},
      {"slash", "de/", nullptr, "en"},
      {"accept-language best", nullptr, "fr-FR, de;q=0.8, en;q=0.5", "de"},
      {"accept-language region", nullptr, "de-CH", "de"},
      {"accept-language q order", nullptr, "en;q=0.2, de;q=0.9", "de"},
      {"accept-language q=0", nullptr, "de;q=0, fr", "en"},
      {"accept-language traversal", nullptr, "../../etc", "en"},
      {"request beats accept", "en", "de", "en"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Json::Value e = ParseJson(Envelope("ORVA.Test.Public", 1, "echo"));
    if (c.lang != nullptr) e["lang"] = c.lang;
    std::map<std::string, std::string> headers;
    if (c.acceptLanguage != nullptr) headers["Accept-Language"] = c.acceptLanguage;
    auto r = server.Api(orvatest::WriteJson(e), headers);
    EXPECT_EQ(c.expected, r.json["data"]["lang"].asString()) << r.body;
  }
  // A language chosen at login is the session's, and a request's own still wins.
  Json::Value p;
  p["token"] = server.Token();
  p["lang"] = "de";
  auto login = orvatest::LoginWith(server, p);
  auto r = server.Api(Envelope("ORVA.API.Auth", 1, "whoami"), login.Headers());
  EXPECT_EQ("de", r.json["data"]["lang"].asString());
  Json::Value e = ParseJson(Envelope("ORVA.API.Auth", 1, "whoami"));
  e["lang"] = "en";
  EXPECT_EQ("en", server.Api(orvatest::WriteJson(e), login.Headers()).json["data"]["lang"].asString());
}

TEST(ServerEntryConfig, IdleSessionsExpire) {
  orvatest::TempRoot root;
  root.WriteFile("/etc/orva/orva.conf", "session_idle_timeout=\"1\"\n");
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(1));
  Json::Value p;
  p["token"] = server.Token();
  auto login = orvatest::LoginWith(server, p);
  const std::string whoami = Envelope("ORVA.API.Auth", 1, "whoami");
  EXPECT_EQ(200, server.Api(whoami, login.Headers()).status);
  sleep(3);
  EXPECT_EQ(401, server.Api(whoami, login.Headers()).status);
}

}  // namespace
