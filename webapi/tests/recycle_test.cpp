// Recycle-bin task: the orvarecycle command line and action text of the flat object,
// the form's reshaping both ways, round trips through the store and switching the bins
// on against a real shares.json.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "ORVA.Core.TaskScheduler.Recycle.h"
#include "app_test_util.h"
#include "test_support.h"

namespace {

using apptest::Direct;
using apptest::Parse;
using apptest::Record;
using tstest::Call;

struct FlatCase {
  const char* name;
  const char* app;      // the flat object
  const char* command;  // expected command after the program (null: the conversion fails)
  const char* action;   // expected action text, or the log text of the failure
};

const char kProg[] = "/usr/orva/bin/orvarecycle";

const FlatCase kFlatCases[] = {
    {"worked example",
     R"({"recycle_action": "2", "clean_all": "no", "selected_shares": ["docs", "media"],
         "clean_policy": "clean_policy_by_size", "clean_policy_by_size_MB_number": "100",
         "clean_policy_by_size_sort_type": "Delete old files first",
         "advconfig": {"reserve_policy_extension_check": "on",
                       "reserve_policy_extension": [{"file_ext": "doc"}, {"file_ext": "pdf"}],
                       "reserve_policy_size_greater_check": "off",
                       "reserve_policy_size_smaller_check": "on", "reserve_policy_size_smaller": "1"}})",
     " --clean docs media -s 104857600 -o 1 -file_ext=doc.pdf -l 1048576",
     "#schedule:clean_recycle_bin#: \"docs\" \"media\""},
    {"enable all", R"({"recycle_action": "1", "clean_all": "yes"})", " --enable",
     "#share:share_clean_all_recycle_bin#"},
    {"disable all", R"({"recycle_action": "0"})", " --disable", "#share:share_clean_all_recycle_bin#"},
    {"clean all", R"({"recycle_action": "2", "clean_all": "YES"})", " --clean", "#share:share_clean_all_recycle_bin#"},
    {"disable one share with a blank", R"({"recycle_action": "0", "clean_all": "no", "selected_shares": ["a b"]})",
     " --disable a\\ b", "#share:share_disable_recycle_bin#: \"a b\""},
    {"enable selected", R"({"recycle_action": "1", "clean_all": "no", "selected_shares": ["x", "y$z"]})",
     " --enable x y\\$z", "#share:share_enable_recycle_bin#: \"x\" \"y$z\""},
    {"time policy", R"({"recycle_action": "2", "clean_all": "yes", "clean_policy": "clean_policy_by_time",
                        "clean_policy_by_time_day": "30"})",
     " --clean -t 30", "#share:share_clean_all_recycle_bin#"},
    {"time policy text passes unchanged",
     R"({"recycle_action": "2", "clean_policy": "clean_policy_by_time", "clean_policy_by_time_day": "7d"})",
     " --clean -t 7d", "#share:share_clean_all_recycle_bin#"},
    {"size 0", R"({"recycle_action": "2", "clean_policy": "clean_policy_by_size",
                   "clean_policy_by_size_MB_number": "0"})",
     " --clean -s 0 -o 1", "#share:share_clean_all_recycle_bin#"},
    {"size -1 wraps", R"({"recycle_action": "2", "clean_policy": "clean_policy_by_size",
                          "clean_policy_by_size_MB_number": "-1"})",
     " --clean -s 18446744073708503040 -o 1", "#share:share_clean_all_recycle_bin#"},
    {"size 4096", R"({"recycle_action": "2", "clean_policy": "clean_policy_by_size",
                      "clean_policy_by_size_MB_number": "4096", "clean_policy_by_size_sort_type": "Delete large files first"})",
     " --clean -s 4294967296 -o 2", "#share:share_clean_all_recycle_bin#"},
    {"sort text is exact", R"({"recycle_action": "2", "clean_policy": "clean_policy_by_size",
                               "clean_policy_by_size_MB_number": "1", "clean_policy_by_size_sort_type": "delete large files first"})",
     " --clean -s 1048576 -o 1", "#share:share_clean_all_recycle_bin#"},
    {"default policy adds nothing", R"({"recycle_action": "2", "clean_policy": "clean_policy_default",
                                       "clean_policy_by_time_day": "3"})",
     " --clean", "#share:share_clean_all_recycle_bin#"},
    {"unknown policy adds nothing", R"({"recycle_action": "2", "clean_policy": "Clean_policy_by_time",
                                       "clean_policy_by_time_day": "3"})",
     " --clean", "#share:share_clean_all_recycle_bin#"},
    {"policies ignored when enabling",
     R"({"recycle_action": "1", "clean_policy": "clean_policy_by_size", "clean_policy_by_size_MB_number": "5",
         "advconfig": {"reserve_policy_extension_check": "on", "reserve_policy_extension": [{"file_ext": "a"}],
                       "reserve_policy_size_greater_check": "on", "reserve_policy_size_greater": "1"}})",
     " --enable", "#share:share_clean_all_recycle_bin#"},
    {"greater then smaller",
     R"({"recycle_action": "2", "advconfig": {"reserve_policy_size_smaller_check": "on",
         "reserve_policy_size_smaller": "2", "reserve_policy_size_greater_check": "on",
         "reserve_policy_size_greater": "-1"}})",
     " --clean -m 18446744073708503040 -l 2097152", "#share:share_clean_all_recycle_bin#"},
    {"check is exact", R"({"recycle_action": "2", "advconfig": {"reserve_policy_size_greater_check": "ON",
                         "reserve_policy_size_greater": "1", "reserve_policy_extension_check": "On",
                         "reserve_policy_extension": [{"file_ext": "a"}]}})",
     " --clean", "#share:share_clean_all_recycle_bin#"},
    {"empty extension list", R"({"recycle_action": "2", "advconfig": {"reserve_policy_extension_check": "on",
                                "reserve_policy_extension": []}})",
     " --clean", "#share:share_clean_all_recycle_bin#"},
    {"empty extension keeps its separator",
     R"({"recycle_action": "2", "advconfig": {"reserve_policy_extension_check": "on",
         "reserve_policy_extension": [{"file_ext": "tmp"}, {"file_ext": ""}, {"file_ext": "log"}]}})",
     " --clean -file_ext=tmp..log", "#share:share_clean_all_recycle_bin#"},
    {"action 3", R"({"recycle_action": "3", "clean_all": "yes"})", nullptr,
     "error recycle_action, json app={\"clean_all\":\"yes\",\"recycle_action\":\"3\"}"},
    {"action empty", R"({"recycle_action": "", "clean_all": "no", "selected_shares": []})", nullptr,
     "error recycle_action, json app="},
    {"action missing", R"({"clean_all": "yes"})", nullptr, "error recycle_action, json app={\"clean_all\":\"yes\"}"},
    {"no selected shares", R"({"recycle_action": "2", "clean_all": "no", "selected_shares": []})", nullptr,
     "error selected_shares, json app="},
    {"selected shares missing", R"({"recycle_action": "1", "clean_all": "no"})", nullptr,
     "error selected_shares, json app={\"clean_all\":\"no\",\"recycle_action\":\"1\"}"},
};

TEST(RecycleTask, CommandLineAndActionOfTheFlatObject) {
  tstest::TempRoot root;
  for (const FlatCase& c : kFlatCases) {
    SCOPED_TRACE(c.name);
    tstest::ClearLogs();
    Direct<TaskSchedulerRecycleHandler> d;
    _tag_orva_sched_task_ record = apptest::FreshRecord();
    Json::Value in;
    in["app"] = Parse(c.app);
    bool ok = d.handler.ConvertFromJson_App(in, record);
    // Whatever the outcome, the fixed values and the stored object are in place.
    EXPECT_STREQ(record.app, "ORVA.VEK.TaskScheduler.Recycle");
    EXPECT_STREQ(record.app_name, "#share:recycle_bin#");
    EXPECT_STREQ(record.edit_form, "ORVA.VEK.TaskScheduler.Recycle.FormPanel");
    Json::FastWriter writer;
    EXPECT_EQ(std::string(record.app_args), writer.write(in["app"]));
    if (!c.command) {
      EXPECT_FALSE(ok);
      EXPECT_STREQ(record.command, "");
      EXPECT_STREQ(record.action, "");
      auto lines = tstest::LogsWith(c.action);
      ASSERT_EQ(lines.size(), 1u);
      EXPECT_EQ(lines[0].priority, LOG_ERR);
      EXPECT_EQ(lines[0].text.rfind("ORVA.Core.TaskScheduler.Recycle:", 0), 0u) << lines[0].text;
      EXPECT_EQ(tstest::LogCount(), 1u);
      continue;
    }
    EXPECT_TRUE(ok);
    EXPECT_EQ(std::string(record.command), std::string(kProg) + c.command);
    EXPECT_EQ(std::string(record.action), c.action);
    EXPECT_EQ(tstest::LogCount(), 0u);
  }
}

TEST(RecycleTask, ForbiddenExtensionCharactersFail) {
  tstest::TempRoot root;
  const char* const exts[] = {"tar.gz", "a b", "x^", "a\\b", "a?", "a/b", "a:b", "a*", "a`", "a$", "a\"", "a>", "a<", "a|"};
  for (const char* ext : exts) {
    SCOPED_TRACE(ext);
    tstest::ClearLogs();
    Direct<TaskSchedulerRecycleHandler> d;
    _tag_orva_sched_task_ record = apptest::FreshRecord();
    Json::Value in;
    in["app"] = Parse(R"({"recycle_action": "2", "advconfig": {"reserve_policy_extension_check": "on",
                         "reserve_policy_extension": [{"file_ext": "ok"}]}})");
    Json::Value bad;
    bad["file_ext"] = ext;
    in["app"]["advconfig"]["reserve_policy_extension"].append(bad);
    EXPECT_FALSE(d.handler.ConvertFromJson_App(in, record));
    EXPECT_STREQ(record.command, "");
    std::vector<tstest::LogLine> logs = tstest::Logs();
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_NE(logs[0].text.find(std::string("Invalid file extension arguments [") + ext + "]"), std::string::npos)
        << logs[0].text;
    EXPECT_NE(logs[1].text.find("Failed to check clean policy, json app={"), std::string::npos) << logs[1].text;
  }
  // The same extension is harmless while the exception is off.
  Direct<TaskSchedulerRecycleHandler> d;
  _tag_orva_sched_task_ record = apptest::FreshRecord();
  Json::Value in;
  in["app"] = Parse(R"({"recycle_action": "2", "advconfig": {"reserve_policy_extension_check": "off",
                       "reserve_policy_extension": [{"file_ext": "tar.gz"}]}})");
  EXPECT_TRUE(d.handler.ConvertFromJson_App(in, record));
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// recycle_bin of every share in the root's shares.json.
std::map<std::string, bool> Bins(const tstest::TempRoot& root) {
  Json::Value shares = Parse(ReadFile(root.Path() + "/etc/orva/shares.json"));
  std::map<std::string, bool> out;
  for (const Json::Value& s : shares) {
    out[s["name"].asString()] = s["recycle_bin"].asBool();
  }
  return out;
}

const char kShares[] = R"([{"name": "docs", "path": "/srv/docs", "recycle_bin": false},
                           {"name": "media", "path": "/srv/media", "recycle_bin": false},
                           {"name": "home", "path": "/home", "recycle_bin": false},
                           {"name": "web", "path": "/srv/web", "recycle_bin": false}])";

TEST(RecycleTask, EnableRecycleBinSwitchesTheChosenShares) {
  const struct {
    const char* mode;
    const char* shares;
    std::map<std::string, bool> expected;
  } cases[] = {
      {"select", R"(["media"])", {{"docs", false}, {"media", true}, {"home", false}, {"web", false}}},
      {"select", "[]", {{"docs", false}, {"media", false}, {"home", false}, {"web", false}}},
      {"all", "[]", {{"docs", true}, {"media", true}, {"home", false}, {"web", true}}},
      {"anything", R"(["docs"])", {{"docs", true}, {"media", true}, {"home", false}, {"web", true}}},
      {"all_include_home", "[]", {{"docs", true}, {"media", true}, {"home", true}, {"web", true}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.mode) + " " + c.shares);
    tstest::TempRoot root;
    root.WriteFile("etc/orva/shares.json", kShares);
    Direct<TaskSchedulerRecycleHandler> d;
    EXPECT_TRUE(d.handler.EnableRecycleBin(Parse(c.shares), Json::Value(c.mode)));
    EXPECT_EQ(Bins(root), c.expected);
  }
}

TEST(RecycleTask, EnableRecycleBinGoesOnPastAShareThatFails) {
  tstest::TempRoot root;
  root.WriteFile("etc/orva/shares.json", kShares);
  Direct<TaskSchedulerRecycleHandler> d;
  EXPECT_TRUE(d.handler.EnableRecycleBin(Parse(R"(["nosuch", "web"])"), Json::Value("select")));
  EXPECT_TRUE(Bins(root)["web"]);
  auto lines = tstest::LogsWith("ORVA.Core.TaskScheduler.Recycle:");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].text.find("enable share=nosuch recycle bin failed"), std::string::npos);

  // A share list that cannot be read fails the enumeration.
  tstest::ClearLogs();
  root.WriteFile("etc/orva/shares.json", "{broken");
  EXPECT_FALSE(d.handler.EnableRecycleBin(Json::Value(Json::arrayValue), Json::Value("all")));
  EXPECT_EQ(tstest::LogsWith("ORVA.Core.TaskScheduler.Recycle:").size(), 1u);
  EXPECT_EQ(tstest::LogsWith("enum share failed").size(), 1u);
}

// Saving a task with "enableRecycle" switches the bins on at once; the flag is not stored.
TEST(RecycleTask, CreateWithEnableRecycleSwitchesBinsAndDoesNotStoreIt) {
  tstest::TempRoot root;
  root.WriteFile("etc/orva/shares.json", kShares);
  Json::Value extra = Parse(R"({"enableRecycle": "select",
                                "clean_share_policy": {"clean_all": false, "shares": ["docs", "web"]}})");
  long id = apptest::Create("recycle", extra);
  ASSERT_GT(id, 0);
  EXPECT_EQ(Bins(root), (std::map<std::string, bool>{{"docs", true}, {"media", false}, {"home", false}, {"web", true}}));
  _tag_orva_sched_task_ r = Record(id);
  EXPECT_EQ(std::string(r.app_args).find("enableRecycle"), std::string::npos) << r.app_args;
  EXPECT_STREQ(r.command, "/usr/orva/bin/orvarecycle --clean docs web");
  EXPECT_STREQ(r.action, "#schedule:clean_recycle_bin#: \"docs\" \"web\"");
}

std::string IdParams(long id) { return "{\"id\": " + std::to_string(id) + "}"; }

TEST(RecycleTask, NewTaskReadsBackAsTheForm) {
  tstest::TempRoot root;
  tstest::Reply got = Call(2, "get", Parse(R"({"id": -1, "type": "recycle"})"));
  ASSERT_TRUE(got.success) << got.envelope.toStyledString();
  EXPECT_EQ(got.data["extra"], Parse(R"({"clean_share_policy": {"clean_all": true, "shares": null},
      "clean_file_policy": {"policy": "clean_all", "reserve_policy": {"size_greater_check": false,
      "size_smaller_check": false, "extension_check": false}}})"));
}

// Stored flat object -> form on get.
TEST(RecycleTask, GetReshapesTheStoredObject) {
  tstest::TempRoot root;
  const struct {
    const char* stored;
    const char* form;
  } cases[] = {
      {R"({"recycle_action": "2", "clean_all": "no", "selected_shares": ["a"], "clean_policy": "clean_policy_by_size",
          "clean_policy_by_size_MB_number": "250", "clean_policy_by_size_sort_type": "Delete large files first",
          "advconfig": {"reserve_policy_size_greater_check": "on", "reserve_policy_size_greater": "5",
                        "reserve_policy_size_smaller_check": "off", "reserve_policy_size_smaller": "9",
                        "reserve_policy_extension_check": "on", "reserve_policy_extension": [{"file_ext": "iso"}]},
          "other": 1})",
       R"({"clean_share_policy": {"clean_all": false, "shares": ["a"]},
           "clean_file_policy": {"policy": "size", "size": 250, "sort_type": 0,
             "reserve_policy": {"size_greater_check": true, "size_greater": 5, "size_smaller_check": false,
                                "extension_check": true, "extension": [{"file_ext": "iso"}]}},
           "other": 1})"},
      {R"({"recycle_action": "0", "clean_all": "Yes", "clean_policy": "clean_policy_by_time",
          "clean_policy_by_time_day": "12", "clean_policy_by_size_sort_type": "Delete old files first"})",
       R"({"clean_share_policy": {"clean_all": false, "shares": null},
           "clean_file_policy": {"policy": "time", "time": 12,
             "reserve_policy": {"size_greater_check": false, "size_smaller_check": false, "extension_check": false}}})"},
      {R"({"clean_all": "yes", "clean_policy": "clean_policy_by_size", "clean_policy_by_size_MB_number": "x"})",
       R"({"clean_share_policy": {"clean_all": true, "shares": null},
           "clean_file_policy": {"policy": "size", "size": 0, "sort_type": 1,
             "reserve_policy": {"size_greater_check": false, "size_smaller_check": false, "extension_check": false}}})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stored);
    tstest::TaskSpec spec;
    spec.app = "ORVA.VEK.TaskScheduler.Recycle";
    Json::FastWriter writer;
    spec.appArgs = writer.write(Parse(c.stored));
    long id = tstest::AddTask(spec);
    tstest::Reply got = Call(2, "get", Parse(IdParams(id)));
    ASSERT_TRUE(got.success) << got.envelope.toStyledString();
    EXPECT_EQ(got.data["extra"], Parse(c.form)) << got.data["extra"].toStyledString();
    EXPECT_EQ(got.data["type"], "recycle");
    EXPECT_EQ(got.data["can_edit_owner"], false);
  }
}

// Set merges the form into the stored flat object; values of the wrong type are skipped.
TEST(RecycleTask, SetMergesTheFormIntoTheStoredObject) {
  tstest::TempRoot root;
  const char* stored = R"({"recycle_action": "0", "clean_all": "no", "selected_shares": ["a"],
      "clean_policy": "clean_policy_by_size", "clean_policy_by_size_MB_number": "7",
      "clean_policy_by_size_sort_type": "Delete old files first", "clean_policy_by_time_day": "3",
      "advconfig": {"reserve_policy_size_greater_check": "on", "reserve_policy_size_greater": "5",
                    "reserve_policy_size_smaller_check": "off", "reserve_policy_size_smaller": "9",
                    "reserve_policy_extension_check": "on", "reserve_policy_extension": [{"file_ext": "iso"}]},
      "keep": "me"})";
  const struct {
    const char* name;
    const char* form;
    const char* changes;  // members of the expected flat object that differ from `stored`
  } cases[] = {
      {"nothing", "{}", "{}"},
      {"size as text keeps the number", R"({"clean_file_policy": {"policy": "size", "size": "100"}})", "{}"},
      {"size and sort 5", R"({"clean_file_policy": {"policy": "size", "size": 100, "sort_type": 5}})",
       R"({"clean_policy_by_size_MB_number": "100", "clean_policy_by_size_sort_type": "Delete large files first"})"},
      {"sort 1", R"({"clean_file_policy": {"policy": "size", "sort_type": 1}})",
       R"({"clean_policy_by_size_sort_type": "Delete old files first"})"},
      {"time", R"({"clean_file_policy": {"policy": "time", "time": 14, "size": 1}})",
       R"({"clean_policy": "clean_policy_by_time", "clean_policy_by_time_day": "14"})"},
      {"other policy", R"({"clean_file_policy": {"policy": "clean_all"}})",
       R"({"clean_policy": "clean_policy_default"})"},
      {"policy not a string", R"({"clean_file_policy": {"policy": 1, "time": 5}})", "{}"},
      {"all shares", R"({"clean_share_policy": {"clean_all": true, "shares": "x"}})", R"({"clean_all": "yes"})"},
      {"shares", R"({"clean_share_policy": {"clean_all": "no", "shares": ["b", "c"]}})",
       R"({"selected_shares": ["b", "c"]})"},
      {"greater off keeps its number",
       R"({"clean_file_policy": {"reserve_policy": {"size_greater_check": false, "size_greater": 50}}})",
       R"({"advconfig": {"reserve_policy_size_greater_check": "off", "reserve_policy_size_greater": "5",
           "reserve_policy_size_smaller_check": "off", "reserve_policy_size_smaller": "9",
           "reserve_policy_extension_check": "on", "reserve_policy_extension": [{"file_ext": "iso"}]}})"},
      {"smaller on, extension list replaced",
       R"({"clean_file_policy": {"reserve_policy": {"size_smaller_check": true, "size_smaller": 2,
           "extension_check": true, "extension": [{"file_ext": "bak"}], "size_greater_check": "on"}}})",
       R"({"advconfig": {"reserve_policy_size_greater_check": "on", "reserve_policy_size_greater": "5",
           "reserve_policy_size_smaller_check": "on", "reserve_policy_size_smaller": "2",
           "reserve_policy_extension_check": "on", "reserve_policy_extension": [{"file_ext": "bak"}]}})"},
      {"policies not objects", R"({"clean_share_policy": [true], "clean_file_policy": "size"})", "{}"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    tstest::TaskSpec spec;
    spec.app = "ORVA.VEK.TaskScheduler.Recycle";
    Json::FastWriter writer;
    spec.appArgs = writer.write(Parse(stored));
    long id = tstest::AddTask(spec);
    Json::Value params = apptest::TaskObject("recycle", Parse(c.form));
    params["id"] = static_cast<Json::Int64>(id);
    tstest::Reply set = Call(2, "set", params);
    ASSERT_TRUE(set.success) << set.envelope.toStyledString();
    EXPECT_EQ(set.data["id"], static_cast<Json::Int64>(id));

    Json::Value expected = Parse(stored);
    Json::Value changes = Parse(c.changes);
    for (const std::string& key : changes.getMemberNames()) expected[key] = changes[key];
    _tag_orva_sched_task_ r = Record(id);
    EXPECT_EQ(Parse(r.app_args), expected) << r.app_args;
    EXPECT_EQ(std::string(r.app_args).back(), '\n');
  }
}

// What the form shows after a set is what it sent (for values of the right type).
TEST(RecycleTask, FormRoundTripThroughSetAndGet) {
  tstest::TempRoot root;
  root.WriteFile("etc/orva/shares.json", kShares);
  Json::Value form = Parse(R"({"clean_share_policy": {"clean_all": false, "shares": ["docs", "media"]},
      "clean_file_policy": {"policy": "size", "size": 100, "sort_type": 1,
        "reserve_policy": {"size_greater_check": false, "size_smaller_check": true, "size_smaller": 1,
                           "extension_check": true, "extension": [{"file_ext": "doc"}, {"file_ext": "pdf"}]}}})");
  long id = apptest::Create("recycle", form);
  ASSERT_GT(id, 0);
  _tag_orva_sched_task_ r = Record(id);
  EXPECT_STREQ(r.command,
               "/usr/orva/bin/orvarecycle --clean docs media -s 104857600 -o 1 -file_ext=doc.pdf -l 1048576");
  tstest::Reply got = Call(2, "get", Parse(IdParams(id)));
  ASSERT_TRUE(got.success);
  EXPECT_EQ(got.data["extra"], form) << got.data["extra"].toStyledString();

  // A set that changes only the policy keeps the shares and exceptions.
  Json::Value params = apptest::TaskObject("recycle", Parse(R"({"clean_file_policy": {"policy": "time", "time": 9}})"));
  params["id"] = static_cast<Json::Int64>(id);
  ASSERT_TRUE(Call(2, "set", params).success);
  EXPECT_STREQ(Record(id).command, "/usr/orva/bin/orvarecycle --clean docs media -t 9 -file_ext=doc.pdf -l 1048576");
}

TEST(RecycleTask, RejectedSetKeepsTheStoredTask) {
  tstest::TempRoot root;
  long id = apptest::Create("recycle", Json::Value(Json::objectValue));
  ASSERT_GT(id, 0);
  std::string before = Record(id).command;
  EXPECT_EQ(before, "/usr/orva/bin/orvarecycle --clean");
  tstest::ClearLogs();
  Json::Value params = apptest::TaskObject("recycle", Parse(R"({"clean_share_policy": {"clean_all": false, "shares": []}})"));
  params["id"] = static_cast<Json::Int64>(id);
  tstest::Reply set = Call(2, "set", params);
  EXPECT_FALSE(set.success);
  EXPECT_EQ(set.code, 117);
  EXPECT_EQ(set.data, Parse(R"({"msg": "Invalid (app) object"})"));
  EXPECT_EQ(tstest::LogsWith("error selected_shares").size(), 1u);
  EXPECT_EQ(tstest::LogsWith("ORVA.Core.TaskScheduler.Basic:").size(), 1u);
  EXPECT_EQ(Record(id).command, before);
}

}  // namespace
