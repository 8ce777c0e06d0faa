// SPDX-License-Identifier: Apache-2.0
#include "guard_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

namespace scope {
namespace {

constexpr std::uint64_t kReportNs = 1'000'000'000;
// A guard that had no processor for longer does not make good for it: its rate is a bound.
constexpr double kMostLagNs = 100e6;
constexpr double kLeastSleepNs = 5e6;

std::uint64_t ClockNs(clockid_t clock) {
  timespec now{};
  (void)clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

/// Runs in the guard's process.
class GuardLoop {
 public:
  GuardLoop(int socket, double bytesPerS)
      : socket_(socket), nsOfABlock_(static_cast<double>(GuardedMemory::kBlockBytes) / bytesPerS * 1e9) {}

  void Run(std::uint64_t bytes) {
    try {
      memory_ = std::make_unique<GuardedMemory>(bytes);
    } catch (const std::bad_alloc&) {
      Send(GuardPacket::Type::kNoMemory);
      return;
    }
    startCpuNs_ = ClockNs(CLOCK_PROCESS_CPUTIME_ID);
    Send(GuardPacket::Type::kReady);
    dueNs_ = static_cast<double>(ClockNs(CLOCK_MONOTONIC));
    while (!EndIsAsked()) {
      Step();
      Report();
    }
    Send(GuardPacket::Type::kCounts);
    // What changed since the walk came by is found, too. The rest of this walk is none of all blocks.
    while (!memory_->IsAtStart()) Step();
    do {
      Step();
    } while (!memory_->IsAtStart());
    Send(GuardPacket::Type::kEnd);
  }

 private:
  void Step() {
    errors_.clear();
    memory_->Step(errors_);
    for (const GuardedError& error : errors_) Send(GuardPacket::Type::kError, error);
  }

  void Report() {
    const std::uint64_t now = ClockNs(CLOCK_MONOTONIC);
    if (now < reportedNs_ + kReportNs) return;
    reportedNs_ = now;
    Send(GuardPacket::Type::kCounts);
  }

  // Waits until the next block is due. The recorder never writes: its end is all that can be read.
  bool EndIsAsked() {
    const auto now = static_cast<double>(ClockNs(CLOCK_MONOTONIC));
    dueNs_ = std::max(dueNs_ + nsOfABlock_, now - kMostLagNs);
    const double left = dueNs_ - now;
    timespec wait{};
    if (left >= kLeastSleepNs) {
      wait.tv_sec = static_cast<time_t>(left / 1e9);
      wait.tv_nsec = static_cast<long>(left - static_cast<double>(wait.tv_sec) * 1e9);
    }
    pollfd end{socket_, POLLIN, 0};
    return ppoll(&end, 1, &wait, nullptr) > 0;
  }

  void Send(GuardPacket::Type type, const GuardedError& error = {}) {
    GuardPacket packet;
    packet.type = type;
    packet.timeNs = ClockNs(CLOCK_MONOTONIC);
    packet.cpuNs = ClockNs(CLOCK_PROCESS_CPUTIME_ID) - startCpuNs_;
    packet.error = error;
    if (memory_ != nullptr) {
      packet.isLocked = memory_->IsLocked() ? 1 : 0;
      packet.bytes = memory_->Bytes();
      packet.counts = memory_->Counts();
    }
    while (send(socket_, &packet, sizeof(packet), MSG_NOSIGNAL) < 0) {
      if (errno != EINTR) _exit(1);  // nobody is left to tell
    }
  }

  int socket_;
  double nsOfABlock_;
  double dueNs_ = 0;
  std::uint64_t startCpuNs_ = 0;
  std::uint64_t reportedNs_ = 0;
  std::unique_ptr<GuardedMemory> memory_;
  std::vector<GuardedError> errors_;
};

// In the new process: nothing of the recorder but the socket.
void LeaveRecorder(int socket) {
  (void)setpgid(0, 0);
  (void)prctl(PR_SET_NAME, "scope_guard");
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) (void)std::signal(signal, SIG_IGN);
  const int null = open("/dev/null", O_RDWR);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)dup2(null, standard);
  // The recorder's files, and the lock of its folder.
  if (socket > 3) (void)close_range(3, static_cast<unsigned>(socket) - 1, 0);
  (void)close_range(static_cast<unsigned>(socket) + 1, ~0U, 0);
  // A system that runs out of memory ends the guard, and not the benchmark.
  const int score = open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
  if (score < 0) return;
  (void)!write(score, "1000", 4);
  (void)close(score);
}

}  // namespace

pid_t StartGuardProcess(std::uint64_t bytes, double bytesPerS, int& descriptor) {
  int ends[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::runtime_error(std::string("cannot make a socket for the guard: ") + std::strerror(errno));
  }
  const pid_t parent = getpid();
  const pid_t id = fork();
  if (id == 0) {
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    LeaveRecorder(ends[1]);
    GuardLoop(ends[1], bytesPerS).Run(bytes);
    _exit(0);
  }
  const int error = errno;
  (void)close(ends[1]);
  if (id < 0) {
    (void)close(ends[0]);
    throw std::runtime_error(std::string("cannot start the guard: ") + std::strerror(error));
  }
  descriptor = ends[0];
  return id;
}

}  // namespace scope
