// SPDX-License-Identifier: Apache-2.0
#include "setting_switch.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <iostream>
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

}  // namespace

bool RunSwitch(const std::string& command, bool show, Signals& signals, double mostS) {
  const auto begin = std::chrono::steady_clock::now();
  ChildProcess::Options options;
  options.program = "/bin/sh";
  // The shell is no foreground job: a command that reads the terminal would be stopped and never end.
  // Both kinds of output come through one pipe, which keeps their order.
  options.arguments = {"-c", "exec </dev/null 2>&1\n" + command};
  ChildProcess child(options);
  LineReader output;
  bool stopped = false;
  bool hangs = false;
  while (!child.HasEnded()) {
    // A negative descriptor is not waited for: at its end, the output is readable without pause.
    pollfd waits[] = {{output.AtEnd() ? -1 : child.Output(), POLLIN, 0}, {signals.Descriptor(), POLLIN, 0}};
    (void)poll(waits, 2, kLongestWaitMs);
    Forward(output, child.Output(), show);
    if (signals.TakeStop()) {
      child.Signal(stopped ? SIGKILL : SIGINT);
      stopped = true;
    }
    hangs = hangs ||
            (mostS > 0 && std::chrono::steady_clock::now() - begin > std::chrono::duration<double>(mostS));
    if (hangs) child.Signal(SIGKILL);
  }
  Forward(output, child.Output(), show);
  if (stopped) return false;
  if (hangs) throw CommandHangs(Format("the command did not end within %g s: ", mostS) + command);
  if (child.EndSignal() != 0) {
    throw UserError("the command was ended by signal " + std::to_string(child.EndSignal()) + ": " + command);
  }
  if (child.ExitStatus() == kCannotRun || child.ExitStatus() == kNotFound) {
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
