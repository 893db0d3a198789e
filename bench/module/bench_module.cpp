// "list" version 2 of ORVA.Core.TaskScheduler, called in-process: a page of 50 out of
// 10,000 stored tasks sorted by name, and the parts the time goes to.
//
// Usage: bench_module [--tasks=N] [benchmark flags]. The store lives in a temporary
// system root that is removed at exit.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "ORVA.Core.TaskScheduler.h"
#include "core/root.h"
#include "lib.h"
#include "scheduler/schedule.h"
#include "scheduler/store.h"
#include "scheduler/task_json.h"
#include "webapi/registry.h"

extern "C" ORVA::APITableRow gTable[];

namespace {

namespace fs = std::filesystem;
std::string gRoot;
int gTaskCount = 10000;

// Tasks of the kinds a real appliance lists (app, app name, action), a quarter each.
const char* const kApps[][3] = {
    {"ORVA.VEK.TaskScheduler.Script", "#common:command_line#", "#common:run#: /usr/local/bin/backup.sh --all"},
    {"ORVA.VEK.TaskScheduler.Beep", "#beep:beep_title#", "#volume:beep_on# 60 #common:time_seconds#"},
    {"ORVA.VEK.TaskScheduler.Recycle", "#share:recycle_bin#", "#share:share_clean_all_recycle_bin#"},
    {"Vendor.Reports", "#reports:title#", "#reports:weekly# #common:run#"},
};

void WriteFile(const std::string& rel, const std::string& text) {
  const fs::path path = gRoot + "/" + rel;
  fs::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

// Names in no particular order, schedules spread over the day.
void Populate() {
  for (int i = 0; i < gTaskCount; ++i) {
    const auto& app = kApps[i % 4];
    ORVA_SCHED_TASK* t = ORVASchedTaskAllocFast();
    const std::string name = "task " + std::to_string(100000 + (i * 7919) % gTaskCount).substr(1);
    ORVASchedCTaskSetName(t, name.c_str());
    ORVASchedCTaskSetApp(t, app[0]);
    ORVASchedCTaskSetAppName(t, app[1]);
    ORVASchedCTaskSetAction(t, app[2]);
    ORVASchedCTaskSetCommand(t, "true");
    Json::Value schedule;
    schedule["schedule"]["repeat"] = "daily";
    schedule["schedule"]["hour"] = i % 24;
    schedule["schedule"]["min"] = i % 60;
    if (!ORVASchedTaskConvertFromJson_Schedule(schedule, *t) || ORVASchedTaskSave(t) < 0) {
      fprintf(stderr, "saving task %d failed\n", i);
      exit(1);
    }
    ORVASchedTaskFree(t);
  }
}

void Setup() {
  // tmpfs when there is one: filling the store should not measure the disk.
  char tmpl[] = "/dev/shm/orva-bench-module-XXXXXX";
  char tmpl2[] = "/tmp/orva-bench-module-XXXXXX";
  const char* dir = mkdtemp(tmpl);
  if (!dir) dir = mkdtemp(tmpl2);
  if (!dir) abort();
  gRoot = dir;
  ORVA::ORVARootSet(gRoot);
  setenv("ORVA_ROOT", gRoot.c_str(), 1);
  fs::create_directories(gRoot + "/var/lib/orva/packages");
  WriteFile("etc/orva/orva.conf", "");
  // The product's own UI texts, plus a 3rd-party app that brings its own.
  std::ifstream texts(std::string(ORVA_SOURCE_DIR) + "/data/texts/en/strings.json");
  std::stringstream text;
  text << texts.rdbuf();
  WriteFile("usr/orva/orvaman/webman/texts/en/strings.json", text.str().empty() ? "{}" : text.str());
  WriteFile("usr/orva/orvaman/webman/3rdparty/reports/config.json", R"({"namespace": "Vendor.Reports"})");
  WriteFile("usr/orva/orvaman/webman/3rdparty/reports/texts/en/strings.json",
            R"({"reports": {"title": "Reports", "weekly": "Weekly report"}})");
  // The real event scheduler module answers the listing's in-process call.
  std::string err;
  if (!ORVA::APIRegistry::Instance().LoadModule(
          std::string(ORVA_BUILD_DIR) + "/lib/webapi/ORVA.Core.EventScheduler.so", &err)) {
    fprintf(stderr, "event scheduler module not loaded (%s); listing without it\n", err.c_str());
  }
  const time_t start = time(nullptr);
  Populate();
  fprintf(stderr, "stored %d tasks in %lds\n", gTaskCount, static_cast<long>(time(nullptr) - start));
}

// The whole request, as the server makes it.
void BM_ListV2(benchmark::State& state, int offset, int limit, const char* sortBy) {
  const ORVA::APITableRow* row = gTable;
  while (row->api && !(row->version == 2 && strcmp(row->method, "list") == 0)) ++row;
  Json::Value params;
  params["offset"] = offset;
  params["limit"] = limit;
  params["sort_by"] = sortBy;
  size_t items = 0;
  for (auto _ : state) {
    ORVA::APIRequest request("ORVA.Core.TaskScheduler", 2, "list", params, "admin", "en");
    ORVA::APIResponse response;
    row->func(&request, &response);
    if (!response.IsSuccess()) state.SkipWithError("list failed");
    items = response.GetData()["tasks"].size();
  }
  state.counters["items"] = static_cast<double>(items);
}
BENCHMARK_CAPTURE(BM_ListV2, page50_of_all_by_name_middle, 5000, 50, "name")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ListV2, page50_of_all_by_name_first, 0, 50, "name")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ListV2, page50_by_next_trigger_time, 5000, 50, "next_trigger_time")
    ->Unit(benchmark::kMillisecond);
// No item built: store, event call, sort and walk only.
BENCHMARK_CAPTURE(BM_ListV2, limit0_by_name, 0, 0, "name")->Unit(benchmark::kMillisecond);
// Every item built: the in-process share of the "all 1,000 tasks" row.
BENCHMARK_CAPTURE(BM_ListV2, all_by_name, 0, -1, "name")->Unit(benchmark::kMillisecond);

// The parts: the store's fetch, its sort by a key, and freeing the chain.
int Listable(const ORVA_SCHED_TASK* t, void*) { return t && ORVASchedTaskIsListable(*t); }

ORVA_SCHED_TASK* FetchAll() {
  ORVA_SCHED_TASK* list = nullptr;
  if (ORVASchedTaskListGet(&list, Listable, nullptr) != gTaskCount) abort();
  return list;
}

void BM_StoreListGet(benchmark::State& state) {
  for (auto _ : state) ORVASchedTaskListFree(FetchAll());
}
BENCHMARK(BM_StoreListGet)->Unit(benchmark::kMillisecond);

void BM_StoreSort(benchmark::State& state, const char* key) {
  for (auto _ : state) {
    state.PauseTiming();
    ORVA_SCHED_TASK* list = FetchAll();
    state.ResumeTiming();
    if (ORVASchedTaskListSort(&list, key, 1) < 0) state.SkipWithError("sort failed");
    state.PauseTiming();
    ORVASchedTaskListFree(list);
    state.ResumeTiming();
  }
}
BENCHMARK_CAPTURE(BM_StoreSort, by_name, "name")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_StoreSort, by_next_trigger_time, "next trigger time")->Unit(benchmark::kMillisecond);

void BM_ListFree(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    ORVA_SCHED_TASK* list = FetchAll();
    state.ResumeTiming();
    ORVASchedTaskListFree(list);
  }
}
BENCHMARK(BM_ListFree)->Unit(benchmark::kMillisecond);

void BM_EventSchedulerCall(benchmark::State& state) {
  for (auto _ : state) {
    Json::Value result(Json::objectValue);
    ORVA::APIRunner::Exec(result, "ORVA.Core.EventScheduler", 1, "list", Json::Value(), "admin");
    benchmark::DoNotOptimize(result);
  }
}
BENCHMARK(BM_EventSchedulerCall)->Unit(benchmark::kMicrosecond);

// The per-item getters of a page (50 records of the sorted list), no translation.
void BM_ItemGetters50(benchmark::State& state) {
  ORVA_SCHED_TASK* list = FetchAll();
  ORVASchedTaskListSort(&list, "name", 1);
  for (auto _ : state) {
    Json::Value tasks(Json::arrayValue);
    int i = 0;
    for (ORVA_SCHED_TASK* t = list; t && i < 50; t = ORVASchedTaskNext(t), ++i) {
      Json::Value& item = tasks.append(Json::Value());
      item["enable"] = ORVASchedTaskIsEnabled(*t);
      item["id"] = static_cast<Json::Int64>(ORVASchedTaskGetID(*t));
      item["name"] = ORVASchedTaskGetName(*t);
      item["type"] = ORVA::Core::TaskScheduler::GetAppKeyFromNameSpace(ORVASchedTaskGetApp(*t));
      item["action"] = ORVASchedTaskGetAction(*t);
      item["next_trigger_time"] = ORVASchedTaskGetNextTriggerTime(*t);
    }
    benchmark::DoNotOptimize(tasks);
  }
  ORVASchedTaskListFree(list);
}
BENCHMARK(BM_ItemGetters50)->Unit(benchmark::kMicrosecond);

// Translation of 50 action texts of the mix above (system and 3rd-party texts).
void BM_Translate50(benchmark::State& state) {
  ORVA::APIRequest request("ORVA.Core.TaskScheduler", 2, "list", Json::Value(Json::objectValue), "admin", "en");
  ORVA::APIResponse response;
  TaskSchedulerHandler handler(&request, &response, 0, "", Json::Value(),
                               new ORVA::Core::TaskScheduler::AppParser("en"));
  for (auto _ : state) {
    for (int i = 0; i < 50; ++i) {
      Json::Value item;
      item["action"] = kApps[i % 4][2];
      handler.TranslateActionKey(item, kApps[i % 4][0]);
      benchmark::DoNotOptimize(item);
    }
  }
}
BENCHMARK(BM_Translate50)->Unit(benchmark::kMicrosecond);

// The parser every request builds, with the text files already cached.
void BM_AppParserBuild(benchmark::State& state) {
  { ORVA::Core::TaskScheduler::AppParser warm("en"); }
  for (auto _ : state) {
    ORVA::Core::TaskScheduler::AppParser parser("en");
    benchmark::DoNotOptimize(parser);
  }
}
BENCHMARK(BM_AppParserBuild)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) {
    if (strncmp(argv[i], "--tasks=", 8) == 0) {
      gTaskCount = atoi(argv[i] + 8);
    } else {
      args.push_back(argv[i]);
    }
  }
  int n = static_cast<int>(args.size());
  benchmark::Initialize(&n, args.data());
  Setup();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  fs::remove_all(gRoot);
  return 0;
}
