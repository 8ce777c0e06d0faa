// SPDX-License-Identifier: Apache-2.0
#include "text_table.h"

#include <algorithm>
#include <cstddef>

namespace scope {
namespace {

constexpr std::size_t kBetween = 2;  // blanks between two columns

std::size_t Width(const std::string& text) {
  std::size_t width = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\033')
      i = std::min(text.find('m', i), text.size());
    else
      width += (static_cast<unsigned char>(text[i]) & 0xC0U) != 0x80U ? 1 : 0;
  }
  return width;
}

}  // namespace

std::string TextTable::Text(std::size_t width, std::size_t keys) const {
  std::vector<std::size_t> widths;
  for (const auto& row : rows_) {
    widths.resize(std::max(widths.size(), row.size()), 0);
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], Width(row[i]));
  }
  std::vector<std::size_t> columns;
  std::size_t used = 0;
  const auto begin = [&] {
    columns.clear();
    used = 0;
    for (std::size_t i = 0; i < std::min(keys, widths.size()); ++i) {
      columns.push_back(i);
      used += widths[i] + kBetween;
    }
  };
  std::string text;
  begin();
  for (std::size_t i = columns.size(); i < widths.size(); ++i) {
    if (used + widths[i] > width && columns.size() > keys) {
      text += BlockText(widths, columns) + '\n';
      begin();
    }
    columns.push_back(i);
    used += widths[i] + kBetween;
  }
  return text + BlockText(widths, columns);
}

std::string TextTable::BlockText(const std::vector<std::size_t>& widths,
                                 const std::vector<std::size_t>& columns) const {
  std::string text;
  for (const auto& row : rows_) {
    std::string line;
    bool first = true;
    for (const std::size_t i : columns) {
      const std::string field = i < row.size() ? row[i] : "";
      const std::string blanks(widths[i] - Width(field), ' ');
      const bool left = i < sides_.size() && sides_[i] == 'l';
      line += (first ? "" : std::string(kBetween, ' ')) + (left ? field + blanks : blanks + field);
      first = false;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + '\n';
  }
  return text;
}

}  // namespace scope
