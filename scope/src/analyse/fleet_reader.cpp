// SPDX-License-Identifier: Apache-2.0
#include "fleet_reader.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <optional>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "cell_plan.h"
#include "collection.h"
#include "compare_figures.h"
#include "engines.h"
#include "errors.h"
#include "fleet_folders.h"
#include "plan_file.h"
#include "run_error.h"
#include "text_format.h"
#include "text_hash.h"

namespace scope {
namespace {

// Logarithms need values above 0. An engine that does nothing in all runs has the rate 0, far below all
// others.
constexpr double kLeastValue = 1e-9;
constexpr std::size_t kMostShownReason = 300;

using Point = std::pair<SweepLevels, BoardSettings>;

// A value of one run.
struct Observation {
  std::uint32_t measure;
  std::uint32_t board;
  double value;
};

const FigureKind* ComparedFigureKind(const std::string& name) {
  for (const FigureKind* const kind : ComparedKinds()) {
    if (name == kind->name) return kind;
  }
  return nullptr;
}

class FleetReader {
 public:
  explicit FleetReader(const std::string& folder) { fleet_.folder = folder; }

  // Reads the cells of a night. `isLast`: keeps those that are not done.
  void Read(const std::string& name, const std::string& folder, const Plan& plan, bool isLast,
            bool takesValues) {
    FleetNight night;
    night.name = name;
    night.folder = folder;
    night.plan = plan.id;
    night.setup = SetupOf(plan);
    night.made = plan.made;
    night.warmupS = plan.settings.warmupS;
    std::vector<Observation> observations;
    for (std::size_t i = 0; i < plan.cells.size(); ++i) {
      const PlanCell& cell = plan.cells[i];
      CellRecord record;
      CellStatus status = StatusOf(folder, plan.id, cell, i + 1, CellCheck::kRecord, &record);
      RequireUsable(cell, record, status);
      night.hasOpenCells |= cell.board.empty();
      const std::uint32_t board = BoardAt(BoardOf(cell, record, status));
      if (night.cells.size() <= board) night.cells.resize(board + 1);
      ++night.cells[board][static_cast<std::size_t>(status.state)];
      AddErrorsOf(status, cell, i + 1, board, isLast, night);
      if (status.state == CellState::kDone) {
        const std::uint32_t point = PointAt(cell);
        if (takesValues) Observe(cell, point, record, board, observations);
        if (isLast) fleet_.done.push_back({board, point, i + 1, HasFoundErrors(status)});
      } else if (isLast) {
        if (status.reason.size() > kMostShownReason) status.reason.resize(kMostShownReason);
        fleet_.notDone.push_back({board, i + 1, status.state, CellLabel(cell), status.reason, status.folder});
      }
    }
    AddValues(observations, static_cast<std::uint16_t>(fleet_.nights.size()));
    fleet_.nights.push_back(std::move(night));
  }

  void Note(const std::string& text) { fleet_.notes.push_back(text); }

  Fleet Take() {
    if (unknown_ != 0) {
      Note("of " + Counted(unknown_, "cell") + " it is not known whether errors were found");
    }
    const auto order = [](const FleetValue& value) {
      return std::tie(value.measure, value.board, value.night);
    };
    std::sort(
        fleet_.values.begin(), fleet_.values.end(),
        [&order](const FleetValue& left, const FleetValue& right) { return order(left) < order(right); });
    return std::move(fleet_);
  }

 private:
  // The record says what nobody may have written who measured: its cell does not count as done.
  static void RequireUsable(const PlanCell& cell, const CellRecord& record, CellStatus& status) {
    if (status.state != CellState::kDone) return;
    status.state = CellState::kDamaged;
    if (!(record.board.empty() || IsName(record.board)) ||
        !(record.machine.empty() || IsName(record.machine))) {
      status.reason = "cell.json: expected the names of a board and of a machine";
      return;
    }
    if (!cell.board.empty() && record.board != cell.board) {
      status.reason = "cell.json: board: expected \"" + cell.board + "\", found \"" + record.board + "\"";
      return;
    }
    for (const CellFigure& figure : record.figures) {
      if (figure.value >= 0 && std::isfinite(figure.value)) continue;
      status.reason = Format("cell.json: figures: expected numbers from 0 on, found %g", figure.value);
      return;
    }
    status.state = CellState::kDone;
  }

  static bool IsName(const std::string& text) {
    try {
      RequireBoardName(text, "");
      return true;
    } catch (const UserError&) {
      return false;
    }
  }

  static std::string BoardOf(const PlanCell& cell, const CellRecord& record, const CellStatus& status) {
    if (!cell.board.empty()) return cell.board;
    if (IsName(status.board)) return status.board;
    const bool isMachine = status.state == CellState::kDone && !record.machine.empty();
    return isMachine ? record.machine : kAnyBoard;
  }

  void AddErrorsOf(const CellStatus& status, const PlanCell& cell, std::size_t number, std::uint32_t board,
                   bool isLast, FleetNight& night) {
    if (!status.errors && isLast) ++unknown_;
    if (!HasFoundErrors(status)) return;
    SourceErrors errors = status.earlierErrors;
    if (status.errors) AddErrors(*status.errors, errors);
    if (night.errors.size() <= board) night.errors.resize(board + 1);
    night.errors[board] += AllErrors(errors);
    if (!isLast) return;
    fleet_.errors.push_back({board, number, std::move(errors),
                             "cell " + std::to_string(number) + " (" + CellLabel(cell) + ") " +
                                 StateText(status) + EarlierText(status) + "; see " + status.folder});
  }

  std::uint32_t PointAt(const PlanCell& cell) {
    const auto next = static_cast<std::uint32_t>(points_.size());
    return points_.try_emplace({cell.levels, cell.settings}, next).first->second;
  }

  std::uint32_t BoardAt(const std::string& name) {
    const auto [at, isNew] = boards_.try_emplace(name, static_cast<std::uint32_t>(fleet_.boards.size()));
    if (isNew) fleet_.boards.push_back(name);
    return at->second;
  }

  std::uint32_t MeasureAt(std::uint32_t point, const PlanCell& cell, const std::string& engine,
                          const FigureKind& kind) {
    const auto next = static_cast<std::uint32_t>(fleet_.measures.size());
    const auto [at, isNew] = measures_.try_emplace({point, engine, kind.figure}, next);
    if (isNew) fleet_.measures.push_back({cell.levels, cell.settings, engine, kind.figure, point});
    return at->second;
  }

  void Observe(const PlanCell& cell, std::uint32_t point, const CellRecord& record, std::uint32_t board,
               std::vector<Observation>& observations) {
    for (const CellFigure& figure : record.figures) {
      // What a later version adds, or somebody else, is not compared.
      const FigureKind* const kind = ComparedFigureKind(figure.figure);
      const bool isKnown =
          figure.engine == kAllEngines || FindEngine(&EngineInfo::id, figure.engine) != nullptr;
      if (kind == nullptr || !isKnown) continue;
      observations.push_back({MeasureAt(point, cell, figure.engine, *kind), board, figure.value});
    }
  }

  void AddValues(std::vector<Observation>& observations, std::uint16_t night) {
    const auto order = [](const Observation& one) { return std::tie(one.measure, one.board, one.value); };
    std::sort(observations.begin(), observations.end(),
              [&order](const Observation& a, const Observation& b) { return order(a) < order(b); });
    for (auto from = observations.begin(); from != observations.end();) {
      FleetValue value;
      value.measure = from->measure;
      value.board = from->board;
      value.night = night;
      auto to = from;
      while (to != observations.end() && to->measure == from->measure && to->board == from->board) ++to;
      const auto runs = to - from;
      value.runs = static_cast<std::uint16_t>(std::min<std::ptrdiff_t>(runs, UINT16_MAX));
      // The sum of huge values may not be finite, their mean is.
      double mean = 0;
      for (auto run = from; run != to; ++run) mean += run->value / static_cast<double>(runs);
      mean = std::max(mean, kLeastValue);
      value.middle = std::log(mean);
      double squares = 0;
      for (; from != to; ++from) squares += (from->value / mean - 1) * (from->value / mean - 1);
      value.squares = static_cast<float>(squares);
      fleet_.values.push_back(value);
    }
  }

  Fleet fleet_;
  std::size_t unknown_ = 0;  // cells of the last night of which it is not known whether they found errors
  std::unordered_map<std::string, std::uint32_t> boards_;
  std::map<Point, std::uint32_t> points_;
  std::map<std::tuple<std::uint32_t, std::string, Figure>, std::uint32_t> measures_;
};

}  // namespace

std::string SetupOf(const Plan& plan) {
  // The text has the levels of the first cell, and each plan has another order.
  std::string text;
  constexpr const char* kLevel = "Level:";
  for (std::size_t at = 0; at < plan.configText.size();) {
    if (plan.configText.compare(at, std::strlen(kLevel), kLevel) != 0) {
      text += plan.configText[at++];
      continue;
    }
    text += kLevel;
    at = plan.configText.find_first_not_of(' ', at + std::strlen(kLevel));
    at = std::min(plan.configText.find_first_of(" ,}#\r\n", std::min(at, plan.configText.size())),
                  plan.configText.size());
  }
  const SweepSettings& settings = plan.settings;
  text += Format("\n%.17g %.17g %d", settings.warmupS, settings.stopAfterS, settings.useMeter ? 1 : 0);
  for (const std::string& argument : settings.extra) text += '\n' + argument;
  // Plans without checks have the setup that they had before there were any.
  text += ChecksText(plan);
  return HashOf(text);
}

std::string PointLabel(const FleetMeasure& measure) {
  std::string text;
  for (const auto& [section, level] : measure.levels)
    text += (text.empty() ? "" : " ") + section + "=" + std::to_string(level);
  for (const auto& [name, value] : measure.settings) text += (text.empty() ? "" : ", ") + name + "=" + value;
  return text;
}

std::string MeasureTitle(const FleetMeasure& measure, bool point) {
  const std::string label = point ? PointLabel(measure) : std::string();
  return (measure.engine == kAllEngines ? "all" : measure.engine) + " " + KindOf(measure.figure).title +
         (label.empty() ? "" : " at " + label);
}

Fleet ReadFleet(const std::string& folder) {
  FleetReader reader(folder);
  const NightFolders found = FindNights(folder);
  const auto& nights = found.nights;
  for (const std::string& note : found.notes) reader.Note(note);
  const std::string setup = SetupOf(ReadPlan(nights.back().second + "/" + kPlanName));
  std::size_t others = 0;
  for (const auto& [name, path] : nights) {
    const bool isLast = &path == &nights.back().second;
    std::optional<Plan> plan;
    try {
      plan = ReadPlan(path + "/" + kPlanName);
    } catch (const UserError& error) {
      if (isLast) throw;
      reader.Note("the night " + name + " is left out: " + error.what());
      continue;
    }
    const bool isAlike = SetupOf(*plan) == setup;
    if (!isAlike) ++others;
    reader.Read(name, path, *plan, isLast, isAlike);
  }
  if (others != 0) {
    reader.Note(
        Counted(others, "night") +
        " not compared: the configuration, the times or the checks differ from those of the last one");
  }
  return reader.Take();
}

}  // namespace scope
