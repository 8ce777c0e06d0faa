#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Tables of comma-separated values, a line a row.
namespace scope {

/// A text of the machine's own as a field: in quotes where it has a comma or a quote. What would break the
/// line becomes a blank.
std::string CsvField(std::string text);

/// To the millisecond.
std::string CsvSeconds(double value);

/// With fifteen digits: what a double holds, and no noise after them.
std::string CsvNumber(double value);

/// One row of the table in the file `path`, whose first line is `header`. A field that is not what its reader
/// asks for is a DamagedFolder that names file, line and field.
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
