// SPDX-License-Identifier: Apache-2.0
#include "live_export.h"

#include <chrono>
#include <utility>

#include "durable_file.h"
#include "errors.h"

namespace scope {
namespace {

double NowS() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

LiveExport::LiveExport(ExportFiles files, const std::string& label,
                       std::function<void(const std::string&)> fail)
    : files_(std::move(files)), fail_(std::move(fail)), metrics_(NowS(), label) {
  if (!files_.trace.empty()) trace_ = std::make_unique<TraceFile>(files_.trace);
  if (!files_.metrics.empty()) WriteMetrics(true);
}

void LiveExport::Add(const MeterSecond& second) {
  metrics_.Add(second);
  if (trace_) Try(traceFailed_, [&] { trace_->Add(second); });
  if (!files_.metrics.empty()) Try(metricsFailed_, [this] { WriteMetrics(true); });
}

void LiveExport::Add(const std::vector<CounterValue>& values) {
  metrics_.Add(values);
  if (trace_) Try(traceFailed_, [&] { trace_->Add(values); });
}

void LiveExport::End() {
  if (trace_) Try(traceFailed_, [this] { trace_->Close(); });
  if (!files_.metrics.empty()) Try(metricsFailed_, [this] { WriteMetrics(false); });
}

// Nobody needs these figures after a power cut, so they do not wait for the disk.
void LiveExport::WriteMetrics(bool running) {
  ReplaceFile(files_.metrics, metrics_.Text(running), Durability::kNone);
}

template <typename Writing>
void LiveExport::Try(bool& stop, const Writing& write) {
  if (stop) return;
  try {
    write();
  } catch (const UserError& error) {
    stop = true;
    fail_(error.what());
  }
}

}  // namespace scope
