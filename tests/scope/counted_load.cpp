/// Works on the counting platform with a known number of calls and reports what the platform counted.
/// usage: counted_load REPORT MODEL CALLS THREADS WAIT_NS FAIL_EVERY [fork|badmodel]
/// The report: a line "ENGINE OPERATIONS BUSY_NS FAILURES" each, then "latency ENGINE NS" for each operation,
/// "allocations N" (calls of malloc by a thread inside a measured call) and "threads N" (of the process,
/// workers left out).
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "counting_platform.h"
#include "ormis/memcpy_s.h"
#include "ormis/qet_dnn.h"
#include "ormis/qet_image.h"
#include "ormis/qet_venc.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZED
#endif
#endif

namespace {
thread_local bool inCall = false;
std::atomic<int> allocations{0};
}  // namespace

#ifndef SANITIZED
// NOLINTNEXTLINE(bugprone-reserved-identifier): the C library's own
extern "C" void* __libc_malloc(std::size_t size);

// In front of the C library's, for the meter as well.
extern "C" __attribute__((visibility("default"))) void* malloc(std::size_t size) {
  if (inCall) allocations.fetch_add(1);
  return __libc_malloc(size);
}
#endif

namespace {

constexpr std::uint32_t kWidth = 64;
constexpr std::uint32_t kHeight = 32;

template <typename Operation>
void Repeat(int calls, Operation operation) {
  for (int i = 0; i < calls; ++i) {
    inCall = true;
    (void)operation();
    inCall = false;
  }
}

void Worker(int calls, const std::string& model) {
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
  Repeat(calls, [&] { return memcpy_s(to, sizeof(to), from, sizeof(from)); });
  Repeat(calls,
         [&] { return Ormis::QetImageResize(0, source, destination, Ormis::kQetInterpolationArea, -1); });
  Repeat(1, [&] { return Ormis::QetMemcpyToKivu(source, source); });
  Ormis::QetVenc encoder;
  Repeat(calls, [&] {
    ux_venc_stream stream{};
    return encoder.SendFrame(frame) + encoder.GetStream(stream) + encoder.ReleaseStream(stream);
  });
  Ormis::QetDNNHandle handle;
  if (Ormis::QetDNNModelInitialize(handle, model) != 0) return;
  Repeat(calls, [&] { return Ormis::QetDNNModelProcess(handle); });
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
      Worker(calls, model);
      return 0;
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) return 3;
  }
  const int threadsAtStart = ThreadCount();
  std::vector<std::thread> workers;
  for (int i = 0; i < threads; ++i) workers.emplace_back(Worker, calls, model);
  for (std::thread& worker : workers) worker.join();

  std::FILE* const report = std::fopen(argv[1], "we");
  if (report == nullptr) return 4;
  for (int engine = 0; engine < kCountedEngines; ++engine) {
    const CountedCalls& counted = CountedCallsOf(engine);
    const std::uint64_t operations = counted.operations.load();
    (void)std::fprintf(report, "%d %llu %llu %llu\n", engine, static_cast<unsigned long long>(operations),
                       static_cast<unsigned long long>(counted.busyNs.load()),
                       static_cast<unsigned long long>(counted.failures.load()));
    for (std::uint64_t i = 0; i < operations && i < kKeptLatencies; ++i) {
      (void)std::fprintf(report, "latency %d %llu\n", engine,
                         static_cast<unsigned long long>(counted.latenciesNs[i]));
    }
  }
  (void)std::fprintf(report, "allocations %d\nthreads %d\n", allocations.load(), threadsAtStart);
  return std::fclose(report) == 0 ? 0 : 5;
}
