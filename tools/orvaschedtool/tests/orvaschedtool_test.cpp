// orvaschedtool: built-in services through services.json, and the buzzer.
#include <fcntl.h>
#include <linux/input.h>
#include <linux/uinput.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "core/kelc.h"
#include "orvatest.h"

namespace fs = std::filesystem;
using orvatest::Result;

namespace {

const std::string kTool = std::string(ORVA_BUILD_DIR) + "/bin/orvaschedtool";

class SchedToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(root_ + "/etc/orva");
    const std::string& d = root_;
    std::ofstream(root_ + "/etc/orva/services.json") << R"({
      "WinShare": {"start": "echo on > )" << d << R"(/win", "stop": "rm )" << d << R"(/win"},
      "FileXfer": {"start": "echo on > )" << d << R"(/ftp; echo ftp up", "stop": "rm )" << d << R"(/ftp"},
      "Odd Id": {"start": "touch ')" << d << R"(/odd'", "stop": "true"},
      "Broken": {"start": "echo cannot >&2; exit 4", "stop": "kill -9 $$"},
      "NoStop": {"start": "true"}
    })";
  }
  Result Run(std::vector<std::string> args) {
    args.insert(args.begin(), {kTool, "--root", root_});
    return orvatest::Spawn(args, root_);
  }
  bool Has(const char* f) { return fs::exists(root_ + "/" + f); }

  orvatest::TempRoot temp_{"orvaschedtool"};
  const std::string& root_ = temp_.path();
};

TEST_F(SchedToolTest, StartAndStopServices) {
  Result r = Run({"--start-service", "WinShare", "FileXfer"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Has("win"));
  EXPECT_TRUE(Has("ftp"));
  EXPECT_NE(r.out.find("ftp up"), std::string::npos) << "the command's own output passes through";
  EXPECT_NE(r.out.find("started service FileXfer"), std::string::npos);

  r = Run({"--stop-service", "FileXfer"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Has("win"));
  EXPECT_FALSE(Has("ftp"));

  // The id as a task's command line carries it: one escaped shell word.
  char word[64];
  ASSERT_GT(KELCEncShParam("Odd Id", word, sizeof word), 0);
  r = orvatest::Spawn({"/bin/sh", "-c", kTool + " --root " + root_ + " --start-service " + word}, root_);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Has("odd"));

  // Without a speaker device the buzzer says what it did instead.
  r = Run({"--beep", "1"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(r.out.rfind("beeped 1 second(s) through the PC speaker", 0) == 0 ||
              r.out.find("rang the console bell") != std::string::npos) << r.out;
}

struct FailCase {
  std::vector<std::string> args;
  int status;
  const char* err;  // expected in stderr
};

TEST_F(SchedToolTest, FailuresAndUsage) {
  const std::vector<FailCase> cases = {
      {{"--start-service", "WinShare", "NoSuch"}, 1, "unknown service \"NoSuch\""},
      {{"--stop-service", "winshare"}, 1, "unknown service \"winshare\""},
      {{"--start-service", "Broken"}, 1, "failed with status 4"}, {{"--stop-service", "Broken"}, 1, "killed by signal 9"},
      {{"--stop-service", "NoStop"}, 1, "has no stop command"}, {{}, 2, "one of --beep"},
      {{"--start-service"}, 2, "at least one service"}, {{"--beep"}, 2, "1 to 600"}, {{"--beep", "0"}, 2, "1 to 600"},
      {{"--beep", "601"}, 2, "1 to 600"}, {{"--beep", "5s"}, 2, "1 to 600"},
      {{"--beep", "1", "--start-service", "WinShare"}, 2, "only one of"},
      {{"--start-service", "WinShare", "--device", "/dev/null"}, 2, "--device goes with --beep"},
      {{"--frobnicate"}, 2, "unexpected argument"}, {{"--beep", "1", "--device", "/dev/null"}, 1, "cannot play a tone"},
  };
  for (const FailCase& c : cases) {
    SCOPED_TRACE(orvatest::Shown(c.args));
    const Result r = Run(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
  }
  EXPECT_FALSE(Has("win")) << "an unknown id stops everything before any command runs";

  fs::remove(root_ + "/etc/orva/services.json");
  const Result r = Run({"--start-service", "WinShare"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("services.json"), std::string::npos);
}

// With uinput a virtual speaker shows the exact tone events: on, then off.
TEST_F(SchedToolTest, BeepThroughAnInputDevice) {
  const int fd = open("/dev/uinput", O_RDWR | O_NONBLOCK);
  if (fd < 0) {
    GTEST_SKIP() << "no /dev/uinput here: " << strerror(errno);
  }
  ASSERT_EQ(ioctl(fd, UI_SET_EVBIT, EV_SND), 0);
  ASSERT_EQ(ioctl(fd, UI_SET_SNDBIT, SND_TONE), 0);
  struct uinput_setup setup = {};
  snprintf(setup.name, sizeof setup.name, "orvat-speaker-%d", getpid());
  setup.id.bustype = BUS_VIRTUAL;
  ASSERT_EQ(ioctl(fd, UI_DEV_SETUP, &setup), 0);
  ASSERT_EQ(ioctl(fd, UI_DEV_CREATE), 0);
  char sys[64] = {};
  ASSERT_EQ(ioctl(fd, UI_GET_SYSNAME(sizeof sys), sys), 0);
  std::string dev;
  for (const auto& e : fs::directory_iterator(std::string("/sys/devices/virtual/input/") + sys)) {
    const std::string n = e.path().filename();
    if (n.rfind("event", 0) == 0) dev = "/dev/input/" + n;
  }
  ASSERT_FALSE(dev.empty());
  for (int i = 0; i < 50 && !fs::exists(dev); ++i) usleep(20000);

  const Result r = Run({"--beep", "1", "--device", dev});
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<int> tones;
  struct input_event ev;
  while (read(fd, &ev, sizeof ev) == static_cast<ssize_t>(sizeof ev)) {
    if (ev.type == EV_SND && ev.code == SND_TONE) tones.push_back(ev.value);
  }
  ioctl(fd, UI_DEV_DESTROY);
  close(fd);
  ASSERT_EQ(tones.size(), 2u);
  EXPECT_GT(tones[0], 0);
  EXPECT_EQ(tones[1], 0);
}

}  // namespace
