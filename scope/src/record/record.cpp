// SPDX-License-Identifier: Apache-2.0
#include "record.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>

#include "child_process.h"
#include "conditions.h"
#include "configuration.h"
#include "counters.h"
#include "errors.h"
#include "failures.h"
#include "live_figures.h"
#include "machine_load.h"
#include "meter_reader.h"
#include "preload_path.h"
#include "printable.h"
#include "rate_line.h"
#include "run_writer.h"
#include "signals.h"
#include "supervisor.h"
#include "text_format.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

constexpr int kPollMs = 200;
// Of each pipe and turn. A benchmark that prints without pause then delays an answer to SIGINT by some ten
// milliseconds.
constexpr std::size_t kTurnBytes = 16384;
constexpr double kCounterPeriodS = 1;
constexpr double kShownSecondS = 0.5;

void Tell(const std::string& text) {
  std::cerr << "stress_scope: " << Printable(text) << std::endl;
}

std::uint64_t NowNs() {
  timespec now{};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
}

std::string OwnFolder() {
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  return error ? std::string(".") : self.parent_path().string();
}

std::string FindBenchmark(const std::string& given) {
  const std::string path = given.empty() ? OwnFolder() + "/stress_benchmark" : given;
  if (access(path.c_str(), X_OK) != 0) {
    throw UserError(
        "cannot run the benchmark " + path + ": " + std::strerror(errno) +
        (given.empty() ? ". Give its path with --benchmark." : ". Check the path after --benchmark."));
  }
  return path;
}

std::string FindMeter(const std::string& given) {
  std::vector<std::string> candidates = {given};
  if (given.empty()) {
    candidates = {OwnFolder() + "/../lib/libstress_scope.so",
                  OwnFolder() + "/../" STRESS_SCOPE_LIBDIR "/libstress_scope.so"};
  }
  for (const std::string& candidate : candidates) {
    if (access(candidate.c_str(), R_OK) != 0) continue;
    return fs::absolute(candidate).lexically_normal().string();
  }
  throw UserError(
      "cannot read the meter " + candidates.front() + ": " + std::strerror(errno) +
      ". Give the path of libstress_scope.so with --meter, or record without it with --no-meter.");
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t from = 0; from < text.size();) {
    const std::size_t end = std::min(text.find('\n', from), text.size());
    lines.push_back(text.substr(from, end - from));
    from = end + 1;
  }
  return lines;
}

/// One recording, from the start of the benchmark to the last file: it waits, reads, saves and shows. The
/// supervisor decides when the benchmark has to end.
class Recording {
 public:
  Recording(const RecordOptions& options, View& view)
      : options_(options), view_(view), limits_(LimitsOf(options)) {
    if (options.useMeter) preload_ = std::make_unique<PreloadPath>(FindMeter(options.meter));
    unsigned int runTimeS = 0;
    info_.config = ReadConfiguration(options.config, runTimeS);
    limits_.runTimeS = options.runTimeS != 0 ? options.runTimeS : runTimeS;
    if (options.stopAfterS > 0) limits_.runTimeS = std::min(limits_.runTimeS, std::ceil(options.stopAfterS));
    supervisor_ = std::make_unique<Supervisor>(limits_);
    writer_ = std::make_unique<RunWriter>(options.folder, options.force);
    info_.tool = kToolVersion;
    info_.kind = "record";
    info_.label = options.label;
    info_.conditions = ReadConditions(options.systemRoot);
    // Only the benchmark of this build has a known build type.
    if (options.benchmark.empty()) info_.conditions.buildType = STRESS_SCOPE_BUILD_TYPE;
    counters_ = std::make_unique<Counters>(options.systemRoot, KernelPerfEvents());
    info_.counters = counters_->Sources();
    load_ = std::make_unique<MachineLoad>(options.systemRoot);
    for (CounterSource& source : load_->Sources()) info_.counters.push_back(std::move(source));
    info_.incompleteReason = "the recorder ended before the run did";
    failures_ = UnreadSections(options.config);
    watch_ = std::make_unique<FailureWatch>(info_.config.levels, options.useMeter);
  }

  RecordResult Run(Signals& signals) {
    info_.started = UtcNow();
    writer_->WriteInfo(info_);
    writer_->Add(std::vector<Rate>());
    if (options_.useMeter) {
      writer_->Add(std::vector<Sample>());
      writer_->Add(std::vector<EngineSample>());
    }
    for (const std::string& failure : failures_) Tell(failure);
    Start();
    try {
      while (supervisor_->CurrentState() != Supervisor::State::kEnded) Step(signals);
    } catch (...) {
      view_.End();
      throw;
    }
    view_.End();
    return Finish();
  }

 private:
  static Supervisor::Limits LimitsOf(const RecordOptions& options) {
    return {FindBenchmark(options.benchmark), 0, options.stopAfterS, options.graceS};
  }

  void Start() {
    startNs_ = NowNs();
    meter_ = std::make_unique<MeterReader>(startNs_);
    ChildProcess::Options child;
    child.program = limits_.program;
    child.arguments = {options_.config};
    child.arguments.insert(child.arguments.end(), options_.extra.begin(), options_.extra.end());
    child.takeErrors = true;
    if (options_.useMeter) {
      const char* const others = std::getenv("LD_PRELOAD");
      const bool more = others != nullptr && *others != '\0';
      child.environment = {{"LD_PRELOAD", more ? preload_->Text() + ":" + others : preload_->Text()},
                           {kDescriptorVariable, std::to_string(meter_->ChildEnd())}};
      child.inherit = meter_->ChildEnd();
    }
    child_ = std::make_unique<ChildProcess>(child);
    meter_->CloseChildEnd();
  }

  double TimeS() const { return static_cast<double>(NowNs() - startNs_) * 1e-9; }

  void Step(Signals& signals) {
    std::array<pollfd, 4> waits{{{signals.Descriptor(), POLLIN, 0},
                                 {meter_->Descriptor(), POLLIN, 0},
                                 {output_.AtEnd() ? -1 : child_->Output(), POLLIN, 0},
                                 {errors_.AtEnd() ? -1 : child_->Errors(), POLLIN, 0}}};
    (void)poll(waits.data(), waits.size(), kPollMs);
    if (signals.TakeStop()) Do(supervisor_->SignalCame(TimeS()));
    // Checked before the pipes are read: if it has ended, they now hold everything that it wrote.
    const bool ended = child_->HasEnded();
    ReadOutput(ended ? LineReader::kWholePipe : kTurnBytes);
    ReadMeter();
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

  void ReadOutput(std::size_t mostBytes) {
    std::vector<std::string> lines;
    (void)output_.Read(child_->Output(), lines, mostBytes);
    std::string text;
    for (const std::string& line : lines) text += line + '\n';
    Save([&] { writer_->AddRateLines(text); });
    for (const std::string& line : lines) {
      const double timeS = TimeS();
      supervisor_->SignOfLife(timeS);
      try {
        const std::vector<Rate> rates = ParseRateLine(line, timeS);
        Save([&] { writer_->Add(rates); });
        watch_->Add(rates);
      } catch (const UserError& error) {
        if (badLines_++ == 0)
          Tell("the benchmark printed a line that is not a rate line: " + std::string(error.what()));
      }
    }
    lines.clear();
    (void)errors_.Read(child_->Errors(), lines, mostBytes);
    AddLog(lines);
  }

  void AddLog(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
      text += line + '\n';
      watch_->AddLogLine(line);
    }
    if (!text.empty()) Save([&] { writer_->AddLog(text); });
  }

  void ReadMeter() {
    std::vector<MeterSecond> seconds;
    try {
      meter_->Read(seconds);
    } catch (const UserError& error) {
      Do(supervisor_->RecordingFailed(TimeS(), error.what()));
      meter_ = std::make_unique<MeterReader>(startNs_);
      meter_->CloseChildEnd();
    }
    for (const MeterSecond& second : seconds) {
      if (!info_.conditions.meter) ReadLibraries();
      const bool worked = std::any_of(second.engines.begin(), second.engines.end(),
                                      [](const EngineSample& engine) { return engine.operations != 0; });
      if (worked) supervisor_->SignOfLife(second.timeS);
      Save([&] { writer_->Add(second.samples); });
      Save([&] { writer_->Add(second.engines); });
      watch_->Add(second.samples);
      const bool whole = second.timeS > figures_.TimeS() + kShownSecondS;
      figures_.Add(second);
      // The rest of a second at the end has too few operations to show a rate.
      if (whole) view_.Second(figures_, second.timeS, limits_.runTimeS);
    }
  }

  void ReadLibraries() {
    info_.conditions.meter = true;
    info_.conditions.libraryVersions =
        LibraryVersions("/proc/" + std::to_string(child_->Id()) + "/maps", meter_->PlatformPath());
    TakeWhatPlatformLogged();
    Save([this] { writer_->WriteInfo(info_); });
  }

  void TakeWhatPlatformLogged() {
    info_.conditions.platformSettings = watch_->Log().PlatformSettings();
    info_.conditions.encoderEngines = watch_->Log().EncoderEngines();
  }

  void ReadCounters() {
    const double timeS = TimeS();
    counterTimeS_ = timeS + kCounterPeriodS;
    std::vector<CounterValue> values = counters_->Read(timeS);
    for (CounterValue& value : load_->Read(timeS, child_->Id())) values.push_back(std::move(value));
    if (!values.empty()) Save([&] { writer_->Add(values); });
  }

  // After a failed write nothing more is added: the run would have a gap.
  template <typename Write>
  void Save(Write write) {
    if (saving_) saving_ = Try(write);
  }

  template <typename Write>
  bool Try(Write write) {
    try {
      write();
      return true;
    } catch (const UserError& error) {
      Do(supervisor_->RecordingFailed(
          TimeS(), std::string(error.what()) + "; the data up to now is kept in " + writer_->Folder()));
      return false;
    }
  }

  RecordResult Finish() {
    info_.durationS = TimeS();
    info_.exitStatus = child_->ExitStatus();
    info_.signal = child_->EndSignal();
    if (meter_->Unmeasured() != 0) {
      Tell("the meter did not measure " + Counted(meter_->Unmeasured(), "call") +
           ": there are more threads than it can count");
    }
    if (meter_->DelayedSamples() != 0) {
      Tell("the recorder was too slow: " + Counted(meter_->DelayedSamples(), "sample") +
           " arrived a second late");
    }
    // Tried even after a failed write: there may be room again, and these files do not need the others.
    if (options_.useMeter) (void)Try([this] { writer_->WriteHistogram(meter_->HistogramRows()); });
    FindFailures();
    TakeWhatPlatformLogged();
    info_.incompleteReason = Joined(failures_, "\n");
    info_.complete = info_.incompleteReason.empty();
    (void)Try([this] { writer_->WriteInfo(info_); });
    if (!info_.complete) return {false, supervisor_->Interrupted(), Joined(failures_, "; ")};
    return {supervisor_->Fault().empty(), supervisor_->Interrupted(), supervisor_->Fault()};
  }

  // Adds what was found at the end to what was found at the start, and tells it.
  void FindFailures() {
    if (LogsToFileOnly(info_.config)) AddLog(Lines(logFile_.Added()));
    const std::string fault = supervisor_->Fault();
    if (!fault.empty()) {
      // What else failed may follow from the fault, which was told when it happened.
      const std::string why = watch_->Log().WhyItFailed();
      if (!why.empty()) Tell("the log says: " + why);
      failures_.insert(failures_.begin(), WithLogLine(fault, why));
      return;
    }
    const bool allCounted = meter_->Unmeasured() == 0;
    for (const std::string& failure : watch_->Failures(std::min(workEndS_, limits_.runTimeS), allCounted)) {
      Tell(failure);
      failures_.push_back(failure);
    }
  }

  RecordOptions options_;
  View& view_;
  Supervisor::Limits limits_;
  std::unique_ptr<PreloadPath> preload_;  ///< null without a meter
  RunInfo info_;
  std::unique_ptr<Supervisor> supervisor_;
  std::unique_ptr<RunWriter> writer_;
  std::unique_ptr<Counters> counters_;
  std::unique_ptr<MachineLoad> load_;
  std::unique_ptr<MeterReader> meter_;
  std::unique_ptr<ChildProcess> child_;
  LineReader output_;
  LineReader errors_;
  Figures figures_;
  std::uint64_t startNs_ = 0;
  double counterTimeS_ = 0;
  double workEndS_ = std::numeric_limits<double>::infinity();  ///< when the benchmark was asked to end
  LogFile logFile_;
  std::unique_ptr<FailureWatch> watch_;
  std::vector<std::string> failures_;  ///< one line each
  int badLines_ = 0;
  bool saving_ = true;
};

}  // namespace

RecordResult Record(const RecordOptions& options, View& view, Signals& signals) {
  return Recording(options, view).Run(signals);
}

void CheckRecord(const RecordOptions& options) {
  (void)FindBenchmark(options.benchmark);
  if (options.useMeter) (void)FindMeter(options.meter);
}

}  // namespace scope
