// SPDX-License-Identifier: Apache-2.0
#include "guard_process.h"

#include <poll.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <new>
#include <vector>

#include "watcher_process.h"

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
    SendOrExit(socket_, &packet, sizeof(packet));
  }

  int socket_;
  double nsOfABlock_;
  double dueNs_ = 0;
  std::uint64_t startCpuNs_ = 0;
  std::uint64_t reportedNs_ = 0;
  std::unique_ptr<GuardedMemory> memory_;
  std::vector<GuardedError> errors_;
};

}  // namespace

void RunGuard(int socket, std::uint64_t bytes, double bytesPerS) {
  GuardLoop(socket, bytesPerS).Run(bytes);
}

}  // namespace scope
