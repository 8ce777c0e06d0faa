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

/// What every wait here is given before the program counts as hung. Far above what a slow, crowded machine
/// and a sanitizer take: it ends a hang and measures nothing.
constexpr std::chrono::seconds kPatience{120};

/// An empty directory of the test's own, removed with what is in it.
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

/// How the program is started. Standard input is empty; signals have their default action and none is
/// blocked, whatever the test's own are.
struct Launch {
  enum class Output {
    kCaptured,
    kClosed,    ///< the program starts without a standard output
    kFull,      ///< a device that takes nothing, as a full disk does
    kUnwanted,  ///< a pipe whose reader has gone
    kHeldUp,    ///< a pipe that is full, and stays so until TakeOutput
  };

  std::vector<std::string> arguments;
  std::filesystem::path directory = ".";           ///< working directory
  std::map<std::string, std::string> environment;  ///< set over the test's own
  std::map<int, rlim_t> limits;                    ///< soft and hard limit by resource (RLIMIT_...)
  std::optional<uid_t> user;                       ///< whom it runs as, without groups; needs root
  Output standardOutput = Output::kCaptured;
  bool standardError = true;  ///< captured; without it the program starts without one
  std::filesystem::path program = STRESS_BENCHMARK_PROGRAM;
};

/// How the program ended and what it wrote.
struct Ending {
  std::optional<int> status;  ///< exit status, 0 to 255; none when a signal ended it
  std::optional<int> signal;  ///< the signal that ended it
  bool hung = false;          ///< it had to be killed: the wait was over
  double seconds = 0.0;       ///< from its start to its end
  std::string output;         ///< standard output
  std::string error;          ///< standard error

  std::vector<std::string> OutputLines() const;
  std::vector<std::string> ErrorLines() const;
};

std::ostream& operator<<(std::ostream& stream, const Ending& ending);

/// The lines of a text, without their ends. A text that does not end in a newline has its rest as last line.
std::vector<std::string> SplitLines(std::string_view text);

/// One run of the real program. Its output is taken from it only inside the members that wait, all of it: a
/// program that writes to one stream while the test waits for the other is never held up. It is killed with
/// the object, and with the test. Threads: one object, one thread.
class Program {
 public:
  /// Starts the program. Throws std::runtime_error when there is no process to be had; a program file that
  /// cannot be executed shows as exit status 127.
  explicit Program(Launch launch);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t Id() const { return id_; }
  bool Running();
  void Signal(int signal) const;
  /// Seconds since the start.
  double Seconds() const;

  /// The next line of standard output, without its end; none when the program ended or the wait was over.
  std::optional<std::string> ReadLine(std::chrono::milliseconds wait = kPatience);
  /// Waits until `text` stands on standard error, anywhere after what an earlier call has found. Returns
  /// false when the program ended without it or the wait was over.
  bool WaitForError(std::string_view text, std::chrono::milliseconds wait = kPatience);
  /// Lets the program run for a while, taking its output.
  void RunFor(std::chrono::milliseconds time);
  /// Waits for the end; kills the program when the wait is over. Later calls return the same.
  const Ending& Wait(std::chrono::milliseconds wait = kPatience);

  /// From here on takes what stands on the pipe of kHeldUp: what had filled it, kFilling, and what the
  /// program wrote.
  void TakeOutput();
  static const std::string kFilling;

  /// Threads of the process as the system counts them; 0 when it has ended.
  int ThreadCount() const;

 private:
  using Clock = std::chrono::steady_clock;

  /// Takes output and looks for the end until `done` or the wait is over. Returns the last of `done`.
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
