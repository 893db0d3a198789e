// Processes: sessions shared between workers, a killed worker replaced, SIGTERM
// draining the request in progress, and the orva-api client's exit statuses.
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <future>
#include <thread>

#include "server_fixture.h"

namespace {

using orvatest::Envelope;
using orvatest::ParseJson;

TEST(ServerProcess, SessionFromOneWorkerIsAcceptedByAnother) {
  orvatest::TempRoot root;
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(2));
  Json::Value p;
  p["token"] = server.Token();
  auto login = orvatest::LoginWith(server, p);
  ASSERT_FALSE(login.sessionId.empty()) << login.reply.body;
  // A worker busy in a module call accepts nothing else, so the request sent meanwhile
  // is served by the other worker. Both must know the session.
  auto slow = std::async(std::launch::async, [&] {
    return server.Api(Envelope("ORVA.Test.User", 1, "sleep", ParseJson(R"({"ms": 1500})")), login.Headers());
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  auto fast = server.Api(Envelope("ORVA.Test.User", 1, "echo"), login.Headers());
  auto busy = slow.get();
  ASSERT_EQ(200, busy.status) << busy.body;
  ASSERT_EQ(200, fast.status) << fast.body;
  EXPECT_EQ("root", fast.json["data"]["user"].asString());
  EXPECT_NE(busy.json["data"]["pid"].asInt(), fast.json["data"]["pid"].asInt());
}

TEST(ServerProcess, KilledWorkerIsReplacedAndTheNextRequestServed) {
  orvatest::TempRoot root;
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(1));
  auto before = server.Api(Envelope("ORVA.Test.Public", 1, "echo"));
  int victim = before.json["data"]["pid"].asInt();
  ASSERT_GT(victim, 0);
  ASSERT_EQ(0, kill(victim, SIGKILL));
  orvatest::HttpReply after;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (after.status != 200 && std::chrono::steady_clock::now() < deadline) {
    after = server.Api(Envelope("ORVA.Test.Public", 1, "echo"));
  }
  ASSERT_EQ(200, after.status);
  EXPECT_NE(victim, after.json["data"]["pid"].asInt());
  EXPECT_NE(std::string::npos, server.Log().find("killed by signal 9"));
  EXPECT_EQ(0, server.Stop());
}

TEST(ServerProcess, SigtermFinishesTheRequestInProgressThenExits) {
  orvatest::TempRoot root;
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(1));
  auto slow = std::async(std::launch::async, [&] {
    return server.Api(Envelope("ORVA.Test.Public", 1, "sleep", ParseJson(R"({"ms": 1200})")));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  auto stopped = std::async(std::launch::async, [&] { return server.Stop(); });
  auto reply = slow.get();
  EXPECT_EQ(200, reply.status);
  EXPECT_TRUE(reply.json["success"].asBool());
  EXPECT_EQ(0, stopped.get());
  EXPECT_NE(0, access((root.Path() + "/run/orva/webapi.sock").c_str(), F_OK));
}

TEST(ServerProcess, OrvaApiPrintsTheReplyAndExitsByOutcome) {
  orvatest::TempRoot root;
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(1));
  const std::string bin = std::string(ORVA_BUILD_DIR) + "/bin/orva-api --root '" + root.Path() + "' ";
  struct Case {
    std::string args;
    int exitCode;
    const char* contains;
  };
  const Case cases[] = {
      {"ORVA.API.Info 1 query", 0, "ORVA.Test.Public"},
      {"ORVA.API.Auth 1 whoami", 0, "\"root\""},
      {"ORVA.Test.Public 1 echo '{\"a\": 5}'", 0, "\"a\" : 5"},
      {"ORVA.Test.Public 1 error", 1, "4801"},
      {"ORVA.Test.Nope 1 x", 1, "102"},
      {"ORVA.Test.Public x echo", 2, ""},
      {"ORVA.Test.Public 1 echo '[1]'", 2, ""},
      {"ORVA.Test.Public 1", 2, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    FILE* p = popen((bin + c.args + " 2>/dev/null").c_str(), "r");
    ASSERT_NE(nullptr, p);
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    int status = pclose(p);
    EXPECT_EQ(c.exitCode, WEXITSTATUS(status)) << out;
    EXPECT_NE(std::string::npos, out.find(c.contains)) << out;
  }
  // Info lists every registered API with its versions and methods.
  auto info = server.Local(Envelope("ORVA.API.Info", 1, "query"));
  EXPECT_EQ(ParseJson(R"({"versions": [1, 2], "methods": {"echo": [1, 2]}})")["versions"],
            info.json["data"]["apis"]["ORVA.Test.Admin"]["versions"]);
  EXPECT_EQ(ParseJson("[1, 2]"), info.json["data"]["apis"]["ORVA.Test.Admin"]["methods"]["echo"]);
  EXPECT_EQ(ParseJson("[1]"), info.json["data"]["apis"]["ORVA.API.Auth"]["methods"]["login"]);
  server.Stop();
  // No server: the call cannot be made.
  EXPECT_EQ(2, WEXITSTATUS(std::system((bin + "ORVA.API.Info 1 query 2>/dev/null").c_str())));
}

}  // namespace
