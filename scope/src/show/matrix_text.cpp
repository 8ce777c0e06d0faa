// SPDX-License-Identifier: Apache-2.0
#include "matrix_text.h"

#include <algorithm>
#include <cmath>

#include "estimate.h"
#include "latency_texts.h"
#include "matrix_plan.h"
#include "number_text.h"
#include "printable.h"
#include "statistics.h"
#include "sweep_plan.h"
#include "text_format.h"

namespace scope {
namespace {

std::string MainText(const MatrixCell& cell, const MatrixFigures& figures) {
  if (figures.main.empty()) return "-";
  const double median = Median(figures.main);
  return cell.victim.section == kLatencyVictim ? Format("%.0f ns", median) : RateText(median);
}

std::string MicrosecondsText(double us) {
  return Latency(static_cast<std::uint64_t>(std::llround(us * 1e3)));
}

std::string TailText(const MatrixFigures& figures) {
  if (figures.p99Us.empty()) return "-";
  const Estimate tail = EstimateOf(figures.p99Us);
  const std::string value = MicrosecondsText(tail.value);
  if (!tail.low) return value;
  return value + " [" + MicrosecondsText(*tail.low) + ", " + MicrosecondsText(*tail.high) + "]";
}

std::string SlowdownText(const std::optional<SlowdownPercent>& slowdown) {
  if (!slowdown) return "-";
  // Without "-0.0".
  const auto shown = [](double percent) { return std::round(percent * 10) / 10 + 0.0; };
  const std::string value = Format("%+.1f %%", shown(slowdown->value));
  return slowdown->low ? value + Format(" [%+.1f, %+.1f]", shown(*slowdown->low), shown(*slowdown->high))
                       : value;
}

std::string CpusText(const MatrixCell& cell) {
  const std::string load = cell.aggressorCpus ? Format("%.2f", *cell.aggressorCpus) : "-";
  return load + " / " + (cell.control.cpus.empty() ? "-" : Format("%.2f", Median(cell.control.cpus)));
}

// Whether the search can tell the worst mix from the one after it.
std::string NextSentence(const Matrix& matrix, const MatrixTable& table, const SweepLevels& worst) {
  const auto isOther = [&worst](const MatrixRun& run) {
    return run.part == MatrixPart::kWith && run.state == SweepState::kDone && run.mix != worst;
  };
  if (!table.next) {
    return std::any_of(matrix.runs.begin(), matrix.runs.end(), isOther)
               ? "The other mixes that it tried have no figures: see the notes."
               : "It tried no other mix.";
  }
  const std::optional<SlowdownPercent>& behind = table.next->behind;
  const std::string text = "Than beside the next one, " + PointText(table.next->mix) + ", it is slower by " +
                           SlowdownText(behind) + ".";
  if (behind && behind->low && *behind->low > 0) return text;
  return text + (behind && behind->low ? " These runs cannot tell the two apart."
                                       : " That is too few runs to tell the two apart.");
}

// The worst mix is the only one that has a control.
std::vector<std::string> WorstSentences(const Matrix& matrix, const MatrixTable& table) {
  const MatrixCell* worst = nullptr;
  for (const MatrixCell& cell : table.cells) {
    if (!cell.control.main.empty()) worst = &cell;
  }
  const std::string made = "The search made " + std::to_string(table.withRuns) + " of the " +
                           std::to_string(ExhaustiveRuns(WorstGridOf(matrix))) +
                           " runs with aggressors that recording every mix would take.";
  if (worst == nullptr) {
    const auto control = std::find_if(matrix.runs.begin(), matrix.runs.end(), [](const MatrixRun& run) {
      return run.part == MatrixPart::kControl && run.state == SweepState::kDone;
    });
    if (control != matrix.runs.end())
      return {made,
              "It found " + PointText(control->mix) + ", whose control measured nothing: see the notes."};
    if (table.withRuns != 0 && table.cells.empty())
      return {made, "No mix that it tried has figures: see the notes."};
    return {made, "It has not ended."};
  }
  return {"The worst mix for " + VictimText(worst->victim) + " is " + PointText(worst->mix) + ": slower by " +
              SlowdownText(worst->total) + " in all, by " + SlowdownText(worst->byMemory) +
              " because of memory.",
          NextSentence(matrix, table, worst->mix), made};
}

// Cells are in order of their slowdown by memory.
std::string SentenceOf(const MatrixVictim& victim, const MatrixTable& table) {
  const bool isLatency = victim.section == kLatencyVictim;
  const std::string slowed = isLatency ? "the latency of memory grows" : "memory slows " + VictimText(victim);
  bool isKnown = false;
  for (const MatrixCell& cell : table.cells) {
    if (cell.victim.section != victim.section || !cell.byMemory || !cell.byMemory->low) continue;
    isKnown = true;
    if (*cell.byMemory->low > 0)
      return (isLatency ? "T" : "M") + slowed.substr(1) + " most beside " + PointText(cell.mix) + ": by " +
             SlowdownText(cell.byMemory) + ".";
  }
  return isKnown ? "These runs do not show that " + slowed + ": no interval is above 0."
                 : "Whether " + slowed + " is not known: this needs two runs of each part.";
}

}  // namespace

std::string OwnCpusSentence(const Matrix& matrix) {
  if (!matrix.ownCpus.empty()) {
    std::vector<std::string> cpus;
    for (const int cpu : matrix.ownCpus) cpus.push_back(std::to_string(cpu));
    return (cpus.size() == 1 ? "The victim has CPU " : "The victim has the CPUs ") + Joined(cpus, ", ") +
           " to itself; aggressors and controls share the others.";
  }
  return "The victim has no CPU to itself: it shares the CPUs with aggressors and controls.";
}

std::vector<std::string> ProbeSentences(const MatrixTable& table) {
  std::vector<std::string> sentences;
  if (!table.latency.empty()) sentences.push_back("The latency is that of " + table.latency + ".");
  if (!table.growth.empty()) {
    sentences.push_back("Before the load, medians of all runs with the probe over parts of this memory: " +
                        GrowthText(table.growth) + ".");
  }
  return sentences;
}

std::vector<std::string> MatrixSentences(const Matrix& matrix, const MatrixTable& table) {
  if (matrix.worst) return WorstSentences(matrix, table);
  std::vector<std::string> sentences;
  for (const MatrixVictim& victim : matrix.victims) sentences.push_back(SentenceOf(victim, table));
  return sentences;
}

std::string MatrixText(const Matrix& matrix, const MatrixTable& table, std::size_t width) {
  std::string text = OwnCpusSentence(matrix) + "\n";
  for (const std::string& sentence : ProbeSentences(table)) text += Printable(sentence) + '\n';
  text += Format(
      "Medians of the runs after a warm-up of %g s; slowdowns are ratios of geometric means, p99 are such "
      "means, with intervals of 95 %%\n",
      matrix.settings.warmupS);
  TextTable rows("ll");
  rows.Add({"victim", "aggressors", "by memory", "by CPU", "alone", "control", "with", "p99 alone", "control",
            "with", "CPUs of aggressors / control"});
  for (const MatrixCell& cell : table.cells) {
    rows.Add({VictimText(cell.victim), PointText(cell.mix), SlowdownText(cell.byMemory),
              SlowdownText(cell.byCpu), MainText(cell, cell.alone), MainText(cell, cell.control),
              MainText(cell, cell.with), TailText(cell.alone), TailText(cell.control), TailText(cell.with),
              CpusText(cell)});
  }
  text += rows.Text(width, 2);
  text += '\n';
  for (const std::string& sentence : MatrixSentences(matrix, table)) text += sentence + '\n';
  for (const std::string& note : table.notes) text += "\nnote: " + Printable(note);
  if (!table.notes.empty()) text += '\n';
  return text;
}

}  // namespace scope
