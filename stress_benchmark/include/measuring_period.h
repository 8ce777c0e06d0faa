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

/// The measuring period of one worker: adds up the time of its cycles and publishes the rate, in operations
/// per second of busy time, once more than a second of busy time and pauses has been added up. A cycle is
/// StartCycle(), the operation, EndCycle(). One object a worker, on the worker's thread.
class MeasuringPeriod {
 public:
  /// `index` selects the worker's slot in threadFps; `where` is the place that a failed store is logged
  /// under.
  MeasuringPeriod(std::unique_ptr<vorn::StressRegister>& reg, int index, ara::log::SourceLocation where)
      : reg_(reg), index_(index), where_(where) {}

  void StartCycle() { start_ = Clock::now(); }

  /// Ends the operation that StartCycle began, pauses for the record's sleepUs, and publishes when due.
  void EndCycle() {
    const Clock::time_point workEnd = Clock::now();
    const std::uint32_t sleepUs = reg_->sleepUs;
    if (sleepUs != 0) std::this_thread::sleep_for(std::chrono::nanoseconds(std::int64_t{sleepUs} * 1000));
    busyMs_ += WholeMs(workEnd - start_);
    elapsedMs_ += WholeMs(Clock::now() - start_);
    ++count_;
    // Both strictly greater. Work below a millisecond leaves busyMs_ at 0: then the period goes on, however
    // long, until one operation takes a whole millisecond.
    if (busyMs_ > 0.0 && elapsedMs_ > kPeriodMs) Publish();
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr double kPeriodMs = 1000.0;

  // Whole milliseconds, cut off in every single cycle on purpose.
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
