// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ara/log/logging.h"

namespace ara::log {

/// Who made a record, and at which level.
struct RemoteHeader {
  std::uint64_t contextId = 0;               ///< up to 8 characters, in the order of their bytes in memory
  const char* contextDescription = nullptr;  ///< lives until the process ends; null: none
  std::uint32_t context = 0;                 ///< number of the logger, from 0
  std::uint32_t threadId = 0;
  LogLevel level = LogLevel::kOff;
};

/// A record on its way to the remote sink.
struct RemoteRecord {
  /// Bytes of the text, including what the sink adds to it.
  static constexpr std::size_t kTextCapacity = 1280;

  RemoteHeader header;
  std::uint32_t uptime;      ///< when it was made, on CLOCK_MONOTONIC, in units of 0.1 ms
  std::uint32_t lostBefore;  ///< records that found the queue full before it
  std::uint32_t textLength;
  char text[kTextCapacity];
};

/// A bounded queue of records, from any number of producers to one consumer.
/// Producers take no lock, allocate nothing and wait for no one. So a signal handler may be a producer, even
/// when it has interrupted one: a record that is claimed but not yet published delays the consumer and the
/// records behind it, but no producer.
class RecordQueue {
 public:
  /// `capacity` is a power of two.
  explicit RecordQueue(std::size_t capacity);
  RecordQueue(const RecordQueue&) = delete;
  RecordQueue& operator=(const RecordQueue&) = delete;

  /// Producer: returns a record with unspecified content, to be filled in and published. Returns null when
  /// the queue is full or closed.
  RemoteRecord* Claim();
  /// Producer: hands a claimed record to the consumer and wakes it if it waits. Does not change errno.
  void Publish(RemoteRecord* record);

  /// Consumer: returns the oldest record, or null when there is none or when it is not published yet.
  RemoteRecord* Front();
  /// Consumer: removes the oldest record; its place is free for the producers. Requires: Front has returned
  /// it.
  void Pop();
  /// Consumer: waits until Front may have a record or the queue is closed. May return earlier.
  void Wait();

  /// Closes the queue for good: Claim returns null from here on; claimed records stay. Wakes the consumer.
  /// Threads: any.
  void Close();
  bool Closed() const;
  /// The number of records that are claimed and not yet removed. It never grows once the queue is closed.
  /// Threads: any.
  std::uint64_t Remaining() const;

 private:
  struct Slot : RemoteRecord {
    /// Says what the slot is ready for. Equal to a ticket: that ticket may claim it. Ticket + 1: published.
    /// Ticket + capacity: removed, so the next round's ticket may claim it.
    std::atomic<std::uint64_t> sequence;
  };

  void WakeConsumer();

  // Producers and consumer write to different cache lines.
  alignas(64) std::atomic<std::uint64_t> tail_{0};  ///< the next ticket; the highest bit is set when closed
  std::vector<Slot> slots_;
  const std::uint64_t mask_;
  std::atomic<std::uint32_t> sleeping_{0};          ///< 1 while the consumer waits or is about to
  alignas(64) std::atomic<std::uint64_t> head_{0};  ///< the number of removed records; the consumer's
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free &&
                  std::atomic<std::uint32_t>::is_always_lock_free &&
                  sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t),
              "signal handlers are producers, and the kernel reads the flag");

}  // namespace ara::log
