// Core services on temporary roots: configuration, shares, the administrator rule, deep JSON.
#include <grp.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/conf.h"
#include "core/json_read.h"
#include "core/kelc.h"
#include "core/share.h"
#include "core/user.h"
#include "orvatest.h"

namespace {

using orvatest::TempRoot;

TEST(Conf, Table) {
  TempRoot root;
  EXPECT_EQ(OrvaConf().Def("supportUnixShare", "no"), "no");  // no file: defaults
  root.Write("/etc/orva/orva.conf",
             "# comment line\n"
             "supportUnixShare=\"yes\"\n"
             "  admin_group = \"wheel\"  \n"
             "empty=\"\"\n"
             "quoted=\"say \\\"hi\\\" # not a comment\"\n"
             "bare=plain\n"
             "twice=\"first\"\n"
             "twice=\"second\"\n"
             "broken=\"no end\n"
             "#commented=\"yes\"\n"
             "no equals sign\n");
  OrvaConf conf;
  const struct {
    const char *key, *expected;
  } cases[] = {
      {"supportUnixShare", "yes"}, {"admin_group", "wheel"},   {"empty", ""},
      {"quoted", "say \"hi\" # not a comment"},                {"bare", "plain"},
      {"twice", "second"},         {"broken", "dflt"},         {"commented", "dflt"},
      {"missing", "dflt"},         {"supportunixshare", "dflt"},  // keys are case-sensitive
  };
  for (const auto& c : cases) {
    EXPECT_EQ(conf.Def(c.key, "dflt"), c.expected) << c.key;
  }
}

// Shares are appended to a list that already holds "before"; a failure adds nothing.
TEST(Share, EnumTable) {
  const struct {
    const char* content;  // nullptr: no file
    int rc;               // -1: a failure
    std::vector<std::string> names;
  } cases[] = {
      {nullptr, 0, {}},
      {R"([{"name":"zeta","path":"/v/z","recycle_bin":false},{"name":"alpha","path":"/v/a"},
           {"name":"home","path":"","recycle_bin":true},{"name":"Mid dle","path":"/v/m","x":1}])",
       3, {"zeta", "alpha", "Mid dle"}},  // file order, "home" not a shared folder
      {"{\"name\":\"a\"}", -1, {}},
      {"[{\"name\":\"a\"},{\"path\":\"/x\"}]", -1, {}},  // a share without name adds nothing
      {"[{\"name\":\"a\",\"name\":\"b\"}]", -1, {}},  // strict: no key twice
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content ? c.content : "(none)");
    TempRoot root;
    if (c.content) {
      root.Write("/etc/orva/shares.json", c.content);
    }
    PKELC_SZLIST list = KELCSzListAlloc(1);
    ASSERT_EQ(KELCSzListAdd(&list, "before"), 0);
    int rc = ORVAShareEnum(&list, 0x7F0F);
    EXPECT_STREQ(KELCSzListGet(list, 0), "before");
    std::vector<std::string> names;
    for (int i = 1; i < KELCSzListCount(list); ++i) {
      names.push_back(KELCSzListGet(list, i));
    }
    KELCSzListFree(list);
    EXPECT_EQ(names, c.names);
    EXPECT_EQ(std::max(rc, -1), c.rc);
  }
}

// Deep JSON is refused, not thrown.
TEST(Helpers, DeepJson) {
  Json::Value v;
  std::string errs;
  EXPECT_FALSE(ORVA::JsonParse(std::string(5000, '['), &v, &errs));
}

// Real accounts: `user` is in an extra group, `plain` only in its own primary group. The
// server's login tests check a supplementary member of the configured group.
TEST(AdminUser, ConfiguredGroupDefaultGroupAndRoot) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs root to add users";
  }
  TempRoot root;
  orvatest::TestUser user("", true), plain;
  ASSERT_TRUE(user.Ok() && plain.Ok());
  auto run = [](const std::string& cmd) { return system(("(" + cmd + ") >/dev/null 2>&1").c_str()); };
  const struct {
    std::string group;  // empty: no orva.conf, the default group "administrators"
    int user, plain;
  } cases[] = {
      {getgrgid(user.ExtraGid())->gr_name, 1, 0},
      {getgrgid(plain.Gid())->gr_name, 0, 1},  // a primary group counts too
      {"orvat-no-such-group", 0, 0},          // only root
      {"", 1, 0},
  };
  // Create the default group when this machine lacks it; remove it again only when it was
  // ours and nobody else joined it.
  const bool created = run("getent group administrators") != 0 && run("groupadd administrators") == 0;
  ASSERT_EQ(run("usermod -a -G administrators " + user.Name()), 0);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.group);
    std::filesystem::remove(root.Real("/etc/orva/orva.conf"));
    if (!c.group.empty()) {
      root.Write("/etc/orva/orva.conf", "admin_group=\"" + c.group + "\"\n");
    }
    EXPECT_EQ(ORVAUserIsAdmin(user.Name().c_str()), c.user);
    EXPECT_EQ(ORVAUserIsAdmin(plain.Name().c_str()), c.plain);
    EXPECT_EQ(ORVAUserIsAdmin("root"), 1);
    EXPECT_LT(ORVAUserIsAdmin("orvat-no-such-user"), 0);
  }
  run("gpasswd -d " + user.Name() + " administrators");
  if (created) {
    run("getent group administrators | grep -q ':$' && groupdel administrators");
  }
}

}  // namespace
