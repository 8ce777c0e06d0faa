// SPDX-License-Identifier: Apache-2.0
#include "benchmark_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

namespace scope {
namespace {

constexpr const char* kLogFile = "log/STBM.log";
constexpr std::size_t kMostBytes = std::size_t{16} << 20;
// A worker that fails logs a handful of records.
constexpr std::size_t kMostErrors = 1000;
constexpr std::size_t kMostChannels = 1000;
// Names of application and context, and the thread's number, stand between the level and the text.
constexpr std::size_t kFields = 5;

bool IsTime(const std::string& field) {
  return field.size() > 20 && field[10] == 'T' && field.back() == 'Z';
}

bool IsLevelName(const std::string& field) {
  const auto levels = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG", "VERBOSE"};
  return std::find(levels.begin(), levels.end(), field) != levels.end();
}

}  // namespace

void BenchmarkLog::Add(const std::string& line) {
  std::array<std::string, kFields> fields;
  std::size_t at = 0;
  for (std::string& field : fields) {
    const std::size_t end = std::min(line.find(' ', at), line.size());
    field = line.substr(at, end - at);
    at = std::min(end + 1, line.size());
  }
  const auto& [time, level, application, context, thread] = fields;
  if (!IsTime(time) || !IsLevelName(level)) {
    if (!line.empty()) lastOther_ = line;
    return;
  }
  const bool isError = level == "ERROR" || level == "FATAL";
  if (isError && errors_.size() < kMostErrors) errors_.push_back({thread, line.substr(at)});
  if (level != "INFO" || context != "QET") return;
  AddSettings(std::string_view(line).substr(at));
  AddEncoder(std::string_view(line).substr(at));
}

// "QetInitialize: settings: FILE: memory=device encoder=auto"
void BenchmarkLog::AddSettings(std::string_view text) {
  const std::size_t last = text.rfind(": memory=");
  if (text.rfind("QetInitialize: settings: ", 0) != 0 || last == std::string_view::npos) return;
  settings_.clear();
  // At debug level the source's file and line follow.
  for (text.remove_prefix(last + 1); !text.empty() && text.front() == ' ';) {
    text.remove_prefix(1);
    const std::string_view word = text.substr(0, text.find(' '));
    const std::size_t sign = word.find('=');
    if (sign == std::string_view::npos) return;
    settings_.emplace_back(word.substr(0, sign), word.substr(sign + 1));
    text.remove_prefix(word.size());
  }
}

// "QetVenc::Init: channel 3, 1920x1080, engine libx264"
void BenchmarkLog::AddEncoder(std::string_view text) {
  constexpr std::string_view kHead = "QetVenc::Init: channel ";
  constexpr std::string_view kEngine = ", engine ";
  const std::size_t engine = text.find(kEngine);
  if (text.rfind(kHead, 0) != 0 || engine == std::string_view::npos) return;
  const std::string channel(text.substr(kHead.size(), engine - kHead.size()));
  text.remove_prefix(engine + kEngine.size());
  if (encoders_.size() == kMostChannels) return;
  encoders_[std::strtoul(channel.c_str(), nullptr, 10)] = text.substr(0, text.find(' '));
}

std::vector<std::pair<std::string, std::string>> BenchmarkLog::EncoderEngines() const {
  std::vector<std::pair<std::string, std::string>> engines;
  for (const auto& [channel, engine] : encoders_) engines.emplace_back(std::to_string(channel), engine);
  return engines;
}

std::string BenchmarkLog::WhyItFailed() const {
  return errors_.empty() ? lastOther_ : errors_.front().text;
}

LogFile::LogFile() {
  struct stat status{};
  if (stat(kLogFile, &status) != 0) return;
  inode_ = status.st_ino;
  size_ = static_cast<std::uint64_t>(status.st_size);
}

std::string LogFile::Added() const {
  struct stat status{};
  const int file = open(kLogFile, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file < 0) return {};
  std::string text;
  if (fstat(file, &status) == 0 && S_ISREG(status.st_mode)) {
    // The benchmark starts a new file when the old one is large.
    const bool same = status.st_ino == inode_ && static_cast<std::uint64_t>(status.st_size) >= size_;
    (void)lseek(file, same ? static_cast<off_t>(size_) : 0, SEEK_SET);
    std::array<char, 65536> bytes{};
    while (text.size() < kMostBytes) {
      const ssize_t size = read(file, bytes.data(), bytes.size());
      if (size < 0 && errno == EINTR) continue;
      if (size <= 0) break;
      text.append(bytes.data(), static_cast<std::size_t>(size));
    }
  }
  (void)close(file);
  return text;
}

bool LogsToFileOnly(const Configuration& config) {
  constexpr unsigned long kFile = 2;
  constexpr unsigned long kConsole = 4;
  const auto mode = std::find_if(config.settings.begin(), config.settings.end(),
                                 [](const auto& setting) { return setting.first == "logMode"; });
  // The default is both.
  if (mode == config.settings.end()) return false;
  const unsigned long bits = std::strtoul(mode->second.c_str(), nullptr, 0);
  return (bits & kFile) != 0 && (bits & kConsole) == 0;
}

}  // namespace scope
