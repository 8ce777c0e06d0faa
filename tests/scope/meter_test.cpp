// SPDX-License-Identifier: Apache-2.0

// The meter in a program that counts its own calls.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <sstream>
#include <thread>

#include "child_process.h"
#include "engines.h"
#include "meter_reader.h"
#include "sanitizers.h"
#include "temporary_folder.h"

namespace {

using scope::ChildProcess;
using scope::MeterReader;
using scope::MeterSecond;
using scope::Sample;

struct Counted {
  std::uint64_t operations = 0;
  std::uint64_t busyNs = 0;
  std::uint64_t failures = 0;
  std::uint64_t aroundNs = 0;
  std::uint64_t cpus = 0;  ///< a bit for each of the first 64
  std::vector<std::uint64_t> latenciesNs;
  std::vector<std::uint64_t> firstNs;  ///< of each thread, around its first call
};

struct Report {
  std::map<std::string, Counted> engines;
  int allocations = -1;
  int threads = -1;
};

Report ReadReport(const std::string& path) {
  Report report;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string first;
    words >> first;
    if (first == "latency") {
      std::size_t engine = 0;
      std::uint64_t ns = 0;
      words >> engine >> ns;
      report.engines[scope::Engines()[engine].id].latenciesNs.push_back(ns);
    } else if (first == "first") {
      std::size_t engine = 0;
      std::uint64_t ns = 0;
      words >> engine >> ns;
      report.engines[scope::Engines()[engine].id].firstNs.push_back(ns);
    } else if (first == "around") {
      std::size_t engine = 0;
      words >> engine;
      words >> report.engines[scope::Engines()[engine].id].aroundNs;
    } else if (first == "cpus") {
      std::size_t engine = 0;
      words >> engine;
      words >> report.engines[scope::Engines()[engine].id].cpus;
    } else if (first == "allocations") {
      words >> report.allocations;
    } else if (first == "threads") {
      words >> report.threads;
    } else {
      Counted& counted = report.engines[scope::Engines()[std::stoul(first)].id];
      words >> counted.operations >> counted.busyNs >> counted.failures;
    }
  }
  return report;
}

// What the meter reported, added up over all seconds and threads of an engine.
struct Metered {
  std::uint64_t operations = 0;
  std::uint64_t busyNs = 0;
  std::uint64_t failures = 0;
  std::uint64_t bytes = 0;
  bool bytesKnown = true;
  std::uint64_t maxNs = 0;
  std::map<int, std::uint64_t> operationsOfThread;
};

std::vector<std::string> Loads() {
  std::vector<std::string> ids;
  for (const scope::EngineInfo& engine : scope::Engines()) {
    if (engine.load) ids.emplace_back(engine.id);
  }
  return ids;
}

std::uint64_t OperationsIn(const scope::Histogram& histogram) {
  std::uint64_t sum = 0;
  for (const auto& [bucket, count] : histogram.Buckets()) sum += count;
  return sum;
}

struct Load {
  int calls = 100;
  int threads = 2;
  long waitNs = 1'000'000;
  int failEvery = 0;
  std::string mode;
  std::string duty;  ///< per cent; empty: none is asked for
};

class MeterTest : public ::testing::Test {
 protected:
  void Start(const Load& load, bool withMeter = true, bool withReader = true) {
    reader_ = std::make_unique<MeterReader>(0);
    if (fullQueue_) {
      // Packets of another process; the reader ignores them.
      const scope::PacketHeader other{scope::kMeterMagic, scope::kMeterVersion,
                                      scope::PacketType::kEndOfSecond, -1, 0};
      while (send(reader_->ChildEnd(), &other, sizeof(other), MSG_DONTWAIT) > 0) continue;
      ASSERT_EQ(errno, EAGAIN);
    }
    ChildProcess::Options options;
    options.program = COUNTED_LOAD;
    options.arguments = {folder_ / "report",          folder_.Put("model", std::string(5000, 'w')),
                         std::to_string(load.calls),  std::to_string(load.threads),
                         std::to_string(load.waitNs), std::to_string(load.failEvery)};
    if (!load.mode.empty()) options.arguments.push_back(load.mode);
    if (withMeter) options.environment.emplace_back("LD_PRELOAD", METER);
    if (!load.duty.empty()) options.environment.emplace_back(scope::kDutyVariable, load.duty);
    if (withReader) {
      options.environment.emplace_back(scope::kDescriptorVariable, std::to_string(reader_->ChildEnd()));
      options.inherit = reader_->ChildEnd();
    }
    child_ = std::make_unique<ChildProcess>(options);
    reader_->CloseChildEnd();
  }

  // Waits until the workers have ended and the program is about to end.
  void WaitForTheReport() {
    while (!std::filesystem::exists(folder_ / "report") && !child_->HasEnded()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  void Wait(bool read = true) {
    while (!child_->HasEnded()) {
      if (read) reader_->Read(seconds_);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    reader_->Read(seconds_);
    EXPECT_EQ(child_->ExitStatus(), 0);
    EXPECT_EQ(child_->EndSignal(), 0);
    for (const MeterSecond& second : seconds_) {
      for (const Sample& sample : second.samples) {
        Metered& metered = metered_[sample.engine];
        metered.operations += sample.operations;
        metered.busyNs += sample.busyNs;
        metered.failures += sample.failures;
        metered.bytes += sample.bytes.value_or(0);
        metered.bytesKnown = metered.bytesKnown && sample.bytes.has_value();
        metered.maxNs = std::max(metered.maxNs, sample.maxNs);
        metered.operationsOfThread[sample.thread] += sample.operations;
      }
    }
    report_ = ReadReport(folder_ / "report");
  }

  void Run(const Load& load) {
    Start(load);
    if (!HasFatalFailure()) Wait();
  }

  std::uint64_t ExactPercentile(const std::string& engine, double quantile) {
    std::vector<std::uint64_t>& values = report_.engines[engine].latenciesNs;
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<std::size_t>(std::ceil(quantile * static_cast<double>(values.size())));
    return values[std::max<std::size_t>(rank, 1) - 1];
  }

  scope::Histogram MeteredLatencies(const std::string& engine) {
    scope::Histogram all;
    for (const auto& [key, histogram] : reader_->Latencies()) {
      if (key.first == engine) all.Add(histogram);
    }
    return all;
  }

  TemporaryFolder folder_;
  bool fullQueue_ = false;
  std::unique_ptr<MeterReader> reader_;
  std::unique_ptr<ChildProcess> child_;
  std::vector<MeterSecond> seconds_;
  std::map<std::string, Metered> metered_;
  Report report_;
};

// The first 64 CPUs that this program may use, lowest first, each as its bit.
std::vector<std::uint64_t> AllowedBits() {
  std::vector<std::uint64_t> bits;
  cpu_set_t allowed;
  if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return bits;
  for (std::size_t cpu = 0; cpu < 64; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) bits.push_back(std::uint64_t{1} << cpu);
  }
  return bits;
}

TEST_F(MeterTest, GivesAnEngineCpusOfItsOwn) {
  const std::vector<std::uint64_t> bits = AllowedBits();
  // CPUs are noted as bits of one word. With one CPU there is none that others could keep off.
  if (bits.size() < 2 || bits.size() > 63)
    GTEST_SKIP() << "this machine has one CPU, or too many for this test";
  const std::uint64_t all = std::accumulate(bits.begin(), bits.end(), std::uint64_t{0});
  const std::uint64_t last = bits.back();
  const std::string number = std::to_string(__builtin_ctzll(last));
  const auto cpusAfter = [this](const std::string& value) {
    (void)setenv(scope::kPinVariable, value.c_str(), 1);
    Run({3, 1, 0, 0, "", ""});
    (void)unsetenv(scope::kPinVariable);
    std::map<std::string, std::uint64_t> cpus;
    for (const auto& [engine, counted] : report_.engines) cpus[engine] = counted.cpus;
    return cpus;
  };
  const std::uint64_t rest = all - last;
  // One thread works on one engine after the other. A copy of a set-up moves nothing.
  EXPECT_EQ(cpusAfter("vpc=" + number),
            (std::map<std::string, std::uint64_t>{
                {"cpu", rest}, {"vpc", last}, {"vpc_copy", last}, {"venc", rest}, {"aic", rest}}));
  for (const auto& [engine, cpus] : cpusAfter("=" + number)) EXPECT_EQ(cpus, rest) << engine;
  for (const char* const nonsense : {"vpc", "vpc=x", "vpc=", "vpc=1,99999999"}) {
    for (const auto& [engine, cpus] : cpusAfter(nonsense)) EXPECT_EQ(cpus, all) << engine << " " << nonsense;
  }
}

// Uses virtual time, which is the same for the platform and the meter. In real time, a worker on a busy
// machine may lose the CPU between the two readings of the clock.
TEST_F(MeterTest, AgreesWithAnIndependentCountWithinOnePercent) {
  Load load;
  load.calls = 300;
  load.mode = "virtual";
  Run(load);
  for (const std::string& engine : Loads()) {
    const Counted& counted = report_.engines[engine];
    const Metered& metered = metered_[engine];
    ASSERT_EQ(counted.operations, 600U) << engine;
    EXPECT_EQ(metered.operations, counted.operations) << engine;
    EXPECT_GE(counted.busyNs, 600U * 1'000'000) << engine;
    EXPECT_EQ(metered.busyNs, counted.busyNs) << engine;
    ASSERT_EQ(metered.operationsOfThread.size(), 2U) << engine;
    EXPECT_EQ(metered.operationsOfThread.at(0), 300U) << engine;
    EXPECT_EQ(metered.operationsOfThread.at(1), 300U) << engine;
  }
  EXPECT_EQ(metered_["vpc_copy"].operations, 2U);
  EXPECT_TRUE(reader_->SaidLast());
  EXPECT_EQ(reader_->DelayedSamples(), 0U);
}

TEST_F(MeterTest, MeasuresRealTimeBetweenThatInsideACallAndThatAroundIt) {
  Load load;
  load.calls = 300;
  const auto start = std::chrono::steady_clock::now();
  Run(load);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  for (const std::string& engine : Loads()) {
    const Counted& counted = report_.engines[engine];
    EXPECT_GE(counted.busyNs, 600U * 1'000'000) << engine;
    EXPECT_GE(metered_[engine].busyNs, counted.busyNs) << engine;
    EXPECT_LE(metered_[engine].busyNs, counted.aroundNs) << engine;
  }
  // Four engines, one after the other, of 300 calls of 1 to 4 ms: several seconds, each with its own samples.
  EXPECT_GE(seconds_.size(), 2U);
  EXPECT_LE(static_cast<double>(seconds_.size()), took.count() + 2) << "the last second may be a short one";
  // A second has only its own operations and bytes.
  for (const std::string& engine : Loads()) {
    EXPECT_EQ(metered_[engine].operations, 600U) << engine;
    EXPECT_EQ(OperationsIn(MeteredLatencies(engine)), 600U) << engine;
  }
  EXPECT_EQ(metered_["cpu"].bytes, 600U * 2 * 100);
  EXPECT_EQ(metered_["vpc"].bytes, 600U * 3 * (64 * 32 + 32 * 32));
  EXPECT_EQ(metered_["venc"].bytes, 600U * (64 * 32 * 3 / 2));
  EXPECT_EQ(metered_["aic"].bytes, 600U * 5000);
}

// In virtual time. "around" has the time of all calls with the sleeps in them.
TEST_F(MeterTest, LetsThreadsWorkAShareOfTheTime) {
  Load load;
  load.mode = "virtual";
  load.duty = "25";
  Run(load);
  for (const char* const engine : {"cpu", "vpc", "venc", "aic"}) {
    const Counted& counted = report_.engines[engine];
    const auto busyNs = static_cast<double>(counted.busyNs);
    // The first sleep of a thread is a part of one period longer.
    EXPECT_NEAR(static_cast<double>(counted.aroundNs), 4 * busyNs, 0.03 * busyNs) << engine;
    EXPECT_EQ(metered_[engine].busyNs, counted.busyNs) << engine << ": a sleep is no work";
    EXPECT_EQ(metered_[engine].operations, 200U) << engine;
  }
  // It is part of the set-up.
  EXPECT_EQ(report_.engines["vpc_copy"].aroundNs, report_.engines["vpc_copy"].busyNs);
}

TEST_F(MeterTest, ThreadsDoNotSleepInStep) {
  Load load;
  load.calls = 1;
  load.mode = "virtual";
  load.duty = "25";
  Run(load);
  std::vector<std::uint64_t> firstNs = report_.engines["cpu"].firstNs;
  const std::vector<std::uint64_t>& workNs = report_.engines["cpu"].latenciesNs;
  ASSERT_EQ(firstNs.size(), 2U);
  ASSERT_EQ(workNs.size(), 2U);
  std::sort(firstNs.begin(), firstNs.end());
  // One thread sleeps a part of its period longer. Which call was that thread's is left to the machine.
  const auto isAfter = [&](std::uint64_t whole, std::uint64_t late) {
    const double periods[] = {4.0 * static_cast<double>(whole), 1.618 * 4 * static_cast<double>(late)};
    const auto isNear = [](std::uint64_t ns, double expected) {
      return std::abs(static_cast<double>(ns) - expected) < 0.005 * expected;
    };
    return isNear(firstNs[0], std::min(periods[0], periods[1])) &&
           isNear(firstNs[1], std::max(periods[0], periods[1]));
  };
  EXPECT_TRUE(isAfter(workNs[0], workNs[1]) || isAfter(workNs[1], workNs[0]))
      << firstNs[0] << " and " << firstNs[1] << " ns around calls of " << workNs[0] << " and " << workNs[1];
}

TEST_F(MeterTest, SleepsNotWithoutAShareToWork) {
  for (const char* const duty : {"", "100", "0", "-5", "all"}) {
    metered_.clear();
    seconds_.clear();
    Load load;
    load.calls = 20;
    load.mode = "virtual";
    load.duty = duty;
    Run(load);
    EXPECT_EQ(report_.engines["cpu"].aroundNs, report_.engines["cpu"].busyNs) << '"' << duty << '"';
  }
}

TEST_F(MeterTest, PercentilesAgreeWithExactOnesWithinOnePercent) {
  Load load;
  load.calls = 300;
  load.mode = "virtual";
  Run(load);
  for (const std::string& engine : Loads()) {
    const scope::Histogram latencies = MeteredLatencies(engine);
    ASSERT_EQ(OperationsIn(latencies), 600U) << engine;
    for (const double quantile : {0.01, 0.25, 0.50, 0.70, 0.90, 0.99}) {
      const auto exact = static_cast<double>(ExactPercentile(engine, quantile));
      EXPECT_NEAR(static_cast<double>(latencies.Percentile(quantile)), exact, exact * 0.01)
          << engine << " at " << quantile;
    }
    EXPECT_EQ(metered_[engine].maxNs, ExactPercentile(engine, 1)) << engine;
  }
}

TEST_F(MeterTest, CountsTheBytesOfTheRecords) {
  Load load;
  load.calls = 10;
  load.waitNs = 0;
  Run(load);
  const std::uint64_t operations = 20;
  EXPECT_EQ(metered_["cpu"].bytes, operations * 2 * 100);
  EXPECT_EQ(metered_["vpc"].bytes, operations * 3 * (64 * 32 + 32 * 32));
  EXPECT_EQ(metered_["vpc_copy"].bytes, 2 * 3 * (2U * 64 * 32));
  // The meter cannot read the streams and buffers of another platform. It counts only the frame and the
  // model's file.
  EXPECT_EQ(metered_["venc"].bytes, operations * (64 * 32 * 3 / 2));
  EXPECT_EQ(metered_["aic"].bytes, operations * 5000);
  for (const auto& [engine, metered] : metered_) EXPECT_TRUE(metered.bytesKnown) << engine;
}

TEST_F(MeterTest, CountsFailuresApartFromOperations) {
  Load load;
  load.calls = 50;
  load.threads = 1;
  load.waitNs = 10'000'000;  // so that the calls of an engine are in two seconds
  load.failEvery = 5;
  Run(load);
  EXPECT_GE(seconds_.size(), 2U);
  for (const std::string& engine : Loads()) {
    EXPECT_EQ(report_.engines[engine].failures, 10U) << engine;
    EXPECT_EQ(metered_[engine].failures, 10U) << engine;
    EXPECT_EQ(metered_[engine].operations, 40U) << engine;
    EXPECT_EQ(OperationsIn(MeteredLatencies(engine)), 40U) << engine;
  }
}

TEST_F(MeterTest, AModelThatDoesNotLoadIsAFailureOfTheAiCore) {
  Load load;
  load.calls = 1;
  load.waitNs = 0;
  load.mode = "badmodel";
  Run(load);
  EXPECT_EQ(metered_["aic"].failures, 2U);
  EXPECT_EQ(metered_["aic"].operations, 0U);
}

TEST_F(MeterTest, AllocatesNothingInAMeasuredCall) {
  Load load;
  load.calls = 1000;
  load.waitNs = 0;
  Run(load);
  EXPECT_EQ(metered_["cpu"].operations, 2000U);
  EXPECT_EQ(report_.allocations, 0);
}

TEST_F(MeterTest, MoreThreadsThanItHasRoomForAreCountedAsUnmeasured) {
  Load load;
  load.calls = 1;
  load.threads = 60;  // five engines each, and room for 128 in all
  load.waitNs = 0;
  Run(load);
  std::uint64_t measured = 0;
  for (const auto& [engine, metered] : metered_) measured += metered.operations;
  EXPECT_EQ(measured, 128U);
  // Seven calls of each thread, three of them for its frame.
  EXPECT_EQ(reader_->Unmeasured(), 60U * 7 - measured - 2 * metered_["venc"].operations);
}

TEST_F(MeterTest, WithoutAReaderItOnlyPassesCallsOn) {
  Load load;
  load.calls = 10;
  load.waitNs = 0;
  Start(load, true, false);
  Wait();
  EXPECT_EQ(report_.engines["cpu"].operations, 20U);
  EXPECT_EQ(report_.threads, 1);
  EXPECT_FALSE(reader_->SaidHello());
}

TEST_F(MeterTest, WithAReaderThereIsOneThreadMore) {
  if (kThreadSanitized) GTEST_SKIP() << "the sanitizer has a thread of its own";
  Load load;
  load.calls = 1;
  load.waitNs = 0;
  Run(load);
  EXPECT_EQ(report_.threads, 2);
}

TEST_F(MeterTest, AForkedChildIsNotThisRun) {
  Load load;
  load.calls = 10;
  load.waitNs = 0;
  load.mode = "fork";
  Run(load);
  EXPECT_EQ(metered_["cpu"].operations, 20U);
  EXPECT_EQ(metered_["aic"].operations, 20U);
}

TEST_F(MeterTest, AReaderThatStallsDoesNotHoldTheWorkersUp) {
  Load load;
  load.calls = 10;
  fullQueue_ = true;
  Start(load);
  Wait(false);
  EXPECT_EQ(report_.engines["aic"].operations, 20U);
  EXPECT_FALSE(reader_->SaidHello());
  EXPECT_TRUE(metered_.empty());
}

TEST_F(MeterTest, WhatAStalledReaderMissedComesWithTheNextSample) {
  Load load;
  load.calls = 300;
  fullQueue_ = true;
  Start(load);
  WaitForTheReport();
  Wait();
  for (const std::string& engine : Loads()) EXPECT_EQ(metered_[engine].operations, 600U);
  EXPECT_GT(reader_->DelayedSamples(), 0U);
}

TEST_F(MeterTest, TheLastSamplesWaitForAReaderThatIsLate) {
  Load load;
  load.calls = 10;
  load.waitNs = 0;
  fullQueue_ = true;
  Start(load);
  WaitForTheReport();
  // Without the wait the program would have ended by then.
  for (int i = 0; i < 100 && !child_->HasEnded(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  Wait();
  for (const std::string& engine : Loads()) EXPECT_EQ(metered_[engine].operations, 20U);
  EXPECT_TRUE(reader_->SaidLast());
}

TEST_F(MeterTest, AReaderThatGoesAwayDoesNotEndTheProgram) {
  Load load;
  load.calls = 150;
  Start(load);
  reader_ = std::make_unique<MeterReader>(0);
  Wait();
  EXPECT_EQ(report_.engines["aic"].operations, 300U);
}

TEST_F(MeterTest, SaysWhichPlatformItStandsInFrontOf) {
  Load load;
  load.calls = 1;
  load.waitNs = 0;
  Run(load);
  EXPECT_NE(reader_->PlatformPath().find("libcounting_platform"), std::string::npos)
      << reader_->PlatformPath();
}

TEST_F(MeterTest, ADescriptorThatIsNoReaderIsLeftAlone) {
  for (const char* descriptor : {"", "1", "999", "-1", "x", "99999999999999999999"}) {
    ChildProcess::Options options;
    options.program = COUNTED_LOAD;
    options.arguments = {folder_ / "report", "model", "5", "1", "0", "0"};
    options.environment = {{"LD_PRELOAD", METER}, {scope::kDescriptorVariable, descriptor}};
    ChildProcess child(options);
    while (!child.HasEnded()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(child.ExitStatus(), 0) << descriptor;
    scope::LineReader reader;
    std::vector<std::string> lines;
    reader.Read(child.Output(), lines);
    EXPECT_TRUE(lines.empty()) << descriptor << ": " << lines.front();
  }
}

}  // namespace
