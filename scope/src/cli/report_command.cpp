// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "curve_folder.h"
#include "errors.h"
#include "experiment_folder.h"
#include "experiment_look.h"
#include "matrix_folder.h"
#include "printable.h"
#include "report.h"
#include "run_tables.h"
#include "sweep_folder.h"

namespace scope {
namespace {

struct ReportOptions {
  std::vector<std::string> folders;
  std::string file;
  bool text = false;
  Output output = Output::kText;
  TextStyle style;
};

[[noreturn]] void RefuseSeries(const std::string& folder) {
  const bool isExperiment = IsExperimentFolder(folder);
  const std::string what = isExperiment             ? "an experiment"
                           : IsCurveFolder(folder)  ? "a curve"
                           : IsMatrixFolder(folder) ? "a matrix"
                                                    : "a sweep";
  throw UserError(folder + " is " + what +
                  ", and a report shows one of these or several runs or curves: give it alone, or give its "
                  "run folders, as in " +
                  folder + (isExperiment ? "/a/001" : "/run-0001"));
}

bool IsSeries(const std::string& folder) {
  return IsSweepFolder(folder) || IsExperimentFolder(folder) || IsCurveFolder(folder) ||
         IsMatrixFolder(folder);
}

// One curve has its page in its folder; several have it here.
int ReportCurves(const ReportOptions& options, bool page) {
  const bool isNamed = !options.file.empty();
  const std::string usual = options.folders.size() == 1 ? options.folders.front() + "/" : "";
  const PageFile file = {isNamed ? options.file : usual + kReportName, isNamed};
  ShowCurves(options.folders, options.output, options.style, page ? file : PageFile());
  return kExitOk;
}

int Report(const ReportOptions& options) {
  const bool isNamed = !options.file.empty();
  const bool page = isNamed || (!options.text && options.output != Output::kJson);
  if (std::all_of(options.folders.begin(), options.folders.end(), IsCurveFolder))
    return ReportCurves(options, page);
  const auto series = std::find_if(options.folders.begin(), options.folders.end(), IsSeries);
  if (series != options.folders.end()) {
    if (options.folders.size() > 1) RefuseSeries(*series);
    const PageFile file = {isNamed ? options.file : *series + "/" + kReportName, isNamed};
    if (IsSweepFolder(*series)) {
      ShowSweep(*series, options.output, options.style, page ? file : PageFile());
    } else if (IsMatrixFolder(*series)) {
      ShowMatrix(*series, options.output, options.style, page ? file : PageFile());
    } else {
      ShowComparison(LastLook(*series, ReadExperiment(*series)), options.output, options.style,
                     page ? file : PageFile());
    }
    return kExitOk;
  }
  const std::vector<ReportedRun> runs = ReadRuns(options.folders);
  const std::string file = page ? WriteReport(runs, options.file) : std::string();
  if (options.output == Output::kJson) Print(ReportJson(runs));
  if (options.output == Output::kText)
    Print(ReportText(runs, options.style.width) + (page ? "\nreport in " + Printable(file) + "\n" : ""));
  return kExitOk;
}

}  // namespace

void AddReport(CLI::App& app, int& status) {
  CLI::App* const command = app.add_subcommand(
      "report", "Show runs, a sweep, an experiment, a matrix or curves as an HTML page, and print a summary");
  const auto options = std::make_shared<ReportOptions>();
  command
      ->add_option("DIR", options->folders,
                   "Run folders, or curves, which share one page; or one folder of sweep, ab or matrix")
      ->required();
  command
      ->add_option("-o,--output", options->file,
                   "Page to write (default: report.html in DIR; here for several)")
      ->type_name("FILE");
  command->add_flag("--text", options->text, "Print only the summary; write a page only with -o");
  AddOutput(*command, options->output);
  AddColour(*command, options->style);
  command->footer(
      "Examples:\n"
      "  stress_scope report before\n"
      "  stress_scope report before after -o both.html\n"
      "  stress_scope report before --json | jq '.runs[0].gigabytes_per_s'");
  command->callback([options, &status] { status = Report(*options); });
}

}  // namespace scope
