// SPDX-License-Identifier: Apache-2.0
#include "failures.h"

#include <algorithm>
#include <cctype>

#include "early_end.h"
#include "engines.h"
#include "text_format.h"

namespace scope {
namespace {

// The records of a worker begin with the name of a function: "VPCResize() | ...", "AICoreInit() | ...". It
// begins with the name of the worker's engine.
bool IsOf(const BenchmarkLog::Error& error, const std::string& engine) {
  const std::string name = engine.substr(0, engine.find('_'));
  const auto same = [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
  };
  return error.text.size() > name.size() && error.text.find("() | ") != std::string::npos &&
         std::equal(name.begin(), name.end(), error.text.begin(), same);
}

}  // namespace

std::string WithLogLine(const std::string& text, const std::string& line) {
  return line.empty() ? text : text + "; the log says: " + line;
}

void FailureWatch::Add(const std::vector<Sample>& samples) {
  for (const Sample& sample : samples) {
    Worker& worker = work_[sample.engine][sample.thread];
    worker.operations += sample.operations;
    worker.failures += sample.failures;
    worker.longestNs = std::max(worker.longestNs, sample.maxNs);
    if (sample.operations != 0) worker.lastS = sample.timeS;
    lastS_ = std::max(lastS_, sample.timeS);
  }
}

void FailureWatch::Add(const std::vector<Rate>& rates) {
  for (const Rate& rate : rates) printed_.insert(rate.stress);
}

std::vector<std::string> FailureWatch::Failures(double endS, bool allCounted) const {
  std::vector<std::string> failures;
  Threads explained;
  for (const EngineInfo& engine : Engines()) {
    const auto level = std::find_if(levels_.begin(), levels_.end(),
                                    [&engine](const auto& entry) { return entry.first == engine.id; });
    const int workers = level == levels_.end() ? 0 : level->second;
    const std::string text = meter_ ? AboutWork(engine.id, workers, std::min(endS, lastS_), allCounted)
                                    : AboutRates(engine.id, workers);
    if (!text.empty()) failures.push_back(WithLog(engine.id + (": " + text), engine.id, explained));
  }
  const std::string others = OtherErrors(explained);
  if (!others.empty()) failures.push_back(others);
  return failures;
}

std::string FailureWatch::AboutWork(const std::string& engine, int level, double endS,
                                    bool allCounted) const {
  const auto of = work_.find(engine);
  const std::map<int, Worker> none;
  const std::map<int, Worker>& workers = of == work_.end() ? none : of->second;
  std::uint64_t failures = 0;
  int active = 0;
  int stopped = 0;
  double firstS = endS;
  for (const auto& [thread, worker] : workers) {
    failures += worker.failures;
    if (worker.operations == 0) continue;
    ++active;
    if (!IsLoad(engine) || !StoppedEarly(endS, worker.lastS, worker.longestNs)) continue;
    ++stopped;
    firstS = std::min(firstS, worker.lastS);
  }
  std::vector<std::string> parts;
  if (failures != 0) parts.push_back(Counted(failures, "operation") + " failed");
  if (level > 0 && active == 0) {
    parts.push_back("not one operation succeeded at level " + std::to_string(level));
  } else if (active < level && allCounted) {
    parts.push_back(Format("%d of %d workers did nothing", level - active, level));
  }
  if (stopped != 0) {
    parts.push_back(Format("%d of ", stopped) + Counted(static_cast<std::uint64_t>(active), "worker") +
                    Format(" ended early, the first after %.0f s of %.0f s", firstS, endS));
  }
  return Joined(parts, ", ");
}

// A printed rate of 0 tells nothing: operations of less than a millisecond are printed as 0, too.
std::string FailureWatch::AboutRates(const std::string& engine, int level) const {
  const EngineInfo* const info = FindEngine(&EngineInfo::id, engine);
  if (level <= 0 || printed_.empty() || info == nullptr || printed_.count(info->stress) != 0) return {};
  return "level " + std::to_string(level) + ", but no rate line has " + info->stress;
}

std::string FailureWatch::WithLog(std::string text, const std::string& engine, Threads& explained) const {
  const std::vector<BenchmarkLog::Error>& errors = log_.Errors();
  std::string line;
  for (const BenchmarkLog::Error& error : errors) {
    if (!IsOf(error, engine)) continue;
    explained.insert(error.thread);
    if (!line.empty()) continue;
    // The platform's own record, which has the reason, comes before the worker's.
    line = std::find_if(errors.begin(), errors.end(), [&error](const auto& other) {
             return other.thread == error.thread;
           })->text;
  }
  return WithLogLine(std::move(text), line);
}

std::string FailureWatch::OtherErrors(const Threads& explained) const {
  const BenchmarkLog::Error* first = nullptr;
  int more = -1;
  for (const BenchmarkLog::Error& error : log_.Errors()) {
    if (explained.count(error.thread) != 0) continue;
    if (first == nullptr) first = &error;
    ++more;
  }
  if (first == nullptr) return {};
  return "the log has an error: " + first->text + (more == 0 ? "" : Format(" (and %d more)", more));
}

}  // namespace scope
