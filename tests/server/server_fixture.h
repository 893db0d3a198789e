// Test support: a temporary system root staged from the build tree, the real
// orva-webapid started on it, and a small blocking HTTP client (TCP or Unix socket).
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace orvatest {

struct HttpReply {
  int status = 0;  // 0: no reply (connection failed or closed)
  std::multimap<std::string, std::string> headers;  // names in lower case
  std::string body;
  Json::Value json;  // the body parsed, when it is JSON
  std::string Header(const std::string& lowerName) const;
};

Json::Value ParseJson(const std::string& text);
std::string WriteJson(const Json::Value& v);
// {"api": .., "version": .., "method": .., "params": ..}
std::string Envelope(const std::string& api, int version, const std::string& method,
                     const Json::Value& params = Json::Value(Json::objectValue));

// Lays out a system root in a fresh temporary folder: the Auth, Info and test modules
// with their descriptors, texts "en" and "de", a webman folder with index.html, and a
// configuration. Removed by the destructor.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  const std::string& Path() const { return path_; }
  void WriteFile(const std::string& relative, const std::string& text, mode_t mode = 0644) const;

 private:
  std::string path_;
};

class Server {
 public:
  explicit Server(const TempRoot& root) : root_(root) {}
  ~Server();
  // Starts orva-webapid with --listen 127.0.0.1:0 and waits until the Unix socket
  // accepts connections and the TCP port is known.
  bool Start(int workers, const std::vector<std::string>& extraArgs = {});
  // SIGTERM; waits for the exit. Returns the exit status (-1 on a timeout).
  int Stop(int timeoutMs = 15000);
  pid_t Pid() const { return pid_; }
  int Port() const { return port_; }
  std::string SocketPath() const;
  std::string Token() const;
  std::string Log() const;

  // One request on a new TCP connection.
  HttpReply Http(const std::string& method, const std::string& target, const std::string& body = "",
                 const std::map<std::string, std::string>& headers = {}) const;
  // POST /webapi/entry over TCP.
  HttpReply Api(const std::string& body, const std::map<std::string, std::string>& headers = {}) const;
  // POST /webapi/entry over the Unix socket, as this process's account.
  HttpReply Local(const std::string& body) const;
  // The same in a child process running as `uid`/`gid`.
  HttpReply LocalAs(uid_t uid, gid_t gid, const std::string& body) const;

 private:
  const TempRoot& root_;
  pid_t pid_ = -1;
  int port_ = 0;
};

// A logged-in browser: the session cookie and its CSRF token.
struct Login {
  std::string cookie;  // "orva_session=..."
  std::string sessionId;
  std::string csrf;
  HttpReply reply;
  std::map<std::string, std::string> Headers() const { return {{"Cookie", cookie}, {"X-ORVA-CSRF", csrf}}; }
};
Login LoginWith(const Server& server, const Json::Value& params,
                const std::map<std::string, std::string>& headers = {});

// A local account made for one test ("orvat" + a unique suffix), removed afterwards.
class TestUser {
 public:
  explicit TestUser(const std::string& password = "");
  ~TestUser();
  bool Ok() const { return ok_; }
  const std::string& Name() const { return name_; }
  uid_t Uid() const { return uid_; }
  gid_t Gid() const { return gid_; }

 private:
  std::string name_;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
  bool ok_ = false;
};

// Installs the PAM service file orva-webapi when the system has none.
bool EnsurePamService();

}  // namespace orvatest
