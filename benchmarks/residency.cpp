// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "cache_flush.h"
#include "cache_size.h"
#include "line_timer.h"
#include "link_names.h"
#include "measure.h"
#include "ormis/ormis.h"
#include "program.h"
#include "workers.h"

namespace {

using measure::Engine;
using measure::Require;
using measure::Threshold;
using measure::Touched;

constexpr double kMiB = 1 << 20;
/// So little that no other work pushes it out of the caches before it is timed.
constexpr std::size_t kKnownBytes = std::size_t{1} << 18;

/// The first worker of a level is the one whose lines are timed.
class Sampler : public measure::Watcher {
 public:
  explicit Sampler(int level) : level_(level) {}

  void After(Engine /*engine*/, const Touched& touched) override {
    thread_local bool isNew = true;
    thread_local bool isFirst = false;
    if (isNew) isFirst = begun_++ == 0;
    isNew = false;
    // Before all workers work, the level is not what it is called.
    if (isFirst && begun_ >= level_ && !enough_) Sample(touched);
  }

  bool Enough() const { return enough_; }
  bool Calibrates() const { return calibrates_; }
  bool HasBegun() const { return begun_ >= level_; }

  /// Only after the workers have ended.
  measure::Threshold Calibrated() const { return measure::FindThreshold(read_, flushed_); }
  const std::vector<std::uint32_t>& Sources() const { return sources_; }
  const std::vector<std::uint32_t>& Destinations() const { return destinations_; }

 private:
  void Sample(const Touched& touched) {
    ++operations_;
    // Not after each one: timing and calibration bring lines into the caches, and the next operation finds
    // them there.
    if (operations_ % 2 != 0) return;
    for (const measure::Range& range : touched.sources) Time(range, sources_);
    for (const measure::Range& range : touched.destinations) Time(range, destinations_);
    if (operations_ % 8 != 2) return;
    known_.TimeRead(kLines, random_, read_);
    known_.TimeFlushed(kLines, random_, flushed_);
    calibrates_ = flushed_.size() >= kFewest;
    enough_ = Done(touched.sources, sources_) && Done(touched.destinations, destinations_) &&
              flushed_.size() >= kWanted / 2;
  }

  void Time(const measure::Range& range, std::vector<std::uint32_t>& ticks) {
    measure::TimeLines(measure::DrawLines(range, kLines, random_), ticks);
  }

  static bool Done(const std::vector<measure::Range>& ranges, const std::vector<std::uint32_t>& ticks) {
    return ranges.empty() || ticks.size() >= kWanted;
  }

  static constexpr std::size_t kLines = 64;
  static constexpr std::size_t kWanted = 2000;
  static constexpr std::size_t kFewest = 100;

  const int level_;
  const measure::KnownLines known_{kKnownBytes};
  measure::Random random_{20260101};  // the same lines each time
  std::atomic<int> begun_{0};
  std::atomic<bool> enough_{false};
  std::atomic<bool> calibrates_{false};
  int operations_ = 0;
  std::vector<std::uint32_t> sources_;
  std::vector<std::uint32_t> destinations_;
  std::vector<std::uint32_t> read_;
  std::vector<std::uint32_t> flushed_;
};

struct Options {
  std::string model = "build/models/memory.onnx";
  double seconds = 1.0;
  std::vector<int> levels{1, 2, 4, 10};
};

struct Level {
  int workers = 0;
  Threshold threshold;
  std::vector<std::uint32_t> sources;
  std::vector<std::uint32_t> destinations;
};

Level MeasureLevel(Engine engine, int workers, const Options& options) {
  using Clock = std::chrono::steady_clock;
  Sampler sampler(workers);
  measure::Watch(&sampler);
  measure::Workers running(engine, workers, options.model);
  Clock::time_point begun{};
  for (;;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (running.Failed())
      measure::Fail(std::string("the ") + measure::Name(engine) + " worker failed, see the log");
    if (begun == Clock::time_point{} && sampler.HasBegun()) begun = Clock::now();
    const bool late = std::chrono::duration<double>(Clock::now() - begun).count() > options.seconds;
    if (sampler.Enough() || (sampler.Calibrates() && late)) break;
  }
  running.Stop();
  measure::Watch(nullptr);
  return {workers, sampler.Calibrated(), sampler.Sources(), sampler.Destinations()};
}

std::string Cell(const Level& level, const std::vector<std::uint32_t>& ticks) {
  if (ticks.empty()) return "-";
  if (!level.threshold.tells) return "cannot tell";
  char text[16];
  (void)std::snprintf(text, sizeof text, "%.3f", measure::ShareFromMemory(ticks, level.threshold));
  return text;
}

void PrintShares(const char* memory, Engine engine, const std::vector<Level>& levels) {
  struct Side {
    const char* name;
    std::vector<std::uint32_t> Level::* ticks;
  };
  for (const Side& side : {Side{"source", &Level::sources}, Side{"destination", &Level::destinations}}) {
    if (engine == Engine::kVenc && side.ticks == &Level::destinations) continue;
    (void)std::printf("| %s | %s: %s |", memory, measure::Name(engine), side.name);
    for (const Level& level : levels) (void)std::printf(" %s |", Cell(level, level.*side.ticks).c_str());
    (void)std::printf("\n");
  }
  (void)std::fflush(stdout);
}

void PrintThreshold(const char* memory, Engine engine, const Level& level) {
  const Threshold& threshold = level.threshold;
  (void)std::printf("| %s | %s | %d | %u | %u | %u | %.1f | %.1f | %zu | %zu |\n", memory,
                    measure::Name(engine), level.workers, threshold.readMedian, threshold.flushedMedian,
                    threshold.ticks, 100 * threshold.readAbove, 100 * threshold.flushedBelow,
                    level.sources.size(), level.destinations.size());
}

/// A file of settings for the host platform; removed at the end.
class SettingsFile {
 public:
  explicit SettingsFile(const std::string& text) {
    const int file = mkstemp(path_.data());
    Require(file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                close(file) == 0,
            "writing the platform's settings to a temporary file");
  }
  SettingsFile(const SettingsFile&) = delete;
  SettingsFile& operator=(const SettingsFile&) = delete;
  ~SettingsFile() { (void)unlink(path_.c_str()); }

  const std::string& Path() const { return path_; }

 private:
  std::string path_ = (std::filesystem::temp_directory_path() / "residency.XXXXXX").string();
};

struct Measured {
  const char* memory;
  Engine engine;
  std::vector<Level> levels;
};

void MeasureEngines(const char* memory, const Options& options, std::vector<Measured>& all) {
  Ormis::QetContext process;
  Ormis::QetContextParameters parameters;
  const SettingsFile settings(std::string("memory: ") + memory + "\n");
  const bool isHost = dlsym(RTLD_DEFAULT, LINK_HOST_VERSION) != nullptr;
  if (isHost) parameters.configuration = settings.Path();
  Require(Ormis::QetInitialize(process, parameters) == 0, "QetInitialize");
  for (const Engine engine : measure::kEngines) {
    all.push_back({isHost ? memory : "the platform's own", engine, {}});
    for (const int level : options.levels) {
      all.back().levels.push_back(MeasureLevel(engine, level, options));
    }
    PrintShares(all.back().memory, engine, all.back().levels);
  }
  Require(Ormis::QetRelease(process) == 0, "QetRelease");
}

/// Lines in a known state, without other work: whether times tell anything on this machine.
Threshold Calibrate(measure::Random& random) {
  const measure::KnownLines known(kKnownBytes);
  std::vector<std::uint32_t> read;
  std::vector<std::uint32_t> flushed;
  for (int round = 0; round < 50; ++round) {
    known.TimeRead(40, random, read);
    known.TimeFlushed(40, random, flushed);
  }
  return measure::FindThreshold(read, flushed);
}

/// Says why there can be no figures.
void PrintCannotTell(const Threshold& threshold) {
  const bool flushes = Ormis::portable::FlushRoutines().size() > 1;
  if (threshold.flushedMedian == 0) {
    (void)std::puts("Not measured: this processor has no counter that a program can read.");
  } else if (!flushes) {
    (void)std::puts("Not measured: this processor has no instruction with which a program can empty caches.");
  } else {
    (void)std::printf(
        "Not measured: load times do not tell caches from memory here, as is usual under emulation. "
        "Lines that were just read\ntake %u ticks (median), lines that were just flushed %u, and %.0f %% of "
        "the lines just read take longer than the threshold, %u.\n",
        threshold.readMedian, threshold.flushedMedian, 100 * threshold.readAbove, threshold.ticks);
  }
}

/// Prints what the caches hold, and the network that they ask for.
void PrintCache(const Threshold& threshold, measure::Random& random) {
  const std::vector<measure::CacheStep> steps = measure::ReadGrowingBuffers(threshold, random);
  const measure::CacheSize size = measure::SizeOfCache(steps);
  (void)std::printf("| buffer, MiB | lines from memory | stays in a cache, MiB |\n|---|---|---|\n");
  for (const measure::CacheStep& step : steps) {
    (void)std::printf("| %.2f | %.3f | %.2f |\n", static_cast<double>(step.bytes) / kMiB, step.fromMemory,
                      step.KeptBytes() / kMiB);
  }
  (void)(size.bytes == 0
             ? std::printf("\nLast cache: no buffer stayed in a cache, ")
             : std::printf("\nLast cache: %s%.1f MiB measured, ", size.mayBeLarger ? "at least " : "",
                           static_cast<double>(size.bytes) / kMiB));
  const double claimed = static_cast<double>(measure::ClaimedCacheBytes()) / kMiB;
  (void)(claimed > 0 ? std::printf("%.1f MiB claimed by the system.", claimed)
                     : std::printf("none claimed by the system."));
  const std::string advice = measure::NetworkAdvice(size);
  (void)std::printf("%s%s\n\n", advice.empty() ? "" : " ", advice.c_str());
  (void)std::fflush(stdout);
}

const char* const kUsage = R"(usage: residency [MODEL [SECONDS [LEVEL...]]]
       residency cache
Measures which share of the lines that an operation has used come from the memory afterwards, by timed loads: the
first worker of each level times drawn lines of its source and destination when the operation returns. Between
operations it times lines of another buffer that were just read, and others that were just flushed. They give the
threshold, at the same level and under the same load. The benchmark's own workers run, each level for about SECONDS
(default 1) and until the first one has made some 18 operations, without and with caches ("memory: device" and
"memory: cached"). Levels: 1 to 10, default 1 2 4 10.
MODEL: default build/models/memory.onnx.

First of all it measures the last cache. The second form does only that, and says which weights a network needs.

Where load times do not tell caches from memory, it says so and gives no figure.
)";

Options ReadOptions(int argc, char** argv) {
  Options options;
  if (argc > 1) options.model = argv[1];
  if (!std::ifstream(options.model).good()) measure::Fail("cannot read the model " + options.model);
  options.seconds = measure::SecondsArgument(argc, argv, 2, options.seconds);
  if (argc > 3) options.levels.clear();
  for (int i = 3; i < argc; ++i)
    options.levels.push_back(measure::CountArgument(argc, argv, i, "LEVEL", 0, 10));
  return options;
}

void PrintAll(const Options& options) {
  (void)std::printf("| `memory` | lines of |");
  for (const int level : options.levels) (void)std::printf(" level %d |", level);
  (void)std::printf("\n|---|---|");
  for (std::size_t i = 0; i < options.levels.size(); ++i) (void)std::printf("---|");
  (void)std::printf("\n");
  std::vector<Measured> all;
  MeasureEngines("device", options, all);
  if (dlsym(RTLD_DEFAULT, LINK_HOST_VERSION) != nullptr) MeasureEngines("cached", options, all);

  (void)std::printf(
      "\n| `memory` | engine | workers | just read: median ticks | just flushed: median ticks | threshold "
      "| read, but above, %% | flushed, but below, %% | lines of sources | lines of destinations |\n"
      "|---|---|---|---|---|---|---|---|---|---|\n");
  for (const Measured& one : all) {
    for (const Level& level : one.levels) PrintThreshold(one.memory, one.engine, level);
  }
}

}  // namespace

int main(int argc, char** argv) {
  measure::AnswerOptions(argc, argv, "residency", kUsage);
  const bool cacheAlone = argc == 2 && std::string(argv[1]) == "cache";
  const Options options = cacheAlone ? Options() : ReadOptions(argc, argv);
  measure::Random random{20260101};  // the same lines each time
  const Threshold threshold = Calibrate(random);
  if (!threshold.tells) {
    PrintCannotTell(threshold);
    return 0;
  }
  PrintCache(threshold, random);
  if (!cacheAlone) PrintAll(options);
}
