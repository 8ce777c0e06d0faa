// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "fixed_text.h"
#include "record_queue.h"
#include "remote_port.h"

namespace ara::log {

/// The sink of records that leave the process: a bounded queue, and one thread that forwards them to a port.
/// Without a receiver the records wait in the queue. A record that finds the queue full is lost. Losses are
/// counted, and the next record that gets through ends in " [N lost before]". It ends in " [up to N lost
/// before]" when a receiver died and some of its unread records may have been another application's. The sink
/// is never destroyed: a thread may be about to deliver when the process ends.
class RemoteSink {
 public:
  static constexpr std::size_t kCapacity = 1024;
  static constexpr std::chrono::milliseconds kFlushTime{1000};

  explicit RemoteSink(std::unique_ptr<RemotePort> port, std::size_t capacity = kCapacity)
      : queue_(capacity), port_(std::move(port)) {}

  /// Starts the forwarding thread, in which all signals are blocked, and opens the port in it. Returns an
  /// empty text, or the reason why the sink cannot be used. Call it once.
  std::string Start();

  /// Sets the application of the records that are forwarded from here on.
  void SetApplication(const std::string& id, const std::string& description);

  /// Queues a record with the time of this call. A text that is too long is cut and marked. Returns true when
  /// the record was queued, or lost and counted; false when the sink has been stopped. Threads: any, and
  /// signal handlers: takes no lock, allocates nothing and waits for no one.
  bool Deliver(const RemoteHeader& header, FixedText::View text);

  /// Accepts no more records, and waits until the queued ones are forwarded: for at most kFlushTime, and not
  /// at all when there is no receiver. Returns how many records were lost since the start.
  std::uint64_t Stop();

  /// True when fewer records may have been lost than Stop has returned.
  bool LostIsUpperBound() const { return upperBound_; }

  /// Accepts no more records, and leaves Stop nothing to do. Called in the child of a fork, which has no
  /// forwarding thread and in which the locks may stay locked forever.
  void Abandon();

 private:
  using Clock = std::chrono::steady_clock;

  void Run();
  void Forward();
  void ApplyApplication();
  bool HandOver(RemoteRecord& record);
  void CollectLeftBehind();
  bool PastDeadline();

  RecordQueue queue_;
  const std::unique_ptr<RemotePort> port_;
  std::thread thread_;

  std::atomic<std::uint64_t> lost_{0};      ///< all losses
  std::uint64_t carried_ = 0;               ///< lost while forwarding, and in no record's mark yet
  std::atomic<std::uint32_t> unmarked_{0};  ///< lost because the queue was full, and in no record's mark yet
  std::atomic<bool> upperBound_{false};     ///< some of lost_ may be other applications' records
  bool carriedIsUpperBound_ = false;        ///< some of carried_ may be other applications' records
  std::atomic<bool> abandoned_{false};

  struct Application {
    std::string id;
    std::string description;
  };
  Application application_;  ///< the one that the port has; used by the forwarding thread alone

  // Guards the members below, which the forwarding thread shares with the threads that start and stop the
  // sink. Delivering a record does not take it.
  std::mutex mutex_;
  std::condition_variable changed_;
  const char* failure_ = nullptr;
  Clock::time_point deadline_;
  Application nextApplication_;
  std::atomic<bool> applicationChanged_{false};
  bool opened_ = false;
  bool stopping_ = false;
  bool ended_ = false;
};

}  // namespace ara::log
