// The installed data: every text key the module writes into tasks exists in every
// language, service commands drive their units, the configuration parses.
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "orvatest.h"

namespace fs = std::filesystem;

namespace {

const std::string kData = std::string(ORVA_SOURCE_DIR) + "/data";

Json::Value Load(const std::string& path) { return orvatest::ParseJson(orvatest::Slurp(path), true); }

// Keys used by task action texts, app names and service display names.
const std::set<std::string> kRequired = {
    "common:command_line", "common:run", "common:start_service", "common:stop_service",
    "common:time_seconds", "volume:beep_on", "beep:beep_title", "share:recycle_bin",
    "share:share_clean_all_recycle_bin", "share:share_disable_recycle_bin",
    "share:share_enable_recycle_bin", "schedule:clean_recycle_bin", "service:service_subject",
    "network:win_share_service", "network:mac_share_subject", "network:printerBeacon_subject",
    "tree:leaf_loginguard", "tree:leaf_filexfer_tls", "tree:leaf_filexfer_ssh", "tree:leaf_filexfer",
    "tree:leaf_webhost", "tree:leaf_webfolder", "tree:leaf_filedesk", "time:clock_service",
    "unixshare:unixshare_title",
};

// Every #section:key# token in the module's sources (tests excluded).
std::set<std::string> ModuleKeys() {
  std::set<std::string> keys;
  const fs::path dir = fs::path(ORVA_SOURCE_DIR) / "webapi";
  if (!fs::is_directory(dir)) return keys;
  const std::regex token("#([A-Za-z_]+):([A-Za-z_]+)#");
  for (const auto& e : fs::directory_iterator(dir)) {
    const std::string ext = e.path().extension();
    if (ext != ".cpp" && ext != ".h") continue;
    std::ifstream in(e.path());
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string text = ss.str();
    for (auto it = std::sregex_iterator(text.begin(), text.end(), token); it != std::sregex_iterator(); ++it) {
      // "#section:key#" is how comments name the form itself.
      if ((*it)[1].str() != "section") keys.insert((*it)[1].str() + ":" + (*it)[2].str());
    }
  }
  return keys;
}

TEST(DataTest, EveryTextKeyInEveryLanguage) {
  const Json::Value en = Load(kData + "/texts/en/strings.json");
  const Json::Value de = Load(kData + "/texts/de/strings.json");
  std::set<std::string> want = kRequired;
  for (const std::string& k : ModuleKeys()) want.insert(k);
  for (const auto& [lang, texts] : {std::pair{"en", en}, std::pair{"de", de}}) {
    for (const std::string& k : want) {
      const std::string section = k.substr(0, k.find(':'));
      const std::string key = k.substr(k.find(':') + 1);
      const Json::Value& v = texts[section][key];
      EXPECT_TRUE(v.isString() && !v.asString().empty()) << lang << " lacks " << k;
    }
  }
  // The two languages cover the same keys, each a non-empty text.
  for (const std::string& s : en.getMemberNames()) {
    ASSERT_TRUE(de[s].isObject()) << "de lacks section " << s;
    EXPECT_EQ(en[s].getMemberNames(), de[s].getMemberNames()) << s;
    for (const std::string& k : en[s].getMemberNames()) {
      EXPECT_FALSE(en[s][k].asString().empty()) << s << ":" << k;
      EXPECT_FALSE(de[s][k].asString().empty()) << s << ":" << k;
    }
  }
  EXPECT_EQ(en.getMemberNames(), de.getMemberNames());
}

// Which services there are is the module's choice (its service tests check each has both
// commands); each command drives its own unit and says clearly when that is missing.
TEST(DataTest, ServiceCommandsDriveTheirUnit) {
  const Json::Value s = Load(kData + "/etc/services.json");
  ASSERT_TRUE(s.isObject());
  for (const std::string& id : s.getMemberNames()) {
    for (const char* verb : {"start", "stop"}) {
      ASSERT_TRUE(s[id][verb].isString()) << id << " " << verb;
      const std::string cmd = s[id][verb].asString();
      const std::string unit = s[id]["unit"].asString();
      EXPECT_NE(cmd.find(std::string("systemctl ") + verb + " " + unit), std::string::npos) << cmd;
      EXPECT_NE(cmd.find("is not installed"), std::string::npos) << "a clear message without the unit: " << cmd;
    }
  }
}

TEST(DataTest, DefaultConfigurationParses) {
  std::ifstream in(kData + "/etc/orva.conf");
  const std::regex line(R"re(^[A-Za-z_][A-Za-z0-9_]*="[^"]*"$)re");
  std::set<std::string> keys;
  for (std::string l; std::getline(in, l);) {
    if (l.empty() || l[0] == '#') continue;
    EXPECT_TRUE(std::regex_match(l, line)) << l;
    keys.insert(l.substr(0, l.find('=')));
  }
  EXPECT_TRUE(keys.count("admin_group"));
  EXPECT_TRUE(keys.count("supportUnixShare"));
  const Json::Value shares = Load(kData + "/etc/shares.json");
  EXPECT_TRUE(shares.isArray());
}

}  // namespace
