// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include "csv.h"
#include "run.h"

/// The tables of a run folder. Writer and reader go by this one list of their columns, and a test compares
/// FORMAT.md with it.
namespace scope {

constexpr const char* kRatesTextName = "rates.txt";
constexpr const char* kLogName = "log.txt";
constexpr const char* kReportName = "report.html";

/// The file that has a row for each `Row`.
template <typename Row>
constexpr const char* kTableName = nullptr;
template <>
inline constexpr const char* kTableName<Sample> = "samples.csv";
template <>
inline constexpr const char* kTableName<EngineSample> = "seconds.csv";
template <>
inline constexpr const char* kTableName<HistogramRow> = "histogram.csv";
template <>
inline constexpr const char* kTableName<Rate> = "rates.csv";
template <>
inline constexpr const char* kTableName<CounterValue> = "counters.csv";
template <>
inline constexpr const char* kTableName<RunError> = "errors.csv";
template <>
inline constexpr const char* kTableName<LatencySecond> = "latency.csv";

/// Visits the columns of a second's work, of an engine or of one of its threads.
template <typename Row, typename Visit>
void VisitWorkColumns(Row& row, const Visit& visit) {
  visit(CsvColumn{"second"}, row.second);
  visit(CsvColumn{"time_s"}, row.timeS);
  visit(CsvColumn{"engine"}, row.engine);
  if constexpr (std::is_same_v<std::remove_const_t<Row>, Sample>) {
    visit(CsvColumn{"thread"}, row.thread);
  } else {
    visit(CsvColumn{"threads"}, row.threads);
  }
  visit(CsvColumn{"operations"}, row.operations);
  visit(CsvColumn{"busy_ns"}, row.busyNs);
  visit(CsvColumn{"bytes"}, row.bytes);
  visit(CsvColumn{"failures"}, row.failures);
  visit(CsvColumn{"p50_ns"}, row.p50Ns);
  visit(CsvColumn{"p99_ns"}, row.p99Ns);
  visit(CsvColumn{"max_ns"}, row.maxNs);
}

/// Calls `visit` with each column of the table and its value in `row`, which may be const.
template <typename Row, typename Visit>
void VisitColumns(Row& row, const Visit& visit) {
  using Kind = std::remove_const_t<Row>;
  if constexpr (std::is_base_of_v<SecondWork, Kind>) {
    VisitWorkColumns(row, visit);
  } else if constexpr (std::is_same_v<Kind, HistogramRow>) {
    visit(CsvColumn{"engine"}, row.engine);
    visit(CsvColumn{"thread"}, row.thread);
    visit(CsvColumn{"low_ns"}, row.lowNs);
    visit(CsvColumn{"high_ns"}, row.highNs);
    visit(CsvColumn{"count"}, row.count);
  } else if constexpr (std::is_same_v<Kind, Rate>) {
    visit(CsvColumn{"time_s"}, row.timeS);
    visit(CsvColumn{"stress"}, row.stress);
    visit(CsvColumn{"fps", 6}, row.fps);
  } else if constexpr (std::is_same_v<Kind, LatencySecond>) {
    visit(CsvColumn{"second"}, row.second);
    visit(CsvColumn{"time_s"}, row.timeS);
    visit(CsvColumn{"accesses"}, row.accesses);
    visit(CsvColumn{"mean_ns", 1}, row.meanNs);
    visit(CsvColumn{"p50_ns"}, row.p50Ns);
    visit(CsvColumn{"p99_ns"}, row.p99Ns);
    visit(CsvColumn{"p999_ns"}, row.p999Ns);
    visit(CsvColumn{"max_ns"}, row.maxNs);
    visit(CsvColumn{"bursts"}, row.bursts);
    visit(CsvColumn{"interrupted"}, row.interrupted);
    visit(CsvColumn{"steal_ms"}, row.stealMs);
    visit(CsvColumn{"interrupts"}, row.interrupts);
    visit(CsvColumn{"switches"}, row.switches);
  } else if constexpr (std::is_same_v<Kind, RunError>) {
    visit(CsvColumn{"time_s"}, row.timeS);
    visit(CsvColumn{"source"}, row.source);
    visit(CsvColumn{"thread"}, row.thread);
    visit(CsvColumn{"operation"}, row.operation);
    visit(CsvColumn{"what"}, row.what);
    visit(CsvColumn{"offset"}, row.offset);
    visit(CsvColumn{"address"}, row.address);
    visit(CsvColumn{"physical"}, row.physical);
    visit(CsvColumn{"expected"}, row.expected);
    visit(CsvColumn{"found"}, row.found);
    visit(CsvColumn{"bits"}, row.bits);
    visit(CsvColumn{"note"}, row.note);
  } else {
    visit(CsvColumn{"time_s"}, row.timeS);
    visit(CsvColumn{"source"}, row.source);
    visit(CsvColumn{"name"}, row.name);
    visit(CsvColumn{"unit"}, row.unit);
    visit(CsvColumn{"value", CsvColumn::kSignificant}, row.value);
  }
}

/// The first line of the table, without a line feed.
template <typename Row>
std::string TableHeader() {
  const Row row{};
  std::string header;
  VisitColumns(row, [&header](const CsvColumn& column, const auto& /*value*/) {
    header += (header.empty() ? "" : ",") + std::string(column.name);
  });
  return header;
}

/// The rows as lines.
template <typename Row>
std::string TableText(const std::vector<Row>& rows) {
  std::string text;
  for (const Row& row : rows) {
    VisitColumns(
        row, [&text](const CsvColumn& column, const auto& value) { text += CsvField(column, value) + ','; });
    text.back() = '\n';
  }
  return text;
}

}  // namespace scope
