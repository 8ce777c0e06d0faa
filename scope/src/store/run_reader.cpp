// SPDX-License-Identifier: Apache-2.0
#include "run_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "engines.h"
#include "errors.h"
#include "folder_file.h"
#include "run_checks.h"
#include "run_error.h"
#include "run_json.h"
#include "run_tables.h"
#include "text_format.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

// Reads the table of `rows`. A missing file matters only if it is `required`.
template <typename Row>
void ReadTable(Run& run, std::vector<Row>& rows, bool required) {
  const char* const name = kTableName<Row>;
  const std::string header = TableHeader<Row>();
  const std::string path = run.folder + "/" + name;
  const std::optional<std::string> text = ReadFolderFile(path, kMostTableBytes);
  if (!text) {
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
      CsvRow fields(path, number, line, header);
      VisitColumns(rows.emplace_back(),
                   [&fields](const CsvColumn& column, auto& value) { fields.Take(column, value); });
    } else if (line != header) {
      throw DamagedFolder(path + ":1: expected the header \"" + header + "\", found \"" + line + "\"");
    }
  }
  if (number == 0) run.notes.push_back(std::string(name) + " is empty");
}

// A complete run has samples until the benchmark's end. If they stop early, the folder was copied in part.
void NoteMissingEnd(Run& run) {
  constexpr double kSlackS = 5;
  if (!run.info.complete || !run.info.conditions.meter || run.samples.empty()) return;
  double lastS = 0;
  for (const Sample& sample : run.samples) lastS = std::max(lastS, sample.timeS);
  if (run.info.durationS - lastS <= kSlackS) return;
  run.notes.push_back(Format("no sample after %.3f s of %.3f s", lastS, run.info.durationS));
}

// Only the first gap of each thread is noted. Threads with the same gap share one note.
void NoteGaps(Run& run) {
  std::map<std::pair<std::string, int>, const Sample*> last;
  std::set<std::pair<std::string, int>> noted;
  std::map<std::pair<double, double>, std::vector<std::string>> gaps;
  for (const Sample& sample : run.samples) {
    if (!IsLoad(sample.engine)) continue;  // a set-up has rows only for the seconds in which it worked
    const auto key = std::make_pair(sample.engine, sample.thread);
    const Sample*& before = last[key];
    if (before != nullptr && sample.second > before->second + 1 && noted.insert(key).second) {
      gaps[{before->timeS, sample.timeS}].push_back(sample.engine + " thread " +
                                                    std::to_string(sample.thread));
    }
    before = &sample;
  }
  for (const auto& [between, threads] : gaps) {
    const std::string more =
        threads.size() == 1 ? std::string() : " and " + std::to_string(threads.size() - 1) + " more";
    run.notes.push_back("no sample of " + threads.front() + more +
                        Format(" between %.3f s and %.3f s", between.first, between.second));
  }
  NoteMissingEnd(run);
}

// One note for each line of the reason.
void NoteReasons(Run& run) {
  const std::string& reason = run.info.incompleteReason;
  if (reason.empty()) run.notes.push_back("the run is incomplete");
  for (std::size_t from = 0; from < reason.size();) {
    const std::size_t end = std::min(reason.find('\n', from), reason.size());
    run.notes.push_back("the run is incomplete: " + reason.substr(from, end - from));
    from = end + 1;
  }
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
  if (!fs::is_directory(folder, ignored))
    throw UserError(folder +
                    ": there is no such folder, expected one that stress_scope record or rates made");
  const std::optional<std::string> text = ReadFolderFile(path, kMostJsonBytes);
  if (!text)
    throw UserError(folder + ": not a run folder: cannot read run.json: " + std::strerror(errno) +
                    "; give a folder that stress_scope record or rates made");
  return ParseRunInfo(*text, path);
}

std::vector<RunError> ReadRunErrors(const std::string& folder) {
  Run run;
  run.folder = folder;
  ReadTable(run, run.errors, false);
  return std::move(run.errors);
}

FoundErrors ReadFoundErrors(const std::string& folder) {
  FoundErrors found;
  Run run;
  try {
    if (IsRunFolder(folder)) run.info = ReadRunInfo(folder);
  } catch (const UserError& error) {
    found.unreadable.emplace_back(error.what());
  }
  try {
    run.errors = ReadRunErrors(folder);
  } catch (const UserError& error) {
    found.unreadable.emplace_back(error.what());
  }
  found.counts = ErrorCounts(run);
  return found;
}

std::optional<SourceErrors> KnownErrors(const std::string& folder) {
  FoundErrors found = ReadFoundErrors(folder);
  if (found.counts.empty() && !found.unreadable.empty()) return {};
  return std::move(found.counts);
}

Run ReadRun(const std::string& folder) {
  Run run;
  run.folder = folder;
  run.info = ReadRunInfo(folder);
  if (!run.info.complete) {
    NoteReasons(run);
  }
  const bool meter = run.info.conditions.meter;
  ReadTable(run, run.samples, meter);
  ReadTable(run, run.seconds, meter);
  ReadTable(run, run.histogram, meter);
  ReadTable(run, run.rates, true);
  ReadTable(run, run.counters, false);
  ReadTable(run, run.errors, false);
  ReadTable(run, run.latency, run.info.latency.bytes != 0);
  CheckRows(run);
  NoteGaps(run);
  if (run.info.complete && meter && run.notes.empty()) CheckTotals(run);
  return run;
}

}  // namespace scope
