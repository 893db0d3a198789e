// Strict JSON reading (liborvacore.so.7): no comments, one object or array and
// nothing after it, no duplicate keys.
#pragma once

#include <json/json.h>

#include <string>
#include <string_view>

namespace ORVA {

// False with the reason in `errs`.
bool JsonParse(std::string_view text, Json::Value* out, std::string* errs);
// The same for the whole file `path`. On failure errno is EINVAL for a malformed
// text, else why the file cannot be read (`errs` says so too).
bool JsonReadFile(const std::string& path, Json::Value* out, std::string* errs);

}  // namespace ORVA
