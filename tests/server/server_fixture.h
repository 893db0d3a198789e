// Test support: a system root staged from the build tree, the real orva-webapid started
// on it, a small blocking HTTP client (TCP or Unix socket), and logins.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/types.h>

#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "orvatest.h"

namespace orvatest {

using Headers = std::map<std::string, std::string>;

struct HttpReply {
  int status = 0;  // 0: no reply (connection failed or closed)
  std::multimap<std::string, std::string> headers;  // names in lower case
  std::string body;
  Json::Value json;  // the body parsed, when it is JSON
  std::string Header(const std::string& lowerName) const;
};

// A root with the Auth, Info and test modules, texts "en" and "de", a webman folder and
// secrets just outside it, and a configuration.
class ServerRoot : public TempRoot {
 public:
  ServerRoot();
};

class Server {
 public:
  explicit Server(const ServerRoot& root) : root_(root) {}
  ~Server();
  // --listen 127.0.0.1:0; waits until the Unix socket accepts and the TCP port is known.
  bool Start(int workers, const std::vector<std::string>& extraArgs = {});
  // RLIMIT_NOFILE of the server started next (0: inherited).
  void SetDescriptorLimit(int limit) { nofile_ = limit; }
  // SIGTERM, then waits for the exit status (-1 on a timeout).
  int Stop();
  int Port() const { return port_; }
  std::string SocketPath() const { return root_.path() + "/run/orva/webapi.sock"; }
  std::string Token() const;
  std::string Log() const { return Slurp(root_.path() + "/server.log"); }

  HttpReply Http(const std::string& method, const std::string& target, const std::string& body = "",
                 const Headers& headers = {}) const;
  // POST /webapi/entry over TCP; over the Unix socket as this process's account or, in
  // a child process, as `uid`/`gid`.
  HttpReply Api(const std::string& body, const Headers& headers = {}) const;
  HttpReply Local(const std::string& body) const;
  HttpReply LocalAs(uid_t uid, gid_t gid, const std::string& body) const;

 private:
  const ServerRoot& root_;
  pid_t pid_ = -1;
  int port_ = 0;
  int nofile_ = 0;
};

// One server with one worker on a fresh root; its log is shown when the test fails.
class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.Start(1)); }
  void TearDown() override {
    if (HasFailure()) std::cerr << "server log:\n" << server.Log();
  }
  ServerRoot root;
  Server server{root};
};

// A logged-in browser: the session cookie and its CSRF token.
struct Login {
  std::string cookie;  // "orva_session=..."
  std::string sessionId;
  std::string csrf;
  HttpReply reply;
  Headers Auth() const { return {{"Cookie", cookie}, {"X-ORVA-CSRF", csrf}}; }
};
Login LoginWith(const Server& server, const Json::Value& params, const Headers& headers = {});
// Login with the server's login token, optionally choosing a language.
Login TokenLogin(const Server& server, const std::string& lang = "", const Headers& headers = {});

// Waits up to 20 s for a file to exist.
inline bool WaitForFile(const std::string& path) {
  return WaitFor([&] { return access(path.c_str(), F_OK) == 0; }, 20);
}

// Installs the PAM service file orva-webapi when the system has none.
bool EnsurePamService();

}  // namespace orvatest
