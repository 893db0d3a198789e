// Starting runs (orva-schedrun, detached), the run history and the run status.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/root.h"
#include "core/user.h"
#include "internal.h"
#include "scheduler/run_log.h"

using orva_sched::Conn;
using orva_sched::Stmt;

namespace {

std::mutex gRunnerMutex;
std::string gRunnerPath;

// 1 when the row exists, 0 when not (NOT_FOUND set), -1 on failure.
int Exists(sqlite3* db, int kind, long id) {
  Stmt st(db, kind == ORVA_SCHED_RUN_TASK ? "SELECT 1 FROM tasks WHERE id = ?" : "SELECT 1 FROM event_tasks WHERE id = ?");
  st.Bind(1, static_cast<int64_t>(id));
  int rc = st.Step();
  if (rc == SQLITE_ROW) return 1;
  if (rc == SQLITE_DONE) {
    SCHED_ERR(ORVA_SCHED_ERR_NOT_FOUND);
    return 0;
  }
  return -1;
}

bool StartRunner(const std::vector<std::string>& args) {
  std::vector<std::string> all = args;
  all.push_back("--root");
  all.push_back(ORVA::ORVARootGet());
  return orva_sched::SpawnDetached(ORVASchedRunnerPath(), all);
}

std::string FormatTime(int64_t t) {
  time_t tt = static_cast<time_t>(t);
  struct tm lt;
  localtime_r(&tt, &lt);
  char buf[32];
  strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &lt);
  return buf;
}

// Keeps valid UTF-8 as it is and replaces every invalid byte by U+FFFD, so that the
// output of any command can go into a JSON reply.
std::string ValidUtf8(const std::string& in) {
  std::string out;
  out.reserve(in.size());
  const unsigned char* p = reinterpret_cast<const unsigned char*>(in.data());
  size_t n = in.size(), i = 0;
  while (i < n) {
    unsigned char c = p[i];
    size_t len = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xe ? 3 : (c >> 3) == 0x1e ? 4 : 0;
    bool ok = len > 0 && i + len <= n;
    for (size_t k = 1; ok && k < len; ++k) ok = (p[i + k] & 0xc0) == 0x80;
    if (ok && len > 1) {
      uint32_t cp = len == 2 ? (c & 0x1fu) : len == 3 ? (c & 0x0fu) : (c & 0x07u);
      for (size_t k = 1; k < len; ++k) cp = (cp << 6) | (p[i + k] & 0x3fu);
      static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
      ok = cp >= kMin[len] && cp <= 0x10ffff && !(cp >= 0xd800 && cp <= 0xdfff);
    }
    if (ok) {
      out.append(in, i, len);
      i += len;
    } else {
      out += "\xef\xbf\xbd";
      ++i;
    }
  }
  return out;
}

bool ProcessAlive(int64_t pid) {
  return pid > 0 && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

// Newest first: every kept run of the task as JSON.
int ReadRuns(int kind, long id, Json::Value& runs) {
  runs = Json::Value(Json::arrayValue);
  Conn conn;
  if (!conn.Begin(false)) return -1;
  int e = Exists(conn.db(), kind, id);
  if (e != 1) return -1;
  Stmt st(conn.db(),
          "SELECT trigger, start_time, end_time, runner_pid, pid, exit_code, signal, output, result"
          " FROM runs WHERE kind = ? AND task_id = ? ORDER BY id DESC");
  st.Bind(1, static_cast<int64_t>(kind));
  st.Bind(2, static_cast<int64_t>(id));
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) {
    Json::Value run(Json::objectValue);
    bool running = st.IsNull(2) && ProcessAlive(st.Int(3));
    run["trigger"] = st.Text(0);
    run["start"] = FormatTime(st.Int(1));
    run["end"] = st.IsNull(2) ? Json::Value() : Json::Value(FormatTime(st.Int(2)));
    run["exit_code"] = st.IsNull(5) ? Json::Value() : Json::Value(static_cast<Json::Int64>(st.Int(5)));
    run["signal"] = st.IsNull(6) ? Json::Value() : Json::Value(static_cast<Json::Int64>(st.Int(6)));
    run["output"] = ValidUtf8(st.Text(7));
    // A run whose runner died before recording its end has failed.
    run["result"] = running ? "" : st.IsNull(8) ? "failed" : st.Text(8);
    run["running"] = running;
    int64_t pid = st.IsNull(4) ? st.Int(3) : st.Int(4);
    run["pid"] = running ? Json::Value(static_cast<Json::Int64>(pid)) : Json::Value();
    runs.append(run);
  }
  conn.Commit();
  return rc == SQLITE_DONE ? 0 : -1;
}

int RunStatus(int kind, long id, Json::Value& status) {
  Json::Value runs;
  if (ReadRuns(kind, id, runs) != 0) return -1;
  status = Json::Value(Json::objectValue);
  status["id"] = static_cast<Json::Int64>(id);
  status["running"] = false;
  status["pid"] = Json::Value();
  status["last_run"] = Json::Value();
  for (Json::Value& run : runs) {
    if (run["running"].asBool()) {
      if (!status["running"].asBool()) {
        status["running"] = true;
        status["pid"] = run["pid"];
      }
      continue;
    }
    run.removeMember("running");
    run.removeMember("pid");
    status["last_run"] = run;
    break;
  }
  return 0;
}

// Drops the oldest runs of a task beyond the kept number (in the open transaction).
bool TrimRuns(sqlite3* db, int kind, long id) {
  Stmt st(db,
          "DELETE FROM runs WHERE kind = ?1 AND task_id = ?2 AND id <= (SELECT id FROM runs"
          " WHERE kind = ?1 AND task_id = ?2 ORDER BY id DESC LIMIT 1 OFFSET ?3)");
  st.Bind(1, static_cast<int64_t>(kind));
  st.Bind(2, static_cast<int64_t>(id));
  st.Bind(3, static_cast<int64_t>(ORVA_SCHED_RUN_HISTORY_MAX));
  return st.Step() == SQLITE_DONE;
}

}  // namespace

namespace orva_sched {

bool SpawnDetached(const std::string& program, const std::vector<std::string>& args) {
  std::vector<std::string> strings;
  strings.push_back(program);
  strings.insert(strings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);

  int pfd[2];
  if (pipe2(pfd, O_CLOEXEC) != 0) {
    syslog(LOG_ERR, "%s:%d pipe failed: %m", __FILE_NAME__, __LINE__);
    SCHED_ERR(ORVA_SCHED_ERR_RUN);
    return false;
  }
  // A caller with closed standard descriptors would get the pipe among 0-2, which
  // the child points at /dev/null; keep it above them.
  for (int& fd : pfd) {
    if (fd < 3) {
      int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
      close(fd);
      fd = moved;
    }
  }
  if (pfd[0] < 0 || pfd[1] < 0) {
    syslog(LOG_ERR, "%s:%d dup failed: %m", __FILE_NAME__, __LINE__);
    if (pfd[0] >= 0) close(pfd[0]);
    if (pfd[1] >= 0) close(pfd[1]);
    SCHED_ERR(ORVA_SCHED_ERR_RUN);
    return false;
  }
  pid_t pid = fork();
  if (pid < 0) {
    syslog(LOG_ERR, "%s:%d fork failed: %m", __FILE_NAME__, __LINE__);
    close(pfd[0]);
    close(pfd[1]);
    SCHED_ERR(ORVA_SCHED_ERR_RUN);
    return false;
  }
  if (pid == 0) {
    // Only async-signal-safe calls from here on: the parent may have threads.
    setsid();
    pid_t grandchild = fork();
    if (grandchild != 0) {
      if (grandchild < 0) {
        int err = errno;
        (void)!write(pfd[1], &err, sizeof(err));
      }
      _exit(0);
    }
    int devnull = open("/dev/null", O_RDWR);
    if (devnull >= 0) {
      dup2(devnull, 0);
      dup2(devnull, 1);
      dup2(devnull, 2);
    }
    // Nothing of the caller's (sockets, the database) reaches the runner; the status
    // pipe moves to descriptor 3 and closes on exec.
    if (pfd[1] != 3) {
      dup2(pfd[1], 3);
      pfd[1] = 3;
    }
    fcntl(3, F_SETFD, FD_CLOEXEC);
    close_range(4, ~0U, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
    execv(argv[0], argv.data());
    int err = errno;
    (void)!write(pfd[1], &err, sizeof(err));
    _exit(127);
  }
  close(pfd[1]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  int err = 0;
  ssize_t n;
  while ((n = read(pfd[0], &err, sizeof(err))) < 0 && errno == EINTR) {
  }
  close(pfd[0]);
  if (n > 0) {
    syslog(LOG_ERR, "%s:%d cannot start %s: %s", __FILE_NAME__, __LINE__, program.c_str(), strerror(err));
    SCHED_ERR(ORVA_SCHED_ERR_RUN);
    return false;
  }
  return true;
}

}  // namespace orva_sched

void ORVASchedSetRunnerPath(const std::string& path) {
  std::lock_guard<std::mutex> lock(gRunnerMutex);
  gRunnerPath = path;
}

std::string ORVASchedRunnerPath() {
  {
    std::lock_guard<std::mutex> lock(gRunnerMutex);
    if (!gRunnerPath.empty()) return gRunnerPath;
  }
  const char* env = getenv("ORVA_SCHEDRUN");
  if (env && *env) return env;
  return ORVA::ORVAPathMap("/usr/orva/bin/orva-schedrun");
}

extern "C" int ORVASchedTaskRun(long id, int reserved1, int reserved2) {
  (void)reserved1;
  (void)reserved2;
  {
    Conn conn;
    if (!conn.db() || Exists(conn.db(), ORVA_SCHED_RUN_TASK, id) != 1) return -1;
  }
  return StartRunner({std::to_string(id), "--trigger", "manual"}) ? 0 : -1;
}

extern "C" int ORVASchedTaskRunByUser(const char* user, long id, int reserved1, int reserved2) {
  ORVA_SCHED_TASK* task = static_cast<ORVA_SCHED_TASK*>(malloc(sizeof(ORVA_SCHED_TASK)));
  if (!task) {
    SCHED_ERR(KELC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  int rc = ORVASchedTaskLoadByUser(user, id, task);
  bool isNew = rc == 0 && ORVASchedTaskIsNew(*task);
  free(task);
  if (rc != 0) return -1;
  if (isNew) {  // id -1: nothing stored to run
    SCHED_ERR(ORVA_SCHED_ERR_NOT_FOUND);
    return -1;
  }
  return ORVASchedTaskRun(id, reserved1, reserved2);
}

int ORVASchedTaskGetRunStatus(int id, Json::Value& status) { return RunStatus(ORVA_SCHED_RUN_TASK, id, status); }
int ORVASchedTaskGetRunHistory(long id, Json::Value& runs) { return ReadRuns(ORVA_SCHED_RUN_TASK, id, runs); }
int ORVASchedEventTaskGetRunStatus(long id, Json::Value& status) {
  return RunStatus(ORVA_SCHED_RUN_EVENT_TASK, id, status);
}
int ORVASchedEventTaskGetRunHistory(long id, Json::Value& runs) {
  return ReadRuns(ORVA_SCHED_RUN_EVENT_TASK, id, runs);
}

int ORVASchedEventTaskRun(long id) {
  {
    Conn conn;
    if (!conn.db() || Exists(conn.db(), ORVA_SCHED_RUN_EVENT_TASK, id) != 1) return -1;
  }
  return StartRunner({"--event-task", std::to_string(id), "--trigger", "event"}) ? 0 : -1;
}

// ---- Run records ----

int64_t ORVASchedRunBegin(int kind, long taskId, const char* trigger, pid_t runnerPid) {
  Conn conn;
  if (!conn.Begin(true)) return -1;
  Stmt st(conn.db(), "INSERT INTO runs(kind, task_id, trigger, start_time, runner_pid) VALUES(?, ?, ?, ?, ?)");
  st.Bind(1, static_cast<int64_t>(kind));
  st.Bind(2, static_cast<int64_t>(taskId));
  st.Bind(3, trigger ? trigger : "");
  st.Bind(4, static_cast<int64_t>(time(nullptr)));
  st.Bind(5, static_cast<int64_t>(runnerPid));
  if (st.Step() != SQLITE_DONE) return -1;
  int64_t runId = sqlite3_last_insert_rowid(conn.db());
  if (!TrimRuns(conn.db(), kind, taskId) || !conn.Commit()) return -1;
  return runId;
}

int ORVASchedRunSetPid(int64_t runId, pid_t pid) {
  Conn conn;
  if (!conn.Begin(true)) return -1;
  Stmt st(conn.db(), "UPDATE runs SET pid = ? WHERE id = ?");
  st.Bind(1, static_cast<int64_t>(pid));
  st.Bind(2, runId);
  if (st.Step() != SQLITE_DONE || !conn.Commit()) return -1;
  return 0;
}

int ORVASchedRunEnd(int64_t runId, int exitCode, int signal, const std::string& output, const char* result) {
  Conn conn;
  if (!conn.Begin(true)) return -1;
  Stmt st(conn.db(), "UPDATE runs SET end_time = ?, exit_code = ?, signal = ?, output = ?, result = ? WHERE id = ?");
  st.Bind(1, static_cast<int64_t>(time(nullptr)));
  if (exitCode >= 0) st.Bind(2, static_cast<int64_t>(exitCode)); else st.BindNull(2);
  if (signal > 0) st.Bind(3, static_cast<int64_t>(signal)); else st.BindNull(3);
  st.BindBlob(4, output);
  st.Bind(5, result ? result : "failed");
  st.Bind(6, runId);
  if (st.Step() != SQLITE_DONE || !conn.Commit()) return -1;
  return 0;
}

int ORVASchedRunRecord(int kind, long taskId, const char* trigger, const char* result, const std::string& output) {
  Conn conn;
  if (!conn.Begin(true)) return -1;
  int64_t now = time(nullptr);
  Stmt st(conn.db(),
          "INSERT INTO runs(kind, task_id, trigger, start_time, end_time, output, result)"
          " VALUES(?, ?, ?, ?, ?, ?, ?)");
  st.Bind(1, static_cast<int64_t>(kind));
  st.Bind(2, static_cast<int64_t>(taskId));
  st.Bind(3, trigger ? trigger : "");
  st.Bind(4, now);
  st.Bind(5, now);
  st.BindBlob(6, output);
  st.Bind(7, result ? result : "failed");
  if (st.Step() != SQLITE_DONE || !TrimRuns(conn.db(), kind, taskId) || !conn.Commit()) return -1;
  return 0;
}
