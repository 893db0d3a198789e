// Package manager (liborvapkg.so.1): var/lib/orva/packages/NAME/package.json.
#pragma once

#include <string>
#include <vector>

namespace ORVAPackageTool {

class PackageInfo {
 public:
  std::string name;
  std::string displayName;
  std::string version;
  bool service = false;        // may be started and stopped by service tasks
  std::string startCommand;    // control.start
  std::string stopCommand;     // control.stop
};

class PackageManager {
 public:
  PackageManager();
  // False when the packages folder cannot be read.
  bool init();
  // Installed package names in a stable (name) order. `filter` NULL and `flags` all
  // bits set mean every package.
  std::vector<std::string> enumPackages(const char* filter, unsigned long long flags);
  // False when the package is unknown or its manifest does not parse.
  bool getPackageInfo(const std::string& name, PackageInfo& info, const char* filter,
                      unsigned long long flags);

 private:
  std::string dir_;
  bool ready_ = false;
};

}  // namespace ORVAPackageTool
