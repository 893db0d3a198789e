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
  // 3rdparty/APP/config.json). Returns false when nothing could be read.
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
  // Parses DIR/strings.json into {"section": {"key": "text"}}. A missing or malformed
  // file gives an empty object. Parsed files are cached by path and modification time.
  Json::Value ParseTexts(std::string dir);
};

}  // namespace VEK
}  // namespace ORVA
