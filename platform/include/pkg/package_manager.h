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
  // Installed package names (folders holding a package.json) in name order. `filter`
  // is an fnmatch(3) pattern on names, NULL for every package. `flags` is reserved:
  // every value lists every kind of package (callers pass all bits set). Empty, with
  // the error facility set, before a successful init.
  std::vector<std::string> enumPackages(const char* filter, unsigned long long flags);
  // False when the package is unknown, does not match `filter`, or its manifest does
  // not parse (not an object, a member of the wrong type, a "name" that differs from
  // the folder). A missing display_name reads as the name; a missing "service" flag
  // reads as true when both control commands are given. `flags` is reserved.
  bool getPackageInfo(const std::string& name, PackageInfo& info, const char* filter,
                      unsigned long long flags);

 private:
  std::string dir_;
  bool ready_ = false;
};

}  // namespace ORVAPackageTool
