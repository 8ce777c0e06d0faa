// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

/// A file with the given content. The destructor removes it.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& content) {
    const char* folder = std::getenv("TMPDIR");
    path_ = std::string(folder == nullptr ? "/tmp" : folder) + "/stbm_XXXXXX";
    const int file = mkstemp(path_.data());
    if (file < 0) throw std::runtime_error("cannot make " + path_);
    const auto written = write(file, content.data(), content.size());
    close(file);
    if (written != static_cast<ssize_t>(content.size())) throw std::runtime_error("cannot write " + path_);
  }
  ~TemporaryFile() { unlink(path_.c_str()); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};
