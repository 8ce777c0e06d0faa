// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "text_format.h"

/// Tables of comma-separated values, one row a line.
namespace scope {

struct CsvColumn {
  static constexpr int kSignificant = -1;  ///< fifteen significant digits: more would be noise

  const char* name;
  int decimals = 3;  ///< of a number with a fraction
};

/// A text as a field: in quotes if it contains a comma or a quote. Control characters become blanks.
std::string CsvText(const std::string& text);

/// A value as a field. A missing number is an empty field.
template <typename Value>
std::string CsvField(const CsvColumn& column, const Value& value) {
  if constexpr (std::is_same_v<Value, std::string>) {
    return CsvText(value);
  } else if constexpr (std::is_same_v<Value, double>) {
    return column.decimals < 0 ? Format("%.15g", value) : Format("%.*f", column.decimals, value);
  } else if constexpr (std::is_same_v<Value, std::optional<std::uint64_t>>) {
    return value ? std::to_string(*value) : std::string();
  } else {
    return std::to_string(value);
  }
}

/// One row of the table in the file `path`, whose first line is `header`. Each call takes the next field, and
/// texts are printable. Throws DamagedFolder, which names file, line and field, if the field does not have
/// the value's type.
class CsvRow {
 public:
  CsvRow(const std::string& path, std::size_t line, const std::string& text, const std::string& header);

  void Take(const CsvColumn& column, std::string& value);
  void Take(const CsvColumn& column, double& value);
  void Take(const CsvColumn& column, std::uint64_t& value);
  void Take(const CsvColumn& column, std::optional<std::uint64_t>& value);
  void Take(const CsvColumn& column, int& value);  ///< the number of a thread or of a second

 private:
  [[noreturn]] void Fail(const std::string& what) const;

  const std::string& path_;
  std::size_t line_;
  std::vector<std::string> fields_;
  std::size_t next_ = 0;
};

}  // namespace scope
