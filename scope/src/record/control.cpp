// SPDX-License-Identifier: Apache-2.0
#include "control.h"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <system_error>
#include <thread>

#include "errors.h"
#include "monotonic_ns.h"
#include "text_format.h"

namespace scope {
namespace {

struct ReadyPacket {
  std::int32_t error = 0;  ///< errno; 0: all threads compute
};

constexpr std::uint64_t kNsOfASecond = 1'000'000'000;

std::uint64_t ThreadCpuNs() {
  timespec now{};
  (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * kNsOfASecond + static_cast<std::uint64_t>(now.tv_nsec);
}

// Some microseconds of multiplications that need nothing but registers.
void ComputeABit() {
  constexpr int kSteps = 4000;
  constexpr std::uint64_t kFactor = 6364136223846793005U;
  std::uint64_t a = 1;
  std::uint64_t b = 2;
  std::uint64_t c = 3;
  std::uint64_t d = 4;
  for (int i = 0; i < kSteps; ++i) {
    a = a * kFactor + 1;
    b = b * kFactor + 1;
    c = c * kFactor + 1;
    d = d * kFactor + 1;
    // The results are used, as far as the compiler knows.
    asm volatile("" : "+r"(a), "+r"(b), "+r"(c), "+r"(d));
  }
}

// A thread that waited for a processor makes up for this much at most: its processor time a second is to be
// that of the aggressors, but no burst of a long wait.
constexpr std::uint64_t kMostBehindNs = 200'000'000;

std::uint64_t NsOf(double us) {
  return static_cast<std::uint64_t>(us * 1e3);
}

// `phase` is the share of its period that the thread begins late: threads do not work in step.
[[noreturn]] void ComputeForEver(const ControlThreads& work, double phase) {
  // Otherwise the system adds this to each pause.
  (void)prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
  std::uint64_t dueNs = MonotonicNs() + NsOf(work.periodUs * phase);
  while (true) {
    const timespec due{static_cast<time_t>(dueNs / kNsOfASecond), static_cast<long>(dueNs % kNsOfASecond)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) == EINTR) {
    }
    const std::uint64_t begin = ThreadCpuNs();
    while (ThreadCpuNs() - begin < NsOf(work.computeUs)) ComputeABit();
    dueNs += NsOf(work.periodUs);
    dueNs = std::max(dueNs, MonotonicNs() - kMostBehindNs);
  }
}

int KeepOff(const std::vector<int>& cpus) {
  if (cpus.empty()) return 0;
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return errno;
  for (const int cpu : cpus) CPU_CLR(static_cast<std::size_t>(cpu), &allowed);
  return sched_setaffinity(0, sizeof(allowed), &allowed) == 0 ? 0 : errno;
}

int StartThreads(const std::vector<ControlThreads>& threads) {
  try {
    for (const ControlThreads& work : threads) {
      for (int i = 0; i < work.threads; ++i) {
        std::thread(ComputeForEver, work, static_cast<double>(i) / work.threads).detach();
      }
    }
  } catch (const std::system_error& error) {
    return error.code().value();
  }
  return 0;
}

// Until the recorder sends nothing more.
void RunControl(int socket, const std::vector<ControlThreads>& threads, const std::vector<int>& notOn) {
  ReadyPacket ready;
  ready.error = KeepOff(notOn);
  if (ready.error == 0) ready.error = StartThreads(threads);
  SendOrExit(socket, &ready, sizeof(ready));
  char ignored = 0;
  while (recv(socket, &ignored, sizeof(ignored), 0) > 0 || errno == EINTR) {
  }
}

}  // namespace

Control::Control(const std::vector<ControlThreads>& threads, const std::vector<int>& notOn)
    : process_("the control", "scope_control", [&](int socket) { RunControl(socket, threads, notOn); }) {
  ReadyPacket ready;
  const bool isReady = process_.Receive(&ready, sizeof(ready), true);
  if (isReady && ready.error == 0) return;
  throw UserError("cannot compute beside the benchmark: " +
                  (isReady ? std::string(std::strerror(ready.error)) : process_.Fault()));
}

const std::string& Control::Fault() {
  ReadyPacket none;
  // It says nothing more: only its end can arrive.
  (void)process_.Receive(&none, sizeof(none), false);
  return process_.Fault();
}

std::string ControlText(const std::vector<ControlThreads>& threads) {
  std::vector<std::string> parts;
  for (const ControlThreads& work : threads) {
    parts.push_back(Format("%d x (%.0f us of %.0f us)", work.threads, work.computeUs, work.periodUs));
  }
  return Joined(parts, ", ");
}

std::string OwnCpusText(const OwnCpus& own, const char* sign) {
  if (own.cpus.empty()) return "";
  std::vector<std::string> cpus;
  for (const int cpu : own.cpus) cpus.push_back(std::to_string(cpu));
  return own.engine + sign + Joined(cpus, ",");
}

std::vector<int> AllowedCpus() {
  std::vector<int> cpus;
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return cpus;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(static_cast<std::size_t>(cpu), &allowed)) cpus.push_back(cpu);
  }
  return cpus;
}

int WhyNotOn(int cpu) {
  cpu_set_t before;
  // It cannot be tried where it could not be undone.
  if (sched_getaffinity(0, sizeof(before), &before) != 0) return 0;
  cpu_set_t only;
  CPU_ZERO(&only);
  if (cpu >= 0 && cpu < CPU_SETSIZE) CPU_SET(static_cast<std::size_t>(cpu), &only);
  if (sched_setaffinity(0, sizeof(only), &only) != 0) return errno;
  (void)sched_setaffinity(0, sizeof(before), &before);
  return 0;
}

}  // namespace scope
