// UI text parsers (liborvasdk.so.7) over the webman folder's texts and app configs.
#pragma once

#include <json/json.h>

#include <memory>
#include <string>

namespace ORVA {
namespace VEK {

// The UI's app configuration for one language: which 3rd-party apps bring their own
// texts, as a map of app namespace to text folder relative to the webman folder.
class JSConfigParser {
 public:
  JSConfigParser(const char* lang, bool reserved);
  // Parses the app configurations; NULL means the system-wide set (every
  // 3rdparty/APP/config.json, in folder name order). A non-NULL path names one app:
  // the appliance path of its 3rdparty/APP folder or of its config.json. Returns false
  // when nothing could be read or the language code is not a plain name. Malformed
  // or namespace-less configs are skipped.
  bool Parse(const char* path);
  // {"NAMESPACE": "3rdparty/APP/texts/LANG", ...}; an empty object before Parse.
  Json::Value GetTexts() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

class LocalizedStringParser {
 public:
  LocalizedStringParser();
  // Parses DIR/strings.json (DIR an appliance path, mapped under the system root) into
  // {"section": {"key": "text"}}. A missing or malformed file, or a DIR with a ".."
  // component, gives an empty object. Parsed files are cached process-wide by path and
  // modification time (and inode, size, ctime); the cache is thread-safe.
  Json::Value ParseTexts(std::string dir);
  // The same texts without a copy: the cached value itself, shared and never changed
  // (a changed file gets a new value). Never null.
  std::shared_ptr<const Json::Value> Texts(std::string dir);
};

// How many text and config files the parsers have read and parsed in this process
// (cache misses). Lets tests and benchmarks see that unchanged files are not re-read.
unsigned long long TextFileParseCount();

}  // namespace VEK
}  // namespace ORVA
