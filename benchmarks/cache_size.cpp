// SPDX-License-Identifier: Apache-2.0
#include "cache_size.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "memory_limit.h"
#include "networks.h"

namespace measure {

namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20;

/// The largest buffer: far beyond what the kernel says of the caches, but never more than half of the free
/// memory, or of what the process may use.
std::size_t LargestBuffer() {
  const std::size_t wanted = std::clamp(8 * ClaimedCacheBytes(), 256 * kMiB, 2048 * kMiB);
  const std::size_t allowed = Ormis::portable::MemoryLimit() / 2;
  const long freePages = sysconf(_SC_AVPHYS_PAGES);
  const long pageBytes = sysconf(_SC_PAGESIZE);
  if (freePages <= 0 || pageBytes <= 0) return std::min(allowed, 64 * kMiB);
  const std::size_t free = static_cast<std::size_t>(freePages) * static_cast<std::size_t>(pageBytes);
  return std::min({wanted, allowed, free / 2});
}

double ShareAfterReading(const Range& range, const Threshold& threshold, Random& random) {
  constexpr std::size_t kLines = 250;
  ReadAll(range);
  double least = 1.0;  // other work of the machine takes lines out of a cache, and puts none in
  for (int round = 0; round < 3; ++round) {
    const std::vector<Line> lines = DrawLines(range, kLines, random);
    ReadAll(range);
    std::vector<std::uint32_t> ticks;
    TimeLines(lines, ticks);
    least = std::min(least, ShareFromMemory(ticks, threshold));
  }
  return least;
}

}  // namespace

std::vector<CacheStep> ReadGrowingBuffers(const Threshold& threshold, Random& random) {
  const std::size_t largest = LargestBuffer();
  const std::vector<unsigned char> buffer(largest, 1);
  std::vector<CacheStep> steps;
  for (std::size_t bytes = kMiB / 2; bytes <= largest; bytes = bytes / 2 * 3) {
    steps.push_back({bytes, ShareAfterReading({buffer.data(), bytes}, threshold, random)});
  }
  return steps;
}

CacheSize SizeOfCache(const std::vector<CacheStep>& steps) {
  constexpr double kLeastKept = 0.25;
  CacheSize size;
  for (const CacheStep& step : steps) {
    if (1.0 - step.fromMemory < kLeastKept) continue;
    size.bytes = std::max(size.bytes, static_cast<std::size_t>(step.KeptBytes()));
  }
  size.mayBeLarger = !steps.empty() && steps.back().fromMemory < 0.5;
  return size;
}

std::size_t ClaimedCacheBytes() {
  std::size_t largest = 0;
  for (int index = 0;; ++index) {
    std::ifstream file("/sys/devices/system/cpu/cpu0/cache/index" + std::to_string(index) + "/size");
    std::size_t kib = 0;  // the kernel writes "36608K"
    if (!(file >> kib)) return largest;
    largest = std::max(largest, kib * 1024);
  }
}

std::size_t NetworkMegabytes(std::size_t cacheBytes) {
  return (4 * cacheBytes + 999'999) / 1'000'000;
}

std::string NetworkAdvice(const CacheSize& size) {
  if (size.bytes == 0) return {};
  const std::size_t megabytes = NetworkMegabytes(size.bytes);
  const std::string number = std::to_string(megabytes);
  const std::string most = std::to_string(kMaxMemoryMegabytes);
  const bool canBeMade = megabytes <= static_cast<std::size_t>(kMaxMemoryMegabytes);
  return "A network that loads the memory needs weights of four times\nthe measured size: " +
         std::string(size.mayBeLarger ? "at least " : "") + number + " MB (`make_network --memory" +
         (canBeMade ? " " + number + " FILE`)." : "` makes " + most + " MB at most).");
}

}  // namespace measure
