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

Thread ThreadOf(const Sample& row) {
  return {row.engine, row.thread};
}

// All of an engine's threads together have no number.
Thread ThreadOf(const EngineSample& row) {
  return {row.engine, -1};
}

std::string NameOf(const Thread& thread) {
  return thread.first + (thread.second < 0 ? "" : " thread " + std::to_string(thread.second));
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

// `last` is the row before of the same thread, if there is one.
template <typename Row>
void CheckTime(const Run& run, std::size_t index, const Row& row, const Row* last) {
  const char* const file = kTableName<Row>;
  if (row.timeS < 0) Fail(run, file, index, "expected a time from the start on");
  if (last == nullptr || (row.second > last->second && row.timeS >= last->timeS)) return;
  Fail(run, file, index,
       "expected one row a second for " + NameOf(ThreadOf(row)) +
           Format(", after second %d at %.3f s", last->second, last->timeS));
}

template <typename Row>
void CheckLatencies(const Run& run, std::size_t index, const Row& row) {
  const char* const file = kTableName<Row>;
  if (row.p50Ns > row.p99Ns || row.p99Ns > row.maxNs) {
    Fail(run, file, index, "expected p50_ns, p99_ns and max_ns in rising order");
  }
  if (row.operations == 0 && row.maxNs != 0) {
    Fail(run, file, index, "expected latencies of 0 without operations");
  }
  // Times are rounded.
  constexpr double kSlackS = 1;
  if (static_cast<double>(row.maxNs) * 1e-9 > row.timeS + kSlackS) {
    Fail(run, file, index, "an operation took longer than the run: max_ns is " + std::to_string(row.maxNs));
  }
}

template <typename Row>
void CheckSeconds(const Run& run, const std::vector<Row>& rows) {
  Names engines(run, kTableName<Row>, "engine");
  std::map<Thread, const Row*> last;
  for (std::size_t i = 0; i != rows.size(); ++i) {
    engines.Add(rows[i].engine, i);
    const Row*& before = last[ThreadOf(rows[i])];
    CheckTime(run, i, rows[i], before);
    CheckLatencies(run, i, rows[i]);
    before = &rows[i];
  }
}

void CheckLatency(const Run& run) {
  const char* const file = kTableName<LatencySecond>;
  const LatencySecond* before = nullptr;
  for (std::size_t i = 0; i != run.latency.size(); ++i) {
    const LatencySecond& row = run.latency[i];
    if (row.timeS < 0) Fail(run, file, i, "expected a time from the start on");
    if (before != nullptr && (row.second <= before->second || row.timeS < before->timeS)) {
      Fail(run, file, i, Format("expected one row a second, after second %d", before->second));
    }
    if (row.p50Ns > row.p99Ns || row.p99Ns > row.p999Ns || row.p999Ns > row.maxNs || row.meanNs < 0) {
      Fail(run, file, i, "expected p50_ns, p99_ns, p999_ns and max_ns in rising order");
    }
    before = &row;
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

using Totals = std::map<Thread, std::uint64_t>;

void CompareTotals(const Run& run, Totals operations, const char* file, Totals counts) {
  for (const auto& [thread, count] : counts) operations.emplace(thread, 0);
  for (const auto& [thread, count] : operations) {
    if (counts[thread] == count) continue;
    throw DamagedFolder(run.folder + ": " + kTableName<Sample> + " has " + std::to_string(count) +
                        " operations of " + NameOf(thread) + ", " + file + " has " +
                        std::to_string(counts[thread]) +
                        ": they are not of the same run. Copy the whole folder again, or record anew");
  }
}

}  // namespace

void CheckRows(const Run& run) {
  CheckSeconds(run, run.samples);
  CheckSeconds(run, run.seconds);
  CheckHistogram(run);
  CheckLatency(run);
  Names stresses(run, kTableName<Rate>, "stress");
  for (std::size_t i = 0; i != run.rates.size(); ++i) stresses.Add(run.rates[i].stress, i);
  Names sources(run, kTableName<RunError>, "source");
  for (std::size_t i = 0; i != run.errors.size(); ++i) {
    sources.Add(run.errors[i].source, i);
    if (run.errors[i].timeS < 0) Fail(run, kTableName<RunError>, i, "expected a time from the start on");
  }
}

void CheckTotals(const Run& run) {
  Totals operations;
  Totals counts;
  Totals ofEngines;
  for (const Sample& sample : run.samples) {
    AddTo(operations[ThreadOf(sample)], sample.operations);
    AddTo(ofEngines[{sample.engine, -1}], sample.operations);
  }
  for (const HistogramRow& row : run.histogram) AddTo(counts[{row.engine, row.thread}], row.count);
  CompareTotals(run, operations, kTableName<HistogramRow>, counts);
  counts.clear();
  for (const EngineSample& row : run.seconds) AddTo(counts[ThreadOf(row)], row.operations);
  CompareTotals(run, ofEngines, kTableName<EngineSample>, counts);
}

}  // namespace scope
