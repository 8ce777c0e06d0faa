#include "ara/log/logging.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "fixed_text.h"
#include "remote_port.h"
#include "remote_sink.h"
#include "sink.h"
#include "utc_time.h"

namespace ara::log {

namespace {

using View = ara::core::internal::StringView<char>;

constexpr std::size_t kMaxLoggers = 64;
constexpr std::size_t kMaxAppIdBytes = 16;
constexpr std::size_t kMaxContextIdBytes = sizeof(std::uint64_t);
constexpr std::size_t kMaxFileBytes = 512;
constexpr std::size_t kMaxFunctionBytes = 256;
constexpr std::size_t kMaxToldBytes = 1023;  // of a path or a reason in a message about a sink
constexpr std::size_t kMaxDescriptionBytes = 127;

// PIPE_BUF on Linux: a longer write to a pipe may be torn.
constexpr std::size_t kMaxLineBytes = 4096;
constexpr std::size_t kMaxTimeBytes = 32;   // "2025-01-31T23:59:59.123456Z ", and years beyond 9999
constexpr std::size_t kMaxFieldBytes = 48;  // level, context id and thread id with their spaces
constexpr std::size_t kMaxMarksBytes = 32;  // " [cut]", " (", the line number, ")"
static_assert(1 + kMaxTimeBytes + kMaxFieldBytes + kMaxAppIdBytes + LogStream::kTextCapacity +
                      kMaxMarksBytes + kMaxFileBytes + kMaxFunctionBytes + Sink::kTail <=
                  kMaxLineBytes,
              "the longest record must fit into one line");
constexpr std::size_t kMaxToldWordsBytes =
    64;  // "ara::log: " and the longest of the texts that begin a message
static_assert(1 + kMaxToldWordsBytes + 2 * kMaxToldBytes + Sink::kTail <= kMaxLineBytes,
              "the longest message about a sink must fit into one line");

constexpr off_t kMaxLogFileBytes = off_t{10} << 20;

/// The application's settings. Never changed once published and never freed: a record under way may hold
/// them.
struct Settings {
  char appId[kMaxAppIdBytes + 1] = "-";
  LogLevel level = LogLevel::kVerbose;
  bool toFile = false;
  bool toConsole = true;
  bool toRemote = false;
  char path[kMaxToldBytes + 1] = "";   ///< of the log file, for messages
  const Settings* replaced = nullptr;  ///< keeps the older settings in reach of a leak checker
};

/// What a context is described as. Kept for the remote sink, which makes use of it later and elsewhere.
struct Description {
  enum class State : std::uint8_t { kNone, kBeingWritten, kComplete };
  std::atomic<State> state{State::kNone};
  char text[kMaxDescriptionBytes + 1] = "";
};

// Constant-initialised, all of it: other libraries log from their static initialisers.
constexpr Settings kBeforeInitLogging{};
[[clang::require_constant_initialization]] std::atomic<const Settings*> settings{&kBeforeInitLogging};
[[clang::require_constant_initialization]] Sink console{STDERR_FILENO, Sink::Blocking::kPossible};
[[clang::require_constant_initialization]] Sink logFile{-1, Sink::Blocking::kNever};
[[clang::require_constant_initialization]] std::atomic<bool> fileLossTold{false};
[[clang::require_constant_initialization]] Logger loggers[kMaxLoggers];
[[clang::require_constant_initialization]] Description descriptions[kMaxLoggers];
// Made once, and never destroyed: a thread may be about to log when the process ends.
[[clang::require_constant_initialization]] std::atomic<RemoteSink*> remote{nullptr};
static_assert(std::atomic<const Settings*>::is_always_lock_free &&
                  std::atomic<std::uint64_t>::is_always_lock_free &&
                  std::atomic<LogLevel>::is_always_lock_free,
              "records are written in signal handlers");

// A process that is started without standard error gives that number to the first file it opens: that file
// must not get the log. No file is open yet when the libraries are initialised.
__attribute__((constructor)) void NoteMissingStandardError() {
  const int error = errno;
  if (fcntl(STDERR_FILENO, F_GETFD) < 0) console.Disable();
  errno = error;
}

/// Copies an id as far as there is room; what would blur the columns of a line becomes '_', no id "-".
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

/// Says on standard error what became of a sink.
void Tell(View what, View item, View reason) {
  char buffer[kMaxLineBytes];
  FixedText line(buffer, sizeof buffer);
  line.Append("\nara::log: ");
  line.Append(what);
  line.AppendEscaped(item, kMaxToldBytes);
  line.Append(reason.empty() ? "" : ": ");
  line.AppendEscaped(reason, kMaxToldBytes);
  console.Deliver(line);
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

/// Moves a log file that has grown past the limit out of the way; the one moved before is lost.
void RotateLogFile(const std::string& path) {
  struct stat status{};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= kMaxLogFileBytes)
    return;
  if (std::rename(path.c_str(), (path + ".1").c_str()) != 0) Tell("cannot move ", path, ErrorText(errno));
}

/// Opens the log file as the file sink. Returns false when that failed, which has then been told.
bool OpenLogFile(const std::string& folder, const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) {
    Tell("cannot make folder ", folder, error.message());
    return false;
  }
  RotateLogFile(path);
  // Not blocking: a path that is a pipe without a reader would hold the application up.
  const int opened =
      open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644);
  // Above the standard streams: one of them may be closed, and what is written to it would end up in the log.
  const int descriptor = opened < 0 ? -1 : fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int duplicationError = errno;
  if (opened >= 0) close(opened);
  errno = duplicationError;
  if (descriptor < 0 || !logFile.Replace(descriptor)) {
    Tell("cannot open ", path, ErrorText(errno));
    return false;
  }
  fileLossTold.store(false);
  return true;
}

void StopRemoteSink() {
  const std::uint64_t lost = remote.load()->Stop();
  if (lost == 0) return;
  Tell("records lost on the way to the DLT daemon", "",
       (remote.load()->LostIsUpperBound() ? "up to " : "") + std::to_string(lost));
}

void AbandonRemoteSink() {
  remote.load()->Abandon();
}

/// Starts the remote sink, unless it runs already. Returns false when there is none, which is told once.
bool StartRemoteSink(const std::string& appId, const std::string& appDescription) {
  static bool told = false;
  if (remote.load() == nullptr) {
    std::string reason;
    std::unique_ptr<RemotePort> port = MakeDltPort(console.Disabled(), &reason);
    if (port != nullptr) {
      auto sink = std::make_unique<RemoteSink>(std::move(port));
      sink->SetApplication(appId, appDescription);
      reason = sink->Start();
      if (reason.empty()) {
        remote.store(sink.release());
        // After the start, so that it runs before libdlt's own handler.
        (void)std::atexit(StopRemoteSink);
        (void)pthread_atfork(nullptr, nullptr, AbandonRemoteSink);
        return true;
      }
    }
    if (!told) {
      Tell("the remote sink is not available", reason.empty() ? " in this build" : "", reason);
    }
    told = true;
    return false;
  }
  remote.load()->SetApplication(appId, appDescription);
  return true;
}

/// Keeps the first description of a context. Who comes while it is being written leaves that to the writer:
/// it may be a signal handler that has interrupted it.
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
  // The system call: a thread id kept by a library would be the parent's in the child of a fork.
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

  bool homeless = false;
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
    homeless = !remote.load(std::memory_order_relaxed)
                    ->Deliver(header, View(line.data() + headBytes, line.size() - headBytes));
  }
  if (current.toFile) {
    const char* const reason = logFile.Deliver(line);
    if (reason != nullptr && !fileLossTold.exchange(true)) Tell("cannot write ", current.path, reason);
  }
  // Once the remote sink has been stopped, at the end of the process or in the child of a fork, its records
  // need another place.
  if (current.toConsole || homeless) console.Deliver(line);
  errno = error;
}

void LogStream::Append(const char* text, std::size_t length) {
  // After a cut nothing follows: a later, shorter piece would read as if it belonged there.
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
  // One piece, so that a cut does not leave a sign alone; negated as unsigned, which INT_MIN bears.
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
    std::memset(next->appId, 0, sizeof next->appId);
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
    // Without a file the old one stays open: a record under way may still go there.
    next->replaced = settings.load(std::memory_order_relaxed);
    settings.store(next.release(), std::memory_order_release);
  } catch (const std::exception& error) {
    Tell("cannot start logging for ", appId, error.what());
  }
}

Logger& CreateLogger(View contextId, View contextDescription, LogLevel level) {
  // The id fits into one atomic word, so that a slot is free or taken and nothing in between: a signal
  // handler that asks for the same context in the middle of this has no one to wait for.
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
