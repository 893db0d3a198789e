// Recycle-bin task: the orvarecycle command line and action text of the flat object, the
// form's round trip, and switching the bins on against a real shares.json.
#include "ORVA.Core.TaskScheduler.Recycle.h"
#include "test_support.h"

using namespace orvatest;

namespace {

// A handler around an empty request, for calling its operations directly.
struct Direct {
  ORVA::APIRequest request{"ORVA.Core.TaskScheduler", 2, "set", Json::Value(Json::objectValue), "admin", "en"};
  ORVA::APIResponse response;
  TaskSchedulerRecycleHandler handler{&request, &response, boost::none};
};

const char kAll[] = "#share:share_clean_all_recycle_bin#";

const struct FlatCase {
  const char* app;      // the flat object
  const char* command;  // after the program; null: the conversion fails
  const char* action;   // the action text, or the failure's log text
} kFlatCases[] = {
    {R"({"recycle_action": "1", "clean_all": "yes"})", " --enable", kAll},
    {R"({"recycle_action": "0", "clean_all": "no", "selected_shares": ["a b"]})", " --disable a\\ b",
     "#share:share_disable_recycle_bin#: \"a b\""},
    {R"({"recycle_action": "1", "clean_all": "no", "selected_shares": ["x", "y$z"]})", " --enable x y\\$z",
     "#share:share_enable_recycle_bin#: \"x\" \"y$z\""},
    {R"({"recycle_action": "2", "clean_all": "yes", "clean_policy": "clean_policy_by_time",
         "clean_policy_by_time_day": "30"})", " --clean -t 30", kAll},
    {R"({"recycle_action": "2", "clean_policy": "clean_policy_by_size", "clean_policy_by_size_MB_number": "4096",
         "clean_policy_by_size_sort_type": "Delete large files first"})", " --clean -s 4294967296 -o 2", kAll},
    // Policies and exceptions are ignored when enabling.
    {R"({"recycle_action": "1", "clean_policy": "clean_policy_by_size", "clean_policy_by_size_MB_number": "5",
         "advconfig": {"reserve_policy_extension_check": "on", "reserve_policy_extension": [{"file_ext": "a"}],
                       "reserve_policy_size_greater_check": "on", "reserve_policy_size_greater": "1"}})",
     " --enable", kAll},
    {R"({"recycle_action": "2", "advconfig": {"reserve_policy_size_smaller_check": "on",
         "reserve_policy_size_smaller": "2", "reserve_policy_size_greater_check": "on",
         "reserve_policy_size_greater": "-1"}})", " --clean -m 18446744073708503040 -l 2097152", kAll},
    {R"({"recycle_action": "3", "clean_all": "yes"})", nullptr,
     "error recycle_action, json app={\"clean_all\":\"yes\",\"recycle_action\":\"3\"}"},
    {R"({"recycle_action": "2", "clean_all": "no", "selected_shares": []})", nullptr,
     "error selected_shares, json app="},
    // A name that is empty, not a share, or option-like never reaches the command line.
    {R"({"recycle_action": "2", "clean_all": "no", "selected_shares": ["--root=/elsewhere"]})", nullptr,
     "not a shared folder"},
    {R"({"recycle_action": "2", "clean_all": "no", "selected_shares": ["-t"]})", nullptr, "not a shared folder"},
};

TEST(ModuleRecycle, CommandLineAndActionOfTheFlatObject) {
  ModuleRoot root;
  root.Write("etc/orva/shares.json", R"([{"name": "docs"}, {"name": "media"}, {"name": "a b"}, {"name": "x"},
                                             {"name": "y$z"}, {"name": "-t"}])");
  for (const FlatCase& c : kFlatCases) {
    SCOPED_TRACE(c.app);
    gLogs.clear();
    Direct d;
    _tag_orva_sched_task_ record{};
    ASSERT_TRUE(ORVA::Core::TaskScheduler::InitTask(boost::none, record));
    EXPECT_EQ(d.handler.ConvertFromJson_App(Parse(std::string(R"({"app": )") + c.app + "}"), record), !!c.command);
    EXPECT_EQ(std::string(record.command), c.command ? std::string("/usr/orva/bin/orvarecycle") + c.command : "");
    EXPECT_EQ(std::string(record.action), c.command ? c.action : "");
    EXPECT_EQ(gLogs.size(), c.command ? 0u : 1u);
    if (!c.command) { EXPECT_TRUE(ExpectOneLog(c.action, LOG_ERR).starts_with("ORVA.Core.TaskScheduler.Recycle:")); }
  }
}

// The shares of the root's shares.json whose recycle bin is on, blank-separated.
std::string BinsOn(const ModuleRoot& root) {
  std::string out;
  for (const Json::Value& s : Parse(root.Read("/etc/orva/shares.json"))) {
    if (s["recycle_bin"].asBool()) out += (out.empty() ? "" : " ") + s["name"].asString();
  }
  return out;
}

// The form a create sends comes back from get, and "enableRecycle" switches the bins on at
// once (the chosen shares, or all) without being stored. Sets in turn merge their form into the stored flat object
// (values of the wrong type are skipped); one that the kind refuses keeps the task.
TEST(ModuleRecycle, FormRoundTripAndMergingSets) {
  ModuleRoot root;
  root.Write("etc/orva/shares.json", R"([{"name": "docs", "path": "/srv/docs", "recycle_bin": false},
                                         {"name": "home", "path": "/home", "recycle_bin": false},
                                         {"name": "web", "path": "/srv/web", "recycle_bin": false}])");
  const Json::Value form = Parse(R"({"clean_share_policy": {"clean_all": false, "shares": ["docs", "web"]},
      "clean_file_policy": {"policy": "size", "size": 100, "sort_type": 0,
        "reserve_policy": {"size_greater_check": true, "size_greater": 5, "size_smaller_check": true, "size_smaller": 1,
                           "extension_check": true, "extension": [{"file_ext": "doc"}, {"file_ext": "pdf"}]}}})");
  const long id = Create("recycle", Merged(form, Parse(R"({"enableRecycle": "select"})")));
  EXPECT_EQ(BinsOn(root), "docs web");
  EXPECT_STREQ(Record(id).action, "#schedule:clean_recycle_bin#: \"docs\" \"web\"");
  EXPECT_EQ(std::string(Record(id).app_args).find("enableRecycle"), std::string::npos) << Record(id).app_args;
  EXPECT_EQ(GetTask(id)["extra"], form);
  Create("recycle", Parse(R"({"enableRecycle": "all_include_home"})"));  // every share and the home folders
  EXPECT_EQ(BinsOn(root), "docs home web");

  const std::string all = " --clean -s 104857600 -o 1 -file_ext=doc.pdf -l 1048576";
  const std::pair<const char*, std::string> sets[] = {  // form sent, the command after it
      {"{}", " --clean docs web -s 104857600 -o 2 -file_ext=doc.pdf -m 5242880 -l 1048576"},
      {R"({"clean_file_policy": {"policy": "time", "time": 14, "reserve_policy": {"size_greater_check": false}}})",
       " --clean docs web -t 14 -file_ext=doc.pdf -l 1048576"},
      {R"({"clean_share_policy": {"clean_all": true, "shares": "x"},
          "clean_file_policy": {"policy": "size", "size": "9", "sort_type": 1}})", all},
      {R"({"clean_share_policy": [true], "clean_file_policy": "size"})", all},
      {R"({"clean_share_policy": {"clean_all": false, "shares": []}})", all},  // refused: kept
  };
  for (size_t i = 0; i < std::size(sets); ++i) {
    const Reply r = Call(2, "set", TaskObject("recycle", Parse(sets[i].first), id));
    const bool refused = i + 1 == std::size(sets);
    EXPECT_TRUE(refused ? r.code == 117 && r.data["msg"] == "Invalid (app) object" : r.success) << r.envelope;
    EXPECT_EQ(Record(id).command, "/usr/orva/bin/orvarecycle" + sets[i].second) << sets[i].first;
  }
  // Characters that may not be in a kept extension: refused, the task kept.
  for (const char* ext : {"tar.gz", "a b", "x^", "a\\b", "a?", "a/b", "a:b", "a*", "a`", "a$", "a\"", "a>", "a<", "a|"}) {
    Json::Value sent = Parse(R"({"clean_file_policy": {"reserve_policy": {"extension_check": true}}})");
    sent["clean_file_policy"]["reserve_policy"]["extension"][0]["file_ext"] = ext;
    ExpectReply(Call(2, "set", TaskObject("recycle", sent, id)), 4800, "invalid (app) object");
  }
  EXPECT_EQ(Record(id).command, "/usr/orva/bin/orvarecycle" + all);
}

}  // namespace
