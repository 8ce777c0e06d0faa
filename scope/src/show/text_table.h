#pragma once

#include <string>
#include <utility>
#include <vector>

namespace scope {

/// Rows of UTF-8 text in columns as wide as their widest field. `sides` has a letter for each column: 'l' for
/// fields at the left. Other columns, and those without a letter, have their fields at the right.
class TextTable {
 public:
  explicit TextTable(std::string sides) : sides_(std::move(sides)) {}
  void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  /// The rows, a line each, two blanks between the columns and none at the ends.
  std::string Text() const;

 private:
  std::string sides_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace scope
