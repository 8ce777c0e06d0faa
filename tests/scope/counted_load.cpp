// SPDX-License-Identifier: Apache-2.0

/// Works on the counting platform with a known number of calls and reports what the platform counted.
/// usage: counted_load REPORT MODEL CALLS THREADS WAIT_NS FAIL_EVERY [fork|badmodel|virtual]
/// The report: a line "ENGINE OPERATIONS BUSY_NS FAILURES" each, then "latency ENGINE NS" for each operation,
/// "around ENGINE NS" (time of all calls, measured around them, so never less than the meter's), "cpus ENGINE
/// MASK" (of the first 64, on which its threads may work after their calls), "first ENGINE NS" (time of the
/// first call of each thread, measured around it), "allocations N" (calls of malloc
/// by a thread inside a measured call) and "threads N" (of the process, workers left out).
#include <dirent.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "counting_platform.h"
#include "ormis/memcpy_s.h"
#include "ormis/qet_dnn.h"
#include "ormis/qet_image.h"
#include "ormis/qet_venc.h"
#include "sanitizers.h"

namespace {
thread_local bool inCall = false;
std::atomic<int> allocations{0};
std::atomic<std::uint64_t> aroundNs[kCountedEngines];
std::atomic<std::uint64_t> cpusOf[kCountedEngines];
constexpr std::size_t kKeptFirsts = 64;
std::atomic<std::uint64_t> firstNs[kCountedEngines][kKeptFirsts];
std::atomic<std::size_t> firsts[kCountedEngines];
constexpr std::uint64_t kNsPerS = 1'000'000'000;
}  // namespace

// Replaces the function of the C library, for the meter too. In virtual time the meter's results are exact to
// the nanosecond, even on a busy machine.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* time) noexcept {
  const std::uint64_t ns = VirtualNs();
  if (ns == 0 || clock != CLOCK_MONOTONIC) return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  *time = {static_cast<time_t>(ns / kNsPerS), static_cast<long>(ns % kNsPerS)};
  return 0;
}

// The same. In virtual time a sleep ends at once.
extern "C" __attribute__((visibility("default"))) int clock_nanosleep(clockid_t clock, int flags,
                                                                      const timespec* time, timespec* left) {
  if (VirtualNs() == 0) return static_cast<int>(syscall(SYS_clock_nanosleep, clock, flags, time, left));
  const std::uint64_t ns =
      static_cast<std::uint64_t>(time->tv_sec) * kNsPerS + static_cast<std::uint64_t>(time->tv_nsec);
  VirtualNs() = flags == TIMER_ABSTIME ? std::max(VirtualNs(), ns) : VirtualNs() + ns;
  return 0;
}

#if !defined(STRESS_ADDRESS_SANITIZER) && !defined(STRESS_THREAD_SANITIZER)
// NOLINTNEXTLINE(bugprone-reserved-identifier): the C library's own
extern "C" void* __libc_malloc(std::size_t size);

// Replaces the function of the C library, for the meter too.
extern "C" __attribute__((visibility("default"))) void* malloc(std::size_t size) {
  if (inCall) allocations.fetch_add(1);
  return __libc_malloc(size);
}
#endif

namespace {

constexpr std::uint32_t kWidth = 64;
constexpr std::uint32_t kHeight = 32;

std::uint64_t NowNs() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * kNsPerS + static_cast<std::uint64_t>(now.tv_nsec);
}

template <typename Operation>
void Repeat(CountedEngine engine, int calls, Operation operation) {
  for (int i = 0; i < calls; ++i) {
    const std::uint64_t start = NowNs();
    inCall = true;
    (void)operation();
    inCall = false;
    const std::uint64_t ns = NowNs() - start;
    aroundNs[engine].fetch_add(ns);
    if (i == 0) firstNs[engine][firsts[engine].fetch_add(1) % kKeptFirsts] = ns;
  }
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return;
  for (std::size_t cpu = 0; cpu < 64; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) cpusOf[engine].fetch_or(std::uint64_t{1} << cpu);
  }
}

void Worker(int calls, const std::string& model, bool virtualTime) {
  if (virtualTime) VirtualNs() = kNsPerS;
  Ormis::ImageData source;
  source.width = kWidth;
  source.height = kHeight;
  source.imageType = Ormis::kQetImageBgr888;
  Ormis::ImageData destination = source;
  destination.width = kWidth / 2;
  Ormis::ImageData frame = source;
  frame.imageType = Ormis::kQetImageYuv420sp;
  char from[100] = {};
  char to[100] = {};
  Repeat(kCountedCpu, calls, [&] { return memcpy_s(to, sizeof(to), from, sizeof(from)); });
  Repeat(kCountedVpc, calls,
         [&] { return Ormis::QetImageResize(0, source, destination, Ormis::kQetInterpolationArea, -1); });
  Repeat(kCountedVpcCopy, 1, [&] { return Ormis::QetMemcpyToKivu(source, source); });
  Ormis::QetVenc encoder;
  Repeat(kCountedVenc, calls, [&] {
    ux_venc_stream stream{};
    return encoder.SendFrame(frame) + encoder.GetStream(stream) + encoder.ReleaseStream(stream);
  });
  Ormis::QetDNNHandle handle;
  if (Ormis::QetDNNModelInitialize(handle, model) != 0) return;
  Repeat(kCountedAic, calls, [&] { return Ormis::QetDNNModelProcess(handle); });
}

int ThreadCount() {
  DIR* const tasks = opendir("/proc/self/task");
  int count = 0;
  for (const dirent* entry = readdir(tasks); entry != nullptr; entry = readdir(tasks)) {
    count += entry->d_name[0] == '.' ? 0 : 1;
  }
  (void)closedir(tasks);
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 7) return 2;
  const int calls = static_cast<int>(std::strtol(argv[3], nullptr, 10));
  const int threads = static_cast<int>(std::strtol(argv[4], nullptr, 10));
  const std::string mode = argc > 7 ? argv[7] : "";
  const std::string model = mode == "badmodel" ? "" : argv[2];
  SetWork(std::strtol(argv[5], nullptr, 10), static_cast<int>(std::strtol(argv[6], nullptr, 10)));

  if (mode == "fork") {
    const pid_t child = fork();
    if (child == 0) {
      Worker(calls, model, false);
      return 0;
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) return 3;
  }
  const int threadsAtStart = ThreadCount();
  std::vector<std::thread> workers;
  for (int i = 0; i < threads; ++i) workers.emplace_back(Worker, calls, model, mode == "virtual");
  for (std::thread& worker : workers) worker.join();

  std::FILE* const report = std::fopen(argv[1], "we");
  if (report == nullptr) return 4;
  for (int engine = 0; engine < kCountedEngines; ++engine) {
    const CountedCalls& counted = CountedCallsOf(engine);
    const std::uint64_t operations = counted.operations.load();
    (void)std::fprintf(report, "%d %llu %llu %llu\n", engine, static_cast<unsigned long long>(operations),
                       static_cast<unsigned long long>(counted.busyNs.load()),
                       static_cast<unsigned long long>(counted.failures.load()));
    (void)std::fprintf(report, "around %d %llu\n", engine,
                       static_cast<unsigned long long>(aroundNs[engine].load()));
    for (std::size_t i = 0; i < std::min(firsts[engine].load(), kKeptFirsts); ++i) {
      (void)std::fprintf(report, "first %d %llu\n", engine,
                         static_cast<unsigned long long>(firstNs[engine][i].load()));
    }
    (void)std::fprintf(report, "cpus %d %llu\n", engine,
                       static_cast<unsigned long long>(cpusOf[engine].load()));
    for (std::uint64_t i = 0; i < operations && i < kKeptLatencies; ++i) {
      (void)std::fprintf(report, "latency %d %llu\n", engine,
                         static_cast<unsigned long long>(counted.latenciesNs[i]));
    }
  }
  (void)std::fprintf(report, "allocations %d\nthreads %d\n", allocations.load(), threadsAtStart);
  return std::fclose(report) == 0 ? 0 : 5;
}
