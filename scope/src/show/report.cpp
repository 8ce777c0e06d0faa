// SPDX-License-Identifier: Apache-2.0
#include "report.h"

#include <filesystem>
#include <utility>

#include "errors.h"
#include "pages.h"
#include "run_reader.h"
#include "run_warnings.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

std::string NameOf(const Run& run, std::size_t index, std::size_t count) {
  const std::string name = run.info.label.empty() ? FolderName(run.folder) : run.info.label;
  if (count == 1) return name;
  return std::string(1, static_cast<char>('A' + index)) + ": " + name;
}

}  // namespace

std::string FolderName(const std::string& path) {
  fs::path folder = fs::path(path).lexically_normal();
  if (!folder.has_filename()) folder = folder.parent_path();
  return folder.filename().string();
}

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
  WritePage({path, !file.empty()}, ReportPage(runs));
  return path;
}

}  // namespace scope
