// Recycle-bin switches on temporary roots, including writers killed mid-update. Switching
// through the tool and the module: their own tests.
#include "recycle/recycle.h"

#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "orvatest.h"
#include "core/kelc.h"

namespace {

using orvatest::TempRoot;

const std::string kShares = "/etc/orva/shares.json";
const std::string kSample = R"([
  {"name": "public", "path": "/volume1/public", "recycle_bin": false, "comment": "kept"},
  {"name": "Photo Album", "path": "/volume1/photo", "recycle_bin": true},
  {"name": "plain", "path": "/volume1/plain"}
])";

// Strict: trailing bytes of a half-written file fail the parse too.
Json::Value Parse(const std::string& text) { return orvatest::ParseJson(text, true); }

// One share switched, everything else (members, order, mode) kept; "home" joins as its own entry.
TEST(RecycleStatus, SwitchesOneShareAndKeepsTheRest) {
  TempRoot root;
  std::filesystem::create_directories(root.Real("/etc/orva"));
  ASSERT_EQ(ORVARecycleStatusSet("home", 1), 0);  // "home" may create the file
  EXPECT_EQ(Parse(root.Read(kShares)), Parse(R"([{"name": "home", "path": "", "recycle_bin": true}])"));

  root.Write(kShares, kSample);
  ASSERT_EQ(chmod(root.Real(kShares).c_str(), 0640), 0);
  for (const auto& [name, on] : std::vector<std::pair<const char*, int>>{
           {"public", 1}, {"Photo Album", 0}, {"plain", 1}, {"home", 0}, {"home", 1}}) {
    ASSERT_EQ(ORVARecycleStatusSet(name, on), 0) << name;
  }
  EXPECT_EQ(Parse(root.Read(kShares)), Parse(R"([
      {"name": "public", "path": "/volume1/public", "recycle_bin": true, "comment": "kept"},
      {"name": "Photo Album", "path": "/volume1/photo", "recycle_bin": false},
      {"name": "plain", "path": "/volume1/plain", "recycle_bin": true},
      {"name": "home", "path": "", "recycle_bin": true}])"));
  struct stat st;
  ASSERT_EQ(stat(root.Real(kShares).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST(RecycleStatus, FailuresLeaveTheFileAlone) {
  TempRoot root;
  std::filesystem::create_directories(root.Real("/etc/orva"));
  EXPECT_LT(ORVARecycleStatusSet("public", 1), 0);  // no file at all
  EXPECT_EQ(KELCErrGet(), KELC_ERR_NOT_FOUND);
  EXPECT_FALSE(std::filesystem::exists(root.Real(kShares)));
  const struct {
    const char* content;
    const char* share;
    int enable;
    int error;
  } cases[] = {
      {kSample.c_str(), "PUBLIC", 1, KELC_ERR_NOT_FOUND},  // names are case-sensitive
      {kSample.c_str(), "", 1, KELC_ERR_INVALID_ARGUMENT},
      {kSample.c_str(), "public", 2, KELC_ERR_INVALID_ARGUMENT},
      {"[{\"name\": \"public\"}", "public", 1, KELC_ERR_PARSE},
      {"{}", "public", 1, KELC_ERR_PARSE},
      {"[1]", "public", 1, KELC_ERR_PARSE},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.content) + " / " + c.share);
    root.Write(kShares, c.content);
    EXPECT_LT(ORVARecycleStatusSet(c.share, c.enable), 0);
    EXPECT_EQ(KELCErrGet(), c.error);
    EXPECT_EQ(root.Read(kShares), c.content);
  }
}

// Each call locks the folder through its own descriptor: threads contend as processes do.
TEST(RecycleStatus, ConcurrentWritersLoseNoUpdate) {
  TempRoot root;
  std::string text = "[";
  for (int i = 0; i < 8; ++i) {
    text += (i ? "," : "") + std::string(R"({"name": "s)") + std::to_string(i) + R"(", "path": "/v"})";
  }
  root.Write(kShares, text + "]");
  std::vector<std::thread> writers;
  for (int t = 0; t < 8; ++t) {
    writers.emplace_back([t] {
      for (int i = 0; i <= 20; ++i) {  // the last call (20) switches off
        ASSERT_EQ(ORVARecycleStatusSet(("s" + std::to_string(t)).c_str(), i % 2), 0);
      }
    });
  }
  for (auto& w : writers) {
    w.join();
  }
  Json::Value v = Parse(root.Read(kShares));
  ASSERT_EQ(v.size(), 8u);
  for (const Json::Value& s : v) {
    EXPECT_EQ(s["recycle_bin"], false) << s["name"];
  }
}

// A writer killed at random moments never leaves a partial file behind.
TEST(RecycleStatus, KilledWriterNeverLeavesAHalfWrittenFile) {
  TempRoot root;
  const int kShareCount = 400;  // a big file, so that kills land inside writes
  std::string text = "[";
  for (int i = 0; i < kShareCount; ++i) {
    text += (i ? "," : "") + std::string(R"({"name": "share)") + std::to_string(i) + R"(", "comment": ")" +
            std::string(64, 'c') + R"(", "recycle_bin": false})";
  }
  root.Write(kShares, text + "]");
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> delayUs(0, 30000);
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE(round);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (unsigned i = 0;; ++i) {
        ORVARecycleStatusSet(("share" + std::to_string(i % kShareCount)).c_str(), static_cast<int>((i / 7) % 2));
      }
    }
    usleep(static_cast<useconds_t>(delayUs(rng)));
    kill(pid, SIGKILL);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    Json::Value v = Parse(root.Read(kShares));
    ASSERT_EQ(v.size(), static_cast<Json::ArrayIndex>(kShareCount));
    for (int i = 0; i < kShareCount; ++i) {
      ASSERT_EQ(v[static_cast<Json::ArrayIndex>(i)]["name"].asString(), "share" + std::to_string(i));
    }
  }
  // Temporary files of killed writers are cleared by the next update.
  ASSERT_EQ(ORVARecycleStatusSet("share0", 1), 0);
  for (const auto& e : std::filesystem::directory_iterator(root.Real("/etc/orva"))) {
    EXPECT_EQ(e.path().filename(), "shares.json");
  }
}

}  // namespace
