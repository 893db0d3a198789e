#include "e2e_fixture.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;
using orvatest::Slurp;

namespace e2e {
namespace {

// A connection to the server's Unix socket under `root`; -1 when it refuses.
int Connect(const std::string& root) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s/run/orva/webapi.sock", root.c_str());
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0) return fd;
  close(fd);
  return -1;
}

}  // namespace

Result Run(const std::vector<std::string>& argv) {
  char tmpl[] = "/tmp/orva-e2e-out-XXXXXX";
  if (!mkdtemp(tmpl)) return {};
  Result r = orvatest::Spawn(argv, tmpl);
  fs::remove_all(tmpl);
  return r;
}

StagedRoot::StagedRoot() {
  char tmpl[] = "/tmp/orva-e2e-XXXXXX";
  if (!mkdtemp(tmpl)) return;
  path_ = tmpl;
  setenv("ORVA_ROOT", path_.c_str(), 1);
  const Result r = Run({"/bin/bash", std::string(ORVA_SOURCE_DIR) + "/scripts/stage.sh", ORVA_BUILD_DIR, path_});
  ok_ = r.status == 0;
  if (!ok_) fprintf(stderr, "staging failed: %s%s\n", r.out.c_str(), r.err.c_str());
}

StagedRoot::~StagedRoot() {
  orvatest::Stop(daemon_, 5);
  orvatest::Stop(server_, 5);
  if (!path_.empty() && getenv("ORVA_E2E_KEEP") == nullptr) fs::remove_all(path_);
}

bool StagedRoot::Start(pid_t& pid, const std::vector<std::string>& argv, const std::string& log,
                       const std::function<bool()>& ready) {
  pid = orvatest::SpawnTo(argv, path_ + "/" + log, path_ + "/" + log + ".err");
  bool exited = false;
  const bool up = pid > 0 && orvatest::WaitFor([&] {
    return ready() || (exited = waitpid(pid, nullptr, WNOHANG) == pid);
  });
  if (exited) pid = -1;
  return up && !exited;
}

bool StagedRoot::StartServer() {
  return Start(server_, {Bin("orva-webapid"), "--root", path_, "--workers", "2"}, "server.log", [&] {
    const int fd = Connect(path_);
    return fd >= 0 && close(fd) == 0;
  });
}

bool StagedRoot::StartDaemon() {
  // Ready once it has read the store and logged what it watches.
  return Start(daemon_, {Bin("orva-schedulerd"), "--root", path_}, "daemon.log",
               [&] { return DaemonLog().find("watching") != std::string::npos; });
}

Result StagedRoot::Api(const std::string& api, int version, const std::string& method,
                       const Json::Value& params) const {
  return Run({Bin("orva-api"), "--root", path_, api, std::to_string(version), method, orvatest::WriteJson(params)});
}

Json::Value StagedRoot::Post(const std::string& api, int version, const std::string& method,
                             const Json::Value& params) const {
  const std::string body = orvatest::Envelope(api, version, method, params);
  const std::string req = "POST /webapi/entry HTTP/1.0\r\nContent-Type: application/json\r\nContent-Length: " +
                          std::to_string(body.size()) + "\r\n\r\n" + body;
  const int fd = Connect(path_);
  std::string reply;
  if (fd >= 0 && write(fd, req.data(), req.size()) == static_cast<ssize_t>(req.size())) {
    char buf[65536];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) reply.append(buf, static_cast<size_t>(n));
  }
  if (fd >= 0) close(fd);
  const size_t start = reply.find("\r\n\r\n");
  return orvatest::TryParseJson(start == std::string::npos ? "" : reply.substr(start + 4));
}

std::string StagedRoot::ServerLog() const { return Slurp(path_ + "/server.log") + Slurp(path_ + "/server.log.err"); }
std::string StagedRoot::DaemonLog() const { return Slurp(path_ + "/daemon.log") + Slurp(path_ + "/daemon.log.err"); }

}  // namespace e2e
