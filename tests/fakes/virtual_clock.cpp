// SPDX-License-Identifier: Apache-2.0
#include "virtual_clock.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

std::atomic<bool> active{false};
std::atomic<std::int64_t> nowNs{0};
std::atomic<std::uint64_t> reads{0};
std::mutex mutex;
std::vector<std::int64_t> sleeps;
std::function<void(std::size_t)> sleepHook;
std::condition_variable sleeperArrived;
std::map<std::thread::id, std::size_t> sleepers;
std::size_t sleepersAwaited = 0;

constexpr std::int64_t kNsPerSecond = 1'000'000'000;

}  // namespace

// Exported, because the callers are in the standard library.
#pragma GCC visibility push(default)
extern "C" {

int clock_gettime(clockid_t clock, struct timespec* time) {
  if (active && clock == CLOCK_MONOTONIC) {
    ++reads;
    const std::int64_t now = nowNs;
    time->tv_sec = now / kNsPerSecond;
    time->tv_nsec = now % kNsPerSecond;
    return 0;
  }
  return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

int nanosleep(const struct timespec* span, struct timespec* rest) {
  if (!active) return static_cast<int>(syscall(SYS_nanosleep, span, rest));
  const std::int64_t ns = span->tv_sec * kNsPerSecond + span->tv_nsec;
  nowNs += ns;
  std::function<void(std::size_t)> hook;
  std::size_t count = 0;
  {
    std::unique_lock<std::mutex> lock(mutex);
    ++sleepers[std::this_thread::get_id()];
    sleeperArrived.notify_all();
    sleeperArrived.wait(lock, [] { return sleepers.size() >= sleepersAwaited; });
    sleeps.push_back(ns);
    count = sleeps.size();
    hook = sleepHook;
  }
  if (hook) hook(count);
  return 0;
}

}  // extern "C"
#pragma GCC visibility pop

VirtualClock::VirtualClock() {
  const std::lock_guard<std::mutex> lock(mutex);
  sleeps.clear();
  sleepHook = nullptr;
  sleepers.clear();
  sleepersAwaited = 0;
  reads = 0;
  nowNs = 1000 * kNsPerSecond;
  active = true;
}

VirtualClock::~VirtualClock() {
  active = false;
}

void VirtualClock::Advance(std::chrono::nanoseconds span) {
  nowNs += span.count();
}
std::chrono::nanoseconds VirtualClock::Now() const {
  return std::chrono::nanoseconds(nowNs.load());
}

std::vector<std::int64_t> VirtualClock::Sleeps() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return sleeps;
}

std::map<std::thread::id, std::size_t> VirtualClock::SleepsByThread() {
  const std::lock_guard<std::mutex> lock(mutex);
  return sleepers;
}

void VirtualClock::Forget() {
  const std::lock_guard<std::mutex> lock(mutex);
  sleepers.clear();
}

std::uint64_t VirtualClock::Reads() const {
  return reads;
}

void VirtualClock::OnSleep(std::function<void(std::size_t)> hook) {
  const std::lock_guard<std::mutex> lock(mutex);
  sleepHook = std::move(hook);
}

void VirtualClock::WaitForSleepers(std::size_t threads) {
  const std::lock_guard<std::mutex> lock(mutex);
  sleepersAwaited = threads;
}
