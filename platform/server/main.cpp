// orva-webapid: the web API server. The supervisor opens the listening sockets, writes
// the login token, forks the worker processes and restarts any that dies.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "core/file.h"
#include "core/log.h"
#include "core/program.h"
#include "core/root.h"
#include "server.h"
#include "webapi/session.h"

namespace {

void Usage(FILE* out) {
  fprintf(out,
          "Usage: orva-webapid [--root DIR] [--listen ADDR:PORT] [--workers N]\n"
          "                    [--header-timeout S] [--idle-timeout S]\n"
          "Serves the web API and the web UI. Always listens on the Unix socket\n"
          "run/orva/webapi.sock of the system root; on TCP too with --listen (port 0 picks\n"
          "a free port, written to run/orva/webapi.listen). Runs in the foreground and logs\n"
          "to syslog and stderr; SIGTERM finishes the requests in progress, then exits.\n"
          "  --root DIR        system root (default: $ORVA_ROOT, else /)\n"
          "  --listen ADDR:PORT  TCP address, e.g. 127.0.0.1:5080 or [::1]:5080\n"
          "  --workers N       worker processes (default: number of cores)\n"
          "  --header-timeout S  seconds to receive a request header (default 10); the body\n"
          "                    may take three times as long\n"
          "  --idle-timeout S  seconds a kept-alive connection may wait (default 60)\n"
          "  --help            this text\n");
}

bool ParseInt(const char* s, int min, int max, int* out) {
  long v = 0;
  if (!ORVA::ParseLong(s, min, max, &v)) return false;
  *out = static_cast<int>(v);
  return true;
}

bool WriteFile(const std::string& path, const std::string& text, mode_t mode) {
  if (ORVA::WriteFileAtomic(path, text, mode)) return true;
  ORVA_LOG(LOG_ERR, "cannot write %s: %m", path.c_str());
  return false;
}

int OpenUnixSocket(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    ORVA_LOG(LOG_ERR, "socket path too long: %s", path.c_str());
    return -1;
  }
  memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  // A socket file that nobody answers on is left over from a server that died.
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
    ORVA_LOG(LOG_ERR, "another server is running on %s", path.c_str());
    close(fd);
    return -1;
  }
  close(fd);
  unlink(path.c_str());
  fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || chmod(path.c_str(), 0666) != 0 ||
      listen(fd, 256) != 0) {
    ORVA_LOG(LOG_ERR, "cannot listen on %s: %m", path.c_str());
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}

// "127.0.0.1:5080", "[::1]:5080", "localhost:0". Writes the bound address to `bound`.
int OpenTcpSocket(const std::string& address, std::string* bound) {
  size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0) {
    ORVA_LOG(LOG_ERR, "--listen wants ADDR:PORT, not \"%s\"", address.c_str());
    return -1;
  }
  std::string host = address.substr(0, colon);
  std::string port = address.substr(colon + 1);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* res = nullptr;
  int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &res);
  if (rc != 0 || res == nullptr) {
    ORVA_LOG(LOG_ERR, "cannot resolve %s: %s", address.c_str(), gai_strerror(rc));
    return -1;
  }
  int fd = socket(res->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int one = 1;
  if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
      bind(fd, res->ai_addr, res->ai_addrlen) != 0 || listen(fd, 512) != 0) {
    ORVA_LOG(LOG_ERR, "cannot listen on %s: %m", address.c_str());
    if (fd >= 0) close(fd);
    freeaddrinfo(res);
    return -1;
  }
  freeaddrinfo(res);
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len);
  char name[INET6_ADDRSTRLEN] = "";
  int p = 0;
  if (ss.ss_family == AF_INET6) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&ss);
    inet_ntop(AF_INET6, &a->sin6_addr, name, sizeof name);
    p = ntohs(a->sin6_port);
    *bound = std::string("[") + name + "]:" + std::to_string(p);
  } else {
    auto* a = reinterpret_cast<sockaddr_in*>(&ss);
    inet_ntop(AF_INET, &a->sin_addr, name, sizeof name);
    p = ntohs(a->sin_port);
    *bound = std::string(name) + ":" + std::to_string(p);
  }
  return fd;
}

double Now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

struct Worker {
  double started;
  int slot;  // its place in the shared connection counts
};

struct Supervisor {
  int unixFd = -1;
  int tcpFd = -1;
  orvad::WorkerLoad load;
  orvad::Timeouts timeouts;
  sigset_t blocked;
  std::map<pid_t, Worker> workers;

  pid_t Spawn(int slot) {
    load.open[slot] = 0;  // a dead worker's connections died with it
    pid_t pid = fork();
    if (pid < 0) {
      ORVA_LOG(LOG_ERR, "fork failed: %m");
      return -1;
    }
    if (pid == 0) {
      // A worker must not outlive its supervisor.
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      if (getppid() == 1) _exit(0);
      signal(SIGCHLD, SIG_DFL);
      sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
      load.slot = slot;
      int rc = orvad::RunWorker(unixFd, tcpFd, timeouts, load);
      // Skip static destructors of modules the supervisor never loaded.
      fflush(nullptr);
      _exit(rc);
    }
    workers[pid] = Worker{Now(), slot};
    return pid;
  }
};

}  // namespace

int main(int argc, char** argv) {
  std::string listenSpec;
  int nworkers = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
  if (nworkers < 1) nworkers = 1;
  orvad::Timeouts timeouts;
  static const option opts[] = {
      ORVA::kRootOption,
      {"listen", required_argument, nullptr, 'l'},
      {"workers", required_argument, nullptr, 'w'},
      {"header-timeout", required_argument, nullptr, 'H'},
      {"idle-timeout", required_argument, nullptr, 'I'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  int c;
  while ((c = ORVA::GetOpt(argc, argv, "", opts)) != -1) {
    switch (c) {
      case 'l': listenSpec = optarg; break;
      case 'w':
        if (!ParseInt(optarg, 1, 256, &nworkers)) {
          fprintf(stderr, "orva-webapid: --workers wants a number from 1 to 256\n");
          return 2;
        }
        break;
      case 'H':
        if (!ParseInt(optarg, 1, 3600, &timeouts.headerSeconds)) {
          fprintf(stderr, "orva-webapid: --header-timeout wants 1 to 3600 seconds\n");
          return 2;
        }
        break;
      case 'I':
        if (!ParseInt(optarg, 1, 86400, &timeouts.idleSeconds)) {
          fprintf(stderr, "orva-webapid: --idle-timeout wants 1 to 86400 seconds\n");
          return 2;
        }
        break;
      case 'h': Usage(stdout); return 0;
      default: Usage(stderr); return 2;
    }
  }
  // A body may take three times as long as a header (default 30 s).
  timeouts.bodySeconds = 3 * timeouts.headerSeconds;
  if (optind != argc) {
    Usage(stderr);
    return 2;
  }
  openlog("orva-webapid", LOG_PID | LOG_PERROR, LOG_DAEMON);
  signal(SIGPIPE, SIG_IGN);

  const std::string runDir = ORVA::ORVAPathMap("/run/orva");
  if (!ORVA::MakeDirs(runDir, 0755)) {
    ORVA_LOG(LOG_ERR, "cannot create %s: %m", runDir.c_str());
    return 1;
  }
  chmod(runDir.c_str(), 0755);
  const std::string sockPath = runDir + "/webapi.sock";
  const std::string tokenPath = runDir + "/login.token";
  const std::string listenPath = runDir + "/webapi.listen";

  Supervisor sup;
  sup.timeouts = timeouts;
  std::string bound;
  if (!listenSpec.empty() && (sup.tcpFd = OpenTcpSocket(listenSpec, &bound)) < 0) return 1;
  void* shared = mmap(nullptr, sizeof(std::atomic<int>) * static_cast<size_t>(nworkers), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) {
    ORVA_LOG(LOG_ERR, "cannot map the workers' shared counts: %m");
    return 1;
  }
  sup.load.open = new (shared) std::atomic<int>[static_cast<size_t>(nworkers)]();
  sup.load.workers = nworkers;
  if (!ORVA::SessionStore::Instance().Init()) return 1;
  std::string token = ORVA::WebRandomHex(32);
  if (token.empty() || !WriteFile(tokenPath, token + "\n", 0600)) return 1;
  unlink(listenPath.c_str());
  if (!bound.empty() && !WriteFile(listenPath, bound + "\n", 0644)) return 1;

  sigemptyset(&sup.blocked);
  for (int s : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&sup.blocked, s);
  sigprocmask(SIG_BLOCK, &sup.blocked, nullptr);

  // The socket comes last: it accepting connections means the server is ready.
  if ((sup.unixFd = OpenUnixSocket(sockPath)) < 0) return 1;
  for (int i = 0; i < nworkers; ++i) sup.Spawn(i);
  ORVA_LOG(LOG_INFO, "serving %s%s%s with %d workers", sockPath.c_str(), bound.empty() ? "" : " and http://",
           bound.c_str(), nworkers);
  if (!bound.empty()) {
    printf("orva-webapid: open http://%s/?token=%s\n", bound.c_str(), token.c_str());
  } else {
    printf("orva-webapid: login token in %s\n", tokenPath.c_str());
  }
  fflush(stdout);

  std::vector<int> pendingRestarts;  // slots whose worker died
  bool stopping = false;
  double lastFastDeath = 0;
  while (!stopping || !sup.workers.empty()) {
    timespec wait{1, 0};
    siginfo_t info;
    int sig = sigtimedwait(&sup.blocked, &info, &wait);
    if (sig == SIGTERM || sig == SIGINT || sig == SIGHUP) {
      if (!stopping) {
        ORVA_LOG(LOG_INFO, "stopping: finishing requests in progress");
        stopping = true;
        for (const auto& w : sup.workers) kill(w.first, SIGTERM);
      }
    }
    // Reap every dead worker (one SIGCHLD may stand for several).
    int status;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
      auto it = sup.workers.find(pid);
      if (it == sup.workers.end()) continue;
      double lived = Now() - it->second.started;
      const int slot = it->second.slot;
      sup.workers.erase(it);
      if (stopping) continue;
      if (WIFSIGNALED(status)) {
        ORVA_LOG(LOG_ERR, "worker %d killed by signal %d; starting another", pid, WTERMSIG(status));
      } else {
        ORVA_LOG(LOG_ERR, "worker %d exited with %d; starting another", pid, WEXITSTATUS(status));
      }
      if (lived < 1.0) lastFastDeath = Now();
      pendingRestarts.push_back(slot);
    }
    // A worker that dies at once is restarted after a pause, not in a tight loop.
    while (!stopping && !pendingRestarts.empty() && Now() - lastFastDeath >= 1.0) {
      if (sup.Spawn(pendingRestarts.back()) < 0) break;
      pendingRestarts.pop_back();
    }
  }
  close(sup.unixFd);
  unlink(sockPath.c_str());
  unlink(tokenPath.c_str());
  unlink(listenPath.c_str());
  ORVA_LOG(LOG_INFO, "stopped");
  return 0;
}
