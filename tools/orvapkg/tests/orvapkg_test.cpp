// orvapkg: package control commands from the manifest.
#include <gtest/gtest.h>

#include "orvatest.h"

namespace {

TEST(PkgTool, ControlCommandsAndTheirFailures) {
  orvatest::TempRoot root{"orvapkg"};
  const std::string alpha = root.Real("/var/lib/orva/packages/alpha");
  root.Write("/var/lib/orva/packages/alpha/package.json", R"({"name": "alpha", "version": "1.0",
      "display_name": "Alpha Media", "service": true,
      "control": {"start": "echo \"$ORVA_PKG_NAME $(pwd)\" > state", "stop": "rm state"}})");
  // Not admitted to service tasks, but still controllable by hand.
  root.Write("/var/lib/orva/packages/beta/package.json", R"({"name": "beta", "version": "2", "service": false,
      "control": {"start": "echo up; exit 0", "stop": "echo down >&2; exit 3"}})");
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string printed;  // on stdout or stderr
    std::string state;    // alpha's state file after the call
  };
  const Case cases[] = {
      {{"start", "alpha"}, 0, "started package alpha (Alpha Media)", "alpha " + alpha + "\n"},
      {{"stop", "alpha"}, 0, "", ""},
      {{"start", "beta"}, 0, "up", ""},
      {{"stop", "beta"}, 1, "failed with status 3", ""},
      {{"start", "nosuch"}, 1, "unknown package \"nosuch\"", ""},
      {{"start", "../alpha"}, 1, "not a package name", ""},
      {{"restart", "alpha"}, 2, "start or stop", ""},
  };
  for (const Case& c : cases) {
    std::vector<std::string> argv = {ORVA_BUILD_DIR "/bin/orvapkg", "--root", root.path()};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    SCOPED_TRACE(testing::PrintToString(argv));
    const orvatest::Result r = orvatest::Spawn(argv, root.path());
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE((r.out + r.err).find(c.printed), std::string::npos) << r.out << r.err;
    EXPECT_EQ(orvatest::Slurp(alpha + "/state"), c.state);
  }
}

}  // namespace
