// SPDX-License-Identifier: Apache-2.0
#include "remote_sink.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <system_error>

#include "sink.h"

namespace ara::log {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kFirstPause{1};
// The longest pause between two attempts when the receiver is away or reads nothing.
constexpr milliseconds kLongestPause{50};

// Room for " [cut]" and " [up to N lost before]".
constexpr std::size_t kMarksBytes = Sink::kTailBytes + 12;

std::uint32_t Uptime() {
  std::timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
  return static_cast<std::uint32_t>(now.tv_sec * 10'000 + now.tv_nsec / 100'000);
}

/// Blocks all signals in this thread while it exists. Threads that are started meanwhile inherit that.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &old_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t old_{};
};

}  // namespace

std::string RemoteSink::Start() {
  try {
    const SignalsBlocked blocked;
    thread_ = std::thread([this] { Run(); });
  } catch (const std::system_error& error) {
    return error.what();
  }
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return opened_; });
  if (failure_ == nullptr) return "";
  lock.unlock();
  thread_.join();
  return failure_;
}

void RemoteSink::SetApplication(const std::string& id, const std::string& description) {
  if (abandoned_) return;
  Application next{id, description};
  const std::lock_guard lock(mutex_);
  nextApplication_ = std::move(next);
  applicationChanged_ = true;
}

bool RemoteSink::Deliver(const RemoteHeader& header, FixedText::View text) {
  RemoteRecord* const record = queue_.Claim();
  if (record == nullptr) {
    if (queue_.Closed()) return false;
    lost_.fetch_add(1, std::memory_order_relaxed);
    unmarked_.fetch_add(1, std::memory_order_relaxed);
    return true;
  }
  record->header = header;
  record->uptime = Uptime();
  // Read first: it is nearly always zero, and a read leaves the cache line shared between the processors.
  record->lostBefore =
      unmarked_.load(std::memory_order_relaxed) == 0 ? 0 : unmarked_.exchange(0, std::memory_order_relaxed);
  FixedText line(record->text, sizeof record->text);
  if (!line.AppendEscaped(text, sizeof record->text - kMarksBytes)) line.Append(" [cut]");
  record->textLength = static_cast<std::uint32_t>(line.size());
  queue_.Publish(record);
  return true;
}

void RemoteSink::Abandon() {
  abandoned_ = true;
  queue_.Close();
}

std::uint64_t RemoteSink::Stop() {
  if (abandoned_) return 0;
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    deadline_ = Clock::now() + kFlushTime;
  }
  changed_.notify_all();
  queue_.Close();

  std::unique_lock lock(mutex_);
  // A little longer than the forwarding thread itself waits. If it hangs in the port, it is not joined.
  const bool ended = changed_.wait_until(lock, deadline_ + kLongestPause * 4, [this] { return ended_; });
  lock.unlock();
  if (ended && thread_.joinable()) thread_.join();
  return lost_ + queue_.Remaining();
}

void RemoteSink::Run() {
  (void)pthread_setname_np(pthread_self(), "ara_log_remote");
  {
    const char* const failure = port_->Open();
    const std::lock_guard lock(mutex_);
    failure_ = failure;
    opened_ = true;
  }
  changed_.notify_all();
  if (failure_ != nullptr) return;

  Forward();
  port_->Close();
  CollectLeftBehind();
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
  }
  changed_.notify_all();
}

void RemoteSink::Forward() {
  for (;;) {
    ApplyApplication();
    // Stop counts what is still queued at the deadline as lost.
    if (queue_.Closed() && (queue_.Remaining() == 0 || PastDeadline())) return;
    RemoteRecord* const record = queue_.Front();
    if (record != nullptr) {
      if (!HandOver(*record)) return;
      queue_.Pop();
    } else if (!queue_.Closed()) {
      queue_.Wait();
    } else {
      // A record is claimed but not published yet: its thread was interrupted in between.
      std::this_thread::sleep_for(kFirstPause);
    }
  }
}

void RemoteSink::ApplyApplication() {
  if (!applicationChanged_.exchange(false)) return;
  Application next;
  {
    const std::lock_guard lock(mutex_);
    next = std::move(nextApplication_);
  }
  if (next.id == application_.id && next.description == application_.description) return;
  application_ = std::move(next);
  port_->SetApplication(application_.id, application_.description);
}

/// Forwards a record and waits until the receiver has taken it or it is lost. Returns false when the sink is
/// stopped before that: the record then stays in the queue, and the records behind it as well.
bool RemoteSink::HandOver(RemoteRecord& record) {
  const std::uint64_t lostBefore = record.lostBefore + carried_;
  FixedText line(record.text, sizeof record.text, record.textLength);
  if (lostBefore > 0) {
    line.Append(carriedIsUpperBound_ ? " [up to " : " [");
    line.AppendDecimal(lostBefore);
    line.Append(" lost before]");
    record.textLength = static_cast<std::uint32_t>(line.size());
  }
  carried_ = 0;
  if (!port_->Send(record)) {
    lost_.fetch_add(1, std::memory_order_relaxed);
    carried_ = lostBefore + 1;
    return true;
  }
  carriedIsUpperBound_ = false;
  for (milliseconds pause = kFirstPause;; pause = std::min(2 * pause, kLongestPause)) {
    const RemotePort::State state = port_->Settle();
    CollectLeftBehind();
    if (state == RemotePort::State::kIdle) return true;
    std::unique_lock lock(mutex_);
    const bool stopping = stopping_;
    if (stopping && (state == RemotePort::State::kAway || Clock::now() >= deadline_)) return false;
    changed_.wait_for(lock, stopping ? kFirstPause : pause, [&] { return stopping_ != stopping; });
  }
}

void RemoteSink::CollectLeftBehind() {
  const std::uint64_t left = port_->TakeLeftBehind();
  if (left == 0) return;
  lost_.fetch_add(left, std::memory_order_relaxed);
  upperBound_ = true;
  carried_ += left;
  carriedIsUpperBound_ = true;
}

bool RemoteSink::PastDeadline() {
  const std::lock_guard lock(mutex_);
  return Clock::now() >= deadline_;
}

}  // namespace ara::log
