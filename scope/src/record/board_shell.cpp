// SPDX-License-Identifier: Apache-2.0
#include "board_shell.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "child_process.h"
#include "printable.h"

namespace scope {
namespace {

// What ssh ends with when it is ssh that fails.
constexpr int kNoConnection = 255;
constexpr int kLongestPollMs = 1000;
constexpr std::size_t kMostLines = 100;
// The first word of the standard error of a script that began.
constexpr const char* kBegan = "stress_scope-began";

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Number() const { return number_; }
  void Close() {
    if (number_ >= 0) (void)close(number_);
    number_ = -1;
  }

 private:
  int number_;
};

std::string CommandOf(const BoardShell::Script& script) {
  std::string command =
      "exec sh -c " + ShellQuoted(std::string("echo ") + kBegan + " >&2\n" + script.text) + " sh";
  for (const std::string& argument : script.arguments) command += ' ' + ShellQuoted(argument);
  return command;
}

std::vector<std::string> SshArguments(const std::string& host, const std::string& config) {
  std::vector<std::string> arguments = {"ssh"};
  if (!config.empty()) arguments.insert(arguments.end(), {"-F", config});
  // A board that is switched off is noticed after 15 seconds. Nothing of this machine is passed on.
  for (const char* const option :
       {"BatchMode=yes", "StrictHostKeyChecking=yes", "UpdateHostKeys=no", "ConnectTimeout=15",
        "ServerAliveInterval=5", "ServerAliveCountMax=3", "ClearAllForwardings=yes", "ForwardAgent=no",
        "ForwardX11=no", "RequestTTY=no", "LogLevel=INFO"}) {
    arguments.insert(arguments.end(), {"-o", option});
  }
  arguments.insert(arguments.end(), {"--", host});
  return arguments;
}

bool Says(const std::vector<std::string>& lines, const char* text) {
  return std::any_of(lines.begin(), lines.end(),
                     [text](const std::string& line) { return line.find(text) != std::string::npos; });
}

std::string LastOf(const std::vector<std::string>& lines) {
  const auto at =
      std::find_if(lines.rbegin(), lines.rend(), [](const std::string& line) { return !line.empty(); });
  return at == lines.rend() ? "ssh does not say why" : *at;
}

// Throws why there was no connection.
[[noreturn]] void ThrowNoConnection(const std::string& host, const std::vector<std::string>& lines) {
  const std::string compare =
      " Compare it with the board's own (there: ssh-keygen -lf /etc/ssh/ssh_host_ed25519_key.pub)";
  if (Says(lines, "HOST IDENTIFICATION HAS CHANGED")) {
    throw UserError(host +
                    " shows another host key than the known one: it was set up anew, or another machine "
                    "answers in its place. Nothing was sent to it." +
                    compare + ", and only then replace the known one: ssh-keygen -R " + host);
  }
  if (Says(lines, "Host key verification failed"))
    throw UserError("the host key of " + host + " is not known here. Nothing was sent to it." + compare +
                    ", and add it to known_hosts");
  if (Says(lines, "Permission denied"))
    throw UserError(host + " accepts none of this user's keys (" + LastOf(lines) +
                    "). Put the public key into authorized_keys there; passwords are not used");
  if (Says(lines, "env: ")) throw UserError("cannot start ssh: install openssh-client");
  throw BoardAway("cannot reach " + host + ": " + LastOf(lines));
}

using Clock = std::chrono::steady_clock;

Clock::time_point In(double seconds) {
  return Clock::now() + std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

// What ssh and the script write.
struct Answer {
  BoardShell::Result result;
  bool began = false;
  LineReader output;
  LineReader errors;

  // Returns when there is something to take, or the descriptor `signals` is readable.
  void Await(const ChildProcess& child, int signals) const {
    pollfd waits[] = {{output.AtEnd() ? -1 : child.Output(), POLLIN, 0},
                      {errors.AtEnd() ? -1 : child.Errors(), POLLIN, 0},
                      {signals, POLLIN, 0}};
    (void)poll(waits, 3, kLongestPollMs);
  }

  void Take(const ChildProcess& child) {
    std::vector<std::string> lines;
    (void)output.Read(child.Output(), lines);
    for (const std::string& line : lines) result.output += line + '\n';
    lines.clear();
    (void)errors.Read(child.Errors(), lines);
    for (std::string& line : lines) {
      if (!line.empty() && line.back() == '\r') line.pop_back();  // as ssh ends its own
      if (line == kBegan)
        began = true;
      else
        result.errors.push_back(std::move(line));
    }
    while (result.errors.size() > kMostLines) result.errors.erase(result.errors.begin());
  }
};

}  // namespace

std::string ShellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (const char letter : text) quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
  return quoted + "'";
}

void RequireHost(const std::string& host) {
  const bool isWord =
      !host.empty() && host[0] != '-' && host.size() < 256 &&
      std::all_of(
          host.begin(), host.end(),
          [](unsigned char letter) {
            return letter > ' ' && letter < 0x7f && std::strchr("'\"\\`$;&|<>(){}*?!", letter) == nullptr;
          });
  if (!isWord) throw UserError("--on: expected a host as ssh takes it, found \"" + Printable(host) + "\"");
}

BoardShell::Result BoardShell::Run(const Script& script) {
  int ends[2] = {-1, -1};
  if (script.input < 0 && pipe2(ends, O_CLOEXEC) != 0)
    throw std::runtime_error(std::string("cannot make a pipe: ") + std::strerror(errno));
  Descriptor readEnd(ends[0]);
  Descriptor writeEnd(ends[1]);
  ChildProcess::Options options;
  options.program = "/usr/bin/env";  // which looks for ssh
  options.arguments = SshArguments(host_, config_);
  options.arguments.push_back(CommandOf(script));
  options.input = script.input < 0 ? readEnd.Number() : script.input;
  options.output = script.output;
  options.takeErrors = true;
  options.ignoresStop = true;
  ChildProcess child(options);
  readEnd.Close();

  Answer answer;
  Clock::time_point end = script.limitS > 0 ? In(script.limitS) : Clock::time_point::max();
  bool asked = false;
  bool killed = false;
  while (!child.HasEnded()) {
    answer.Await(child, signals_.Descriptor());
    answer.Take(child);
    const bool signal = signals_.TakeStop();
    const bool late = Clock::now() >= end;
    if (!signal && !late) continue;
    answer.result.stopped = answer.result.stopped || signal;
    answer.result.late = answer.result.late || !signal;
    if (asked || script.afterSignalS <= 0) {
      child.Signal(SIGKILL);
      killed = true;
    }
    // The script sees the end of its input, and ends what it runs.
    writeEnd.Close();
    asked = true;
    end = In(script.afterSignalS);
  }
  answer.Take(child);
  Result& result = answer.result;
  result.status = child.ExitStatus();
  const bool hasEnded = !killed && child.EndSignal() == 0 && result.status != kNoConnection;
  if (answer.began && hasEnded) return result;
  if (!answer.began && !result.stopped) ThrowNoConnection(host_, result.errors);
  if (result.stopped)
    throw BoardLost("interrupted by a signal, before " + host_ + " had ended its work", false);
  if (result.late) throw BoardLost(host_ + " answers, but has not ended its work in time", false);
  throw BoardLost(host_ + " no longer answers: " + LastOf(result.errors), true);
}

}  // namespace scope
