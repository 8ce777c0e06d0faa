#include "ara/log/logging.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace ara::log {

namespace {
constexpr std::size_t kMaxLoggers = 64;
Logger loggers[kMaxLoggers];
std::atomic<std::size_t> loggerCount{0};
}  // namespace

LogStream::LogStream(const Logger& logger, LogLevel level, const SourceLocation& location)
    : logger_(logger), location_(location), level_(level), enabled_(logger.IsEnabled(level)) {}

LogStream::~LogStream() {
  if (!enabled_) return;
  char line[4096];
  const int length =
      std::snprintf(line, sizeof line, "%s %.*s\n", logger_.contextId_, static_cast<int>(length_), text_);
  if (length > 0) (void)!write(2, line, static_cast<std::size_t>(length));
}

void LogStream::Append(const char* text, std::size_t length) {
  const std::size_t room = kTextCapacity - length_;
  if (length > room) length = room;
  std::memcpy(text_ + length_, text, length);
  length_ += static_cast<std::uint32_t>(length);
}
LogStream& LogStream::operator<<(const char* text) {
  if (text != nullptr) Append(text, std::strlen(text));
  return *this;
}
LogStream& LogStream::operator<<(ara::core::internal::StringView<char> text) {
  Append(text.data(), text.size());
  return *this;
}
LogStream& LogStream::operator<<(const std::string& text) {
  Append(text.data(), text.size());
  return *this;
}
LogStream& LogStream::operator<<(int number) {
  char digits[16];
  Append(digits, static_cast<std::size_t>(std::snprintf(digits, sizeof digits, "%d", number)));
  return *this;
}
LogStream& LogStream::operator<<(unsigned int number) {
  char digits[16];
  Append(digits, static_cast<std::size_t>(std::snprintf(digits, sizeof digits, "%u", number)));
  return *this;
}

bool Logger::IsEnabled(LogLevel level) const {
  return static_cast<std::uint8_t>(level) <= level_.load();
}
LogStream Logger::LogError(const SourceLocation& location) const {
  return {*this, LogLevel::kError, location};
}
LogStream Logger::LogWarn(const SourceLocation& location) const {
  return {*this, LogLevel::kWarn, location};
}
LogStream Logger::LogInfo(const SourceLocation& location) const {
  return {*this, LogLevel::kInfo, location};
}
LogStream Logger::LogDebug(const SourceLocation& location) const {
  return {*this, LogLevel::kDebug, location};
}

void InitLogging(const std::string&, const std::string&, LogLevel, LogMode, const std::string&) {}

Logger& CreateLogger(ara::core::internal::StringView<char> contextId, ara::core::internal::StringView<char>,
                     LogLevel level) {
  Logger& logger = loggers[loggerCount++];
  std::memcpy(logger.contextId_, contextId.data(), contextId.size());
  logger.level_ = static_cast<std::uint8_t>(level);
  return logger;
}

}  // namespace ara::log
