// SPDX-License-Identifier: Apache-2.0
#include "run_writer.h"

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>

#include "csv.h"
#include "durable_file.h"
#include "errors.h"
#include "run_files.h"
#include "run_json.h"
#include "text_format.h"

namespace scope {
namespace {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

}  // namespace

class RunWriter::File : public OutputFile {
  using OutputFile::OutputFile;
};

RunWriter::RunWriter(const std::string& folder, bool force) : folder_(folder) {
  std::error_code error;
  if (IsTaken(folder)) {
    if (!force || !fs::is_directory(folder, error)) {
      throw UserError(folder + " exists and is not an empty folder" +
                      (force ? "" : ": choose another one, or add --force to replace the run in it"));
    }
    for (const char* name : {kInfoName, kSamplesName, kSamplesJsonName, kHistogramName, kRatesName,
                             kRatesTextName, kCountersName, kReportName}) {
      fs::remove(fs::path(folder) / name, error);
      if (error) throw UserError("cannot remove " + folder + "/" + name + ": " + error.message());
    }
  }
  MakeFolder(folder);
}

RunWriter::~RunWriter() = default;

RunWriter::File& RunWriter::Open(std::unique_ptr<File>& file, const char* name, const char* header) {
  if (file == nullptr) {
    file = std::make_unique<File>(folder_ + "/" + name);
    if (header != nullptr) file->Write(std::string(header) + "\n");
  }
  return *file;
}

void RunWriter::WriteInfo(const RunInfo& info) {
  ReplaceFile(folder_ + "/" + kInfoName, RunInfoText(info));
}

void RunWriter::Add(const std::vector<Sample>& samples) {
  std::string csv;
  std::string lines;
  for (const Sample& sample : samples) {
    const std::string bytes = sample.bytes ? std::to_string(*sample.bytes) : std::string();
    csv += CsvSeconds(sample.timeS) + ',' + sample.engine + ',' + std::to_string(sample.thread) + ',' +
           std::to_string(sample.operations) + ',' + std::to_string(sample.busyNs) + ',' + bytes + ',' +
           std::to_string(sample.failures) + ',' + std::to_string(sample.p50Ns) + ',' +
           std::to_string(sample.p99Ns) + ',' + std::to_string(sample.maxNs) + '\n';
    Json json{{"time_s", std::round(sample.timeS * 1000) / 1000},
              {"engine", sample.engine},
              {"thread", sample.thread},
              {"operations", sample.operations},
              {"busy_ns", sample.busyNs},
              {"bytes", nullptr},
              {"failures", sample.failures},
              {"p50_ns", sample.p50Ns},
              {"p99_ns", sample.p99Ns},
              {"max_ns", sample.maxNs}};
    if (sample.bytes) json["bytes"] = *sample.bytes;
    lines += json.dump() + '\n';
  }
  Open(samplesCsv_, kSamplesName, kSamplesHeader).Write(csv);
  Open(samplesJson_, kSamplesJsonName, nullptr).Write(lines);
}

void RunWriter::Add(const std::vector<Rate>& rates) {
  std::string csv;
  for (const Rate& rate : rates) {
    csv += CsvSeconds(rate.timeS) + ',' + rate.stress + ',' + Format("%.6f", rate.fps) + '\n';
  }
  Open(ratesCsv_, kRatesName, kRatesHeader).Write(csv);
}

void RunWriter::Add(const std::vector<CounterValue>& counters) {
  if (counters.empty()) return;
  std::string csv;
  for (const CounterValue& counter : counters) {
    csv += CsvSeconds(counter.timeS) + ',' + counter.source + ',' + CsvField(counter.name) + ',' +
           CsvField(counter.unit) + ',' + CsvNumber(counter.value) + '\n';
  }
  Open(countersCsv_, kCountersName, kCountersHeader).Write(csv);
}

void RunWriter::AddRateLine(const std::string& line) {
  Open(ratesText_, kRatesTextName, nullptr).Write(line + '\n');
}

void RunWriter::WriteHistogram(const std::vector<HistogramRow>& rows) {
  std::string csv = std::string(kHistogramHeader) + '\n';
  for (const HistogramRow& row : rows) {
    csv += row.engine + ',' + std::to_string(row.thread) + ',' + std::to_string(row.lowNs) + ',' +
           std::to_string(row.highNs) + ',' + std::to_string(row.count) + '\n';
  }
  ReplaceFile(folder_ + "/" + kHistogramName, csv);
}

}  // namespace scope
