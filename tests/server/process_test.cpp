// Processes: sessions shared between workers, a killed worker replaced, SIGTERM
// draining the request in progress, and the orva-api client's exit statuses.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
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
    return server.Api(Envelope("ORVA.Test.User", 1, "sleep", ParseJson(R"({"ms": 3000})")), login.Headers());
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
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

// Seconds until the server closes a TCP connection on which `sent` was written, or -1
// when it stays open for 10 s.
int SecondsUntilClosed(int port, const std::string& sent) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -2;
  }
  if (!sent.empty() && write(fd, sent.data(), sent.size()) != static_cast<ssize_t>(sent.size())) {
    close(fd);
    return -2;
  }
  auto start = std::chrono::steady_clock::now();
  int result = -1;
  pollfd p{fd, POLLIN, 0};
  while (poll(&p, 1, 10000) > 0) {
    char buf[256];
    if (read(fd, buf, sizeof buf) <= 0) {
      result = static_cast<int>(
          std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count());
      break;
    }
  }
  close(fd);
  return result;
}

TEST(ServerProcess, HeaderAndIdleTimeoutsCloseConnections) {
  orvatest::TempRoot root;
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(1, {"--header-timeout", "1", "--idle-timeout", "2"}));
  struct Case {
    const char* name;
    std::string sent;
  };
  const Case cases[] = {
      {"silent connection (idle)", ""},
      {"header never finished", "POST /webapi/entry HTTP/1.1\r\nHost: x\r\n"},
      {"body never finished", "POST /webapi/entry HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\n{"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    int s = SecondsUntilClosed(server.Port(), c.sent);
    EXPECT_GE(s, 0);  // closed, not left open
  }
  // The server still serves.
  EXPECT_EQ(200, server.Api(Envelope("ORVA.Test.Public", 1, "ping")).status);
}

}  // namespace
