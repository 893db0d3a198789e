// Static files of the webman folder, and every way of trying to leave it.
#include <iostream>

#include "server_fixture.h"

namespace {

class ServerStatic : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.Start(1)); }
  void TearDown() override {
    if (HasFailure()) std::cerr << "server log:\n" << server.Log();
  }
  orvatest::TempRoot root;
  orvatest::Server server{root};
};

TEST_F(ServerStatic, ServesFilesOfTheWebmanFolder) {
  struct Case {
    const char* target;
    int status;
    const char* body;
    const char* type;
  };
  const Case cases[] = {
      {"/", 200, "<!doctype html><title>ORVA</title>\n", "text/html; charset=utf-8"},
      {"/?token=abc", 200, "<!doctype html><title>ORVA</title>\n", "text/html; charset=utf-8"},
      {"/index.html", 200, "<!doctype html><title>ORVA</title>\n", "text/html; charset=utf-8"},
      {"/js/app.js", 200, "console.log('orva');\n", "text/javascript; charset=utf-8"},
      {"/js/", 404, nullptr, nullptr},  // a folder without index.html
      {"/js/../index.html", 400, nullptr, nullptr},
      {"/%6As/app.js", 200, "console.log('orva');\n", "text/javascript; charset=utf-8"},
      {"/./js//app.js", 200, "console.log('orva');\n", "text/javascript; charset=utf-8"},
      {"/missing.html", 404, nullptr, nullptr},
      {"/texts/en/strings.json", 200, "{}\n", "application/json; charset=utf-8"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.target);
    auto r = server.Http("GET", c.target);
    EXPECT_EQ(c.status, r.status);
    if (c.body != nullptr) {
      EXPECT_EQ(c.body, r.body);
    }
    if (c.type != nullptr) {
      EXPECT_EQ(c.type, r.Header("content-type"));
    }
  }
  auto head = server.Http("HEAD", "/index.html");
  EXPECT_EQ(200, head.status);
  EXPECT_EQ("", head.body);
  EXPECT_EQ(405, server.Http("POST", "/index.html", "x").status);
}

TEST_F(ServerStatic, NoPathLeavesTheWebmanFolder) {
  const char* targets[] = {
      "/../secret.txt",
      "/../../../secret.txt",
      "/../../../../../../etc/passwd",
      "/%2e%2e/secret.txt",
      "/%2E%2E/%2e%2E/%2e%2e/secret.txt",
      "/..%2fsecret.txt",
      "/%2e%2e%2fsecret.txt",
      "/js/%2e%2e/%2e%2e/secret.txt",
      "/.%2e/secret.txt",
      "/..\\secret.txt",
      "/%5c..%5csecret.txt",
      "/etc/passwd",
      "//etc/passwd",
      "/%2fetc%2fpasswd",
      "http://localhost/../../../etc/passwd",
      "../../etc/passwd",
      "/etc-link/passwd",
      "/etc-link/",
      "/secret-link.txt",
      "/%00/../secret.txt",
      "/index.html%00.js",
      "/%zz",
  };
  for (const char* target : targets) {
    SCOPED_TRACE(target);
    auto r = server.Http("GET", target);
    EXPECT_NE(200, r.status);
    EXPECT_EQ(std::string::npos, r.body.find("TOPSECRET"));
    EXPECT_EQ(std::string::npos, r.body.find("root:"));
  }
}

}  // namespace
