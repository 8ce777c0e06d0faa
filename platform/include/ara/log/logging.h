// SPDX-License-Identifier: Apache-2.0
#pragma once

/// @file
/// The logging interface.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "ara/core/string_view.h"

/// Marks what the logging library exports. All its other symbols are hidden.
#define ARA_LOG_API __attribute__((visibility("default")))

/// The logging interface that the benchmark and the platform write to. Logging is best effort: no operation
/// here throws, or reports a failure to its caller.
///
/// A record is always one line:
///   2025-01-31T23:59:59.123456Z INFO STBM STBM 4711 text
/// It has the UTC time, the level, the application's id, the context's id, the thread id and the text. If the
/// application's threshold is kDebug or more verbose, " (file:line function)" follows. ASCII control
/// characters appear as `\n`, `\r`, `\t` or `\xNN`. A text that was cut ends in " [cut]". After a sink has
/// lost N records, its next line ends in " [N lost before]", or in " [up to N lost before]" if the exact
/// number is not known.
///
/// A sink that accepts nothing (full disk, reader that stopped reading) loses records. An operation waits for
/// it about a second at most. The first record that the log file loses is reported on standard error. A
/// record for a pipe without a reader is lost, too. If the reader closes the pipe during the write, the
/// process gets SIGPIPE, and the application decides what that does. A forked process goes on logging to the
/// same places, but to standard error instead of the remote sink.
///
/// The remote sink sends records to the DLT daemon (Diagnostic Log and Trace, libdlt). A record has the first
/// 4 characters of the application's and the context's id with their descriptions, the level and the time.
/// Its arguments are the thread id and the text with what follows it, cut at about 1,200 bytes. A separate
/// thread forwards the records, so logging waits neither for the daemon nor for libdlt. While the daemon is
/// slow or absent, 1,024 records are kept and more are lost. Records that a daemon had not read when it died
/// are lost, too. Lost records are counted, and the number is printed on standard error when the process
/// exits. The records that arrived and the lost ones are together all that were made, except those that the
/// daemon itself read and lost. At exit the sink waits up to a second for a daemon, but not for an absent
/// one. abort and _exit drop what has not been forwarded. The disposition of SIGPIPE and the signal masks of
/// the application's threads do not change. The threads of libdlt and of the sink handle no signal.
namespace ara::log {

/// Severity of a record; a smaller number is more severe. A record passes a threshold if it has the same
/// level or is more severe.
enum class LogLevel : std::uint8_t {
  kOff = 0,      ///< as a threshold: nothing passes; no record has this level
  kFatal = 1,    ///< the process cannot go on
  kError = 2,    ///< an operation failed
  kWarn = 3,     ///< something is not as configured or expected, but work continues
  kInfo = 4,     ///< a start, a choice or an end
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
  // A combination of bits is a valid value even without an enumerator, because the underlying type is fixed.
  // NOLINTNEXTLINE(clang-analyzer-optin.core.EnumCastOutOfRange)
  return static_cast<LogMode>(static_cast<std::uint8_t>(a) | static_cast<std::uint8_t>(b));
}

/// True when `set` has a place of `bit`.
constexpr bool HasMode(LogMode set, LogMode bit) {
  return (static_cast<std::uint8_t>(set) & static_cast<std::uint8_t>(bit)) != 0;
}

/// The source location of a log statement. The texts are not copied: they must be literals or live as long as
/// the record.
struct SourceLocation {
  const char* file;      ///< path of the source file as the build knows it, relative to the project
  const char* function;  ///< unqualified name of the enclosing function
  std::int32_t line;     ///< line of the statement
};

class Logger;

/// One record under construction. Its destructor, at the end of the statement, hands it to the sinks. The
/// record is in a fixed buffer inside the stream: nothing is allocated, no lock is taken and errno does not
/// change, so a signal handler may use a stream. A text beyond kTextCapacity is cut and marked, and later
/// insertions are dropped. Needs up to 12 KiB of stack. Threads: only the thread that opened a stream may use
/// it; any number of threads may hold streams of one logger.
class ARA_LOG_API LogStream {
 public:
  /// Bytes of text that one record holds, escapes included. With time, level and location a line stays within
  /// 4096 bytes (PIPE_BUF on Linux), so that one write(2) to a pipe is never torn.
  static constexpr std::size_t kTextCapacity = 3072;

  /// Hands the record to the sinks. Does not throw or report a failure; see above for what a sink may lose.
  ~LogStream();
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;

  /// Appends a zero-terminated text; a null pointer appends nothing. Each insertion copies its argument.
  LogStream& operator<<(const char* text);
  /// Appends the characters of `text`, which may include zeros.
  LogStream& operator<<(ara::core::internal::StringView<char> text);
  /// Appends the characters of `text`, which may include zeros.
  LogStream& operator<<(const std::string& text);
  /// Appends the number in decimal, with a minus sign if it is negative.
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

/// One log context. Only CreateLogger makes loggers. They live until the process ends.
/// Threads: every member may be called from any thread at the same time, and from a signal handler.
class ARA_LOG_API Logger {
 public:
  /// True when a record of `level` passes both this logger's threshold and the application's (InitLogging).
  /// Before InitLogging every record passes the application's. Never true for kOff.
  bool IsEnabled(LogLevel level) const;

  /// Opens a record of level kError. If the level is not enabled now, the record accepts insertions and is
  /// dropped. The same holds for the other three.
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
/// opened is left out and reported in one line on standard error; so is the remote sink if the build or the
/// machine has no libdlt. `appDescription` is for the remote sink. Before this call records go to standard
/// error under application id "-". A second call replaces the settings.
/// Threads: one caller at a time and no signal handler. Other threads and signal handlers may log meanwhile;
/// each record follows the old settings or the new ones.
ARA_LOG_API void InitLogging(const std::string& appId, const std::string& appDescription, LogLevel level,
                             LogMode mode, const std::string& directory);

/// Returns the logger of context `contextId`, which is made at the first call, and sets its threshold to
/// `level`. Only the first 8 characters of an id count. '_' replaces characters that are not printable ASCII,
/// and an empty id becomes "-". `contextDescription` is for the remote sink, which uses the first 127 bytes
/// of the first one given. Never fails: after 64 contexts, new ids share the last logger. Works before the
/// libraries are initialised. Threads: any, and signal handlers; allocates nothing and takes no lock.
ARA_LOG_API Logger& CreateLogger(ara::core::internal::StringView<char> contextId,
                                 ara::core::internal::StringView<char> contextDescription, LogLevel level);

}  // namespace ara::log
