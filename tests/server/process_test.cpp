// Processes: sessions shared between workers, a killed worker replaced, SIGTERM draining
// the request in progress, timeouts, and the orva-api client's exit statuses.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <chrono>
#include <future>
#include <map>
#include <thread>

#include "server_fixture.h"

namespace {

using orvatest::Envelope;
using orvatest::ParseJson;

Json::Value HoldIn(const std::string& dir) {
  Json::Value p;
  p["dir"] = dir;
  return p;
}

TEST(ServerProcess, SessionFromOneWorkerIsAcceptedByAnother) {
  orvatest::ServerRoot root;
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(2));
  auto login = orvatest::TokenLogin(server);
  ASSERT_FALSE(login.sessionId.empty()) << login.reply.body;
  // A worker held in a module call accepts nothing else, so the next request goes to the
  // other one: of the two, one is not the worker that made the session.
  auto held = std::async(std::launch::async, [&] {
    return server.Api(Envelope("ORVA.Test.User", 1, "hold", HoldIn(root.path())), login.Auth());
  });
  bool started = orvatest::WaitForFile(root.path() + "/started");
  auto other = server.Api(Envelope("ORVA.Test.User", 1, "echo"), login.Auth());
  root.Write("/release", "");
  auto busy = held.get();
  ASSERT_TRUE(started) << server.Log();
  ASSERT_EQ(200, busy.status) << busy.body;
  ASSERT_EQ(200, other.status) << other.body;
  EXPECT_EQ("root", other.json["data"]["user"].asString());
  EXPECT_NE(busy.json["data"]["pid"].asInt(), other.json["data"]["pid"].asInt());
}

TEST(ServerProcess, KilledWorkerIsReplacedAndTheNextRequestServed) {
  orvatest::ServerRoot root;
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(1));
  int victim = server.Api(Envelope("ORVA.Test.Public", 1, "echo")).json["data"]["pid"].asInt();
  ASSERT_GT(victim, 0);
  ASSERT_EQ(0, kill(victim, SIGKILL));
  orvatest::HttpReply after;
  for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
       after.status != 200 && std::chrono::steady_clock::now() < end;) {
    after = server.Api(Envelope("ORVA.Test.Public", 1, "echo"));
  }
  ASSERT_EQ(200, after.status);
  EXPECT_NE(victim, after.json["data"]["pid"].asInt());
  EXPECT_NE(std::string::npos, server.Log().find("killed by signal 9"));
  EXPECT_EQ(0, server.Stop());
}

TEST(ServerProcess, SigtermFinishesTheRequestInProgressThenExits) {
  orvatest::ServerRoot root;
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(1));
  auto held = std::async(std::launch::async,
                         [&] { return server.Api(Envelope("ORVA.Test.Public", 1, "hold", HoldIn(root.path()))); });
  bool started = orvatest::WaitForFile(root.path() + "/started");
  auto stopped = std::async(std::launch::async, [&] { return server.Stop(); });
  // Release the call only once the supervisor has passed SIGTERM on to the worker.
  for (int i = 0; i < 2000 && server.Log().find("stopping: finishing requests") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  root.Write("/release", "");
  auto reply = held.get();
  ASSERT_TRUE(started);
  EXPECT_EQ(200, reply.status);
  EXPECT_TRUE(reply.json["success"].asBool()) << reply.body;
  EXPECT_EQ(0, stopped.get());
  EXPECT_NE(0, access(server.SocketPath().c_str(), F_OK));
}

// A TCP connection to the server on 127.0.0.1 with `sent` written on it; -1 on failure.
int ConnectAndSend(int port, const std::string& sent) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      write(fd, sent.data(), sent.size()) != static_cast<ssize_t>(sent.size())) {
    close(fd);
    return -1;
  }
  return fd;
}

// True when the server closes, within 10 s, a TCP connection on which `sent` was written.
bool ClosedByServer(int port, const std::string& sent) {
  int fd = ConnectAndSend(port, sent);
  bool closed = false;
  if (fd >= 0) {
    pollfd p{fd, POLLIN, 0};
    char buf[256];
    while (!closed && poll(&p, 1, 10000) > 0) closed = read(fd, buf, sizeof buf) <= 0;
  }
  if (fd >= 0) close(fd);
  return closed;
}

TEST(ServerProcess, HeaderIdleAndSessionTimeouts) {
  orvatest::ServerRoot root;
  root.Write("/etc/orva/orva.conf", "session_idle_timeout=\"1\"\n");
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(1, {"--header-timeout", "1", "--idle-timeout", "2"}));
  auto login = orvatest::TokenLogin(server);
  const std::string whoami = Envelope("ORVA.API.Auth", 1, "whoami");
  EXPECT_EQ(200, server.Api(whoami, login.Auth()).status);
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
    EXPECT_TRUE(ClosedByServer(server.Port(), c.sent));
  }
  // The server still serves; the session, idle for longer than its second, is gone.
  EXPECT_EQ(200, server.Api(Envelope("ORVA.Test.Public", 1, "ping")).status);
  EXPECT_EQ(401, server.Api(whoami, login.Auth()).status);
}

// More connections than descriptors: idle ones make room, busy ones get a 503, the log
// says so in a few lines instead of one per failed accept, and the server serves after.
TEST(ServerProcess, ConnectionFloodAgainstTheDescriptorLimit) {
  const struct {
    int nofile;
    const char* sent;      // by each flooding connection
    const char* logged;    // what the log must report
    bool firstPingServed;  // else it may be refused with 503
  } cases[] = {
      {40, "", "accept failed: Too many open files", true},
      {128, "POST /webapi/entry HTTP/1.1\r\n", "connection limit reached: 96 connections", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.nofile);
#ifdef __SANITIZE_ADDRESS__
    // The sanitizers' own checks need descriptors (UBSan reads memory through a pipe):
    // with none left they report false errors.
    if (c.nofile == 40) continue;
#endif
    orvatest::ServerRoot root;
    orvatest::Server server(root);
    server.SetDescriptorLimit(c.nofile);
    ASSERT_TRUE(server.Start(1));
    std::vector<int> flood;
    for (int i = 0; i < 300; ++i) flood.push_back(ConnectAndSend(server.Port(), c.sent));
    const std::string ping = Envelope("ORVA.Test.Public", 1, "ping");
    auto first = server.Api(ping);
    EXPECT_TRUE(first.status == 200 || (!c.firstPingServed && first.status == 503)) << first.status;
    for (int fd : flood) {
      if (fd >= 0) close(fd);
    }
    // Until the worker has seen those connections close, a ping may still be turned away.
    int status = 0;
    for (int i = 0; i < 100 && status != 200; ++i) status = server.Api(ping).status;
    EXPECT_EQ(200, status) << server.Log();
    EXPECT_EQ(0, server.Stop());
    const std::string log = server.Log();
    size_t lines = 0;
    for (size_t at = 0; (at = log.find("accept failed", at)) != std::string::npos; ++at) ++lines;
    for (size_t at = 0; (at = log.find("connection limit reached", at)) != std::string::npos; ++at) ++lines;
    EXPECT_NE(std::string::npos, log.find(c.logged)) << log;
    EXPECT_LE(lines, 4u) << log;
  }
}

// Connections that arrive together are spread over the workers, not taken by the first
// to wake; then each serves a request kept alive on them.
TEST(ServerProcess, KeptAliveConnectionsSpreadOverTheWorkers) {
  orvatest::ServerRoot root;
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(2));
  std::vector<int> fds;
  for (int i = 0; i < 200; ++i) fds.push_back(ConnectAndSend(server.Port(), ""));
  const std::string body = Envelope("ORVA.Test.Public", 1, "echo");
  const std::string request = "POST /webapi/entry HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
                              "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  std::map<int, int> perWorker;
  for (int fd : fds) {
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    std::string reply;
    char buf[4096];
    pollfd p{fd, POLLIN, 0};
    auto complete = [&] {
      const size_t end = reply.find("\r\n\r\n");
      const size_t len = reply.find("Content-Length: ");
      return end != std::string::npos && len != std::string::npos &&
             reply.size() - end - 4 >= static_cast<size_t>(atoi(reply.c_str() + len + 16));
    };
    while (!complete() && poll(&p, 1, 10000) > 0) {
      ssize_t n = read(fd, buf, sizeof buf);
      if (n <= 0) break;
      reply.append(buf, static_cast<size_t>(n));
    }
    const size_t pid = reply.find("\"pid\":");
    ASSERT_NE(std::string::npos, pid) << reply;
    ++perWorker[atoi(reply.c_str() + pid + 6)];
  }
  for (int fd : fds) close(fd);
  ASSERT_EQ(2u, perWorker.size());
  for (const auto& [pid, count] : perWorker) EXPECT_GE(count, 80) << pid;
}

TEST(ServerProcess, OrvaApiPrintsTheReplyAndExitsByOutcome) {
  orvatest::ServerRoot root;
  orvatest::Server server(root);
  ASSERT_TRUE(server.Start(1));
  const std::string bin = std::string(ORVA_BUILD_DIR) + "/bin/orva-api";
  struct Case {
    std::vector<std::string> args;
    int exitCode;
    const char* contains;
  };
  const Case cases[] = {
      {{"ORVA.API.Info", "1", "query"}, 0, "ORVA.Test.Public"},
      {{"ORVA.API.Auth", "1", "whoami"}, 0, "\"root\""},
      {{"ORVA.Test.Public", "1", "echo", R"({"a": 5})"}, 0, "\"a\" : 5"},
      {{"ORVA.Test.Public", "1", "error"}, 1, "4801"},
      {{"ORVA.Test.Nope", "1", "x"}, 1, "102"},
      {{"ORVA.Test.Public", "x", "echo"}, 2, ""},
      {{"ORVA.Test.Public", "1", "echo", "[1]"}, 2, ""},
      {{"ORVA.Test.Public", "1"}, 2, ""},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {bin, "--root", root.path()};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    SCOPED_TRACE(orvatest::Shown(argv));
    auto r = orvatest::Spawn(argv, root.path());
    EXPECT_EQ(c.exitCode, r.status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find(c.contains)) << r.out;
  }
  // Info lists every registered API with its versions and methods.
  auto apis = server.Local(Envelope("ORVA.API.Info", 1, "query")).json["data"]["apis"];
  EXPECT_EQ(ParseJson("[1, 2]"), apis["ORVA.Test.Admin"]["versions"]);
  EXPECT_EQ(ParseJson("[1, 2]"), apis["ORVA.Test.Admin"]["methods"]["echo"]);
  EXPECT_EQ(ParseJson("[1]"), apis["ORVA.API.Auth"]["methods"]["login"]);
  server.Stop();
  // No server: the call cannot be made.
  EXPECT_EQ(2, orvatest::Spawn({bin, "--root", root.path(), "ORVA.API.Info", "1", "query"}, root.path()).status);
}

}  // namespace
