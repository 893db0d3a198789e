// System configuration (liborvacore.so.7): etc/orva/orva.conf, lines key="value".
#pragma once

#include <string>

class OrvaConf {
 public:
  OrvaConf();
  // The value of `key`, or `defaultValue` when the key is absent or the file unreadable.
  std::string Def(const char* key, const char* defaultValue) const;

 private:
  std::string path_;
};
