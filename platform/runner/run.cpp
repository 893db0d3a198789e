// Starting and stopping runs, the run records orva-schedrun writes, the run history and
// the run status. Part of liborvascheduler (the module reads runs through it).
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/log.h"
#include "internal.h"
#include "scheduler/event_task.h"
#include "scheduler/run.h"
#include "scheduler/run_log.h"
#include "scheduler/store.h"
#include "spawn.h"

using orva_sched::Conn;
using orva_sched::Stmt;

namespace {

// 1 when the row exists, 0 when not (NOT_FOUND set), -1 on failure.
int Exists(sqlite3* db, int kind, long id) {
  Stmt st(db, kind == ORVA_SCHED_RUN_TASK ? "SELECT 1 FROM tasks WHERE id = ?" : "SELECT 1 FROM event_tasks WHERE id = ?");
  return orva_sched::StepById(st, id);
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

// The start time of a process in clock ticks since boot (/proc/PID/stat): with the pid
// it names one process for good. -1 when it cannot be read (errno set).
int64_t ProcessStartTime(pid_t pid) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  char buf[1024];
  ssize_t n = read(fd, buf, sizeof(buf) - 1);
  int err = errno;
  close(fd);
  if (n <= 0) {
    errno = n < 0 ? err : ESRCH;
    return -1;
  }
  buf[n] = '\0';
  // The command name (field 2) may hold anything; the fields after its ")" start
  // with the state (field 3). The start time is field 22.
  const char* p = strrchr(buf, ')');
  for (int field = 2; p && field < 22; ++field) {
    p = strchr(p + 1, ' ');
  }
  if (!p) {
    errno = EINVAL;
    return -1;
  }
  return strtoll(p + 1, nullptr, 10);
}

bool ProcessAlive(int64_t pid) {
  return pid > 0 && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

// The columns every run query reads, in this order, from its first column on.
#define RUN_COLUMNS(r)                                                                                      \
  r "id, " r "trigger, " r "start_time, " r "end_time, " r "runner_pid, " r "runner_start, " r "pid, " r \
    "exit_code, " r "signal, length(" r "output), " r "truncated, " r "result"
enum { kColId, kColTrigger, kColStart, kColEnd, kColRunnerPid, kColRunnerStart, kColPid, kColExit, kColSignal,
       kColOutputBytes, kColTruncated, kColResult, kColOutput };

// A run whose end is not recorded is in progress while its runner lives. The pid with
// the start time names the runner even after its pid was reused; rows from before
// start times were kept fall back to the pid alone.
bool RunnerAlive(int64_t pid, bool haveStart, int64_t start) {
  if (pid <= 0) return false;
  if (!haveStart) return ProcessAlive(pid);
  int64_t now = ProcessStartTime(static_cast<pid_t>(pid));
  if (now >= 0) return now == start;
  return ProcessAlive(pid);  // /proc hides it (hidepid): the pid alone
}

struct RunRow {
  Json::Value json;  // the run summary
  bool running = false;
  int64_t pid = 0;  // the command's pid (the runner's until the command started)
};

// One run from RUN_COLUMNS starting at column `c` (the output after them when asked).
RunRow ReadRow(const Stmt& st, int c, bool withOutput) {
  RunRow row;
  const bool open = st.IsNull(c + kColEnd);
  row.running = open && RunnerAlive(st.Int(c + kColRunnerPid), !st.IsNull(c + kColRunnerStart),
                                    st.Int(c + kColRunnerStart));
  row.pid = st.IsNull(c + kColPid) ? st.Int(c + kColRunnerPid) : st.Int(c + kColPid);
  Json::Value& j = row.json;
  j = Json::Value(Json::objectValue);
  auto intOrNull = [&](int col) {
    return st.IsNull(c + col) ? Json::Value() : Json::Value(static_cast<Json::Int64>(st.Int(c + col)));
  };
  j["run_id"] = static_cast<Json::Int64>(st.Int(c + kColId));
  j["trigger"] = st.Text(c + kColTrigger);
  j["start"] = FormatTime(st.Int(c + kColStart));
  j["end"] = open ? Json::Value() : Json::Value(FormatTime(st.Int(c + kColEnd)));
  j["exit_code"] = intOrNull(kColExit);
  j["signal"] = intOrNull(kColSignal);
  // A run whose runner died before recording its end has failed.
  j["result"] = row.running ? "running" : st.IsNull(c + kColResult) ? "failed" : st.Text(c + kColResult);
  j["output_bytes"] = static_cast<Json::Int64>(st.Int(c + kColOutputBytes));
  j["truncated"] = st.Int(c + kColTruncated) != 0;
  if (withOutput) j["output"] = ValidUtf8(st.Text(c + kColOutput));
  return row;
}

// Newest first: every kept run of the task, with its output when asked.
int ReadRunRows(int kind, long id, bool withOutput, std::vector<RunRow>& rows) {
  rows.clear();
  Conn conn;
  if (!conn.Begin(false)) return -1;
  if (Exists(conn.db(), kind, id) != 1) return -1;
  Stmt st(conn.db(), withOutput ? "SELECT " RUN_COLUMNS("") ", output FROM runs WHERE kind = ? AND task_id = ?"
                                  " ORDER BY id DESC"
                                : "SELECT " RUN_COLUMNS("") " FROM runs WHERE kind = ? AND task_id = ?"
                                  " ORDER BY id DESC");
  st.Bind(1, static_cast<int64_t>(kind));
  st.Bind(2, static_cast<int64_t>(id));
  int rc;
  while ((rc = st.Step()) == SQLITE_ROW) rows.push_back(ReadRow(st, 0, withOutput));
  conn.Commit();
  return rc == SQLITE_DONE ? 0 : -1;
}


// The run that status reports among the open runs and the newest one (newest first):
// a run in progress wins over any finished one, even over a newer skipped run.
const RunRow* Reported(const std::vector<RunRow>& rows) {
  for (const RunRow& row : rows) {
    if (row.running) return &row;
  }
  return rows.empty() ? nullptr : &rows.front();
}

// Only the rows status needs: the open runs and the newest run.
const char kStatusRows[] =
    "SELECT " RUN_COLUMNS("") ", output FROM runs WHERE kind = ?1 AND task_id = ?2 AND (end_time IS NULL OR"
    " id = (SELECT MAX(id) FROM runs WHERE kind = ?1 AND task_id = ?2)) ORDER BY id DESC";

int RunStatus(int kind, long id, Json::Value& status) {
  std::vector<RunRow> rows;
  {
    Conn conn;
    if (!conn.Begin(false)) return -1;
    if (Exists(conn.db(), kind, id) != 1) return -1;
    Stmt st(conn.db(), kStatusRows);
    st.Bind(1, static_cast<int64_t>(kind));
    st.Bind(2, static_cast<int64_t>(id));
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) rows.push_back(ReadRow(st, 0, true));
    conn.Commit();
    if (rc != SQLITE_DONE) return -1;
  }
  status = Json::Value(Json::objectValue);
  status["id"] = static_cast<Json::Int64>(id);
  const RunRow* run = Reported(rows);
  status["running"] = run && run->running;
  status["pid"] = run && run->running ? Json::Value(static_cast<Json::Int64>(run->pid)) : Json::Value();
  status["last_run"] = Json::Value();
  if (run) {
    Json::Value last = run->json;
    for (const char* extra : {"run_id", "output_bytes", "truncated"}) last.removeMember(extra);
    status["last_run"] = last;
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


extern "C" int ORVASchedTaskRun(long id, int reserved1, int reserved2) {
  (void)reserved1;
  (void)reserved2;
  {
    Conn conn;
    if (!conn.db() || Exists(conn.db(), ORVA_SCHED_RUN_TASK, id) != 1) return -1;
  }
  return orva_sched::StartRunner({std::to_string(id), "--trigger", "manual"}) > 0 ? 0 : -1;
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
int ORVASchedEventTaskGetRunStatus(long id, Json::Value& status) {
  return RunStatus(ORVA_SCHED_RUN_EVENT_TASK, id, status);
}

int ORVASchedTaskGetRuns(long id, Json::Value& out) {
  std::vector<RunRow> rows;
  if (ReadRunRows(ORVA_SCHED_RUN_TASK, id, false, rows) != 0) return -1;
  out = Json::Value(Json::objectValue);
  out["running"] = false;
  out["pid"] = Json::Value();
  out["runs"] = Json::Value(Json::arrayValue);
  for (const RunRow& row : rows) {
    if (row.running && !out["running"].asBool()) {
      out["running"] = true;
      out["pid"] = static_cast<Json::Int64>(row.pid);
    }
    out["runs"].append(row.json);
  }
  return 0;
}

int ORVASchedTaskGetRun(long id, int64_t runId, Json::Value& run) {
  Conn conn;
  if (!conn.Begin(false)) return -1;
  if (Exists(conn.db(), ORVA_SCHED_RUN_TASK, id) != 1) return -1;
  Stmt st(conn.db(), "SELECT " RUN_COLUMNS("") ", output FROM runs WHERE id = ? AND kind = ? AND task_id = ?");
  st.Bind(1, runId);
  st.Bind(2, static_cast<int64_t>(ORVA_SCHED_RUN_TASK));
  st.Bind(3, static_cast<int64_t>(id));
  int rc = st.Step();
  if (rc == SQLITE_ROW) run = ReadRow(st, 0, true).json;
  conn.Commit();
  if (rc == SQLITE_DONE) SCHED_ERR(ORVA_SCHED_ERR_NOT_FOUND);
  return rc == SQLITE_ROW ? 0 : -1;
}

int ORVASchedTaskGetRunSummaries(const std::vector<long>& ids, Json::Value& tasks) {
  tasks = Json::Value(Json::arrayValue);
  std::string list = "[";
  for (long id : ids) list += (list.size() > 1 ? "," : "") + std::to_string(id);
  list += "]";
  Conn conn;
  if (!conn.Begin(false)) return -1;
  // Per task, as status picks it: its open runs and its newest run.
  Stmt st(conn.db(),
          "SELECT t.id, " RUN_COLUMNS("r.") " FROM tasks t LEFT JOIN runs r ON r.kind = 0 AND r.task_id = t.id"
          " AND (r.end_time IS NULL OR r.id = (SELECT MAX(id) FROM runs WHERE kind = 0 AND task_id = t.id))"
          " WHERE t.id IN (SELECT value FROM json_each(?)) ORDER BY t.id, r.id DESC");
  st.Bind(1, list);
  int rc;
  int64_t current = -1;
  std::vector<RunRow> rows;
  auto flush = [&] {
    if (current < 0) return;
    Json::Value task(Json::objectValue);
    task["id"] = static_cast<Json::Int64>(current);
    const RunRow* run = Reported(rows);
    task["running"] = run && run->running;
    task["last_run"] = run ? run->json : Json::Value();
    tasks.append(task);
    rows.clear();
  };
  while ((rc = st.Step()) == SQLITE_ROW) {
    if (st.Int(0) != current) {
      flush();
      current = st.Int(0);
    }
    if (!st.IsNull(1)) rows.push_back(ReadRow(st, 1, false));
  }
  flush();
  conn.Commit();
  return rc == SQLITE_DONE ? 0 : -1;
}

int ORVASchedTaskStop(long id, int64_t* runId) {
  struct Open {
    int64_t run, pid, start;
  };
  std::vector<Open> open;
  {
    Conn conn;
    if (!conn.Begin(false)) return -1;
    if (Exists(conn.db(), ORVA_SCHED_RUN_TASK, id) != 1) return -1;
    Stmt st(conn.db(),
            "SELECT id, runner_pid, runner_start FROM runs WHERE kind = 0 AND task_id = ? AND end_time IS NULL"
            " AND runner_pid > 0 AND runner_start IS NOT NULL ORDER BY id DESC");
    st.Bind(1, static_cast<int64_t>(id));
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) open.push_back({st.Int(0), st.Int(1), st.Int(2)});
    conn.Commit();
    if (rc != SQLITE_DONE) return -1;
  }
  int64_t asked = 0;
  int failure = 0;
  for (const Open& o : open) {
    // The descriptor holds on to the process that had the pid when it was opened, so
    // the check of its start time and the signal reach the same process.
    int fd = static_cast<int>(syscall(SYS_pidfd_open, static_cast<pid_t>(o.pid), 0));
    if (fd < 0) continue;  // gone
    if (ProcessStartTime(static_cast<pid_t>(o.pid)) != o.start) {
      close(fd);  // another process has the pid now
      continue;
    }
    // The runner ends the command's process group and records the run as stopped.
    if (syscall(SYS_pidfd_send_signal, fd, SIGTERM, nullptr, 0) == 0) {
      if (!asked) asked = o.run;
    } else if (errno != ESRCH) {
      failure = errno;
    }
    close(fd);
  }
  if (!asked) {
    if (failure) {
      ORVA_LOG(LOG_ERR, "cannot signal the runner of task %ld: %s", id,
             strerror(failure));
    }
    SCHED_ERR(failure == EPERM ? static_cast<int>(KELC_ERR_PERMISSION)
              : failure        ? static_cast<int>(ORVA_SCHED_ERR_RUN)
                               : static_cast<int>(ORVA_SCHED_ERR_NOT_RUNNING));
    return -1;
  }
  if (runId) *runId = asked;
  return 0;
}


// ---- Run records ----

int64_t ORVASchedRunBegin(int kind, long taskId, const char* trigger, pid_t runnerPid) {
  Conn conn;
  if (!conn.Begin(true)) return -1;
  Stmt st(conn.db(),
          "INSERT INTO runs(kind, task_id, trigger, start_time, runner_pid, runner_start) VALUES(?, ?, ?, ?, ?, ?)");
  st.Bind(1, static_cast<int64_t>(kind));
  st.Bind(2, static_cast<int64_t>(taskId));
  st.Bind(3, trigger ? trigger : "");
  st.Bind(4, static_cast<int64_t>(time(nullptr)));
  st.Bind(5, static_cast<int64_t>(runnerPid));
  int64_t runnerStart = ProcessStartTime(runnerPid);
  if (runnerStart >= 0) st.Bind(6, runnerStart); else st.BindNull(6);
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

int ORVASchedRunSetOutput(int64_t runId, const std::string& output, bool truncated) {
  Conn conn;
  if (!conn.Begin(true)) return -1;
  Stmt st(conn.db(), "UPDATE runs SET output = ?, truncated = ? WHERE id = ? AND end_time IS NULL");
  st.BindBlob(1, output);
  st.Bind(2, static_cast<int64_t>(truncated));
  st.Bind(3, runId);
  if (st.Step() != SQLITE_DONE || !conn.Commit()) return -1;
  return 0;
}

int ORVASchedRunEnd(int64_t runId, int exitCode, int signal, const std::string& output, const char* result,
                    bool truncated) {
  Conn conn;
  if (!conn.Begin(true)) return -1;
  Stmt st(conn.db(),
          "UPDATE runs SET end_time = ?, exit_code = ?, signal = ?, output = ?, result = ?, truncated = ?"
          " WHERE id = ?");
  st.Bind(1, static_cast<int64_t>(time(nullptr)));
  if (exitCode >= 0) st.Bind(2, static_cast<int64_t>(exitCode)); else st.BindNull(2);
  if (signal > 0) st.Bind(3, static_cast<int64_t>(signal)); else st.BindNull(3);
  st.BindBlob(4, output);
  st.Bind(5, result ? result : "failed");
  st.Bind(6, static_cast<int64_t>(truncated));
  st.Bind(7, runId);
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
