// SPDX-License-Identifier: Apache-2.0
#include "pages.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <utility>

#include "comparison_text.h"
#include "durable_file.h"
#include "page_data.h"
#include "report.h"
#include "run_summary.h"
#include "run_warnings.h"

// The page without its data, which the build makes from page/. The assembler embeds files of any size; the
// length of a literal is limited.
__asm__(
    ".pushsection .rodata\n"
    "scopePageTemplateBegin:\n"
    ".incbin \"" SCOPE_PAGE_TEMPLATE
    "\"\n"
    "scopePageTemplateEnd:\n"
    ".byte 0\n"
    ".popsection\n");
extern "C" {
__attribute__((visibility("hidden"))) extern const char scopePageTemplateBegin[];
__attribute__((visibility("hidden"))) extern const char scopePageTemplateEnd[];
}

namespace scope {
namespace {

// In a script element only "<" can end the data, so it is escaped. All non-ASCII characters are, too.
std::string ScriptJson(const Json& json) {
  std::string escaped;
  for (const char letter : json.dump(-1, ' ', true, Json::error_handler_t::replace)) {
    escaped += letter == '<' ? std::string("\\u003c") : std::string(1, letter);
  }
  return escaped;
}

// Runs of experiments and of sweeps have labels that say what the side or the point says.
std::vector<ReportedRun> DrawnRuns(const Side& side, const char* letter) {
  std::vector<ReportedRun> runs;
  for (std::size_t i = 0; i < std::min(side.runs.size(), kMostDrawnRuns); ++i) {
    ReportedRun reported;
    reported.run = side.runs[i];
    reported.summary = Summarise(reported.run);
    reported.warnings = Warnings(reported.run, reported.summary);
    reported.name = std::string(letter) + ": " + FolderName(reported.run.folder);
    runs.push_back(std::move(reported));
  }
  return runs;
}

}  // namespace

std::string PageOf(const Json& data) {
  constexpr std::string_view kPlace = "@REPORT_DATA@";
  std::string page(scopePageTemplateBegin, scopePageTemplateEnd);
  return page.replace(page.find(kPlace), kPlace.size(), ScriptJson(data));
}

std::string ComparisonPage(const Side& a, const Side& b, const Comparison& comparison,
                           const std::vector<ConditionDifference>& differences,
                           const CompareOptions& options) {
  Json data = ComparisonData(a, b, comparison, differences, options);
  std::vector<ReportedRun> runs = DrawnRuns(a, "A");
  const std::size_t ofA = runs.size();
  for (ReportedRun& run : DrawnRuns(b, "B")) runs.push_back(std::move(run));
  Json report = ReportData(runs, options.skipS);
  for (std::size_t i = 0; i < runs.size(); ++i) report["runs"][i]["side"] = i < ofA ? "A" : "B";
  data["report"] = std::move(report);
  return PageOf(data);
}

std::string SweepPage(const std::string& folder, const Sweep& sweep, const SweepTable& table,
                      const std::string& comparison) {
  Json data = SweepData(folder, sweep, table, comparison);
  data["engines"] = EngineList(table.engines);
  return PageOf(data);
}

void WritePage(const PageFile& file, const std::string& page) {
  std::error_code ignored;
  const bool isRegular =
      !std::filesystem::exists(file.path, ignored) || std::filesystem::is_regular_file(file.path, ignored);
  if (file.isNamed && !isRegular) {
    OutputFile(file.path).Write(page);
  } else {
    ReplaceFile(file.path, page);
  }
}

}  // namespace scope
