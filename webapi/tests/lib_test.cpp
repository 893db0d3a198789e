// The shared layer: owners, store access on behalf of users, app keys, shell words, the
// UI text parser and the translation of "#section:key#" tokens in action texts.

#include <boost/optional/optional_io.hpp>

#include "ORVA.Core.TaskScheduler.h"
#include "test_support.h"

namespace TS = ORVA::Core::TaskScheduler;

using namespace orvatest;

namespace {


TEST(ModuleLib, RealOwnerFromParametersAndRequests) {
  // want (null: absent)
  const struct { const char* json; const char* want; } cases[] = {
      {R"({"real_owner":"alice"})", "alice"}, {R"({"real_owner":""})", nullptr}, {R"({"real_owner":7})", nullptr},
      {R"({"real_owner":null})", nullptr},    {R"({"id":3})", nullptr},          {R"([1,2])", nullptr},
      {R"("alice")", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    const boost::optional<std::string> want = c.want ? boost::optional<std::string>(c.want) : boost::none;
    EXPECT_EQ(TS::GetRealOwner(Parse(c.json)), want);
    if (Parse(c.json).isObject()) {
      ORVA::APIRequest request("ORVA.Core.TaskScheduler", 3, "get", Parse(c.json), "admin", "en");
      EXPECT_EQ(TS::GetRealOwner(request), want);
    }
  }
}

// One line under "lib:" that holds `text`, and nothing else from the layer.
void ExpectLibLine(const std::string& text) {
  EXPECT_NE(ExpectOneLog("lib:", LOG_ERR).find(text), std::string::npos) << text;
  ClearLogs();
}

TEST(ModuleLib, StoreLayerAsTheSystemAndOnBehalfOfUsers) {
  ModuleRoot root;
  TestUser alice, bob;
  ASSERT_TRUE(alice.Ok() && bob.Ok());
  _tag_orva_sched_task_ task;
  memset(&task, 0x5A, sizeof(task));
  ASSERT_TRUE(TS::InitTask(boost::none, task));
  EXPECT_TRUE(ORVASchedTaskIsNew(task));
  EXPECT_EQ(ORVASchedTaskGetID(task), -1);
  EXPECT_EQ(task.next, nullptr);
  ASSERT_TRUE(TS::LoadTask(boost::none, -1, task));
  EXPECT_TRUE(ORVASchedTaskIsNew(task));

  // A name longer than its field marks the record; the failed save of a new record logs both ids.
  ORVASchedCTaskSetName(&task, std::string(ORVA_SCHED_NAME_MAX + 10, 'n').c_str());
  EXPECT_FALSE(TS::SaveTask(boost::none, task));
  ExpectLibLine("Failed to save task [-1][");

  ASSERT_TRUE(TS::InitTask(std::string(alice.Name()), task));
  ORVASchedCTaskSetName(&task, "alice's");
  ORVASchedCTaskSetOwner(&task, alice.Uid());
  ASSERT_TRUE(TS::SaveTask(alice.Name(), task));
  const long id = ORVASchedTaskGetID(task);
  const std::string ids = std::to_string(id);
  ASSERT_GT(id, 0);
  _tag_orva_sched_task_ loaded;
  ASSERT_TRUE(TS::LoadTask(alice.Name(), id, loaded));
  EXPECT_STREQ(ORVASchedTaskGetName(loaded), "alice's");
  EXPECT_FALSE(ORVASchedTaskIsNew(loaded));
  EXPECT_EQ(ORVASchedTaskGetRealOwner(loaded), alice.Uid());
  ASSERT_TRUE(TS::LoadTask(boost::none, id, loaded));

  // Failed loads leave the caller's record as it was.
  for (const auto& [owner, loadId, line] :
       {std::tuple<boost::optional<std::string>, long, std::string>{
            bob.Name(), id, "load task failed. user:[" + bob.Name() + "] id:[" + ids + "] [0x"},
        {boost::none, 987654, "load task failed. id:[987654] [0x"}}) {
    SCOPED_TRACE(line);
    _tag_orva_sched_task_ kept;
    memset(&kept, 0x33, sizeof(kept));
    const _tag_orva_sched_task_ before = kept;
    EXPECT_FALSE(TS::LoadTask(owner, loadId, kept));
    EXPECT_EQ(memcmp(&kept, &before, sizeof(kept)), 0);
    ExpectLibLine(line);
  }
  // Bob can neither save over nor remove it; the user forms bracket the ids.
  EXPECT_FALSE(TS::SaveTask(bob.Name(), loaded));
  ExpectLibLine("Failed to save task [" + bob.Name() + "][" + ids + "][" + ids + "]. [0x");
  EXPECT_FALSE(TS::RemoveTask(bob.Name(), id));
  ExpectLibLine("Failed to delete task [" + bob.Name() + "][" + ids + "]. [0x");
  EXPECT_TRUE(TaskExists(id));
  EXPECT_TRUE(TS::RemoveTask(alice.Name(), id));
  EXPECT_FALSE(TaskExists(id));
  EXPECT_FALSE(TS::RemoveTask(boost::none, id));
  ExpectLibLine("Failed to delete task " + ids + ". [0x");
}

TEST(ModuleLib, AppKeysOfNamespacesAndOfStoredTasks) {
  const std::pair<const char*, const char*> cases[] = {
      {"ORVA.VEK.TaskScheduler.Beep", "beep"},          {"ORVA.VEK.TaskScheduler.Script", "script"},
      {"ORVA.VEK.TaskScheduler.Service", "service"},    {"ORVA.VEK.TaskScheduler.Recycle", "recycle"},
      {"ORVA.VEK.DataAnalysis", "report"},              {"ORVA.VEK.TaskScheduler.AutoPower", "power"},
      {"ORVA.VEK.TaskScheduler.ZEMAutoUpdate", "zemupdate"}, {"ORVA.VEK.BackupApp.NetBackup", "backup"},
      {"ORVA.VEK.BackupApp.LocalBackup", "backup"},     {"ORVA.VEK.BackupApp.LUNBackup", "backup"},
      {"ORVA.VEK.BackupApp.S3Backup", "backup"},        {"ORVA.VEK.EventScheduler.Script", "event_script"},
      {"orva.vek.taskscheduler.beep", "custom"},        {"ORVA.VEK.TaskScheduler.Beep.FormPanel", "custom"},
      {"ORVA.VEK.TaskScheduler.Bee", "custom"},         {" ORVA.VEK.TaskScheduler.Beep", "custom"}, {"", "custom"},
  };
  for (const auto& [ns, key] : cases) {
    SCOPED_TRACE(ns);
    EXPECT_EQ(TS::GetAppKeyFromNameSpace(ns), key);
  }

  ModuleRoot root;
  TestUser user;
  ASSERT_TRUE(user.Ok());
  const long beepId = AddTask({.app = "ORVA.VEK.TaskScheduler.Beep"});
  const long otherId = AddTask({.app = ""});
  // key (null: fails); line: logged on failure
  const struct { boost::optional<std::string> owner; long id; const char* key; std::string line; } lookups[] = {
      {boost::none, beepId, "beep", ""}, {boost::none, otherId, "custom", ""},
      {boost::none, 55555, nullptr, "Load Task failed [-][55555]"},
      {user.Name(), beepId, nullptr, "Load Task failed [" + user.Name() + "][" + std::to_string(beepId) + "]"},
  };
  for (const auto& c : lookups) {
    SCOPED_TRACE(c.id);
    std::string key = "unchanged";
    ClearLogs();
    EXPECT_EQ(TS::GetAppTypeByID(c.owner, c.id, key), c.key != nullptr);
    EXPECT_EQ(key, c.key ? c.key : "unchanged");
    if (!c.key) ExpectOneLog(c.line);
  }
}

// What the shell makes of the escaped words is KelcEncShParam's test; the command lines of
// the recycle and service kinds show the escaping in use.
TEST(ModuleLib, EscapedShellNameFailsLoudlyWhenEmpty) {
  EXPECT_EQ(TS::EscapeShellName("plain_name-1.2"), "plain_name-1.2");
  // Empty, or needing more than twice the input (two newlines): empty and one line.
  for (const std::string name : {"", "\n\n"}) {
    ClearLogs();
    EXPECT_EQ(TS::EscapeShellName(name), "");
    EXPECT_TRUE(ExpectOneLog("escape cmd=" + name + " failed, errno=").starts_with("lib:"));
  }
}

class ModuleTexts : public ::testing::Test {
 protected:
  void SetUp() override {
    root.WriteTexts("en", R"({"common": {"ok": "OK", "run": "Run", "empty": "", "num": 5, "ab": "#x:y#",
                                         "start_service": "Start service"},
                              "a": {"b": "AB", "b:c": "A-BC"}, "b": {"c": "BC"}, "x": {"y": "XY"},
                              "": {"": "empty both"}, "share": {"recycle_bin": "Recycle Bin"},
                              "volume": {"beep_on": "Beep for"}, "sect": "not an object"})");
    root.WriteTexts("de", R"({"common": {"run": "Ausführen"}})");
    root.WriteAppTexts("myapp", "Vendor.App", R"({"common": {"ok": "App OK"}, "app": {"title": "My App"},
                                                  "a": {"b": "vendor AB"}})");
  }
  ModuleRoot root;
};

TEST_F(ModuleTexts, ParserKeysAndLookups) {
  TS::AppParser parser("en");
  const std::pair<const char*, bool> keys[] = {{"#a:b#", true}, {"#:#", true}, {"##:", false}, {"#a:b", false},
                                               {"a:b#", false}, {"#ab#", false}, {"", false}, {"#", false},
                                               {"#:", false},   {"#a#b:c#", true}};
  for (const auto& [text, key] : keys) EXPECT_EQ(parser.IsSectionKey(text), key) << text;
  const struct { const char* lang; const char* app; const char* text; const char* want; } cases[] = {
      {"en", "", "plain text", "plain text"}, {"en", "", "", ""}, {"en", "", "#common:ok", "#common:ok"},
      {"en", "", "ok:#", "ok:#"}, {"en", "", "#common:ok#", "OK"}, {"en", "", "#:#", "empty both"},
      {"en", "", "#a:b:c#", "A-BC"}, {"en", "", "#common:empty#", "#common:empty#"},
      {"en", "", "#common:num#", "#common:num#"}, {"en", "", "#sect:x#", "#sect:x#"},
      {"en", "", "#common:missing#", "#common:missing#"}, {"en", "", "#Common:ok#", "#Common:ok#"},
      {"en", "Vendor.App", "#common:ok#", "App OK"}, {"en", "Vendor.App", "#app:title#", "My App"},
      {"en", "Vendor.App", "#share:recycle_bin#", "Recycle Bin"}, {"en", "Other.App", "#app:title#", "#app:title#"},
      {"de", "", "#common:run#", "Ausführen"},  // no fallback to another language
      {"de", "", "#common:ok#", "#common:ok#"}, {"fr", "", "#common:ok#", "#common:ok#"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.lang) + " " + c.app + " " + c.text);
    EXPECT_EQ(TS::AppParser(c.lang).GetString(c.app, c.text), c.want);
  }
  EXPECT_TRUE(parser.Is3rdPartyApp("Vendor.App"));
  EXPECT_FALSE(parser.Is3rdPartyApp("Other.App"));
}

TEST_F(ModuleTexts, AppTextsAreReadAtLookupTime) {
  TS::AppParser parser("en");
  EXPECT_EQ(parser.GetString("Vendor.App", "#app:title#"), "My App");
  // Rewritten (to a different size) after the parser was built: the next lookup sees it.
  const std::string file = "usr/orva/orvaman/webman/3rdparty/myapp/texts/en/strings.json";
  root.Write(file, R"({"app": {"title": "Renamed App"}})");
  EXPECT_EQ(parser.GetString("Vendor.App", "#app:title#"), "Renamed App");
  root.Write(file, "{not json");  // broken: the system texts answer
  EXPECT_EQ(parser.GetString("Vendor.App", "#common:ok#"), "OK");
}

TEST_F(ModuleTexts, ActionTokensAreTranslatedByTheScanner) {
  ORVA::APIRequest request("ORVA.Core.TaskScheduler", 2, "list", Json::Value(Json::objectValue), "admin", "en");
  ORVA::APIResponse response;
  TaskSchedulerHandler handler(&request, &response, 0, "", Json::Value(), new TS::AppParser("en"));
  // action (null: none, which is set to null); an action that is no string stays
  const struct { const char* app; Json::Value action; Json::Value want; } cases[] = {
      {"", "", ""}, {"", "plain text", "plain text"},
      {"", "#common:start_service#: \"WinShare\" \"FileXfer\"", "Start service: \"WinShare\" \"FileXfer\""},
      {"", "#a:b#c:d#", "ABc:d#"}, {"", "## #x:y#", "## XY"}, {"", "# #x:y#", "# XY"}, {"", "#a#b:c#", "#aBC"},
      {"", "#nope:none#", "#nope:none#"}, {"", "#nope:none# and #x:y#", "#nope:none# and XY"},
      {"", "#x:y##x:y#", "XYXY"}, {"", "#x:y# then #x:y#", "XY then XY"}, {"", "#a:b:c#", "A-BC"},
      {"", "#:#", "empty both"}, {"", "#", "#"}, {"", "::#x:y#::", "::XY::"},
      {"", "#volume:beep_on# 60 #common:time_seconds#", "Beep for 60 #common:time_seconds#"}, {"", "x:#y#", "x:#y#"},
      {"", "#common:run#: echo '#'; date +%H:%M#", "Run: echo '#'; date +%H:%M#"},
      // "#common:ab#" gives "#x:y#"; the later token then replaces that copy, its own stays.
      {"", "#common:ab# #x:y#", "XY #x:y#"}, {"Vendor.App", "#a:b# / #x:y#", "vendor AB / XY"},
      {"ORVA.VEK.TaskScheduler.Beep", "#a:b#", "AB"}, {"", Json::Value(), Json::Value()}, {"", 12, 12},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.app) + " " + c.action.toStyledString());
    Json::Value item = Parse(R"({"other": 7})");
    if (!c.action.isNull()) item["action"] = c.action;
    Json::Value want = item;
    want["action"] = c.want;
    handler.TranslateActionKey(item, c.app);
    EXPECT_EQ(item, want);
  }
}

}  // namespace
