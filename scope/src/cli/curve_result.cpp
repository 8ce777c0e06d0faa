// SPDX-License-Identifier: Apache-2.0
#include <string>
#include <vector>

#include "commands.h"
#include "curve_table.h"
#include "curve_text.h"
#include "errors.h"
#include "pages.h"
#include "printable.h"
#include "report.h"

namespace scope {

void ShowCurves(const std::vector<std::string>& folders, Output output, const TextStyle& style,
                const PageFile& file) {
  if (folders.size() > kMostRuns) {
    throw UserError("a report takes 1 to " + std::to_string(kMostRuns) + " curves, got " +
                    std::to_string(folders.size()));
  }
  std::vector<CurveTable> tables;
  for (const std::string& folder : folders) tables.push_back(ReadCurveTable(folder));
  if (output == Output::kJson) Print(CurveJson(tables));
  for (const CurveTable& table : tables) {
    if (output != Output::kText) break;
    const std::string name = tables.size() > 1 ? "\n" + Printable(table.name) + ":\n" : "\n";
    Print(name + CurveText(table, style.width));
  }
  if (file.path.empty()) return;
  WritePage(file, CurvePage(tables, ""));
  if (output == Output::kText) Print("\nreport in " + Printable(file.path) + "\n");
}

}  // namespace scope
