// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <filesystem>
#include <utility>

#include "durable_file.h"
#include "errors.h"
#include "run_reader.h"
#include "run_warnings.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

std::string NameOf(const Run& run, std::size_t index, std::size_t count) {
  fs::path folder = fs::path(run.folder).lexically_normal();
  if (!folder.has_filename()) folder = folder.parent_path();
  std::string name = run.info.label.empty() ? folder.filename().string() : run.info.label;
  if (count == 1) return name;
  return std::string(1, static_cast<char>('A' + index)) + ": " + name;
}

}  // namespace

std::vector<ReportedRun> ReadRuns(const std::vector<std::string>& folders) {
  if (folders.empty() || folders.size() > kMostRuns) {
    throw UserError("a report takes 1 to " + std::to_string(kMostRuns) + " run folders, got " +
                    std::to_string(folders.size()));
  }
  std::vector<ReportedRun> runs;
  for (const std::string& folder : folders) {
    ReportedRun reported;
    reported.run = ReadRun(folder);
    reported.summary = Summarise(reported.run);
    reported.warnings = Warnings(reported.run, reported.summary);
    reported.name = NameOf(reported.run, runs.size(), folders.size());
    runs.push_back(std::move(reported));
  }
  return runs;
}

std::string WriteReport(const std::vector<ReportedRun>& runs, const std::string& file) {
  std::string path = file;
  if (path.empty())
    path = runs.size() == 1 ? (fs::path(runs.front().run.folder) / "report.html").string() : "report.html";
  const std::string page = ReportPage(runs);
  std::error_code ignored;
  // A device or a pipe that the user names is written to. One that stands in a run folder may come from
  // elsewhere: it is replaced.
  if (!file.empty() && fs::exists(path, ignored) && !fs::is_regular_file(path, ignored)) {
    OutputFile(path).Write(page);
    return path;
  }
  ReplaceFile(path, page);
  return path;
}

}  // namespace scope
