#include "system_files.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <system_error>

namespace scope {

std::optional<std::string> ReadText(const std::string& path) {
  struct Close {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
  };
  const std::unique_ptr<std::FILE, Close> file(std::fopen(path.c_str(), "re"));
  if (file == nullptr) return std::nullopt;
  std::string text;
  std::array<char, 4096> bytes{};
  for (std::size_t size = 1; size != 0;) {
    size = std::fread(bytes.data(), 1, bytes.size(), file.get());
    text.append(bytes.data(), size);
  }
  // A folder opens, and so do files of sys that then refuse to be read.
  if (std::ferror(file.get()) != 0) return std::nullopt;
  text.erase(text.find_last_not_of(" \t\r\n") + 1);
  return text;
}

std::optional<double> ReadNumber(const std::string& path) {
  const std::optional<std::string> text = ReadText(path);
  if (!text || text->empty()) return std::nullopt;
  char* end = nullptr;
  const double value = std::strtod(text->c_str(), &end);
  if (*end != '\0') return std::nullopt;
  return value;
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
