// UI text parsers on temporary roots: bad files and paths, the parse cache's freshness.
// Lookups through the module's AppParser are the module's own tests (ModuleList).
#include "core/vek_parser.h"

#include <gtest/gtest.h>
#include <utime.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "orvatest.h"

namespace {

using orvatest::TempRoot;

using ORVA::VEK::JSConfigParser;
using ORVA::VEK::LocalizedStringParser;
using ORVA::VEK::TextFileParseCount;

const std::string kWebman = "/usr/orva/orvaman/webman";
const std::string kEnu = kWebman + "/texts/enu";

std::string Text(const std::string& dir = kEnu) { return LocalizedStringParser().ParseTexts(dir)["s"]["k"].asString(); }

TEST(LocalizedStringParser, BadFilesAndPathsGiveEmptyObjects) {
  TempRoot root;
  std::filesystem::create_directories(root.Real(kWebman + "/texts/dir/strings.json"));  // a folder, not a file
  root.Write("/etc/orva/strings.json", R"({"secret": {"k": "v"}})");
  root.Write(kWebman + "/texts/truncated/strings.json", R"({"common": {"ok": "OK")");
  root.Write(kWebman + "/texts/array/strings.json", R"([{"common": {}}])");
  root.Write(kWebman + "/texts/trailing/strings.json", R"({"a": {}} garbage)");
  // Paths that try to leave the texts, and relative ones.
  for (const std::string& dir : {kWebman + "/texts/missing", kWebman + "/texts/truncated", kWebman + "/texts/array",
                                 kWebman + "/texts/trailing", kWebman + "/texts/dir",
                                 kWebman + "/texts/../../../../../etc/orva", std::string("relative/path"),
                                 std::string()}) {
    const Json::Value v = LocalizedStringParser().ParseTexts(dir);
    EXPECT_TRUE(v.isObject() && v.empty()) << dir;
  }
}

// An installer replacing a file with the same size must be seen, by mtime or by inode.
TEST(LocalizedStringParser, ChangedFileIsReadAgainUnchangedOnce) {
  TempRoot root;
  const std::string file = root.Real(kEnu + "/strings.json");
  for (const char* k : {"one", "two"}) {
    root.Write(kEnu + "/strings.json", std::string(R"({"s": {"k": ")") + k + "\"}}");
    struct utimbuf times = {1000000, 1000000 + (k[0] == 't')};
    ASSERT_EQ(utime(file.c_str(), &times), 0);
    EXPECT_EQ(Text(), k);
  }
  root.Write(kEnu + "/strings.json.new", R"({"s": {"k": "3rd"}})");
  struct utimbuf same = {1000001, 1000001};
  ASSERT_EQ(utime((file + ".new").c_str(), &same), 0);
  ASSERT_EQ(std::rename((file + ".new").c_str(), file.c_str()), 0);
  const unsigned long long before = TextFileParseCount();
  for (int i = 0; i < 10; ++i) {  // one parser per request, as the module builds them
    ASSERT_EQ(Text(), "3rd");
  }
  EXPECT_EQ(TextFileParseCount() - before, 1u);
  std::filesystem::remove(file);
  EXPECT_EQ(LocalizedStringParser().ParseTexts(kEnu).size(), 0u);
}

// Apps without a usable namespace are left out; a bad language matches nothing; a newly
// installed app is seen by the next parser.
TEST(JSConfigParser, NamespacesOfTheAppsInstalled) {
  TempRoot root;
  root.Write(kWebman + "/3rdparty/PhotoApp/config.json", R"({"namespace": "ORVA.App.Photo"})");
  root.Write(kWebman + "/3rdparty/Broken/config.json", R"({"namespace": )");
  root.Write(kWebman + "/3rdparty/NoNs/config.json", R"({"name": "x"})");
  root.Write(kWebman + "/3rdparty/BadNs/config.json", R"({"namespace": 5})");
  std::filesystem::create_directories(root.Real(kWebman + "/3rdparty/Empty"));
  for (const char* lang : {"", "..", "../../etc", "en/us", "en u"}) {
    JSConfigParser parser(lang, false);
    EXPECT_FALSE(parser.Parse(nullptr)) << lang;
    EXPECT_EQ(parser.GetTexts().size(), 0u) << lang;
  }
  Json::Value expected(Json::objectValue);
  expected["ORVA.App.Photo"] = "3rdparty/PhotoApp/texts/enu";
  JSConfigParser parser("enu", false);
  EXPECT_TRUE(parser.Parse(nullptr));
  EXPECT_EQ(parser.GetTexts(), expected);
  root.Write(kWebman + "/3rdparty/Zed/config.json", R"({"namespace": "ORVA.App.Zed"})");
  expected["ORVA.App.Zed"] = "3rdparty/Zed/texts/enu";
  JSConfigParser next("enu", false);
  EXPECT_TRUE(next.Parse(nullptr));
  EXPECT_EQ(next.GetTexts(), expected);
}

}  // namespace
