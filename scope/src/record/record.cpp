// SPDX-License-Identifier: Apache-2.0
#include "record.h"

#include <poll.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>

#include "configuration.h"
#include "monotonic_ns.h"
#include "preload_path.h"
#include "program_files.h"
#include "recorded_data.h"
#include "running_benchmark.h"
#include "supervisor.h"
#include "tell.h"
#include "text_format.h"
#include "watchers.h"

namespace scope {
namespace {

constexpr int kPollMs = 200;

/// One recording: waits for the benchmark and the watchers, and lets them add what comes to the data. The
/// supervisor decides when the benchmark has to end.
class Recording {
 public:
  Recording(const RecordOptions& options, View& view, Signals& signals)
      : options_(options), view_(view), signals_(signals), limits_(LimitsOf(options)) {
    if (options.useMeter) preload_ = std::make_unique<PreloadPath>(FindMeter(options.meter));
    unsigned int runTimeS = 0;
    Configuration config = ReadConfiguration(options.config, runTimeS);
    RequireDeadlines(options.deadlines, config.levels);
    if (!options.savedConfig.empty()) config.path = options.savedConfig;
    limits_.runTimeS = options.runTimeS != 0 ? options.runTimeS : runTimeS;
    if (options.stopAfterS > 0) limits_.runTimeS = std::min(limits_.runTimeS, std::ceil(options.stopAfterS));
    supervisor_ = std::make_unique<Supervisor>(limits_);
    // Before the folder is made: without them nothing is recorded.
    watchers_ = std::make_unique<Watchers>(
        options, signals, [this](const std::string& reason, bool isOfBoard) { Fail(reason, isOfBoard); });
    data_ = std::make_unique<RecordedData>(options, std::move(config), limits_.runTimeS, view,
                                           [this](const std::string& reason) { Fail(reason); });
    watchers_->Describe(data_->Saved());
  }

  RecordResult Run() {
    data_->Saved().Begin();
    Start();
    try {
      while (!supervisor_->IsOver()) Step();
    } catch (...) {
      view_.End();
      throw;
    }
    view_.End();
    return Finish();
  }

 private:
  static Supervisor::Limits LimitsOf(const RecordOptions& options) {
    return {FindBenchmark(options.benchmark),
            0,
            options.stopAfterS,
            options.graceS,
            options.hangAfterS,
            options.deathS};
  }

  void Start() {
    startNs_ = MonotonicNs();
    watchers_->Prepare(startNs_);
    benchmark_ = std::make_unique<RunningBenchmark>(options_, limits_.program,
                                                    preload_ == nullptr ? "" : preload_->Text(), startNs_,
                                                    [this](const std::string& reason) { Fail(reason); });
    supervisor_->BenchmarkStarted(benchmark_->Process().Id());
    watchers_->Begin(benchmark_->Process().Id(), *data_);
  }

  double TimeS() const { return SecondsSince(startNs_); }

  void Step() {
    std::vector<pollfd> waits{{signals_.Descriptor(), POLLIN, 0}};
    for (const int descriptor : benchmark_->Descriptors()) waits.push_back({descriptor, POLLIN, 0});
    for (const int descriptor : watchers_->Descriptors()) waits.push_back({descriptor, POLLIN, 0});
    (void)poll(waits.data(), waits.size(), kPollMs);
    if (signals_.TakeStop()) Do(supervisor_->SignalCame(TimeS()));
    const bool hasEnded = benchmark_->Read(*supervisor_, *data_);
    watchers_->Read(*data_);
    Do(hasEnded ? supervisor_->BenchmarkEnded(benchmark_->Ending()) : supervisor_->TimePassed(TimeS()));
  }

  void Do(const Supervisor::Decision& decision) {
    if (!decision.fault.empty()) {
      view_.End();
      Tell(decision.fault);
    }
    if (decision.send == Supervisor::Send::kSigint) {
      workEndS_ = std::min(workEndS_, TimeS());
      benchmark_->Process().Signal(SIGINT);
    }
    if (decision.send == Supervisor::Send::kSigkill) benchmark_->Process().Signal(SIGKILL);
  }

  void Fail(const std::string& reason, bool isOfBoard = false) {
    Do(supervisor_->RecordingFailed(TimeS(), reason, isOfBoard));
  }

  RecordResult Finish() {
    const double durationS = TimeS();
    const MeterReader& meter = benchmark_->Meter();
    const Supervisor::Ending ending = benchmark_->Ending();
    SavedRun& saved = data_->Saved();
    // What they have counted since the last second.
    watchers_->ReadCounters(*data_);
    saved.AddTotals(meter);
    watchers_->End(signals_, *supervisor_, *data_);
    saved.FindFailures(supervisor_->Fault(), std::min(workEndS_, limits_.runTimeS), meter.Unmeasured() == 0);
    RecordResult result;
    result.recorderFailed = supervisor_->RecorderFailed();
    const std::vector<std::string>& failures = saved.End(durationS, ending.exitStatus, ending.signal);
    // The last write may have failed. What the benchmark did wrong before that is known.
    if (failures.empty()) result.recorderFailed = supervisor_->RecorderFailed();
    result.exported = data_->EndExports();
    result.reason = failures.empty() ? supervisor_->Fault() : Joined(failures, "; ");
    result.complete = result.reason.empty();
    result.stopped = supervisor_->Interrupted();
    result.errors = saved.Errors();
    result.hung = supervisor_->Hung();
    result.stuck = supervisor_->CurrentState() == Supervisor::State::kStuck;
    if (result.stuck) benchmark_->Process().GiveUp();
    if (options_.failOver) {
      const std::vector<std::string> late = MissedTooOften(meter.Deadlines(), *options_.failOver);
      for (const std::string& sentence : late) Tell(sentence);
      result.late = !late.empty();
    }
    return result;
  }

  RecordOptions options_;
  View& view_;
  Signals& signals_;
  Supervisor::Limits limits_;
  std::unique_ptr<PreloadPath> preload_;  ///< null without a meter
  std::unique_ptr<Supervisor> supervisor_;
  std::unique_ptr<Watchers> watchers_;
  std::unique_ptr<RecordedData> data_;
  std::unique_ptr<RunningBenchmark> benchmark_;
  std::uint64_t startNs_ = 0;
  double workEndS_ = std::numeric_limits<double>::infinity();  ///< when the benchmark was asked to end
};

}  // namespace

RecordResult Record(const RecordOptions& options, View& view, Signals& signals) {
  return Recording(options, view, signals).Run();
}

void CheckRecord(const RunSettings& settings) {
  (void)FindBenchmark(settings.benchmark);
  if (settings.useMeter) (void)FindMeter(settings.meter);
}

}  // namespace scope
