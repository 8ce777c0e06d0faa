// SPDX-License-Identifier: Apache-2.0
#include "record.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <limits>
#include <memory>
#include <utility>

#include "benchmark_command.h"
#include "child_process.h"
#include "conditions.h"
#include "configuration.h"
#include "control.h"
#include "counters.h"
#include "errors.h"
#include "guard.h"
#include "latency_probe.h"
#include "live_figures.h"
#include "machine_load.h"
#include "memory_size.h"
#include "meter_reader.h"
#include "monotonic_ns.h"
#include "preload_path.h"
#include "program_files.h"
#include "run_error.h"
#include "saved_run.h"
#include "signals.h"
#include "supervisor.h"
#include "tell.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr int kPollMs = 200;
// What is read of each pipe in a turn. A benchmark that prints without pause then delays an answer to SIGINT
// by some ten milliseconds.
constexpr std::size_t kTurnBytes = 16384;

/// One recording: starts the benchmark, waits, and passes on what comes. The supervisor decides when the
/// benchmark has to end.
class Recording {
 public:
  Recording(const RecordOptions& options, View& view, Signals& signals)
      : options_(options), view_(view), limits_(LimitsOf(options)) {
    if (options.useMeter) preload_ = std::make_unique<PreloadPath>(FindMeter(options.meter));
    unsigned int runTimeS = 0;
    Configuration config = ReadConfiguration(options.config, runTimeS);
    RequireDeadlines(options.deadlines, config.levels);
    if (!options.savedConfig.empty()) config.path = options.savedConfig;
    limits_.runTimeS = options.runTimeS != 0 ? options.runTimeS : runTimeS;
    if (options.stopAfterS > 0) limits_.runTimeS = std::min(limits_.runTimeS, std::ceil(options.stopAfterS));
    supervisor_ = std::make_unique<Supervisor>(limits_);
    if (!options.guard.empty()) {
      guard_ = std::make_unique<Guard>(GuardBytes(options.guard, AvailableBytes(options.systemRoot)),
                                       options.guardRate, &signals);
    }
    if (options.latency) {
      latency_ = std::make_unique<LatencyProbe>(
          LatencyBytes(options.latencySize, ReadConditions(options.systemRoot).caches,
                       AvailableBytes(options.systemRoot)),
          options.latencyCpu, LatencyRhythm(), &signals);
    }
    if (!options.control.empty()) control_ = std::make_unique<Control>(options.control, options.own.cpus);
    // First: a folder that is replaced loses its old run.
    exports_ = std::make_unique<LiveExport>(options.exports, options.label, [this](const std::string& fault) {
      exportFaults_.push_back(fault + "; the run went on");
    });
    run_ = std::make_unique<SavedRun>(options, std::move(config),
                                      [this](const std::string& reason) { Fail(reason); });
    counters_ = std::make_unique<Counters>(options.systemRoot, KernelPerfEvents());
    load_ = std::make_unique<MachineLoad>(options.systemRoot);
    run_->AddSources(counters_->Sources());
    run_->AddSources(load_->Sources());
    if (guard_ != nullptr) run_->AddSources({{kGuardSource, true, ""}});
    if (latency_ != nullptr) run_->SetLatency(latency_->Summary());
  }

  RecordResult Run(Signals& signals) {
    run_->Begin();
    Start();
    try {
      while (!supervisor_->IsOver()) Step(signals);
    } catch (...) {
      view_.End();
      throw;
    }
    view_.End();
    RecordResult result = Finish(signals);
    if (options_.failOver) {
      const std::vector<std::string> late = MissedTooOften(meter_->Deadlines(), *options_.failOver);
      for (const std::string& sentence : late) Tell(sentence);
      result.late = !late.empty();
    }
    return result;
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
    // Before the benchmark begins: what a counter of errors has now is not of this run.
    const std::vector<CounterValue> before = counters_->Read(0);
    meter_ = std::make_unique<MeterReader>(startNs_);
    const std::string preload = preload_ == nullptr ? "" : preload_->Text();
    child_ = std::make_unique<ChildProcess>(
        BenchmarkCommand(options_, limits_.program, preload, meter_->ChildEnd()));
    supervisor_->BenchmarkStarted(child_->Id());
    meter_->CloseChildEnd();
    if (latency_ != nullptr) latency_->Begin(startNs_);
    counterTimeS_ = kCounterPeriodS;
    AddCounters(0, before);
  }

  double TimeS() const { return static_cast<double>(MonotonicNs() - startNs_) * 1e-9; }

  void Step(Signals& signals) {
    std::array<pollfd, 7> waits{{{signals.Descriptor(), POLLIN, 0},
                                 {meter_->Descriptor(), POLLIN, 0},
                                 {output_.AtEnd() ? -1 : child_->Output(), POLLIN, 0},
                                 {errors_.AtEnd() ? -1 : child_->Errors(), POLLIN, 0},
                                 {guard_ == nullptr ? -1 : guard_->Descriptor(), POLLIN, 0},
                                 {latency_ == nullptr ? -1 : latency_->Descriptor(), POLLIN, 0},
                                 {control_ == nullptr ? -1 : control_->Descriptor(), POLLIN, 0}}};
    (void)poll(waits.data(), waits.size(), kPollMs);
    if (signals.TakeStop()) Do(supervisor_->SignalCame(TimeS()));
    // Checked before the pipes are read: if it has ended, they now hold everything that it wrote.
    const bool ended = child_->HasEnded();
    if (!supervisor_->IsAlive()) supervisor_->CatchesSigint(child_->Catches(SIGINT), TimeS());
    ReadOutput(ended ? LineReader::kWholePipe : kTurnBytes);
    ReadMeter();
    ReadGuard();
    ReadLatency(false);
    WatchControl();
    if (counterTimeS_ <= TimeS()) ReadCounters();
    Do(ended ? supervisor_->BenchmarkEnded({child_->ExitStatus(), child_->EndSignal(), MeterState()})
             : supervisor_->TimePassed(TimeS()));
  }

  void Do(const Supervisor::Decision& decision) {
    if (!decision.fault.empty()) {
      view_.End();
      Tell(decision.fault);
    }
    if (decision.send == Supervisor::Send::kSigint) {
      workEndS_ = std::min(workEndS_, TimeS());
      child_->Signal(SIGINT);
    }
    if (decision.send == Supervisor::Send::kSigkill) child_->Signal(SIGKILL);
  }

  Supervisor::Meter MeterState() const {
    if (!options_.useMeter) return Supervisor::Meter::kUnused;
    if (!meter_->SaidHello()) return Supervisor::Meter::kSilent;
    return meter_->SaidLast() ? Supervisor::Meter::kSaidTheEnd : Supervisor::Meter::kCut;
  }

  void Fail(const std::string& reason, bool isOfBoard = false) {
    Do(supervisor_->RecordingFailed(TimeS(), reason, isOfBoard));
  }

  void ReadOutput(std::size_t mostBytes) {
    std::vector<std::string> lines;
    (void)output_.Read(child_->Output(), lines, mostBytes);
    if (!lines.empty()) {
      const double timeS = TimeS();
      supervisor_->SignOfLife(timeS);
      run_->AddRateLines(lines, timeS);
    }
    lines.clear();
    (void)errors_.Read(child_->Errors(), lines, mostBytes);
    run_->AddLog(lines);
  }

  void ReadMeter() {
    std::vector<MeterSecond> seconds;
    try {
      meter_->Read(seconds);
    } catch (const UserError& error) {
      Fail(error.what());
      meter_ = std::make_unique<MeterReader>(startNs_);
      meter_->CloseChildEnd();
    }
    run_->Add(meter_->TakeErrors());
    for (const MeterSecond& second : seconds) {
      if (!run_->KnowsLibraries()) {
        run_->SetLibraries(
            LibraryVersions("/proc/" + std::to_string(child_->Id()) + "/maps", meter_->PlatformPath()));
      }
      const bool worked = std::any_of(second.engines.begin(), second.engines.end(),
                                      [](const EngineSample& engine) { return engine.operations != 0; });
      if (worked) supervisor_->SignOfLife(second.timeS);
      run_->Add(second);
      exports_->Add(second);
      const bool whole = second.timeS > figures_.TimeS() + kShownSecondS;
      figures_.Add(second);
      // The rest of a second at the end has too few operations to show a rate.
      if (whole) view_.Second(figures_, second.timeS, limits_.runTimeS);
    }
  }

  void ReadGuard() {
    if (guard_ == nullptr) return;
    const bool wasWell = guard_->Fault().empty();
    std::vector<RunError> errors;
    std::vector<CounterValue> values;
    guard_->Read(startNs_, errors, values);
    run_->Add(std::move(errors));
    run_->Add(values);
    if (wasWell && !guard_->Fault().empty()) {
      Fail(guard_->Fault() + ": memory was not guarded from then on", guard_->HasCrashed());
    }
  }

  // Waits for its last walk, unless a signal comes.
  void EndGuard(Signals& signals) {
    guard_->BeginLastWalk();
    while (guard_->Descriptor() >= 0) {
      std::array<pollfd, 2> waits{{{signals.Descriptor(), POLLIN, 0}, {guard_->Descriptor(), POLLIN, 0}}};
      (void)poll(waits.data(), waits.size(), kPollMs);
      if (signals.TakeStop() && supervisor_->IsAnotherSignal(TimeS())) {
        (void)supervisor_->SignalCame(TimeS());
        guard_->CutShort();
      }
      ReadGuard();
    }
    if (guard_->Summary().isCut) {
      Tell("the guard's last walk was cut short: what changed since the walk before it may not be found");
    }
  }

  void ReadLatency(bool toItsEnd) {
    if (latency_ == nullptr) return;
    const bool wasWell = latency_->Fault().empty();
    std::vector<LatencySecond> seconds;
    if (toItsEnd) {
      latency_->End(seconds);
    } else {
      latency_->Read(seconds);
    }
    run_->Add(seconds);
    exports_->Add(seconds);
    if (!seconds.empty()) figures_.SetLatency(seconds.back());
    if (wasWell && !latency_->Fault().empty()) {
      Fail(latency_->Fault() + ": the latency of memory was not measured from then on",
           latency_->HasCrashed());
    }
  }

  void WatchControl() {
    if (control_ == nullptr || control_->Descriptor() < 0) return;
    if (!control_->Fault().empty())
      Fail(control_->Fault() + ": nothing computed beside the benchmark from then on");
  }

  // Processes of the recording itself.
  std::vector<pid_t> Helpers() const {
    std::vector<pid_t> helpers;
    if (guard_ != nullptr) helpers.push_back(guard_->Id());
    if (latency_ != nullptr) helpers.push_back(latency_->Id());
    if (control_ != nullptr) helpers.push_back(control_->Id());
    return helpers;
  }

  void ReadCounters() {
    const double timeS = TimeS();
    counterTimeS_ = timeS + kCounterPeriodS;
    AddCounters(timeS, counters_->Read(timeS));
  }

  // Adds `values`, and the load of the machine at this time.
  void AddCounters(double timeS, std::vector<CounterValue> values) {
    for (CounterValue& value : load_->Read(timeS, child_->Id(), Helpers()))
      values.push_back(std::move(value));
    run_->Add(values);
    exports_->Add(timeS, values);
  }

  // The guard's last walk, after the benchmark's end, may have found what only they see.
  void ReadMemoryControllers() {
    std::vector<CounterValue> values = counters_->Read(TimeS());
    const auto isOther = [](const CounterValue& value) { return value.source != kMemoryController; };
    values.erase(std::remove_if(values.begin(), values.end(), isOther), values.end());
    run_->Add(values);
  }

  RecordResult Finish(Signals& signals) {
    const double durationS = TimeS();
    if (meter_->Unmeasured() != 0) {
      Tell("the meter did not measure " + Counted(meter_->Unmeasured(), "call") +
           ": there are more threads than it can count");
    }
    if (meter_->DelayedSamples() != 0) {
      Tell("the recorder was too slow: " + Counted(meter_->DelayedSamples(), "sample") +
           " arrived a second late");
    }
    // What they have counted since the last second.
    ReadCounters();
    if (options_.useMeter) run_->WriteHistogram(meter_->HistogramRows());
    run_->SetFilling(meter_->Filled());
    run_->SetStreams(meter_->Streams());
    run_->SetChecks(meter_->Checks(), meter_->Deadlines());
    if (guard_ != nullptr) {
      EndGuard(signals);
      run_->SetGuard(guard_->Summary());
      ReadMemoryControllers();
    }
    if (latency_ != nullptr) {
      ReadLatency(true);
      run_->SetLatency(latency_->Summary());
    }
    run_->FindFailures(supervisor_->Fault(), std::min(workEndS_, limits_.runTimeS),
                       meter_->Unmeasured() == 0);
    bool recorderFailed = supervisor_->RecorderFailed();
    const std::vector<std::string>& failures =
        run_->End(durationS, child_->ExitStatus(), child_->EndSignal());
    // The last write may have failed. What the benchmark did wrong before that is known.
    if (failures.empty()) recorderFailed = supervisor_->RecorderFailed();
    exports_->End();
    for (const std::string& fault : exportFaults_) Tell(fault);
    RecordResult result;
    result.reason = failures.empty() ? supervisor_->Fault() : Joined(failures, "; ");
    result.complete = result.reason.empty();
    result.stopped = supervisor_->Interrupted();
    result.errors = run_->Errors();
    result.exported = exportFaults_.empty();
    result.hung = supervisor_->Hung();
    result.stuck = supervisor_->CurrentState() == Supervisor::State::kStuck;
    if (result.stuck) child_->GiveUp();
    result.recorderFailed = recorderFailed;
    return result;
  }

  RecordOptions options_;
  View& view_;
  Supervisor::Limits limits_;
  std::unique_ptr<PreloadPath> preload_;  ///< null without a meter
  std::unique_ptr<Supervisor> supervisor_;
  std::unique_ptr<SavedRun> run_;
  std::vector<std::string> exportFaults_;
  std::unique_ptr<LiveExport> exports_;
  std::unique_ptr<Counters> counters_;
  std::unique_ptr<MachineLoad> load_;
  std::unique_ptr<MeterReader> meter_;
  std::unique_ptr<Guard> guard_;  ///< null without one
  std::unique_ptr<Control> control_;
  std::unique_ptr<LatencyProbe> latency_;  ///< null without one
  std::unique_ptr<ChildProcess> child_;
  LineReader output_;
  LineReader errors_;
  Figures figures_;
  std::uint64_t startNs_ = 0;
  double counterTimeS_ = 0;
  double workEndS_ = std::numeric_limits<double>::infinity();  ///< when the benchmark was asked to end
};

}  // namespace

RecordResult Record(const RecordOptions& options, View& view, Signals& signals) {
  return Recording(options, view, signals).Run(signals);
}

void CheckRecord(const RunSettings& settings) {
  (void)FindBenchmark(settings.benchmark);
  if (settings.useMeter) (void)FindMeter(settings.meter);
}

}  // namespace scope
