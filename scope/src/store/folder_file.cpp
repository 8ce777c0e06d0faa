// SPDX-License-Identifier: Apache-2.0
#include "folder_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "errors.h"
#include "text_hash.h"

namespace scope {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) (void)close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Number() const { return number_; }

 private:
  int number_;
};

[[noreturn]] void Fail(const std::string& path, const std::string& reason) {
  throw DamagedFolder(path + ": " + reason);
}

// Calls `take` with the bytes and their number, part by part. False if there is no such file.
template <typename Take>
bool ReadParts(const std::string& path, std::uint64_t mostBytes, Take take) {
  // Non-blocking: opening a pipe would wait for its writer.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (file.Number() < 0 && errno == ENOENT) return false;
  struct stat status{};
  if (file.Number() < 0 || fstat(file.Number(), &status) != 0) Fail(path, std::strerror(errno));
  if (S_ISDIR(status.st_mode)) Fail(path, std::strerror(EISDIR));
  if (!S_ISREG(status.st_mode)) Fail(path, "not a regular file");
  std::vector<char> bytes(1 << 16);
  std::uint64_t all = 0;
  for (;;) {
    const ssize_t size = read(file.Number(), bytes.data(), bytes.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) Fail(path, std::strerror(errno));
    if (size == 0) return true;
    take(bytes.data(), static_cast<std::size_t>(size));
    all += static_cast<std::uint64_t>(size);
    if (all > mostBytes) {
      Fail(path,
           "larger than " + std::to_string(mostBytes >> 20) + " MiB, expected a file of a run or a sweep");
    }
  }
}

}  // namespace

std::optional<std::string> ReadFolderFile(const std::string& path, std::uint64_t mostBytes) {
  std::string text;
  const bool found =
      ReadParts(path, mostBytes, [&text](const char* bytes, std::size_t size) { text.append(bytes, size); });
  if (!found) return std::nullopt;
  return text;
}

std::string LastLine(const std::string& path, std::size_t mostBytes) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status{};
  if (file.Number() < 0 || fstat(file.Number(), &status) != 0 || !S_ISREG(status.st_mode)) return "";
  std::string text(mostBytes, '\0');
  const auto most = static_cast<off_t>(mostBytes);
  const ssize_t size =
      pread(file.Number(), text.data(), text.size(), status.st_size > most ? status.st_size - most : 0);
  text.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
  text.resize(text.find_last_not_of("\r\n \t") + 1);
  const std::size_t feed = text.rfind('\n');
  return feed == std::string::npos ? text : text.substr(feed + 1);
}

std::optional<std::string> HashFolderFile(const std::string& path, std::uint64_t mostBytes) {
  TextHash hash;
  const bool found =
      ReadParts(path, mostBytes, [&hash](const char* bytes, std::size_t size) { hash.Add(bytes, size); });
  if (!found) return std::nullopt;
  return hash.Text();
}

}  // namespace scope
