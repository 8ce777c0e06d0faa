// SPDX-License-Identifier: Apache-2.0
#include "compare_findings.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include "run_error.h"
#include "run_warnings.h"
#include "statistics.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kClearlyMore = 2;

// In the order in which they are told.
enum class Trouble { kErrors, kMemoryErrors, kIncomplete, kStopsEarly, kFailures, kThrottling };

const char* NameOf(Trouble trouble) {
  switch (trouble) {
    case Trouble::kErrors:
      return "wrong results";
    case Trouble::kIncomplete:
      return "incomplete runs";
    case Trouble::kStopsEarly:
      return "stops early";
    case Trouble::kFailures:
      return "operations failed";
    case Trouble::kMemoryErrors:
      return "memory errors";
    case Trouble::kThrottling:
      return "throttled for heat";
  }
  return "";
}

// One side's runs with a trouble of an engine.
struct Occurrence {
  std::vector<double> counts;  ///< of each run that has it
  std::string example;         ///< of the first run
};

using Key = std::pair<Trouble, std::string>;
using Troubles = std::map<Key, Occurrence>;

void Add(Troubles& troubles, const Key& key, double count, const std::string& example = {}) {
  Occurrence& occurrence = troubles[key];
  occurrence.counts.push_back(count);
  if (occurrence.example.empty()) occurrence.example = example;
}

// How much the counters of `source` grew during the run.
double Growth(const Run& run, const std::string& source) {
  std::map<std::string, std::pair<double, double>> ends;
  for (const CounterValue& counter : run.counters) {
    if (counter.source != source) continue;
    const auto [at, isFirst] = ends.try_emplace(counter.name, counter.value, counter.value);
    if (!isFirst) at->second.second = counter.value;
  }
  double growth = 0;
  for (const auto& [name, values] : ends) growth += std::max(0.0, values.second - values.first);
  return growth;
}

Troubles Collect(const std::vector<SummarisedRun>& runs) {
  Troubles troubles;
  for (const auto& [run, summary] : runs) {
    for (const auto& [source, count] : ErrorCounts(*run)) {
      // The counters themselves are looked at below.
      if (source == kMemoryController) continue;
      const Trouble trouble = source == kGuardSource ? Trouble::kMemoryErrors : Trouble::kErrors;
      Add(troubles, {trouble, source}, static_cast<double>(count));
    }
    if (!run->info.complete) Add(troubles, {Trouble::kIncomplete, ""}, 1, run->info.incompleteReason);
    for (const EngineSummary& engine : summary.engines) {
      if (engine.work.failures != 0) {
        Add(troubles, {Trouble::kFailures, engine.engine}, static_cast<double>(engine.work.failures));
      }
      const std::string end = EarlyEnd(engine, summary.endS).text;
      if (!end.empty()) Add(troubles, {Trouble::kStopsEarly, engine.engine}, 1, end);
    }
    const std::pair<Trouble, const char*> counted[] = {{Trouble::kMemoryErrors, "edac"},
                                                       {Trouble::kThrottling, "throttle"}};
    for (const auto& [trouble, source] : counted) {
      const double growth = Growth(*run, source);
      if (growth > 0) Add(troubles, {trouble, ""}, growth);
    }
  }
  return troubles;
}

bool IsCounted(Trouble trouble) {
  return trouble != Trouble::kIncomplete && trouble != Trouble::kStopsEarly;
}

// "in 2 of 4 runs of B (17 in all)".
std::string SideText(const Occurrence& occurrence, std::size_t runs, bool isCounted,
                     const std::string& side) {
  double sum = 0;
  for (const double count : occurrence.counts) sum += count;
  std::string text =
      Format("in %zu of %s of ", occurrence.counts.size(), Counted(runs, "run").c_str()) + side;
  if (isCounted) text += Format(" (%.0f in all)", sum);
  if (!occurrence.example.empty()) text += " (" + occurrence.example + ")";
  return text;
}

bool IsClearlyMore(const Occurrence& a, std::size_t runsOfB, const Occurrence& b) {
  if (b.counts.size() != runsOfB) return false;
  const double most = *std::max_element(a.counts.begin(), a.counts.end());
  return *std::min_element(b.counts.begin(), b.counts.end()) > kClearlyMore * most;
}

}  // namespace

std::vector<Finding> CompareTroubles(const std::vector<SummarisedRun>& a, const std::vector<SummarisedRun>& b,
                                     const std::string& nameOfA, const std::string& nameOfB) {
  const Troubles ofA = Collect(a);
  const Troubles ofB = Collect(b);
  Troubles all = ofA;
  all.insert(ofB.begin(), ofB.end());
  std::vector<Finding> findings;
  for (const auto& [key, ignored] : all) {
    const auto atA = ofA.find(key);
    const auto atB = ofB.find(key);
    const bool isCounted = IsCounted(key.first);
    std::vector<std::string> sides;
    if (atA != ofA.end()) sides.push_back(SideText(atA->second, a.size(), isCounted, nameOfA));
    if (atB != ofB.end()) sides.push_back(SideText(atB->second, b.size(), isCounted, nameOfB));
    Finding finding;
    finding.engine = key.second;
    finding.text =
        (key.second.empty() ? "" : key.second + ": ") + NameOf(key.first) + " " + Joined(sides, ", ");
    if (atA == ofA.end()) finding.text += ", in none of " + nameOfA;
    if (atB == ofB.end()) finding.text += ", in none of " + nameOfB;
    finding.worse = atB != ofB.end() &&
                    (atA == ofA.end() || (isCounted && IsClearlyMore(atA->second, b.size(), atB->second)));
    findings.push_back(std::move(finding));
  }
  return findings;
}

std::string TimeToFailure(const std::vector<SummarisedRun>& runs, const char* side, std::size_t failedRuns) {
  std::vector<double> times;
  std::size_t failed = 0;
  std::size_t judged = 0;
  bool isAsked = false;
  for (const SummarisedRun& one : runs) {
    const RunInfo& info = one.run->info;
    const bool hasErrors = ErrorsOf(*one.run) != 0;
    isAsked = isAsked || info.conditions.verify || info.guard.bytes != 0;
    judged += hasErrors || LooksForErrors(info) ? 1 : 0;
    if (!hasErrors) continue;
    ++failed;
    if (const std::optional<double> firstS = FirstErrorS(*one.run)) times.push_back(*firstS);
  }
  const std::string of = Counted(judged, "run") + " of " + side;
  std::vector<std::string> others;
  if (judged != runs.size()) others.push_back(Format("%zu more not fully judged", runs.size() - judged));
  if (failedRuns != 0) others.push_back(Format("%zu more failed", failedRuns));
  const std::string more = others.empty() ? "" : " (" + Joined(others, ", ") + ")";
  if (judged == 0) {
    if (!isAsked) return {};
    return "no error in " + Counted(runs.size(), "run") + " of " + side +
           ", but none of them was fully judged";
  }
  if (failed == 0) {
    if (failedRuns != 0) return "no error in " + of + more;
    // The rule of three: with this rate, n runs without an error have a chance of 5 %.
    return "no error in " + of + more +
           Format(": failure rate below %.2g per run, 95 %%", std::min(1.0, 3 / static_cast<double>(judged)));
  }
  std::string text = Format("errors in %zu of ", failed) + of + more;
  if (times.empty()) return text;
  return text + Format("; time to the first error: %.1f s at the least, %.1f s in the median",
                       *std::min_element(times.begin(), times.end()), Median(times));
}

}  // namespace scope
