// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "fixed_text.h"

namespace ara::log {

/// Writes lines to a file descriptor and counts the lines that are lost on the way.
/// Threads: any number of threads and signal handlers may deliver lines at the same time. Lines never mix,
/// because each is one write(2) to a descriptor that appends. No operation waits longer than about a second.
class Sink {
 public:
  /// Bytes that a line must leave free at its end: room for what Deliver adds.
  static constexpr std::size_t kTailBytes = 32;

  /// Whether a write to the descriptor can block.
  enum class Blocking : std::uint8_t { kNever, kPossible };

  constexpr Sink(int descriptor, Blocking blocking) : descriptor_(descriptor), blocking_(blocking) {}

  /// Writes one line. Requires: `line` begins with a newline, has none at its end, and has kTailBytes of free
  /// capacity. The first newline is written only when the line before was written in part. At the end
  /// " [N lost before]" is added when N lines have been lost since the last one, then the newline. Returns
  /// null, or the reason why the line is lost.
  const char* Deliver(FixedText line);

  /// Writes to `descriptor` from here on and owns it; lines that are being delivered go to the old file or to
  /// the new one. Returns false, with errno set, when that failed: `descriptor` is closed and the sink keeps
  /// its old file. Threads: one caller at a time.
  bool Replace(int descriptor);

  /// From here on Deliver neither writes nor counts.
  void Disable() { disabled_.store(true, std::memory_order_relaxed); }
  bool Disabled() const { return disabled_.load(std::memory_order_relaxed); }

 private:
  static bool WaitUntilReady(int descriptor, int* waits);
  const char* WriteOnce(const char* line, std::size_t size, int waits);

  std::atomic<int> descriptor_;
  const Blocking blocking_;
  std::atomic<bool> disabled_{false};
  std::atomic<bool> torn_{false};  ///< the last line was written in part and has no newline yet
  std::atomic<std::uint32_t> lost_{0};
};

/// The system's English text for an error number. Unlike strerror it may be used in a signal handler: it
/// neither allocates nor translates.
const char* ErrorText(int error);

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "a sink is used in signal handlers");

}  // namespace ara::log
