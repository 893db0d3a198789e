// A throw-away system root for tests: a mkdtemp folder set as the process's root.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "core/root.h"

class TempRoot {
 public:
  TempRoot() {
    char tmpl[] = "/tmp/orvat-root-XXXXXX";
    if (mkdtemp(tmpl)) {
      path_ = tmpl;
    }
    ORVA::ORVARootSet(path_);
  }
  ~TempRoot() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& path() const { return path_; }
  // The real path of an appliance path ("/etc/orva/x") under this root.
  std::string Real(const std::string& appliancePath) const { return path_ + appliancePath; }
  // Writes `content` to an appliance path, creating its folders.
  void Write(const std::string& appliancePath, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(Real(appliancePath)).parent_path());
    std::ofstream(Real(appliancePath), std::ios::binary | std::ios::trunc) << content;
  }
  std::string Read(const std::string& appliancePath) const {
    std::ifstream in(Real(appliancePath), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

 private:
  std::string path_;
};
