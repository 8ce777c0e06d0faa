#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "fixed_text.h"

namespace ara::log {

/// One place that lines go to: a file descriptor, and what was lost on the way to it.
/// Threads: any number may hand over lines at the same time, and signal handlers; lines never mix, because
/// each is one write(2) to a descriptor that appends. No operation waits for longer than about a second.
class Sink {
 public:
  /// Bytes that a line must leave free at its end for what the sink adds.
  static constexpr std::size_t kTail = 32;

  /// What the descriptor does when it cannot take a line at once.
  enum class Blocking : std::uint8_t { kNever, kPossible };

  constexpr Sink(int descriptor, Blocking blocking) : descriptor_(descriptor), blocking_(blocking) {}

  /// Hands over one line. `line` begins with a newline, which is sent only to end a line that the sink took
  /// in part; the newline at its end is added here, and before it "[N lost before]" when N lines could not be
  /// handed over since the last one. Returns null, or why the line is lost.
  const char* Deliver(FixedText line);

  /// Takes `descriptor` over; records on their way go to the old or to the new place. Returns false when that
  /// failed, with errno set: the sink then keeps its old place. Threads: one caller at a time.
  bool Replace(int descriptor);

  /// From here on lines are neither written nor counted.
  void Disable() { disabled_.store(true, std::memory_order_relaxed); }
  bool Disabled() const { return disabled_.load(std::memory_order_relaxed); }

 private:
  static bool WaitUntilReady(int descriptor, int* waits);
  const char* WriteOnce(const char* line, std::size_t size, int waits);

  std::atomic<int> descriptor_;
  const Blocking blocking_;
  std::atomic<bool> disabled_{false};
  std::atomic<bool> torn_{false};  ///< the last line was taken in part: no newline ends it yet
  std::atomic<std::uint32_t> lost_{0};
};

/// The system's text for an error number. Unlike strerror it neither allocates nor translates, so that it may
/// be used in a signal handler.
const char* ErrorText(int error);

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "a sink is used in signal handlers");

}  // namespace ara::log
