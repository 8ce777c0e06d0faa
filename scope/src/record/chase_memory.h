// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

namespace scope {

/// Memory whose lines hold a chain of pointers: a single cycle that visits each line once, in random order.
/// The address of a line is known only when the one before has arrived, so neither the processor nor a
/// prefetcher can run ahead. Threads: one.
class ChaseMemory {
 public:
  enum class Pages { kHuge, kUsual };
  /// The first bytes of a line: the next line of the cycle.
  struct Line {
    Line* next;
  };

  /// Reserves `bytes`, rounded down to whole lines, in huge pages if `wanted` and the system gives them.
  /// Throws std::bad_alloc if there is no such memory.
  explicit ChaseMemory(std::uint64_t bytes, Pages wanted = Pages::kHuge);
  ~ChaseMemory();
  ChaseMemory(const ChaseMemory&) = delete;
  ChaseMemory& operator=(const ChaseMemory&) = delete;

  /// Extends the cycle to the first `bytes` of the memory. It never shrinks.
  void GrowTo(std::uint64_t bytes);

  /// Reads one line of each 32 KiB of the cycle, of each page where they are small, all at once rather than
  /// one after the other; of a large cycle some 2^16 lines. So the caches hold again what an access needs to
  /// find its page. Returns the number of lines.
  std::uint64_t TouchPages() const;

  /// A line of the cycle. There is one after the first call of GrowTo.
  Line* Start() const { return reinterpret_cast<Line*>(data_); }
  std::uint64_t Bytes() const { return bytes_; }
  std::uint64_t CycleBytes() const { return lines_ * lineBytes_; }
  /// All of the cycle was in huge pages when it grew last.
  bool IsHuge() const { return isHuge_; }
  std::uint64_t LineBytes() const { return lineBytes_; }

  /// Bytes of the cycle that are in huge pages now, as the system says.
  std::uint64_t HugeBytes() const;
  static std::uint64_t HugePageBytes();

 private:
  Line* At(std::uint64_t line) const { return reinterpret_cast<Line*>(data_ + line * lineBytes_); }

  unsigned char* mapping_ = nullptr;
  std::size_t mappingBytes_ = 0;
  unsigned char* data_ = nullptr;
  std::uint64_t lineBytes_;
  std::uint64_t bytes_;
  std::uint64_t lines_ = 0;  ///< of the cycle
  bool isHuge_ = false;
  std::uint64_t random_ = 1;  ///< the same order in every run
};

/// The bytes of a line of the last cache: what one access takes from memory.
std::uint64_t CacheLineBytes();

}  // namespace scope
