// SPDX-License-Identifier: Apache-2.0
#include "setting_switch.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <system_error>
#include <vector>

#include "child_process.h"
#include "errors.h"
#include "printable.h"
#include "text_format.h"

namespace scope {
namespace {

// The end of a child is a signal, too. This is only the longest wait for one that is lost, and for a limit.
constexpr int kLongestWaitMs = 200;
// Exit statuses of a shell.
constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;

// The pipe is read even if nothing is shown: a command that fills it would wait.
void Forward(LineReader& reader, int descriptor, bool show) {
  std::vector<std::string> lines;
  (void)reader.Read(descriptor, lines);
  if (!show) return;
  for (const std::string& line : lines) std::cerr << Printable(line) << '\n';
}

// True if the file can be executed, and what its first line names if it is a script.
bool IsProgram(const std::string& path) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored) || access(path.c_str(), X_OK) != 0) return false;
  std::string line;
  std::getline(std::ifstream(path), line);
  if (line.rfind("#!", 0) != 0) return true;
  const std::size_t from = line.find_first_not_of(" \t", 2);
  if (from == std::string::npos) return true;
  return access(line.substr(from, line.find_first_of(" \t", from) - from).c_str(), X_OK) == 0;
}

// True if the command's first word is a program that is there. A word with quotes, variables or operators is
// not looked for.
bool CanStart(const std::string& command) {
  constexpr const char* kSpace = " \t\n";
  const std::size_t from = std::min(command.find_first_not_of(kSpace), command.size());
  const std::string word = command.substr(from, command.find_first_of(kSpace, from) - from);
  const bool isPlain = std::all_of(word.begin(), word.end(), [](unsigned char letter) {
    return std::isalnum(letter) != 0 || std::strchr("_./+-,:@%", letter) != nullptr;
  });
  if (!isPlain || word.empty()) return false;
  if (word.find('/') != std::string::npos) return IsProgram(word);
  const char* const folders = std::getenv("PATH");
  std::istringstream path(folders == nullptr ? "" : folders);
  for (std::string folder; std::getline(path, folder, ':');) {
    if (IsProgram((folder.empty() ? "." : folder) + "/" + word)) return true;
  }
  return false;
}

}  // namespace

bool RunSwitch(const std::string& command, bool show, Signals& signals, double mostS, double deathS) {
  using Clock = std::chrono::steady_clock;
  using Seconds = std::chrono::duration<double>;
  const auto begin = Clock::now();
  ChildProcess::Options options;
  options.program = "/bin/sh";
  // The shell is no foreground job: a command that reads the terminal would be stopped and never end.
  // Both kinds of output come through one pipe, which keeps their order.
  options.arguments = {"-c", "exec </dev/null 2>&1\n" + command};
  ChildProcess child(options);
  LineReader output;
  bool stopped = false;
  bool hangs = false;
  std::optional<Clock::time_point> killed;
  while (!child.HasEnded()) {
    // A negative descriptor is not waited for: at its end, the output is readable without pause.
    pollfd waits[] = {{output.AtEnd() ? -1 : child.Output(), POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}};
    (void)poll(waits, 2, kLongestWaitMs);
    Forward(output, child.Output(), show);
    if (signals.TakeStop()) {
      if (stopped && !killed) killed = Clock::now();
      child.Signal(stopped ? SIGKILL : SIGINT);
      stopped = true;
    }
    hangs = hangs || (mostS > 0 && Clock::now() - begin > Seconds(mostS));
    if (hangs && !killed) killed = Clock::now();
    if (hangs) child.Signal(SIGKILL);
    if (killed && Clock::now() - *killed > Seconds(deathS)) {
      child.GiveUp();
      throw CommandStuck("the command, process " + std::to_string(child.Id()) +
                         Format(", did not end within %g s of SIGKILL: it still runs, and disturbs what "
                                "follows: ",
                                deathS) +
                         command);
    }
  }
  Forward(output, child.Output(), show);
  if (stopped) return false;
  if (hangs) throw CommandHangs(Format("the command did not end within %g s: ", mostS) + command);
  if (child.EndSignal() != 0) {
    throw UserError("the command was ended by signal " + std::to_string(child.EndSignal()) + ": " + command);
  }
  const bool mayBeMissing = child.ExitStatus() == kCannotRun || child.ExitStatus() == kNotFound;
  if (mayBeMissing && !CanStart(command)) {
    throw CommandMissing("cannot run the command, status " + std::to_string(child.ExitStatus()) + ": " +
                         command);
  }
  if (child.ExitStatus() != 0) {
    throw UserError("the command ended with status " + std::to_string(child.ExitStatus()) + ": " + command);
  }
  return true;
}

bool AskForSwitch(const std::string& name, Signals& signals) {
  // A line that was typed during a run is no answer.
  (void)tcflush(STDIN_FILENO, TCIFLUSH);
  std::cerr << "Make setting " << name << " and press Enter: " << std::flush;
  while (true) {
    pollfd waits[] = {{STDIN_FILENO, POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}};
    (void)poll(waits, 2, -1);
    if (signals.TakeStop()) return false;
    if (waits[0].revents == 0) continue;
    char letter = 0;
    const ssize_t count = read(STDIN_FILENO, &letter, 1);
    if (count == 0) throw UserError("nobody answers: say --a and --b, the commands that make the settings");
    if (count < 0 && errno != EINTR && errno != EAGAIN) throw UserError("cannot read the answer");
    if (count == 1 && letter == '\n') return true;
  }
}

}  // namespace scope
