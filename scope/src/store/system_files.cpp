// SPDX-License-Identifier: Apache-2.0
#include "system_files.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <system_error>

#include "text_format.h"

namespace scope {

std::optional<std::string> ReadFile(const std::string& path) {
  struct Close {  // keeps errno, which the caller may print
    void operator()(std::FILE* file) const {
      const int error = errno;
      (void)std::fclose(file);
      errno = error;
    }
  };
  const std::unique_ptr<std::FILE, Close> file(std::fopen(path.c_str(), "re"));
  if (file == nullptr) return std::nullopt;
  std::string text;
  std::array<char, 4096> bytes{};
  errno = 0;
  for (std::size_t size = 1; size != 0;) {
    size = std::fread(bytes.data(), 1, bytes.size(), file.get());
    text.append(bytes.data(), size);
  }
  // Folders, and some files of sys, can be opened but not read.
  if (std::ferror(file.get()) != 0) return std::nullopt;
  return text;
}

std::optional<std::string> ReadText(const std::string& path) {
  std::optional<std::string> text = ReadFile(path);
  if (text) text->erase(text->find_last_not_of(" \t\r\n") + 1);
  return text;
}

std::optional<double> ReadNumber(const std::string& path) {
  const std::optional<std::string> text = ReadText(path);
  return text ? ParseNumber(*text) : std::nullopt;
}

std::vector<int> ParseList(const std::string& text) {
  constexpr long kMost = 1 << 16;
  std::vector<int> numbers;
  for (const char* at = text.c_str(); *at != '\0';) {
    char* end = nullptr;
    const long first = std::strtol(at, &end, 10);
    if (end == at) return {};
    long last = first;
    if (*end == '-') {
      at = end + 1;
      last = std::strtol(at, &end, 10);
      if (end == at) return {};
    }
    if (first < 0 || last < first || last >= kMost || (*end != ',' && *end != '\0')) return {};
    for (long number = first; number <= last; ++number) numbers.push_back(static_cast<int>(number));
    at = *end == ',' ? end + 1 : end;
  }
  return numbers;
}

std::vector<std::string> ListFolder(const std::string& path) {
  const auto before = [](const std::string& left, const std::string& right) {
    return strverscmp(left.c_str(), right.c_str()) < 0;
  };
  std::set<std::string, decltype(before)> names(before);
  std::error_code error;
  for (std::filesystem::directory_iterator at(path, error), end; !error && at != end; at.increment(error)) {
    names.insert(at->path().filename().string());
  }
  return {names.begin(), names.end()};
}

}  // namespace scope
