// Lists 10,000 stored tasks the way the web API does (get, sort, walk, free) and
// reports the time, the memory a listing takes and the size of one record.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "core/root.h"
#include "scheduler/store.h"

namespace {

constexpr int kTasks = 10000;
std::string gRoot;
long gRssBaseline = 0;  // after setup, before the first listing

long MaxRssKiB() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

// Fills a fresh root with kTasks realistic tasks (tmpfs when there is one: the bench
// measures listing, not fsync).
void Setup() {
  if (!gRoot.empty()) return;
  char tmpl[] = "/dev/shm/orva-bench-store-XXXXXX";
  char tmpl2[] = "/tmp/orva-bench-store-XXXXXX";
  const char* dir = mkdtemp(tmpl);
  if (!dir) dir = mkdtemp(tmpl2);
  if (!dir) abort();
  gRoot = dir;
  ORVA::ORVARootSet(gRoot);
  static const char* kApps[] = {"ORVA.VEK.TaskScheduler.Script", "ORVA.VEK.TaskScheduler.Beep",
                                "ORVA.VEK.TaskScheduler.Recycle", "ORVA.VEK.TaskScheduler.Service"};
  for (int i = 0; i < kTasks; ++i) {
    ORVA_SCHED_TASK* t = ORVASchedTaskAllocFast();
    std::string name = "Task " + std::to_string((i * 7919) % kTasks);
    std::string script = "/usr/orva/bin/orvarecycle --share share" + std::to_string(i % 50) + " --days 30";
    ORVASchedCTaskSetName(t, name.c_str());
    ORVASchedCTaskSetApp(t, kApps[i % 4]);
    ORVASchedCTaskSetAppName(t, "#common:command_line#");
    ORVASchedCTaskSetAction(t, ("#common:run#: " + script).c_str());
    ORVASchedCTaskSetCommand(t, script.c_str());
    ORVASchedCTaskSetAppArgs(t, ("{\"script\":\"" + script + "\"}").c_str());
    ORVASchedCTaskSetState(t, i % 5 != 0);
    t->schedule.hour = static_cast<uint8_t>(i % 24);
    t->schedule.min = static_cast<uint8_t>(i % 60);
    t->schedule.repeat = static_cast<uint8_t>(i % 3);
    t->schedule.week_mask = 0x2a;
    if (ORVASchedTaskSave(t) != 0) abort();
    ORVASchedTaskFree(t);
  }
  gRssBaseline = MaxRssKiB();
}

void ListSortWalkFree(benchmark::State& state, const char* key) {
  Setup();
  size_t heapPeak = 0;
  for (auto _ : state) {
    struct mallinfo2 before = mallinfo2();
    ORVA_SCHED_TASK* list = nullptr;
    int n = ORVASchedTaskListGet(&list, nullptr, nullptr);
    if (n != kTasks || ORVASchedTaskListSort(&list, key, 1) != 0) {
      state.SkipWithError("listing failed");
      break;
    }
    size_t heap = mallinfo2().uordblks - before.uordblks;
    if (heap > heapPeak) heapPeak = heap;
    long sum = 0;
    for (ORVA_SCHED_TASK* t = list; t; t = ORVASchedTaskNext(t)) {
      sum += ORVASchedTaskGetID(*t) + ORVASchedTaskGetName(*t)[0];
    }
    benchmark::DoNotOptimize(sum);
    ORVASchedTaskListFree(list);
  }
  state.counters["tasks"] = kTasks;
  state.counters["record_bytes"] = sizeof(ORVA_SCHED_TASK);
  state.counters["list_heap_MiB"] = static_cast<double>(heapPeak) / (1024.0 * 1024.0);
  // Peak resident growth over the baseline: the most any one listing needed.
  state.counters["maxrss_delta_MiB"] = static_cast<double>(MaxRssKiB() - gRssBaseline) / 1024.0;
}

void BM_ListByName(benchmark::State& state) { ListSortWalkFree(state, "name"); }
void BM_ListByNextTrigger(benchmark::State& state) { ListSortWalkFree(state, "next trigger time"); }

BENCHMARK(BM_ListByName)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ListByNextTrigger)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (!gRoot.empty()) system(("rm -rf '" + gRoot + "'").c_str());
  return 0;
}
