#include "server_fixture.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>
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

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void SetTimeouts(int fd) {
  timeval tv{15, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

template <class Socket>
HttpReply Exchange(Socket& socket, const std::string& method, const std::string& target, const std::string& body,
                   const std::map<std::string, std::string>& headers) {
  HttpReply reply;
  http::request<http::string_body> req;
  req.method_string(method);
  req.target(target);
  req.version(11);
  req.set(http::field::host, "localhost");
  req.keep_alive(false);
  for (const auto& [k, v] : headers) req.set(k, v);
  req.body() = body;
  if (!body.empty() || method == "POST") req.prepare_payload();
  beast::error_code ec;
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
  Json::CharReaderBuilder b;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  std::string errs;
  Json::Value v;
  if (r->parse(reply.body.data(), reply.body.data() + reply.body.size(), &v, &errs)) reply.json = v;
  return reply;
}

std::atomic<int> gUserCounter{0};

}  // namespace

std::string HttpReply::Header(const std::string& lowerName) const {
  auto it = headers.find(lowerName);
  return it == headers.end() ? "" : it->second;
}

Json::Value ParseJson(const std::string& text) {
  Json::CharReaderBuilder b;
  std::unique_ptr<Json::CharReader> r(b.newCharReader());
  std::string errs;
  Json::Value v;
  EXPECT_TRUE(r->parse(text.data(), text.data() + text.size(), &v, &errs)) << text;
  return v;
}

std::string WriteJson(const Json::Value& v) {
  Json::StreamWriterBuilder b;
  b["indentation"] = "";
  return Json::writeString(b, v);
}

std::string Envelope(const std::string& api, int version, const std::string& method, const Json::Value& params) {
  Json::Value e;
  e["api"] = api;
  e["version"] = version;
  e["method"] = method;
  e["params"] = params;
  return WriteJson(e);
}

TempRoot::TempRoot() {
  char tmpl[] = "/tmp/orvat-srv-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) {
    ADD_FAILURE() << "mkdtemp failed";
    return;
  }
  path_ = tmpl;
  // Other accounts must reach the socket below it.
  chmod(path_.c_str(), 0755);
  for (const char* d : {"/usr/orva/lib/webapi", "/usr/orva/orvaman/webman/texts/en", "/usr/orva/orvaman/webman/texts/de",
                        "/usr/orva/orvaman/webman/js", "/etc/orva", "/var/lib/orva", "/run/orva"}) {
    std::string cmd = "mkdir -p '" + path_ + d + "'";
    EXPECT_EQ(0, std::system(cmd.c_str()));
  }
  const std::string lib = path_ + "/usr/orva/lib/webapi/";
  const std::string built = std::string(ORVA_BUILD_DIR) + "/lib/webapi/";
  for (const char* m : {"ORVA.API.Auth", "ORVA.API.Info"}) {
    EXPECT_EQ(0, symlink((built + m + ".so").c_str(), (lib + m + ".so").c_str()));
    EXPECT_EQ(0, symlink((built + m + ".json").c_str(), (lib + m + ".json").c_str()));
  }
  EXPECT_EQ(0, symlink(TEST_MODULE, (lib + "ORVA.Test.so").c_str()));
  EXPECT_EQ(0, symlink(TEST_MODULE_DESCRIPTOR, (lib + "ORVA.Test.json").c_str()));
  WriteFile("/usr/orva/orvaman/webman/index.html", "<!doctype html><title>ORVA</title>\n");
  WriteFile("/usr/orva/orvaman/webman/js/app.js", "console.log('orva');\n");
  WriteFile("/usr/orva/orvaman/webman/texts/en/strings.json", "{}\n");
  WriteFile("/usr/orva/orvaman/webman/texts/de/strings.json", "{}\n");
  WriteFile("/usr/orva/orvaman/secret.txt", "TOPSECRET-orvaman\n");
  WriteFile("/secret.txt", "TOPSECRET-root\n");
  EXPECT_EQ(0, symlink("/etc", (path_ + "/usr/orva/orvaman/webman/etc-link").c_str()));
  EXPECT_EQ(0, symlink("../secret.txt", (path_ + "/usr/orva/orvaman/webman/secret-link.txt").c_str()));
  WriteFile("/etc/orva/orva.conf", "admin_group=\"orvatadmins\"\ndefault_lang=\"en\"\n");
}

TempRoot::~TempRoot() {
  if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
}

void TempRoot::WriteFile(const std::string& relative, const std::string& text, mode_t mode) const {
  std::string p = path_ + relative;
  std::ofstream(p, std::ios::trunc) << text;
  chmod(p.c_str(), mode);
}

Server::~Server() {
  if (pid_ > 0) Stop();
}

std::string Server::SocketPath() const { return root_.Path() + "/run/orva/webapi.sock"; }

std::string Server::Token() const {
  std::string t = ReadFile(root_.Path() + "/run/orva/login.token");
  boost::trim(t);
  return t;
}

std::string Server::Log() const { return ReadFile(root_.Path() + "/server.log"); }

bool Server::Start(int workers, const std::vector<std::string>& extraArgs) {
  std::string bin = std::string(ORVA_BUILD_DIR) + "/bin/orva-webapid";
  std::vector<std::string> args = {bin, "--root", root_.Path(), "--listen", "127.0.0.1:0", "--workers",
                                   std::to_string(workers)};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  std::string log = root_.Path() + "/server.log";
  pid_ = fork();
  if (pid_ == 0) {
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(fd, 1);
    dup2(fd, 2);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(bin.c_str(), argv.data());
    _exit(127);
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      ADD_FAILURE() << "server exited at start:\n" << Log();
      return false;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string sock = SocketPath();
    memcpy(addr.sun_path, sock.c_str(), sock.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    bool up = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    if (up) {
      std::string listen = ReadFile(root_.Path() + "/run/orva/webapi.listen");
      port_ = atoi(listen.substr(listen.rfind(':') + 1).c_str());
      return port_ > 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ADD_FAILURE() << "server did not come up:\n" << Log();
  return false;
}

int Server::Stop(int timeoutMs) {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  int status = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  kill(pid_, SIGKILL);
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return -1;
}

HttpReply Server::Http(const std::string& method, const std::string& target, const std::string& body,
                       const std::map<std::string, std::string>& headers) const {
  asio::io_context ioc;
  asio::ip::tcp::socket s(ioc);
  beast::error_code ec;
  s.connect({asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port_)}, ec);
  if (ec) return {};
  SetTimeouts(s.native_handle());
  return Exchange(s, method, target, body, headers);
}

HttpReply Server::Api(const std::string& body, const std::map<std::string, std::string>& headers) const {
  auto h = headers;
  h.emplace("Content-Type", "application/json");
  return Http("POST", "/webapi/entry", body, h);
}

HttpReply Server::Local(const std::string& body) const {
  asio::io_context ioc;
  asio::local::stream_protocol::socket s(ioc);
  beast::error_code ec;
  s.connect(asio::local::stream_protocol::endpoint(SocketPath()), ec);
  if (ec) return {};
  SetTimeouts(s.native_handle());
  return Exchange(s, "POST", "/webapi/entry", body, {{"Content-Type", "application/json"}});
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
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status;
  waitpid(child, &status, 0);
  HttpReply r;
  size_t nl = out.find('\n');
  if (nl == std::string::npos) return r;
  r.status = atoi(out.substr(0, nl).c_str());
  r.body = out.substr(nl + 1);
  Json::CharReaderBuilder b;
  std::unique_ptr<Json::CharReader> rd(b.newCharReader());
  std::string errs;
  rd->parse(r.body.data(), r.body.data() + r.body.size(), &r.json, &errs);
  return r;
}

Login LoginWith(const Server& server, const Json::Value& params, const std::map<std::string, std::string>& headers) {
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

TestUser::TestUser(const std::string& password) {
  name_ = "orvat" + std::to_string(getpid()) + "u" + std::to_string(gUserCounter++);
  // useradd and userdel refuse while another one holds the account files' lock.
  std::string cmd = "useradd -M -s /bin/sh '" + name_ + "' >/dev/null 2>&1";
  int rc = -1;
  for (int i = 0; i < 50 && rc != 0; ++i) {
    if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    rc = std::system(cmd.c_str());
  }
  if (rc != 0) {
    ADD_FAILURE() << "useradd " << name_ << " failed";
    return;
  }
  if (!password.empty()) {
    FILE* p = popen("chpasswd", "w");
    if (p == nullptr) return;
    fprintf(p, "%s:%s\n", name_.c_str(), password.c_str());
    if (pclose(p) != 0) {
      ADD_FAILURE() << "chpasswd failed";
      return;
    }
  }
  passwd* pw = getpwnam(name_.c_str());
  if (pw == nullptr) return;
  uid_ = pw->pw_uid;
  gid_ = pw->pw_gid;
  ok_ = true;
}

TestUser::~TestUser() {
  if (uid_ == 0 && !ok_ && getpwnam(name_.c_str()) == nullptr) return;
  std::string cmd = "userdel '" + name_ + "' >/dev/null 2>&1";
  int rc = -1;
  for (int i = 0; i < 50 && rc != 0; ++i) {
    if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    rc = std::system(cmd.c_str());
  }
  if (rc != 0) ADD_FAILURE() << "userdel " << name_ << " failed";
}

bool EnsurePamService() {
  const char* path = "/etc/pam.d/orva-webapi";
  if (access(path, F_OK) == 0) return true;
  std::string tmp = std::string(path) + ".orvat" + std::to_string(getpid());
  std::string text = ReadFile(std::string(ORVA_SOURCE_DIR) + "/platform/server/pam/orva-webapi");
  if (text.empty()) return false;
  std::ofstream(tmp) << text;
  chmod(tmp.c_str(), 0644);
  // link() refuses to replace: a test running beside this one may have made it.
  bool ok = link(tmp.c_str(), path) == 0 || errno == EEXIST;
  unlink(tmp.c_str());
  return ok;
}

}  // namespace orvatest
