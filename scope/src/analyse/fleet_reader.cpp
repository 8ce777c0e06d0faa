// SPDX-License-Identifier: Apache-2.0
#include "fleet_reader.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <system_error>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "cell_plan.h"
#include "collection.h"
#include "compare_figures.h"
#include "engines.h"
#include "errors.h"
#include "plan_file.h"
#include "system_files.h"
#include "text_format.h"
#include "text_hash.h"

namespace scope {
namespace {

namespace fs = std::filesystem;

// Logarithms need values above 0. An engine that does nothing in all runs has the rate 0, far below all
// others.
constexpr double kLeastValue = 1e-9;
constexpr std::size_t kMostNights = 5000;
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
      if (status.state == CellState::kDone) {
        const std::uint32_t point = PointAt(cell);
        if (takesValues) Observe(cell, point, record, board, observations);
        if (isLast) fleet_.done.push_back({board, point, i + 1});
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
  std::unordered_map<std::string, std::uint32_t> boards_;
  std::map<Point, std::uint32_t> points_;
  std::map<std::tuple<std::uint32_t, std::string, Figure>, std::uint32_t> measures_;
};

[[noreturn]] void RefuseFolder(const std::string& path, const std::string& reason) {
  throw UserError("cannot read the folder " + path + ": " + reason);
}

bool IsNight(const std::string& folder) {
  std::error_code error;
  const fs::file_status plan = fs::symlink_status(folder + "/" + kPlanName, error);
  if (plan.type() == fs::file_type::none) RefuseFolder(folder, error.message());
  return fs::exists(plan);
}

// Names of folders that differ in their numbers alone are alike: 2026-11-21 and 2026-11-22.
std::string ShapeOf(const std::string& name) {
  std::string shape;
  for (const char letter : name) {
    const bool isDigit = letter >= '0' && letter <= '9';
    if (!isDigit || shape.empty() || shape.back() != '0') shape += isDigit ? '0' : letter;
  }
  return shape;
}

// The name of the folder, also of "night/" and of ".".
std::string NameOfFolder(const std::string& folder) {
  std::error_code ignored;
  const fs::path whole = fs::weakly_canonical(folder, ignored);
  return whole.filename().empty() ? folder : whole.filename().string();
}

bool LeadsNowhere(const fs::path& path) {
  std::error_code error;
  return fs::is_symlink(fs::symlink_status(path, error)) && !fs::exists(path, error);
}

// The folders in `folder`, each once: a link to another one of them is left out. Links that lead nowhere are
// among them: the night may lie on a disk that is away.
std::vector<std::string> FoldersIn(const std::string& folder) {
  std::error_code error;
  const fs::directory_iterator readable(folder, error);
  if (error) RefuseFolder(folder, error.message());
  std::vector<std::string> names;
  std::set<std::string> own;
  for (const std::string& name : ListFolder(folder)) {
    const fs::path path = folder + "/" + name;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::none) RefuseFolder(path.string(), error.message());
    if (!fs::is_directory(status) && !LeadsNowhere(path)) continue;
    names.push_back(name);
    if (!fs::is_symlink(fs::symlink_status(path, error))) own.insert(fs::canonical(path, error).string());
  }
  const auto isOther = [&](const std::string& name) {
    const fs::path path = folder + "/" + name;
    const bool isLink = fs::is_symlink(fs::symlink_status(path, error)) && !LeadsNowhere(path);
    return isLink && !own.insert(fs::canonical(path, error).string()).second;
  };
  names.erase(std::remove_if(names.begin(), names.end(), isOther), names.end());
  return names;
}

// The reason why `path` is no night.
std::string WhyNoNight(const fs::path& path) {
  return LeadsNowhere(path) ? "the link leads nowhere" : "there is no " + std::string(kPlanName);
}

// Tells which folders are no nights, a note for each reason.
void NoteOthers(const std::string& folder, const std::vector<std::string>& others, FleetReader& reader) {
  std::map<std::string, std::vector<std::string>> reasons;
  for (const std::string& name : others) reasons[WhyNoNight(folder + "/" + name)].push_back(name);
  for (const auto& [reason, names] : reasons) {
    reader.Note("left out, because " + reason + ": " + names.front() +
                (names.size() > 1 ? " and " + Counted(names.size() - 1, "other folder") : ""));
  }
}

// Names and folders of the nights.
std::vector<std::pair<std::string, std::string>> NightsIn(const std::string& folder, FleetReader& reader) {
  if (IsNight(folder)) return {{NameOfFolder(folder), folder}};
  std::vector<std::pair<std::string, std::string>> nights;
  std::vector<std::string> others;
  std::vector<std::string> later;  // than the last night
  for (const std::string& name : FoldersIn(folder)) {
    const std::string path = folder + "/" + name;
    if (IsNight(path)) {
      nights.emplace_back(name, path);
      later.clear();
    } else {
      others.push_back(name);
      later.push_back(name);
    }
  }
  if (nights.empty()) {
    throw UserError(folder + ": expected a folder of cells, or folders of cells, one a night; found no " +
                    kPlanName + " in it or in a folder in it");
  }
  for (const std::string& name : later) {
    if (ShapeOf(name) != ShapeOf(nights.back().first)) continue;
    const std::string path = folder + "/" + name;
    const std::string reason = LeadsNowhere(path)
                                   ? ": the link to the newest night leads nowhere"
                                   : ": expected " + std::string(kPlanName) +
                                         " in the folder of the newest night: nothing was begun";
    throw UserError(path + reason + ". Without it, " + nights.back().first + " is judged");
  }
  NoteOthers(folder, others, reader);
  if (nights.size() > kMostNights) {
    reader.Note("the first " + std::to_string(nights.size() - kMostNights) + " nights are left out");
    nights.erase(nights.begin(), nights.end() - static_cast<std::ptrdiff_t>(kMostNights));
  }
  return nights;
}

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
  const auto nights = NightsIn(folder, reader);
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
    reader.Note(Counted(others, "night") +
                " not compared: the configuration or the times differ from those of the last one");
  }
  return reader.Take();
}

}  // namespace scope
