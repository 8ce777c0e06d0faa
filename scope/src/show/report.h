#pragma once

#include <string>
#include <vector>

#include "run.h"
#include "run_summary.h"
#include "run_warnings.h"

namespace scope {

/// A run and everything that a report says of it.
struct ReportedRun {
  Run run;
  RunSummary summary;
  std::vector<Warning> warnings;
  std::string name;  ///< how the report calls it: its label or folder, with a letter where there are several
};

/// As many as the page has line styles that can be told apart.
constexpr std::size_t kMostRuns = 8;

/// Reads the run folders. Throws UserError: a folder that cannot be used, none, or more than kMostRuns.
std::vector<ReportedRun> ReadRuns(const std::vector<std::string>& folders);

/// The report for a terminal, in ASCII but for what the runs themselves say.
std::string ReportText(const std::vector<ReportedRun>& runs);

/// The report as one HTML page that loads nothing: style, script, charts library and data are in it. What
/// comes from the runs is data wherever it stands, whatever characters it has. At least one run.
std::string ReportPage(const std::vector<ReportedRun>& runs);

/// Writes the page of `runs` to `file`. Where `file` is empty: to report.html, in the run's folder if there
/// is one run, else in the current folder. Returns the file. Throws UserError.
std::string WriteReport(const std::vector<ReportedRun>& runs, const std::string& file);

}  // namespace scope
