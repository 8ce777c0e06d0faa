// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "compare.h"
#include "compare_conditions.h"
#include "comparison_text.h"
#include "curve_compare.h"
#include "curve_folder.h"
#include "errors.h"
#include "pages.h"
#include "printable.h"
#include "standard_output.h"
#include "text_format.h"

namespace scope {
namespace {

struct CommandOptions {
  std::string a;
  std::string b;
  CompareOptions compare;
  double skipS = -1;
  std::vector<std::string> allowed;
  std::vector<std::string> figures;
  bool force = false;
  Output output = Output::kText;
  TextStyle style;
  bool allowUnclear = false;
  std::string file;  // of the page; empty: none
};

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
  throw UserError("the runs were not recorded under the same conditions:" + lines +
                  "\nIf that is what you compare, add --allow " + Joined(names, ","));
}

// A repeat is a whole curve.
Side SideOf(const CurveTable& table, const Comparison& comparison, bool isB) {
  Side side;
  side.name = table.name;
  const ComparedFigure& figure = comparison.figures.front();
  side.runs.resize((isB ? figure.bValues : figure.aValues).size());
  for (Run& run : side.runs) run.folder = table.name;
  return side;
}

int Answered(const ComparedSides& sides, const CommandOptions& options) {
  RequireStandardOutput();  // an answer that is lost must not have an exit status
  const Answer answer = sides.comparison.answer;
  if (answer == Answer::kCannotTell && options.allowUnclear) return kExitOk;
  return ExitStatusOf(answer);
}

int CompareTwoCurves(CommandOptions options) {
  for (const std::string* const folder : {&options.a, &options.b}) {
    if (!IsCurveFolder(*folder))
      throw UserError(*folder + " is not a curve: a curve is compared with another one");
  }
  if (options.skipS >= 0 || !options.figures.empty())
    throw UserError("--skip and --figure are not for curves: a curve has its warm-up and its figures");
  const CurveTable a = ReadCurveTable(options.a);
  const CurveTable b = ReadCurveTable(options.b);
  // A curve has many levels, and curves of two mixes may be compared at the same bandwidth.
  for (const char* const name : {"levels", "duty"}) options.allowed.emplace_back(name);
  std::vector<ConditionDifference> differences = DifferentConditions(a.infos, b.infos);
  RefuseDifferences(differences, options);
  options.compare.repeat = "curve";
  options.compare.place = "at";
  options.compare.skipS = std::max(a.curve.sweep.settings.warmupS, b.curve.sweep.settings.warmupS);
  ComparedSides sides;
  sides.comparison = CompareCurves(a, b, options.compare);
  sides.a = SideOf(a, sides.comparison, false);
  sides.b = SideOf(b, sides.comparison, true);
  sides.options = options.compare;
  for (ConditionDifference& difference : differences) {
    if (difference.name != "levels" && difference.name != "duty")
      sides.differences.push_back(std::move(difference));
  }
  ShowComparison(sides, options.output, options.style, {});
  if (!options.file.empty()) {
    const std::string comparison =
        ComparisonJson(sides.a, sides.b, sides.comparison, sides.differences, sides.options);
    WritePage({options.file, true}, CurvePage({a, b}, comparison));
    if (options.output == Output::kText) Print("\nreport in " + Printable(options.file) + "\n");
  }
  return Answered(sides, options);
}

int RunCompare(CommandOptions options) {
  if (IsCurveFolder(options.a) || IsCurveFolder(options.b)) return CompareTwoCurves(std::move(options));
  for (const std::string& name : options.figures) {
    for (const FigureKind* const kind : ComparedKinds()) {
      if (name == kind->name) options.compare.figures.insert(kind->figure);
    }
  }
  const Side a = ReadSide(options.a);
  const Side b = ReadSide(options.b);
  if (options.skipS >= 0) {
    options.compare.skipS = options.skipS;
  } else if (a.warmupS || b.warmupS) {
    options.compare.skipS = std::max(a.warmupS.value_or(0), b.warmupS.value_or(0));
  }
  // A user who names two points of a sweep knows that their levels differ.
  if (a.warmupS && b.warmupS) options.allowed.emplace_back("levels");
  // What fails in B alone is an answer: a finding says so.
  const bool isAWhole =
      std::all_of(a.runs.begin(), a.runs.end(), [](const Run& run) { return run.info.complete; });
  if (isAWhole) options.allowed.emplace_back("complete");
  const std::vector<ConditionDifference> differences = DifferentConditions(a.runs, b.runs);
  RefuseDifferences(differences, options);
  const Comparison comparison = Compare(a, b, options.compare);
  const ComparedSides sides = {a, b, comparison, differences, options.compare};
  ShowComparison(sides, options.output, options.style, {options.file, true});
  return Answered(sides, options);
}

}  // namespace

void AddCompare(CLI::App& app, int& status) {
  CLI::App* const command = app.add_subcommand(
      "compare",
      "Tell whether B is better or worse than A: runs, points of a sweep, folders of repeats, or curves");
  const auto options = std::make_shared<CommandOptions>();
  command->add_option("A", options->a, "Run folder, folder of runs, SWEEP:CPU=1,VENC=2, or curve")
      ->required();
  command->add_option("B", options->b, "As for A")->required();
  std::vector<std::string> figures;
  for (const FigureKind* const kind : ComparedKinds()) figures.emplace_back(kind->name);
  command
      ->add_option("--figure", options->figures,
                   "Judge these, and show no others (default: judge rates, show all)")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->type_name("NAMES")
      ->check(OneOf(figures));
  command
      ->add_option("--tolerance", options->compare.tolerancePercent,
                   "Difference up to which figures count as equal")
      ->type_name("PERCENT")
      ->check(NumberFrom(0, 100))
      ->capture_default_str();
  command
      ->add_option("--skip", options->skipS,
                   "Seconds left out at the start of each run (default: a sweep's warm-up, else 5)")
      ->type_name("SECONDS")
      ->check(NumberFrom(0, kMostSeconds));
  command
      ->add_option("--confidence", options->compare.confidence,
                   "Confidence that no verdict is wrong, 0.5 to 0.999")
      ->type_name("SHARE")
      ->check(NumberFrom(0.5, 0.999))
      ->capture_default_str();
  command->add_option("--allow", options->allowed, "Conditions that may differ, by name")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->type_name("NAMES")
      ->check(OneOf(ConditionNames()));
  command->add_flag("--force", options->force, "Compare even if conditions differ");
  command->add_option("-o,--output", options->file, "Page to write as well")->type_name("FILE");
  command->add_flag("--allow-unclear", options->allowUnclear,
                    "End with status 0 instead of 4 if the runs cannot tell");
  AddOutput(*command, options->output);
  AddColour(*command, options->style);
  command->footer(
      "Examples:\n"
      "  stress_scope compare before after --tolerance 2 -o comparison.html\n"
      "  stress_scope compare grid:CPU=1,VENC=0 grid:CPU=2,VENC=0 --figure bandwidth");
  command->callback([options, &status] {
    try {
      status = RunCompare(*options);
    } catch (const UserError&) {
      throw;
    } catch (const std::exception& error) {
      // A comparison that fails, for example for lack of memory, is not a regression.
      throw UserError(std::string("cannot compare: ") + error.what());
    }
  });
}

}  // namespace scope
