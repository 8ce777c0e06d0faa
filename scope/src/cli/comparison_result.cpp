// SPDX-License-Identifier: Apache-2.0
#include "commands.h"
#include "comparison_text.h"
#include "pages.h"
#include "printable.h"

namespace scope {

void ShowComparison(const ComparedSides& sides, Output output, const TextStyle& style, const PageFile& file) {
  const auto& [a, b, comparison, differences, options] = sides;
  if (output == Output::kJson) Print(ComparisonJson(a, b, comparison, differences, options));
  if (output == Output::kText) Print(ComparisonText(a, b, comparison, differences, options, style));
  if (file.path.empty()) return;
  WritePage(file, ComparisonPage(a, b, comparison, differences, options));
  if (output == Output::kText) Print("\nreport in " + Printable(file.path) + "\n");
}

}  // namespace scope
