// SPDX-License-Identifier: Apache-2.0
#include <string>

#include "commands.h"
#include "errors.h"
#include "matrix_folder.h"
#include "matrix_plan.h"
#include "matrix_table.h"
#include "matrix_text.h"
#include "pages.h"
#include "printable.h"

namespace scope {
namespace {

bool IsWhole(const std::string& folder, const Matrix& matrix) {
  if (!matrix.worst) return IsComplete(matrix, {});
  try {
    return IsComplete(matrix, ReadSlowness(folder, matrix));
  } catch (const UserError&) {
    // The table names the run that cannot be read.
    return false;
  }
}

}  // namespace

void ShowMatrix(const std::string& folder, Output output, const TextStyle& style, const PageFile& file) {
  const Matrix matrix = ReadMatrix(folder);
  const MatrixTable table = ReadMatrixTable(folder, matrix);
  const bool isWhole = IsWhole(folder, matrix);
  if (output == Output::kJson) Print(MatrixJson(folder, matrix, table, isWhole));
  if (output == Output::kText) Print("\n" + MatrixText(matrix, table, style.width));
  if (file.path.empty()) return;
  WritePage(file, MatrixPage(folder, matrix, table, isWhole));
  if (output == Output::kText) Print("\nreport in " + Printable(file.path) + "\n");
}

}  // namespace scope
