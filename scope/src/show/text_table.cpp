// SPDX-License-Identifier: Apache-2.0
#include "text_table.h"

#include <algorithm>
#include <cstddef>

namespace scope {
namespace {

std::size_t Width(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
  }));
}

}  // namespace

std::string TextTable::Text() const {
  std::vector<std::size_t> widths;
  for (const auto& row : rows_) {
    widths.resize(std::max(widths.size(), row.size()), 0);
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], Width(row[i]));
  }
  std::string text;
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const std::string blanks(widths[i] - Width(row[i]), ' ');
      line +=
          (i == 0 ? "" : "  ") + (i < sides_.size() && sides_[i] == 'l' ? row[i] + blanks : blanks + row[i]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + '\n';
  }
  return text;
}

}  // namespace scope
