// Strict JSON reading.
#include "core/json_read.h"

#include <errno.h>
#include <string.h>

#include <fstream>
#include <iterator>
#include <memory>

namespace ORVA {

bool JsonParse(std::string_view text, Json::Value* out, std::string* errs) {
  // One per thread: a builder's settings cost more than a small text to parse.
  thread_local const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder b;
    Json::CharReaderBuilder::strictMode(&b.settings_);
    return std::unique_ptr<Json::CharReader>(b.newCharReader());
  }();
  try {
    return reader->parse(text.data(), text.data() + text.size(), out, errs);
  } catch (const std::exception& e) {  // nested too deeply
    *errs = e.what();
    return false;
  }
}

bool JsonReadFile(const std::string& path, Json::Value* out, std::string* errs) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *errs = std::string("cannot read: ") + strerror(errno);
    return false;
  }
  if (JsonParse(std::string(std::istreambuf_iterator<char>(in), {}), out, errs)) return true;
  errno = EINVAL;
  return false;
}

}  // namespace ORVA
