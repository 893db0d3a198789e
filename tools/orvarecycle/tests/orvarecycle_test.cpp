// orvarecycle on temporary trees: the real program, run as a task would run it.
#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "orvatest.h"

namespace fs = std::filesystem;
using orvatest::Result;

namespace {

class RecycleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(Bin("docs"));
    fs::create_directories(Bin("odd share"));
    temp_.Write("root/etc/orva/shares.json", shares_);
  }
  std::string Bin(const std::string& share) { return base_ + "/srv/" + share + "/.recycle"; }
  void MakeFile(const std::string& path, size_t size, int ageDays) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << std::string(size, 'x');
    SetAge(path, ageDays);
  }
  static void SetAge(const std::string& path, int ageDays) {
    struct timespec ts[2] = {{time(nullptr) - ageDays * 86400L - 60, 0}, {time(nullptr) - ageDays * 86400L - 60, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), ts, AT_SYMLINK_NOFOLLOW), 0) << path;
  }
  // The standard bin content (path, size, age in days): names with spaces and quotes, nested folders.
  void Fill(const std::string& share) {
    MakeFile(Bin(share) + "/a.txt", 100, 40);
    MakeFile(Bin(share) + "/b.pdf", 5000, 10);
    MakeFile(Bin(share) + "/c.log", 300, 1);
    MakeFile(Bin(share) + "/dir one/d \"q\" 'x'.BAK", 2000, 20);
    MakeFile(Bin(share) + "/dir one/sub/e.tmp", 50, 60);
  }
  // Every path below the bin (files, links and folders).
  std::set<std::string> Left(const std::string& share) {
    std::set<std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(Bin(share))) out.insert(fs::relative(e.path(), Bin(share)));
    return out;
  }
  Result Run(std::vector<std::string> args) {
    args.insert(args.begin(), {ORVA_BUILD_DIR "/bin/orvarecycle", "--root", root_});
    return orvatest::Spawn(args, base_);
  }

  // The system root and the shares' folders side by side in one temporary folder.
  orvatest::TempRoot temp_{"orvarecycle"};
  const std::string& base_ = temp_.path();
  const std::string root_ = base_ + "/root";
  const std::string shares_ = R"([{"name": "docs", "path": ")" + base_ + R"(/srv/docs", "recycle_bin": true},
      {"name": "my \"odd\" share", "path": ")" + base_ + R"(/srv/odd share", "recycle_bin": true}])";
};

TEST_F(RecycleTest, PoliciesAndExceptions) {
  const std::string d = "dir one/d \"q\" 'x'.BAK";
  const std::set<std::string> all = {"a.txt", "b.pdf", "c.log", "dir one", d, "dir one/sub", "dir one/sub/e.tmp"};
  const std::set<std::string> small = {"a.txt", "dir one", "dir one/sub", "dir one/sub/e.tmp"};
  const std::set<std::string> noPdf = {"a.txt", "c.log", "dir one", d, "dir one/sub", "dir one/sub/e.tmp"};
  const struct {
    const char* label;
    std::vector<std::string> args;  // after "--clean docs"
    std::set<std::string> left;     // what stays below the bin
  } cases[] = {
      {"no policy empties the bin and its folders", {}, {}},
      {"age: older than 15 days goes", {"-t", "15"}, {"b.pdf", "c.log"}},
      {"age 0 deletes everything", {"-t", "0"}, {}},
      {"size, largest first, stops once it fits", {"-s", "5400", "-o", "2"}, noPdf},
      {"size, oldest first, stops once it fits", {"-s", "5400", "-o", "1"}, {"b.pdf", "c.log"}},
      {"size already within the limit deletes nothing", {"-s", "7450", "-o", "2"}, all},
      {"size one byte over deletes the largest only", {"-s", "7449", "-o", "2"}, noPdf},
      {"kept extensions, any letter case", {"-file_ext=pdf.bak"}, {"b.pdf", "dir one", d}},
      {"empty extension items add nothing", {"-file_ext=.log."}, {"c.log"}},
      {"keep larger than 1000 bytes", {"-m", "1000"}, {"b.pdf", "dir one", d}},
      {"keep larger is strict", {"-m", "5000"}, {}},
      {"keep smaller than 200 bytes", {"-l", "200"}, small},
      {"keep smaller is strict", {"-l", "50"}, {}},
      {"age with a kept extension", {"-t", "15", "-file_ext=tmp"},
       {"b.pdf", "c.log", "dir one", "dir one/sub", "dir one/sub/e.tmp"}},
      {"size 0 with exceptions keeps only the excepted", {"-s", "0", "-o", "2", "-l", "200"}, small},
      {"kept files count towards the size", {"-s", "5400", "-o", "2", "-file_ext=pdf"},
       {"a.txt", "b.pdf", "dir one", "dir one/sub", "dir one/sub/e.tmp"}},
      {"a huge age keeps everything", {"-t", "18446744073709551615"}, all},
      // The largest size the task writes (a negative MB count, unsigned) is never reached.
      {"a huge size keeps everything", {"-s", "18446744073708503040", "-o", "1"}, all},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    fs::remove_all(Bin("docs"));
    Fill("docs");
    std::vector<std::string> args = {"--clean", "docs"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const Result r = Run(args);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Left("docs"), c.left);
  }
}

TEST_F(RecycleTest, SymbolicLinksAreRemovedNeverFollowed) {
  const std::string outside = base_ + "/outside";
  MakeFile(outside + "/precious.txt", 10, 100);
  MakeFile(outside + "/dir/inner.txt", 10, 100);
  fs::create_symlink(outside + "/precious.txt", Bin("docs") + "/link to file");
  fs::create_symlink(outside + "/dir", Bin("docs") + "/link to dir");
  fs::create_directories(Bin("docs") + "/sub");
  fs::create_symlink("../../../outside", Bin("docs") + "/sub/relative link");
  MakeFile(Bin("docs") + "/plain.txt", 10, 100);
  for (const char* l : {"/link to file", "/link to dir", "/sub/relative link"}) SetAge(Bin("docs") + l, 100);

  Result r = Run({"--clean", "docs", "-t", "1"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Left("docs"), std::set<std::string>{});
  EXPECT_TRUE(fs::is_directory(Bin("docs"))) << "the bin folder itself stays";

  // A bin that is itself a link to elsewhere is refused and left alone.
  fs::remove_all(Bin("docs"));
  fs::create_symlink(outside, Bin("docs"));
  r = Run({"--clean", "docs"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("symbolic link"), std::string::npos) << r.err;
  EXPECT_TRUE(fs::exists(outside + "/precious.txt"));
  EXPECT_TRUE(fs::exists(outside + "/dir/inner.txt"));
}

// Unknown shares (status 1) and bad usage (status 2) are refused before anything is touched;
// then the named share, or all of them, is cleaned, and the bins are switched.
TEST_F(RecycleTest, SharesByNameOrAllOfThem) {
  Fill("docs");
  Fill("odd share");
  const std::vector<std::pair<std::vector<std::string>, int>> bad = {
      {{"--clean", "docs", "nosuch"}, 1}, {{"--enable", "nosuch"}, 1}, {{}, 2}, {{"--clean", "-t", "abc"}, 2},
      {{"--clean", "-t", "-5"}, 2}, {{"--clean", "-s", "100", "-o", "3"}, 2}, {{"--clean", "-o", "2"}, 2},
      {{"--clean", "-s", "18446744073709551616", "-o", "1"}, 2}, {{"--clean", ""}, 2},
      {{"--clean", "-t", "1", "--", "--root=/elsewhere"}, 1},
  };
  for (const auto& [args, status] : bad) {
    SCOPED_TRACE(testing::PrintToString(args));
    const Result r = Run(args);
    EXPECT_EQ(r.status, status);
    EXPECT_FALSE(r.err.empty());
  }
  EXPECT_EQ(Left("docs").size(), 7u);
  EXPECT_EQ(orvatest::Slurp(root_ + "/etc/orva/shares.json"), shares_) << "no share was switched";

  Result r = Run({"--clean", "my \"odd\" share", "-t", "15"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Left("odd share"), (std::set<std::string>{"b.pdf", "c.log"}));
  EXPECT_EQ(Left("docs").size(), 7u) << "only the named share is cleaned";
  r = Run({"--clean"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Left("docs").empty());
  EXPECT_TRUE(Left("odd share").empty());
  // A share without a bin is not an error.
  fs::remove_all(Bin("docs"));
  EXPECT_EQ(Run({"--clean", "docs"}).status, 0);

  EXPECT_EQ(Run({"--disable"}).status, 0);
  EXPECT_EQ(Run({"--enable", "my \"odd\" share"}).status, 0);
  const Json::Value shares = orvatest::ParseJson(orvatest::Slurp(root_ + "/etc/orva/shares.json"));
  EXPECT_EQ((std::vector<bool>{shares[0]["recycle_bin"].asBool(), shares[1]["recycle_bin"].asBool()}),
            (std::vector<bool>{false, true}));
}

}  // namespace
