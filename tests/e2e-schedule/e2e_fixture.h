// End-to-end support: a system root staged as `make stage` stages it, the real
// orva-webapid and orva-schedulerd started on it, and orva-api as the client.
#pragma once

#include <sys/types.h>

#include <json/json.h>

#include <string>
#include <vector>

#include "orvatest.h"

namespace e2e {

using Result = orvatest::Result;

// Runs a program to completion.
Result Run(const std::vector<std::string>& argv);

class StagedRoot {
 public:
  // Stages into a fresh temporary folder with scripts/stage.sh (no demo data).
  StagedRoot();
  ~StagedRoot();
  bool Ok() const { return ok_; }
  const std::string& Path() const { return path_; }
  std::string Bin(const std::string& program) const { return path_ + "/usr/orva/bin/" + program; }

  // Starts the server (Unix socket only) and waits until it accepts connections.
  bool StartServer();
  // Starts the daemon.
  bool StartDaemon();
  // orva-api API VERSION METHOD PARAMS, as this process's account.
  Result Api(const std::string& api, int version, const std::string& method,
             const Json::Value& params = Json::Value(Json::objectValue)) const;
  // The same call over the Unix socket from this process (no orva-api started): the
  // reply envelope, or null when no HTTP reply came.
  Json::Value Post(const std::string& api, int version, const std::string& method, const Json::Value& params) const;
  std::string ServerLog() const;
  std::string DaemonLog() const;

 private:
  // Starts `argv` logging to `log` and waits until `ready` holds; false if it exited first.
  bool Start(pid_t& pid, const std::vector<std::string>& argv, const std::string& log,
             const std::function<bool()>& ready);
  std::string path_;
  bool ok_ = false;
  pid_t server_ = -1;
  pid_t daemon_ = -1;
};

}  // namespace e2e
