// orvaschedtool: the helper that scheduled tasks call to sound the buzzer and to start
// and stop the built-in services listed in etc/orva/services.json.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/input.h>
#include <linux/kd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <json/json.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/json_read.h"
#include "core/log.h"
#include "core/program.h"
#include "core/root.h"

namespace {

const char kUsage[] =
    "usage: orvaschedtool [--root DIR] --beep SECONDS [--device /dev/input/eventN]\n"
    "       orvaschedtool [--root DIR] --start-service ID...\n"
    "       orvaschedtool [--root DIR] --stop-service ID...\n"
    "\n"
    "  --beep SECONDS      sound the buzzer for 1 to 600 seconds: the PC speaker through\n"
    "                      the first input device that can play a tone, else the console\n"
    "                      bell once a second\n"
    "  --device PATH       use this input device for the tone (no fallback)\n"
    "  --start-service ID  run the start command of each built-in service\n"
    "  --stop-service ID   run the stop command of each built-in service\n"
    "  --root DIR          the system root (default: $ORVA_ROOT, else /)\n"
    "  --help              this text\n"
    "\n"
    "Services and their commands are read from etc/orva/services.json. An unknown id\n"
    "stops everything before any command runs. Exit status: 0 done, 1 a failure,\n"
    "2 bad usage.\n";

volatile sig_atomic_t gStop = 0;

void OnSignal(int) { gStop = 1; }

void Fail(const std::string& msg) {
  ORVA_LOG(LOG_ERR, "%s", msg.c_str());
  fprintf(stderr, "orvaschedtool: %s\n", msg.c_str());
}

void Info(const std::string& msg) {
  ORVA_LOG(LOG_INFO, "%s", msg.c_str());
  printf("%s\n", msg.c_str());
  fflush(stdout);
}

// Sleeps up to `seconds`, returning early on SIGTERM/SIGINT.
void Wait(double seconds) {
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(seconds);
  ts.tv_nsec = static_cast<long>((seconds - static_cast<double>(ts.tv_sec)) * 1e9);
  while (!gStop && nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

bool TestBit(const unsigned long* bits, int bit) {
  const int per = static_cast<int>(sizeof(unsigned long) * 8);
  return (bits[bit / per] >> (bit % per)) & 1UL;
}

// An input device that can play a tone (EV_SND with SND_TONE), opened for writing.
int OpenToneDevice(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    return -1;
  }
  unsigned long ev[(EV_MAX + 1) / (8 * sizeof(unsigned long)) + 1] = {};
  unsigned long snd[(SND_MAX + 1) / (8 * sizeof(unsigned long)) + 1] = {};
  if (ioctl(fd, EVIOCGBIT(0, sizeof ev), ev) < 0 || !TestBit(ev, EV_SND) ||
      ioctl(fd, EVIOCGBIT(EV_SND, sizeof snd), snd) < 0 || !TestBit(snd, SND_TONE)) {
    close(fd);
    errno = ENODEV;
    return -1;
  }
  return fd;
}

bool Tone(int fd, int hz) {
  struct input_event ev = {};
  ev.type = EV_SND;
  ev.code = SND_TONE;
  ev.value = hz;
  struct input_event sync = {};
  sync.type = EV_SYN;
  sync.code = SYN_REPORT;
  return write(fd, &ev, sizeof ev) == static_cast<ssize_t>(sizeof ev) &&
         write(fd, &sync, sizeof sync) == static_cast<ssize_t>(sizeof sync);
}

int BeepThrough(int fd, const std::string& path, int seconds) {
  if (!Tone(fd, 1000)) {
    Fail("cannot play a tone on " + path + ": " + strerror(errno));
    close(fd);
    return 1;
  }
  Wait(seconds);
  const bool off = Tone(fd, 0);
  close(fd);
  Info("beeped " + std::to_string(seconds) + " second(s) through the PC speaker " + path +
       (gStop ? " (interrupted)" : ""));
  return off ? 0 : 1;
}

int Beep(int seconds, const std::string& device) {
  if (!device.empty()) {
    const int fd = OpenToneDevice(device);
    if (fd < 0) {
      Fail(device + " cannot play a tone: " + strerror(errno));
      return 1;
    }
    return BeepThrough(fd, device, seconds);
  }
  std::vector<std::string> devices;
  if (DIR* dir = opendir("/dev/input")) {
    while (struct dirent* de = readdir(dir)) {
      if (strncmp(de->d_name, "event", 5) == 0) {
        devices.push_back(std::string("/dev/input/") + de->d_name);
      }
    }
    closedir(dir);
  }
  std::sort(devices.begin(), devices.end());
  for (const std::string& path : devices) {
    const int fd = OpenToneDevice(path);
    if (fd >= 0) {
      return BeepThrough(fd, path, seconds);
    }
  }
  // No tone device: the console bell, rung once a second. On a virtual console the
  // kernel plays it through the speaker (KDMKTONE); elsewhere it is the BEL byte.
  for (const char* path : {"/dev/tty0", "/dev/console", "/dev/tty"}) {
    const int fd = open(path, O_WRONLY | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
      continue;
    }
    const bool kd = ioctl(fd, KDMKTONE, (200 << 16) | (1193180 / 1000)) == 0;
    int rung = 0;
    for (int i = 0; i < seconds && !gStop; ++i) {
      if (i > 0) {
        if (kd) {
          ioctl(fd, KDMKTONE, (200 << 16) | (1193180 / 1000));
        }
      }
      if (!kd && write(fd, "\a", 1) != 1) {
        break;
      }
      ++rung;
      Wait(1);
    }
    close(fd);
    if (rung == 0) {
      continue;
    }
    Info(std::string("no PC speaker input device; rang the console bell on ") + path + " " +
         std::to_string(rung) + " time(s) over " + std::to_string(seconds) + " second(s)" +
         (kd ? " (console tone)" : "") + (gStop ? " (interrupted)" : ""));
    return 0;
  }
  Fail("no PC speaker input device and no console to ring the bell on");
  return 1;
}

int Services(bool start, const std::vector<std::string>& ids) {
  const std::string file = ORVA::ORVAPathMap("/etc/orva/services.json");
  Json::Value services;
  std::string errs;
  const bool read = ORVA::JsonReadFile(file, &services, &errs);
  if (!read && errno != EINVAL) {
    Fail("cannot read " + file + ": " + strerror(errno));
    return 1;
  }
  if (!read || !services.isObject()) {
    Fail("malformed " + file + (errs.empty() ? ": not an object" : ": " + errs));
    return 1;
  }
  const char* verb = start ? "start" : "stop";
  // Every id is checked before any command runs.
  bool bad = false;
  std::vector<std::string> todo;
  for (const std::string& id : ids) {
    const Json::Value& s = services[id];
    if (!services.isMember(id) || !s.isObject()) {
      Fail("unknown service \"" + id + "\"");
      bad = true;
    } else if (!s[verb].isString() || s[verb].asString().empty()) {
      Fail("service \"" + id + "\" has no " + verb + " command in " + file);
      bad = true;
    } else if (std::find(todo.begin(), todo.end(), id) == todo.end()) {
      todo.push_back(id);
    }
  }
  if (bad) {
    return 1;
  }
  int failed = 0;
  for (const std::string& id : todo) {
    const int status = ORVA::RunShell(services[id][verb].asString(), [] {
      signal(SIGTERM, SIG_DFL);
      signal(SIGINT, SIG_DFL);
    });
    if (status == 0) {
      Info(std::string(start ? "started" : "stopped") + " service " + id);
      continue;
    }
    ++failed;
    if (status < 0) {
      Fail(std::string("cannot run the ") + verb + " command of service " + id + ": " + strerror(errno));
    } else if (WIFSIGNALED(status)) {
      Fail(std::string("the ") + verb + " command of service " + id + " was killed by signal " +
           std::to_string(WTERMSIG(status)));
    } else {
      Fail(std::string("the ") + verb + " command of service " + id + " failed with status " +
           std::to_string(WEXITSTATUS(status)));
    }
  }
  return failed ? 1 : 0;
}

bool ParseSeconds(const char* text, int& out) {
  long v = 0;
  if (!ORVA::ParseLong(text, 1, 600, &v)) {
    return false;
  }
  out = static_cast<int>(v);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  openlog("orvaschedtool", LOG_PID, LOG_USER);
  enum { kNone, kBeep, kStart, kStop } mode = kNone;
  int seconds = 0;
  std::string device;
  std::vector<std::string> ids;
  auto usage = [&](const std::string& msg) {
    fprintf(stderr, "orvaschedtool: %s\n%s", msg.c_str(), kUsage);
    return 2;
  };
  static const option kOptions[] = {ORVA::kRootOption,
                                    {"device", required_argument, nullptr, 'd'},
                                    {"beep", required_argument, nullptr, 'b'},
                                    {"start-service", no_argument, nullptr, 's'},
                                    {"stop-service", no_argument, nullptr, 't'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {}};
  opterr = 0;
  for (int c; (c = ORVA::GetOpt(argc, argv, ":h", kOptions)) != -1;) {
    if (c == 'h') {
      fputs(kUsage, stdout);
      return 0;
    } else if (c == 'd') {
      device = optarg;
    } else if (c == 'b' || c == 's' || c == 't' || (c == ':' && optopt == 'b')) {
      if (mode != kNone) return usage("only one of --beep, --start-service and --stop-service may be given");
      mode = c == 's' ? kStart : c == 't' ? kStop : kBeep;
      if (mode == kBeep && (c == ':' || !ParseSeconds(optarg, seconds))) {
        return usage("--beep needs a number of seconds from 1 to 600");
      }
    } else {
      return usage(c == ':' ? std::string(argv[optind - 1]) + " needs a value"
                            : "unexpected argument \"" + std::string(argv[optind - 1]) + "\"");
    }
  }
  for (int i = optind; i < argc; ++i) {
    if (mode != kStart && mode != kStop) return usage("unexpected argument \"" + std::string(argv[i]) + "\"");
    ids.push_back(argv[i]);
  }
  if (mode == kNone) return usage("one of --beep, --start-service or --stop-service is needed");
  if ((mode == kStart || mode == kStop) && ids.empty()) return usage("name at least one service id");
  if (mode != kBeep && !device.empty()) return usage("--device goes with --beep");

  struct sigaction sa = {};
  sa.sa_handler = OnSignal;
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  if (mode == kBeep) {
    return Beep(seconds, device);
  }
  return Services(mode == kStart, ids);
}
