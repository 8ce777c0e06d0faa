// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "benchmark_log.h"
#include "run.h"

namespace scope {

/// Finds out whether the benchmark did what its configuration says. The benchmark goes on without a worker
/// that failed, and ends with status 0. So the recorder looks at what the workers did, and at the log.
class FailureWatch {
 public:
  /// `levels` are those of the configuration. `meter`: samples will be added.
  FailureWatch(std::vector<std::pair<std::string, int>> levels, bool meter)
      : levels_(std::move(levels)), meter_(meter) {}

  void Add(const std::vector<Sample>& samples);
  void Add(const std::vector<Rate>& rates);
  void AddLogLine(const std::string& line) { log_.Add(line); }

  const BenchmarkLog& Log() const { return log_; }

  /// What failed, one line each, with the log's own words where it has some. Workers that are still at work
  /// at `endS` did not end early. `allCounted` is false if the meter had no room for all threads.
  std::vector<std::string> Failures(double endS, bool allCounted) const;

 private:
  struct Worker {
    std::uint64_t operations = 0;
    std::uint64_t failures = 0;
    std::uint64_t longestNs = 0;
    double lastS = 0;  ///< of the last operation
  };
  using Threads = std::set<std::string>;

  std::string AboutWork(const std::string& engine, int level, double endS, bool allCounted) const;
  std::string AboutRates(const std::string& engine, int level) const;
  /// Adds the log's words about the engine to `text`, and its threads there to `explained`.
  std::string WithLog(std::string text, const std::string& engine, Threads& explained) const;
  /// What the log has beside the `explained` threads; empty if there is nothing.
  std::string OtherErrors(const Threads& explained) const;

  std::vector<std::pair<std::string, int>> levels_;
  bool meter_;
  std::map<std::string, std::map<int, Worker>> work_;  ///< by engine and thread
  std::set<std::string> printed_;                      ///< stresses in rate lines
  double lastS_ = 0;
  BenchmarkLog log_;
};

/// `text`, followed by what the log says, if anything.
std::string WithLogLine(const std::string& text, const std::string& line);

}  // namespace scope
