// SPDX-License-Identifier: Apache-2.0
#include "apart.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <thread>

#include "prepare_process.h"

namespace conformance {

namespace {

using Clock = std::chrono::steady_clock;

// The terminal sends them only to the kit, because a check has its own process group.
constexpr int kInterrupts[] = {SIGINT, SIGTERM, SIGHUP};
volatile std::sig_atomic_t interrupt = 0;

void KeepInterrupt(int signal) {
  interrupt = signal;
}

/// The last lines of what comes out of a pipe.
class OutputEnd {
 public:
  explicit OutputEnd(int pipe) : pipe_(pipe) { (void)fcntl(pipe_, F_SETFL, O_NONBLOCK); }
  ~OutputEnd() { (void)close(pipe_); }
  OutputEnd(const OutputEnd&) = delete;
  OutputEnd& operator=(const OutputEnd&) = delete;

  /// Waits for output, at most `pause`, and reads some: what writes without end does not keep the caller.
  void Read(std::chrono::microseconds pause) {
    const timespec limit{0, static_cast<long>(std::chrono::nanoseconds(pause).count())};
    pollfd wait{atEnd_ ? -1 : pipe_, POLLIN, 0};
    if (ppoll(&wait, 1, &limit, nullptr) <= 0) return;
    std::array<char, 1 << 16> bytes{};
    constexpr int kMostReads = 16;
    for (int reads = 0; reads < kMostReads; ++reads) {
      const ssize_t size = read(pipe_, bytes.data(), bytes.size());
      atEnd_ = size == 0;
      if (size <= 0) return;
      end_.append(bytes.data(), static_cast<std::size_t>(size));
      if (end_.size() > kMostBytes) end_.erase(0, end_.size() - kMostBytes);
    }
  }

  std::vector<std::string> LastLines() const {
    constexpr std::size_t kMostLines = 20;
    constexpr std::size_t kMostLetters = 500;
    std::deque<std::string> lines;
    for (std::size_t from = 0; from < end_.size();) {
      const std::size_t feed = std::min(end_.find('\n', from), end_.size());
      lines.push_back(end_.substr(from, std::min(feed - from, kMostLetters)));
      if (feed - from > kMostLetters) lines.back() += " ...";
      if (lines.size() > kMostLines) lines.pop_front();
      from = feed + 1;
    }
    return {lines.begin(), lines.end()};
  }

 private:
  static constexpr std::size_t kMostBytes = 1 << 16;
  int pipe_;
  bool atEnd_ = false;
  std::string end_;
};

/// The children of this process, those that have ended included.
std::set<pid_t> Children() {
  std::set<pid_t> children;
  std::error_code error;
  for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string line;
    std::getline(std::ifstream(entry->path() / "stat"), line);
    // "PID (NAME) STATE PARENT": the name may hold blanks and brackets.
    const std::size_t at = line.rfind(')');
    if (at == std::string::npos || line.size() < at + 4) continue;
    if (std::atoi(line.c_str() + at + 4) == getpid()) children.insert(std::atoi(name.c_str()));
  }
  return children;
}

std::set<pid_t>& ForeignChildren() {
  static std::set<pid_t> foreign;
  return foreign;
}

/// Kills the children that this process has inherited, and those that it then inherits from them. Returns how
/// many were alive.
unsigned int EndLeftovers() {
  constexpr std::chrono::seconds kMostTime(5);
  const auto end = Clock::now() + kMostTime;
  std::set<pid_t> ended;
  for (;;) {
    bool more = false;
    for (const pid_t child : Children()) {
      if (ForeignChildren().count(child) != 0) continue;
      more = true;
      if (waitpid(child, nullptr, WNOHANG) == child) continue;
      ended.insert(child);
      (void)kill(child, SIGKILL);
    }
    if (!more || Clock::now() >= end) return static_cast<unsigned int>(ended.size());
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

[[noreturn]] void Become(const std::string& folder, int output, const std::function<int()>& body) {
  (void)setpgid(0, 0);
  for (const int signal : kInterrupts) {
    struct sigaction action{};
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == KeepInterrupt) {
      (void)std::signal(signal, SIG_DFL);
    }
  }
  stress::RestoreSignals();
  if (chdir(folder.c_str()) != 0 || dup2(output, STDOUT_FILENO) < 0 || dup2(output, STDERR_FILENO) < 0)
    _exit(1);
  if (output > STDERR_FILENO) (void)close(output);
  // exit, not _exit: what the library does at the end of a process is part of the check.
  std::exit(body());
}

/// Waits for the child to end. If the time is over or the run is interrupted, kills it and its process group.
Ending::Kind WaitFor(pid_t child, unsigned int timeoutS, OutputEnd& output, int& status) {
  const auto end = Clock::now() + std::chrono::seconds(timeoutS);
  // Polled: neither SIGCHLD nor the end of the output proves that the child has ended.
  for (auto pause = std::chrono::microseconds(200);;
       pause = std::min(pause * 2, std::chrono::microseconds(5000))) {
    const pid_t ended = waitpid(child, &status, WNOHANG);
    if (ended == child) return Ending::Kind::kEnded;
    if (interrupt != 0 || Clock::now() >= end || (ended < 0 && errno != EINTR)) break;
    output.Read(pause);
  }
  (void)kill(-child, SIGKILL);
  (void)waitpid(child, &status, 0);
  return interrupt != 0 ? Ending::Kind::kInterrupted : Ending::Kind::kTimedOut;
}

}  // namespace

void CatchInterrupts() {
  for (const int signal : kInterrupts) {
    struct sigaction action{};
    // A signal that the kit inherits as ignored stays ignored.
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = KeepInterrupt;
    (void)sigaction(signal, &action, nullptr);
  }
}

int Interrupted() {
  return interrupt;
}

void EndBy(int signal) {
  (void)std::signal(signal, SIG_DFL);
  (void)std::raise(signal);
  std::exit(128 + signal);  // reached if the signal is blocked
}

void AdoptLeftovers() {
  // A shell that replaced itself by this program may have had children.
  ForeignChildren() = Children();
  (void)prctl(PR_SET_CHILD_SUBREAPER, 1);
}

Ending RunApart(const std::string& folder, unsigned int timeoutS, const std::function<int()>& body) {
  Ending ending;
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    ending.error = std::string("cannot make a pipe for the check: ") + std::strerror(errno);
    return ending;
  }
  OutputEnd output(ends[0]);
  std::cout.flush();
  const pid_t child = fork();
  if (child == 0) {
    (void)close(ends[0]);
    Become(folder, ends[1], body);
  }
  const int error = errno;
  (void)close(ends[1]);
  if (child < 0) {
    ending.error = std::string("cannot start a process for the check: ") + std::strerror(error);
    return ending;
  }
  (void)setpgid(child, child);  // parent and child both do this, so the group exists before either uses it
  ending.kind = WaitFor(child, timeoutS, output, ending.status);
  ending.leftBehind = EndLeftovers();
  output.Read(std::chrono::microseconds(0));
  ending.output = output.LastLines();
  return ending;
}

}  // namespace conformance
