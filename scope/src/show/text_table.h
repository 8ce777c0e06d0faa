// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace scope {

/// Rows of UTF-8 text in columns as wide as their widest field. `sides` has a letter for each column: 'l'
/// aligns left. Any other letter, or none, aligns right.
class TextTable {
 public:
  explicit TextTable(std::string sides) : sides_(std::move(sides)) {}
  void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  /// One line per row, with two blanks between columns and no trailing blanks.
  std::string Text() const;

 private:
  std::string sides_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace scope
