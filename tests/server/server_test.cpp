// The interface of the real server: envelopes, framework error codes with their HTTP
// statuses, sessions, CSRF, the login throttle, language negotiation, the webman folder's
// files, and the Unix socket's callers as orva-api carries them.
#include <pwd.h>

#include <chrono>
#include <future>

#include "server_fixture.h"

namespace {

using orvatest::Envelope;
using orvatest::ParseJson;

// One server with one worker on a fresh root.
class ServerEntry : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.Start(1)); }
  orvatest::Server server;
};

// On every reply: the admin page may not be framed, sniffed or leak its address.
void ExpectSecurityHeaders(orvatest::HttpReply r) {
  EXPECT_EQ("default-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'self'",
            r.headers["content-security-policy"]);
  EXPECT_EQ("nosniff", r.headers["x-content-type-options"]);
  EXPECT_EQ("DENY", r.headers["x-frame-options"]);
  EXPECT_EQ("no-referrer", r.headers["referrer-policy"]);
}

TEST_F(ServerEntry, RepliesWithTheirCodesAndStatuses) {
  // Inside the envelope's object and "params": 62 more levels make 64.
  auto withParams = [](const std::string& inner) {
    return R"({"api": "ORVA.Test.Public", "version": 1, "method": "ping", "params": {"x": )" + inner + "}}";
  };
  const std::string ok = R"({"success": true, "data": {}})";
  auto error = [](int code) { return "{\"success\": false, \"error\": {\"code\": " + std::to_string(code) + "}}"; };
  struct Case {
    const char* name;
    std::string body;
    int status;
    std::string reply;
  };
  const Case cases[] = {
      {"module success", Envelope("ORVA.Test.Public", 1, "ping"), 200, ok},
      {"module error", Envelope("ORVA.Test.Public", 1, "error"), 200,
       R"({"success": false, "error": {"code": 4801, "msg": "Failed to get task", "extra": 7}})"},
      {"not JSON", "{\"api\": ", 400, error(101)},
      {"array", "[1]", 400, error(101)},
      {"no api", R"({"version": 1, "method": "ping"})", 400, error(101)},
      {"version a real", R"({"api": "ORVA.Test.Public", "version": 1.5, "method": "ping"})", 400, error(101)},
      {"params an array", R"({"api": "ORVA.Test.Public", "version": 1, "method": "ping", "params": []})", 400,
       error(101)},
      {"lang a number", R"({"api": "ORVA.Test.Public", "version": 1, "method": "ping", "lang": 3})", 400, error(101)},
      {"nesting 64", withParams(std::string(62, '[') + std::string(62, ']')), 200, ok},
      {"nesting 65", withParams(std::string(63, '[') + std::string(63, ']')), 400, error(101)},
      {"nesting 65 in a string is text", withParams("\"" + std::string(100, '[') + "\""), 200, ok},
      {"unknown API", Envelope("ORVA.Test.Nope", 1, "ping"), 404, error(102)},
      {"no session", Envelope("ORVA.Test.User", 1, "echo"), 401, error(106)},
      {"module throws", Envelope("ORVA.Test.Public", 1, "throw"), 500, error(100)},
      {"module writes no reply", Envelope("ORVA.Test.Public", 1, "noreply"), 500, error(100)},
      {"too large", withParams("\"" + std::string(1024 * 1024, 'a') + "\""), 413, error(107)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto r = server.Api(c.body);
    EXPECT_EQ(c.status, r.status);
    EXPECT_EQ(ParseJson(c.reply), r.json) << r.body;
    EXPECT_EQ("application/json; charset=utf-8", r.headers["content-type"]);
    ExpectSecurityHeaders(r);
  }
  // Parameters come back whole, and the reply's bytes are what jsoncpp's writer makes of them.
  const Json::Value odd = ParseJson(R"({"s": "q\" b\\ /\b\f\n\r\t\u0001\u001f\u007f é€😀",
      "n": [0, -1, 0.1, 1e300, -2.5e-300, 9007199254740993, 18446744073709551615, -9223372036854775808],
      "e": [{}, [], [[]], "", null, true, false], "": {"k\u0000": 1}})");
  auto echo = server.Api(Envelope("ORVA.Test.Public", 2, "echo", odd));
  EXPECT_EQ(odd, echo.json["data"]["params"]);
  EXPECT_EQ("", echo.json["data"]["user"].asString());  // public: nobody logged in
  Json::StreamWriterBuilder compact;
  compact["indentation"] = "";
  compact["emitUTF8"] = true;
  EXPECT_EQ(Json::writeString(compact, echo.json), echo.body);

  // The worker went on after the failures, and logged them with request text escaped: no
  // line can be forged.
  Json::Value p;
  p["text"] = "a\nFORGED line\r\x1b[31m\t\x7f";
  ASSERT_EQ(200, server.Api(Envelope("ORVA.Test.Public", 1, "log", p)).status);
  const std::string log = server.Log();
  EXPECT_NE(std::string::npos, log.find("threw: test module throws"));
  EXPECT_NE(std::string::npos, log.find("test module logs [a\\nFORGED line\\r\\x1b[31m\\t\\x7f]"));
  EXPECT_EQ(std::string::npos, log.find("\nFORGED"));
}

// Failed logins make the next ones from that address wait on a timer: the worker serves other
// requests meanwhile, and the right token still gets in afterwards.
TEST_F(ServerEntry, LoginThrottleSessionsCsrfRenewalAndLogout) {
  auto both = orvatest::LoginWith(server, ParseJson(R"({"account": "a", "passwd": "b", "token": "c"})"));
  EXPECT_EQ(400, both.reply.json["error"]["code"].asInt());
  for (int i = 0; i < 4; ++i) {
    auto bad = orvatest::LoginWith(server, ParseJson(R"({"token": "0000"})"));
    EXPECT_EQ(402, bad.reply.json["error"]["code"].asInt());
    EXPECT_EQ("", bad.reply.headers["set-cookie"]);
  }
  const auto start = std::chrono::steady_clock::now();
  auto held = std::async(std::launch::async, [&] { return orvatest::TokenLogin(server); });
  EXPECT_EQ(200, server.Api(Envelope("ORVA.Test.Public", 1, "ping")).status);
  EXPECT_NE(std::future_status::ready, held.wait_for(std::chrono::seconds(0)));
  auto login = held.get();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  EXPECT_NE(std::string::npos,
            server.Log().find("failed login with a token from 127.0.0.1 (4 in a row; the next waits 1.0 s)"));

  ASSERT_TRUE(login.reply.json["success"].asBool()) << login.reply.body;
  EXPECT_EQ(login.cookie + "; Path=/; HttpOnly; SameSite=Strict", login.reply.headers["set-cookie"]);
  EXPECT_EQ(64u, login.sessionId.size());
  EXPECT_EQ(ParseJson("{\"csrf_token\": \"" + login.csrf + "\"}"), login.reply.json["data"]);
  EXPECT_EQ(64u, login.csrf.size());

  const std::string whoami = Envelope("ORVA.API.Auth", 1, "whoami");
  struct Case {
    const char* name;
    orvatest::Headers headers;
    int status;
  };
  const Case cases[] = {
      {"cookie and CSRF", login.Auth(), 200},
      {"cookie without CSRF", {{"Cookie", login.cookie}}, 403},
      {"cookie with a wrong CSRF", {{"Cookie", login.cookie}, {"X-ORVA-CSRF", std::string(64, 'a')}}, 403},
      {"session id as CSRF", {{"Cookie", login.cookie}, {"X-ORVA-CSRF", login.sessionId}}, 403},
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

  // A login from a logged-in browser gets a new id and token; the old ones are refused. The
  // language chosen at login is the session's, and a request's own still wins.
  auto again = orvatest::TokenLogin(server, "de", login.Auth());
  ASSERT_EQ(64u, again.sessionId.size()) << again.reply.body;
  EXPECT_NE(login.sessionId, again.sessionId);
  EXPECT_NE(login.csrf, again.csrf);
  EXPECT_EQ(401, server.Api(whoami, login.Auth()).status);
  EXPECT_EQ("de", server.Api(whoami, again.Auth()).json["data"]["lang"].asString());
  Json::Value en = ParseJson(whoami);
  en["lang"] = "en";
  EXPECT_EQ("en", server.Api(orvatest::WriteJson(en), again.Auth()).json["data"]["lang"].asString());

  // Logout ends the session and clears the cookie.
  auto out = server.Api(Envelope("ORVA.API.Auth", 1, "logout"), again.Auth());
  EXPECT_EQ(200, out.status);
  EXPECT_NE(std::string::npos, out.headers["set-cookie"].find("Max-Age=0"));
  EXPECT_EQ(401, server.Api(whoami, again.Auth()).status);
}

TEST_F(ServerEntry, LanguageNegotiationAcceptsOnlyExistingTextFolders) {
  const struct {
    const char* lang;  // nullptr: none in the request
    const char* acceptLanguage;
    const char* expected;
  } cases[] = {
      {nullptr, nullptr, "en"},
      {"de", nullptr, "de"},
      {"../../etc", nullptr, "en"},
      {"xx", "fr-FR, de-CH;q=0.8, en;q=0.5", "de"},
      {nullptr, "en;q=0.2, de;q=0.9", "de"},
      {nullptr, "de;q=0, fr", "en"},
      {"en", "de", "en"},  // the request's own beats the header
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.lang ? c.lang : "-") + " " + (c.acceptLanguage ? c.acceptLanguage : "-"));
    Json::Value e = ParseJson(Envelope("ORVA.Test.Public", 1, "echo"));
    if (c.lang != nullptr) e["lang"] = c.lang;
    orvatest::Headers headers;
    if (c.acceptLanguage != nullptr) headers["Accept-Language"] = c.acceptLanguage;
    auto r = server.Api(orvatest::WriteJson(e), headers);
    EXPECT_EQ(c.expected, r.json["data"]["lang"].asString()) << r.body;
  }
}

TEST_F(ServerEntry, StaticFilesComeOnlyFromTheWebmanFolder) {
  const struct {
    const char* target;
    int status = 0;  // 0: any refusal
    const char* body = nullptr;
  } cases[] = {
      {"/", 200, "<!doctype html><title>ORVA</title>\n"},
      {"/%6As/app.js", 200, "console.log('orva');\n"},
      {"/js/", 404},  // a folder without index.html
      {"/js/../index.html", 400},
      // Every way out: "..", encoded or not, absolute paths, symlinks, NUL and bad escapes.
      {"/../secret.txt"},
      {"/%2e%2e/secret.txt"},
      {"/..%2fsecret.txt"},
      {"/..\\secret.txt"},
      {"/%2fetc%2fpasswd"},
      {"http://localhost/../../../etc/passwd"},
      {"../../etc/passwd"},
      {"/etc-link/passwd"},
      {"/secret-link.txt"},
      {"/%00/../secret.txt"},
      {"/%zz"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target);
    auto r = server.Http("GET", c.target);
    ExpectSecurityHeaders(r);
    EXPECT_TRUE(c.status == 0 ? r.status != 200 : r.status == c.status) << r.status;
    if (c.body != nullptr) {
      EXPECT_EQ(c.body, r.body);
    }
    EXPECT_EQ(std::string::npos, r.body.find("TOPSECRET"));
    EXPECT_EQ(std::string::npos, r.body.find("root:"));
  }
  auto head = server.Http("HEAD", "/index.html");
  EXPECT_EQ(200, head.status);
  EXPECT_EQ("", head.body);
}

TEST_F(ServerEntry, UnixSocketCallersAreTheirAccountsThroughOrvaApi) {
  const passwd* daemon = getpwnam("daemon");  // an account outside the admin group
  ASSERT_NE(nullptr, daemon);
  auto who = server.OrvaApi({"ORVA.API.Auth", "1", "whoami"}, daemon->pw_uid);
  EXPECT_EQ(0, who.status) << who.err;
  EXPECT_EQ(ParseJson(R"({"user": "daemon", "is_admin": false, "lang": "en"})"), who.json["data"]);
  // A uid without an account is nobody.
  uid_t ghost = 54321;
  while (getpwuid(ghost) != nullptr) ++ghost;
  auto nobody = server.OrvaApi({"ORVA.API.Auth", "1", "whoami"}, ghost);
  EXPECT_EQ(1, nobody.status);
  EXPECT_EQ(106, nobody.json["error"]["code"].asInt());
  // The socket is open to every account, its folder not writable by them, the token private.
  for (const auto& [file, mode] :
       {std::pair{"", 0755}, std::pair{"/webapi.sock", 0666}, std::pair{"/login.token", 0600}}) {
    EXPECT_EQ(std::filesystem::status(server.path() + "/run/orva" + file).permissions(),
              static_cast<std::filesystem::perms>(mode)) << file;
  }
  server.Stop();
  // No server: the call cannot be made.
  EXPECT_EQ(2, server.OrvaApi({"ORVA.API.Info", "1", "query"}).status);
}

}  // namespace
