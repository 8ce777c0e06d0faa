// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// How long each wait lasts before the program counts as hung. Much longer than a slow, busy machine with a
/// sanitizer needs: it is there to end a hang, not to measure.
constexpr std::chrono::seconds kPatience{120};

/// An empty directory for one test. The destructor removes it with its content.
class TemporaryDirectory {
 public:
  /// Throws std::runtime_error when it cannot be made.
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// How the program is started. Its standard input is empty. Signals have their default action and none is
/// blocked, whatever they are in the test.
struct Launch {
  enum class Output {
    kCaptured,
    kClosed,    ///< the program starts without a standard output
    kFull,      ///< a device that takes nothing, like a full disk
    kUnwanted,  ///< a pipe without a reader
    kHeldUp,    ///< a pipe that is full until TakeOutput is called
  };

  std::vector<std::string> arguments;
  std::filesystem::path directory = ".";           ///< working directory
  std::map<std::string, std::string> environment;  ///< added to the test's environment
  std::map<int, rlim_t> limits;                    ///< soft and hard limit by resource (RLIMIT_...)
  std::optional<uid_t> user;                       ///< the user that it runs as, without groups; needs root
  Output standardOutput = Output::kCaptured;
  bool standardError = true;  ///< captured; false: the program starts without one
  std::filesystem::path program = STRESS_BENCHMARK_PROGRAM;
};

/// How the program ended and what it wrote.
struct Ending {
  std::optional<int> status;  ///< exit status, 0 to 255; none when a signal ended it
  std::optional<int> signal;  ///< the signal that ended it
  bool hung = false;          ///< it did not end in time and was killed
  double seconds = 0.0;       ///< from its start to its end
  std::string output;         ///< standard output
  std::string error;          ///< standard error

  std::vector<std::string> OutputLines() const;
  std::vector<std::string> ErrorLines() const;
};

std::ostream& operator<<(std::ostream& stream, const Ending& ending);

/// The lines of a text, without their newlines. What follows the last newline is the last line, unless it is
/// empty.
std::vector<std::string> SplitLines(std::string_view text);

/// One run of the real program. The members that wait read both of its streams, so a program that writes to
/// one stream while the test waits for the other is not blocked. The program is killed when the object is
/// destroyed and when the test ends. Threads: an object belongs to one thread.
class Program {
 public:
  /// Starts the program. Throws std::runtime_error when the process cannot be created. When the program file
  /// cannot be executed, the exit status is 127.
  explicit Program(Launch launch);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t Id() const { return id_; }
  bool Running();
  void Signal(int signal) const;
  /// Returns the seconds since the start.
  double Seconds() const;

  /// Returns the next line of standard output, without its newline; nothing when the program has ended or the
  /// wait is over.
  std::optional<std::string> ReadLine(std::chrono::milliseconds wait = kPatience);
  /// Waits until `text` is on standard error, after the text that the last call has found. Returns false when
  /// the program has ended without it or the wait is over.
  bool WaitForError(std::string_view text, std::chrono::milliseconds wait = kPatience);
  /// Lets the program run for this time and reads its output.
  void RunFor(std::chrono::milliseconds time);
  /// Waits until the program has ended; kills it when the wait is over. Later calls return the same.
  const Ending& Wait(std::chrono::milliseconds wait = kPatience);

  /// From here on the pipe of kHeldUp is read. Its content is kFilling, which had filled it, and then what
  /// the program has written.
  void TakeOutput();
  static const std::string kFilling;

  /// Returns how many threads the process has; 0 when it has ended.
  int ThreadCount() const;

 private:
  using Clock = std::chrono::steady_clock;

  /// Reads output until `done` returns true, the program has ended or the wait is over. Returns the last
  /// result of `done`.
  template <typename Done>
  bool PumpUntil(Done&& done, std::chrono::milliseconds wait);
  void Pump(Clock::time_point end);
  void LookForEnd();
  bool Over() const;

  pid_t id_ = -1;
  Clock::time_point start_;
  int outputPipe_ = -1;
  int heldPipe_ = -1;
  int errorPipe_ = -1;
  bool ended_ = false;
  std::size_t linesRead_ = 0;   ///< bytes of the output that ReadLine has handed out
  std::size_t errorFound_ = 0;  ///< bytes of standard error up to the last text found
  Ending ending_;
};
