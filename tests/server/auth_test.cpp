// Identity: PAM password login with a real account and its throttle, and the Unix socket's
// peer credentials as orva-api carries them, with that client's exit statuses.
#include <pwd.h>
#include <sys/stat.h>

#include <chrono>
#include <future>

#include "server_fixture.h"

namespace {

using orvatest::Envelope;
using orvatest::ParseJson;

class ServerIdentity : public orvatest::ServerTest {};

// Failed logins make the next ones of that account and address wait on a timer: the
// worker serves other requests meanwhile, the right password still gets in afterwards.
TEST_F(ServerIdentity, PamLoginOfATestUserAndItsThrottle) {
  // The PAM service, installed when the system has none; link() refuses to replace one that a
  // test running beside this one made.
  const std::string pam = "/etc/pam.d/.orva-webapi." + std::to_string(getpid());
  std::filesystem::copy_file(ORVA_SOURCE_DIR "/platform/server/pam/orva-webapi", pam);
  ASSERT_TRUE(link(pam.c_str(), "/etc/pam.d/orva-webapi") == 0 || errno == EEXIST);
  unlink(pam.c_str());
  orvatest::TestUser user("S3cret-pass!");
  ASSERT_TRUE(user.Ok());
  auto params = [](const std::string& account, const std::string& passwd) {
    Json::Value p;
    p["account"] = account;
    p["passwd"] = passwd;
    return p;
  };
  struct Case {
    const char* name;
    Json::Value params;
    int code;  // 0: logged in
  };
  const Case cases[] = {
      {"wrong password", params(user.Name(), "S3cret-pass"), 401},
      {"empty password", params(user.Name(), ""), 401},
      {"unknown account", params(user.Name() + "x", "S3cret-pass!"), 401},
      {"no password", ParseJson("{\"account\": \"" + user.Name() + "\"}"), 400},
      {"token and password", ParseJson(R"({"account": "a", "passwd": "b", "token": "c"})"), 400},
      {"right password", params(user.Name(), "S3cret-pass!"), 0},
  };
  orvatest::Login good;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto login = orvatest::LoginWith(server, c.params);
    EXPECT_EQ(c.code, login.reply.json["error"]["code"].asInt()) << login.reply.body;
    EXPECT_EQ(c.code == 0, !login.sessionId.empty());
    if (c.code == 0) good = login;
  }
  // An ordinary account may call user APIs but not admin ones.
  auto echo = server.Api(Envelope("ORVA.Test.User", 1, "echo"), good.Auth());
  EXPECT_EQ(user.Name(), echo.json["data"]["user"].asString()) << echo.body;
  auto admin = server.Api(Envelope("ORVA.Test.Admin", 1, "echo"), good.Auth());
  EXPECT_EQ(403, admin.status);
  EXPECT_EQ(ParseJson(R"({"success": false, "error": {"code": 105}})"), admin.json);

  Json::Value p = params(user.Name(), "wrong");
  for (int i = 0; i < 4; ++i) EXPECT_EQ(401, orvatest::LoginWith(server, p).reply.json["error"]["code"].asInt());
  p["passwd"] = "S3cret-pass!";
  const auto start = std::chrono::steady_clock::now();
  auto login = std::async(std::launch::async, [&] { return orvatest::LoginWith(server, p); });
  EXPECT_EQ(200, server.Api(Envelope("ORVA.Test.Public", 1, "ping")).status);
  EXPECT_NE(std::future_status::ready, login.wait_for(std::chrono::seconds(0)));  // still held
  EXPECT_FALSE(login.get().sessionId.empty());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  EXPECT_NE(std::string::npos, server.Log().find("failed login of \"" + user.Name() +
                                                 "\" from 127.0.0.1 (4 in a row; the next waits 1.0 s)"));
}

TEST_F(ServerIdentity, UnixSocketCallersAreTheirAccountsThroughOrvaApi) {
  orvatest::TestUser user;
  ASSERT_TRUE(user.Ok());
  uid_t ghost = 54321;
  while (getpwuid(ghost) != nullptr) ++ghost;
  struct Case {
    uid_t uid;
    std::vector<std::string> args;
    int exitCode;
    std::string printed;
  };
  const Case cases[] = {
      {0, {"ORVA.API.Auth", "1", "whoami"}, 0, "\"is_admin\" : true"},
      {user.Uid(), {"ORVA.API.Auth", "1", "whoami"}, 0, "\"is_admin\" : false"},
      {user.Uid(), {"ORVA.Test.User", "1", "echo"}, 0, "\"user\" : \"" + user.Name() + "\""},
      {0, {"ORVA.Test.Public", "1", "echo", R"({"a": 5})"}, 0, "\"a\" : 5"},
      {ghost, {"ORVA.API.Auth", "1", "whoami"}, 1, "106"},  // a uid without an account is nobody
      {0, {"ORVA.Test.Public", "1", "error"}, 1, "4801"},
      {0, {"ORVA.Test.Public", "x", "echo"}, 2, ""},
      {0, {"ORVA.Test.Public", "1", "echo", "[1]"}, 2, ""},
      {0, {"ORVA.Test.Public", "1"}, 2, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.uid) + orvatest::Shown(c.args));
    auto r = server.OrvaApi(c.args, c.uid);
    EXPECT_EQ(c.exitCode, r.status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find(c.printed)) << r.out;
  }
  // Info lists every registered API with its versions and methods.
  auto apis = server.OrvaApi({"ORVA.API.Info", "1", "query"}).json["data"]["apis"];
  EXPECT_EQ(ParseJson("[1, 2]"), apis["ORVA.Test.Admin"]["versions"]);
  EXPECT_EQ(ParseJson("[1, 2]"), apis["ORVA.Test.Admin"]["methods"]["echo"]);
  // The socket is open to every account; its folder is not writable by them; the token and
  // the sessions are private.
  struct File {
    std::string path;
    mode_t mode;
  };
  for (const File& f : {File{server.SocketPath(), 0666}, File{root.path() + "/run/orva", 0755},
                        File{root.path() + "/run/orva/login.token", 0600}, File{root.path() + "/var/lib/orva", 0700},
                        File{root.path() + "/var/lib/orva/sessions.db", 0600}}) {
    SCOPED_TRACE(f.path);
    struct stat st;
    ASSERT_EQ(0, stat(f.path.c_str(), &st));
    EXPECT_EQ(f.mode, st.st_mode & 0777);
  }
  server.Stop();
  // No server: the call cannot be made.
  EXPECT_EQ(2, server.OrvaApi({"ORVA.API.Info", "1", "query"}).status);
}

}  // namespace
