// SPDX-License-Identifier: Apache-2.0
#include "matrix_table.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <utility>

#include "compare_conditions.h"
#include "compare_figures.h"
#include "engines.h"
#include "errors.h"
#include "latency_texts.h"
#include "matrix_plan.h"
#include "ratio.h"
#include "run_error.h"
#include "run_reader.h"
#include "run_summary.h"
#include "run_warnings.h"
#include "statistics.h"
#include "sweep_plan.h"
#include "text_format.h"

namespace scope {
namespace {

constexpr double kMatrixError = 0.05;

// The mean of the counter after the warm-up. The last value may be of a part of a second.
std::optional<double> MeanOfCounter(const Run& run, const char* name, double warmupS) {
  std::vector<double> values;
  for (const CounterValue& value : run.counters) {
    if (value.source == "processor" && value.name == name && value.timeS - kCounterPeriodS / 2 >= warmupS)
      values.push_back(value.value);
  }
  if (values.size() > 1) values.pop_back();
  return values.empty() ? std::nullopt : std::optional(Mean(values));
}

struct VictimValues {
  double main = 0;
  std::optional<double> p99Us;
  std::uint64_t bursts = 0;
  std::uint64_t interrupted = 0;
};

// None if the victim did not work after the warm-up.
std::optional<VictimValues> ValuesOf(const Run& run, const std::string& section, double warmupS) {
  const RunSummary summary = Summarise(run);
  const auto figures = FiguresOf(summary, warmupS);
  if (section == kLatencyVictim) {
    const auto median = figures.find({kMemory, Figure::kP50});
    const auto tail = figures.find({kMemory, Figure::kP99});
    if (median == figures.end() || tail == figures.end()) return std::nullopt;
    constexpr double kNsPerMicrosecond = 1000;
    VictimValues values;
    values.main = ValueOf(Figure::kP50, median->second) * kNsPerMicrosecond;
    values.p99Us = ValueOf(Figure::kP99, tail->second);
    for (const LatencySecond& second : LatencyAfter(summary, warmupS)) {
      values.bursts += second.bursts;
      values.interrupted += second.interrupted;
    }
    return values;
  }
  const EngineInfo* const engine = FindEngine(&EngineInfo::section, section);
  if (engine == nullptr) return std::nullopt;
  const auto rate = figures.find({engine->id, Figure::kOperations});
  if (rate == figures.end()) return std::nullopt;
  VictimValues values;
  values.main = ValueOf(Figure::kOperations, rate->second);
  const auto tail = figures.find({engine->id, Figure::kP99});
  if (tail != figures.end()) values.p99Us = ValueOf(Figure::kP99, tail->second);
  return values;
}

// A figure that grows with it.
double SlownessOf(double main, bool isLatency) {
  return isLatency ? main : 1 / main;
}

std::string NameOf(const Matrix& matrix, const MatrixRun& run) {
  const MatrixVictim* const victim = VictimOf(matrix, run);
  std::vector<std::string> parts;
  if (victim != nullptr) parts.push_back(VictimText(*victim));
  if (run.part == MatrixPart::kControl) parts.emplace_back("control of");
  if (!run.mix.empty()) parts.push_back(PointText(run.mix));
  return run.folder + " (" + Joined(parts, " ") + ")";
}

class TableReader {
 public:
  TableReader(std::string folder, const Matrix& matrix) : folder_(std::move(folder)), matrix_(matrix) {}

  MatrixTable Read() {
    for (const MatrixRun& run : matrix_.runs) {
      if (run.state == SweepState::kFailed || run.state == SweepState::kHung)
        table_.notes.push_back(NameOf(matrix_, run) + " failed: " + run.reason);
      if (run.state == SweepState::kDone) Take(run);
    }
    AddDisturbances(disturbances_, table_.notes);
    AddLatencyDoubts(doubts_, table_.notes);
    NoteUnmeasured();
    table_.growth = MedianGrowth(infos_);
    const std::size_t missing = matrix_.runs.size() - table_.done;
    if (missing != 0) {
      table_.notes.push_back("not done: " + std::to_string(missing) + " of " +
                             Counted(matrix_.runs.size(), "run"));
    }
    // Parts of a matrix differ in these by plan. TakeLatency looks at that of the latency.
    NoteConditions(infos_, {"levels", "control", "own_cpus", "latency"}, table_.notes);
    NoteShared();
    for (MatrixCell& cell : table_.cells) Finish(cell);
    FindNext();
    std::stable_sort(table_.cells.begin(), table_.cells.end(), [](const MatrixCell& a, const MatrixCell& b) {
      constexpr double kUnknown = -1000;
      const auto strength = [](const MatrixCell& cell) {
        return cell.byMemory ? cell.byMemory->value : kUnknown;
      };
      return strength(a) > strength(b);
    });
    return std::move(table_);
  }

 private:
  void Take(const MatrixRun& run) {
    try {
      const Run recorded = ReadRun(folder_ + "/" + run.folder);
      ++table_.done;
      Run info;
      info.info = recorded.info;
      infos_.push_back(std::move(info));
      const std::string errors = CountsText(ErrorCounts(recorded));
      if (!errors.empty()) table_.notes.push_back(NameOf(matrix_, run) + ": " + errors);
      const double warmupS = matrix_.settings.warmupS;
      const std::string disturbance = Disturbance(recorded, warmupS).text;
      if (!disturbance.empty()) disturbances_.push_back(NameOf(matrix_, run) + ": " + disturbance);
      if (run.part == MatrixPart::kLoad) {
        if (const auto cpus = MeanOfCounter(recorded, "benchmark", warmupS)) loads_[run.mix] = *cpus;
        return;
      }
      if (run.part == MatrixPart::kWith) ++table_.withRuns;
      const bool isLatency = run.victim == kLatencyVictim;
      if (isLatency) TakeLatency(run, recorded);
      const std::optional<VictimValues> values = ValuesOf(recorded, run.victim, warmupS);
      if (!values && isLatency && matrix_.worst && run.part == MatrixPart::kWith) {
        unmeasured_.insert(run.mix);
        return;
      }
      if (!values) {
        table_.notes.push_back(NameOf(matrix_, run) +
                               (isLatency ? ": no undisturbed burst of the latency probe after the warm-up"
                                          : ": the victim did nothing after the warm-up"));
        return;
      }
      MatrixFigures& figures = FiguresFor(run);
      figures.main.push_back(values->main);
      if (values->p99Us) figures.p99Us.push_back(*values->p99Us);
      figures.bursts += values->bursts;
      figures.interrupted += values->interrupted;
      if (const auto cpus = MeanOfCounter(recorded, "helpers", warmupS)) figures.cpus.push_back(*cpus);
    } catch (const UserError& error) {
      table_.notes.emplace_back(error.what());
    }
  }

  MatrixFigures& FiguresFor(const MatrixRun& run) {
    if (run.part == MatrixPart::kAlone) return alone_[run.victim];
    auto cell = std::find_if(table_.cells.begin(), table_.cells.end(), [&run](const MatrixCell& one) {
      return one.victim.section == run.victim && one.mix == run.mix;
    });
    if (cell == table_.cells.end()) {
      MatrixCell fresh;
      fresh.victim = *VictimOf(matrix_, run);
      fresh.mix = run.mix;
      cell = table_.cells.insert(cell, std::move(fresh));
    }
    return run.part == MatrixPart::kWith ? cell->with : cell->control;
  }

  // In a search, these may be many, and runs of one mix alike.
  void NoteUnmeasured() {
    if (unmeasured_.empty()) return;
    std::vector<std::string> mixes;
    for (const SweepLevels& mix : unmeasured_) mixes.push_back(PointText(mix));
    table_.notes.push_back(
        "runs without a latency beside " + Joined(mixes, ", ") +
        ": the probe had no undisturbed burst after the warm-up. The search leaves out runs "
        "without a latency, so memory may be slower than it says");
  }

  static bool HasControl(const MatrixCell& cell) { return !cell.control.main.empty(); }

  void NoteShared() {
    if (!matrix_.ownCpus.empty() || std::none_of(table_.cells.begin(), table_.cells.end(), HasControl))
      return;
    table_.notes.emplace_back(
        "the victim shares its CPUs with the aggressors, which get less of them beside it; the control takes "
        "what they took without it: the slowdown by memory is shown too small, that by CPU too large");
  }

  // Only the worst mix has a control.
  void FindNext() {
    const auto worst = std::find_if(table_.cells.begin(), table_.cells.end(), HasControl);
    if (!matrix_.worst || worst == table_.cells.end()) return;
    const bool isLatency = worst->victim.section == kLatencyVictim;
    std::map<std::size_t, const MatrixCell*> cells;
    for (const MatrixCell& cell : table_.cells) {
      const std::optional<std::size_t> number = MixNumber(matrix_, cell.mix);
      if (&cell != &*worst && number) cells[*number] = &cell;
    }
    if (cells.empty()) return;
    std::vector<Slowness> others(cells.rbegin()->first + 1);
    for (const auto& [number, cell] : cells) {
      for (const double main : cell->with.main) {
        if (main > 0) others[number].push_back(SlownessOf(main, isLatency));
      }
    }
    const std::vector<std::size_t> ranked = WorstMixes(WorstGridOf(matrix_), others);
    if (ranked.empty()) return;
    const MatrixCell& next = *cells.at(ranked.front());
    table_.next = NextWorst{next.mix, SlowdownOf(next.with.main, worst->with.main, isLatency)};
  }

  void Finish(MatrixCell& cell) {
    cell.alone = alone_[cell.victim.section];
    const auto load = loads_.find(cell.mix);
    if (load != loads_.end()) cell.aggressorCpus = load->second;
    const bool isLatency = cell.victim.section == kLatencyVictim;
    cell.byMemory = SlowdownOf(cell.control.main, cell.with.main, isLatency);
    cell.byCpu = SlowdownOf(cell.alone.main, cell.control.main, isLatency);
    cell.total = SlowdownOf(cell.alone.main, cell.with.main, isLatency);
    cell.memoryShare = ShareOf(cell);
  }

  static std::optional<MemoryShare> ShareOf(const MatrixCell& cell) {
    const bool isSlower = cell.total && cell.total->low && *cell.total->low > 0;
    if (!isSlower || !cell.byMemory || !cell.byMemory->low) return std::nullopt;
    const auto share = EstimateShare(cell.alone.main, cell.control.main, cell.with.main, kMatrixError);
    if (!share) return std::nullopt;
    return MemoryShare{share->share * 100, share->low * 100, share->high * 100};
  }

  // The latency is that of a memory, of pages and of a CPU.
  void TakeLatency(const MatrixRun& run, const Run& recorded) {
    const std::string& latency = recorded.info.conditions.latency;
    for (LatencyDoubt& doubt : LatencyDoubts(recorded, Summarise(recorded))) {
      doubt.run = run.folder;
      doubts_.push_back(std::move(doubt));
    }
    if (table_.latency.empty()) table_.latency = latency;
    if (table_.latency != latency)
      table_.notes.push_back(NameOf(matrix_, run) + ": its latency is that of " + latency);
  }

  std::string folder_;
  const Matrix& matrix_;
  MatrixTable table_;
  std::map<std::string, MatrixFigures> alone_;
  std::map<SweepLevels, double> loads_;
  std::vector<std::string> disturbances_;
  std::vector<Run> infos_;  ///< the runs without their rows
  std::vector<LatencyDoubt> doubts_;
  std::set<SweepLevels> unmeasured_;  ///< mixes of a search with a run that has no latency
};

}  // namespace

MatrixTable ReadMatrixTable(const std::string& folder, const Matrix& matrix) {
  return TableReader(folder, matrix).Read();
}

std::vector<Slowness> ReadSlowness(const std::string& folder, const Matrix& matrix) {
  const std::string& victim = matrix.victims.front().section;
  std::vector<Slowness> slowness(MixesFor(matrix.axes, victim).size() +
                                 (WorstGridOf(matrix).hasNone ? 1 : 0));
  for (const MatrixRun& run : matrix.runs) {
    if (run.part != MatrixPart::kWith || run.state != SweepState::kDone) continue;
    const std::optional<std::size_t> mix = MixNumber(matrix, run.mix);
    if (!mix) continue;
    const auto values = ValuesOf(ReadRun(folder + "/" + run.folder), victim, matrix.settings.warmupS);
    const bool isLatency = victim == kLatencyVictim;
    if (values && values->main > 0) {
      slowness[*mix].push_back(SlownessOf(values->main, isLatency));
    } else if (isLatency) {
      slowness[*mix].push_back(std::nullopt);
    } else {
      // One that does nothing any more is as slow as can be.
      constexpr double kNever = 1e9;
      slowness[*mix].push_back(kNever);
    }
  }
  return slowness;
}

std::vector<ControlThreads> ControlOf(const std::string& folder, double warmupS) {
  const Run run = ReadRun(folder);
  const std::optional<double> cpus = MeanOfCounter(run, "benchmark", warmupS);
  if (!cpus) throw UserError(folder + ": it does not say how much processor time the aggressors took");
  struct Sum {
    int threads = 0;
    double operations = 0;
    double busyS = 0;
    double spanS = 0;
  };
  std::map<std::string, Sum> sums;
  double busyThreads = 0;  // of all engines, on average
  for (const EngineSummary& engine : Summarise(run).engines) {
    if (!IsLoad(engine.engine)) continue;
    Sum& sum = sums[engine.engine];
    sum.threads = static_cast<int>(engine.threads.size());
    for (std::size_t i = engine.firstWhole; i < engine.endWhole; ++i) {
      const EngineSecond& second = engine.seconds[i];
      if (second.timeS - second.spanS / 2 < warmupS || second.afterGap) continue;
      sum.operations += static_cast<double>(second.operations);
      sum.busyS += static_cast<double>(second.busyNs) * 1e-9;
      sum.spanS += second.spanS;
    }
    if (sum.spanS > 0) busyThreads += sum.busyS / sum.spanS;
  }
  std::vector<ControlThreads> control;
  for (const auto& [engine, sum] : sums) {
    if (sum.operations <= 0 || sum.busyS <= 0) continue;
    // Busy time counts waits for a processor. All engines wait alike.
    const double cpuS = *cpus * sum.busyS / busyThreads;
    ControlThreads threads;
    threads.threads = sum.threads;
    threads.computeUs = cpuS / sum.operations * 1e6;
    // The program's other threads take a little, too.
    threads.periodUs = std::max(threads.computeUs, sum.spanS * sum.threads / sum.operations * 1e6);
    control.push_back(threads);
  }
  if (control.empty()) throw UserError(folder + ": the aggressors did nothing after the warm-up");
  return control;
}

std::optional<SlowdownPercent> SlowdownOf(const std::vector<double>& a, const std::vector<double>& b,
                                          bool isLatency) {
  const auto isPositive = [](double value) { return value > 0; };
  if (a.empty() || b.empty() || !std::all_of(a.begin(), a.end(), isPositive) ||
      !std::all_of(b.begin(), b.end(), isPositive))
    return std::nullopt;
  const std::vector<double>& below = isLatency ? a : b;
  const std::vector<double>& above = isLatency ? b : a;
  const auto percent = [](double ratio) { return (ratio - 1) * 100; };
  SlowdownPercent slowdown;
  if (a.size() < 2 || b.size() < 2) {
    const auto logMean = [](const std::vector<double>& values) {
      double sum = 0;
      for (const double value : values) sum += std::log(value);
      return sum / static_cast<double>(values.size());
    };
    slowdown.value = percent(std::exp(logMean(above) - logMean(below)));
    return slowdown;
  }
  const RatioEstimate ratio = EstimateRatio(below, above, kMatrixError);
  slowdown.value = percent(ratio.ratio);
  slowdown.low = percent(ratio.low);
  slowdown.high = percent(ratio.high);
  return slowdown;
}

}  // namespace scope
