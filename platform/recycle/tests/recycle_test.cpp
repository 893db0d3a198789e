// Recycle-bin switches on temporary roots, including writers killed mid-update.
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
#include "core/share.h"

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

TEST(RecycleStatus, SwitchesOneShareAndKeepsTheRest) {
  TempRoot root;
  root.Write(kShares, kSample);
  ASSERT_EQ(chmod(root.Real(kShares).c_str(), 0640), 0);
  ASSERT_EQ(ORVARecycleStatusSet("public", 1), 0);
  ASSERT_EQ(ORVARecycleStatusSet("Photo Album", 0), 0);
  ASSERT_EQ(ORVARecycleStatusSet("plain", 1), 0);
  EXPECT_EQ(Parse(root.Read(kShares)), Parse(R"([
      {"name": "public", "path": "/volume1/public", "recycle_bin": true, "comment": "kept"},
      {"name": "Photo Album", "path": "/volume1/photo", "recycle_bin": false},
      {"name": "plain", "path": "/volume1/plain", "recycle_bin": true}])"));
  struct stat st;
  ASSERT_EQ(stat(root.Real(kShares).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);

  // Setting what is already set rewrites nothing.
  ino_t inode = st.st_ino;
  ASSERT_EQ(ORVARecycleStatusSet("public", 1), 0);
  ASSERT_EQ(stat(root.Real(kShares).c_str(), &st), 0);
  EXPECT_EQ(st.st_ino, inode);
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
      {kSample.c_str(), "nosuch", 1, KELC_ERR_NOT_FOUND},
      {kSample.c_str(), "PUBLIC", 1, KELC_ERR_NOT_FOUND},  // names are case-sensitive
      {kSample.c_str(), "", 1, KELC_ERR_INVALID_ARGUMENT},
      {kSample.c_str(), nullptr, 1, KELC_ERR_INVALID_ARGUMENT},
      {kSample.c_str(), "public", 2, KELC_ERR_INVALID_ARGUMENT},
      {kSample.c_str(), "public", -1, KELC_ERR_INVALID_ARGUMENT},
      {"[{\"name\": \"public\"}", "public", 1, KELC_ERR_PARSE},
      {"{}", "public", 1, KELC_ERR_PARSE},
      {"[{\"path\": \"/x\"}]", "public", 1, KELC_ERR_PARSE},
      {"[1]", "public", 1, KELC_ERR_PARSE},
      {"[] x", "public", 1, KELC_ERR_PARSE},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.content) + " / " + (c.share ? c.share : "(null)"));
    root.Write(kShares, c.content);
    EXPECT_LT(ORVARecycleStatusSet(c.share, c.enable), 0);
    EXPECT_EQ(KELCErrGet(), c.error);
    EXPECT_EQ(root.Read(kShares), c.content);
  }
}

TEST(RecycleStatus, HomeIsKeptAsItsOwnEntry) {
  TempRoot root;
  std::filesystem::create_directories(root.Real("/etc/orva"));
  PORVA_RECYCLE_SHARE shares = nullptr;
  EXPECT_EQ(ORVARecycleShareListGet(&shares), 0);  // no file yet
  EXPECT_EQ(shares, nullptr);
  ASSERT_EQ(ORVARecycleStatusSet("home", 1), 0);  // "home" may create the file
  EXPECT_EQ(Parse(root.Read(kShares)), Parse(R"([{"name": "home", "path": "", "recycle_bin": true}])"));

  root.Write(kShares, kSample);
  ASSERT_EQ(ORVARecycleStatusSet("home", 1), 0);
  ASSERT_EQ(ORVARecycleStatusSet("home", 0), 0);
  ASSERT_EQ(ORVARecycleStatusSet("home", 1), 0);
  Json::Value v = Parse(root.Read(kShares));
  ASSERT_EQ(v.size(), 4u);
  EXPECT_EQ(v[3], Parse(R"({"name": "home", "path": "", "recycle_bin": true})"));

  PKELC_SZLIST list = KELCSzListAlloc(4);
  EXPECT_EQ(ORVAShareEnum(&list, 0x7F0F), 3);  // still only shared folders
  KELCSzListFree(list);

  ASSERT_EQ(ORVARecycleShareListGet(&shares), 4);  // the helper list includes it
  std::vector<std::string> listed;
  for (int i = 0; i < 4; ++i) {
    listed.push_back(std::string(shares[i].szName) + "|" + shares[i].szPath + "|" + std::to_string(shares[i].recycleBin));
  }
  ORVARecycleShareListFree(shares, 4);
  EXPECT_EQ(listed, (std::vector<std::string>{"public|/volume1/public|0", "Photo Album|/volume1/photo|1",
                                              "plain|/volume1/plain|0", "home||1"}));  // no flag reads as off
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
  Json::Value shares(Json::arrayValue);
  for (int i = 0; i < kShareCount; ++i) {
    Json::Value s;
    s["name"] = "share" + std::to_string(i);
    s["path"] = "/volume1/share" + std::to_string(i);
    s["recycle_bin"] = false;
    s["comment"] = std::string(64, 'c');
    shares.append(s);
  }
  root.Write(kShares, Json::writeString(Json::StreamWriterBuilder(), shares));

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
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);

    Json::Value v = Parse(root.Read(kShares));
    ASSERT_TRUE(v.isArray());
    ASSERT_EQ(v.size(), static_cast<Json::ArrayIndex>(kShareCount));
    for (int i = 0; i < kShareCount; ++i) {
      const Json::Value& s = v[static_cast<Json::ArrayIndex>(i)];
      ASSERT_EQ(s["name"].asString(), "share" + std::to_string(i));
      ASSERT_EQ(s["comment"].asString().size(), 64u);
      ASSERT_TRUE(s["recycle_bin"].isBool());
    }
  }
  // Temporary files of killed writers are cleared by the next update.
  ASSERT_EQ(ORVARecycleStatusSet("share0", 1), 0);
  for (const auto& e : std::filesystem::directory_iterator(root.Real("/etc/orva"))) {
    EXPECT_EQ(e.path().filename(), "shares.json");
  }
}

}  // namespace
