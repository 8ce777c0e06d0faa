// SPDX-License-Identifier: Apache-2.0
#include "stress_bencmark.h"

#include <chrono>
#include <csignal>
#include <cstddef>
#include <exception>
#include <iostream>
#include <utility>

#include "aicore_stress.h"
#include "cpu_stress.h"
#include "kivu_venc_stress.h"
#include "kivu_vpc_stress.h"
#include "log_site.h"

namespace {

constexpr std::uint32_t kMinRunTimesS = 40;
constexpr std::uint32_t kMaxLevel = 10;
constexpr std::chrono::nanoseconds kMonitorPeriod{1'000'000'000};

// One stress section of the configuration file.
struct Section {
  const char* key;
  const char* levelPath;  // the key as log messages name it
  const char* filePath;   // null: the section has no "File"
  const char* stressName;
  std::uint32_t sleepUs;
  const char* rangeMessage;  // one begins with a blank: tools that read the log rely on it
};

constexpr Section kSections[] = {
    {"VPC", "VPC: Level", nullptr, "kivuVpcStress", 100, " vpc stress level:[0, 10], now is : "},
    {"VENC", "VENC: Level", nullptr, "kivuVencStress", 100, "venc stress level:[0, 10], now is : "},
    {"CPU", "CPU: Level", nullptr, "cpuStress", 1000, "cpu stress level:[0, 10], now is : "},
    {"AIC", "AIC: Level", "AIC: File", "aicStress", 1000, "aic stress level:[0, 10], now is : "},
};

// Returns false when the key is absent. A value that does not convert is stored as 0.
bool ReadSetting(const Ormis::QetYamlNode& yaml, const char* key, std::uint32_t& member) {
  if (yaml.children.count(key) == 0) return false;
  unsigned int value = 0;
  yaml[key].AsIf(value);
  member = value;
  return true;
}

}  // namespace

volatile int stopFlag = 0;

std::unordered_map<std::string, StressLauncher> stressRegistry = {
    {"kivuVpcStress", runVpcStress},
    {"kivuVencStress", runVencStress},
    {"cpuStress", runCpuStress},
    {"aicStress", runAicStress},
};

void SignalHandler(int signal) {
  stopFlag = 1;  // first: the stop must not depend on the logging
  STBM_LOG_DEBUG("===== Signal Interactive attention received. signal: " << signal << " stopFlag_: "
                                                                         << stopFlag << " =====");
}

bool StressBenchmark::Init() {
  const std::string appId = "STBM";
  const std::string appDescription = "Stress Benchmark for DDR Optimizer in VORN.";
  const std::string logDirectory = "./log";

  const Ormis::QetYamlNode yaml(configPath);
  ReadSetting(yaml, "logMode", logMode);
  ReadSetting(yaml, "logLevel", logLevel);

  // Creates the singleton before the handler is installed. The handler logs: if it interrupted the creation,
  // it would wait forever for the creation to end.
  Ormis::OrmisLogger::GetInstance();
  (void)std::signal(SIGINT, SignalHandler);

  const ara::log::LogLevel level = Ormis::ParseLogLevel(static_cast<Ormis::QetLogLevelType>(logLevel));
  ara::log::InitLogging(appId, appDescription, level,
                        Ormis::ParseLogMode(static_cast<Ormis::QetLogModeType>(logMode)), logDirectory);
  Ormis::OrmisLogger::GetInstance().logger = &ara::log::CreateLogger(
      appId, appId, Ormis::ParseLogLevel(static_cast<Ormis::QetLogLevelType>(logLevel)));

  if (ReadSetting(yaml, "runTimes", runTimes) && runTimes < kMinRunTimesS) {
    STBM_LOG_WARN("RunTimes should be larger " << kMinRunTimesS << " , now is: " << runTimes
                                               << ". runTimes will be set to " << kMinRunTimesS);
    runTimes = kMinRunTimesS;
  }

  context.name = "";
  context.deviceId = 0;
  contextParams.configuration = "";
  contextParams.deviceId = 0;
  if (Ormis::QetInitialize(context, contextParams) != 0) {
    STBM_LOG_ERROR("QetInitialize failed");
    return false;
  }
  STBM_LOG_INFO("QetInitialize success");
  if (Parse() != 0) {
    STBM_LOG_ERROR("Stress benchamrk parse failed");
    return false;
  }
  return true;
}

int StressBenchmark::Parse() {
  try {
    const Ormis::QetYamlNode yaml(configPath);
    for (const Section& section : kSections) {
      if (yaml.children.count(section.key) == 0) continue;
      vorn::StressRegister& record =
          *stressMap.emplace(section.stressName, std::make_unique<vorn::StressRegister>()).first->second;
      const Ormis::QetYamlNode node = yaml[section.key];
      if (!node.GetValue<unsigned int>("Level", record.threadNum)) {
        STBM_LOG_ERROR("Cannot find " << section.levelPath << " in Config File!");
        return 10;
      }
      if (section.filePath != nullptr && !node.GetValue<std::string>("File", record.file)) {
        STBM_LOG_ERROR("Cannot find " << section.filePath << " in Config File!");
        return 10;
      }
      record.sleepUs = section.sleepUs;
      {
        const std::lock_guard<std::mutex> lock(record.fpsMutex);
        record.threadFps.resize(record.threadNum);
      }
      // Checked after the resize. The record stays in the map, which is harmless because Init fails.
      if (record.threadNum > kMaxLevel) {
        STBM_LOG_ERROR(section.rangeMessage << record.threadNum);
        return 10;
      }
    }
    return 0;
  } catch (const std::exception& error) {
    // The function name is "Load". Tools that read the log rely on it.
    STBM_LOG_AT(STBM_HERE_AS("Load"), kError, LogError,
                "Load " << configPath << " happen error, the message is: " << error.what());
    return 10;
  }
}

void StressBenchmark::Start() {
  for (auto& [name, record] : stressMap) {
    STBM_LOG_INFO("stressName : " << name);
    // For an unknown name this inserts an empty launcher and throws std::bad_function_call.
    stressRegistry[name](record, threads, stopFlag);
    threads.push_back(std::thread(RateAverager, std::ref(record), std::ref(stopFlag)));
  }
  threads.push_back(std::thread(RateReporter, std::ref(stressMap), std::ref(stopFlag)));
  threads.push_back(std::thread(RunTimeLimiter, runTimes, std::ref(stopFlag)));
  for (std::thread& thread : threads) {
    if (thread.joinable()) thread.join();
  }
}

bool StressBenchmark::Release() {
  if (Ormis::QetRelease(context) != 0) {
    STBM_LOG_ERROR("Fail to relase ctx!");
    return false;
  }
  return true;
}

void RateAverager(std::unique_ptr<vorn::StressRegister>& reg, const volatile int& stop) {
  if (stop != 0) return;
  do {
    if (reg->threadNum != 0) {
      double sum = 0.0;
      for (std::uint32_t i = 0; i < reg->threadNum; ++i) {
        // Locked once for each slot, so that no worker waits for a whole pass.
        const std::lock_guard<std::mutex> lock(reg->fpsMutex);
        sum += reg->threadFps.at(i);
      }
      reg->averageFps = sum / reg->threadNum;
    }
    std::this_thread::sleep_for(kMonitorPeriod);
  } while (stop == 0);
}

void RateReporter(const StressMap& stresses, const volatile int& stop) {
  if (stop != 0) return;
  do {
    std::string line;
    for (const auto& [name, record] : stresses) {
      line += name + " : " + std::to_string(record->averageFps) + " fps. ";
    }
    std::this_thread::sleep_for(kMonitorPeriod);  // the line shows the rates from before the pause
    line += "ispStress : 30.0 fps.";              // a constant: there is no such stress
    std::cout << line << std::endl;
  } while (stop == 0);
}

void RunTimeLimiter(std::uint32_t runTimes, volatile int& stop) {
  if (stop != 0) return;
  std::uint32_t counter = 1;
  do {
    if (counter > runTimes) stop = 1;
    // The flag is read after the sleep, so the limiter ends one second after it has set the flag.
    std::this_thread::sleep_for(kMonitorPeriod);
    counter += 1;
  } while (stop == 0);
}

int RunStressBenchmark(int argc, const char* const* argv) {
  if (argc <= 1) {
    std::cerr << "Input error! Please input config path!" << std::endl;
    return 0;  // deliberately not a failure
  }
  StressBenchmark benchmark(argv[1]);
  if (!benchmark.Init()) return -1;  // without a release, even when the platform has started
  if (!benchmark.IsStopped()) benchmark.Start();
  return benchmark.Release() ? 0 : -1;
}
