// SPDX-License-Identifier: Apache-2.0
#include "latency_process.h"

#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <random>
#include <utility>

#include "monotonic_ns.h"
#include "watcher_process.h"

namespace scope {
namespace {

constexpr double kSecondNs = 1e9;
// A second ends with the burst before its report, unless it would be so late. So the last row is of a burst,
// too.
constexpr double kLateNs = 0.25e9;
constexpr std::uint64_t kLeastGrowth = std::uint64_t{1} << 20;
constexpr std::uint64_t kGrowthFactor = 4;
// Lines that were just written are in the caches. Those of a small part belong there, those of a large one do
// not.
constexpr double kSettleNs = 100e6;
constexpr double kGrowthNs = 20e6;

std::uint64_t InvoluntarySwitches() {
  rusage usage{};
  (void)getrusage(RUSAGE_THREAD, &usage);
  return static_cast<std::uint64_t>(usage.ru_nivcsw);
}

std::optional<std::uint64_t> Grown(std::optional<std::uint64_t> before, std::optional<std::uint64_t> now) {
  if (!before || !now || *now < *before) return {};
  return *now - *before;
}

/// What the machine took from a CPU since its start.
struct Taken {
  std::optional<std::uint64_t> stealMs;
  std::optional<std::uint64_t> interrupts;
  std::uint64_t switches = 0;
};

Taken ReadTaken(int cpu) {
  if (cpu < 0) return {{}, {}, InvoluntarySwitches()};
  return {ReadStealMs(cpu), ReadInterrupts(cpu), InvoluntarySwitches()};
}

/// Runs in the probe's process.
class LatencyLoop {
 public:
  LatencyLoop(int socket, const LatencyRhythm& rhythm) : socket_(socket), rhythm_(rhythm) {}

  void Run(std::uint64_t bytes, int cpu) {
    if (!TakeCpu(cpu)) return Send(LatencyPacket::Type::kNoCpu);
    try {
      memory_ = std::make_unique<ChaseMemory>(bytes);
    } catch (const std::bad_alloc&) {
      return Send(LatencyPacket::Type::kNoMemory);
    }
    timer_ = std::make_unique<ChaseTimer>(*memory_);
    LatencyBursts::Sources sources;
    if (setup_.cpu >= 0) sources.stealMs = [on = setup_.cpu] { return ReadStealMs(on); };
    bursts_ = std::make_unique<LatencyBursts>(*memory_, *timer_, std::move(sources));
    Grow();
    TakeRealTime();
    Describe();
    Send(LatencyPacket::Type::kReady);
    char begin = 0;
    if (recv(socket_, &begin, sizeof(begin), 0) != ssize_t{sizeof(begin)}) return;
    Measure();
  }

 private:
  // False if it cannot have the CPU that was asked for. Without one that was, it may go without.
  bool TakeCpu(int wanted) {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    int cpu = wanted;
    if (wanted < 0 && sched_getaffinity(0, sizeof(allowed), &allowed) == 0) {
      for (int one = 0; one < CPU_SETSIZE; ++one) {
        if (CPU_ISSET(static_cast<std::size_t>(one), &allowed)) cpu = one;
      }
    }
    cpu_set_t only;
    CPU_ZERO(&only);
    if (cpu >= 0 && cpu < CPU_SETSIZE) CPU_SET(static_cast<std::size_t>(cpu), &only);
    if (sched_setaffinity(0, sizeof(only), &only) == 0) {
      setup_.cpu = cpu;
      return true;
    }
    setup_.cpuError = errno;
    return wanted < 0;
  }

  // Where all CPUs are busy, the load would take this one away in many of the bursts. They are short, so that
  // the load loses no more than it would. Only now: what came before takes seconds.
  void TakeRealTime() {
    sched_param lowest{};
    lowest.sched_priority = sched_get_priority_min(SCHED_FIFO);
    if (sched_setscheduler(0, SCHED_FIFO, &lowest) != 0) setup_.realTimeError = errno;
  }

  // The reading over parts of the memory, before there is a load.
  void Grow() {
    for (std::uint64_t bytes = std::min(kLeastGrowth, memory_->Bytes());; bytes *= kGrowthFactor) {
      const bool isLast =
          bytes * kGrowthFactor > memory_->Bytes() || setup_.growths + 1 == setup_.growth.size();
      if (isLast) bytes = memory_->Bytes();
      memory_->GrowTo(bytes);
      timer_->Adjust();
      bursts_->Settle(kSettleNs);
      // One that was interrupted all the time shows 0.
      for (int burst = 0; burst < 20; ++burst) bursts_->Burst(kGrowthNs / 20);
      setup_.growth[setup_.growths++] = {memory_->CycleBytes(), LatencyAt(bursts_->Take(), 0.5)};
      if (isLast) return;
    }
  }

  void Describe() {
    setup_.bytes = memory_->CycleBytes();
    setup_.lineBytes = memory_->LineBytes();
    setup_.hugeBytes = memory_->HugeBytes();
    setup_.timerNs = timer_->OverheadNs();
    setup_.timerStepNs = timer_->StepNs();
  }

  void Measure() {
    const auto now = [] { return static_cast<double>(MonotonicNs()); };
    const double startNs = now();
    taken_ = ReadTaken(setup_.cpu);
    std::minstd_rand random(1);
    std::uniform_real_distribution<double> share(0.5, 1.5);
    double reportNs = startNs + kSecondNs;
    double dueNs = startNs;
    // At least once: a short run may have ended before it began.
    do {
      if (now() >= reportNs) {
        Report(LatencyPacket::Type::kSecond);
        // After a stall the report is of more than a second.
        while (reportNs <= now()) reportNs += kSecondNs;
      }
      if (now() < dueNs) continue;
      const std::uint64_t cpuNs = ReadThreadState().cpuNs;
      bursts_->Warm();
      bursts_->Burst(rhythm_.burstNs);
      const auto tookNs = static_cast<double>(ReadThreadState().cpuNs - cpuNs);
      const double periodNs = std::clamp(tookNs / rhythm_.mostShare, rhythm_.periodNs, rhythm_.mostPeriodNs);
      dueNs = std::max(now(), dueNs + share(random) * periodNs);
    } while (!EndIsAsked(std::min(dueNs, reportNs + kLateNs) - now()));
    Report(LatencyPacket::Type::kEnd);
  }

  // Waits until the next burst is due. The recorder never writes again: its end is all that can be read.
  bool EndIsAsked(double ns) {
    timespec wait{};
    if (ns > 0) {
      wait.tv_sec = static_cast<time_t>(ns / 1e9);
      wait.tv_nsec = static_cast<long>(ns - static_cast<double>(wait.tv_sec) * 1e9);
    }
    pollfd end{socket_, POLLIN, 0};
    return ppoll(&end, 1, &wait, nullptr) > 0;
  }

  void Report(LatencyPacket::Type type) {
    timer_->Adjust();
    packet_.counts = bursts_->Take();
    const Taken before = std::exchange(taken_, ReadTaken(setup_.cpu));
    packet_.stealMs = Grown(before.stealMs, taken_.stealMs);
    packet_.interrupts = Grown(before.interrupts, taken_.interrupts);
    packet_.switches = taken_.switches - before.switches;
    Send(type);
  }

  void Send(LatencyPacket::Type type) {
    packet_.type = type;
    packet_.timeNs = MonotonicNs();
    packet_.setup = setup_;
    SendOrExit(socket_, &packet_, sizeof(packet_));
  }

  int socket_;
  LatencyRhythm rhythm_;
  LatencySetup setup_;
  LatencyPacket packet_;
  Taken taken_;
  std::unique_ptr<ChaseMemory> memory_;
  std::unique_ptr<ChaseTimer> timer_;
  std::unique_ptr<LatencyBursts> bursts_;
};

}  // namespace

void RunLatencyProbe(int socket, std::uint64_t bytes, int cpu, const LatencyRhythm& rhythm) {
  LatencyLoop(socket, rhythm).Run(bytes, cpu);
}

}  // namespace scope
