// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "run.h"
#include "run_summary.h"
#include "run_warnings.h"
#include "text_table.h"

namespace scope {

/// A run and everything that a report shows about it.
struct ReportedRun {
  Run run;
  RunSummary summary;
  std::vector<Warning> warnings;
  std::string name;  ///< its label or folder, with a letter if there are several runs
};

/// The number of line styles of the page that readers can distinguish.
constexpr std::size_t kMostRuns = 8;

/// The last part of the path.
std::string FolderName(const std::string& path);

/// Reads the run folders. Throws UserError for an unusable folder, no folder, or more than kMostRuns.
std::vector<ReportedRun> ReadRuns(const std::vector<std::string>& folders);

/// The report for a terminal, in ASCII except for texts of the runs. Its tables fit `width` characters.
std::string ReportText(const std::vector<ReportedRun>& runs, std::size_t width = kTextWidth);

/// The data of the report's page as JSON; scope/FORMAT.md describes it.
std::string ReportJson(const std::vector<ReportedRun>& runs);

/// The report as one HTML page that loads nothing: it contains style, script, charts library and data. Texts
/// of the runs are never interpreted as markup or script. Needs at least one run.
std::string ReportPage(const std::vector<ReportedRun>& runs);

/// Writes the page of `runs` to `file`. If `file` is empty, writes report.html into the run's folder, or into
/// the current folder if there are several runs. Returns the file's path. Throws UserError.
std::string WriteReport(const std::vector<ReportedRun>& runs, const std::string& file);

}  // namespace scope
