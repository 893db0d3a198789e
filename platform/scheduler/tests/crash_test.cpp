// Crash safety: a writer killed at a random moment loses no acknowledged save and leaves a
// sound database; a writer beside it never sees "database is locked".
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "scheduler/store.h"
#include "test_util.h"

using orvatest::NewTask;
using orvatest::TempRoot;

namespace {

struct Ack {
  long id;
  int writer, save;
};

std::string Name(int round, const Ack& a) {
  return "r" + std::to_string(round) + "-w" + std::to_string(a.writer) + "-" + std::to_string(a.save);
}

}  // namespace

// Each round, writer 0 saves until it is killed and writer 1 saves kSaves tasks beside it;
// both acknowledge each save on a pipe. In the first round both create the database at once.
TEST(SchedCrash, KilledAndConcurrentWritersLoseNothing) {
  TempRoot root;
  const int kSaves = 60;
  std::mt19937 rng(static_cast<unsigned>(getpid()));
  for (int round = 0; round < 5; ++round) {
    int pfd[2], go[2];
    ASSERT_EQ(pipe(pfd) | pipe(go), 0);
    pid_t pids[2];
    for (int w = 0; w < 2; ++w) {
      ASSERT_GE(pids[w] = fork(), 0);
      if (pids[w] != 0) continue;
      close(pfd[0]);
      close(go[1]);
      char c;
      if (read(go[0], &c, 1) != 0) _exit(3);  // released together when the parent closes the pipe
      for (int i = 0; w == 0 || i < kSaves; ++i) {
        Ack ack{0, w, i};
        auto t = NewTask();
        ORVASchedCTaskSetName(t.get(), Name(round, ack).c_str());
        ORVASchedCTaskSetCommand(t.get(), std::string(2000, 'c').c_str());  // bigger pages, longer commits
        if (ORVASchedTaskSave(t.get()) != 0) _exit(1);
        ack.id = ORVASchedTaskGetID(*t);
        if (write(pfd[1], &ack, sizeof(ack)) != sizeof(ack)) _exit(2);  // acknowledged
      }
      _exit(0);
    }
    close(pfd[1]);
    close(go[0]);
    close(go[1]);
    // Killed at a random moment after its first acknowledged save: creating the database may
    // take longer than any fixed delay on a loaded machine.
    std::vector<Ack> acks;
    for (Ack ack; read(pfd[0], &ack, sizeof(ack)) == sizeof(ack);) {  // atomic pipe writes
      acks.push_back(ack);
      if (ack.writer == 0) break;
    }
    usleep(std::uniform_int_distribution<unsigned>(20000, 400000)(rng));
    kill(pids[0], SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pids[0], &status, 0), pids[0]);
    ASSERT_TRUE(WIFSIGNALED(status)) << "writer 0 stopped on its own: " << status;
    ASSERT_EQ(waitpid(pids[1], &status, 0), pids[1]);
    EXPECT_EQ(orvatest::ExitStatus(status), 0) << "round " << round << ": writer 1 failed a save";
    std::vector<int> saved(2, 0);
    ASSERT_EQ(orvatest::QueryOne(ORVASchedStoreDbPath(), "PRAGMA integrity_check"), "ok");
    for (Ack ack; read(pfd[0], &ack, sizeof(ack)) == sizeof(ack);) acks.push_back(ack);
    for (const Ack& ack : acks) {
      ++saved[ack.writer];
      auto back = NewTask();
      ASSERT_EQ(ORVASchedTaskLoad(ack.id, back.get()), 0) << "lost acknowledged task " << ack.id;
      EXPECT_EQ(ORVASchedTaskGetName(*back), Name(round, ack));
    }
    close(pfd[0]);
    EXPECT_GT(saved[0], 0) << "round " << round << ": writer 0 saved nothing";
    EXPECT_EQ(saved[1], kSaves) << "round " << round;
  }
}
