// System configuration: etc/orva/orva.conf, lines key="value", # starts a comment line.
#include "core/conf.h"

#include <errno.h>
#include <string.h>
#include <syslog.h>

#include <fstream>

#include "core/kelc.h"
#include "core/log.h"
#include "core/root.h"

namespace {

std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) {
    return "";
  }
  size_t e = s.find_last_not_of(" \t\r");
  return s.substr(b, e - b + 1);
}

// Parses one line. Quoted values may contain \" and \\; unquoted values are taken
// as written (trimmed). Returns false for blank, comment and malformed lines.
bool ParseLine(const std::string& raw, std::string& key, std::string& value) {
  std::string line = Trim(raw);
  if (line.empty() || line[0] == '#') {
    return false;
  }
  size_t eq = line.find('=');
  if (eq == std::string::npos || eq == 0) {
    return false;
  }
  key = Trim(line.substr(0, eq));
  std::string rest = Trim(line.substr(eq + 1));
  value.clear();
  if (rest.empty() || rest[0] != '"') {
    value = rest;
    return true;
  }
  for (size_t i = 1; i < rest.size(); ++i) {
    char c = rest[i];
    if (c == '\\' && i + 1 < rest.size() && (rest[i + 1] == '"' || rest[i + 1] == '\\')) {
      value += rest[++i];
    } else if (c == '"') {
      return true;
    } else {
      value += c;
    }
  }
  return false;  // unterminated quote: ignore the line rather than guess
}

}  // namespace

OrvaConf::OrvaConf() : path_(ORVA::ORVAPathMap("/etc/orva/orva.conf")) {}

std::string OrvaConf::Def(const char* key, const char* defaultValue) const {
  const std::string fallback = defaultValue ? defaultValue : "";
  if (!key || !*key) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return fallback;
  }
  std::ifstream in(path_);
  if (!in) {
    if (errno != ENOENT) {
      ORVA_LOG(LOG_ERR, "cannot read %s: %s", path_.c_str(), strerror(errno));
      KELC_ERR_SET(KELC_ERR_IO);
    } else {
      KELC_ERR_SET(KELC_ERR_NOT_FOUND);
    }
    return fallback;
  }
  // The last assignment of a key wins, as when the file is sourced by a shell.
  bool found = false;
  std::string result;
  std::string line, k, v;
  while (std::getline(in, line)) {
    if (ParseLine(line, k, v) && k == key) {
      result = v;
      found = true;
    }
  }
  if (!found) {
    KELC_ERR_SET(KELC_ERR_NOT_FOUND);
    return fallback;
  }
  return result;
}
