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

/// The sink of records that leave the process: a bounded queue, and one thread that takes them from there to
/// a port. A record that finds the queue full is lost; each loss is counted, and the next record that gets
/// through ends in " [N lost before]", or " [up to N lost before]" where a receiver has left some behind that
/// may have been others'. Without a receiver the records wait in the queue. Never destroyed: a thread may be
/// about to deliver when the process ends.
class RemoteSink {
 public:
  static constexpr std::size_t kCapacity = 1024;
  static constexpr std::chrono::milliseconds kFlushTime{1000};

  explicit RemoteSink(std::unique_ptr<RemotePort> port, std::size_t capacity = kCapacity)
      : queue_(capacity), port_(std::move(port)) {}

  /// Opens the port and starts the forwarding thread, in which all signals are blocked. Returns an empty
  /// text, or why there is no remote sink; it must not be used then. Call it once.
  std::string Start();

  /// Names the application; holds for the records that are forwarded from here on.
  void SetApplication(const std::string& id, const std::string& description);

  /// Queues a record with the time of this call. A text that is too long is cut and marked. Returns false
  /// when the sink has been stopped and took nothing; a record that was lost has been taken. Threads: any,
  /// and signal handlers: takes no lock, allocates nothing and waits for no one.
  bool Deliver(const RemoteHeader& header, FixedText::View text);

  /// Lets no record in any more and waits until the queued ones are forwarded: not for a receiver that is not
  /// there, and no longer than kFlushTime. Returns how many records were lost since the start.
  std::uint64_t Stop();

  /// Whether fewer may have been lost than Stop has returned.
  bool LostIsUpperBound() const { return upperBound_; }

  /// For the child of a fork, which has no forwarding thread and may find the locks taken for good: lets no
  /// record in any more, and leaves nothing to stop.
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

  std::atomic<std::uint64_t> lost_{0};      ///< all of them
  std::uint64_t carried_ = 0;               ///< lost while they were forwarded; no record says so yet
  std::atomic<std::uint32_t> unmarked_{0};  ///< found the queue full; no record says so yet
  std::atomic<bool> upperBound_{false};     ///< some of them may be others'
  bool carriedIsUpperBound_ = false;
  std::atomic<bool> abandoned_{false};

  struct Application {
    std::string id;
    std::string description;
  };
  Application application_;  ///< as the port knows it; the forwarding thread's

  // Between the application's threads that start and stop the sink and the forwarding one; no record waits
  // here.
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
