// Package manager on temporary roots.
#include "pkg/package_manager.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "orvatest.h"
#include "core/kelc.h"

namespace {

using orvatest::TempRoot;

using ORVAPackageTool::PackageInfo;
using ORVAPackageTool::PackageManager;

const std::string kPackages = "/var/lib/orva/packages";

TEST(PackageManager, InitFailsWithoutAReadableFolder) {
  TempRoot root;
  PackageManager missing;
  EXPECT_FALSE(missing.init());
  EXPECT_EQ(KELCErrGet(), KELC_ERR_NOT_FOUND);
  EXPECT_TRUE(missing.enumPackages(nullptr, ~0ULL).empty());
  PackageInfo info;
  EXPECT_FALSE(missing.getPackageInfo("x", info, nullptr, ~0ULL));
  root.Write(kPackages, "a file, not a folder");
  EXPECT_FALSE(PackageManager().init());
}

TEST(PackageManager, EnumeratesInNameOrder) {
  TempRoot root;
  for (const char* name : {"zeta", "Alpha", "mid-2", "beta"}) {
    root.Write(kPackages + "/" + name + "/package.json", std::string(R"({"name": ")") + name + "\"}");
  }
  std::filesystem::create_directories(root.Real(kPackages + "/no-manifest"));
  root.Write(kPackages + "/.hidden/package.json", R"({"name": ".hidden"})");
  root.Write(kPackages + "/stray-file", "x");
  root.Write(kPackages + "/broken/package.json", "{");  // listed; its info fails
  PackageManager pm;
  ASSERT_TRUE(pm.init());
  EXPECT_EQ(pm.enumPackages(nullptr, ~0ULL),
            (std::vector<std::string>{"Alpha", "beta", "broken", "mid-2", "zeta"}));
  EXPECT_EQ(pm.enumPackages("*eta", ~0ULL), (std::vector<std::string>{"beta", "zeta"}));
  EXPECT_EQ(pm.enumPackages(nullptr, 0), pm.enumPackages(nullptr, ~0ULL));
}

TEST(PackageManager, InfoTable) {
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
      {"notsvc", R"({"name":"notsvc","service":false,"control":{"start":"a","stop":"b"}})", true,
       {"notsvc", "notsvc", "", false, "a", "b"}},
      {"implicit", R"({"control":{"start":"a","stop":"b"}})", true, {"implicit", "implicit", "", true, "a", "b"}},
      {"startonly", R"({"control":{"start":"a"}})", true, {"startonly", "startonly", "", false, "a", ""}},
      {"bare", R"({})", true, {"bare", "bare", "", false, "", ""}},
      {"truncated", R"({"name":"truncated",)", false, {}},
      {"array", R"(["truncated"])", false, {}},
      {"svcstring", R"({"service":"yes"})", false, {}},
      {"ctlarray", R"({"control":["a","b"]})", false, {}},
      {"othername", R"({"name":"impostor"})", false, {}},
      {"absent", nullptr, false, {}},
      // Names that would leave the folder (a manifest waits one level up).
      {"", nullptr, false, {}},
      {"..", nullptr, false, {}},
      {"full/../full", nullptr, false, {}},
  };
  TempRoot root;
  root.Write("/var/lib/orva/package.json", R"({"name":"packages"})");
  for (const Case& c : cases) {
    if (c.manifest) {
      root.Write(kPackages + "/" + c.name + "/package.json", c.manifest);
    }
  }
  PackageManager pm;
  ASSERT_TRUE(pm.init());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PackageInfo info;
    info.name = "untouched";
    bool ok = pm.getPackageInfo(c.name, info, nullptr, ~0ULL);
    ASSERT_EQ(ok, c.ok);
    if (!ok) {
      EXPECT_EQ(info.name, "untouched");  // a failed read leaves the record alone
      continue;
    }
    EXPECT_EQ(info.name, c.expected.name);
    EXPECT_EQ(info.displayName, c.expected.displayName);
    EXPECT_EQ(info.version, c.expected.version);
    EXPECT_EQ(info.service, c.expected.service);
    EXPECT_EQ(info.startCommand, c.expected.startCommand);
    EXPECT_EQ(info.stopCommand, c.expected.stopCommand);
  }
  PackageInfo info;
  EXPECT_FALSE(pm.getPackageInfo("full", info, "x*", ~0ULL));  // filtered out
}

}  // namespace
