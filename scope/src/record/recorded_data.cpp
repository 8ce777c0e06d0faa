// SPDX-License-Identifier: Apache-2.0
#include "recorded_data.h"

#include <utility>

#include "tell.h"

namespace scope {

RecordedData::RecordedData(const RecordOptions& options, Configuration config, double runTimeS, View& view,
                           SavedRun::OnFault onFault)
    : exports_(options.exports, options.label,
               [this](const std::string& fault) { exportFaults_.push_back(fault + "; the run went on"); }),
      saved_(options, std::move(config), std::move(onFault)),
      runTimeS_(runTimeS),
      view_(view) {}

void RecordedData::Add(const MeterSecond& second) {
  saved_.Add(second);
  exports_.Add(second);
  const bool whole = second.timeS > figures_.TimeS() + kShownSecondS;
  figures_.Add(second);
  // The rest of a second at the end has too few operations to show a rate.
  if (whole) view_.Second(figures_, second.timeS, runTimeS_);
}

void RecordedData::Add(const std::vector<LatencySecond>& seconds) {
  saved_.Add(seconds);
  exports_.Add(seconds);
  if (!seconds.empty()) figures_.SetLatency(seconds.back());
}

void RecordedData::Add(double timeS, const std::vector<CounterValue>& values) {
  saved_.Add(values);
  exports_.Add(timeS, values);
}

bool RecordedData::EndExports() {
  exports_.End();
  for (const std::string& fault : exportFaults_) Tell(fault);
  return exportFaults_.empty();
}

}  // namespace scope
