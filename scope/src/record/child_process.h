#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace scope {

/// A program that runs beside this one, in a process group of its own, with its standard output (and, if
/// asked, its standard error) on a pipe. It gets SIGINT when this program dies.
class ChildProcess {
 public:
  struct Options {
    std::string program;
    std::vector<std::string> arguments;                            ///< without the program's name
    std::vector<std::pair<std::string, std::string>> environment;  ///< set in addition to this program's
    int inherit = -1;                                              ///< a descriptor that the program gets
    bool takeErrors = false;
  };

  /// Throws std::runtime_error, with the reason, when the program cannot be started.
  explicit ChildProcess(const Options& options);
  /// Kills what still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Id() const { return id_; }
  /// Both non-blocking; -1 where there is none.
  int Output() const { return output_; }
  int Errors() const { return errors_; }

  /// Sends `signal` to the program and to all that it has started: a shell in between would keep it to
  /// itself.
  void Signal(int signal);

  /// True once the program has ended; the two below then say how.
  bool HasEnded();
  int ExitStatus() const;
  int EndSignal() const;  ///< 0 when it ended by itself

 private:
  pid_t id_ = -1;
  int output_ = -1;
  int errors_ = -1;
  bool ended_ = false;
  int status_ = 0;
};

/// Takes what a non-blocking descriptor has and hands it out line by line.
class LineReader {
 public:
  /// Appends the lines that are complete, without line feeds. False at the end, after which a last line
  /// without a line feed has been appended as well.
  bool Read(int descriptor, std::vector<std::string>& lines);
  /// True once Read has found the end; it reads no more then.
  bool AtEnd() const { return atEnd_; }

 private:
  std::string rest_;
  bool atEnd_ = false;
};

}  // namespace scope
