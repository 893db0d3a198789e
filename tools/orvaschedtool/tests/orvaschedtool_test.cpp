// orvaschedtool: built-in services through services.json, and the buzzer.
#include <gtest/gtest.h>

#include <filesystem>

#include "orvatest.h"

namespace {

TEST(SchedTool, ServicesBuzzerAndFailures) {
  orvatest::TempRoot root{"orvaschedtool"};
  const std::string& d = root.path();
  root.Write("/etc/orva/services.json", R"({
      "WinShare": {"start": "echo on > )" + d + R"(/win", "stop": "rm )" + d + R"(/win"},
      "FileXfer": {"start": "echo on > )" + d + R"(/ftp; echo ftp up", "stop": "rm )" + d + R"(/ftp"},
      "Broken": {"start": "echo cannot >&2; exit 4", "stop": "kill -9 $$"},
      "NoStop": {"start": "true"}
    })");
  auto run = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {ORVA_BUILD_DIR "/bin/orvaschedtool", "--root", d});
    return orvatest::Spawn(args, d);
  };
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* printed;  // on stdout or stderr
    const char* running;  // the services whose files exist after the call
  };
  const Case cases[] = {
      {{"--start-service", "WinShare", "FileXfer"}, 0, "ftp up", "win ftp"},
      {{"--stop-service", "FileXfer"}, 0, "", "win"},
      // An unknown id stops everything before any command runs.
      {{"--stop-service", "WinShare", "NoSuch"}, 1, "unknown service \"NoSuch\"", "win"},
      {{"--start-service", "Broken"}, 1, "failed with status 4", "win"},
      {{"--stop-service", "Broken"}, 1, "killed by signal 9", "win"},
      {{"--stop-service", "NoStop"}, 1, "has no stop command", "win"},
      // Without a speaker device the buzzer rings the console bell and says so.
      {{"--beep", "1"}, 0, "1 second(s)", "win"},
      {{"--beep", "0"}, 2, "1 to 600", "win"},
      {{"--beep", "601"}, 2, "1 to 600", "win"},
      {{"--beep", "1", "--device", "/dev/null"}, 1, "cannot play a tone", "win"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    const orvatest::Result r = run(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE((r.out + r.err).find(c.printed), std::string::npos) << r.out << r.err;
    const bool win = std::filesystem::exists(d + "/win"), ftp = std::filesystem::exists(d + "/ftp");
    EXPECT_EQ(std::string(win ? "win" : "") + (ftp ? " ftp" : ""), c.running);
  }
  std::filesystem::remove(d + "/etc/orva/services.json");
  const orvatest::Result r = run({"--start-service", "WinShare"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("services.json"), std::string::npos);
}

}  // namespace
