#include "server_fixture.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>  // before Asio: its awaitable.hpp uses std::exchange

#include <boost/algorithm/string.hpp>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

namespace orvatest {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

namespace {

// One request on a new connection to `endpoint` (TCP or Unix socket).
template <class Endpoint>
HttpReply Exchange(const Endpoint& endpoint, const std::string& method, const std::string& target,
                   const std::string& body, const Headers& headers) {
  HttpReply reply;
  asio::io_context ioc;
  typename Endpoint::protocol_type::socket socket(ioc);
  beast::error_code ec;
  socket.connect(endpoint, ec);
  if (ec) return reply;
  timeval tv{15, 0};
  setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(socket.native_handle(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  http::request<http::string_body> req;
  req.method_string(method);
  req.target(target);
  req.version(11);
  req.set(http::field::host, "localhost");
  req.keep_alive(false);
  for (const auto& [k, v] : headers) req.set(k, v);
  req.body() = body;
  if (!body.empty() || method == "POST") req.prepare_payload();
  http::write(socket, req, ec);
  // A refused body may stop the write half way; the reply can still be there.
  beast::flat_buffer buf;
  http::response_parser<http::string_body> parser;
  parser.body_limit(64 * 1024 * 1024);
  http::read(socket, buf, parser, ec);
  if (ec && !parser.is_header_done()) return reply;
  const auto& res = parser.get();
  reply.status = static_cast<int>(res.result_int());
  for (const auto& f : res) {
    reply.headers.emplace(boost::to_lower_copy(std::string(f.name_string())), std::string(f.value()));
  }
  reply.body = res.body();
  reply.json = TryParseJson(reply.body);
  return reply;
}

}  // namespace

std::string HttpReply::Header(const std::string& lowerName) const {
  auto it = headers.find(lowerName);
  return it == headers.end() ? "" : it->second;
}

ServerRoot::ServerRoot() : TempRoot("orvat-srv") {
  if (path().empty()) return;
  chmod(path().c_str(), 0755);  // other accounts must reach the socket below it
  const std::string webman = path() + "/usr/orva/orvaman/webman";
  for (const std::string d : {"/usr/orva/lib/webapi", "/usr/orva/orvaman/webman/texts/en",
                              "/usr/orva/orvaman/webman/texts/de", "/usr/orva/orvaman/webman/js", "/etc/orva",
                              "/run/orva"}) {
    std::filesystem::create_directories(path() + d);
  }
  const std::string lib = path() + "/usr/orva/lib/webapi/";
  const std::string built = std::string(ORVA_BUILD_DIR) + "/lib/webapi/";
  const std::pair<std::string, std::string> links[] = {
      {built + "ORVA.API.Auth.so", lib + "ORVA.API.Auth.so"},
      {built + "ORVA.API.Auth.json", lib + "ORVA.API.Auth.json"},
      {built + "ORVA.API.Info.so", lib + "ORVA.API.Info.so"},
      {built + "ORVA.API.Info.json", lib + "ORVA.API.Info.json"},
      {TEST_MODULE, lib + "ORVA.Test.so"},
      {TEST_MODULE_DESCRIPTOR, lib + "ORVA.Test.json"},
      {"/etc", webman + "/etc-link"},
      {"../secret.txt", webman + "/secret-link.txt"},
  };
  for (const auto& [target, link] : links) EXPECT_EQ(0, symlink(target.c_str(), link.c_str())) << link;
  Write("/usr/orva/orvaman/webman/index.html", "<!doctype html><title>ORVA</title>\n");
  Write("/usr/orva/orvaman/webman/js/app.js", "console.log('orva');\n");
  Write("/usr/orva/orvaman/webman/texts/en/strings.json", "{}\n");
  Write("/usr/orva/orvaman/webman/texts/de/strings.json", "{}\n");
  Write("/usr/orva/orvaman/secret.txt", "TOPSECRET-orvaman\n");
  Write("/secret.txt", "TOPSECRET-root\n");
  Write("/etc/orva/orva.conf", "admin_group=\"orvatadmins\"\ndefault_lang=\"en\"\n");
}

Server::~Server() {
  if (pid_ > 0) Stop();
}

std::string Server::Token() const {
  std::string t = Slurp(root_.path() + "/run/orva/login.token");
  boost::trim(t);
  return t;
}

bool Server::Start(int workers, const std::vector<std::string>& extraArgs) {
  std::string bin = std::string(ORVA_BUILD_DIR) + "/bin/orva-webapid";
  std::vector<std::string> args = {bin, "--root", root_.path(), "--listen", "127.0.0.1:0", "--workers",
                                   std::to_string(workers)};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  std::string log = root_.path() + "/server.log";
  pid_ = fork();
  if (pid_ == 0) {
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(fd, 1);
    dup2(fd, 2);
    const rlimit rl{static_cast<rlim_t>(nofile_), static_cast<rlim_t>(nofile_)};
    if (nofile_ > 0 && setrlimit(RLIMIT_NOFILE, &rl) != 0) _exit(126);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(bin.c_str(), argv.data());
    _exit(127);
  }
  bool exited = false;
  const bool up = WaitFor([&] {
    int status;
    if ((exited = waitpid(pid_, &status, WNOHANG) == pid_)) return true;
    asio::io_context ioc;
    asio::local::stream_protocol::socket s(ioc);
    beast::error_code ec;
    s.connect(asio::local::stream_protocol::endpoint(SocketPath()), ec);
    return !ec;
  }, 20);
  if (exited) {
    pid_ = -1;
    ADD_FAILURE() << "server exited at start:\n" << Log();
    return false;
  }
  if (!up) {
    ADD_FAILURE() << "server did not come up:\n" << Log();
    return false;
  }
  std::string listen = Slurp(root_.path() + "/run/orva/webapi.listen");
  port_ = atoi(listen.substr(listen.rfind(':') + 1).c_str());
  return port_ > 0;
}

int Server::Stop() {
  const int status = orvatest::Stop(pid_);
  pid_ = -1;
  return status;
}

HttpReply Server::Http(const std::string& method, const std::string& target, const std::string& body,
                       const Headers& headers) const {
  return Exchange(asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port_)),
                  method, target, body, headers);
}

HttpReply Server::Api(const std::string& body, const Headers& headers) const {
  auto h = headers;
  h.emplace("Content-Type", "application/json");
  return Http("POST", "/webapi/entry", body, h);
}

HttpReply Server::Local(const std::string& body) const {
  return Exchange(asio::local::stream_protocol::endpoint(SocketPath()), "POST", "/webapi/entry", body,
                  {{"Content-Type", "application/json"}});
}

HttpReply Server::LocalAs(uid_t uid, gid_t gid, const std::string& body) const {
  int fds[2];
  if (pipe(fds) != 0) return {};
  pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) _exit(3);
    HttpReply r = Local(body);
    std::string out = std::to_string(r.status) + "\n" + r.body;
    ssize_t ignored = write(fds[1], out.data(), out.size());
    (void)ignored;
    _exit(0);
  }
  close(fds[1]);
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  waitpid(child, nullptr, 0);
  HttpReply r;
  size_t nl = out.find('\n');
  if (nl == std::string::npos) return r;
  r.status = atoi(out.substr(0, nl).c_str());
  r.body = out.substr(nl + 1);
  r.json = TryParseJson(r.body);
  return r;
}

Login LoginWith(const Server& server, const Json::Value& params, const Headers& headers) {
  Login l;
  l.reply = server.Api(Envelope("ORVA.API.Auth", 1, "login", params), headers);
  std::string setCookie = l.reply.Header("set-cookie");
  size_t eq = setCookie.find('=');
  size_t semi = setCookie.find(';');
  if (eq != std::string::npos && semi != std::string::npos) {
    l.sessionId = setCookie.substr(eq + 1, semi - eq - 1);
    l.cookie = setCookie.substr(0, semi);
  }
  l.csrf = l.reply.json["data"]["csrf_token"].asString();
  return l;
}

Login TokenLogin(const Server& server, const std::string& lang, const Headers& headers) {
  Json::Value p;
  p["token"] = server.Token();
  if (!lang.empty()) p["lang"] = lang;
  return LoginWith(server, p, headers);
}

bool EnsurePamService() {
  const char* path = "/etc/pam.d/orva-webapi";
  if (access(path, F_OK) == 0) return true;
  std::string tmp = std::string(path) + ".orvat" + std::to_string(getpid());
  std::string text = Slurp(std::string(ORVA_SOURCE_DIR) + "/platform/server/pam/orva-webapi");
  if (text.empty()) return false;
  std::ofstream(tmp) << text;
  chmod(tmp.c_str(), 0644);
  // link() refuses to replace: a test running beside this one may have made it.
  bool ok = link(tmp.c_str(), path) == 0 || errno == EEXIST;
  unlink(tmp.c_str());
  return ok;
}

}  // namespace orvatest
