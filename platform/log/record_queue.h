#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ara/log/logging.h"

namespace ara::log {

/// Where a record comes from.
struct RemoteHeader {
  std::uint64_t contextId = 0;               ///< up to 8 characters in order of memory
  const char* contextDescription = nullptr;  ///< lives until the process ends; null: none
  std::uint32_t context = 0;                 ///< number of the logger, from 0
  std::uint32_t threadId = 0;
  LogLevel level = LogLevel::kOff;
};

/// A record on its way to the remote sink.
struct RemoteRecord {
  /// Bytes of text with what the sink adds to it.
  static constexpr std::size_t kTextCapacity = 1280;

  RemoteHeader header;
  std::uint32_t uptime;      ///< when it was made, on CLOCK_MONOTONIC, in units of 0.1 ms
  std::uint32_t lostBefore;  ///< records that found the queue full before it
  std::uint32_t textLength;
  char text[kTextCapacity];
};

/// A bounded queue of records, from any number of producers to one consumer.
/// Producers take no lock, allocate nothing and wait for no one, so they may be signal handlers, even one
/// that interrupts a producer anywhere: a record that is claimed and not published yet holds back the
/// consumer, and with it the records behind, but no producer.
class RecordQueue {
 public:
  /// `capacity` is a power of two.
  explicit RecordQueue(std::size_t capacity);
  RecordQueue(const RecordQueue&) = delete;
  RecordQueue& operator=(const RecordQueue&) = delete;

  /// Producer: returns the record to fill in and to publish, or null when the queue is full or closed. Its
  /// content is unspecified.
  RemoteRecord* Claim();
  /// Producer: hands a claimed record to the consumer. Wakes it when it waits; does not change errno.
  void Publish(RemoteRecord* record);

  /// Consumer: the oldest record, or null when there is none or it is not published yet.
  RemoteRecord* Front();
  /// Consumer: gives the oldest record, which Front has returned, back to the producers.
  void Pop();
  /// Consumer: returns when Front may have a record or the queue is closed; may return earlier.
  void Wait();

  /// Lets no record in any more, for good; those claimed before stay. Wakes the consumer. Threads: any.
  void Close();
  bool Closed() const;
  /// Records that are claimed and not popped yet; once the queue is closed, that only falls. Threads: any.
  std::uint64_t Remaining() const;

 private:
  struct Slot : RemoteRecord {
    /// Its ticket: free for it; one more: published; plus the capacity: popped.
    std::atomic<std::uint64_t> sequence;
  };

  void WakeConsumer();

  // The producers' line of the cache, and the consumer's.
  alignas(64) std::atomic<std::uint64_t> tail_{0};  ///< the next ticket; its highest bit: closed
  std::vector<Slot> slots_;
  const std::uint64_t mask_;
  std::atomic<std::uint32_t> sleeping_{0};          ///< the consumer waits on it, or is about to
  alignas(64) std::atomic<std::uint64_t> head_{0};  ///< tickets popped; the consumer's
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free &&
                  std::atomic<std::uint32_t>::is_always_lock_free &&
                  sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t),
              "producers are signal handlers, and the kernel reads the flag");

}  // namespace ara::log
