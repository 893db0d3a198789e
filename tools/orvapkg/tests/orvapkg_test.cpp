// orvapkg: package control commands from the manifest.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "orvatest.h"

namespace fs = std::filesystem;
using orvatest::Result;

namespace {

const std::string kTool = std::string(ORVA_BUILD_DIR) + "/bin/orvapkg";

class PkgToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Manifest("alpha", R"({"name": "alpha", "display_name": "Alpha Media", "version": "1.0", "service": true,
      "control": {"start": "echo \"$ORVA_PKG_NAME $(pwd)\" > state", "stop": "rm state"}})");
    Manifest("beta", R"({"name": "beta", "display_name": "Beta", "version": "2", "service": false,
      "control": {"start": "echo up; exit 0", "stop": "echo down >&2; exit 3"}})");
    Manifest("broken", "{ not json");
    Manifest("nostop", R"({"name": "nostop", "version": "1", "control": {"start": "true"}})");
  }
  void Manifest(const std::string& name, const std::string& text) {
    dirs_[name] = root_ + "/var/lib/orva/packages/" + name;
    fs::create_directories(dirs_[name]);
    std::ofstream(dirs_[name] + "/package.json") << text;
  }
  Result Run(std::vector<std::string> args) {
    args.insert(args.begin(), {kTool, "--root", root_});
    return orvatest::Spawn(args, root_);
  }

  orvatest::TempRoot temp_{"orvapkg"};
  const std::string& root_ = temp_.path();
  std::map<std::string, std::string> dirs_;
};

TEST_F(PkgToolTest, StartAndStopRunTheControlCommands) {
  Result r = Run({"start", "alpha"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(orvatest::Slurp(dirs_["alpha"] + "/state"), "alpha " + dirs_["alpha"] + "\n");
  EXPECT_NE(r.out.find("started package alpha (Alpha Media)"), std::string::npos);
  r = Run({"stop", "alpha"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_FALSE(fs::exists(dirs_["alpha"] + "/state"));

  // Not admitted to service tasks, but still controllable by hand.
  r = Run({"start", "beta"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("up"), std::string::npos);
}

struct FailCase {
  std::vector<std::string> args;
  int status;
  const char* err;
};

TEST_F(PkgToolTest, Failures) {
  const std::vector<FailCase> cases = {
      {{"start", "nosuch"}, 1, "unknown package \"nosuch\""},
      {{"start", "broken"}, 1, "unknown package \"broken\""},
      {{"stop", "beta"}, 1, "failed with status 3"},
      {{"start", "../alpha"}, 1, "not a package name"},
      {{"restart", "alpha"}, 2, "start or stop"},
      {{"start"}, 2, "name an action and a package"},
      {{"start", "alpha", "beta"}, 2, "one package at a time"},
      {{"-x"}, 2, "unknown option"},
  };
  for (const FailCase& c : cases) {
    SCOPED_TRACE(orvatest::Shown(c.args));
    const Result r = Run(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
  }
  EXPECT_FALSE(fs::exists(dirs_["alpha"] + "/state"));
  const Result help = Run({"--help"});
  EXPECT_EQ(help.status, 0);
}

}  // namespace
