// Translation of the "#section:key#" tokens embedded in action texts.
#include <gtest/gtest.h>

#include <stdexcept>

#include "ORVA.Core.TaskScheduler.h"
#include "test_support.h"

namespace {

Json::Value Parse(const char* text) {
  Json::Value v;
  Json::Reader().parse(text, v);
  return v;
}

class TranslateAction : public ::testing::Test {
 protected:
  void SetUp() override {
    root.WriteTexts("en", Parse(R"({
      "common": {"start_service": "Start service", "run": "Run", "ab": "#x:y#"},
      "x": {"y": "XY"},
      "a": {"b": "AB", "b:c": "A-BC"},
      "b": {"c": "BC"},
      "volume": {"beep_on": "Beep for"}})"));
    root.WriteAppTexts("thirdapp", "Vendor.App", "en", Parse(R"({"a": {"b": "vendor AB"}})"));
    parser = new ORVA::Core::TaskScheduler::AppParser("en");
    handler = std::make_unique<TaskSchedulerHandler>(&request, &response, 0, "", Json::Value(), parser);
  }
  std::string Run(const std::string& action, const std::string& app = "") {
    Json::Value item;
    item["action"] = action;
    item["other"] = 7;
    handler->TranslateActionKey(item, app);
    EXPECT_EQ(item["other"], 7);
    EXPECT_EQ(item.size(), 2u);
    return item["action"].asString();
  }
  tstest::TempRoot root;
  ORVA::APIRequest request{"ORVA.Core.TaskScheduler", 2, "list", Json::Value(Json::objectValue), "admin", "en"};
  ORVA::APIResponse response;
  ORVA::Core::TaskScheduler::AppParser* parser = nullptr;
  std::unique_ptr<TaskSchedulerHandler> handler;
};

TEST_F(TranslateAction, ScannerCases) {
  struct Case {
    const char* action;
    const char* want;
  } cases[] = {
      {"", ""},
      {"plain text", "plain text"},
      {"#common:start_service#: \"WinShare\" \"FileXfer\"", "Start service: \"WinShare\" \"FileXfer\""},
      {"#a:b#c:d#", "ABc:d#"},
      {"## #x:y#", "## XY"},
      {"# #x:y#", "# XY"},
      {"#a#b:c#", "#aBC"},
      {"#nope:none#", "#nope:none#"},
      {"#nope:none# and #x:y#", "#nope:none# and XY"},
      {"#x:y##x:y#", "XYXY"},
      {"#x:y# then #x:y#", "XY then XY"},
      {"#a:b:c#", "A-BC"},
      {"#:#", "#:#"},
      {"#", "#"},
      {"::#x:y#::", "::XY::"},
      {"#volume:beep_on# 60 #common:time_seconds#", "Beep for 60 #common:time_seconds#"},
      {"x:#y#", "x:#y#"},
      {"#common:run#: echo '#'; date +%H:%M#", "Run: echo '#'; date +%H:%M#"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.action);
    EXPECT_EQ(Run(c.action), c.want);
  }
}

TEST_F(TranslateAction, AppTextsFirstThenSystemTexts) {
  EXPECT_EQ(Run("#a:b# / #x:y#", "Vendor.App"), "vendor AB / XY");
  EXPECT_EQ(Run("#a:b#", "ORVA.VEK.TaskScheduler.Beep"), "AB");
}

TEST_F(TranslateAction, ReplacementHitsTheFirstRemainingOccurrence) {
  // "#common:ab#" translates to "#x:y#"; the later token then replaces the copy inside
  // that translation and its own occurrence stays.
  EXPECT_EQ(Run("#common:ab# #x:y#"), "XY #x:y#");
}

TEST_F(TranslateAction, NonStringOrMissingAction) {
  Json::Value item(Json::objectValue);
  item["name"] = "n";
  handler->TranslateActionKey(item, "");
  ASSERT_TRUE(item.isMember("action"));
  EXPECT_TRUE(item["action"].isNull());
  EXPECT_EQ(item["name"], "n");

  Json::Value numeric;
  numeric["action"] = 12;
  handler->TranslateActionKey(numeric, "");
  EXPECT_EQ(numeric["action"], 12);
}

}  // namespace
