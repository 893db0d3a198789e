// The HTTP interface of the real server: envelopes, framework error codes with their
// HTTP statuses, sessions, CSRF, language negotiation and the webman folder's files.
#include "server_fixture.h"

namespace {

using orvatest::Envelope;
using orvatest::ParseJson;

class ServerEntry : public orvatest::ServerTest {};

// On every reply: the admin page may not be framed, sniffed or leak its address.
void ExpectSecurityHeaders(const orvatest::HttpReply& r) {
  EXPECT_EQ("default-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'self'",
            r.Header("content-security-policy"));
  EXPECT_EQ("nosniff", r.Header("x-content-type-options"));
  EXPECT_EQ("DENY", r.Header("x-frame-options"));
  EXPECT_EQ("no-referrer", r.Header("referrer-policy"));
}

TEST_F(ServerEntry, ModuleRepliesKeepTheirShapeAndHttp200) {
  struct Case {
    const char* method;
    const char* expected;
  };
  const Case cases[] = {
      {"ping", R"({"success": true, "data": {}})"},
      {"error", R"({"success": false, "error": {"code": 4801, "msg": "Failed to get task", "extra": 7}})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method);
    auto r = server.Api(Envelope("ORVA.Test.Public", 1, c.method));
    EXPECT_EQ(200, r.status);
    EXPECT_EQ(ParseJson(c.expected), r.json);
    EXPECT_EQ("application/json; charset=utf-8", r.Header("content-type"));
    ExpectSecurityHeaders(r);
  }
  auto echo = server.Api(Envelope("ORVA.Test.Public", 2, "echo", ParseJson(R"({"a": [1, {"b": null}]})")));
  EXPECT_EQ(200, echo.status);
  EXPECT_EQ(ParseJson(R"({"a": [1, {"b": null}]})"), echo.json["data"]["params"]);
  EXPECT_EQ("", echo.json["data"]["user"].asString());  // public: nobody logged in
  // The reply's bytes are what jsoncpp's writer makes of the same value.
  auto odd = server.Api(Envelope("ORVA.Test.Public", 2, "echo", ParseJson(R"({"s": "q\" b\\ /\b\f\n\r\t\u0001\u001f\u007f é€😀",
      "n": [0, -1, 0.1, 1e300, -2.5e-300, 9007199254740993, 18446744073709551615, -9223372036854775808],
      "e": [{}, [], [[]], "", null, true, false], "": {"k\u0000": 1}})")));
  Json::StreamWriterBuilder compact;
  compact["indentation"] = "";
  compact["emitUTF8"] = true;
  EXPECT_EQ(Json::writeString(compact, odd.json), odd.body);
  // A public method may call an admin-only API in-process, as the user it names.
  auto exec = server.Api(Envelope("ORVA.Test.Public", 1, "exec", ParseJson(R"({"k": 1})")));
  EXPECT_EQ(ParseJson(R"({"k": 1})"), exec.json["data"]["data"]["params"]) << exec.body;
  EXPECT_EQ("admin", exec.json["data"]["data"]["user"].asString());
}

TEST_F(ServerEntry, FrameworkErrorsHaveTheirCodeAndStatus) {
  // Inside the envelope's object and "params": 62 more levels make 64.
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
      {"nesting 64", withParams(std::string(62, '[') + std::string(62, ']')), 200, 0},
      {"nesting 65", withParams(std::string(63, '[') + std::string(63, ']')), 400, 101},
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
  auto get = server.Http("GET", "/webapi/entry");
  EXPECT_EQ(405, get.status);
  EXPECT_EQ(101, get.json["error"]["code"].asInt());
  // The worker went on after the failures, and logged them.
  EXPECT_EQ(200, server.Api(Envelope("ORVA.Test.Public", 1, "ping")).status);
  EXPECT_NE(std::string::npos, server.Log().find("threw: test module throws"));
  EXPECT_NE(std::string::npos, server.Log().find("wrote no reply"));
}

TEST_F(ServerEntry, SessionsCookieCsrfLoginRenewalAndLogout) {
  auto bad = orvatest::LoginWith(server, ParseJson(R"({"token": "0000"})"));
  EXPECT_EQ(200, bad.reply.status);
  EXPECT_FALSE(bad.reply.json["success"].asBool());
  EXPECT_EQ("", bad.reply.Header("set-cookie"));

  auto login = orvatest::TokenLogin(server);
  ASSERT_TRUE(login.reply.json["success"].asBool()) << login.reply.body;
  std::string setCookie = login.reply.Header("set-cookie");
  EXPECT_NE(std::string::npos, setCookie.find("HttpOnly"));
  EXPECT_NE(std::string::npos, setCookie.find("SameSite=Strict"));
  EXPECT_EQ(64u, login.sessionId.size());
  EXPECT_EQ(64u, login.csrf.size());
  EXPECT_EQ(ParseJson("{\"csrf_token\": \"" + login.csrf + "\"}"), login.reply.json["data"]);

  const std::string whoami = Envelope("ORVA.API.Auth", 1, "whoami");
  const std::string admin = Envelope("ORVA.Test.Admin", 1, "echo");
  struct Case {
    const char* name;
    const std::string& body;
    orvatest::Headers headers;
    int status;
  };
  const Case cases[] = {
      {"cookie and CSRF", whoami, login.Auth(), 200},
      {"cookie without CSRF", whoami, {{"Cookie", login.cookie}}, 403},
      {"cookie with a wrong CSRF", whoami, {{"Cookie", login.cookie}, {"X-ORVA-CSRF", std::string(64, 'a')}}, 403},
      {"session id as CSRF", whoami, {{"Cookie", login.cookie}, {"X-ORVA-CSRF", login.sessionId}}, 403},
      {"CSRF without cookie", whoami, {{"X-ORVA-CSRF", login.csrf}}, 401},
      {"unknown session", whoami, {{"Cookie", "orva_session=" + std::string(64, 'b')}, {"X-ORVA-CSRF", login.csrf}}, 401},
      {"cookie among others", whoami, {{"Cookie", "a=1; " + login.cookie + "; b=2"}, {"X-ORVA-CSRF", login.csrf}}, 200},
      {"admin API, cookie and CSRF", admin, login.Auth(), 200},
      {"admin API, cookie without CSRF", admin, {{"Cookie", login.cookie}}, 403},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto r = server.Api(c.body, c.headers);
    EXPECT_EQ(c.status, r.status) << r.body;
    if (c.status == 200 && &c.body == &whoami) {
      EXPECT_EQ(ParseJson(R"({"user": "root", "is_admin": true, "lang": "en"})"), r.json["data"]);
    }
  }

  // A login from a logged-in browser gets a new id and token; the old ones are refused.
  auto again = orvatest::TokenLogin(server, "", login.Auth());
  ASSERT_EQ(64u, again.sessionId.size()) << again.reply.body;
  EXPECT_NE(login.sessionId, again.sessionId);
  EXPECT_NE(login.csrf, again.csrf);
  EXPECT_EQ(401, server.Api(whoami, login.Auth()).status);
  EXPECT_EQ(200, server.Api(whoami, again.Auth()).status);

  // Logout ends the session and clears the cookie.
  auto out = server.Api(Envelope("ORVA.API.Auth", 1, "logout"), again.Auth());
  EXPECT_EQ(200, out.status);
  EXPECT_NE(std::string::npos, out.Header("set-cookie").find("Max-Age=0"));
  EXPECT_EQ(401, server.Api(whoami, again.Auth()).status);
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
    orvatest::Headers headers;
    if (c.acceptLanguage != nullptr) headers["Accept-Language"] = c.acceptLanguage;
    auto r = server.Api(orvatest::WriteJson(e), headers);
    EXPECT_EQ(c.expected, r.json["data"]["lang"].asString()) << r.body;
  }
  // A language chosen at login is the session's, and a request's own still wins.
  auto login = orvatest::TokenLogin(server, "de");
  Json::Value e = ParseJson(Envelope("ORVA.API.Auth", 1, "whoami"));
  EXPECT_EQ("de", server.Api(orvatest::WriteJson(e), login.Auth()).json["data"]["lang"].asString());
  e["lang"] = "en";
  EXPECT_EQ("en", server.Api(orvatest::WriteJson(e), login.Auth()).json["data"]["lang"].asString());
}

TEST_F(ServerEntry, StaticFilesComeOnlyFromTheWebmanFolder) {
  struct Case {
    const char* target;
    int status;
    const char* body;  // nullptr: not checked
    const char* type;
  };
  const char* html = "<!doctype html><title>ORVA</title>\n";
  const char* js = "console.log('orva');\n";
  const char* htmlType = "text/html; charset=utf-8";
  const char* jsType = "text/javascript; charset=utf-8";
  const Case cases[] = {
      {"/", 200, html, htmlType},
      {"/?token=abc", 200, html, htmlType},
      {"/index.html", 200, html, htmlType},
      {"/js/app.js", 200, js, jsType},
      {"/%6As/app.js", 200, js, jsType},
      {"/./js//app.js", 200, js, jsType},
      {"/texts/en/strings.json", 200, "{}\n", "application/json; charset=utf-8"},
      {"/js/", 404, nullptr, nullptr},  // a folder without index.html
      {"/missing.html", 404, nullptr, nullptr},
      {"/js/../index.html", 400, nullptr, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.target);
    auto r = server.Http("GET", c.target);
    EXPECT_EQ(c.status, r.status);
    ExpectSecurityHeaders(r);
    if (c.body != nullptr) {
      EXPECT_EQ(c.body, r.body);
      EXPECT_EQ(c.type, r.Header("content-type"));
    }
  }
  auto head = server.Http("HEAD", "/index.html");
  EXPECT_EQ(200, head.status);
  EXPECT_EQ("", head.body);
  EXPECT_EQ(405, server.Http("POST", "/index.html", "x").status);

  // Every way out: "..", encoded or not, absolute paths, symlinks, NUL and bad escapes.
  const char* escapes[] = {
      "/../secret.txt",
      "/../../../../../../etc/passwd",
      "/%2e%2e/secret.txt",
      "/%2E%2E/%2e%2E/%2e%2e/secret.txt",
      "/..%2fsecret.txt",
      "/%2e%2e%2fsecret.txt",
      "/js/%2e%2e/%2e%2e/secret.txt",
      "/.%2e/secret.txt",
      "/..\\secret.txt",
      "/%5c..%5csecret.txt",
      "/etc/passwd",
      "//etc/passwd",
      "/%2fetc%2fpasswd",
      "http://localhost/../../../etc/passwd",
      "../../etc/passwd",
      "/etc-link/passwd",
      "/etc-link/",
      "/secret-link.txt",
      "/%00/../secret.txt",
      "/index.html%00.js",
      "/%zz",
  };
  for (const char* target : escapes) {
    SCOPED_TRACE(target);
    auto r = server.Http("GET", target);
    EXPECT_NE(200, r.status);
    EXPECT_EQ(std::string::npos, r.body.find("TOPSECRET"));
    EXPECT_EQ(std::string::npos, r.body.find("root:"));
  }
}

}  // namespace

namespace {

// A module's log line with request text: control characters arrive escaped, so no line
// can be forged.
TEST_F(ServerEntry, LogLinesCarryControlCharactersEscaped) {
  Json::Value p;
  p["text"] = "a\nFORGED line\r\x1b[31m\t\x7f";
  ASSERT_EQ(200, server.Api(Envelope("ORVA.Test.Public", 1, "log", p)).status);
  ASSERT_EQ(0, server.Stop());
  const std::string log = server.Log();
  EXPECT_NE(std::string::npos, log.find("test module logs [a\\nFORGED line\\r\\x1b[31m\\t\\x7f]")) << log;
  EXPECT_EQ(std::string::npos, log.find("\nFORGED")) << log;
}

}  // namespace
