#include "e2e_fixture.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;
namespace fs = std::filesystem;

namespace e2e {
namespace {

std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

pid_t SpawnTo(const std::vector<std::string>& argv, const std::string& out, const std::string& err) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&fa, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&fa);
  return pid;
}

void StopProcess(pid_t pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  for (int i = 0; i < 100; ++i) {
    if (waitpid(pid, nullptr, WNOHANG) == pid) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

}  // namespace

Result Run(const std::vector<std::string>& argv) {
  char tmpl[] = "/tmp/orva-e2e-out-XXXXXX";
  Result r;
  if (!mkdtemp(tmpl)) return r;
  const std::string dir = tmpl;
  const pid_t pid = SpawnTo(argv, dir + "/out", dir + "/err");
  if (pid > 0) {
    int st = 0;
    waitpid(pid, &st, 0);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  }
  r.out = Slurp(dir + "/out");
  r.err = Slurp(dir + "/err");
  fs::remove_all(dir);
  Json::CharReaderBuilder b;
  std::string errs;
  std::istringstream in(r.out);
  if (!Json::parseFromStream(b, in, &r.json, &errs)) r.json = Json::Value();
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
  StopProcess(daemon_);
  StopProcess(server_);
  if (!path_.empty() && getenv("ORVA_E2E_KEEP") == nullptr) fs::remove_all(path_);
}

pid_t StagedRoot::Start(const std::vector<std::string>& argv, const std::string& log) {
  return SpawnTo(argv, path_ + "/" + log, path_ + "/" + log + ".err");
}

bool StagedRoot::StartServer() {
  server_ = Start({Bin("orva-webapid"), "--root", path_, "--workers", "2"}, "server.log");
  if (server_ <= 0) return false;
  const std::string sock = path_ + "/run/orva/webapi.sock";
  for (int i = 0; i < 200; ++i) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", sock.c_str());
    const bool up = connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    if (up) return true;
    if (waitpid(server_, nullptr, WNOHANG) == server_) {
      server_ = -1;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

bool StagedRoot::StartDaemon() {
  daemon_ = Start({Bin("orva-schedulerd"), "--root", path_}, "daemon.log");
  if (daemon_ <= 0) return false;
  // Ready once it has read the store and logged what it watches.
  for (int i = 0; i < 200; ++i) {
    if (DaemonLog().find("watching") != std::string::npos) return true;
    if (waitpid(daemon_, nullptr, WNOHANG) == daemon_) {
      daemon_ = -1;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

Result StagedRoot::Api(const std::string& api, int version, const std::string& method,
                       const Json::Value& params) const {
  Json::StreamWriterBuilder w;
  w["indentation"] = "";
  return Run({Bin("orva-api"), "--root", path_, api, std::to_string(version), method, Json::writeString(w, params)});
}

Json::Value StagedRoot::Post(const std::string& api, int version, const std::string& method,
                             const Json::Value& params) const {
  Json::Value env;
  env["api"] = api;
  env["version"] = version;
  env["method"] = method;
  env["params"] = params;
  Json::StreamWriterBuilder w;
  w["indentation"] = "";
  const std::string body = Json::writeString(w, env);
  const std::string req = "POST /webapi/entry HTTP/1.0\r\nContent-Type: application/json\r\nContent-Length: " +
                          std::to_string(body.size()) + "\r\n\r\n" + body;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s/run/orva/webapi.sock", path_.c_str());
  std::string reply;
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0 &&
      write(fd, req.data(), req.size()) == static_cast<ssize_t>(req.size())) {
    char buf[65536];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) reply.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  const size_t start = reply.find("\r\n\r\n");
  Json::Value v;
  std::istringstream in(start == std::string::npos ? "" : reply.substr(start + 4));
  std::string errs;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &v, &errs)) v = Json::Value();
  return v;
}

std::string StagedRoot::ServerLog() const { return Slurp(path_ + "/server.log") + Slurp(path_ + "/server.log.err"); }
std::string StagedRoot::DaemonLog() const { return Slurp(path_ + "/daemon.log") + Slurp(path_ + "/daemon.log.err"); }

}  // namespace e2e
