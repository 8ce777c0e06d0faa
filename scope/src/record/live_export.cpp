// SPDX-License-Identifier: Apache-2.0
#include "live_export.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "durable_file.h"
#include "errors.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

double NowS() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

fs::path Normal(const std::string& path) {
  std::error_code error;
  return fs::weakly_canonical(fs::absolute(path, error), error);
}

void RequireOwnFile(const std::string& name, const std::string& config, const std::string& folder) {
  std::error_code error;
  const fs::path file = Normal(name);
  if (fs::exists(file, error) && !fs::is_regular_file(file, error)) {
    throw UserError(name + " is no regular file: name a file of its own");
  }
  if (file == Normal(config)) throw UserError(name + " is the configuration: name a file of its own");
  if (file.parent_path() == Normal(folder)) {
    throw UserError(name + " is in the run folder: name a file outside of it");
  }
  if (access(file.parent_path().c_str(), W_OK | X_OK) != 0) {
    throw UserError("cannot write " + name + ": " + std::strerror(errno));
  }
}

}  // namespace

void RequireOwnFiles(const ExportFiles& files, const std::string& config, const std::string& folder) {
  for (const std::string& file : {files.metrics, files.trace}) {
    if (!file.empty()) RequireOwnFile(file, config, folder);
  }
  if (files.metrics.empty() || files.trace.empty()) return;
  // The metrics are written beside their file first (ReplaceFile).
  if (Normal(files.trace) == Normal(files.metrics) || Normal(files.trace) == Normal(files.metrics + ".new")) {
    throw UserError("--metrics and --trace name the same file, " + files.trace + ": name one for each");
  }
}

LiveExport::LiveExport(ExportFiles files, const std::string& label,
                       std::function<void(const std::string&)> fail)
    : files_(std::move(files)), fail_(std::move(fail)), metrics_(NowS(), label) {
  if (!files_.trace.empty()) trace_ = std::make_unique<TraceFile>(files_.trace);
  if (!files_.metrics.empty()) WriteMetrics(true);
}

LiveExport::~LiveExport() {
  End();
}

void LiveExport::Add(const MeterSecond& second) {
  metrics_.Add(second);
  if (trace_) Try(traceFailed_, [&] { trace_->Add(second); });
}

void LiveExport::Add(double timeS, const std::vector<CounterValue>& values) {
  metrics_.Add(timeS, values);
  if (trace_) Try(traceFailed_, [&] { trace_->Add(timeS, values); });
  if (!files_.metrics.empty()) Try(metricsFailed_, [this] { WriteMetrics(true); });
}

void LiveExport::Add(const std::vector<LatencySecond>& seconds) {
  metrics_.Add(seconds);
  if (trace_) Try(traceFailed_, [&] { trace_->Add(seconds); });
}

void LiveExport::End() {
  if (std::exchange(ended_, true)) return;
  if (!files_.metrics.empty()) Try(metricsFailed_, [this] { WriteMetrics(false); });
  if (trace_) Try(traceFailed_, [this] { trace_->Close(); });
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
