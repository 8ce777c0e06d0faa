// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// The logging interface.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "ara/core/string_view.h"

/// Marks what the logging library exports; everything else of it is hidden.
#define ARA_LOG_API __attribute__((visibility("default")))

/// The logging interface that the benchmark and the platform write to. Best effort by contract: no operation
/// here throws, reports a failure to its caller or changes its flow.
///
/// A record is one line, whatever its text:
///   2025-01-31T23:59:59.123456Z INFO STBM STBM 4711 text
/// that is the UTC time, the level, the application's id, the context's id, the thread id and the text. Where
/// the application's threshold is kDebug or more verbose, " (file:line function)" follows. ASCII control
/// characters stand as `\n`, `\r`, `\t` or `\xNN`. A text that was cut ends in " [cut]"; " [N lost before]"
/// ends the first line after N that a sink could not take ("up to N" where it cannot tell).
///
/// A sink that takes nothing (full disk, reader that stopped reading) loses records and is waited for no
/// longer than about a second; a lost record of the log file is told on standard error, once. A record for a
/// pipe that nobody reads any more is lost, too; should the reader go at the very moment of the write, the
/// process gets SIGPIPE, whose disposition is the application's affair. A process forked from one that logs
/// goes on logging to the same places, with standard error in place of the remote sink.
///
/// The remote sink sends records to the DLT daemon (Diagnostic Log and Trace, libdlt): application
/// and context by the first 4 characters of their ids, with their descriptions, the level, the time of the
/// record, and as arguments the thread id and the text with what follows it, cut at about 1,200 bytes. A
/// thread of its own forwards them: logging waits neither for the daemon nor for libdlt. 1,024 records find
/// room while the daemon is slow or not there; more are lost. What the daemon had not read when it died is
/// lost, too. Lost records are counted, and their number is told on standard error when the process exits:
/// records that have arrived, with those, are all that were made, but for what the daemon itself took and
/// lost. The exit waits up to a second for a daemon that is there, and not at all for one that is not. abort
/// and _exit drop what has not been forwarded. The disposition of SIGPIPE and the signal masks of the
/// application's threads stay as they are; the threads of libdlt and of the sink handle no signal.
namespace ara::log {

/// Severity of a record; a smaller number is more severe. A threshold lets its own level and the more severe
/// ones through.
enum class LogLevel : std::uint8_t {
  kOff = 0,      ///< as a threshold: nothing passes; no record has this level
  kFatal = 1,    ///< the process cannot go on
  kError = 2,    ///< an operation failed
  kWarn = 3,     ///< something is not as configured or expected, and work goes on
  kInfo = 4,     ///< what was started, chosen and ended
  kDebug = 5,    ///< details for developers; lines then name file, line and function
  kVerbose = 6,  ///< everything
};

/// Where records go: any combination of the bits. No bit set means nowhere.
enum class LogMode : std::uint8_t {
  kRemote = 1,   ///< the DLT daemon of the machine
  kFile = 2,     ///< the log file
  kConsole = 4,  ///< standard error
};

/// The places of both modes together.
constexpr LogMode operator|(LogMode a, LogMode b) {
  // A sum of bits is a value of the enumeration, though no enumerator: its underlying type is fixed.
  // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange)
  return static_cast<LogMode>(static_cast<std::uint8_t>(a) | static_cast<std::uint8_t>(b));
}

/// True when `set` has a place of `bit`.
constexpr bool HasMode(LogMode set, LogMode bit) {
  return (static_cast<std::uint8_t>(set) & static_cast<std::uint8_t>(bit)) != 0;
}

/// The place of a log statement. The texts are not copied: they must be literals or live as long as the
/// record.
struct SourceLocation {
  const char* file;      ///< path of the source file as the build knows it, relative to the project
  const char* function;  ///< unqualified name of the enclosing function
  std::int32_t line;     ///< line of the statement
};

class Logger;

/// One record under construction. It is handed to the sinks when it is destroyed, at the end of the
/// statement. The record lives in a fixed buffer inside the stream: nothing is allocated, no lock is taken
/// and errno is kept, so a stream may be used from a signal handler. A text beyond kTextCapacity is cut, and
/// the line says so; what is inserted after that is dropped. Needs up to 12 KiB of stack. Threads: a stream
/// belongs to the thread that opened it; any number of threads may hold streams of one logger.
class ARA_LOG_API LogStream {
 public:
  /// Bytes of text that one record holds, escapes included. With time, level and location a line stays within
  /// 4096 bytes (PIPE_BUF on Linux), so that one write(2) to a pipe is never torn.
  static constexpr std::size_t kTextCapacity = 3072;

  /// Hands the record to the sinks. Does not throw and does not report; see above for what a sink may lose.
  ~LogStream();
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;

  /// Appends a zero-terminated text; a null pointer appends nothing. Each insertion copies what it is given.
  LogStream& operator<<(const char* text);
  /// Appends the characters of `text`, which may include zeros.
  LogStream& operator<<(ara::core::internal::StringView<char> text);
  /// Appends the characters of `text`, which may include zeros.
  LogStream& operator<<(const std::string& text);
  /// Appends the number in decimal, with a minus sign where it is negative.
  LogStream& operator<<(int number);
  /// Appends the number in decimal.
  LogStream& operator<<(unsigned int number);

 private:
  friend class Logger;
  LogStream(const Logger& logger, LogLevel level, const SourceLocation& location);
  void Append(const char* text, std::size_t length);

  const Logger& logger_;
  SourceLocation location_;
  LogLevel level_;
  bool enabled_;  ///< decided once, when the stream is opened
  bool cut_ = false;
  std::uint32_t length_ = 0;
  char text_[kTextCapacity];  // left unset: only the first length_ bytes count
};

/// One log context. Loggers are made by CreateLogger alone and live until the process ends.
/// Threads: every member may be called from any thread at the same time, and from a signal handler.
class ARA_LOG_API Logger {
 public:
  /// True when a record of `level` passes both this logger's threshold and the application's (InitLogging);
  /// before InitLogging the application's lets everything through. Never true for kOff.
  bool IsEnabled(LogLevel level) const;

  /// Opens a record of level kError. A record of a level that is not enabled takes insertions and is dropped;
  /// that is decided here, once. The same holds for the other three.
  LogStream LogError(const SourceLocation& location) const;
  /// Opens a record of level kWarn.
  LogStream LogWarn(const SourceLocation& location) const;
  /// Opens a record of level kInfo.
  LogStream LogInfo(const SourceLocation& location) const;
  /// Opens a record of level kDebug.
  LogStream LogDebug(const SourceLocation& location) const;

 private:
  friend class LogStream;
  friend Logger& CreateLogger(ara::core::internal::StringView<char>, ara::core::internal::StringView<char>,
                              LogLevel);

  std::atomic<LogLevel> level_{LogLevel::kOff};
  std::atomic<std::uint64_t> contextId_{0};  ///< its up to 8 characters in order of memory; 0: not made yet
};

/// Starts logging for the application: sets the application's threshold and opens the sinks of `mode`.
/// `appId` names the application in every line (its first 16 characters) and the log file
/// (`directory`/`appId`.log); `directory` is made if missing, an empty one is the working directory. A log
/// file past 10 MiB is moved to `appId`.log.1 first. The console is standard error. A sink that cannot be
/// opened costs one line on standard error and is left out; so does the remote sink where the build or the
/// machine has no libdlt. `appDescription` is for the remote sink. Before this call records go to standard
/// error under application id "-". A second call replaces the settings.
/// Threads: one caller at a time and no signal handler; other threads and signal handlers may log meanwhile,
/// each record by the old settings or by the new.
ARA_LOG_API void InitLogging(const std::string& appId, const std::string& appDescription, LogLevel level,
                             LogMode mode, const std::string& directory);

/// Returns the logger of context `contextId`, made on first use; its threshold becomes `level` either way. An
/// id counts up to its 8th character; in it '_' replaces what is not printable ASCII, and an empty one is
/// "-". `contextDescription` is for the remote sink: the first one that was given holds, and its first 127
/// bytes count. Never fails: past 64 contexts the last one is shared. Works before the libraries are
/// initialised. Threads: any, and signal handlers; allocates nothing and takes no lock.
ARA_LOG_API Logger& CreateLogger(ara::core::internal::StringView<char> contextId,
                                 ara::core::internal::StringView<char> contextDescription, LogLevel level);

}  // namespace ara::log
