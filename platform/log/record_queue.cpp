// SPDX-License-Identifier: Apache-2.0
#include "record_queue.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace ara::log {

namespace {

constexpr std::uint64_t kClosed = std::uint64_t{1} << 63;

void Futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value) {
  const int error = errno;
  // The result does not matter: the consumer checks again after a wait, and a wake-up needs no answer.
  (void)syscall(SYS_futex, &word, operation, value, nullptr, nullptr, 0);
  errno = error;
}

}  // namespace

RecordQueue::RecordQueue(std::size_t capacity) : slots_(capacity), mask_(capacity - 1) {
  for (std::size_t i = 0; i < capacity; ++i) slots_[i].sequence.store(i, std::memory_order_relaxed);
}

RemoteRecord* RecordQueue::Claim() {
  std::uint64_t ticket = tail_.load(std::memory_order_relaxed);
  for (;;) {
    // Closing changes the tail, so the exchange below fails if the queue is closed meanwhile.
    if ((ticket & kClosed) != 0) return nullptr;
    Slot& slot = slots_[ticket & mask_];
    const std::uint64_t sequence = slot.sequence.load(std::memory_order_acquire);
    if (sequence == ticket) {
      if (tail_.compare_exchange_weak(ticket, ticket + 1, std::memory_order_relaxed)) return &slot;
    } else if (sequence < ticket) {
      return nullptr;
    } else {
      ticket = tail_.load(std::memory_order_relaxed);
    }
  }
}

void RecordQueue::Publish(RemoteRecord* record) {
  auto* const slot = static_cast<Slot*>(record);
  // Sequentially consistent, as in Wait: either this thread sees that the consumer sleeps, or the consumer
  // sees the record.
  slot->sequence.store(slot->sequence.load(std::memory_order_relaxed) + 1, std::memory_order_seq_cst);
  if (sleeping_.load(std::memory_order_seq_cst) != 0) WakeConsumer();
}

RemoteRecord* RecordQueue::Front() {
  const std::uint64_t head = head_.load(std::memory_order_relaxed);
  Slot& slot = slots_[head & mask_];
  return slot.sequence.load(std::memory_order_seq_cst) == head + 1 ? &slot : nullptr;
}

void RecordQueue::Pop() {
  const std::uint64_t head = head_.load(std::memory_order_relaxed);
  slots_[head & mask_].sequence.store(head + slots_.size(), std::memory_order_release);
  // Pairs with the acquire in Remaining: who sees this head also sees a tail that is not behind it. The
  // slot's reuse is ordered by its sequence.
  head_.store(head + 1, std::memory_order_release);
}

void RecordQueue::Wait() {
  sleeping_.store(1, std::memory_order_seq_cst);
  if (Front() == nullptr && !Closed()) Futex(sleeping_, FUTEX_WAIT_PRIVATE, 1);
  sleeping_.store(0, std::memory_order_seq_cst);
}

void RecordQueue::WakeConsumer() {
  // Of the producers that see it asleep only one wakes it.
  if (sleeping_.exchange(0) != 0) Futex(sleeping_, FUTEX_WAKE_PRIVATE, 1);
}

void RecordQueue::Close() {
  tail_.fetch_or(kClosed, std::memory_order_seq_cst);
  WakeConsumer();
}

bool RecordQueue::Closed() const {
  return (tail_.load(std::memory_order_seq_cst) & kClosed) != 0;
}

std::uint64_t RecordQueue::Remaining() const {
  // The head is read first: the tail that is read after it cannot be behind it.
  const std::uint64_t head = head_.load(std::memory_order_acquire);
  return (tail_.load(std::memory_order_acquire) & ~kClosed) - head;
}

}  // namespace ara::log
