// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "log_site.h"
#include "stress_register.h"

/// Measures the rate of one worker. A cycle is StartCycle(), the operation, EndCycle(). The object adds up
/// the operations' time (busy time) and the whole cycles' time (elapsed time, pauses included). When the
/// elapsed time exceeds one second and there is busy time, it publishes operations per second of busy time
/// and starts a new period. Threads: one object for each worker, used by the worker's thread alone.
class MeasuringPeriod {
 public:
  /// `index` selects the worker's slot in threadFps. `where` is the source location of the log line that
  /// reports a missing slot.
  MeasuringPeriod(std::unique_ptr<vorn::StressRegister>& reg, int index, ara::log::SourceLocation where)
      : reg_(reg), index_(index), where_(where) {}

  void StartCycle() { start_ = Clock::now(); }

  /// Ends the operation, pauses for the record's sleepUs, and publishes the rate when the period is over.
  void EndCycle() {
    const Clock::time_point workEnd = Clock::now();
    const std::uint32_t sleepUs = reg_->sleepUs;
    if (sleepUs != 0) std::this_thread::sleep_for(std::chrono::nanoseconds(std::int64_t{sleepUs} * 1000));
    busyMs_ += WholeMs(workEnd - start_);
    elapsedMs_ += WholeMs(Clock::now() - start_);
    ++count_;
    // Both comparisons are strict. Operations below one millisecond leave busyMs_ at 0; the period then lasts
    // until one operation takes a whole millisecond.
    if (busyMs_ > 0.0 && elapsedMs_ > kPeriodMs) Publish();
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr double kPeriodMs = 1000.0;

  // Each cycle's time is truncated to whole milliseconds; this is deliberate.
  static double WholeMs(Clock::duration span) {
    return static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(span).count());
  }

  void Publish() {
    try {
      const std::lock_guard<std::mutex> lock(reg_->fpsMutex);
      reg_->threadFps.at(static_cast<std::size_t>(index_)) = count_ / busyMs_ * 1000.0;
    } catch (const std::out_of_range& error) {
      STBM_LOG_AT(where_, kError, LogError, error.what());
    }
    busyMs_ = 0.0;
    elapsedMs_ = 0.0;
    count_ = 0;
  }

  std::unique_ptr<vorn::StressRegister>& reg_;
  int index_;
  ara::log::SourceLocation where_;
  Clock::time_point start_;
  double busyMs_ = 0.0;
  double elapsedMs_ = 0.0;
  std::uint32_t count_ = 0;
};
