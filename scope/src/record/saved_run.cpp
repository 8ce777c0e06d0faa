// SPDX-License-Identifier: Apache-2.0
#include "saved_run.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "conditions.h"
#include "configuration.h"
#include "control.h"
#include "durable_file.h"
#include "errors.h"
#include "fill_text.h"
#include "latency_probe.h"
#include "rate_line.h"
#include "run_error.h"
#include "tell.h"
#include "text_format.h"

namespace scope {
namespace {

// Rows of the table. Errors that no row has are counted.
constexpr std::size_t kMostErrorRows = 20'000;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t from = 0; from < text.size();) {
    const std::size_t end = std::min(text.find('\n', from), text.size());
    lines.push_back(text.substr(from, end - from));
    from = end + 1;
  }
  return lines;
}

std::string TextOf(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + '\n';
  return text;
}

}  // namespace

SavedRun::SavedRun(const RecordOptions& options, Configuration config, OnFault onFault)
    : onFault_(std::move(onFault)),
      useMeter_(options.useMeter),
      writer_(options.folder, options.force),
      watch_(config.levels, options.useMeter),
      failures_(UnreadSections(options.config)) {
  info_.tool = kToolVersion;
  info_.kind = "record";
  info_.label = options.label;
  info_.config = std::move(config);
  info_.conditions = ReadConditions(options.systemRoot);
  // Only the benchmark of this build has a known build type.
  if (options.benchmark.empty()) info_.conditions.buildType = STRESS_SCOPE_BUILD_TYPE;
  info_.incompleteReason = kRecorderEnded;
  info_.conditions.fill = options.fill;
  info_.conditions.verify = options.verify;
  info_.conditions.control = ControlText(options.control);
  info_.conditions.ownCpus = OwnCpusText(options.own);
  if (options.useMeter && options.dutyPercent < kWholeDuty) {
    info_.conditions.duty = Format("%g %%", options.dutyPercent);
  }
  if (!options.guard.empty()) {
    info_.conditions.guard = options.guard + Format(" at %g MB/s", options.guardRate);
  }
}

void SavedRun::AddSources(const std::vector<CounterSource>& sources) {
  info_.counters.insert(info_.counters.end(), sources.begin(), sources.end());
}

void SavedRun::Begin() {
  info_.started = UtcNow();
  writer_.WriteInfo(info_);
  writer_.Add(std::vector<Rate>());
  if (useMeter_) {
    writer_.Add(std::vector<Sample>());
    writer_.Add(std::vector<EngineSample>());
  }
  if (info_.latency.bytes != 0) writer_.Add(std::vector<LatencySecond>());
  for (const std::string& failure : failures_) Tell(failure);
}

void SavedRun::AddRateLines(const std::vector<std::string>& lines, double timeS) {
  Save([&] { writer_.AddRateLines(TextOf(lines)); });
  for (const std::string& line : lines) {
    try {
      const std::vector<Rate> rates = ParseRateLine(line, timeS);
      Save([&] { writer_.Add(rates); });
      watch_.Add(rates);
    } catch (const UserError& error) {
      if (badLines_++ == 0)
        Tell("the benchmark printed a line that is not a rate line: " + std::string(error.what()));
    }
  }
}

void SavedRun::AddLog(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) watch_.AddLogLine(line);
  if (!lines.empty()) Save([&] { writer_.AddLog(TextOf(lines)); });
}

void SavedRun::Add(const MeterSecond& second) {
  Save([&] { writer_.Add(second.samples); });
  Save([&] { writer_.Add(second.engines); });
  watch_.Add(second.samples);
}

void SavedRun::Add(const std::vector<CounterValue>& values) {
  if (!values.empty()) Save([&] { writer_.Add(values); });
  Add(memoryErrors_.Found(values));
}

void SavedRun::Add(const std::vector<LatencySecond>& seconds) {
  if (!seconds.empty()) Save([&] { writer_.Add(seconds); });
}

void SavedRun::Add(std::vector<RunError> errors) {
  for (const RunError& error : errors) {
    const auto at = std::find_if(info_.errors.begin(), info_.errors.end(),
                                 [&error](const auto& one) { return one.first == error.source; });
    const std::uint64_t count = ErrorsIn(error);
    if (at != info_.errors.end()) {
      at->second += count;
    } else {
      info_.errors.emplace_back(error.source, count);
      Tell("an error: " + ErrorText(error));
    }
  }
  errors.resize(std::min(errors.size(), kMostErrorRows - errorRows_));
  errorRows_ += errors.size();
  if (!errors.empty()) Save([&] { writer_.Add(errors); });
}

void SavedRun::AddTotals(const MeterReader& meter) {
  if (meter.Unmeasured() != 0) {
    Tell("the meter did not measure " + Counted(meter.Unmeasured(), "call") +
         ": there are more threads than it can count");
  }
  if (meter.DelayedSamples() != 0) {
    Tell("the recorder was too slow: " + Counted(meter.DelayedSamples(), "sample") +
         " arrived a second late");
  }
  if (useMeter_) (void)Try([&] { writer_.WriteHistogram(meter.HistogramRows()); });
  SetFilling(meter.Filled());
  info_.streams = meter.Streams();
  info_.deadlines = meter.Deadlines();
  info_.verification = meter.Checks();
  // Some errors have no row in the table.
  for (const EngineCheck& check : info_.verification) CountAtLeast(check.engine, check.errors);
}

void SavedRun::SetFilling(std::vector<EngineFill> filling) {
  if (info_.conditions.fill.empty()) return;
  info_.filling = std::move(filling);
  // The meter has seen no source, or could not make the pattern.
  const bool isSilent = info_.filling.empty();
  for (const auto& [engine, level] : info_.config.levels) {
    if (isSilent && level > 0) info_.filling.push_back({engine, 0, 0, 0});
  }
  for (const FillDoubt& doubt : FillDoubts(info_)) Tell("fill: " + doubt.text);
}

void SavedRun::SetGuard(const GuardSummary& guard) {
  info_.guard = guard;
  CountAtLeast(kGuardSource, guard.errors);
}

void SavedRun::SetLatency(const LatencySummary& latency) {
  info_.latency = latency;
  info_.conditions.latency = LatencyText(latency);
}

void SavedRun::CountAtLeast(const std::string& source, std::uint64_t errors) {
  const auto at = std::find_if(info_.errors.begin(), info_.errors.end(),
                               [&source](const auto& one) { return one.first == source; });
  if (at != info_.errors.end()) {
    at->second = std::max(at->second, errors);
  } else if (errors != 0) {
    info_.errors.emplace_back(source, errors);
  }
}

std::uint64_t SavedRun::Errors() const {
  std::uint64_t sum = 0;
  for (const auto& [source, count] : info_.errors) sum += count;
  return sum;
}

void SavedRun::SetLibraries(std::vector<std::pair<std::string, std::string>> versions) {
  info_.conditions.meter = true;
  info_.conditions.libraryVersions = std::move(versions);
  TakeWhatPlatformLogged();
  Save([this] { writer_.WriteInfo(info_); });
}

void SavedRun::TakeWhatPlatformLogged() {
  info_.conditions.platformSettings = watch_.Log().PlatformSettings();
  info_.conditions.encoderEngines = watch_.Log().EncoderEngines();
}

void SavedRun::FindFailures(const std::string& fault, double endS, bool allCounted) {
  if (LogsToFileOnly(info_.config)) AddLog(Lines(logFile_.Added()));
  if (!fault.empty()) {
    // What else failed may follow from the fault, which was told when it happened.
    const std::string why = watch_.Log().WhyItFailed();
    if (!why.empty()) Tell("the log says: " + why);
    failures_.insert(failures_.begin(), WithLogLine(fault, why));
    return;
  }
  for (const std::string& failure : watch_.Failures(endS, allCounted)) {
    Tell(failure);
    failures_.push_back(failure);
  }
}

const std::vector<std::string>& SavedRun::End(double durationS, int exitStatus, int signal) {
  info_.durationS = durationS;
  info_.exitStatus = exitStatus;
  info_.signal = signal;
  TakeWhatPlatformLogged();
  info_.incompleteReason = Joined(failures_, "\n");
  info_.complete = failures_.empty();
  (void)Try([this] { writer_.WriteInfo(info_); });
  return failures_;
}

template <typename Write>
void SavedRun::Save(Write write) {
  if (saving_) saving_ = Try(write);
}

template <typename Write>
bool SavedRun::Try(Write write) {
  try {
    write();
    return true;
  } catch (const UserError& error) {
    onFault_(std::string(error.what()) + "; the data up to now is kept in " + writer_.Folder());
    return false;
  }
}

}  // namespace scope
