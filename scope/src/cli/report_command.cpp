// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>

#include "commands.h"
#include "errors.h"
#include "report.h"

namespace scope {
namespace {

struct ReportOptions {
  std::vector<std::string> folders;
  std::string file;
  bool text = false;
};

int Report(const ReportOptions& options) {
  const std::vector<ReportedRun> runs = ReadRuns(options.folders);
  std::string file;
  if (!options.text || !options.file.empty()) file = WriteReport(runs, options.file);
  std::cout << ReportText(runs);
  if (!file.empty()) std::cout << "\nreport in " << file << '\n';
  std::cout.flush();
  if (!std::cout) throw UserError(std::string("cannot write to standard output: ") + std::strerror(errno));
  return kExitOk;
}

}  // namespace

void AddReport(CLI::App& app, int& status) {
  CLI::App* const command =
      app.add_subcommand("report", "Show run folders as one HTML page, and print a summary");
  const auto options = std::make_shared<ReportOptions>();
  command->add_option("DIR", options->folders, "Run folders; several are shown on one page")->required();
  command->add_option("-o,--output", options->file,
                      "Page to write (default: report.html in DIR; for several, in the current folder)");
  command->add_flag("--text", options->text, "Print only the summary; write a page only with -o");
  command->callback([options, &status] { status = Report(*options); });
}

}  // namespace scope
