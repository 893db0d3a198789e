// orvapkg: starts or stops an installed package through its manifest's control command.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "core/log.h"
#include "core/program.h"
#include "core/root.h"
#include "pkg/package_manager.h"

namespace {

const char kUsage[] =
    "usage: orvapkg [--root DIR] start|stop NAME\n"
    "\n"
    "Runs the start or stop command of the installed package NAME, as its manifest\n"
    "var/lib/orva/packages/NAME/package.json gives it under \"control\". The command runs\n"
    "through /bin/sh in the package's folder, with ORVA_PKG_NAME and ORVA_PKG_DIR set.\n"
    "\n"
    "  --root DIR   the system root (default: $ORVA_ROOT, else /)\n"
    "  --help       this text\n"
    "\n"
    "Exit status: 0 done, 1 unknown package or the command failed, 2 bad usage.\n";

void Fail(const std::string& msg) {
  ORVA_LOG(LOG_ERR, "%s", msg.c_str());
  fprintf(stderr, "orvapkg: %s\n", msg.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  openlog("orvapkg", LOG_PID, LOG_USER);
  std::string verb;
  std::string name;
  auto usage = [&](const std::string& msg) {
    fprintf(stderr, "orvapkg: %s\n%s", msg.c_str(), kUsage);
    return 2;
  };
  static const option kOptions[] = {ORVA::kRootOption, {"help", no_argument, nullptr, 'h'}, {}};
  opterr = 0;
  for (int c; (c = ORVA::GetOpt(argc, argv, ":h", kOptions)) != -1;) {
    if (c == 'h') {
      fputs(kUsage, stdout);
      return 0;
    }
    const std::string a = argv[optind - 1];
    return usage(c == ':' ? a + " needs a value" : "unknown option \"" + a + "\"");
  }
  for (int i = optind; i < argc; ++i) {
    const std::string a = argv[i];
    if (verb.empty()) {
      if (a != "start" && a != "stop") return usage("the action is start or stop, not \"" + a + "\"");
      verb = a;
    } else if (name.empty()) {
      name = a;
    } else {
      return usage("one package at a time");
    }
  }
  if (verb.empty() || name.empty()) return usage("name an action and a package");
  if (name.find('/') != std::string::npos || name == "." || name == "..") {
    Fail("\"" + name + "\" is not a package name");
    return 1;
  }

  ORVAPackageTool::PackageManager pm;
  if (!pm.init()) {
    Fail("cannot read the installed packages in " + ORVA::ORVAPathMap("/var/lib/orva/packages"));
    return 1;
  }
  ORVAPackageTool::PackageInfo info;
  if (!pm.getPackageInfo(name, info, nullptr, ~0ULL)) {
    Fail("unknown package \"" + name + "\" (not installed, or its manifest is unreadable)");
    return 1;
  }
  const std::string& command = verb == "start" ? info.startCommand : info.stopCommand;
  if (command.empty()) {
    Fail("package \"" + name + "\" has no " + verb + " command");
    return 1;
  }
  const std::string dir = ORVA::ORVAPathMap("/var/lib/orva/packages/" + name);
  const int status = ORVA::RunShell(command, [&] {
    if (chdir(dir.c_str()) != 0) {
      fprintf(stderr, "orvapkg: cannot enter %s: %s\n", dir.c_str(), strerror(errno));
      _exit(126);
    }
    setenv("ORVA_PKG_NAME", name.c_str(), 1);
    setenv("ORVA_PKG_DIR", dir.c_str(), 1);
  });
  if (status < 0) {
    Fail(std::string("cannot fork: ") + strerror(errno));
    return 1;
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
    ORVA_LOG(LOG_INFO, "%s package %s", verb == "start" ? "started" : "stopped", name.c_str());
    printf("%s package %s (%s)\n", verb == "start" ? "started" : "stopped", name.c_str(),
           info.displayName.c_str());
    return 0;
  }
  if (WIFSIGNALED(status)) {
    Fail("the " + verb + " command of package " + name + " was killed by signal " + std::to_string(WTERMSIG(status)));
  } else {
    Fail("the " + verb + " command of package " + name + " failed with status " +
         std::to_string(WEXITSTATUS(status)));
  }
  return 1;
}
