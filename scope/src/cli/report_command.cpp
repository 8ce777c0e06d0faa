// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <memory>

#include "commands.h"
#include "errors.h"
#include "printable.h"
#include "report.h"
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

int Report(const ReportOptions& options) {
  const auto sweep = std::find_if(options.folders.begin(), options.folders.end(), IsSweepFolder);
  if (sweep != options.folders.end()) {
    if (options.folders.size() > 1) {
      throw UserError(*sweep +
                      " is a sweep, and a report shows one sweep or several runs: give it alone, or "
                      "give its run folders, as in " +
                      *sweep + "/run-0001");
    }
    if (!options.file.empty()) {
      throw UserError(*sweep + " is a sweep, which is shown as text: leave out -o, or give its run folders");
    }
    PrintSweep(*sweep, options.output, options.style);
    return kExitOk;
  }
  const std::vector<ReportedRun> runs = ReadRuns(options.folders);
  const bool page = !options.file.empty() || (!options.text && options.output != Output::kJson);
  const std::string file = page ? WriteReport(runs, options.file) : std::string();
  if (options.output == Output::kJson) Print(ReportJson(runs));
  if (options.output == Output::kText)
    Print(ReportText(runs, options.style.width) + (page ? "\nreport in " + Printable(file) + "\n" : ""));
  return kExitOk;
}

}  // namespace

void AddReport(CLI::App& app, int& status) {
  CLI::App* const command =
      app.add_subcommand("report", "Show run folders as one HTML page, and print a summary");
  const auto options = std::make_shared<ReportOptions>();
  command
      ->add_option("DIR", options->folders, "Run folders, which share one page; or a sweep folder, as text")
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
