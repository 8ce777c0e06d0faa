#include "compare.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "run_summary.h"
#include "run_warnings.h"
#include "statistics.h"
#include "sweep_plan.h"
#include "text_format.h"
#include "text_table.h"

namespace scope {
namespace {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

constexpr const char* kSettings = "config";
constexpr double kOnePercent = 0.01;
// More than anybody records; the number would say that it is known well.
constexpr int kManyRepeats = 9999;
constexpr double kGibibyte = 1024.0 * 1024 * 1024;

// --- what is compared
// ---------------------------------------------------------------------------------------

Side PointOfSweep(const std::string& folder, const std::string& point, const std::string& argument) {
  const Sweep sweep = ReadSweep(folder);
  const SweepLevels wanted = ParsePoint(point);
  const auto refuse = [&argument](const std::string& why) { throw RunFolderError(argument + ": " + why); };
  for (const auto& [section, level] : wanted) {
    const auto isSection = [&name = section](const SweepAxis& axis) { return axis.section == name; };
    if (std::none_of(sweep.axes.begin(), sweep.axes.end(), isSection)) refuse(section + " was not swept");
  }
  Side side;
  side.name = argument;
  side.warmupS = sweep.settings.warmupS;
  bool known = false;
  for (const SweepRun& run : sweep.runs) {
    bool matches = true;
    for (const auto& level : run.levels) {
      const auto sameSection = [&](const auto& one) { return one.first == level.first; };
      const auto at = std::find_if(wanted.begin(), wanted.end(), sameSection);
      if (at == wanted.end()) refuse("it says no level of " + level.first + ", which was swept");
      matches = matches && at->second == level.second;
    }
    if (!matches) continue;
    known = true;
    if (run.state == SweepState::kDone) side.runs.push_back(ReadRun(fs::path(folder) / run.folder));
  }
  if (!known) refuse("the sweep has no such point");
  if (side.runs.empty()) refuse("no run of this point is done");
  return side;
}

// --- conditions
// ---------------------------------------------------------------------------------------------

std::string OrUnknown(const std::string& text) {
  return text.empty() ? "unknown" : text;
}

std::string CachesText(const std::vector<Cache>& caches) {
  std::string text;
  for (const Cache& cache : caches) {
    text += Format("%s%d x L%d %s %g KiB", text.empty() ? "" : ", ", cache.instances, cache.level,
                   cache.type.c_str(), static_cast<double>(cache.bytes) / 1024);
  }
  return text;
}

template <typename Pairs>
std::string PairsText(const Pairs& pairs) {
  std::string text;
  for (const auto& [name, value] : pairs) {
    text += (text.empty() ? "" : ", ") + name;
    if constexpr (std::is_same_v<std::decay_t<decltype(value)>, int>) {
      text += "=" + std::to_string(value);
    } else {
      text += " " + value;
    }
  }
  return text;
}

struct Condition {
  const char* name;
  std::string (*text)(const Run& run);
};

const std::vector<Condition>& Known() {
  static const std::vector<Condition> kKnown = {
      {"complete", [](const Run& run) { return std::string(run.info.complete ? "yes" : "no"); }},
      {"meter", [](const Run& run) { return std::string(run.info.conditions.meter ? "yes" : "no"); }},
      {"cpu_model", [](const Run& run) { return run.info.conditions.cpuModel; }},
      {"cpu_count",
       [](const Run& run) {
         const int count = run.info.conditions.cpuCount;
         return count == 0 ? std::string() : std::to_string(count);
       }},
      {"caches", [](const Run& run) { return CachesText(run.info.conditions.caches); }},
      {"mem_total_bytes",
       // To what a module is, not to what the kernel of the day keeps for itself.
       [](const Run& run) {
         const auto bytes = static_cast<double>(run.info.conditions.memTotalBytes);
         return bytes == 0 ? std::string() : Format("%.1f GiB", bytes / kGibibyte);
       }},
      {"kernel", [](const Run& run) { return run.info.conditions.kernel; }},
      {"hostname_hash", [](const Run& run) { return run.info.conditions.hostnameHash; }},
      {"governor", [](const Run& run) { return run.info.conditions.governor; }},
      {"cpu_mhz",
       [](const Run& run) {
         const Conditions& conditions = run.info.conditions;
         return conditions.cpuMhzMax == 0 ? std::string()
                                          : Format("%g to %g", conditions.cpuMhzMin, conditions.cpuMhzMax);
       }},
      {"build_type", [](const Run& run) { return run.info.conditions.buildType; }},
      {"library_versions", [](const Run& run) { return PairsText(run.info.conditions.libraryVersions); }},
      {"levels", [](const Run& run) { return PairsText(run.info.config.levels); }},
  };
  return kKnown;
}

std::string Joined(const std::set<std::string>& texts, const std::string& between) {
  std::string joined;
  for (const std::string& text : texts) joined += (joined.empty() ? "" : between) + text;
  return joined;
}

// One entry for each value of the configuration, but for the levels, that is not the same in all runs.
void AddSettings(const std::vector<Run>& a, const std::vector<Run>& b,
                 std::vector<ConditionDifference>& differences) {
  std::set<std::string> names;
  for (const std::vector<Run>* side : {&a, &b}) {
    for (const Run& run : *side) {
      for (const auto& [name, value] : run.info.config.settings) names.insert(name);
    }
  }
  for (const std::string& name : names) {
    const auto values = [&wanted = name](const std::vector<Run>& runs) {
      std::set<std::string> all;
      for (const Run& run : runs) {
        const auto& settings = run.info.config.settings;
        const auto at = std::find_if(settings.begin(), settings.end(),
                                     [&wanted](const auto& setting) { return setting.first == wanted; });
        all.insert(at == settings.end() ? "unset" : at->second);
      }
      return all;
    };
    const std::set<std::string> ofA = values(a);
    const std::set<std::string> ofB = values(b);
    if (ofA == ofB && ofA.size() == 1) continue;
    differences.push_back({kSettings, name + "=" + Joined(ofA, " or "), name + "=" + Joined(ofB, " or ")});
  }
}

// --- figures
// ------------------------------------------------------------------------------------------------

using Values = std::map<FigureKey, std::vector<double>>;

struct SideFigures {
  std::vector<Values> runs;  ///< the seconds of each run
  /// Engines whose printed rates are not to be used.
  std::set<std::string> printedTooCoarsely;
  /// Engine that worked and stopped before the end of a run, to where.
  std::map<std::string, std::string> stopped;
};

SideFigures Read(const Side& side, const CompareOptions& options) {
  SideFigures figures;
  for (const Run& run : side.runs) {
    const RunSummary summary = Summarise(run);
    for (const EngineSummary& engine : summary.engines) {
      if (HasShortOperations(engine)) figures.printedTooCoarsely.insert(engine.engine);
      if (!IsLoad(engine.engine) || engine.work.operations == 0) continue;
      const std::string end = EarlyEnd(engine, summary.endS);
      if (!end.empty()) figures.stopped.emplace(engine.engine, end);
    }
    figures.runs.push_back(FiguresOf(summary, options.skipS));
    if (figures.runs.back().empty()) {
      throw RunFolderError(run.folder + ": there is no second to compare after the first " +
                           Format("%g", options.skipS) + " s; --skip says how many are left out");
    }
  }
  return figures;
}

// One value a run, or all seconds of all runs.
std::vector<double> Pick(const SideFigures& figures, const FigureKey& key, bool overRepeats) {
  std::vector<double> values;
  for (const Values& run : figures.runs) {
    const auto at = run.find(key);
    if (at == run.end()) continue;
    if (overRepeats) {
      values.push_back(Median(at->second));
    } else {
      values.insert(values.end(), at->second.begin(), at->second.end());
    }
  }
  return values;
}

// Neighbouring seconds are alike; the block grows with their number as is usual for this bootstrap.
std::size_t Block(std::size_t seconds) {
  return static_cast<std::size_t>(std::lround(std::cbrt(static_cast<double>(seconds))));
}

// Scatter of a run's figure over its median, as far as it is known.
std::optional<double> Variation(const std::vector<double>& values, bool overRepeats,
                                const BootstrapOptions& bootstrap) {
  const double median = std::abs(Median(values));
  if (values.size() < 2 || median == 0) return std::nullopt;
  return StandardDeviation(overRepeats ? values : BootstrapMedians(values, bootstrap)) / median;
}

void Judge(ComparedFigure& figure, bool overRepeats, const CompareOptions& options) {
  const auto& [a, b] = std::tie(figure.aValues, figure.bValues);
  if (a.empty() || b.empty()) {
    figure.verdict = Verdict::kMissing;
    figure.regression = b.empty();
    figure.note = b.empty() ? "B does not have it" : "A does not have it";
    return;
  }
  const double base = *figure.a;
  if (base == 0) {
    if (*figure.b == 0) {
      figure.note = "0 on both sides";
    } else {
      figure.note = "A's median is 0";
    }
    figure.verdict = Verdict::kUnusable;
    return;
  }
  BootstrapOptions bootstrap;
  bootstrap.confidence = options.confidence;
  bootstrap.seed = options.seed;
  if (!overRepeats) bootstrap.block = Block(std::min(a.size(), b.size()));
  const Interval interval = MedianDifference(a, b, bootstrap);
  const double percent = 100 / std::abs(base);
  figure.differencePercent = (*figure.b - base) * percent;
  figure.lowPercent = interval.low * percent;
  figure.highPercent = interval.high * percent;
  bool shown = figure.lowPercent > 0 || figure.highPercent < 0;
  if (overRepeats) {
    figure.rankSumP = RankSumP(a, b);
    const double rounding = 1 + 1e-9;
    shown = shown && *figure.rankSumP <= (1 - options.confidence) * rounding;
  }
  const auto variationA = Variation(a, overRepeats, bootstrap);
  const auto variationB = Variation(b, overRepeats, bootstrap);
  if (variationA && variationB) {
    const double pooled = std::sqrt((*variationA * *variationA + *variationB * *variationB) / 2);
    figure.repeatsForOnePercent = RepeatsToShow(pooled, kOnePercent, options.confidence);
  }
  if (!shown) return;
  const bool lowerIsBetter = KindOf(figure.key.figure).lowerIsBetter;
  const double least = lowerIsBetter ? figure.lowPercent : -figure.highPercent;  // worse by at least this
  figure.verdict = least > 0 ? Verdict::kWorse : Verdict::kBetter;
  figure.regression = least > options.tolerancePercent;
}

std::size_t RunsWith(const SideFigures& figures, const FigureKey& key) {
  return static_cast<std::size_t>(std::count_if(figures.runs.begin(), figures.runs.end(),
                                                [&key](const Values& run) { return run.count(key) != 0; }));
}

// The runs that have the figure are all that the medians are of.
void JudgeMissingRuns(ComparedFigure& figure, const SideFigures& a, const SideFigures& b) {
  const std::size_t missing = b.runs.size() - RunsWith(b, figure.key);
  if (figure.verdict == Verdict::kMissing || missing == 0 || RunsWith(a, figure.key) != a.runs.size()) return;
  figure.verdict = Verdict::kWorse;
  figure.regression = true;
  figure.note = Format("%zu of %zu runs of B do not have it", missing, b.runs.size());
}

// The seconds before an engine stopped may be as good as ever, and a median is of no other.
void JudgeEarlyEnd(ComparedFigure& figure, const SideFigures& a, const SideFigures& b) {
  if (figure.verdict == Verdict::kMissing) return;
  for (const auto& [engine, end] : b.stopped) {
    if (a.stopped.count(engine) != 0) continue;
    if (figure.key.engine != engine && figure.key.engine != kAllEngines) continue;
    figure.verdict = Verdict::kWorse;
    figure.regression = true;
    figure.note = "in B, " + engine + " stops early: " + end;
    return;
  }
}

void NoteEarlyEnds(const char* side, const SideFigures& figures, std::vector<std::string>& notes) {
  for (const auto& [engine, end] : figures.stopped)
    notes.push_back(std::string("in ") + side + ", " + engine + " stops early: " + end);
}

void NoteDrift(const Side& side, const SideFigures& figures, std::vector<std::string>& notes) {
  for (std::size_t i = 0; i < figures.runs.size(); ++i) {
    for (const auto& [key, values] : figures.runs[i]) {
      const double drift = key.figure == Figure::kOperations ? DriftAtEnd(values) : 0;
      if (std::abs(drift) <= kDrift) continue;
      notes.push_back(side.runs[i].folder + ": " + key.engine +
                      ": the rate is still drifting at the end, by " +
                      Format("%+.1f %% over the second half", drift * 100));
    }
  }
}

void NoteRuns(const Side& side, std::vector<std::string>& notes) {
  for (const Run& run : side.runs) {
    for (const std::string& note : run.notes) notes.push_back(run.folder + ": " + note);
    std::map<std::string, std::uint64_t> failures;
    for (const Sample& sample : run.samples) failures[sample.engine] += sample.failures;
    for (const auto& [engine, count] : failures) {
      if (count == 0) continue;
      notes.push_back(run.folder + ": " + engine + ": " + std::to_string(count) + " operations failed");
    }
  }
}

// --- the command
// --------------------------------------------------------------------------------------------

std::string VerdictText(Verdict verdict) {
  switch (verdict) {
    case Verdict::kBetter:
      return "better";
    case Verdict::kWorse:
      return "worse";
    case Verdict::kNoDifference:
      return "no difference shown";
    case Verdict::kMissing:
      return "missing";
    case Verdict::kUnusable:
      return "not used";
  }
  return {};
}

struct CommandOptions {
  std::string a;
  std::string b;
  CompareOptions compare;
  double skipS = -1;
  std::vector<std::string> allowed;
  std::vector<std::string> figures;
  bool force = false;
  bool json = false;
};

std::string RunsText(const Side& side) {
  return std::to_string(side.runs.size()) + (side.runs.size() == 1 ? " run" : " runs");
}

std::string RepeatsText(const ComparedFigure& figure, bool overRepeats) {
  if (!figure.repeatsForOnePercent) return "-";
  if (*figure.repeatsForOnePercent > kManyRepeats) return "> " + std::to_string(kManyRepeats);
  return (overRepeats ? "" : ">= ") + std::to_string(*figure.repeatsForOnePercent);
}

template <typename T>
Json OrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json SideJson(const Side& side) {
  Json folders = Json::array();
  for (const Run& run : side.runs) folders.push_back(run.folder);
  return Json{{"name", side.name}, {"runs", folders}};
}

void PrintJson(const Side& a, const Side& b, const Comparison& comparison,
               const std::vector<ConditionDifference>& differences, const CompareOptions& options) {
  Json different = Json::array();
  for (const ConditionDifference& difference : differences) {
    different.push_back(Json{{"name", difference.name}, {"a", difference.a}, {"b", difference.b}});
  }
  Json figures = Json::array();
  for (const ComparedFigure& figure : comparison.figures) {
    const FigureKind& kind = KindOf(figure.key.figure);
    const bool has = figure.differencePercent.has_value();
    figures.push_back(Json{{"engine", figure.key.engine},
                           {"figure", kind.name},
                           {"unit", kind.unit},
                           {"lower_is_better", kind.lowerIsBetter},
                           {"a", OrNull(figure.a)},
                           {"b", OrNull(figure.b)},
                           {"difference_percent", OrNull(figure.differencePercent)},
                           {"low_percent", has ? Json(figure.lowPercent) : Json(nullptr)},
                           {"high_percent", has ? Json(figure.highPercent) : Json(nullptr)},
                           {"rank_sum_p", OrNull(figure.rankSumP)},
                           {"verdict", VerdictText(figure.verdict)},
                           {"regression", figure.regression},
                           {"repeats_for_1_percent", OrNull(figure.repeatsForOnePercent)},
                           {"note", figure.note},
                           {"a_values", figure.aValues},
                           {"b_values", figure.bValues}});
  }
  const Json json{{"format", 1},
                  {"kind", "compare"},
                  {"tool", kToolVersion},
                  {"a", SideJson(a)},
                  {"b", SideJson(b)},
                  {"noise", comparison.overRepeats ? "repeats" : "seconds"},
                  {"skip_s", options.skipS},
                  {"confidence", options.confidence},
                  {"tolerance_percent", options.tolerancePercent},
                  {"seed", options.seed},
                  {"different", different},
                  {"figures", figures},
                  {"notes", comparison.notes},
                  {"regression", comparison.regression}};
  std::cout << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

void RefuseDifferences(const std::vector<ConditionDifference>& differences, const CommandOptions& options) {
  std::string lines;
  std::set<std::string> names;
  for (const ConditionDifference& difference : differences) {
    const bool allowed = std::count(options.allowed.begin(), options.allowed.end(), difference.name) != 0;
    if (allowed || options.force) continue;
    lines += "\n  " + difference.name + ": " + difference.a + " in A, " + difference.b + " in B";
    names.insert(difference.name);
  }
  if (names.empty()) return;
  throw RunFolderError("the runs were not recorded under the same conditions:" + lines +
                       "\nIf that is what you compare, add --allow " + Joined(names, ","));
}

int RunCompare(CommandOptions options) {
  for (const std::string& name : options.figures) {
    const auto& kinds = FigureKinds();
    const auto at =
        std::find_if(kinds.begin(), kinds.end(), [&](const FigureKind& kind) { return name == kind.name; });
    options.compare.figures.insert(at->figure);
  }
  const Side a = ReadSide(options.a);
  const Side b = ReadSide(options.b);
  if (options.skipS >= 0) {
    options.compare.skipS = options.skipS;
  } else if (a.warmupS || b.warmupS) {
    options.compare.skipS = std::max(a.warmupS.value_or(0), b.warmupS.value_or(0));
  }
  // One who names two points of a sweep has said that the levels differ.
  if (a.warmupS && b.warmupS) options.allowed.emplace_back("levels");
  const std::vector<ConditionDifference> differences = DifferentConditions(a.runs, b.runs);
  RefuseDifferences(differences, options);
  const Comparison comparison = Compare(a, b, options.compare);
  (options.json ? PrintJson : PrintComparison)(a, b, comparison, differences, options.compare);
  std::cout.flush();
  if (!std::cout)
    throw RunFolderError(std::string("cannot write to standard output: ") + std::strerror(errno));
  return comparison.regression ? kExitFailure : kExitOk;
}

}  // namespace

Side ReadSide(const std::string& argument) {
  std::error_code ignored;
  const std::size_t colon = argument.rfind(':');
  if (!fs::exists(argument, ignored) && colon != std::string::npos) {
    return PointOfSweep(argument.substr(0, colon), argument.substr(colon + 1), argument);
  }
  if (IsSweepFolder(argument)) {
    throw RunFolderError(argument + " is a sweep: name a point of it, as in " + argument + ":CPU=1,VENC=2");
  }
  Side side;
  side.name = argument;
  if (!IsRunFolder(argument) && fs::is_directory(argument, ignored)) {
    std::set<std::string> folders;
    for (const auto& entry : fs::directory_iterator(argument, ignored)) {
      if (IsRunFolder(entry.path().string())) folders.insert(entry.path().string());
    }
    for (const std::string& folder : folders) side.runs.push_back(ReadRun(folder));
    if (side.runs.empty()) throw RunFolderError(argument + ": neither a run folder nor a folder of runs");
    return side;
  }
  side.runs.push_back(ReadRun(argument));
  return side;
}

std::vector<std::string> ConditionNames() {
  std::vector<std::string> names;
  for (const Condition& condition : Known()) names.emplace_back(condition.name);
  names.emplace_back(kSettings);
  return names;
}

std::vector<ConditionDifference> DifferentConditions(const std::vector<Run>& a, const std::vector<Run>& b) {
  std::vector<ConditionDifference> differences;
  for (const Condition& condition : Known()) {
    const auto texts = [&condition](const std::vector<Run>& runs) {
      std::set<std::string> all;
      for (const Run& run : runs) all.insert(OrUnknown(condition.text(run)));
      return all;
    };
    const std::set<std::string> ofA = texts(a);
    const std::set<std::string> ofB = texts(b);
    const bool incomplete =
        std::string(condition.name) == "complete" && ofA.count("no") + ofB.count("no") != 0;
    if (ofA == ofB && ofA.size() == 1 && !incomplete) continue;
    differences.push_back({condition.name, Joined(ofA, " or "), Joined(ofB, " or ")});
  }
  AddSettings(a, b, differences);
  return differences;
}

Comparison Compare(const Side& a, const Side& b, const CompareOptions& options) {
  const SideFigures ofA = Read(a, options);
  const SideFigures ofB = Read(b, options);
  Comparison comparison;
  comparison.overRepeats = a.runs.size() > 1 && b.runs.size() > 1;
  std::set<FigureKey> keys;
  for (const SideFigures* side : {&ofA, &ofB}) {
    for (const Values& run : side->runs) {
      for (const auto& [key, values] : run) keys.insert(key);
    }
  }
  for (const FigureKey& key : keys) {
    if (!options.figures.empty() && options.figures.count(key.figure) == 0) continue;
    ComparedFigure figure;
    figure.key = key;
    figure.aValues = Pick(ofA, key, comparison.overRepeats);
    figure.bValues = Pick(ofB, key, comparison.overRepeats);
    if (!figure.aValues.empty()) figure.a = Median(figure.aValues);
    if (!figure.bValues.empty()) figure.b = Median(figure.bValues);
    const bool tooCoarse =
        ofA.printedTooCoarsely.count(key.engine) + ofB.printedTooCoarsely.count(key.engine) != 0;
    if (key.figure == Figure::kPrinted && tooCoarse) {
      figure.verdict = Verdict::kUnusable;
      figure.note = "operations of less than 1 ms, which count as no time";
    } else {
      Judge(figure, comparison.overRepeats, options);
    }
    JudgeMissingRuns(figure, ofA, ofB);
    JudgeEarlyEnd(figure, ofA, ofB);
    comparison.regression = comparison.regression || figure.regression;
    comparison.figures.push_back(std::move(figure));
  }
  if (comparison.figures.empty()) throw RunFolderError("neither side has a figure that was asked for");
  const std::size_t least = std::min(a.runs.size(), b.runs.size());
  const auto needed = static_cast<std::size_t>(LeastRepeats(options.confidence));
  if (comparison.overRepeats && least < needed && a.runs.size() + b.runs.size() < 2 * needed) {
    comparison.notes.push_back(std::to_string(least) + " repeats a side cannot show a difference at " +
                               Format("%g %%", options.confidence * 100) + ": record " +
                               std::to_string(needed) + " or more");
  }
  NoteRuns(a, comparison.notes);
  NoteRuns(b, comparison.notes);
  NoteEarlyEnds("A", ofA, comparison.notes);
  NoteEarlyEnds("B", ofB, comparison.notes);
  NoteDrift(a, ofA, comparison.notes);
  NoteDrift(b, ofB, comparison.notes);
  return comparison;
}

void PrintComparison(const Side& a, const Side& b, const Comparison& comparison,
                     const std::vector<ConditionDifference>& differences, const CompareOptions& options) {
  std::cout << "A: " << a.name << " (" << RunsText(a) << ")\nB: " << b.name << " (" << RunsText(b) << ")\n";
  std::cout << Format("Medians after the first %g s; %g %% intervals of B against A, bootstrap over %s.\n",
                      options.skipS, options.confidence * 100,
                      comparison.overRepeats ? "repeats" : "the seconds of each run");
  if (!comparison.overRepeats) {
    std::cout << "Within-run noise only: one run a side does not show how runs differ from each other. "
                 "Compare repeats for that.\n";
  }
  for (const ConditionDifference& difference : differences) {
    std::cout << "Different, as allowed: " << difference.name << ": " << difference.a << " in A, "
              << difference.b << " in B\n";
  }
  std::cout << '\n';
  TextTable table("lllrrrrrrl");
  table.Add({"engine", "figure", "unit", "A", "B", "B - A", "from", "to", "repeats for 1 %", "verdict"});
  for (const ComparedFigure& figure : comparison.figures) {
    const FigureKind& kind = KindOf(figure.key.figure);
    std::vector<std::string> row = {figure.key.engine, kind.name, kind.unit,
                                    figure.a ? ShortNumber(*figure.a) : "-",
                                    figure.b ? ShortNumber(*figure.b) : "-"};
    if (figure.differencePercent) {
      row.push_back(Format("%+.2f %%", *figure.differencePercent));
      row.push_back(Format("%+.2f %%", figure.lowPercent));
      row.push_back(Format("%+.2f %%", figure.highPercent));
    } else {
      row.insert(row.end(), 3, "-");
    }
    row.push_back(RepeatsText(figure, comparison.overRepeats));
    row.push_back(VerdictText(figure.verdict) + (figure.regression ? ", a regression" : "") +
                  (figure.note.empty() ? "" : ": " + figure.note));
    table.Add(row);
  }
  std::cout << table.Text();
  for (const std::string& note : comparison.notes) std::cout << "\nnote: " << note;
  if (!comparison.notes.empty()) std::cout << '\n';
  std::cout << '\n'
            << (comparison.regression
                    ? Format("Regression: worse by more than %g %%.\n", options.tolerancePercent)
                    : Format("No regression beyond %g %% shown.\n", options.tolerancePercent));
}

void AddCompare(CLI::App& app, int& status) {
  CLI::App* const command = app.add_subcommand(
      "compare", "Tell whether B is better or worse than A: runs, points of a sweep, or folders of repeats");
  const auto options = std::make_shared<CommandOptions>();
  command->add_option("A", options->a, "Run folder, folder of runs, or SWEEP:CPU=1,VENC=2")->required();
  command->add_option("B", options->b, "The same")->required();
  std::vector<std::string> figures;
  for (const FigureKind& kind : FigureKinds()) figures.emplace_back(kind.name);
  command->add_option("--figure", options->figures, "Compare these alone")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->check(CLI::IsMember(figures));
  command
      ->add_option("--tolerance", options->compare.tolerancePercent,
                   "Per cent that a figure may be worse before it is a regression")
      ->check(CLI::Range(0.0, 100.0))
      ->capture_default_str();
  command
      ->add_option("--skip", options->skipS,
                   "Seconds left out at the start of each run (default: a sweep's warm-up, else 5)")
      ->check(CLI::Range(0.0, 1e6));
  command
      ->add_option("--confidence", options->compare.confidence, "Confidence of the intervals, 0.5 to 0.999")
      ->check(CLI::Range(0.5, 0.999))
      ->capture_default_str();
  command->add_option("--seed", options->compare.seed, "Seed of the bootstrap")->capture_default_str();
  command->add_option("--allow", options->allowed, "Conditions that may differ, by name")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->check(CLI::IsMember(ConditionNames()));
  command->add_flag("--force", options->force, "Compare whatever differs");
  command->add_flag("--json", options->json, "Print JSON");
  command->callback([options, &status] {
    try {
      status = RunCompare(*options);
    } catch (const RunFolderError&) {
      throw;
    } catch (const std::exception& error) {
      // What cannot be judged, for want of memory or for any other reason, is no regression.
      throw RunFolderError(std::string("cannot compare: ") + error.what());
    }
  });
}

}  // namespace scope
