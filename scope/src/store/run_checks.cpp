// SPDX-License-Identifier: Apache-2.0
#include "run_checks.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "errors.h"
#include "run_tables.h"
#include "text_format.h"

namespace scope {
namespace {

using Thread = std::pair<std::string, int>;

// A table's rows begin in line 2.
[[noreturn]] void Fail(const Run& run, const char* file, std::size_t index, const std::string& what) {
  throw DamagedFolder(run.folder + "/" + file + ":" + std::to_string(index + 2) + ": " + what);
}

std::string NameOf(const Thread& thread) {
  return thread.first + " thread " + std::to_string(thread.second);
}

// Collects the names in a column, and refuses those that are no names.
class Names {
 public:
  Names(const Run& run, const char* file, const char* column) : run_(run), file_(file), column_(column) {}

  void Add(const std::string& name, std::size_t index) {
    if (!names_.empty() && name == last_) return;
    constexpr std::size_t kMostLetters = 64;
    const bool isName =
        !name.empty() && name.size() <= kMostLetters &&
        std::all_of(name.begin(), name.end(), [](char letter) {
          return letter > ' ' && letter < '\x7f' && std::string("\\\"'<>&").find(letter) == std::string::npos;
        });
    if (!isName) Fail(run_, file_, index, std::string("expected a short name as ") + column_);
    names_.insert(name);
    last_ = name;
    if (names_.size() > kMostEngines) {
      Fail(run_, file_, index,
           "expected at most " + std::to_string(kMostEngines) + " different names as " + column_);
    }
  }

 private:
  const Run& run_;
  const char* file_;
  const char* column_;
  std::set<std::string> names_;
  std::string last_;
};

// A sum that cannot be counted is the largest number.
void AddTo(std::uint64_t& sum, std::uint64_t count) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
  sum = count > kMost - sum ? kMost : sum + count;
}

void CheckTime(const Run& run, std::size_t index, const Thread& thread, const Sample& sample,
               std::map<Thread, std::pair<double, bool>>& last) {
  if (sample.timeS < 0) Fail(run, kTableName<Sample>, index, "expected a time from the start on");
  const auto [at, first] = last.emplace(thread, std::make_pair(sample.timeS, false));
  if (first) return;
  auto& [timeS, again] = at->second;
  if (sample.timeS < timeS || again) {
    Fail(run, kTableName<Sample>, index,
         "expected one row a second for " + NameOf(thread) + Format(", after %.3f s", timeS));
  }
  again = sample.timeS == timeS;
  timeS = sample.timeS;
}

void CheckLatencies(const Run& run, std::size_t index, const Sample& sample) {
  if (sample.p50Ns > sample.p99Ns || sample.p99Ns > sample.maxNs) {
    Fail(run, kTableName<Sample>, index, "expected p50_ns, p99_ns and max_ns in rising order");
  }
  if (sample.operations == 0 && sample.maxNs != 0) {
    Fail(run, kTableName<Sample>, index, "expected latencies of 0 without operations");
  }
  // Times are rounded.
  constexpr double kSlackS = 1;
  if (static_cast<double>(sample.maxNs) * 1e-9 > sample.timeS + kSlackS) {
    Fail(run, kTableName<Sample>, index,
         "an operation took longer than the run: max_ns is " + std::to_string(sample.maxNs));
  }
}

void CheckSamples(const Run& run) {
  Names engines(run, kTableName<Sample>, "engine");
  std::map<Thread, std::pair<double, bool>> last;
  for (std::size_t i = 0; i != run.samples.size(); ++i) {
    const Sample& sample = run.samples[i];
    const Thread thread{sample.engine, sample.thread};
    engines.Add(sample.engine, i);
    CheckTime(run, i, thread, sample, last);
    CheckLatencies(run, i, sample);
  }
}

void CheckHistogram(const Run& run) {
  Names engines(run, kTableName<HistogramRow>, "engine");
  for (std::size_t i = 0; i != run.histogram.size(); ++i) {
    const HistogramRow& row = run.histogram[i];
    engines.Add(row.engine, i);
    if (row.lowNs >= row.highNs) Fail(run, kTableName<HistogramRow>, i, "expected low_ns below high_ns");
  }
}

}  // namespace

void CheckRows(const Run& run) {
  CheckSamples(run);
  CheckHistogram(run);
  Names stresses(run, kTableName<Rate>, "stress");
  for (std::size_t i = 0; i != run.rates.size(); ++i) stresses.Add(run.rates[i].stress, i);
}

void CheckTotals(const Run& run) {
  std::map<Thread, std::uint64_t> operations;
  std::map<Thread, std::uint64_t> counts;
  for (const Sample& sample : run.samples)
    AddTo(operations[{sample.engine, sample.thread}], sample.operations);
  for (const HistogramRow& row : run.histogram) AddTo(counts[{row.engine, row.thread}], row.count);
  for (const auto& [thread, count] : counts) operations.emplace(thread, 0);
  for (const auto& [thread, count] : operations) {
    if (counts[thread] == count) continue;
    throw DamagedFolder(run.folder + ": " + kTableName<Sample> + " has " + std::to_string(count) +
                        " operations of " + NameOf(thread) + ", " + kTableName<HistogramRow> + " has " +
                        std::to_string(counts[thread]) + ": they are not of the same run");
  }
}

}  // namespace scope
