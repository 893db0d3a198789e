// bench_store_fill: stores N tasks through the store's own save, for the benchmarks
// that need a full store (the server listing and the daemon).
//
//   bench_store_fill --root DIR --tasks N [--every-minute]
//
// Tasks of the kinds a real appliance lists (script, beep, recycle bin, a 3rd-party
// app), a quarter each, names in no particular order, daily schedules spread over the
// day; with --every-minute every task is enabled and due every minute of the day.
// Each save is its own durable commit, so put DIR on tmpfs and copy the database.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "core/kelc.h"
#include "core/root.h"
#include "scheduler/store.h"
#include "scheduler/task_json.h"

namespace {

const char* const kApps[][4] = {
    {"ORVA.VEK.TaskScheduler.Script", "#common:command_line#", "#common:run#: /usr/local/bin/backup.sh --all",
     "/usr/local/bin/backup.sh --all"},
    {"ORVA.VEK.TaskScheduler.Beep", "#beep:beep_title#", "#volume:beep_on# 60 #common:time_seconds#",
     "/usr/orva/bin/orvaschedtool --beep 60"},
    {"ORVA.VEK.TaskScheduler.Recycle", "#share:recycle_bin#", "#share:share_clean_all_recycle_bin#",
     "/usr/orva/bin/orvarecycle --all"},
    {"Vendor.Reports", "#reports:title#", "#reports:weekly# #common:run#", "/usr/local/bin/report --weekly"},
};

int Usage() {
  fputs("usage: bench_store_fill --root DIR --tasks N [--every-minute]\n", stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string root;
  long count = -1;
  bool everyMinute = false;
  for (int i = 1; i < argc; ++i) {
    if (!strcmp(argv[i], "--root") && i + 1 < argc) {
      root = argv[++i];
    } else if (!strcmp(argv[i], "--tasks") && i + 1 < argc) {
      char* end = nullptr;
      count = strtol(argv[++i], &end, 10);
      if (*end != '\0' || count < 0) return Usage();
    } else if (!strcmp(argv[i], "--every-minute")) {
      everyMinute = true;
    } else {
      return Usage();
    }
  }
  if (root.empty() || count < 0) return Usage();
  ORVA::ORVARootSet(root);
  for (long i = 0; i < count; ++i) {
    const auto& app = kApps[i % 4];
    ORVA_SCHED_TASK* t = ORVASchedTaskAllocFast();
    if (!t) return 1;
    const std::string name = "task " + std::to_string(100000 + (i * 7919) % (count > 0 ? count : 1)).substr(1);
    ORVASchedCTaskSetName(t, name.c_str());
    ORVASchedCTaskSetApp(t, app[0]);
    ORVASchedCTaskSetAppName(t, app[1]);
    ORVASchedCTaskSetAction(t, app[2]);
    ORVASchedCTaskSetCommand(t, app[3]);
    Json::Value s;
    s["schedule"]["repeat"] = "daily";
    if (everyMinute) {
      s["schedule"]["hour"] = 0;
      s["schedule"]["min"] = 0;
      s["schedule"]["repeat_min"] = 1;
      s["schedule"]["last_work_hour"] = 23;
    } else {
      s["schedule"]["hour"] = static_cast<int>(i % 24);
      s["schedule"]["min"] = static_cast<int>(i % 60);
    }
    if (!ORVASchedTaskConvertFromJson_Schedule(s, *t) || ORVASchedTaskSave(t) < 0) {
      fprintf(stderr, "bench_store_fill: saving task %ld failed (error 0x%04x)\n", i, KELCErrGet());
      return 1;
    }
    ORVASchedTaskFree(t);
  }
  printf("%ld\n", count);
  return 0;
}
