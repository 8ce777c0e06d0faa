// SPDX-License-Identifier: Apache-2.0
#include "run_reader.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

#include "csv.h"
#include "errors.h"
#include "run_files.h"
#include "run_gaps.h"
#include "run_json.h"
#include "system_files.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

// Calls `add` for every row of the table. A missing file matters only if it is `required`.
template <typename AddRow>
void ReadTable(Run& run, const char* name, const char* header, bool required, AddRow add) {
  const std::string path = run.folder + "/" + name;
  const std::optional<std::string> text = ReadFile(path);
  if (!text) {
    const int error = errno;
    if (error != ENOENT) throw DamagedFolder(path + ": " + std::strerror(error));
    if (!required) return;
    if (run.info.complete) throw DamagedFolder(path + ": the file is missing, although the run is complete");
    run.notes.push_back(std::string(name) + " is missing: the run is incomplete");
    return;
  }
  std::size_t number = 0;
  for (std::size_t from = 0; from < text->size();) {
    ++number;
    const std::size_t end = text->find('\n', from);
    if (end == std::string::npos) {
      // The writer ends every line with a line feed. A line without one was cut.
      run.notes.push_back(std::string(name) + ": line " + std::to_string(number) +
                          " is cut and was left out");
      return;
    }
    const std::string line = text->substr(from, end - from);
    from = end + 1;
    if (number > 1) {
      add(CsvRow(path, number, line, header));
    } else if (line != header) {
      throw DamagedFolder(path + ":1: expected the header \"" + header + "\", found \"" + line + "\"");
    }
  }
  if (number == 0) run.notes.push_back(std::string(name) + " is empty");
}

}  // namespace

bool IsRunFolder(const std::string& folder) {
  std::error_code error;
  const bool exists = fs::exists(fs::path(folder) / kInfoName, error);
  if (error) throw UserError(folder + ": cannot find out whether it is a run folder: " + error.message());
  return exists;
}

RunInfo ReadRunInfo(const std::string& folder) {
  const std::string path = folder + "/" + kInfoName;
  std::error_code ignored;
  if (!fs::is_directory(folder, ignored)) throw UserError(folder + ": there is no such folder");
  const std::optional<std::string> text = ReadFile(path);
  if (!text) throw UserError(folder + ": not a run folder: cannot read run.json: " + std::strerror(errno));
  return ParseRunInfo(*text, path);
}

Run ReadRun(const std::string& folder) {
  Run run;
  run.folder = folder;
  run.info = ReadRunInfo(folder);
  if (!run.info.complete) {
    run.notes.push_back("the run is incomplete" +
                        (run.info.incompleteReason.empty() ? "" : ": " + run.info.incompleteReason));
  }
  const bool meter = run.info.conditions.meter;
  ReadTable(run, kSamplesName, kSamplesHeader, meter, [&run](const CsvRow& row) {
    Sample sample;
    sample.timeS = row.Real(0);
    sample.engine = row.Text(1);
    sample.thread = row.Index(2);
    sample.operations = row.Count(3);
    sample.busyNs = row.Count(4);
    if (!row.Text(5).empty()) sample.bytes = row.Count(5);
    sample.failures = row.Count(6);
    sample.p50Ns = row.Count(7);
    sample.p99Ns = row.Count(8);
    sample.maxNs = row.Count(9);
    run.samples.push_back(sample);
  });
  ReadTable(run, kHistogramName, kHistogramHeader, meter, [&run](const CsvRow& row) {
    run.histogram.push_back({row.Text(0), row.Index(1), row.Count(2), row.Count(3), row.Count(4)});
  });
  ReadTable(run, kRatesName, kRatesHeader, true,
            [&run](const CsvRow& row) { run.rates.push_back({row.Real(0), row.Text(1), row.Real(2)}); });
  ReadTable(run, kCountersName, kCountersHeader, false, [&run](const CsvRow& row) {
    run.counters.push_back({row.Real(0), row.Text(1), row.Text(2), row.Text(3), row.Real(4)});
  });
  NoteGaps(run);
  return run;
}

}  // namespace scope
