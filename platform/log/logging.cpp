// SPDX-License-Identifier: Apache-2.0
#include "ara/log/logging.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <string>

#include "fixed_text.h"
#include "sinks.h"
#include "utc_time.h"

namespace ara::log {

namespace {

using View = ara::core::internal::StringView<char>;

constexpr std::size_t kMaxLoggers = 64;
constexpr std::size_t kMaxAppIdBytes = 16;
constexpr std::size_t kMaxContextIdBytes = sizeof(std::uint64_t);
constexpr std::size_t kMaxFileBytes = 512;
constexpr std::size_t kMaxFunctionBytes = 256;
constexpr std::size_t kMaxDescriptionBytes = 127;

static_assert(1 +           // the newline that ends a line written in part
                      32 +  // "2025-01-31T23:59:59.123456Z ", with room for years beyond 9999
                      48 +  // level, context id and thread id with their blanks
                      kMaxAppIdBytes + LogStream::kTextCapacity +
                      32 +  // " [cut]", " (", the line number, ")"
                      kMaxFileBytes + kMaxFunctionBytes + Sink::kTailBytes <=
                  kMaxLineBytes,
              "the longest record must fit into one line");

/// The application's settings. They are never changed once published, and never freed: a record that is being
/// made may use them.
struct Settings {
  char appId[kMaxAppIdBytes + 1] = "-";
  LogLevel level = LogLevel::kVerbose;
  bool toFile = false;
  bool toConsole = true;
  bool toRemote = false;
  char path[kMaxReportedBytes + 1] = "";  ///< of the log file, for messages
  const Settings* replaced = nullptr;     ///< the settings before, so that a leak checker finds them in use
};

/// The description of a context, for the remote sink.
struct Description {
  enum class State : std::uint8_t { kNone, kBeingWritten, kComplete };
  std::atomic<State> state{State::kNone};
  char text[kMaxDescriptionBytes + 1] = "";
};

// All of these are constant-initialised: other libraries log from their static initialisers.
constexpr Settings kBeforeInitLogging{};
[[clang::require_constant_initialization]] std::atomic<const Settings*> settings{&kBeforeInitLogging};
[[clang::require_constant_initialization]] Logger loggers[kMaxLoggers];
[[clang::require_constant_initialization]] Description descriptions[kMaxLoggers];
static_assert(std::atomic<const Settings*>::is_always_lock_free &&
                  std::atomic<std::uint64_t>::is_always_lock_free &&
                  std::atomic<LogLevel>::is_always_lock_free,
              "records are written in signal handlers");

/// Copies an id as far as there is room. Blanks and what is not printable ASCII become '_', which keeps the
/// columns of a line apart. An empty id becomes "-".
void CopyId(View id, char* field, std::size_t capacity) {
  if (id.empty()) id = View("-");
  const std::size_t length = std::min(id.size(), capacity);
  for (std::size_t i = 0; i < length; ++i) {
    const char c = id.data()[i];
    field[i] = c > ' ' && c <= '~' ? c : '_';
  }
}

View LevelName(LogLevel level) {
  switch (level) {
    case LogLevel::kFatal:
      return "FATAL";
    case LogLevel::kError:
      return "ERROR";
    case LogLevel::kWarn:
      return "WARN";
    case LogLevel::kInfo:
      return "INFO";
    case LogLevel::kDebug:
      return "DEBUG";
    case LogLevel::kVerbose:
      return "VERBOSE";
    case LogLevel::kOff:
      break;
  }
  return "-";
}

View TextOrUnknown(const char* text) {
  return text != nullptr ? View(text) : View("?");
}

void AppendTime(FixedText& line) {
  std::timespec now{};
  (void)clock_gettime(CLOCK_REALTIME, &now);  // cannot fail for this clock
  const UtcTime utc = ToUtc(now);
  line.AppendDecimal(static_cast<std::uint64_t>(utc.year), 4);
  line.Append("-");
  line.AppendDecimal(utc.month, 2);
  line.Append("-");
  line.AppendDecimal(utc.day, 2);
  line.Append("T");
  line.AppendDecimal(utc.hour, 2);
  line.Append(":");
  line.AppendDecimal(utc.minute, 2);
  line.Append(":");
  line.AppendDecimal(utc.second, 2);
  line.Append(".");
  line.AppendDecimal(utc.microsecond, 6);
  line.Append("Z");
}

/// Stores the first description of a context. A caller that finds the description being written returns at
/// once: it may be a signal handler that has interrupted the writer.
void KeepDescription(Description& description, View text) {
  auto expected = Description::State::kNone;
  if (!description.state.compare_exchange_strong(expected, Description::State::kBeingWritten)) return;
  FixedText(description.text, kMaxDescriptionBytes).AppendEscaped(text);
  description.state.store(Description::State::kComplete, std::memory_order_release);
}

}  // namespace

LogStream::LogStream(const Logger& logger, LogLevel level, const SourceLocation& location)
    : logger_(logger), location_(location), level_(level), enabled_(logger.IsEnabled(level)) {}

LogStream::~LogStream() {
  if (!enabled_) return;
  const int error = errno;
  const Settings& current = *settings.load(std::memory_order_acquire);

  char buffer[kMaxLineBytes];
  FixedText line(buffer, sizeof buffer);
  line.Append("\n");
  AppendTime(line);
  line.Append(" ");
  line.Append(LevelName(level_));
  line.Append(" ");
  line.Append(current.appId);
  line.Append(" ");
  char contextId[kMaxContextIdBytes];
  const std::uint64_t packed = logger_.contextId_.load(std::memory_order_relaxed);
  std::memcpy(contextId, &packed, sizeof contextId);
  line.Append(View(contextId, strnlen(contextId, sizeof contextId)));
  line.Append(" ");
  // The system call, because after a fork an id that a library has stored would be the parent's.
  const auto threadId = static_cast<std::uint32_t>(syscall(SYS_gettid));
  line.AppendDecimal(threadId);
  line.Append(" ");
  const std::size_t headBytes = line.size();
  line.Append(View(text_, length_));
  if (cut_) line.Append(" [cut]");
  if (current.level >= LogLevel::kDebug) {
    line.Append(" (");
    line.AppendEscaped(TextOrUnknown(location_.file), kMaxFileBytes);
    line.Append(":");
    line.AppendDecimal(static_cast<std::uint32_t>(std::max(location_.line, 0)));
    line.Append(" ");
    line.AppendEscaped(TextOrUnknown(location_.function), kMaxFunctionBytes);
    line.Append(")");
  }

  bool remoteStopped = false;
  if (current.toRemote) {
    const auto number = static_cast<std::size_t>(&logger_ - loggers);
    const Description& description = descriptions[number];
    const bool described = description.state.load(std::memory_order_acquire) == Description::State::kComplete;
    RemoteHeader header{};
    header.context = static_cast<std::uint32_t>(number);
    header.contextId = packed;
    header.contextDescription = described ? description.text : nullptr;
    header.level = level_;
    header.threadId = threadId;
    remoteStopped = !DeliverToRemoteSink(header, View(line.data() + headBytes, line.size() - headBytes));
  }
  if (current.toFile) DeliverToFile(line, current.path);
  // At the end of the process and in the child of a fork the remote sink has been stopped. Its records then
  // go to the console.
  if (current.toConsole || remoteStopped) DeliverToConsole(line);
  errno = error;
}

void LogStream::Append(const char* text, std::size_t length) {
  // After a cut nothing is added: a later, shorter piece would look as if it belonged there.
  if (!enabled_ || cut_) return;
  FixedText record(text_, kTextCapacity, length_);
  cut_ = !record.AppendEscaped(View(text, length));
  length_ = static_cast<std::uint32_t>(record.size());
}

LogStream& LogStream::operator<<(const char* text) {
  if (enabled_ && text != nullptr) Append(text, std::strlen(text));
  return *this;
}

LogStream& LogStream::operator<<(View text) {
  Append(text.data(), text.size());
  return *this;
}

LogStream& LogStream::operator<<(const std::string& text) {
  Append(text.data(), text.size());
  return *this;
}

LogStream& LogStream::operator<<(int number) {
  if (number >= 0) return *this << static_cast<unsigned int>(number);
  // Inserted as one piece, so that a cut cannot leave the sign alone. Negated as unsigned, which works for
  // INT_MIN.
  char digits[16] = {'-'};
  FixedText text(digits, sizeof digits, 1);
  text.AppendDecimal(0U - static_cast<unsigned int>(number));
  return *this << View(text.data(), text.size());
}

LogStream& LogStream::operator<<(unsigned int number) {
  char digits[16];
  FixedText text(digits, sizeof digits);
  text.AppendDecimal(number);
  return *this << View(text.data(), text.size());
}

bool Logger::IsEnabled(LogLevel level) const {
  return level != LogLevel::kOff && level <= level_.load(std::memory_order_relaxed) &&
         level <= settings.load(std::memory_order_acquire)->level;
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

void InitLogging(const std::string& appId, const std::string& appDescription, LogLevel level, LogMode mode,
                 const std::string& directory) {
  try {
    auto next = std::make_unique<Settings>();
    CopyId(appId, next->appId, kMaxAppIdBytes);
    next->level = level;
    next->toConsole = HasMode(mode, LogMode::kConsole);
    if (HasMode(mode, LogMode::kFile)) {
      const std::string folder = directory.empty() ? "." : directory;
      const std::string path = folder + "/" + appId + ".log";
      std::memcpy(next->path, path.data(), std::min(path.size(), sizeof next->path - 1));
      next->toFile = OpenLogFile(folder, path);
    }
    if (HasMode(mode, LogMode::kRemote)) next->toRemote = StartRemoteSink(next->appId, appDescription);
    // The old file stays open even when there is no new one: a record that is being made may still go there.
    next->replaced = settings.load(std::memory_order_relaxed);
    settings.store(next.release(), std::memory_order_release);
  } catch (const std::exception& error) {
    ReportProblem("cannot start logging for ", appId, error.what());
  }
}

Logger& CreateLogger(View contextId, View contextDescription, LogLevel level) {
  // The id fits into one atomic word, so a slot is either free or taken. A signal handler that interrupts
  // this function and asks for the same context need not wait.
  char bytes[kMaxContextIdBytes] = {};
  CopyId(contextId, bytes, sizeof bytes);
  std::uint64_t id = 0;
  std::memcpy(&id, bytes, sizeof id);

  for (std::size_t i = 0; i < kMaxLoggers; ++i) {
    Logger& logger = loggers[i];
    std::uint64_t taken = 0;
    if (logger.contextId_.compare_exchange_strong(taken, id) || taken == id) {
      KeepDescription(descriptions[i], contextDescription);
      logger.level_.store(level, std::memory_order_relaxed);
      return logger;
    }
  }
  Logger& shared = loggers[kMaxLoggers - 1];
  shared.level_.store(level, std::memory_order_relaxed);
  return shared;
}

}  // namespace ara::log
