// SPDX-License-Identifier: Apache-2.0
#include "result_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>

namespace conformance {

void WriteResult(const char* kind, const std::string& text) {
  // The platform may have put anything there: a link must not lead the text elsewhere.
  (void)unlink(kResultFile);
  const int file = open(kResultFile, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (file < 0) return;  // the kit says that there is no result
  const std::string content = std::string(kind) + '\n' + text;
  for (std::size_t at = 0; at < content.size();) {
    const ssize_t size = write(file, content.data() + at, content.size() - at);
    if (size < 0 && errno != EINTR) break;
    if (size > 0) at += static_cast<std::size_t>(size);
  }
  (void)close(file);
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
