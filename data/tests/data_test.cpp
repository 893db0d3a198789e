// The installed data: every text key the module and the page write exists in both
// languages, service commands drive their units, the configuration parses.
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>

#include "orvatest.h"

namespace {

const std::string kData = std::string(ORVA_SOURCE_DIR) + "/data";

Json::Value Load(const std::string& path) { return orvatest::ParseJson(orvatest::Slurp(path), true); }

TEST(DataTest, EveryTextKeyInEveryLanguage) {
  // The page's service display names, and every "#section:key#" token of the module's sources.
  std::set<std::string> want = {"network:mac_share_subject", "network:printerBeacon_subject", "tree:leaf_loginguard",
                                "tree:leaf_filexfer_tls", "tree:leaf_filexfer_ssh", "tree:leaf_filexfer",
                                "time:clock_service", "unixshare:unixshare_title"};
  const std::regex token("#([A-Za-z_]+):([A-Za-z_]+)#");
  for (const auto& e : std::filesystem::directory_iterator(std::string(ORVA_SOURCE_DIR) + "/webapi")) {
    if (e.path().extension() != ".cpp" && e.path().extension() != ".h") continue;
    const std::string text = orvatest::Slurp(e.path());
    for (auto it = std::sregex_iterator(text.begin(), text.end(), token); it != std::sregex_iterator(); ++it) {
      if ((*it)[1] != "section") want.insert((*it)[1].str() + ":" + (*it)[2].str());  // comments name the form
    }
  }
  ASSERT_GT(want.size(), 15u);
  const Json::Value en = Load(kData + "/texts/en/strings.json"), de = Load(kData + "/texts/de/strings.json");
  for (const std::string& k : want) {
    EXPECT_TRUE(en[k.substr(0, k.find(':'))][k.substr(k.find(':') + 1)].isString()) << "en lacks " << k;
  }
  // The two languages hold the same keys, each a non-empty text.
  EXPECT_EQ(en.getMemberNames(), de.getMemberNames());
  for (const std::string& s : en.getMemberNames()) {
    EXPECT_EQ(en[s].getMemberNames(), de[s].getMemberNames()) << s;
    for (const std::string& k : en[s].getMemberNames()) {
      EXPECT_FALSE(en[s][k].asString().empty() || de[s][k].asString().empty()) << s << ":" << k;
    }
  }
}

// Which services there are is the module's choice (its service tests check each has both
// commands); each command drives its own unit and says clearly when that is missing.
TEST(DataTest, ServiceCommandsDriveTheirUnit) {
  const Json::Value s = Load(kData + "/etc/services.json");
  ASSERT_TRUE(s.isObject());
  for (const std::string& id : s.getMemberNames()) {
    for (const char* verb : {"start", "stop"}) {
      const std::string cmd = s[id][verb].asString();
      EXPECT_NE(cmd.find(std::string("systemctl ") + verb + " " + s[id]["unit"].asString()), std::string::npos) << cmd;
      EXPECT_NE(cmd.find("is not installed"), std::string::npos) << "a clear message without the unit: " << cmd;
    }
  }
}

TEST(DataTest, DefaultConfigurationParses) {
  std::ifstream in(kData + "/etc/orva.conf");
  std::set<std::string> keys;
  for (std::string l; std::getline(in, l);) {
    if (l.empty() || l[0] == '#') continue;
    EXPECT_TRUE(std::regex_match(l, std::regex(R"re(^[A-Za-z_][A-Za-z0-9_]*="[^"]*"$)re"))) << l;
    keys.insert(l.substr(0, l.find('=')));
  }
  EXPECT_EQ(keys.count("admin_group") + keys.count("supportUnixShare"), 2u);
  EXPECT_TRUE(Load(kData + "/etc/shares.json").isArray());
}

}  // namespace
