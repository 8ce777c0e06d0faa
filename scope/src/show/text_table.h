// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "text_style.h"

namespace scope {

/// Rows of UTF-8 text in columns as wide as their widest field. `sides` has a letter for each column: 'l'
/// aligns left. Any other letter, or none, aligns right. Colours (ESC [ ... m) have no width.
class TextTable {
 public:
  explicit TextTable(std::string sides) : sides_(std::move(sides)) {}
  void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  /// One line per row, with two blanks between columns and no trailing blanks. Columns that would exceed
  /// `width` characters follow in further blocks, which repeat the first `keys` columns.
  std::string Text(std::size_t width = kTextWidth, std::size_t keys = 1) const;

 private:
  std::string BlockText(const std::vector<std::size_t>& widths,
                        const std::vector<std::size_t>& columns) const;

  std::string sides_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace scope
