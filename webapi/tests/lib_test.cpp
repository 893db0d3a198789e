// The shared layer: owners, store access on behalf of users, app keys, shell words and
// the UI text parser.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/optional/optional_io.hpp>

#include "lib.h"
#include "scheduler/task_json.h"
#include "test_support.h"

namespace TS = ORVA::Core::TaskScheduler;

namespace {

Json::Value Parse(const char* text) {
  Json::Value v;
  Json::Reader().parse(text, v);
  return v;
}

TEST(RealOwner, FromAParameterObject) {
  struct Case {
    const char* json;
    boost::optional<std::string> want;
  } cases[] = {
      {R"({"real_owner":"alice"})", std::string("alice")},
      {R"({"real_owner":""})", boost::none},
      {R"({"real_owner":7})", boost::none},
      {R"({"real_owner":null})", boost::none},
      {R"({"id":3})", boost::none},
      {R"([1,2])", boost::none},
      {R"("alice")", boost::none},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    EXPECT_EQ(TS::GetRealOwner(Parse(c.json)), c.want);
  }
}

TEST(RealOwner, FromARequest) {
  struct Case {
    const char* json;
    boost::optional<std::string> want;
  } cases[] = {
      {R"({"real_owner":"bob"})", std::string("bob")},
      {R"({"real_owner":""})", boost::none},
      {R"({"real_owner":5})", boost::none},
      {R"({})", boost::none},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    ORVA::APIRequest request("ORVA.Core.TaskScheduler", 3, "get", Parse(c.json), "admin", "en");
    EXPECT_EQ(TS::GetRealOwner(request), c.want);
  }
}

class StoreLayer : public ::testing::Test {
 protected:
  tstest::TempRoot root;
};

TEST_F(StoreLayer, InitGivesAFreshRecord) {
  _tag_orva_sched_task_ task;
  memset(&task, 0x5A, sizeof(task));
  ASSERT_TRUE(TS::InitTask(boost::none, task));
  EXPECT_TRUE(ORVASchedTaskIsNew(task));
  EXPECT_EQ(ORVASchedTaskGetID(task), -1);
  EXPECT_EQ(task.next, nullptr);
}

TEST_F(StoreLayer, SaveLoadRemoveAsTheSystem) {
  _tag_orva_sched_task_ task;
  ASSERT_TRUE(TS::InitTask(boost::none, task));
  ORVASchedCTaskSetName(&task, "layer");
  ASSERT_TRUE(TS::SaveTask(boost::none, task));
  long id = ORVASchedTaskGetID(task);
  ASSERT_GT(id, 0);

  _tag_orva_sched_task_ loaded;
  ASSERT_TRUE(TS::LoadTask(boost::none, id, loaded));
  EXPECT_STREQ(ORVASchedTaskGetName(loaded), "layer");
  EXPECT_FALSE(ORVASchedTaskIsNew(loaded));

  ASSERT_TRUE(TS::RemoveTask(boost::none, id));
  tstest::ClearLogs();
  EXPECT_FALSE(TS::RemoveTask(boost::none, id));
  auto logs = tstest::LogsWith("lib:");
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_NE(logs[0].text.find("Failed to delete task " + std::to_string(id) + ". [0x"), std::string::npos)
      << logs[0].text;
}

TEST_F(StoreLayer, LoadOfIdMinusOneIsAFreshRecord) {
  _tag_orva_sched_task_ task;
  ASSERT_TRUE(TS::LoadTask(boost::none, -1, task));
  EXPECT_TRUE(ORVASchedTaskIsNew(task));
}

TEST_F(StoreLayer, FailedLoadLeavesTheRecordAndLogsOnce) {
  _tag_orva_sched_task_ task;
  memset(&task, 0x33, sizeof(task));
  _tag_orva_sched_task_ before = task;
  tstest::ClearLogs();
  EXPECT_FALSE(TS::LoadTask(boost::none, 987654, task));
  EXPECT_EQ(memcmp(&task, &before, sizeof(task)), 0);
  auto logs = tstest::LogsWith("lib:");
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_NE(logs[0].text.find("load task failed. id:[987654] [0x"), std::string::npos) << logs[0].text;
  EXPECT_EQ(logs[0].priority, LOG_ERR);
}

TEST_F(StoreLayer, ActingOnBehalfOfUsers) {
  tstest::TestUser alice;
  tstest::TestUser bob;
  ASSERT_TRUE(alice.Ok() && bob.Ok());
  _tag_orva_sched_task_ task;
  ASSERT_TRUE(TS::InitTask(std::string(alice.Name()), task));
  ORVASchedCTaskSetName(&task, "alice's");
  ORVASchedCTaskSetOwner(&task, alice.Uid());
  ASSERT_TRUE(TS::SaveTask(alice.Name(), task));
  long id = ORVASchedTaskGetID(task);
  ASSERT_GT(id, 0);

  // Her own task loads on her behalf and as the system; not on bob's.
  _tag_orva_sched_task_ loaded;
  EXPECT_TRUE(TS::LoadTask(alice.Name(), id, loaded));
  EXPECT_EQ(ORVASchedTaskGetRealOwner(loaded), alice.Uid());
  EXPECT_TRUE(TS::LoadTask(boost::none, id, loaded));

  memset(&loaded, 0x11, sizeof(loaded));
  _tag_orva_sched_task_ before = loaded;
  tstest::ClearLogs();
  EXPECT_FALSE(TS::LoadTask(bob.Name(), id, loaded));
  EXPECT_EQ(memcmp(&loaded, &before, sizeof(loaded)), 0);
  auto logs = tstest::LogsWith("lib:");
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_NE(logs[0].text.find("load task failed. user:[" + bob.Name() + "] id:[" + std::to_string(id) + "] [0x"),
            std::string::npos)
      << logs[0].text;

  // Bob can neither save over nor remove it; the user form brackets the id.
  tstest::ClearLogs();
  ASSERT_TRUE(TS::LoadTask(boost::none, id, loaded));
  EXPECT_FALSE(TS::SaveTask(bob.Name(), loaded));
  logs = tstest::LogsWith("lib:");
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_NE(logs[0].text.find("Failed to save task [" + bob.Name() + "][" + std::to_string(id) + "][" +
                              std::to_string(id) + "]. [0x"),
            std::string::npos)
      << logs[0].text;
  tstest::ClearLogs();
  EXPECT_FALSE(TS::RemoveTask(bob.Name(), id));
  logs = tstest::LogsWith("lib:");
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_NE(logs[0].text.find("Failed to delete task [" + bob.Name() + "][" + std::to_string(id) + "]. [0x"),
            std::string::npos)
      << logs[0].text;
  EXPECT_TRUE(tstest::TaskExists(id));
  EXPECT_TRUE(TS::RemoveTask(alice.Name(), id));
  EXPECT_FALSE(tstest::TaskExists(id));
}

TEST_F(StoreLayer, FailedSaveOfANewRecordLogsBothIds) {
  _tag_orva_sched_task_ task;
  ASSERT_TRUE(TS::InitTask(boost::none, task));
  // A name longer than its field marks the record; the store refuses to save it.
  std::string longName(ORVA_SCHED_NAME_MAX + 10, 'n');
  ORVASchedCTaskSetName(&task, longName.c_str());
  tstest::ClearLogs();
  EXPECT_FALSE(TS::SaveTask(boost::none, task));
  auto logs = tstest::LogsWith("lib:");
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_NE(logs[0].text.find("Failed to save task [-1]["), std::string::npos) << logs[0].text;
}

TEST(AppKeys, EveryNamespaceAndNearMisses) {
  struct Case {
    const char* ns;
    const char* key;
  } cases[] = {
      {"ORVA.VEK.TaskScheduler.Beep", "beep"},
      {"ORVA.VEK.TaskScheduler.Script", "script"},
      {"ORVA.VEK.TaskScheduler.Service", "service"},
      {"ORVA.VEK.TaskScheduler.Recycle", "recycle"},
      {"ORVA.VEK.DataAnalysis", "report"},
      {"ORVA.VEK.TaskScheduler.AutoPower", "power"},
      {"ORVA.VEK.TaskScheduler.ZEMAutoUpdate", "zemupdate"},
      {"ORVA.VEK.BackupApp.NetBackup", "backup"},
      {"ORVA.VEK.BackupApp.LocalBackup", "backup"},
      {"ORVA.VEK.BackupApp.LUNBackup", "backup"},
      {"ORVA.VEK.BackupApp.S3Backup", "backup"},
      {"ORVA.VEK.EventScheduler.Script", "event_script"},
      {"orva.vek.taskscheduler.beep", "custom"},
      {"ORVA.VEK.TaskScheduler.Beep.FormPanel", "custom"},
      {"ORVA.VEK.TaskScheduler.Bee", "custom"},
      {" ORVA.VEK.TaskScheduler.Beep", "custom"},
      {"", "custom"},
      {"SYNO.Other.App", "custom"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ns);
    EXPECT_EQ(TS::GetAppKeyFromNameSpace(c.ns), c.key);
  }
}

TEST_F(StoreLayer, AppTypeByIdOfStoredTasks) {
  tstest::TaskSpec beep;
  beep.app = "ORVA.VEK.TaskScheduler.Beep";
  long beepId = tstest::AddTask(beep);
  tstest::TaskSpec other;
  other.app = "";
  long otherId = tstest::AddTask(other);
  std::string key = "unchanged";
  ASSERT_TRUE(TS::GetAppTypeByID(boost::none, beepId, key));
  EXPECT_EQ(key, "beep");
  ASSERT_TRUE(TS::GetAppTypeByID(boost::none, otherId, key));
  EXPECT_EQ(key, "custom");

  key = "unchanged";
  tstest::ClearLogs();
  EXPECT_FALSE(TS::GetAppTypeByID(boost::none, 55555, key));
  EXPECT_EQ(key, "unchanged");
  EXPECT_EQ(tstest::LogsWith("Load Task failed [-][55555]").size(), 1u);

  tstest::TestUser user;
  ASSERT_TRUE(user.Ok());
  tstest::ClearLogs();
  EXPECT_FALSE(TS::GetAppTypeByID(user.Name(), beepId, key));
  EXPECT_EQ(key, "unchanged");
  EXPECT_EQ(tstest::LogsWith("Load Task failed [" + user.Name() + "][" + std::to_string(beepId) + "]").size(), 1u);
}

// What /bin/sh makes of `word` placed unquoted after printf '%s'.
std::string ShellWord(const std::string& word) {
  int fds[2];
  if (pipe(fds) != 0) return "<pipe>";
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    std::string cmd = "set -f; for a in " + word + "; do printf '[%s]' \"$a\"; done";
    execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  std::string out;
  char buf[256];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status;
  waitpid(pid, &status, 0);
  return out;
}

TEST(EscapeShellName, OneWordEqualToTheInput) {
  const char* names[] = {"docs", "a b", "it's", "$HOME", "`id`", "x;rm -rf /", "*", "tab\there", "quote\"d",
                         "back\\slash", "ünï", "-n", "a\nb", "~user", "{a,b}", "semi;colon&amp|pipe>"};
  for (const char* name : names) {
    SCOPED_TRACE(name);
    std::string escaped = TS::EscapeShellName(name);
    ASSERT_FALSE(escaped.empty());
    EXPECT_EQ(ShellWord(escaped), "[" + std::string(name) + "]");
  }
  EXPECT_EQ(TS::EscapeShellName("plain_name-1.2"), "plain_name-1.2");
}

TEST(EscapeShellName, EmptyOrUnescapableGivesEmptyAndALogLine) {
  tstest::ClearLogs();
  EXPECT_EQ(TS::EscapeShellName(""), "");
  auto logs = tstest::LogsWith("escape cmd= failed, errno=");
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_EQ(logs[0].text.rfind("lib:", 0), 0u);
  // Two newlines need more than twice the input: the escaping refuses.
  tstest::ClearLogs();
  EXPECT_EQ(TS::EscapeShellName("\n\n"), "");
  EXPECT_EQ(tstest::LogsWith("escape cmd=\n\n failed").size(), 1u);
}

class AppParserTexts : public ::testing::Test {
 protected:
  void SetUp() override {
    root.WriteTexts("en", Parse(R"({
      "common": {"ok": "OK", "run": "Run", "empty": "", "num": 5},
      "a": {"b:c": "colon key"},
      "": {"": "empty both"},
      "share": {"recycle_bin": "Recycle Bin"},
      "sect": "not an object"})"));
    root.WriteTexts("de", Parse(R"({"common": {"run": "Ausführen"}})"));
    root.WriteAppTexts("myapp", "Vendor.App", "en", Parse(R"({
      "common": {"ok": "App OK"},
      "app": {"title": "My App"}})"));
  }
  tstest::TempRoot root;
};

TEST_F(AppParserTexts, SectionKeyShape) {
  TS::AppParser parser("en");
  struct Case {
    const char* text;
    bool key;
  } cases[] = {{"#a:b#", true}, {"#:#", true}, {"##:", false}, {"#a:b", false}, {"a:b#", false},
               {"#ab#", false}, {"", false},   {"#", false},   {"#:", false},    {"#a#b:c#", true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(parser.IsSectionKey(c.text), c.key);
  }
}

TEST_F(AppParserTexts, Lookups) {
  TS::AppParser parser("en");
  struct Case {
    const char* app;
    const char* text;
    const char* want;
  } cases[] = {
      {"", "plain text", "plain text"},
      {"", "", ""},
      {"", "#common:ok", "#common:ok"},
      {"", "ok:#", "ok:#"},
      {"", "#common:ok#", "OK"},
      {"", "#:#", "empty both"},
      {"", "#a:b:c#", "colon key"},
      {"", "#common:empty#", "#common:empty#"},
      {"", "#common:num#", "#common:num#"},
      {"", "#sect:x#", "#sect:x#"},
      {"", "#common:missing#", "#common:missing#"},
      {"", "#Common:ok#", "#Common:ok#"},
      {"Vendor.App", "#common:ok#", "App OK"},
      {"Vendor.App", "#app:title#", "My App"},
      {"Vendor.App", "#share:recycle_bin#", "Recycle Bin"},
      {"Other.App", "#app:title#", "#app:title#"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.app) + " " + c.text);
    EXPECT_EQ(parser.GetString(c.app, c.text), c.want);
  }
  EXPECT_TRUE(parser.Is3rdPartyApp("Vendor.App"));
  EXPECT_FALSE(parser.Is3rdPartyApp("Other.App"));
}

TEST_F(AppParserTexts, NoFallbackToAnotherLanguage) {
  TS::AppParser de("de");
  EXPECT_EQ(de.GetString("", "#common:run#"), "Ausführen");
  EXPECT_EQ(de.GetString("", "#common:ok#"), "#common:ok#");
  TS::AppParser fr("fr");
  EXPECT_EQ(fr.GetString("", "#common:ok#"), "#common:ok#");
}

TEST_F(AppParserTexts, AppTextsAreReadAtLookupTime) {
  TS::AppParser parser("en");
  EXPECT_EQ(parser.GetString("Vendor.App", "#app:title#"), "My App");
  // Rewritten after the parser was built: the next lookup sees it (different size, so
  // even a coarse timestamp cannot hide the change).
  root.WriteFile("usr/orva/orvaman/webman/3rdparty/myapp/texts/en/strings.json",
                 R"({"app": {"title": "Renamed App"}})");
  EXPECT_EQ(parser.GetString("Vendor.App", "#app:title#"), "Renamed App");
  // A broken app text file falls back to the system texts.
  root.WriteFile("usr/orva/orvaman/webman/3rdparty/myapp/texts/en/strings.json", "{not json");
  EXPECT_EQ(parser.GetString("Vendor.App", "#common:ok#"), "OK");
}

}  // namespace
