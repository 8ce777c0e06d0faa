// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "remote_port.h"

namespace log_test {

using ara::log::RemotePort;
using ara::log::RemoteRecord;

/// Records the calls of the port and decides its answers. It outlives the sink, which the product never
/// destroys.
struct Receiver {
  std::atomic<RemotePort::State> state{RemotePort::State::kIdle};
  std::atomic<bool> refuses{false};
  std::atomic<bool> hangs{false};
  std::atomic<int> refused{0};
  std::atomic<std::uint64_t> leftBehind{0};
  std::atomic<std::uint64_t> leftBehindAtEnd{0};
  std::atomic<int> settled{0};
  std::function<void()> onSettle;  ///< called before each answer
  const char* failure = nullptr;

  std::mutex mutex;
  std::vector<RemoteRecord> records;  ///< as they were sent
  std::vector<std::string> texts;
  std::vector<std::string> calls;
  sigset_t blocked{};
  char threadName[16] = "";
  std::vector<std::chrono::steady_clock::time_point> unsettled;  ///< when Settle was called without success

  void Note(const std::string& call) {
    const std::lock_guard lock(mutex);
    calls.push_back(call);
  }
  std::vector<std::string> Texts() {
    const std::lock_guard lock(mutex);
    return texts;
  }
  /// Waits until `count` records have been sent.
  void WaitFor(std::size_t count) {
    while (Texts().size() < count) std::this_thread::yield();
  }
  void WaitForCall(const std::string& call) {
    for (bool called = false; !called; std::this_thread::yield()) {
      const std::lock_guard lock(mutex);
      called = std::find(calls.begin(), calls.end(), call) != calls.end();
    }
  }
  /// Waits until the sink has called Settle again.
  void WaitUntilSettledAgain() {
    const int before = settled;
    while (settled < before + 2) std::this_thread::yield();
  }
};

class FakePort : public RemotePort {
 public:
  explicit FakePort(Receiver& receiver) : receiver_(receiver) {}
  const char* Open() override {
    pthread_sigmask(SIG_SETMASK, nullptr, &receiver_.blocked);
    (void)pthread_getname_np(pthread_self(), receiver_.threadName, sizeof receiver_.threadName);
    receiver_.Note("open");
    return receiver_.failure;
  }
  void SetApplication(const std::string& id, const std::string& description) override {
    receiver_.Note("application " + id + " " + description);
  }
  bool Send(const RemoteRecord& record) override {
    while (receiver_.hangs) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (receiver_.refuses) {
      ++receiver_.refused;
      return false;
    }
    const std::lock_guard lock(receiver_.mutex);
    receiver_.records.push_back(record);
    receiver_.texts.emplace_back(record.text, record.textLength);
    return true;
  }
  RemotePort::State Settle() override {
    if (receiver_.onSettle) receiver_.onSettle();
    const RemotePort::State state = receiver_.state;
    if (state != RemotePort::State::kIdle) {
      const std::lock_guard lock(receiver_.mutex);
      receiver_.unsettled.push_back(std::chrono::steady_clock::now());
    }
    ++receiver_.settled;
    return state;
  }
  std::uint64_t TakeLeftBehind() override { return receiver_.leftBehind.exchange(0); }
  void Close() override {
    receiver_.Note("close");
    receiver_.leftBehind += receiver_.leftBehindAtEnd;
  }

 private:
  Receiver& receiver_;
};

}  // namespace log_test
