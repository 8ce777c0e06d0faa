// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vorn {

/// The record of one configured stress, shared by its workers, its averager and the reporter. Parse creates
/// it; StressBenchmark::stressMap owns it, and it outlives every thread that uses it. After Parse only
/// averageFps and the values in threadFps change, and threadFps.size() == threadNum.
class StressRegister {
 public:
  std::uint32_t threadNum = 1;  ///< worker threads: the section's "Level"
  std::uint32_t sleepUs = 0;    ///< pause after each operation, microseconds; 0: none
  std::string file;             ///< model file, for the AI core stress alone
  double averageFps = 0.0;      ///< mean of threadFps, updated once a second; read and written without a lock
  std::mutex fpsMutex;          ///< guards threadFps
  std::vector<double> threadFps;  ///< slot i: operations per second of busy time of worker i
};

}  // namespace vorn

/// Starts one stress: logs the start line, starts threadNum workers with indices from 0, appends them to
/// `threads` and returns without waiting for them. Called once for each configured stress. Threads: the main
/// thread alone.
using StressLauncher = std::function<void(std::unique_ptr<vorn::StressRegister>& reg,
                                          std::vector<std::thread>& threads, volatile int& stopFlag)>;
