// The system root: the one place where appliance paths are mapped under ORVA_ROOT.
#include "core/root.h"

#include <stdlib.h>

#include <mutex>

namespace ORVA {

namespace {

std::mutex gRootMutex;
bool gRootOverridden = false;
std::string gRootOverride;
// Each thread gets its own copy, so a returned reference never changes under a reader.
thread_local std::string tRoot;

std::string Normalize(const std::string& root) {
  size_t end = root.find_last_not_of('/');
  if (end == std::string::npos) {
    return std::string(1, '/');  // "" or only slashes
  }
  return root.substr(0, end + 1);
}

}  // namespace

const std::string& ORVARootGet() {
  {
    std::lock_guard<std::mutex> lock(gRootMutex);
    if (gRootOverridden) {
      tRoot = gRootOverride;
      return tRoot;
    }
  }
  // Not cached: a test or program may set ORVA_ROOT after the first use.
  const char* env = getenv("ORVA_ROOT");
  tRoot = Normalize(env ? env : "");
  return tRoot;
}

void ORVARootSet(const std::string& root) {
  std::lock_guard<std::mutex> lock(gRootMutex);
  gRootOverride = Normalize(root);
  gRootOverridden = true;
}

std::string ORVAPathMap(const std::string& appliancePath) {
  const std::string& root = ORVARootGet();
  if (root == "/") {
    return appliancePath;
  }
  if (appliancePath.empty() || appliancePath.front() != '/') {
    return root + "/" + appliancePath;
  }
  return root + appliancePath;
}

}  // namespace ORVA
