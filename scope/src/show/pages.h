// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "compare.h"
#include "compare_conditions.h"
#include "curve_table.h"
#include "matrix.h"
#include "matrix_table.h"
#include "sweep.h"
#include "sweep_table.h"

/// HTML pages, like that of a report (report.h): they load nothing, and texts are never interpreted.
namespace scope {

/// The most runs of a side that the page of a comparison draws.
constexpr std::size_t kMostDrawnRuns = 8;

/// Verdicts, intervals and findings, then the first runs of both sides on common axes.
std::string ComparisonPage(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences,
                           const CompareOptions& options);

/// The map of the bandwidth, where it saturates, and the figures of each point. `comparison` is the text of
/// ComparisonJson for the two points of the sweep; empty if they are not compared.
std::string SweepPage(const std::string& folder, const Sweep& sweep, const SweepTable& table,
                      const std::string& comparison);

/// Latency over bandwidth of several curves on common axes, and their points. `comparison` is the text of
/// ComparisonJson for two curves; empty if they are not compared.
std::string CurvePage(const std::vector<CurveTable>& tables, const std::string& comparison);

/// What slows each victim, by memory and by shared processors, with the intervals drawn.
std::string MatrixPage(const std::string& folder, const Matrix& matrix, const MatrixTable& table,
                       bool isComplete);

/// Where a page is written.
struct PageFile {
  std::string path;      ///< empty: nowhere
  bool isNamed = false;  ///< by the user
};

/// Replaces the file by `page`. A device or a pipe that the user named is written to; one that stands in a
/// folder may come from elsewhere and is replaced. Throws UserError.
void WritePage(const PageFile& file, const std::string& page);

}  // namespace scope
