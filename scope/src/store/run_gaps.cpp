// SPDX-License-Identifier: Apache-2.0
#include "run_gaps.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "csv.h"
#include "engines.h"

namespace scope {
namespace {

// A complete run has samples until the benchmark's end. If they stop early, the folder was copied in part.
void NoteMissingEnd(Run& run) {
  constexpr double kSlackS = 5;
  if (!run.info.complete || !run.info.conditions.meter || run.samples.empty()) return;
  double lastS = 0;
  for (const Sample& sample : run.samples) lastS = std::max(lastS, sample.timeS);
  if (run.info.durationS - lastS <= kSlackS) return;
  run.notes.push_back("no sample after " + CsvSeconds(lastS) + " s of " + CsvSeconds(run.info.durationS) +
                      " s");
}

}  // namespace

// Only the first gap of each thread is noted. Threads with the same gap share one note.
void NoteGaps(Run& run) {
  std::map<std::pair<std::string, int>, double> last;
  std::set<std::pair<std::string, int>> noted;
  std::map<std::pair<double, double>, std::vector<std::string>> gaps;
  for (const Sample& sample : run.samples) {
    if (!IsLoad(sample.engine)) continue;  // a set-up has rows only for the seconds in which it worked
    const auto key = std::make_pair(sample.engine, sample.thread);
    const auto before = last.find(key);
    if (before != last.end() && sample.timeS - before->second > kGapS && noted.insert(key).second) {
      gaps[{before->second, sample.timeS}].push_back(sample.engine + " thread " +
                                                     std::to_string(sample.thread));
    }
    last[key] = sample.timeS;
  }
  for (const auto& [between, threads] : gaps) {
    const std::string more =
        threads.size() == 1 ? std::string() : " and " + std::to_string(threads.size() - 1) + " more";
    run.notes.push_back("no sample of " + threads.front() + more + " between " + CsvSeconds(between.first) +
                        " s and " + CsvSeconds(between.second) + " s");
  }
  NoteMissingEnd(run);
}

}  // namespace scope
