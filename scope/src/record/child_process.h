// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace scope {

/// A child program in a process group of its own. Its standard output, unless it is given, and on request its
/// standard error are pipes. It gets SIGINT when this program dies.
class ChildProcess {
 public:
  struct Options {
    std::string program;
    std::vector<std::string> arguments;                            ///< without the program's name
    std::vector<std::pair<std::string, std::string>> environment;  ///< added to this program's
    int inherit = -1;                                              ///< a descriptor that the program inherits
    int input = -1;                                                ///< standard input; -1: this program's
    int output = -1;  ///< standard output, and Output() has nothing; -1: the pipe
    bool takeErrors = false;
    bool ignoresStop = false;  ///< it ignores SIGINT and SIGTERM, and gets SIGHUP when this program dies
  };

  /// Throws std::runtime_error, with the reason, if the program cannot be started.
  explicit ChildProcess(const Options& options);
  /// Kills the program if it still runs. Does not wait for one that was given up.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Id() const { return id_; }
  /// Both are non-blocking. Errors() is -1 if standard error is not taken.
  int Output() const { return output_; }
  int Errors() const { return errors_; }

  /// Sends `signal` to the program and to all programs that it started: a shell would not pass it on.
  void Signal(int signal);

  /// True if the program has a handler for `signal`; false if the system does not tell.
  bool Catches(int signal) const;

  /// It does not end, even after SIGKILL. It stays when this object goes.
  void GiveUp() { isGivenUp_ = true; }

  /// True after the program has ended. The next two then say how.
  bool HasEnded();
  int ExitStatus() const;
  int EndSignal() const;  ///< 0 if it ended by itself

 private:
  pid_t id_ = -1;
  int output_ = -1;
  int errors_ = -1;
  bool ended_ = false;
  bool isGivenUp_ = false;
  int status_ = 0;
};

/// Reads lines from a non-blocking descriptor.
class LineReader {
 public:
  /// A longer line is cut: the rest of it is dropped.
  static constexpr std::size_t kMostLineBytes = 4096;
  /// More than a pipe holds. One call of Read with it gets everything that an ended program has written.
  static constexpr std::size_t kWholePipe = (1 << 16) + 4096;

  /// Appends the complete lines, without line feeds. At the end of the input it also appends a last line that
  /// has no line feed, and returns false. Reads at most about `mostBytes`, because a program that writes
  /// without pause would keep the caller here.
  bool Read(int descriptor, std::vector<std::string>& lines, std::size_t mostBytes = kWholePipe);
  /// True after Read has found the end. Read then reads no more.
  bool AtEnd() const { return atEnd_; }

 private:
  void Take(const char* bytes, std::size_t size, std::vector<std::string>& lines);

  std::string rest_;
  bool atEnd_ = false;
};

}  // namespace scope
