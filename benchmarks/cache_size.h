// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "line_timer.h"

namespace measure {

/// A buffer that was read from beginning to end, several times.
struct CacheStep {
  std::size_t bytes = 0;
  double fromMemory = 0.0;  ///< share of its lines that the next reading takes from memory

  double KeptBytes() const { return static_cast<double>(bytes) * (1.0 - fromMemory); }
};

struct CacheSize {
  std::size_t bytes = 0;     ///< 0: none of the buffers stayed in a cache
  bool mayBeLarger = false;  ///< the largest buffer stayed, so the cache may be larger than `bytes`
};

/// Buffers of growing size, each half as large again as the one before.
std::vector<CacheStep> ReadGrowingBuffers(const Threshold& threshold, Random& random);

/// The most bytes that stay in the caches from one reading of a buffer to the next. A cache that replaces the
/// oldest line keeps all of a buffer that fits, and nothing of a larger one; others keep a part of a larger
/// one. The most that any of the buffers keeps is the size of either. A step that keeps less than a quarter
/// does not count: the few lines that are taken for lines from a cache would be many bytes there.
CacheSize SizeOfCache(const std::vector<CacheStep>& steps);

/// The size of the largest cache of this processor as the kernel gives it; 0 where it gives none.
std::size_t ClaimedCacheBytes();

/// Which weights a network needs so that it has to take them from memory: four times the cache, in MB of 10^6
/// bytes.
std::size_t NetworkMegabytes(std::size_t cacheBytes);

/// Says which network that is, and how to make it. Empty where no buffer stayed in a cache.
std::string NetworkAdvice(const CacheSize& size);

}  // namespace measure
