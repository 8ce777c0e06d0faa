// SPDX-License-Identifier: Apache-2.0
#include "result_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <fstream>

namespace conformance {

void WriteResult(const char* kind, const std::string& text) {
  std::ofstream file(kResultFile, std::ios::binary | std::ios::trunc);
  file << kind << '\n' << text;
}

void ReadResult(const std::string& folder, std::string& kind, std::string& text) {
  constexpr std::size_t kMostBytes = 1 << 20;
  kind.clear();
  text.clear();
  // The platform may have put anything there: a link, or a pipe that nobody writes to.
  const int file = open((folder + "/" + kResultFile).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) return;
  struct stat status{};
  std::string content;
  if (fstat(file, &status) == 0 && S_ISREG(status.st_mode)) {
    std::array<char, 4096> bytes{};
    for (ssize_t size = 1; size > 0 && content.size() < kMostBytes;) {
      size = read(file, bytes.data(), bytes.size());
      if (size > 0) content.append(bytes.data(), static_cast<std::size_t>(size));
    }
  }
  (void)close(file);
  const std::size_t end = content.find('\n');
  if (end == std::string::npos) return;
  kind = content.substr(0, end);
  text = content.substr(end + 1);
}

}  // namespace conformance
