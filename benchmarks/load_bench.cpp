// SPDX-License-Identifier: Apache-2.0
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "copies.h"
#include "measure.h"
#include "ormis/ormis.h"
#include "program.h"
#include "stream_copy.h"
#include "workers.h"

namespace {

using Clock = std::chrono::steady_clock;
using measure::Engine;
using measure::Require;
using measure::Touched;

constexpr std::size_t kEngineCount = std::size(measure::kEngines);
constexpr int kMostWorkers = 10;
using Levels = std::array<int, kEngineCount>;  ///< CPU, VPC, VENC, AIC

/// Lets as many workers of each engine work as the current level says; the others wait. All workers exist all
/// the time, so that the mixes can take turns without loading models again.
class Gate : public measure::Watcher {
 public:
  explicit Gate(std::uint64_t weightBytes) : weightBytes_(weightBytes) {}

  void Before(Engine engine) override {
    const auto row = static_cast<std::size_t>(engine);
    thread_local const int index = begun_[row]++;
    std::unique_lock<std::mutex> lock(mutex_);
    bool& waits = waits_[row][static_cast<std::size_t>(index)];
    waits = true;
    arrived_.notify_all();
    opened_.wait(lock, [&] { return index < levels_[row]; });
    waits = false;
    lock.unlock();
    beganNs = ThreadNs();
  }

  void After(Engine engine, const Touched& touched) override {
    const auto row = static_cast<std::size_t>(engine);
    processorNs_[row] += ThreadNs() - beganNs;
    bytes_[row] += Bytes(touched.sources) + Bytes(touched.destinations);
    if (engine == Engine::kAic) bytes_[row] += weightBytes_;
  }

  /// Lets these workers through. Returns when all others wait, so that no operation of them is under way.
  /// Meanwhile calls `check` again and again: a worker that has failed never comes.
  void Open(const Levels& levels, const std::function<void()>& check) {
    std::unique_lock<std::mutex> lock(mutex_);
    levels_ = levels;
    opened_.notify_all();
    while (!arrived_.wait_for(lock, std::chrono::milliseconds(100), [&] { return OthersWait(); })) check();
  }

  int Begun(Engine engine) const { return begun_[static_cast<std::size_t>(engine)]; }

  struct Count {
    std::uint64_t bytes = 0;
    std::int64_t processorNs = 0;
  };
  std::array<Count, kEngineCount> Counts() const {
    std::array<Count, kEngineCount> counts;
    for (std::size_t row = 0; row < kEngineCount; ++row) counts[row] = {bytes_[row], processorNs_[row]};
    return counts;
  }

 private:
  bool OthersWait() const {
    for (std::size_t row = 0; row < kEngineCount; ++row) {
      const auto firstOther = waits_[row].begin() + levels_[row];
      if (!std::all_of(firstOther, waits_[row].end(), [](bool waits) { return waits; })) return false;
    }
    return true;
  }

  static std::int64_t ThreadNs() {
    timespec time{};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
  }

  static std::uint64_t Bytes(const std::vector<measure::Range>& ranges) {
    std::uint64_t bytes = 0;
    for (const measure::Range& range : ranges) bytes += range.bytes;
    return bytes;
  }

  static thread_local std::int64_t beganNs;  ///< of the current operation

  std::array<std::atomic<int>, kEngineCount> begun_{};
  std::array<std::atomic<std::uint64_t>, kEngineCount> bytes_{};
  std::array<std::atomic<std::int64_t>, kEngineCount> processorNs_{};
  const std::uint64_t weightBytes_;
  std::mutex mutex_;
  std::condition_variable opened_;
  std::condition_variable arrived_;
  std::array<std::array<bool, kMostWorkers>, kEngineCount> waits_{};  ///< before its next operation
  Levels levels_{};
};

thread_local std::int64_t Gate::beganNs = 0;

struct Rate {
  double gigabytesPerS = 0.0;
  double processorS = 0.0;  ///< of processor time a second
};
using Rates = std::array<Rate, kEngineCount>;

double Total(const Rates& rates) {
  double total = 0.0;
  for (const Rate& rate : rates) total += rate.gigabytesPerS;
  return total;
}

constexpr int kFarThreads = 2;

/// Copies far beyond the caches in threads of their own, as memcpy_s does, which this program stands in front
/// of.
double FarRate(const measure::Copies& copies, double seconds) {
  return copies.Rate(
      {"memcpy_s",
       [](void* destination, const void* source, std::size_t bytes, Ormis::portable::FlushLines) {
         Ormis::portable::CopyToMemory(destination, source, bytes);
       }},
      seconds);
}

/// The workers of all engines, behind the gate.
class Machine {
 public:
  Machine(const std::string& model, std::uint64_t weightBytes) : gate_(weightBytes) {
    measure::Watch(&gate_);
    for (const Engine engine : measure::kEngines) {
      engines_.push_back(std::make_unique<measure::Workers>(engine, kMostWorkers, model));
    }
    for (const Engine engine : measure::kEngines) {
      while (gate_.Begun(engine) < kMostWorkers) {
        RequireWorkers();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
  }
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;
  ~Machine() {
    Levels all;
    all.fill(kMostWorkers);
    gate_.Open(all, [] {});
    engines_.clear();
    measure::Watch(nullptr);
  }

  /// Measures for `seconds`, and longer where many workers share the processors: each of their operations
  /// then takes a good part of that time.
  Rates Measure(const Levels& levels, double seconds) {
    int workers = 0;
    for (const int level : levels) workers += level;
    seconds *= 1.0 + workers / 10.0;
    constexpr auto kSettle =
        std::chrono::milliseconds(250);  // operations of the mix before are still under way
    Open(levels);
    std::this_thread::sleep_for(kSettle);
    const auto before = gate_.Counts();
    const Clock::time_point start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    RequireWorkers();
    const auto after = gate_.Counts();
    const double took = std::chrono::duration<double>(Clock::now() - start).count();
    Rates rates;
    for (std::size_t row = 0; row < kEngineCount; ++row) {
      rates[row].gigabytesPerS = static_cast<double>(after[row].bytes - before[row].bytes) / took / 1e9;
      rates[row].processorS =
          static_cast<double>(after[row].processorNs - before[row].processorNs) / took / 1e9;
    }
    return rates;
  }

  void Rest() { Open({}); }

 private:
  void Open(const Levels& levels) {
    gate_.Open(levels, [this] { RequireWorkers(); });
  }

  /// Ends the program when a worker has failed.
  void RequireWorkers() const {
    for (const Engine engine : measure::kEngines) {
      const bool failed = engines_[static_cast<std::size_t>(engine)]->Failed();
      if (failed) measure::Fail(std::string("a ") + Name(engine) + " worker failed, see the log");
    }
  }

  Gate gate_;
  std::vector<std::unique_ptr<measure::Workers>> engines_;
};

constexpr Levels kTwoInferences{0, 0, 0, 2};
constexpr Levels kTenCopies{10, 0, 0, 0};
constexpr Levels kAll{10, 10, 10, 10};
/// CPU, VPC, VENC, AIC. The first three are what the ratios are made of.
constexpr Levels kMixes[] = {kTwoInferences, kTenCopies,     kAll,          {1, 0, 0, 0},   {2, 0, 0, 0},
                             {4, 0, 0, 0},   {0, 2, 0, 0},   {0, 10, 0, 0}, {0, 0, 2, 0},   {0, 0, 10, 0},
                             {0, 0, 0, 1},   {0, 0, 0, 4},   {0, 0, 0, 10}, {10, 10, 0, 0}, {10, 0, 0, 10},
                             {4, 0, 0, 4},   {10, 10, 0, 10}};

struct Turn {
  double farCopies = 0.0;
  std::vector<Rates> mixes;  ///< in the order of kMixes
};

double MedianOf(const std::vector<Turn>& turns, const std::function<double(const Turn&)>& value) {
  std::vector<double> values;
  for (const Turn& turn : turns) values.push_back(value(turn));
  return measure::Median(values);
}

void PrintMixes(const std::vector<Turn>& turns) {
  (void)std::printf(
      "| CPU | VPC | VENC | AIC | CPU, GB/s | VPC, GB/s | VENC, GB/s | AIC, GB/s | together, GB/s "
      "| / ten copies |\n"
      "|---|---|---|---|---|---|---|---|---|---|\n");
  for (std::size_t mix = 0; mix < std::size(kMixes); ++mix) {
    (void)std::printf("|");
    for (const int level : kMixes[mix]) (void)std::printf(" %d |", level);
    for (std::size_t row = 0; row < kEngineCount; ++row) {
      const double rate =
          MedianOf(turns, [&](const Turn& turn) { return turn.mixes[mix][row].gigabytesPerS; });
      (void)(kMixes[mix][row] == 0 ? std::printf(" |") : std::printf(" %.2f |", rate));
    }
    (void)std::printf(
        " %.2f | %.2f |\n", MedianOf(turns, [&](const Turn& turn) { return Total(turn.mixes[mix]); }),
        MedianOf(turns, [&](const Turn& turn) { return Total(turn.mixes[mix]) / Total(turn.mixes[1]); }));
  }
  (void)std::printf("| | | | | copies far beyond the caches, %d threads | | | | %.2f | %.2f |\n", kFarThreads,
                    MedianOf(turns, [](const Turn& turn) { return turn.farCopies; }),
                    MedianOf(turns, [](const Turn& turn) { return turn.farCopies / Total(turn.mixes[1]); }));
}

void PrintRatios(const std::vector<Turn>& turns) {
  (void)std::printf("\n| ratio | |\n|---|---|\n");
  (void)std::printf("| AIC at level 2 / copies far beyond the caches, %d threads | %.2f |\n", kFarThreads,
                    MedianOf(turns, [](const Turn& turn) { return Total(turn.mixes[0]) / turn.farCopies; }));
  (void)std::printf(
      "| all forty workers / ten copies alone | %.2f |\n",
      MedianOf(turns, [](const Turn& turn) { return Total(turn.mixes[2]) / Total(turn.mixes[1]); }));
}

/// Where the limit of all forty workers lies: what each engine moves for its processor time.
void PrintProcessorTime(const std::vector<Turn>& turns) {
  (void)std::printf(
      "\n| all forty workers | processor time, %% of all | GB/s | GB for a second of processor time "
      "|\n|---|---|---|---|\n");
  for (const Engine engine : measure::kEngines) {
    const auto row = static_cast<std::size_t>(engine);
    const auto share = [&](const Turn& turn) {
      double all = 0.0;
      for (const Rate& rate : turn.mixes[2]) all += rate.processorS;
      return 100 * turn.mixes[2][row].processorS / all;
    };
    const auto rate = [&](const Turn& turn) { return turn.mixes[2][row].gigabytesPerS; };
    const auto yield = [&](const Turn& turn) {
      const Rate& all = turn.mixes[2][row];
      return all.processorS > 0.0 ? all.gigabytesPerS / all.processorS : 0.0;
    };
    (void)std::printf("| %s | %.1f | %.2f | %.2f |\n", measure::Name(engine), MedianOf(turns, share),
                      MedianOf(turns, rate), MedianOf(turns, yield));
  }
}

const char* const kUsage = R"(usage: load_bench [MODEL [ROUNDS [SECONDS]]]
Measures how much memory the benchmark's workers move, each engine alone and together, in turns within one run: all
forty workers are there from the start, and a mix lets some of them work while the others wait: for SECONDS (default
0.5), and a tenth longer for each of these workers. Figures are medians of ROUNDS (default 3), ratios are medians of
the ratios within each round.

GB/s (10^9 bytes) count what an operation has to move: a copy its source and its destination, a resize both images, an
encode its frame, an inference the model's weights once, inputs and outputs. MODEL: default build/models/memory.onnx.
)";

std::uint64_t SizeOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file.good()) measure::Fail("cannot read the model " + path);
  return static_cast<std::uint64_t>(file.tellg());
}

}  // namespace

int main(int argc, char** argv) {
  measure::AnswerOptions(argc, argv, "load_bench", kUsage);
  const std::string model = argc > 1 ? argv[1] : "build/models/memory.onnx";
  const int rounds = measure::CountArgument(argc, argv, 2, "ROUNDS", 3);
  const double seconds = measure::SecondsArgument(argc, argv, 3, 0.5);
  Require(argc <= 4, "reading the arguments [MODEL [ROUNDS [SECONDS]]]");
  const std::uint64_t weightBytes = SizeOf(model);

  Ormis::QetContext process;
  Require(Ormis::QetInitialize(process, {}) == 0, "QetInitialize");
  {
    const measure::Copies farCopies(kFarThreads, measure::Copies::Reach::kFar);
    Machine machine(model, weightBytes);
    std::vector<Turn> turns;
    for (int round = 0; round < rounds; ++round) {
      turns.emplace_back();
      machine.Rest();
      turns.back().farCopies = FarRate(farCopies, seconds);
      for (const Levels& mix : kMixes) turns.back().mixes.push_back(machine.Measure(mix, seconds));
    }
    PrintMixes(turns);
    PrintRatios(turns);
    PrintProcessorTime(turns);
  }
  Require(Ormis::QetRelease(process) == 0, "QetRelease");
}
