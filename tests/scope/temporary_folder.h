// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

/// A new folder. The destructor removes it with its content.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    path_ = (std::filesystem::temp_directory_path() / "scope_XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("cannot make " + path_);
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& Path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  /// Writes a file with this content and makes its parent folders. Returns its path.
  std::string Put(const std::string& name, const std::string& content) const {
    const std::filesystem::path file = std::filesystem::path(path_) / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file.string();
  }

  std::string Get(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(std::filesystem::path(path_) / name, std::ios::binary).rdbuf();
    return text.str();
  }

 private:
  std::string path_;
};
