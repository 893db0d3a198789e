// Real runs through orva-schedrun: as the owner, with the owner's groups, in the
// appliance's mount namespace, recorded with output and exit status.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <sstream>

#include "core/kelc.h"
#include "scheduler/run.h"
#include "scheduler/run_log.h"
#include "scheduler/store.h"
#include "test_util.h"

using orvatest::NewTask;
using orvatest::TempRoot;
using orvatest::TestUser;

namespace {

using orvatest::Slurp;

// Waits until the task has `n` runs and none is running; returns them newest first, each
// its summary with its output, as the run pages read them.
Json::Value WaitRuns(long id, unsigned n) {
  Json::Value runs;
  bool done = orvatest::WaitFor([&] {
    Json::Value all, one;
    EXPECT_EQ(ORVASchedTaskGetRuns(id, all), 0);
    runs = Json::Value(Json::arrayValue);
    bool running = false;
    for (const Json::Value& r : all["runs"]) {
      EXPECT_EQ(ORVASchedTaskGetRun(id, r["run_id"].asInt64(), one), 0);
      running = running || runs.append(one)["result"] == "running";
    }
    return runs.size() >= n && !running;
  }, 60);
  EXPECT_TRUE(done) << "task " << id << " did not finish " << n << " runs";
  return runs;
}

// Each key of `want` as the run recorded it.
void ExpectRun(const Json::Value& run, std::initializer_list<std::pair<const char*, Json::Value>> want) {
  for (const auto& [key, value] : want) EXPECT_EQ(run[key], value) << key;
}

class SchedRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("ORVA_SCHEDRUN", ORVA_SCHEDRUN_PATH, 1);
    out_ = root_.path() + "/usr/orva/out";
    ASSERT_EQ(system(("mkdir -p " + out_ + " && chmod 0777 " + out_).c_str()), 0);
  }
  void TearDown() override { orvatest::WaitForRunners(root_.path()); }

  // `app`: the app the task belongs to; `appSameTime`: whether it may run beside the app's others.
  long Save(const std::string& command, uid_t owner, const char* app = nullptr, bool appSameTime = true) {
    auto t = NewTask();
    ORVASchedCTaskSetName(t.get(), "run test");
    ORVASchedCTaskSetCommand(t.get(), command.c_str());
    ORVASchedCTaskSetOwner(t.get(), owner);
    if (app) {
      ORVASchedCTaskSetApp(t.get(), app);
      ORVASchedCTaskSetCanRunAppSameTime(t.get(), appSameTime);
    }
    EXPECT_EQ(ORVASchedTaskSave(t.get()), 0);
    return ORVASchedTaskGetID(*t);
  }

  TempRoot root_;
  std::string out_;
};

}  // namespace

TEST_F(SchedRunTest, RunsAsTheOwnerWithItsGroupsAndRecordsTheRun) {
  TestUser u("", true);  // with an extra group
  // The environment: the names, less what the shell itself sets, then two values.
  long id = Save(
      "cd /usr/orva/out; id -u > ids; id -G | tr ' ' '\\n' | sort -n >> ids; ls /proc/self/fd > fds;"
      " env | grep -vE '^(PWD|SHLVL|OLDPWD|_)=' | cut -d= -f1 | sort | tr '\\n' ' ' > env;"
      " echo \"$USER $ORVA_ROOT\" >> env",
      u.Uid());
  ASSERT_EQ(ORVASchedTaskRun(id, 0, 0), 0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // detached: no child of the caller's
  ASSERT_EQ(WaitRuns(id, 1).size(), 1u);

  // The file is the owner's, written inside the namespace where $ROOT/usr/orva is /usr/orva.
  struct stat st;
  ASSERT_EQ(stat((out_ + "/ids").c_str(), &st), 0);
  EXPECT_EQ(std::pair(st.st_uid, st.st_gid), std::pair(u.Uid(), u.Gid()));
  const unsigned low = std::min(u.Gid(), u.ExtraGid()), high = std::max(u.Gid(), u.ExtraGid());
  EXPECT_EQ(Slurp(out_ + "/ids"),
            std::to_string(u.Uid()) + "\n" + std::to_string(low) + "\n" + std::to_string(high) + "\n");
  // Only the allowed environment and the system root.
  EXPECT_EQ(Slurp(out_ + "/env"),
            "HOME LANG LOGNAME ORVA_ROOT PATH SHELL USER " + u.Name() + " " + ORVA::ORVARootGet() + "\n");
  // No inherited descriptors: 0-2 and the one ls opened to list them.
  std::istringstream fds(Slurp(out_ + "/fds"));
  for (int fd; fds >> fd;) EXPECT_LE(fd, 3);
}

// What a run records: exit status or signal, stdout and stderr together, the last 64 KiB
// of the output with an invalid byte as U+FFFD (3 bytes instead of 1), and a refusal to
// run as an owner that no longer exists.
TEST_F(SchedRunTest, RecordsExitSignalAndOutput) {
  TestUser u;
  const std::string tail = std::string(ORVA_SCHED_RUN_OUTPUT_MAX - 5, 'a') + "\xef\xbf\xbd" "END\n";
  const struct {
    std::string command;
    bool goneOwner;
    Json::Value exitCode, signal;
    const char* result;
    std::string output;  // of a gone owner: a part of it
  } cases[] = {
      {"echo to stdout; echo to stderr >&2; exit 7", false, 7, Json::Value(), "failed", "to stdout\nto stderr\n"},
      {"echo before; kill -TERM $$", false, Json::Value(), 15, "failed", "before\n"},
      {"head -c 100000 /dev/zero | tr '\\0' a; printf '\\377'; echo END", false, 0, Json::Value(), "success", tail},
      {"touch /usr/orva/out/ran", true, Json::Value(), Json::Value(), "failed", "does not exist"},
  };
  std::vector<long> ids;
  for (const auto& c : cases) {
    // A gone owner's uid lies far above the range useradd takes uids from.
    ids.push_back(Save(c.command, c.goneOwner ? 2000000000 : u.Uid()));
    ASSERT_EQ(ORVASchedTaskRun(ids.back(), 0, 0), 0);
  }
  for (size_t i = 0; i < ids.size(); ++i) {
    SCOPED_TRACE(cases[i].command);
    const Json::Value run = WaitRuns(ids[i], 1)[0];
    ExpectRun(run, {{"trigger", "manual"}, {"exit_code", cases[i].exitCode}, {"signal", cases[i].signal},
                    {"result", cases[i].result}});
    const std::string out = run["output"].asString();
    EXPECT_TRUE(cases[i].goneOwner ? out.find(cases[i].output) != std::string::npos : out == cases[i].output) << out;
  }
  struct stat st;
  EXPECT_NE(stat((out_ + "/ran").c_str(), &st), 0);
}

// Gone, or a zombie nobody reaped yet: either way it no longer runs.
bool Ended(pid_t pid) {
  std::string stat = Slurp("/proc/" + std::to_string(pid) + "/stat");
  return stat.empty() || stat.find(") Z ") != std::string::npos;
}

// Stop ends the command's process group. While a task of an app whose tasks may not run
// beside each other runs, the app's others are skipped (a task that may not run twice at
// once: the TaskRuns end-to-end test).
TEST_F(SchedRunTest, StopEndsTheCommandsProcessGroup) {
  TestUser u;
  struct Case {
    const char* command;
    int signal;  // what the command's shell ended with
  } cases[] = {
      {"sleep 60 & echo $! > /usr/orva/out/bg; echo begun; wait", SIGTERM},
      {"trap '' TERM; echo begun; sleep 60", SIGKILL},  // SIGTERM ignored: killed after the grace period
  };
  const long sameApp = Save("true", u.Uid(), "ORVA.Test.Backup");
  unsigned skipped = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    long id = Save(c.command, u.Uid(), "ORVA.Test.Backup", false);
    ASSERT_EQ(ORVASchedTaskRun(id, 0, 0), 0);
    Json::Value status;
    ASSERT_TRUE(orvatest::WaitFor([&] {
      return ORVASchedTaskGetRunStatus(static_cast<int>(id), status) == 0 &&
             status["last_run"]["output"] == "begun\n";
    }, 5)) << status;
    ASSERT_EQ(ORVASchedTaskRun(sameApp, 0, 0), 0);
    EXPECT_EQ(WaitRuns(sameApp, ++skipped)[0]["result"], "skipped");
    int64_t runId = 0;
    ASSERT_EQ(ORVASchedTaskStop(id, &runId), 0);
    ExpectRun(WaitRuns(id, 1)[0], {{"run_id", static_cast<Json::Int64>(runId)}, {"result", "stopped"},
                                   {"signal", c.signal}, {"output", "begun\n"}});
  }
  ASSERT_EQ(ORVASchedTaskRun(sameApp, 0, 0), 0);
  EXPECT_EQ(WaitRuns(sameApp, 3)[0]["result"], "success");
  // The background process of the group went too.
  pid_t bg = static_cast<pid_t>(std::stol(Slurp(out_ + "/bg")));
  EXPECT_TRUE(orvatest::WaitFor([&] { return Ended(bg); }));

  // An open run whose recorded runner is not the process that has the pid now: nothing
  // is signalled, and it is not shown as running.
  long id = Save("true", u.Uid());
  const pid_t other = orvatest::SpawnTo({"/bin/sleep", "30"}, "/dev/null", "/dev/null");
  int64_t run = ORVASchedRunBegin(ORVA_SCHED_RUN_TASK, id, "manual", other);
  ASSERT_GT(run, 0);
  Json::Value status;
  EXPECT_TRUE(ORVASchedTaskGetRunStatus(static_cast<int>(id), status) == 0 && status["running"].asBool());
  orvatest::QueryOne(ORVASchedStoreDbPath(),
                      ("UPDATE runs SET runner_start = runner_start + 1 WHERE id = " + std::to_string(run)).c_str());
  EXPECT_EQ(ORVASchedTaskStop(id, nullptr), -1);
  EXPECT_EQ(KELCErrGet(), ORVA_SCHED_ERR_NOT_RUNNING);
  EXPECT_TRUE(ORVASchedTaskGetRunStatus(static_cast<int>(id), status) == 0 && !status["running"].asBool());
  EXPECT_EQ(orvatest::Stop(other, 5), 128 + SIGTERM);  // still alive, ended by this SIGTERM only
}

// A task keeps its last fifty runs; a new task given a removed task's id starts without them.
TEST_F(SchedRunTest, HistoryKeepsTheLastFiftyAndGoesWithItsTask) {
  const long id = Save("true", 0);
  for (int i = 0; i < ORVA_SCHED_RUN_HISTORY_MAX + 7; ++i) {
    ASSERT_EQ(ORVASchedRunRecord(ORVA_SCHED_RUN_TASK, id, "schedule", "skipped", std::to_string(i)), 0);
  }
  Json::Value runs, oldest;
  ASSERT_EQ(ORVASchedTaskGetRuns(id, runs), 0);
  ASSERT_EQ(runs["runs"].size(), static_cast<unsigned>(ORVA_SCHED_RUN_HISTORY_MAX));
  ASSERT_EQ(ORVASchedTaskGetRun(id, runs["runs"][ORVA_SCHED_RUN_HISTORY_MAX - 1]["run_id"].asInt64(), oldest), 0);
  EXPECT_EQ(oldest["output"], "7");
  ASSERT_EQ(ORVASchedTaskRemove(id), 0);
  auto again = NewTask();
  ORVASchedCTaskSetID(again.get(), id);
  ASSERT_EQ(ORVASchedTaskSave(again.get()), 0);
  ASSERT_EQ(ORVASchedTaskGetRuns(id, runs), 0);
  EXPECT_EQ(runs["runs"].size(), 0u);
}

// The daemon's batches: several ids, each task in a process of its own. One bad id: none
// is run.
TEST_F(SchedRunTest, RunnerCommandLine) {
  const std::string run = std::string(ORVA_SCHEDRUN_PATH) + " --root " + root_.path() + " ";
  const long a = Save("echo $PPID", 0), b = Save("echo $PPID", 0);
  const std::string ids = std::to_string(a) + " " + std::to_string(b);
  EXPECT_EQ(orvatest::ExitStatus(system((run + ids + " x --trigger schedule 2>/dev/null").c_str())), 2);
  EXPECT_EQ(system((run + ids + " --trigger schedule").c_str()), 0);
  const Json::Value runA = WaitRuns(a, 1), runB = WaitRuns(b, 1);
  ASSERT_EQ(runA.size(), 1u);  // the refused batch ran nothing
  ExpectRun(runA[0], {{"trigger", "schedule"}, {"result", "success"}});
  EXPECT_EQ(runB[0]["result"], "success");
  EXPECT_NE(runA[0]["output"], runB[0]["output"]);
}
