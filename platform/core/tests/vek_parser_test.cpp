// UI text parsers on temporary roots: lookups, bad files, the parse cache.
#include "core/vek_parser.h"

#include <gtest/gtest.h>
#include <utime.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "orvatest.h"

namespace {

using orvatest::TempRoot;

using ORVA::VEK::JSConfigParser;
using ORVA::VEK::LocalizedStringParser;
using ORVA::VEK::TextFileParseCount;

const std::string kWebman = "/usr/orva/orvaman/webman";
const std::string kEnu = kWebman + "/texts/enu";

void SetMtime(const std::string& path, time_t sec) {
  struct utimbuf times = {sec, sec};
  ASSERT_EQ(utime(path.c_str(), &times), 0);
}

std::string Text(const std::string& dir, const char* section = "s", const char* key = "k") {
  return LocalizedStringParser().ParseTexts(dir)[section][key].asString();
}

// Lookups in parsed texts: the module's ModuleTexts tests.
TEST(LocalizedStringParser, BadFilesAndPathsGiveEmptyObjects) {
  TempRoot root;
  std::filesystem::create_directories(root.Real(kWebman + "/texts/dir/strings.json"));  // a folder, not a file
  root.Write("/etc/orva/strings.json", R"({"secret": {"k": "v"}})");
  const struct {
    const char* dir;
    const char* content;  // nullptr: no file written
  } cases[] = {
      {"missing", nullptr},
      {"truncated", R"({"common": {"ok": "OK")"},
      {"array", R"([{"common": {}}])"},
      {"trailing", R"({"a": {}} garbage)"},
      {"dir", nullptr},
      {"../../../../../etc/orva", nullptr},  // paths that try to leave the texts
  };
  LocalizedStringParser parser;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dir);
    const std::string dir = kWebman + "/texts/" + c.dir;
    if (c.content) {
      root.Write(dir + "/strings.json", c.content);
    }
    Json::Value v = parser.ParseTexts(dir);
    EXPECT_TRUE(v.isObject());
    EXPECT_EQ(v.size(), 0u);
  }
  EXPECT_EQ(parser.ParseTexts("relative/path").size(), 0u);
  EXPECT_EQ(parser.ParseTexts("").size(), 0u);
}

TEST(LocalizedStringParser, ChangedFileIsReadAgain) {
  TempRoot root;
  const std::string file = root.Real(kEnu + "/strings.json");
  root.Write(kEnu + "/strings.json", R"({"s": {"k": "one"}})");
  SetMtime(file, 1000000);
  EXPECT_EQ(Text(kEnu), "one");

  // Same size, new content, only the modification time tells.
  root.Write(kEnu + "/strings.json", R"({"s": {"k": "two"}})");
  SetMtime(file, 1000001);
  unsigned long long before = TextFileParseCount();
  EXPECT_EQ(Text(kEnu), "two");
  EXPECT_EQ(TextFileParseCount() - before, 1u);

  // Replaced by rename with the very same mtime and size: the inode tells.
  root.Write(kEnu + "/strings.json.new", R"({"s": {"k": "3rd"}})");
  SetMtime(file + ".new", 1000001);
  ASSERT_EQ(std::rename((file + ".new").c_str(), file.c_str()), 0);
  EXPECT_EQ(Text(kEnu), "3rd");

  // Broken, then fixed again, then removed.
  root.Write(kEnu + "/strings.json", R"({"s": )");
  EXPECT_EQ(LocalizedStringParser().ParseTexts(kEnu).size(), 0u);
  root.Write(kEnu + "/strings.json", R"({"s": {"k": "four"}})");
  SetMtime(file, 1000009);
  EXPECT_EQ(Text(kEnu), "four");
  std::filesystem::remove(file);
  EXPECT_EQ(LocalizedStringParser().ParseTexts(kEnu).size(), 0u);
}

TEST(LocalizedStringParser, UnchangedFileIsParsedOnce) {
  TempRoot root;
  root.Write(kWebman + "/texts/ger/strings.json", R"({"common": {"ok": "OK"}})");
  root.Write(kWebman + "/texts/ger/bad/strings.json", R"({"common": )");
  unsigned long long before = TextFileParseCount();
  for (int i = 0; i < 200; ++i) {  // one parser per request, as the module builds them
    ASSERT_EQ(Text(kWebman + "/texts/ger", "common", "ok"), "OK");
    ASSERT_EQ(LocalizedStringParser().ParseTexts(kWebman + "/texts/ger/bad").size(), 0u);
  }
  EXPECT_EQ(TextFileParseCount() - before, 2u);  // each file once, the malformed one too
  // Served shared, not copied per call.
  EXPECT_EQ(LocalizedStringParser().Texts(kWebman + "/texts/ger").get(),
            LocalizedStringParser().Texts(kWebman + "/texts/ger").get());
}

TEST(LocalizedStringParser, ConcurrentReadersSeeWholeFiles) {
  TempRoot root;
  const std::string file = root.Real(kEnu + "/strings.json");
  root.Write(kEnu + "/strings.json", R"({"s": {"k": "v0"}})");
  std::atomic<bool> stop{false};
  std::atomic<int> bad{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 4; ++t) {
    readers.emplace_back([&] {
      while (!stop) {
        const std::string k = Text(kEnu);
        bad += k.size() < 2 || k[0] != 'v';
      }
    });
  }
  for (int i = 1; i <= 200; ++i) {  // whole-file replacement, as installers do
    root.Write(kEnu + "/strings.json.tmp", R"({"s": {"k": "v)" + std::to_string(i) + "\"}}");
    std::rename((file + ".tmp").c_str(), file.c_str());
  }
  stop = true;
  for (auto& t : readers) {
    t.join();
  }
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(Text(kEnu), "v200");
}

void WriteApps(const TempRoot& root) {
  root.Write(kWebman + "/3rdparty/PhotoApp/config.json", R"({"namespace": "ORVA.App.Photo"})");
  root.Write(kWebman + "/3rdparty/Backup/config.json", R"({"namespace": "ORVA.App.Backup", "x": 1})");
  root.Write(kWebman + "/3rdparty/Broken/config.json", R"({"namespace": )");
  root.Write(kWebman + "/3rdparty/NoNs/config.json", R"({"name": "x"})");
  root.Write(kWebman + "/3rdparty/BadNs/config.json", R"({"namespace": 5})");
  std::filesystem::create_directories(root.Real(kWebman + "/3rdparty/Empty"));
}

TEST(JSConfigParser, MapsNamespacesToTextFolders) {
  TempRoot root;
  WriteApps(root);
  JSConfigParser parser("enu", false);
  EXPECT_TRUE(parser.GetTexts().isObject());
  EXPECT_EQ(parser.GetTexts().size(), 0u);  // before Parse
  EXPECT_TRUE(parser.Parse(nullptr));
  Json::Value expected(Json::objectValue);
  expected["ORVA.App.Photo"] = "3rdparty/PhotoApp/texts/enu";
  expected["ORVA.App.Backup"] = "3rdparty/Backup/texts/enu";
  EXPECT_EQ(parser.GetTexts(), expected);
  EXPECT_EQ(JSConfigParser(parser).GetTexts(), expected);  // a copy shares the state

  JSConfigParser one("ger", false);
  EXPECT_TRUE(one.Parse((kWebman + "/3rdparty/PhotoApp/config.json").c_str()));
  Json::Value photo(Json::objectValue);
  photo["ORVA.App.Photo"] = "3rdparty/PhotoApp/texts/ger";
  EXPECT_EQ(one.GetTexts(), photo);
  EXPECT_FALSE(one.Parse((kWebman + "/3rdparty/Broken").c_str()));
  EXPECT_FALSE(one.Parse("/etc/orva/../../3rdparty/PhotoApp"));
  EXPECT_EQ(one.GetTexts().size(), 0u);
}

TEST(JSConfigParser, BadLanguageOrNoAppsGiveEmptyObjects) {
  TempRoot root;
  JSConfigParser none("enu", false);
  EXPECT_FALSE(none.Parse(nullptr));  // no 3rdparty folder at all
  EXPECT_EQ(none.GetTexts().size(), 0u);
  WriteApps(root);
  for (const char* lang : {"", "..", "../../etc", "en/us", "en u"}) {
    JSConfigParser parser(lang, false);
    EXPECT_FALSE(parser.Parse(nullptr)) << lang;
    EXPECT_EQ(parser.GetTexts().size(), 0u) << lang;
  }
  EXPECT_FALSE(JSConfigParser(nullptr, false).Parse(nullptr));
}

TEST(JSConfigParser, ConfigsAreParsedOnceAndNewAppsSeen) {
  TempRoot root;
  WriteApps(root);
  JSConfigParser("enu", false).Parse(nullptr);
  unsigned long long before = TextFileParseCount();
  for (int i = 0; i < 100; ++i) {
    JSConfigParser parser("enu", false);
    ASSERT_TRUE(parser.Parse(nullptr));
    ASSERT_EQ(parser.GetTexts().size(), 2u);
  }
  EXPECT_EQ(TextFileParseCount(), before);
  root.Write(kWebman + "/3rdparty/Zed/config.json", R"({"namespace": "ORVA.App.Zed"})");
  JSConfigParser parser("enu", false);
  ASSERT_TRUE(parser.Parse(nullptr));
  EXPECT_EQ(parser.GetTexts()["ORVA.App.Zed"].asString(), "3rdparty/Zed/texts/enu");
  EXPECT_EQ(TextFileParseCount() - before, 1u);
}

}  // namespace
