// The shared layer: app keys and the translation of "#section:key#" tokens
// in action texts through the UI text parser.
#include "ORVA.Core.TaskScheduler.h"
#include "test_support.h"

namespace TS = ORVA::Core::TaskScheduler;

using namespace orvatest;

namespace {

TEST(ModuleLib, AppKeysOfNamespaces) {
  // (The other kinds' keys show in the handler and list tests.)
  const std::pair<const char*, const char*> cases[] = {
      {"ORVA.VEK.TaskScheduler.AutoPower", "power"}, {"ORVA.VEK.TaskScheduler.ZEMAutoUpdate", "zemupdate"},
      {"ORVA.VEK.BackupApp.NetBackup", "backup"},    {"ORVA.VEK.BackupApp.LocalBackup", "backup"},
      {"ORVA.VEK.BackupApp.LUNBackup", "backup"},    {"ORVA.VEK.BackupApp.S3Backup", "backup"},
      {"orva.vek.taskscheduler.beep", "custom"},     {"ORVA.VEK.TaskScheduler.Beep.FormPanel", "custom"},
  };
  for (const auto& [ns, key] : cases) EXPECT_EQ(TS::GetAppKeyFromNameSpace(ns), key) << ns;
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

TEST_F(ModuleTexts, ActionTokensAreTranslatedByTheScanner) {
  // action (null: none, which is set to null); an action that is no string stays
  const struct { const char* lang; const char* app; Json::Value action; Json::Value want; } cases[] = {
      {"en", "", "", ""}, {"en", "", "plain text", "plain text"}, {"en", "", "#common:ok", "#common:ok"},
      {"en", "", "#common:start_service#: \"WinShare\" \"FileXfer\"", "Start service: \"WinShare\" \"FileXfer\""},
      {"en", "", "#a:b#c:d#", "ABc:d#"}, {"en", "", "## #x:y#", "## XY"}, {"en", "", "#a#b:c#", "#aBC"},
      {"en", "", "#nope:none# and #x:y#", "#nope:none# and XY"}, {"en", "", "#x:y##x:y#", "XYXY"},
      {"en", "", "#a:b:c#", "A-BC"}, {"en", "", "#:#", "empty both"}, {"en", "", "#", "#"},
      {"en", "", "::#x:y#::", "::XY::"}, {"en", "", "x:#y#", "x:#y#"},
      {"en", "", "#common:run#: echo '#'; date +%H:%M#", "Run: echo '#'; date +%H:%M#"},
      // Texts that are empty, no string, or under a section that is no object: the token stays.
      {"en", "", "#common:empty# #common:num# #sect:x#", "#common:empty# #common:num# #sect:x#"},
      {"en", "", "#Common:ok#", "#Common:ok#"},
      // "#common:ab#" gives "#x:y#"; the later token then replaces that copy, its own stays.
      {"en", "", "#common:ab# #x:y#", "XY #x:y#"},
      // A 3rd-party app's own texts first, then the system texts; other apps only the system's.
      {"en", "Vendor.App", "#a:b# / #x:y# / #app:title#", "vendor AB / XY / My App"},
      {"en", "Other.App", "#a:b# #app:title#", "AB #app:title#"},
      // No fallback to another language.
      {"de", "", "#common:run# #common:ok#", "Ausführen #common:ok#"}, {"fr", "", "#common:ok#", "#common:ok#"},
      {"en", "", Json::Value(), Json::Value()}, {"en", "", 12, 12},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.lang) + " " + c.app + " " + c.action.toStyledString());
    ORVA::APIRequest request("ORVA.Core.TaskScheduler", 2, "list", Json::Value(Json::objectValue), "admin", c.lang);
    ORVA::APIResponse response;
    TaskSchedulerHandler handler(&request, &response, 0, "", Json::Value(), new TS::AppParser(c.lang));
    Json::Value item = Parse(R"({"other": 7})");
    if (!c.action.isNull()) item["action"] = c.action;
    Json::Value want = item;
    want["action"] = c.want;
    handler.TranslateActionKey(item, c.app);
    EXPECT_EQ(item, want);
  }
}

}  // namespace
