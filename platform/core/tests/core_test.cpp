// Core services on temporary roots: root mapping, configuration, shares, users.
#include <grp.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "core/conf.h"
#include "core/file.h"
#include "core/json_read.h"
#include "core/kelc.h"
#include "core/root.h"
#include "core/share.h"
#include "core/user.h"
#include "orvatest.h"

namespace {

using orvatest::TempRoot;

TEST(Root, MapsUnderTheRoot) {
  const struct {
    const char *root, *path, *mapped;
  } cases[] = {
      {"/", "/usr/orva/bin/x", "/usr/orva/bin/x"},
      {"", "/etc/orva/orva.conf", "/etc/orva/orva.conf"},
      {"/srv/r", "/etc/orva/orva.conf", "/srv/r/etc/orva/orva.conf"},
      {"/srv/r///", "/etc", "/srv/r/etc"},
      {"///", "/etc", "/etc"},
  };
  for (const auto& c : cases) {
    ORVA::ORVARootSet(c.root);
    EXPECT_EQ(ORVA::ORVAPathMap(c.path), c.mapped) << c.root;
  }
  ORVA::ORVARootSet("/srv/r/");
  EXPECT_EQ(ORVA::ORVARootGet(), "/srv/r");
}

TEST(Conf, Table) {
  TempRoot root;
  EXPECT_EQ(OrvaConf().Def("supportUnixShare", "no"), "no");  // no file: defaults
  EXPECT_EQ(OrvaConf().Def("x", nullptr), "");
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
    const char* content;  // nullptr: no file; "LOOP": a link that cannot be opened, even by root
    int rc;               // negative: failure with `error`
    int error;
    std::vector<std::string> names;
    int flags = 0x7F0F;
  } cases[] = {
      {nullptr, 0, 0, {}},
      {"[]", 0, 0, {}},
      {R"([{"name":"zeta","path":"/v/z","recycle_bin":false},{"name":"alpha","path":"/v/a"},
           {"name":"home","path":"","recycle_bin":true},{"name":"Mid dle","path":"/v/m","x":1}])",
       3, 0, {"zeta", "alpha", "Mid dle"}},  // file order, "home" not a shared folder
      {"[{\"name\":\"a\"},", -1, KELC_ERR_PARSE, {}},           // truncated
      {"{\"name\":\"a\"}", -1, KELC_ERR_PARSE, {}},             // not an array
      {"[{\"name\":\"a\"},{\"path\":\"/x\"}]", -1, KELC_ERR_PARSE, {}},  // a share without name adds nothing
      {"[{\"name\":\"a\"},{\"name\":7}]", -1, KELC_ERR_PARSE, {}},
      // Strict JSON: no comment, nothing after the value, no key twice.
      {"[] // c", -1, KELC_ERR_PARSE, {}},
      {"[] []", -1, KELC_ERR_PARSE, {}},
      {"[{\"name\":\"a\",\"name\":\"b\"}]", -1, KELC_ERR_PARSE, {}},
      {"LOOP", -1, KELC_ERR_IO, {}},
      {R"([{"name":"a"},{"name":"b"}])", 2, 0, {"a", "b"}, 1},
      {R"([{"name":"a"},{"name":"b"}])", 0, 0, {}, 0},  // flag 0 selects nothing
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content ? c.content : "(none)");
    TempRoot root;
    if (c.content && std::string(c.content) == "LOOP") {
      root.Write("/etc/orva/x", "");
      ASSERT_EQ(symlink("shares.json", root.Real("/etc/orva/shares.json").c_str()), 0);
    } else if (c.content) {
      root.Write("/etc/orva/shares.json", c.content);
    }
    PKELC_SZLIST list = KELCSzListAlloc(1);
    ASSERT_EQ(KELCSzListAdd(&list, "before"), 0);
    int rc = ORVAShareEnum(&list, c.flags);
    EXPECT_STREQ(KELCSzListGet(list, 0), "before");
    std::vector<std::string> names;
    for (int i = 1; i < KELCSzListCount(list); ++i) {
      names.push_back(KELCSzListGet(list, i));
    }
    KELCSzListFree(list);
    if (c.rc < 0) {
      EXPECT_LT(rc, 0);
      EXPECT_EQ(KELCErrGet(), c.error);
    } else {
      EXPECT_EQ(rc, c.rc);
    }
    EXPECT_EQ(names, c.names);
  }
  EXPECT_LT(ORVAShareEnum(nullptr, 1), 0);
}

TEST(User, LookupByUidAndName) {
  PORVAUSER user = nullptr;
  ASSERT_EQ(ORVAUserGetByUID(0, &user), 0);
  ASSERT_NE(user, nullptr);
  EXPECT_STREQ(user->szName, "root");
  EXPECT_EQ(user->uid, 0u);
  PORVAUSER same = user;
  ASSERT_EQ(ORVAUserGetByName("root", &user), 0);
  EXPECT_EQ(user, same);  // the record is reused
  EXPECT_STREQ(*reinterpret_cast<char**>(user), "root");  // the name is the first field
  ORVAUserFree(user);

  PORVAUSER none = nullptr;
  EXPECT_LT(ORVAUserGetByUID(static_cast<uid_t>(4000000123u), &none), 0);
  EXPECT_EQ(KELCErrGet(), KELC_ERR_NO_USER);
  EXPECT_EQ(none, nullptr);
  EXPECT_LT(ORVAUserGetByName("orvat-no-such-user", &none), 0);
  EXPECT_LT(ORVAUserGetByUID(0, nullptr), 0);
  ORVAUserFree(nullptr);
}

// Real users and groups, created for the test and removed after it.
// Edges of the shared helpers that the programs' own tests do not reach.
TEST(Helpers, FoldersAtomicWritesDeepJson) {
  TempRoot root;
  root.Write("file", "x");
  ASSERT_EQ(chdir(root.path().c_str()), 0);
  for (const auto& [dir, ok] :
       std::vector<std::pair<std::string, bool>>{{"r/s", true}, {"r/s", true}, {"file", false}, {"file/d", false}}) {
    EXPECT_EQ(ORVA::MakeDirs(dir, 0750), ok) << dir;
  }
  EXPECT_FALSE(ORVA::WriteFileAtomic("r/none/f", "x", 0600));
  EXPECT_TRUE(ORVA::WriteFileAtomic("r/f", "x", 0600));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator("r"), {}), 2);  // s and f: no temporary left
  Json::Value v;
  std::string errs;
  EXPECT_FALSE(ORVA::JsonParse(std::string(5000, '['), &v, &errs));  // refused, not thrown
  ASSERT_EQ(chdir("/"), 0);
}

// `user` is in the extra group group_, `plain` only in its own group other_.
class AdminUser : public ::testing::Test {
 protected:
  struct Accounts {
    orvatest::TestUser user{"", true}, plain;
  };
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "needs root to add users";
    }
    const Accounts& a = accounts_.emplace();
    ASSERT_TRUE(a.user.Ok() && a.plain.Ok());
    user_ = a.user.Name(), plain_ = a.plain.Name();
    group_ = getgrgid(a.user.ExtraGid())->gr_name, other_ = getgrgid(a.plain.Gid())->gr_name;
  }
  static int Run(const std::string& cmd) { return system(("(" + cmd + ") >/dev/null 2>&1").c_str()); }

  TempRoot root_;
  std::optional<Accounts> accounts_;
  std::string group_, other_, user_, plain_;
};

TEST_F(AdminUser, MembershipOfTheConfiguredGroup) {
  root_.Write("/etc/orva/orva.conf", "admin_group=\"" + group_ + "\"\n");
  EXPECT_EQ(ORVAUserIsAdmin(user_.c_str()), 1);  // supplementary member
  EXPECT_EQ(ORVAUserIsAdmin(plain_.c_str()), 0);
  EXPECT_EQ(ORVAUserIsAdmin("root"), 1);
  EXPECT_LT(ORVAUserIsAdmin("orvat-no-such-user"), 0);

  root_.Write("/etc/orva/orva.conf", "admin_group=\"" + other_ + "\"\n");
  EXPECT_EQ(ORVAUserIsAdmin(plain_.c_str()), 1);  // primary group counts too

  // A configured group that does not exist makes only root an administrator.
  root_.Write("/etc/orva/orva.conf", "admin_group=\"orvat-no-such-group\"\n");
  EXPECT_EQ(ORVAUserIsAdmin(user_.c_str()), 0);
  EXPECT_EQ(ORVAUserIsAdmin("root"), 1);
}

TEST_F(AdminUser, DefaultGroupIsAdministrators) {
  // No orva.conf: the default group applies. Create it when this machine lacks it and
  // remove it again only when it was ours and nobody else joined it.
  bool created = Run("getent group administrators") != 0 && Run("groupadd administrators") == 0;
  EXPECT_EQ(ORVAUserIsAdmin(user_.c_str()), 0);
  ASSERT_EQ(Run("usermod -a -G administrators " + user_), 0);
  EXPECT_EQ(ORVAUserIsAdmin(user_.c_str()), 1);
  EXPECT_EQ(ORVAUserIsAdmin(plain_.c_str()), 0);
  Run("gpasswd -d " + user_ + " administrators");
  if (created) {
    Run("getent group administrators | grep -q ':$' && groupdel administrators");
  }
}

}  // namespace
