// The task scheduler module through the running server: a task of each kind created,
// listed (versions 1 and 2), read, changed, disabled, run, its run status viewed, and
// deleted, all with orva-api over the server's Unix socket.
#include <ctype.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "e2e_fixture.h"

namespace {

Json::Value Parse(const std::string& text) { return orvatest::ParseJson(text); }

// The listed item of task `id`, or null.
Json::Value Listed(const e2e::StagedRoot& root, int version, Json::Int64 id) {
  const e2e::Result r = root.Api("ORVA.Core.TaskScheduler", version, "list", Parse(R"({"sort_by": "id"})"));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  for (const Json::Value& item : r.json["data"]["tasks"]) {
    if (item["id"].asInt64() == id) return item;
  }
  return Json::Value();
}

TEST(ModuleE2E, EveryKindThroughItsWholeLife) {
  e2e::StagedRoot root;
  ASSERT_TRUE(root.Ok());
  // A package the service task can stop and start.
  const std::string pkg = root.Path() + "/var/lib/orva/packages/e2epkg";
  ASSERT_TRUE(std::filesystem::create_directories(pkg));
  std::ofstream(pkg + "/package.json") << R"({"name": "e2epkg", "display_name": "E2E Package", "version": "1.0",
      "service": true, "control": {"start": "true", "stop": "true"}})";
  const std::string mark = "e2e-" + std::to_string(getpid());
  // A share of this root whose bin holds a file older than the recycle task's 30 days
  // and a fresh one: the task's tool must act on this root, not on the host.
  const std::string bin = root.Path() + "/srv/" + mark + "/.recycle";
  ASSERT_TRUE(std::filesystem::create_directories(bin));
  std::ofstream(bin + "/old.txt") << "old";
  std::ofstream(bin + "/new.txt") << "new";
  std::filesystem::last_write_time(bin + "/old.txt",
                                   std::filesystem::file_time_type::clock::now() - std::chrono::hours(24 * 60));
  std::ofstream(root.Path() + "/etc/orva/shares.json")
      << R"([{"name": ")" << mark << R"(", "path": ")" << root.Path() << "/srv/" << mark
      << R"(", "recycle_bin": true}])";
  ASSERT_TRUE(root.StartServer()) << root.ServerLog();

  const struct {
    const char* type;
    const char* extra;      // created with
    const char* listed;     // its action in the list
    const char* change;     // members of "extra" that set replaces
    const char* changed;    // the action after set
    const char* result;     // of the manual run
    std::string output;     // in the run's output
  } kinds[] = {
      {"script", R"({"script": "echo created"})", "Run: echo created",
       R"({"script": "echo MARK; id -un"})", "Run: echo MARK; id -un", "success", mark + "\nroot\n"},
      {"beep", R"({"beep_duration": 3})", "Beep for 3 second(s)", R"({"beep_duration": 1})",
       "Beep for 1 second(s)", "success", " 1 second(s)"},
      {"recycle", "{}", "Empty the recycle bins of all shared folders",
       R"({"clean_share_policy": {"clean_all": false, "shares": ["MARK"]},
           "clean_file_policy": {"policy": "time", "time": 30, "reserve_policy": {"size_greater_check": false,
                                 "size_smaller_check": false, "extension_check": false}}})",
       "Empty the recycle bin of: \"MARK\"", "success", ""},
      // Set turns every service off: the command is empty.
      {"service", R"({"action": "stop", "services": [{"id": "e2epkg", "enable": true}]})",
       "Stop service: \"E2E Package\"", R"({"action": "start"})", "Start service:", "success", ""},
  };
  auto withMark = [&](std::string text) {
    for (size_t p; (p = text.find("MARK")) != std::string::npos;) text.replace(p, 4, mark);
    return text;
  };
  for (const auto& k : kinds) {
    SCOPED_TRACE(k.type);
    Json::Value task = Parse(R"({"owner": "root", "enable": true, "schedule": {"repeat_date": "daily", "hour": 3,
                                 "minute": 30}})");
    task["type"] = k.type;
    task["name"] = std::string("e2e ") + k.type;
    task["extra"] = Parse(withMark(k.extra));
    e2e::Result r = root.Api("ORVA.Core.TaskScheduler", 2, "create", task);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const Json::Int64 id = r.json["data"]["id"].asInt64();
    ASSERT_GT(id, 0) << r.out;

    for (int version : {1, 2}) {
      const Json::Value item = Listed(root, version, id);
      ASSERT_TRUE(item.isObject()) << "v" << version;
      EXPECT_EQ(item["name"], task["name"]);
      EXPECT_EQ(item["type"], k.type);
      EXPECT_EQ(item["owner"], "root");
      EXPECT_EQ(item["enable"], true);
      EXPECT_EQ(item["action"], withMark(k.listed));
      EXPECT_FALSE(item.isMember("real_owner"));
    }

    Json::Value get;
    get["id"] = id;
    r = root.Api("ORVA.Core.TaskScheduler", 2, "get", get);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    Json::Value changed = r.json["data"];
    EXPECT_EQ(changed["type"], k.type);
    EXPECT_EQ(changed["schedule"]["hour"], 3);
    const Json::Value change = Parse(withMark(k.change));
    for (const std::string& member : change.getMemberNames()) changed["extra"][member] = change[member];
    if (changed["extra"].isMember("services")) {
      for (Json::Value& s : changed["extra"]["services"]) s["enable"] = false;
    }
    changed["name"] = std::string("e2e renamed ") + k.type;
    r = root.Api("ORVA.Core.TaskScheduler", 2, "set", changed);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    // What get shows now is what set sent.
    r = root.Api("ORVA.Core.TaskScheduler", 1, "get", get);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.json["data"]["name"], changed["name"]);
    EXPECT_EQ(r.json["data"]["extra"], changed["extra"]) << r.out;
    EXPECT_EQ(r.json["data"]["action"], withMark(k.changed));

    r = root.Api("ORVA.Core.TaskScheduler", 2, "set_enable", Parse(R"({"status": [{"id": )" + std::to_string(id) +
                                                                  R"(, "enable": false}]})"));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    for (int version : {1, 2}) {
      const Json::Value item = Listed(root, version, id);
      EXPECT_EQ(item["enable"], false) << item;
      EXPECT_EQ(item["next_trigger_time"], "-");
    }

    r = root.Api("ORVA.Core.TaskScheduler", 2, "run", Parse(R"({"tasks": [{"id": )" + std::to_string(id) + "}]}"));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    Json::Value last;
    for (int i = 0; i < 200 && !(last.isObject() && !last["end"].isNull()); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      r = root.Api("ORVA.Core.TaskScheduler", 1, "view", get);
      ASSERT_EQ(r.status, 0) << r.out << r.err;
      last = r.json["data"]["last_run"];
    }
    ASSERT_TRUE(last.isObject() && !last["end"].isNull()) << r.out;
    EXPECT_EQ(last["trigger"], "manual");
    // Without a console to ring, the beep fails and says so.
    const bool noBell = std::string(k.type) == "beep" && last["result"] == "failed";
    if (!noBell) {
      EXPECT_EQ(last["result"], k.result) << last;
    }
    EXPECT_NE(last["output"].asString().find(noBell ? "no PC speaker input device and no console" : k.output),
              std::string::npos)
        << last;

    if (std::string(k.type) == "recycle") {
      EXPECT_FALSE(std::filesystem::exists(bin + "/old.txt"));
      EXPECT_TRUE(std::filesystem::exists(bin + "/new.txt"));
    }

    r = root.Api("ORVA.Core.TaskScheduler", 1, "delete", Parse(R"({"task": )" + std::to_string(id) + "}"));
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_TRUE(Listed(root, 2, id).isNull());
    r = root.Api("ORVA.Core.TaskScheduler", 2, "get", get);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.json["error"]["code"], 4801) << r.out;
  }
  // Staging and the server keep the store and the sessions private.
  for (const auto& [file, mode] : {std::pair{"", 0700}, std::pair{"/scheduler.db", 0600},
                                   std::pair{"/sessions.db", 0600}}) {
    EXPECT_EQ(std::filesystem::status(root.Path() + "/var/lib/orva" + file).permissions(),
              static_cast<std::filesystem::perms>(mode))
        << file;
  }
}

}  // namespace

// Every method of every module with hostile parameter shapes, one member at a time on top of
// a valid request: none may make a module throw (code 100).
TEST(ModuleE2E, HostileParametersNeverMakeAModuleFail) {
  e2e::StagedRoot root;
  ASSERT_TRUE(root.Ok());
  ASSERT_TRUE(root.StartServer()) << root.ServerLog();
  const char* const hostile[] = {
      "18446744073709551615", "9223372036854775808", "9223372036854775807", "-9223372036854775809", "1e300",
      "-0.5", "\"\"", "\"5s\"", "\"a\\n\\n\\n\"", "\"--root=/elsewhere\"", "[1]", "[[]]",
      R"([{"id": "x", "enable": 1, "real_owner": 5}])", R"([{"id": 18446744073709551615}])", R"({"script": 5})",
      "null", "true"};
  const char* const common[] = {"id", "limit", "offset", "sort_by", "sort_direction", "type", "task", "tasks",
                                "status", "real_owner", "task_name", "owner", "enable", "event", "script",
                                "account", "passwd", "token", "lang"};
  const char* const schedule = R"({"repeat_date": "weekly", "week_day": "1,3", "hour": 3, "minute": 30})";
  const struct {
    const char* type;
    const char* extra;
    std::vector<std::string> paths;  // members of "extra" made hostile, '/' between levels
  } kinds[] = {
      {"script", R"({"script": "true"})", {"script"}},
      {"beep", R"({"beep_duration": 3})", {"beep_duration"}},
      {"recycle", R"({"clean_share_policy": {"clean_all": true, "shares": []},
                      "clean_file_policy": {"policy": "time", "time": 3, "reserve_policy": {"extension_check": true,
                      "extension": [{"file_ext": "pdf"}]}}, "enableRecycle": "all"})",
       {"clean_share_policy", "clean_share_policy/shares", "clean_file_policy", "clean_file_policy/reserve_policy",
        "clean_file_policy/reserve_policy/extension", "enableRecycle"}},
      {"service", R"({"action": "start", "services": [{"id": "WinShare", "enable": true}]})",
       {"action", "services", "services/0"}},
  };
  auto parse = [](const std::string& text) {
    Json::Value v;
    std::istringstream in(text);
    std::string errs;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &v, &errs)) << text;
    return v;
  };
  // A valid create of each kind, and the id it made (the base of "set").
  std::vector<std::pair<Json::Value, Json::Int64>> bases;
  for (const auto& k : kinds) {
    Json::Value p = parse(R"({"name": "fuzz", "owner": "root", "enable": true})");
    p["type"] = k.type;
    p["schedule"] = parse(schedule);
    p["extra"] = parse(k.extra);
    const Json::Value r = root.Post("ORVA.Core.TaskScheduler", 2, "create", p);
    ASSERT_TRUE(r["success"].asBool()) << r;
    bases.emplace_back(p, r["data"]["id"].asInt64());
  }
  int calls = 0;
  std::vector<std::string> failures;
  auto send = [&](const std::string& api, int version, const std::string& method, const Json::Value& params) {
    ++calls;
    const Json::Value r = root.Post(api, version, method, params);
    if (r.isNull() || r["error"]["code"] == 100) {
      failures.push_back(api + " v" + std::to_string(version) + " " + method + " " + Json::FastWriter().write(params));
    }
  };
  const Json::Value apis = root.Post("ORVA.API.Info", 1, "query", Json::Value())["data"]["apis"];
  ASSERT_TRUE(apis.isObject());
  for (const std::string& api : apis.getMemberNames()) {
    for (const std::string& method : apis[api]["methods"].getMemberNames()) {
      for (const Json::Value& version : apis[api]["methods"][method]) {
        const bool edits = api == "ORVA.Core.TaskScheduler" && (method == "create" || method == "set");
        for (const char* value : hostile) {
          const Json::Value bad = parse(value);
          for (const char* key : common) {
            Json::Value params(Json::objectValue);
            params[key] = bad;
            send(api, version.asInt(), method, params);
          }
          if (!edits) continue;
          // Each kind in one version (the versions differ little here), to keep the run short.
          for (size_t i = 0; i < bases.size(); ++i) {
            if (static_cast<int>(i % 3) + 1 != version.asInt()) continue;
            Json::Value base = bases[i].first;
            if (method == "set") {
              base.removeMember("type");
              base["id"] = bases[i].second;
            }
            std::vector<std::string> paths = {"id", "name", "owner", "enable", "schedule", "extra", "type",
                                              "schedule/hour", "schedule/repeat_date", "schedule/week_day"};
            for (const std::string& p : kinds[i].paths) paths.push_back("extra/" + p);
            for (const std::string& path : paths) {
              Json::Value params = base;
              Json::Value* at = &params;
              for (size_t from = 0, slash; from != std::string::npos; from = slash == std::string::npos ? slash : slash + 1) {
                slash = path.find('/', from);
                const std::string part = path.substr(from, slash == std::string::npos ? slash : slash - from);
                at = isdigit(static_cast<unsigned char>(part[0])) ? &(*at)[std::stoi(part)] : &(*at)[part];
              }
              *at = bad;
              send(api, version.asInt(), method, params);
            }
          }
        }
      }
    }
  }
  EXPECT_GT(calls, 1000);
  std::string shown;
  for (size_t i = 0; i < failures.size() && i < 8; ++i) shown += failures[i];
  EXPECT_TRUE(failures.empty()) << failures.size() << " of " << calls << " calls failed, e.g.:\n" << shown;
}
