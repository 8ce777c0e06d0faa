// SPDX-License-Identifier: Apache-2.0
#include "watchers.h"

#include <poll.h>

#include <algorithm>
#include <utility>

#include "conditions.h"
#include "memory_size.h"
#include "monotonic_ns.h"
#include "run_error.h"
#include "tell.h"

namespace scope {

Watchers::Watchers(const RecordOptions& options, Signals& signals, OnFault onFault)
    : onFault_(std::move(onFault)),
      counters_(options.systemRoot, KernelPerfEvents()),
      load_(options.systemRoot) {
  const std::string& root = options.systemRoot;
  if (!options.guard.empty()) {
    guard_ =
        std::make_unique<Guard>(GuardBytes(options.guard, AvailableBytes(root)), options.guardRate, &signals);
  }
  if (options.latency) {
    const std::uint64_t bytes =
        LatencyBytes(options.latencySize, ReadConditions(root).caches, AvailableBytes(root));
    latency_ = std::make_unique<LatencyProbe>(bytes, options.latencyCpu, LatencyRhythm(), &signals);
  }
  if (!options.control.empty()) control_ = std::make_unique<Control>(options.control, options.own.cpus);
}

void Watchers::Describe(SavedRun& run) const {
  run.AddSources(counters_.Sources());
  run.AddSources(load_.Sources());
  if (guard_ != nullptr) run.AddSources({{kGuardSource, true, ""}});
  if (latency_ != nullptr) run.SetLatency(latency_->Summary());
}

void Watchers::Prepare(std::uint64_t startNs) {
  startNs_ = startNs;
  before_ = counters_.Read(0);
}

void Watchers::Begin(pid_t benchmark, RecordedData& data) {
  benchmark_ = benchmark;
  if (latency_ != nullptr) latency_->Begin(startNs_);
  AddCounters(0, std::move(before_), data);
}

std::array<int, 3> Watchers::Descriptors() const {
  return {guard_ == nullptr ? -1 : guard_->Descriptor(), latency_ == nullptr ? -1 : latency_->Descriptor(),
          control_ == nullptr ? -1 : control_->Descriptor()};
}

void Watchers::Read(RecordedData& data) {
  ReadGuard(data);
  ReadLatency(false, data);
  WatchControl();
  if (counterTimeS_ <= SecondsSince(startNs_)) ReadCounters(data);
}

void Watchers::End(Signals& signals, Supervisor& supervisor, RecordedData& data) {
  // First: the guard's last walk, at full speed, is no load of the run.
  if (latency_ != nullptr) {
    ReadLatency(true, data);
    data.Saved().SetLatency(latency_->Summary());
  }
  if (guard_ != nullptr) {
    EndGuard(signals, supervisor, data);
    data.Saved().SetGuard(guard_->Summary());
    ReadMemoryControllers(data);
  }
}

void Watchers::ReadCounters(RecordedData& data) {
  const double timeS = SecondsSince(startNs_);
  counterTimeS_ = timeS + kCounterPeriodS;
  AddCounters(timeS, counters_.Read(timeS), data);
}

// Adds `values`, and the load of the machine at this time.
void Watchers::AddCounters(double timeS, std::vector<CounterValue> values, RecordedData& data) {
  for (CounterValue& value : load_.Read(timeS, benchmark_, Processes())) values.push_back(std::move(value));
  data.Add(timeS, values);
}

std::vector<pid_t> Watchers::Processes() const {
  std::vector<pid_t> processes;
  if (guard_ != nullptr) processes.push_back(guard_->Id());
  if (latency_ != nullptr) processes.push_back(latency_->Id());
  if (control_ != nullptr) processes.push_back(control_->Id());
  return processes;
}

// The guard's last walk, after the benchmark's end, may have found what only they see.
void Watchers::ReadMemoryControllers(RecordedData& data) {
  std::vector<CounterValue> values = counters_.Read(SecondsSince(startNs_));
  const auto isOther = [](const CounterValue& value) { return value.source != kMemoryController; };
  values.erase(std::remove_if(values.begin(), values.end(), isOther), values.end());
  data.Saved().Add(values);
}

void Watchers::ReadGuard(RecordedData& data) {
  if (guard_ == nullptr) return;
  const bool wasWell = guard_->Fault().empty();
  std::vector<RunError> errors;
  std::vector<CounterValue> values;
  guard_->Read(startNs_, errors, values);
  data.Saved().Add(std::move(errors));
  data.Saved().Add(values);
  if (wasWell && !guard_->Fault().empty()) {
    onFault_(guard_->Fault() + ": memory was not guarded from then on", guard_->HasCrashed());
  }
}

// Waits for its last walk, unless a signal comes.
void Watchers::EndGuard(Signals& signals, Supervisor& supervisor, RecordedData& data) {
  guard_->BeginLastWalk();
  while (guard_->Descriptor() >= 0) {
    std::array<pollfd, 2> waits{{{signals.Descriptor(), POLLIN, 0}, {guard_->Descriptor(), POLLIN, 0}}};
    (void)poll(waits.data(), waits.size(), -1);
    const double timeS = SecondsSince(startNs_);
    if (signals.TakeStop() && supervisor.IsAnotherSignal(timeS)) {
      (void)supervisor.SignalCame(timeS);
      guard_->CutShort();
    }
    ReadGuard(data);
  }
  if (guard_->Summary().isCut) {
    Tell("the guard's last walk was cut short: what changed since the walk before it may not be found");
  }
}

void Watchers::ReadLatency(bool toItsEnd, RecordedData& data) {
  if (latency_ == nullptr) return;
  const bool wasWell = latency_->Fault().empty();
  std::vector<LatencySecond> seconds;
  if (toItsEnd) {
    latency_->End(seconds);
  } else {
    latency_->Read(seconds);
  }
  data.Add(seconds);
  if (wasWell && !latency_->Fault().empty()) {
    onFault_(latency_->Fault() + ": the latency of memory was not measured from then on",
             latency_->HasCrashed());
  }
}

void Watchers::WatchControl() {
  if (control_ == nullptr || control_->Descriptor() < 0) return;
  if (!control_->Fault().empty())
    onFault_(control_->Fault() + ": nothing computed beside the benchmark from then on", false);
}

}  // namespace scope
