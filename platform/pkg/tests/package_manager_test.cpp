// Package manager on temporary roots. Starting and stopping through the manifest: orvapkg's
// tests; the packages offered to service tasks, and no packages folder: the module's service tests.
#include "pkg/package_manager.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvatest.h"

namespace {

using ORVAPackageTool::PackageInfo;
using ORVAPackageTool::PackageManager;

const std::string kPackages = "/var/lib/orva/packages";

TEST(PackageManager, EnumerationAndInfo) {
  struct Case {
    const char* name;
    const char* manifest;  // nullptr: no package
    bool ok;
    PackageInfo expected;
  } cases[] = {
      {"full",
       R"({"name":"full","display_name":"Full Package","version":"1.2-3","service":true,
           "control":{"start":"/usr/bin/full-start","stop":"/usr/bin/full-stop"}})",
       true,
       {"full", "Full Package", "1.2-3", true, "/usr/bin/full-start", "/usr/bin/full-stop"}},
      {"notsvc", R"({"service":false,"control":{"start":"a","stop":"b"}})", true,
       {"notsvc", "notsvc", "", false, "a", "b"}},
      {"implicit", R"({"control":{"start":"a","stop":"b"}})", true, {"implicit", "implicit", "", true, "a", "b"}},
      {"startonly", R"({"control":{"start":"a"}})", true, {"startonly", "startonly", "", false, "a", ""}},
      {"array", R"(["truncated"])", false, {}},
      {"svcstring", R"({"service":"yes"})", false, {}},
      {"ctlarray", R"({"control":["a","b"]})", false, {}},
      {"othername", R"({"name":"impostor"})", false, {}},
      // Names that would leave the folder (a manifest waits one level up).
      {"..", nullptr, false, {}},
      {"full/../full", nullptr, false, {}},
  };
  orvatest::TempRoot root;
  root.Write("/var/lib/orva/package.json", R"({"name":"packages"})");
  for (const Case& c : cases) {
    if (c.manifest) {
      root.Write(kPackages + "/" + c.name + "/package.json", c.manifest);
    }
  }
  root.Write(kPackages + "/.hidden/package.json", R"({"name": ".hidden"})");
  root.Write(kPackages + "/no-manifest/x", "");
  root.Write(kPackages + "/stray-file", "x");
  PackageManager pm;
  ASSERT_TRUE(pm.init());
  EXPECT_EQ(pm.enumPackages(nullptr, ~0ULL),
            (std::vector<std::string>{"array", "ctlarray", "full", "implicit", "notsvc", "othername", "startonly",
                                      "svcstring"}));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PackageInfo info;
    ASSERT_EQ(pm.getPackageInfo(c.name, info, nullptr, ~0ULL), c.ok);
    const PackageInfo& e = c.expected;
    EXPECT_EQ(
        (std::vector<std::string>{info.name, info.displayName, info.version, info.startCommand, info.stopCommand}),
        (std::vector<std::string>{e.name, e.displayName, e.version, e.startCommand, e.stopCommand}));
    EXPECT_EQ(info.service, e.service);
  }
}

}  // namespace
