// Crash safety: a writer killed at a random moment loses no acknowledged save and
// leaves a sound database; concurrent writers never see "database is locked".
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "core/kelc.h"
#include "scheduler/store.h"
#include "test_util.h"

using orvatest::NewTask;
using orvatest::TempRoot;

TEST(SchedCrash, KilledWriterLosesNoAcknowledgedSave) {
  TempRoot root;
  std::mt19937 rng(static_cast<unsigned>(getpid()));
  std::vector<long> acked;
  for (int round = 0; round < 5; ++round) {
    int pfd[2];
    ASSERT_EQ(pipe(pfd), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(pfd[0]);
      for (long i = 0;; ++i) {
        auto t = NewTask();
        std::string name = "r" + std::to_string(round) + "-" + std::to_string(i);
        ORVASchedCTaskSetName(t.get(), name.c_str());
        ORVASchedCTaskSetCommand(t.get(), std::string(2000, 'c').c_str());  // bigger pages, longer commits
        if (ORVASchedTaskSave(t.get()) != 0) _exit(1);
        long id = ORVASchedTaskGetID(*t);
        if (write(pfd[1], &id, sizeof(id)) != sizeof(id)) _exit(2);  // acknowledged
      }
    }
    close(pfd[1]);
    usleep(std::uniform_int_distribution<unsigned>(20000, 400000)(rng));
    kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped on its own: " << status;
    long id;
    size_t before = acked.size();
    while (read(pfd[0], &id, sizeof(id)) == sizeof(id)) acked.push_back(id);  // atomic pipe writes
    close(pfd[0]);
    EXPECT_GT(acked.size(), before) << "round " << round << " saved nothing";

    ASSERT_EQ(orvatest::QueryOne(ORVASchedStoreDbPath(), "PRAGMA integrity_check"), "ok");
    for (size_t i = before; i < acked.size(); ++i) {
      auto back = NewTask();
      ASSERT_EQ(ORVASchedTaskLoad(acked[i], back.get()), 0) << "lost acknowledged task " << acked[i];
      EXPECT_EQ(ORVASchedTaskGetName(*back), "r" + std::to_string(round) + "-" + std::to_string(i - before));
    }
  }
}

TEST(SchedCrash, TwoWritersLoseNothing) {
  TempRoot root;  // the database does not exist yet: both writers create it at once
  const int kSaves = 150;
  int go[2];
  ASSERT_EQ(pipe(go), 0);
  pid_t pids[2];
  for (int w = 0; w < 2; ++w) {
    pids[w] = fork();
    ASSERT_GE(pids[w], 0);
    if (pids[w] == 0) {
      close(go[1]);
      char c;
      if (read(go[0], &c, 1) != 0) _exit(3);  // released when the parent closes the pipe
      for (int i = 0; i < kSaves; ++i) {
        auto t = NewTask();
        ORVASchedCTaskSetName(t.get(), ("w" + std::to_string(w) + "-" + std::to_string(i)).c_str());
        if (ORVASchedTaskSave(t.get()) != 0) {
          fprintf(stderr, "writer %d save %d failed: 0x%04X\n", w, i, KELCErrGet());
          _exit(1);
        }
        if (i % 10 == 0 && ORVASchedTaskRemove(ORVASchedTaskGetID(*t)) != 0) _exit(2);
      }
      _exit(0);
    }
  }
  close(go[0]);
  close(go[1]);
  for (pid_t pid : pids) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "writer failed: " << status;
  }
  ORVA_SCHED_TASK* list = nullptr;
  int n = ORVASchedTaskListGet(&list, nullptr, nullptr);
  std::set<std::string> names;
  for (ORVA_SCHED_TASK* t = list; t; t = ORVASchedTaskNext(t)) names.insert(ORVASchedTaskGetName(*t));
  ORVASchedTaskListFree(list);
  const int kKept = 2 * (kSaves - kSaves / 10);
  EXPECT_EQ(n, kKept);
  EXPECT_EQ(names.size(), static_cast<size_t>(kKept));
  for (int w = 0; w < 2; ++w) {
    for (int i = 0; i < kSaves; ++i) {
      EXPECT_EQ(names.count("w" + std::to_string(w) + "-" + std::to_string(i)), i % 10 == 0 ? 0u : 1u);
    }
  }
  EXPECT_EQ(orvatest::QueryOne(ORVASchedStoreDbPath(), "PRAGMA integrity_check"), "ok");
}
