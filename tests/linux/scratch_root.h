#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace quorveld::linux_platform {

/// An empty directory that is the instance's root while this lives.
class ScratchRoot {
 public:
  ScratchRoot() : path_(testing::TempDir() + "quorveld-XXXXXX") {
    if (!::mkdtemp(path_.data())) ADD_FAILURE() << "no scratch directory";
    ::setenv("QUORVELD_ROOT", path_.c_str(), 1);
  }
  ScratchRoot(const ScratchRoot&) = delete;
  ScratchRoot& operator=(const ScratchRoot&) = delete;
  ~ScratchRoot() {
    ::unsetenv("QUORVELD_ROOT");
    std::filesystem::remove_all(path_);
  }

  std::string operator/(const std::string& path) const { return path_ + "/" + path; }

  /// The file at `path` with its directories made.
  void write(const std::string& path, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(*this / path).parent_path());
    std::ofstream(*this / path) << text;
  }
  std::string read(const std::string& path) const {
    std::stringstream text;
    text << std::ifstream(*this / path).rdbuf();
    return text.str();
  }
  bool exists(const std::string& path) const { return std::filesystem::exists(*this / path); }

 private:
  std::string path_;
};

}  // namespace quorveld::linux_platform
