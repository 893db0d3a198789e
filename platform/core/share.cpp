// Shared folders: etc/orva/shares.json, an array of {"name", "path", "recycle_bin"}.
// The entry named "home" stands for the users' home folders; it is not a shared
// folder, so it is never listed here (callers that want it name it explicitly).
#include "core/share.h"

#include <errno.h>
#include <string.h>
#include <syslog.h>

#include <json/json.h>

#include "core/json_read.h"
#include "core/log.h"
#include "core/root.h"

extern "C" int ORVAShareEnum(PKELC_SZLIST* ppList, unsigned int flags) {
  if (!ppList || !*ppList) {
    KELC_ERR_SET(KELC_ERR_INVALID_ARGUMENT);
    return -1;
  }
  if (flags == 0) {
    return 0;  // no kind of share selected
  }
  const std::string path = ORVA::ORVAPathMap("/etc/orva/shares.json");
  Json::Value root;
  std::string errs;
  const bool read = ORVA::JsonReadFile(path, &root, &errs);
  if (!read && errno == ENOENT) {
    return 0;  // a system without shares
  }
  if (!read && errno != EINVAL) {
    ORVA_LOG(LOG_ERR, "cannot read %s: %s", path.c_str(), strerror(errno));
    KELC_ERR_SET(KELC_ERR_IO);
    return -1;
  }
  if (!read || !root.isArray()) {
    ORVA_LOG(LOG_ERR, "malformed %s: %s", path.c_str(), errs.empty() ? "not an array" : errs.c_str());
    KELC_ERR_SET(KELC_ERR_PARSE);
    return -1;
  }
  // Validate everything before appending anything, so a bad file adds no names.
  for (const Json::Value& entry : root) {
    if (!entry.isObject() || !entry["name"].isString() || entry["name"].asString().empty()) {
      ORVA_LOG(LOG_ERR, "malformed %s: share without a name", path.c_str());
      KELC_ERR_SET(KELC_ERR_PARSE);
      return -1;
    }
  }
  int count = 0;
  for (const Json::Value& entry : root) {
    const std::string name = entry["name"].asString();
    if (name == "home") {
      continue;
    }
    if (KELCSzListAdd(ppList, name.c_str()) < 0) {
      return -1;
    }
    ++count;
  }
  return count;
}
