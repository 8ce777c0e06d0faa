// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform.h"
#include "stress_register.h"

/// The records of the configured stresses by stress name.
using StressMap = std::unordered_map<std::string, std::unique_ptr<vorn::StressRegister>>;

/// 0: run, 1: stop. SignalHandler and the run-time limiter set it to 1; nothing sets it back. Every loop
/// polls it. A plain volatile int without lock or atomic operation; this is deliberate.
extern volatile int stopFlag;

/// Launchers by stress name, filled before main runs. Parse produces the same four names.
extern std::unordered_map<std::string, StressLauncher> stressRegistry;

/// One run of the benchmark: Init, then Start unless a stop was requested during Init, then Release. The
/// destructor frees the records and the joined threads; it does not release the platform. The data members
/// are public so that tests can examine them between two steps. Threads: the main thread alone.
class StressBenchmark {
 public:
  explicit StressBenchmark(const std::string& path) : configPath(path) {}

  /// Reads the configuration, installs the SIGINT handler, starts logging and the platform, and reads the
  /// stress sections. Returns false and logs the reason when the platform does not start or a section is
  /// faulty; nothing is released then. When the file cannot be read, the configuration reader's exception
  /// leaves Init.
  bool Init();

  /// True when a stop has been requested.
  bool IsStopped() { return stopFlag != 0; }

  /// Launches every configured stress and the monitors, and returns when all their threads have ended.
  void Start();

  /// Releases the platform. Returns false and logs an error when that failed.
  bool Release();

  /// Reads the stress sections into stressMap. Stops at the first fault and logs it. Returns 0, or 10 after a
  /// fault.
  int Parse();

  std::uint32_t logMode = 6;    ///< QetLogModeType; 6: file and console
  std::uint32_t logLevel = 4;   ///< QetLogLevelType; 4: info
  std::uint32_t runTimes = 40;  ///< seconds
  Ormis::QetContext context{};
  Ormis::QetContextParameters contextParams{};
  std::string configPath;
  std::vector<std::thread> threads;  ///< of each stress workers and averager, then reporter, then limiter
  StressMap stressMap;
};

/// The SIGINT handler: requests a stop and logs the signal.
void SignalHandler(int signal);

/// Stores the mean of the record's threadFps in its averageFps, once a second, until `stop` is nonzero.
void RateAverager(std::unique_ptr<vorn::StressRegister>& reg, const volatile int& stop);

/// Prints one line with the average rate of every stress to standard output, once a second, until `stop` is
/// nonzero.
void RateReporter(const StressMap& stresses, const volatile int& stop);

/// Sets `stop` to 1 after `runTimes` seconds and returns one second later. Returns earlier when something
/// else has set `stop`.
void RunTimeLimiter(std::uint32_t runTimes, volatile int& stop);

/// The program. Its one argument is the path of the configuration file; further arguments are ignored.
/// Returns main's result.
int RunStressBenchmark(int argc, const char* const* argv);
