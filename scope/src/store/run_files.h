// SPDX-License-Identifier: Apache-2.0
#pragma once

/// The file names of a run folder and the header rows of its tables.
namespace scope {

constexpr const char* kInfoName = "run.json";
constexpr const char* kSamplesName = "samples.csv";
constexpr const char* kSamplesJsonName = "samples.jsonl";
constexpr const char* kHistogramName = "histogram.csv";
constexpr const char* kRatesName = "rates.csv";
constexpr const char* kRatesTextName = "rates.txt";
constexpr const char* kCountersName = "counters.csv";
constexpr const char* kReportName = "report.html";

constexpr const char* kSamplesHeader =
    "time_s,engine,thread,operations,busy_ns,bytes,failures,p50_ns,p99_ns,max_ns";
constexpr const char* kHistogramHeader = "engine,thread,low_ns,high_ns,count";
constexpr const char* kRatesHeader = "time_s,stress,fps";
constexpr const char* kCountersHeader = "time_s,source,name,unit,value";

}  // namespace scope
