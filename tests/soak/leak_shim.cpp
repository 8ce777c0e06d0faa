// SPDX-License-Identifier: Apache-2.0

// Makes a platform fail the soak. Preloaded, it adds a fault to QetImageResize, which LEAK names: "growth"
// (of memory, descriptors and threads), "leftover", "hang" or "crash".
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "link_names.h"
#include "ormis/ormis.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Leaks are counted by time, not by calls: a fast machine would otherwise meet a limit of the process before
// the samples begin.
constexpr std::size_t kLeakBytes = 256 << 10;
constexpr milliseconds kMemoryPeriod{20};
constexpr milliseconds kHandlePeriod{100};
constexpr milliseconds kGoodTime{6000};

void* Idle(void* /*argument*/) {
  for (;;) pause();
}

void* volatile leaked;  // volatile, so that the compiler keeps the leak

// True once a period, for one of the threads that ask.
class Schedule {
 public:
  explicit Schedule(milliseconds period) : period_(period) {}
  bool IsTime() {
    const Clock::time_point now = Clock::now();
    Clock::rep known = last_;
    return now - Clock::time_point(Clock::duration(known)) >= period_ &&
           last_.compare_exchange_strong(known, now.time_since_epoch().count());
  }

 private:
  const milliseconds period_;
  std::atomic<Clock::rep> last_{0};
};

void GoWrong() {
  static const std::string leak = std::getenv("LEAK");
  static const Clock::time_point start = Clock::now();
  pthread_t thread{};
  static Schedule memory(kMemoryPeriod);
  static Schedule descriptor(kHandlePeriod);
  static Schedule idler(kHandlePeriod);
  static Schedule leftover(kGoodTime);
  if (leak == "growth" && memory.IsTime()) leaked = std::memset(std::malloc(kLeakBytes), 1, kLeakBytes);
  if (leak == "growth" && descriptor.IsTime()) (void)dup(STDOUT_FILENO);
  if (leak == "growth" && idler.IsTime()) (void)pthread_create(&thread, nullptr, Idle, nullptr);
  if (leak == "leftover" && leftover.IsTime() && fork() == 0) (void)Idle(nullptr);
  if (leak == "hang" && Clock::now() - start > kGoodTime) (void)Idle(nullptr);
  if (leak == "crash" && Clock::now() - start > kGoodTime) std::abort();
}

}  // namespace

namespace Ormis {

__attribute__((no_sanitize("function"))) std::int32_t QetImageResize(int channel, const ImageData& source,
                                                                     const ImageData& destination,
                                                                     QetImageInterpolationType interpolation,
                                                                     int timeoutMs) {
  using Resize = std::int32_t (*)(int, const ImageData&, const ImageData&, QetImageInterpolationType, int);
  static const auto real = reinterpret_cast<Resize>(dlsym(RTLD_NEXT, LINK_QET_IMAGE_RESIZE));
  GoWrong();
  return real(channel, source, destination, interpolation, timeoutMs);
}

}  // namespace Ormis
