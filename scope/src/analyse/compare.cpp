// SPDX-License-Identifier: Apache-2.0
#include "compare.h"

#include <vector>

#include "compare_values.h"
#include "errors.h"
#include "run_summary.h"
#include "run_warnings.h"
#include "stream_runs.h"
#include "text_format.h"

namespace scope {
namespace {

struct SideRuns {
  std::vector<SummarisedRun> runs;
  std::vector<RunValues> values;
};

SideRuns Read(const Side& side, const CompareOptions& options) {
  SideRuns read;
  for (const Run& run : side.runs) {
    read.runs.push_back({&run, Summarise(run)});
    read.values.push_back(ValuesOf(read.runs.back().summary, options.skipS));
    // A run that broke off has none, and is a finding.
    if (read.values.back().empty() && run.info.complete) {
      throw UserError(run.folder + ": there is no second to compare after the first " +
                      Format("%g", options.skipS) + " s; --skip says how many are left out");
    }
  }
  return read;
}

void NoteRuns(const SideRuns& side, double skipS, std::vector<std::string>& disturbances,
              std::vector<std::string>& notes) {
  for (const auto& [run, summary] : side.runs) {
    for (const std::string& note : run->notes) notes.push_back(run->folder + ": " + note);
    const std::string disturbance = Disturbance(*run, skipS).text;
    if (!disturbance.empty()) disturbances.push_back(run->folder + ": " + disturbance);
    for (const auto& [key, values] : FiguresOf(summary, skipS)) {
      const std::string drift = key.figure == Figure::kOperations ? Drift(values) : std::string();
      if (!drift.empty()) notes.push_back(run->folder + ": " + key.engine + ": " + drift);
    }
  }
}

// Runs of a point that failed have no figures. Without this, those that came to their end would speak for
// all.
void AddFailedRuns(const Side& a, const Side& b, std::vector<Finding>& findings) {
  constexpr std::size_t kClearlyMoreOften = 2;
  if (a.failures.empty() && b.failures.empty()) return;
  const auto all = [](const Side& side) { return side.runs.size() + side.failures.size(); };
  const auto text = [&all](const Side& side, const std::string& name) {
    if (side.failures.empty()) return "none of " + name;
    return std::to_string(side.failures.size()) + " of " + Counted(all(side), "run") + " of " + name + " (" +
           FailureReasons(side) + ")";
  };
  const bool worse = b.failures.size() * all(a) > kClearlyMoreOften * a.failures.size() * all(b);
  findings.push_back({"", "failed: " + text(a, "A") + ", " + text(b, "B"), worse});
}

}  // namespace

Comparison Compare(const Side& a, const Side& b, const CompareOptions& options) {
  const SideRuns ofA = Read(a, options);
  const SideRuns ofB = Read(b, options);
  std::set<std::string> printedTooCoarsely;
  for (const SideRuns* side : {&ofA, &ofB}) {
    for (const auto& [run, summary] : side->runs) {
      for (const EngineSummary& engine : summary.engines) {
        if (HasShortOperations(engine)) printedTooCoarsely.insert(engine.engine);
      }
    }
  }
  Comparison comparison = CompareValues(ofA.values, ofB.values, options, printedTooCoarsely);
  if (comparison.figures.empty())
    throw UserError(
        "neither side has a figure that was asked for: leave --figure out to compare what they have");
  comparison.findings = CompareTroubles(ofA.runs, ofB.runs);
  AddFailedRuns(a, b, comparison.findings);
  std::vector<const Run*> all;
  for (const Side* side : {&a, &b}) {
    for (const Run& run : side->runs) all.push_back(&run);
  }
  for (const std::string& text : DifferentStreams(all)) comparison.findings.push_back({"venc", text, false});
  for (const std::string& text :
       {TimeToFailure(ofA.runs, "A", a.failures.size()), TimeToFailure(ofB.runs, "B", b.failures.size())}) {
    if (!text.empty()) comparison.errors.push_back(text);
  }
  comparison.answer = AnswerOf(comparison);
  std::vector<std::string> disturbances;
  NoteRuns(ofA, options.skipS, disturbances, comparison.notes);
  NoteRuns(ofB, options.skipS, disturbances, comparison.notes);
  AddDisturbances(disturbances, comparison.notes);
  return comparison;
}

}  // namespace scope
