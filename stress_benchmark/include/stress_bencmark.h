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

/// 0: run, 1: stop. Raised by SignalHandler and by the run-time limiter, polled by every loop; never lowered.
/// A plain volatile int without lock or atomic operation, on purpose.
extern volatile int stopFlag;

/// Stress name to launcher, filled before main runs. The four names are those that Parse produces.
extern std::unordered_map<std::string, StressLauncher> stressRegistry;

/// One run of the benchmark: Init, then Start unless a stop was requested meanwhile, then Release. The main
/// thread alone calls the members. The destructor frees records and joined threads; it does not release the
/// platform. The members are public: this is a record with the steps of a run, and tests look at what a step
/// left behind.
class StressBenchmark {
 public:
  explicit StressBenchmark(const std::string& path) : configPath(path) {}

  /// Reads the configuration, takes SIGINT, starts logging and the platform. Returns false, with the reason
  /// logged, when the platform does not start or a section is faulty; nothing is released then. Throws what
  /// the configuration reader throws for a file that it cannot read.
  bool Init();

  /// True once a stop was requested.
  bool IsStopped() { return stopFlag != 0; }

  /// Launches every configured stress and the monitors, and returns when all their threads have ended.
  void Start();

  /// Releases the platform. Returns false, and logs, when that failed.
  bool Release();

  /// Reads the stress sections into stressMap and stops at the first fault, which it logs. Returns 0 or 10.
  int Parse();

  std::uint32_t logMode = 6;    ///< QetLogModeType; 6: file and console
  std::uint32_t logLevel = 4;   ///< QetLogLevelType; 4: info
  std::uint32_t runTimes = 40;  ///< seconds
  Ormis::QetContext context{};
  Ormis::QetContextParameters contextParams{};
  std::string configPath;
  std::vector<std::thread> threads;  ///< per stress its workers and its averager, then reporter and limiter
  StressMap stressMap;
};

/// Requests a stop; the SIGINT handler.
void SignalHandler(int signal);

/// Once a second puts the mean of the record's threadFps into its averageFps.
void RateAverager(std::unique_ptr<vorn::StressRegister>& reg, const volatile int& stop);

/// Once a second prints the average of every stress in one line on standard output.
void RateReporter(const StressMap& stresses, const volatile int& stop);

/// Raises the stop flag after `runTimes` seconds, and ends a second later.
void RunTimeLimiter(std::uint32_t runTimes, volatile int& stop);

/// The program: one argument, the configuration file; further ones are ignored. Returns main's result.
int RunStressBenchmark(int argc, const char* const* argv);
