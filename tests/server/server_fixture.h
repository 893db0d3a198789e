// Test support (header only): a system root staged from the build tree, the real orva-webapid
// started on it, a small blocking HTTP client, orva-api as any account, and logins.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "orvatest.h"

namespace orvatest {

using Headers = std::map<std::string, std::string>;

struct HttpReply {
  int status = 0;  // 0: no reply (connection failed or closed)
  Headers headers;  // names in lower case
  std::string body;
  Json::Value json;  // the body parsed, when it is JSON
};

// A TCP connection to 127.0.0.1:`port` with `sent` written on it; -1 when it cannot connect.
inline int Connect(int port, const std::string& sent) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  // A refused body may stop the write half way; the reply can still be there.
  (void)send(fd, sent.data(), sent.size(), MSG_NOSIGNAL);
  return fd;
}

// One HTTP reply read from `fd`: to the end of its Content-Length, else until the server closes.
inline HttpReply ReadReply(int fd) {
  std::string in;
  size_t end = std::string::npos;
  auto complete = [&] {
    end = in.find("\r\n\r\n");
    const size_t len = in.find("Content-Length: ");
    return end != std::string::npos && len < end && in.size() - end - 4 >= std::stoul(in.substr(len + 16));
  };
  char buf[65536];
  pollfd p{fd, POLLIN, 0};
  for (ssize_t n; !complete() && poll(&p, 1, 15000) > 0 && (n = read(fd, buf, sizeof buf)) > 0;) in.append(buf, n);
  HttpReply r;
  if (end == std::string::npos || in.compare(0, 7, "HTTP/1.") != 0) return r;
  r.status = atoi(in.c_str() + 9);
  std::istringstream head(in.substr(0, end + 2));  // every line with its "\r\n"
  for (std::string line; std::getline(head, line);) {
    const size_t colon = line.find(": ");
    if (colon == std::string::npos) continue;
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(), ::tolower);
    r.headers[name] = line.substr(colon + 2, line.size() - colon - 3);  // without the "\r"
  }
  r.body = in.substr(end + 4);
  r.json = TryParseJson(r.body);
  return r;
}

// The real server on a fresh root with the Auth, Info and test modules, texts "en" and "de", a
// webman folder and secrets just outside it, and a configuration.
class Server : public TempRoot {
 public:
  Server() : TempRoot("orvat-srv") {
    chmod(path().c_str(), 0755);  // other accounts must reach the socket below it
    const std::string lib = path() + "/usr/orva/lib/webapi/", webman = path() + "/usr/orva/orvaman/webman";
    Write("/usr/orva/orvaman/webman/index.html", "<!doctype html><title>ORVA</title>\n");
    Write("/usr/orva/orvaman/webman/js/app.js", "console.log('orva');\n");
    Write("/usr/orva/orvaman/webman/texts/en/strings.json", "{}\n");
    Write("/usr/orva/orvaman/webman/texts/de/strings.json", "{}\n");
    Write("/usr/orva/orvaman/secret.txt", "TOPSECRET-orvaman\n");
    Write("/secret.txt", "TOPSECRET-root\n");
    Write("/etc/orva/orva.conf", "admin_group=\"orvatadmins\"\ndefault_lang=\"en\"\n");
    std::filesystem::create_directories(lib);
    for (const std::string m : {"Auth.so", "Auth.json", "Info.so", "Info.json"}) {
      std::filesystem::create_symlink(ORVA_BUILD_DIR "/lib/webapi/ORVA.API." + m, lib + "ORVA.API." + m);
    }
    std::filesystem::create_symlink(TEST_MODULE, lib + "ORVA.Test.so");
    std::filesystem::create_symlink(TEST_MODULE_DESCRIPTOR, lib + "ORVA.Test.json");
    std::filesystem::create_symlink("/etc", webman + "/etc-link");
    std::filesystem::create_symlink("../secret.txt", webman + "/secret-link.txt");
  }
  ~Server() { Stop(); }

  // --listen 127.0.0.1:0 with at most `nofile` descriptors (0: inherited); waits until it serves.
  bool Start(int workers, const std::vector<std::string>& extraArgs = {}, int nofile = 0) {
    std::vector<std::string> args = {"/usr/bin/prlimit", "--nofile=" + std::to_string(nofile), "--",
                                     ORVA_BUILD_DIR "/bin/orva-webapid", "--root", path(),
                                     "--listen", "127.0.0.1:0", "--workers", std::to_string(workers)};
    if (nofile == 0) args.erase(args.begin(), args.begin() + 3);
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    pid_ = SpawnTo(args, path() + "/server.out", path() + "/server.log");
    // It prints its address and token once its sockets accept connections.
    WaitFor([&] { return Token().size() == 64; }, 20);
    const std::string out = Slurp(path() + "/server.out");
    port_ = Token().size() == 64 ? atoi(out.c_str() + out.find("127.0.0.1:") + 10) : 0;
    if (port_ <= 0) ADD_FAILURE() << "server did not come up:\n" << Log();
    return port_ > 0;
  }
  // SIGTERM, then waits for the exit status (-1 on a timeout).
  int Stop() {
    const int status = orvatest::Stop(pid_);
    pid_ = -1;
    return status;
  }
  int Port() const { return port_; }
  std::string SocketPath() const { return path() + "/run/orva/webapi.sock"; }
  std::string Token() const {
    const std::string out = Slurp(path() + "/server.out");
    const size_t at = out.find("token=");
    return at == std::string::npos ? "" : out.substr(at + 6, 64);
  }
  std::string Log() const { return Slurp(path() + "/server.log"); }

  HttpReply Http(const std::string& method, const std::string& target, const std::string& body = "",
                 const Headers& headers = {}) const {
    std::string req = method + " " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n";
    for (const auto& [k, v] : headers) req += k + ": " + v + "\r\n";
    if (!body.empty() || method == "POST") req += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    const int fd = Connect(port_, req + "\r\n" + body);
    if (fd < 0) return {};
    HttpReply r = ReadReply(fd);
    close(fd);
    return r;
  }
  // POST /webapi/entry.
  HttpReply Api(const std::string& body, Headers headers = {}) const {
    headers.emplace("Content-Type", "application/json");
    return Http("POST", "/webapi/entry", body, headers);
  }
  // orva-api with `args` on the Unix socket, as root or (uid != 0) as `uid`.
  Result OrvaApi(std::vector<std::string> args, uid_t uid = 0) const {
    args.insert(args.begin(), {ORVA_BUILD_DIR "/bin/orva-api", "--root", path()});
    if (uid != 0) {
      const std::string id = std::to_string(uid);
      args.insert(args.begin(), {"/usr/bin/setpriv", "--reuid=" + id, "--regid=" + id, "--clear-groups"});
    }
    return Spawn(args, path());
  }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
};

// A logged-in browser: the session cookie and its CSRF token.
struct Login {
  std::string cookie;  // "orva_session=..."
  std::string sessionId;
  std::string csrf;
  HttpReply reply;
  Headers Auth() const { return {{"Cookie", cookie}, {"X-ORVA-CSRF", csrf}}; }
};

inline Login LoginWith(const Server& server, const Json::Value& params, const Headers& headers = {}) {
  Login l;
  l.reply = server.Api(Envelope("ORVA.API.Auth", 1, "login", params), headers);
  l.cookie = l.reply.headers["set-cookie"].substr(0, l.reply.headers["set-cookie"].find(';'));
  l.sessionId = l.cookie.substr(l.cookie.find('=') + 1);  // none: npos + 1 is 0
  l.csrf = l.reply.json["data"]["csrf_token"].asString();
  return l;
}

// Login with the server's login token, optionally choosing a language.
inline Login TokenLogin(const Server& server, const std::string& lang = "", const Headers& headers = {}) {
  Json::Value p;
  p["token"] = server.Token();
  if (!lang.empty()) p["lang"] = lang;
  return LoginWith(server, p, headers);
}

}  // namespace orvatest
