// A platform that must not pass the soak. Preloaded, it goes wrong in QetImageResize as LEAK says: "memory",
// "descriptor", "thread", "leftover", "hang" or "crash".
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ormis/ormis.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// By time, not by calls, so that a fast machine does not meet a limit of the process before the samples
// begin.
constexpr std::size_t kLeakBytes = 256 << 10;
constexpr milliseconds kMemoryPeriod{20};
constexpr milliseconds kHandlePeriod{100};
constexpr milliseconds kGoodTime{6000};

void* Idle(void* /*argument*/) {
  for (;;) pause();
}

void* volatile leaked;  // seen from outside, so that the compiler cannot leave the leak out

// True once a period, in one of the threads that ask.
bool Due(milliseconds period) {
  static std::atomic<Clock::rep> last{0};
  const Clock::time_point now = Clock::now();
  Clock::rep known = last;
  return now - Clock::time_point(Clock::duration(known)) >= period &&
         last.compare_exchange_strong(known, now.time_since_epoch().count());
}

void GoWrong() {
  static const std::string leak = std::getenv("LEAK");
  static const Clock::time_point start = Clock::now();
  pthread_t thread{};
  if (leak == "memory" && Due(kMemoryPeriod)) leaked = std::memset(std::malloc(kLeakBytes), 1, kLeakBytes);
  if (leak == "descriptor" && Due(kHandlePeriod)) (void)dup(STDOUT_FILENO);
  if (leak == "thread" && Due(kHandlePeriod)) (void)pthread_create(&thread, nullptr, Idle, nullptr);
  if (leak == "leftover" && Due(kGoodTime) && fork() == 0) (void)Idle(nullptr);
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
  static const auto real = reinterpret_cast<Resize>(
      dlsym(RTLD_NEXT, "_ZN5Ormis14QetImageResizeEiRKNS_9ImageDataES2_NS_25QetImageInterpolationTypeEi"));
  GoWrong();
  return real(channel, source, destination, interpolation, timeoutMs);
}

}  // namespace Ormis
