// Identity: PAM password login with a real account, and the Unix socket's peer
// credentials for root and an ordinary account.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>

#include "server_fixture.h"

namespace {

using orvatest::Envelope;
using orvatest::ParseJson;

class ServerIdentity : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.Start(1)); }
  void TearDown() override {
    if (HasFailure()) std::cerr << "server log:\n" << server.Log();
  }
  orvatest::TempRoot root;
  orvatest::Server server{root};
};

TEST_F(ServerIdentity, PamLoginOfATestUserAndRefusedWrongPassword) {
  ASSERT_TRUE(orvatest::EnsurePamService());
  orvatest::TestUser user("S3cret-pass!");
  ASSERT_TRUE(user.Ok());
  struct Case {
    const char* name;
    Json::Value params;
    int code;  // 0: logged in
  };
  auto params = [](const std::string& account, const std::string& passwd) {
    Json::Value p;
    p["account"] = account;
    p["passwd"] = passwd;
    return p;
  };
  const Case cases[] = {
      {"wrong password", params(user.Name(), "S3cret-pass"), 401},
      {"empty password", params(user.Name(), ""), 401},
      {"unknown account", params(user.Name() + "x", "S3cret-pass!"), 401},
      {"no password", ParseJson("{\"account\": \"" + user.Name() + "\"}"), 400},
      {"password not a string", ParseJson("{\"account\": \"" + user.Name() + "\", \"passwd\": 1}"), 400},
      {"token and password", ParseJson("{\"account\": \"a\", \"passwd\": \"b\", \"token\": \"c\"}"), 400},
      {"right password", params(user.Name(), "S3cret-pass!"), 0},
  };
  orvatest::Login good;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto login = orvatest::LoginWith(server, c.params);
    EXPECT_EQ(200, login.reply.status);
    if (c.code != 0) {
      EXPECT_FALSE(login.reply.json["success"].asBool()) << login.reply.body;
      EXPECT_EQ(c.code, login.reply.json["error"]["code"].asInt());
      EXPECT_TRUE(login.sessionId.empty());
    } else {
      EXPECT_TRUE(login.reply.json["success"].asBool()) << login.reply.body;
      good = login;
    }
  }
  ASSERT_FALSE(good.sessionId.empty());
  auto who = server.Api(Envelope("ORVA.API.Auth", 1, "whoami"), good.Headers());
  EXPECT_EQ(ParseJson("{\"user\": \"" + user.Name() + "\", \"is_admin\": false, \"lang\": \"en\"}"),
            who.json["data"]);
  // An ordinary account may call user APIs but not admin ones.
  auto echo = server.Api(Envelope("ORVA.Test.User", 1, "echo"), good.Headers());
  EXPECT_EQ(200, echo.status);
  EXPECT_EQ(user.Name(), echo.json["data"]["user"].asString());
  auto admin = server.Api(Envelope("ORVA.Test.Admin", 1, "echo"), good.Headers());
  EXPECT_EQ(403, admin.status);
  EXPECT_EQ(ParseJson(R"({"success": false, "error": {"code": 105}})"), admin.json);
}

TEST_F(ServerIdentity, AMemberOfTheAdminGroupIsAnAdministrator) {
  ASSERT_TRUE(orvatest::EnsurePamService());
  orvatest::TestUser user("Adm1n-pass");
  ASSERT_TRUE(user.Ok());
  // The configured admin_group of the test root is "orvatadmins".
  const std::string group = "orvatadmins" + std::to_string(getpid());
  root.WriteFile("/etc/orva/orva.conf", "admin_group=\"" + group + "\"\n");
  ASSERT_EQ(0, std::system(("groupadd " + group + " && usermod -aG " + group + " " + user.Name()).c_str()));
  Json::Value p;
  p["account"] = user.Name();
  p["passwd"] = "Adm1n-pass";
  auto login = orvatest::LoginWith(server, p);
  auto admin = server.Api(Envelope("ORVA.Test.Admin", 1, "echo"), login.Headers());
  EXPECT_EQ(200, admin.status) << admin.body;
  auto who = server.Api(Envelope("ORVA.API.Auth", 1, "whoami"), login.Headers());
  EXPECT_TRUE(who.json["data"]["is_admin"].asBool());
  EXPECT_EQ(0, std::system(("gpasswd -d " + user.Name() + " " + group + " >/dev/null && groupdel " + group).c_str()));
}

TEST_F(ServerIdentity, UnixSocketIdentifiesRootAndAnOrdinaryAccount) {
  const std::string whoami = Envelope("ORVA.API.Auth", 1, "whoami");
  auto asRoot = server.Local(whoami);
  EXPECT_EQ(200, asRoot.status);
  EXPECT_EQ(ParseJson(R"({"user": "root", "is_admin": true, "lang": "en"})"), asRoot.json["data"]);
  EXPECT_EQ(200, server.Local(Envelope("ORVA.Test.Admin", 1, "echo")).status);

  orvatest::TestUser user;
  ASSERT_TRUE(user.Ok());
  auto asUser = server.LocalAs(user.Uid(), user.Gid(), whoami);
  EXPECT_EQ(200, asUser.status) << asUser.body;
  EXPECT_EQ(ParseJson("{\"user\": \"" + user.Name() + "\", \"is_admin\": false, \"lang\": \"en\"}"),
            asUser.json["data"]);
  auto userApi = server.LocalAs(user.Uid(), user.Gid(), Envelope("ORVA.Test.User", 1, "echo"));
  EXPECT_EQ(200, userApi.status);
  EXPECT_EQ(user.Name(), userApi.json["data"]["user"].asString());
  auto adminApi = server.LocalAs(user.Uid(), user.Gid(), Envelope("ORVA.Test.Admin", 1, "echo"));
  EXPECT_EQ(403, adminApi.status);
  EXPECT_EQ(105, adminApi.json["error"]["code"].asInt());
  // A uid without an account is nobody.
  uid_t ghostUid = 54321;
  while (getpwuid(ghostUid) != nullptr) ++ghostUid;
  auto ghost = server.LocalAs(ghostUid, ghostUid, whoami);
  EXPECT_EQ(401, ghost.status);
  // The socket is open to every account; its folder is not writable by them.
  struct stat st;
  ASSERT_EQ(0, stat(server.SocketPath().c_str(), &st));
  EXPECT_EQ(0666u, st.st_mode & 0777);
  ASSERT_EQ(0, stat((root.Path() + "/run/orva").c_str(), &st));
  EXPECT_EQ(0755u, st.st_mode & 0777);
  ASSERT_EQ(0, stat((root.Path() + "/run/orva/login.token").c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
}

}  // namespace
