// SPDX-License-Identifier: Apache-2.0
#include "csv.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "errors.h"
#include "printable.h"

namespace scope {
namespace {

constexpr std::uint64_t kMostIndex = 1'000'000;

// The fields of a row, without their quotes. A quote inside an unquoted field is an ordinary character.
std::vector<std::string> Fields(const std::string& row) {
  std::vector<std::string> fields(1);
  bool quoted = false;
  for (std::size_t i = 0; i < row.size(); ++i) {
    std::string& field = fields.back();
    if (row[i] == '"' && (quoted || (field.empty() && (i == 0 || row[i - 1] == ',')))) {
      const bool doubled = quoted && i + 1 < row.size() && row[i + 1] == '"';
      if (doubled) {
        field += row[++i];
      } else {
        quoted = !quoted;
      }
    } else if (row[i] == ',' && !quoted) {
      fields.emplace_back();
    } else {
      field += row[i];
    }
  }
  return fields;
}

}  // namespace

std::string CsvText(const std::string& text) {
  std::string field;
  for (const char letter : text) {
    field += static_cast<unsigned char>(letter) < ' ' ? ' ' : letter;
    if (letter == '"') field += letter;
  }
  return field.find_first_of(",\"") == std::string::npos ? field : '"' + field + '"';
}

CsvRow::CsvRow(const std::string& path, std::size_t line, const std::string& text, const std::string& header)
    : path_(path), line_(line), fields_(Fields(Printable(text))) {
  const auto expected = static_cast<std::size_t>(1 + std::count(header.begin(), header.end(), ','));
  if (fields_.size() != expected) {
    Fail("expected " + std::to_string(expected) + " fields (" + header + "), found " +
         std::to_string(fields_.size()));
  }
}

void CsvRow::Take(const CsvColumn& /*column*/, std::string& value) {
  value = fields_[next_++];
}

void CsvRow::Take(const CsvColumn& column, double& value) {
  const std::string& text = fields_[next_++];
  const std::optional<double> number = ParseNumber(text);
  if (!number) Fail(std::string("expected a number as ") + column.name + ", found \"" + text + "\"");
  value = *number;
}

void CsvRow::Take(const CsvColumn& column, std::uint64_t& value) {
  const std::string& text = fields_[next_++];
  errno = 0;
  value = std::strtoull(text.c_str(), nullptr, 10);
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || errno != 0) {
    Fail(std::string("expected a whole number as ") + column.name + ", found \"" + text + "\"");
  }
}

void CsvRow::Take(const CsvColumn& column, std::optional<std::uint64_t>& value) {
  if (fields_[next_].empty()) {
    ++next_;
  } else {
    Take(column, value.emplace());
  }
}

void CsvRow::Take(const CsvColumn& column, int& value) {
  std::uint64_t count = 0;
  Take(column, count);
  if (count > kMostIndex) {
    Fail("expected at most " + std::to_string(kMostIndex) + " as " + column.name + ", found \"" +
         std::to_string(count) + "\"");
  }
  value = static_cast<int>(count);
}

void CsvRow::Fail(const std::string& what) const {
  throw DamagedFolder(path_ + ":" + std::to_string(line_) + ": " + what);
}

}  // namespace scope
