// SPDX-License-Identifier: Apache-2.0
#include "copies.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "cpu_stress.h"

namespace measure {

namespace {

using Clock = std::chrono::steady_clock;

/// More memory than any cache holds, for all threads together.
constexpr std::size_t kFarBytes = std::size_t{1} << 30;

}  // namespace

Copies::Copies(std::size_t threads, Reach reach) {
  const std::size_t pairsAThread = reach == Reach::kFar
                                       ? std::max(std::size_t{2}, kFarBytes / (2 * kCopyBytes) / threads)
                                       : std::size_t{1};
  for (std::size_t i = 0; i < threads; ++i) pairs_.push_back(MakePairs(pairsAThread));
}

double Copies::Rate(const Ormis::portable::CopyRoutine& routine, double seconds) const {
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> copies{0};
  std::vector<std::thread> threads;
  threads.reserve(pairs_.size());
  const Clock::time_point start = Clock::now();
  for (const std::vector<Pair>& own : pairs_) {
    threads.emplace_back([&routine, &own, &stop, &copies] {
      std::uint64_t done = 0;
      while (!stop.load(std::memory_order_relaxed)) {
        const Pair& pair = own[done % own.size()];
        routine.copy(pair.destination.get(), pair.source.get(), kCopyBytes, nullptr);
        ++done;
      }
      copies += done;
    });
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  for (std::thread& thread : threads) thread.join();
  const double took = std::chrono::duration<double>(Clock::now() - start).count();
  return static_cast<double>(copies) * 2.0 * static_cast<double>(kCopyBytes) / took / 1e9;
}

/// Every page is written once, so that it is not the shared zero page.
std::vector<Copies::Pair> Copies::MakePairs(std::size_t count) {
  std::vector<Pair> pairs(count);
  for (Pair& pair : pairs) {
    pair.source.reset(new std::uint8_t[kCopyBytes]);
    pair.destination.reset(new std::uint8_t[kCopyBytes]);
    std::fill_n(pair.source.get(), kCopyBytes, std::uint8_t{1});
    std::fill_n(pair.destination.get(), kCopyBytes, std::uint8_t{2});
  }
  return pairs;
}

}  // namespace measure
