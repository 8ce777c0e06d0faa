// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Tables of comma-separated values, one row a line.
namespace scope {

/// `text` as a field: in quotes if it contains a comma or a quote. Control characters become blanks.
std::string CsvField(std::string text);

/// To the millisecond.
std::string CsvSeconds(double value);

/// With fifteen significant digits: more would be noise.
std::string CsvNumber(double value);

/// One row of the table in the file `path`, whose first line is `header`. Throws DamagedFolder, which names
/// file, line and field, if a field does not have the type that is asked for.
class CsvRow {
 public:
  CsvRow(const std::string& path, std::size_t line, const std::string& text, const char* header);

  const std::string& Text(std::size_t column) const { return fields_.at(column); }
  std::uint64_t Count(std::size_t column) const;
  int Index(std::size_t column) const;  ///< a small count
  double Real(std::size_t column) const;

 private:
  [[noreturn]] void Fail(const std::string& what, std::size_t column) const;
  [[noreturn]] void Fail(const std::string& what) const;

  const std::string& path_;
  std::size_t line_;
  std::vector<std::string> names_;
  std::vector<std::string> fields_;
};

}  // namespace scope
