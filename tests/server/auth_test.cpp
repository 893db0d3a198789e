// Identity: PAM password login with a real account, the admin group rule, and the Unix
// socket's peer credentials for root and an ordinary account.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <future>

#include "server_fixture.h"

namespace {

using orvatest::Envelope;
using orvatest::ParseJson;

class ServerIdentity : public orvatest::ServerTest {};

std::string WhoamiData(const std::string& user, bool admin) {
  return "{\"user\": \"" + user + "\", \"is_admin\": " + (admin ? "true" : "false") + ", \"lang\": \"en\"}";
}

TEST_F(ServerIdentity, PamLoginOfATestUserAndTheAdminGroupRule) {
  ASSERT_TRUE(orvatest::EnsurePamService());
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
      {"password not a string", ParseJson("{\"account\": \"" + user.Name() + "\", \"passwd\": 1}"), 400},
      {"token and password", ParseJson(R"({"account": "a", "passwd": "b", "token": "c"})"), 400},
      {"right password", params(user.Name(), "S3cret-pass!"), 0},
  };
  orvatest::Login good;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto login = orvatest::LoginWith(server, c.params);
    EXPECT_EQ(200, login.reply.status);
    EXPECT_EQ(c.code == 0, login.reply.json["success"].asBool()) << login.reply.body;
    EXPECT_EQ(c.code == 0, !login.sessionId.empty());
    if (c.code != 0) {
      EXPECT_EQ(c.code, login.reply.json["error"]["code"].asInt());
    } else {
      good = login;
    }
  }
  ASSERT_FALSE(good.sessionId.empty());
  auto who = server.Api(Envelope("ORVA.API.Auth", 1, "whoami"), good.Auth());
  EXPECT_EQ(ParseJson(WhoamiData(user.Name(), false)), who.json["data"]);
  // An ordinary account may call user APIs but not admin ones.
  auto echo = server.Api(Envelope("ORVA.Test.User", 1, "echo"), good.Auth());
  EXPECT_EQ(200, echo.status);
  EXPECT_EQ(user.Name(), echo.json["data"]["user"].asString());
  auto admin = server.Api(Envelope("ORVA.Test.Admin", 1, "echo"), good.Auth());
  EXPECT_EQ(403, admin.status);
  EXPECT_EQ(ParseJson(R"({"success": false, "error": {"code": 105}})"), admin.json);

  // A member of the configured admin group is an administrator.
  const std::string group = "orvatadm" + std::to_string(getpid());
  root.Write("/etc/orva/orva.conf", "admin_group=\"" + group + "\"\n");
  ASSERT_TRUE(orvatest::RunRetried("groupadd " + group));
  EXPECT_TRUE(orvatest::RunRetried("usermod -aG " + group + " " + user.Name()));
  auto member = orvatest::LoginWith(server, params(user.Name(), "S3cret-pass!"));
  EXPECT_EQ(200, server.Api(Envelope("ORVA.Test.Admin", 1, "echo"), member.Auth()).status);
  who = server.Api(Envelope("ORVA.API.Auth", 1, "whoami"), member.Auth());
  EXPECT_TRUE(who.json["data"]["is_admin"].asBool()) << who.body;
  EXPECT_TRUE(orvatest::RunRetried("groupdel " + group));
}

// Failed logins make the next ones of that account and address wait on a timer: the
// worker serves other requests meanwhile, the right password still gets in afterwards.
TEST_F(ServerIdentity, FailedLoginsSlowTheNextWithoutBlockingTheWorker) {
  ASSERT_TRUE(orvatest::EnsurePamService());
  orvatest::TestUser user("S3cret-pass!");
  ASSERT_TRUE(user.Ok());
  Json::Value p;
  p["account"] = user.Name();
  p["passwd"] = "wrong";
  for (int i = 0; i < 4; ++i) EXPECT_EQ(401, orvatest::LoginWith(server, p).reply.json["error"]["code"].asInt());
  p["passwd"] = "S3cret-pass!";
  const auto start = std::chrono::steady_clock::now();
  auto login = std::async(std::launch::async, [&] { return orvatest::LoginWith(server, p); });
  EXPECT_EQ(200, server.Api(Envelope("ORVA.Test.Public", 1, "ping")).status);
  EXPECT_NE(std::future_status::ready, login.wait_for(std::chrono::seconds(0)));  // still held
  EXPECT_FALSE(login.get().sessionId.empty());
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  const std::string log = server.Log();
  EXPECT_NE(std::string::npos, log.find("failed login of \"" + user.Name() + "\" from 127.0.0.1 (4 in a row; the next "
                                        "waits 1.0 s)")) << log;
}

TEST_F(ServerIdentity, UnixSocketIdentifiesRootAndAnOrdinaryAccount) {
  const std::string whoami = Envelope("ORVA.API.Auth", 1, "whoami");
  auto asRoot = server.Local(whoami);
  EXPECT_EQ(200, asRoot.status);
  EXPECT_EQ(ParseJson(WhoamiData("root", true)), asRoot.json["data"]);
  EXPECT_EQ(200, server.Local(Envelope("ORVA.Test.Admin", 1, "echo")).status);

  orvatest::TestUser user;
  ASSERT_TRUE(user.Ok());
  auto asUser = server.LocalAs(user.Uid(), user.Gid(), whoami);
  EXPECT_EQ(200, asUser.status) << asUser.body;
  EXPECT_EQ(ParseJson(WhoamiData(user.Name(), false)), asUser.json["data"]);
  auto userApi = server.LocalAs(user.Uid(), user.Gid(), Envelope("ORVA.Test.User", 1, "echo"));
  EXPECT_EQ(200, userApi.status);
  EXPECT_EQ(user.Name(), userApi.json["data"]["user"].asString());
  auto adminApi = server.LocalAs(user.Uid(), user.Gid(), Envelope("ORVA.Test.Admin", 1, "echo"));
  EXPECT_EQ(403, adminApi.status);
  EXPECT_EQ(105, adminApi.json["error"]["code"].asInt());
  // A uid without an account is nobody.
  uid_t ghostUid = 54321;
  while (getpwuid(ghostUid) != nullptr) ++ghostUid;
  EXPECT_EQ(401, server.LocalAs(ghostUid, ghostUid, whoami).status);
  // The socket is open to every account; its folder is not writable by them; the token and
  // the sessions are private.
  struct Case {
    std::string path;
    mode_t mode;
  };
  for (const Case& c : {Case{server.SocketPath(), 0666}, Case{root.path() + "/run/orva", 0755},
                        Case{root.path() + "/run/orva/login.token", 0600}, Case{root.path() + "/var/lib/orva", 0700},
                        Case{root.path() + "/var/lib/orva/sessions.db", 0600}}) {
    SCOPED_TRACE(c.path);
    struct stat st;
    ASSERT_EQ(0, stat(c.path.c_str(), &st));
    EXPECT_EQ(c.mode, st.st_mode & 0777);
  }
}

}  // namespace
