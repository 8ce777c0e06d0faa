// SPDX-License-Identifier: Apache-2.0
#include "running_benchmark.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <utility>
#include <vector>

#include "conditions.h"
#include "control.h"
#include "errors.h"
#include "monotonic_ns.h"
#include "protocol.h"
#include "text_format.h"

namespace scope {
namespace {

// What is read of each pipe in a turn. A benchmark that prints without pause then delays an answer to SIGINT
// by some ten milliseconds.
constexpr std::size_t kTurnBytes = 16384;

// `meterEnd`: the descriptor to which the meter writes.
ChildProcess::Options BenchmarkCommand(const RecordOptions& options, const std::string& program,
                                       const std::string& preload, int meterEnd) {
  ChildProcess::Options command;
  command.program = program;
  command.arguments = {options.config};
  command.arguments.insert(command.arguments.end(), options.extra.begin(), options.extra.end());
  command.takeErrors = true;
  if (preload.empty()) return command;
  const char* const others = std::getenv("LD_PRELOAD");
  const bool more = others != nullptr && *others != '\0';
  command.environment = {{"LD_PRELOAD", more ? preload + ":" + others : preload},
                         {kDescriptorVariable, std::to_string(meterEnd)}};
  const auto add = [&command](const char* name, const std::string& value) {
    command.environment.emplace_back(name, value);
  };
  if (!options.fill.empty()) add(kFillVariable, options.fill);
  if (!options.own.cpus.empty()) add(kPinVariable, OwnCpusText(options.own, "="));
  if (options.verify) add(kVerifyVariable, "1");
  if (!options.deadlines.empty()) add(kDeadlinesVariable, DeadlinesText(options.deadlines));
  if (options.dutyPercent < kWholeDuty) add(kDutyVariable, Format("%.6g", options.dutyPercent));
  command.inherit = meterEnd;
  return command;
}

bool HasWorked(const MeterSecond& second) {
  return std::any_of(second.engines.begin(), second.engines.end(),
                     [](const EngineSample& engine) { return engine.operations != 0; });
}

}  // namespace

RunningBenchmark::RunningBenchmark(const RecordOptions& options, const std::string& program,
                                   const std::string& preload, std::uint64_t startNs, OnFault onFault)
    : useMeter_(options.useMeter),
      startNs_(startNs),
      onFault_(std::move(onFault)),
      meter_(std::make_unique<MeterReader>(startNs)),
      process_(BenchmarkCommand(options, program, preload, meter_->ChildEnd())) {
  meter_->CloseChildEnd();
}

std::array<int, 3> RunningBenchmark::Descriptors() const {
  return {meter_->Descriptor(), output_.AtEnd() ? -1 : process_.Output(),
          errors_.AtEnd() ? -1 : process_.Errors()};
}

bool RunningBenchmark::Read(Supervisor& supervisor, RecordedData& data) {
  // Checked before the pipes are read: if it has ended, they now hold everything that it wrote.
  const bool hasEnded = process_.HasEnded();
  if (!supervisor.IsAlive()) supervisor.CatchesSigint(process_.Catches(SIGINT), SecondsSince(startNs_));
  ReadOutput(hasEnded ? LineReader::kWholePipe : kTurnBytes, supervisor, data);
  ReadMeter(supervisor, data);
  return hasEnded;
}

void RunningBenchmark::ReadOutput(std::size_t mostBytes, Supervisor& supervisor, RecordedData& data) {
  std::vector<std::string> lines;
  (void)output_.Read(process_.Output(), lines, mostBytes);
  if (!lines.empty()) {
    const double timeS = SecondsSince(startNs_);
    supervisor.SignOfLife(timeS);
    data.Saved().AddRateLines(lines, timeS);
  }
  lines.clear();
  (void)errors_.Read(process_.Errors(), lines, mostBytes);
  data.Saved().AddLog(lines);
}

void RunningBenchmark::ReadMeter(Supervisor& supervisor, RecordedData& data) {
  std::vector<MeterSecond> seconds;
  try {
    meter_->Read(seconds);
  } catch (const UserError& error) {
    onFault_(error.what());
    meter_ = std::make_unique<MeterReader>(startNs_);
    meter_->CloseChildEnd();
  }
  data.Saved().Add(meter_->TakeErrors());
  for (const MeterSecond& second : seconds) {
    if (!data.Saved().KnowsLibraries()) {
      data.Saved().SetLibraries(
          LibraryVersions("/proc/" + std::to_string(process_.Id()) + "/maps", meter_->PlatformPath()));
    }
    if (HasWorked(second)) supervisor.SignOfLife(second.timeS);
    data.Add(second);
  }
}

Supervisor::Ending RunningBenchmark::Ending() const {
  Supervisor::Ending ending{process_.ExitStatus(), process_.EndSignal(), Supervisor::Meter::kUnused};
  if (!useMeter_) return ending;
  ending.meter = meter_->SaidLast() ? Supervisor::Meter::kSaidTheEnd : Supervisor::Meter::kCut;
  if (!meter_->SaidHello()) ending.meter = Supervisor::Meter::kSilent;
  return ending;
}

}  // namespace scope
