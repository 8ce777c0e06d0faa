// SPDX-License-Identifier: Apache-2.0
#include "csv.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "errors.h"
#include "text_format.h"

namespace scope {
namespace {

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

std::string CsvField(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char letter) { return static_cast<unsigned char>(letter) < ' '; }, ' ');
  if (text.find_first_of(",\"") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char letter : text) quoted += letter == '"' ? std::string("\"\"") : std::string(1, letter);
  return quoted + '"';
}

std::string CsvSeconds(double value) {
  return Format("%.3f", value);
}

std::string CsvNumber(double value) {
  return Format("%.15g", value);
}

CsvRow::CsvRow(const std::string& path, std::size_t line, const std::string& text, const char* header)
    : path_(path), line_(line), names_(Fields(header)), fields_(Fields(text)) {
  if (fields_.size() != names_.size()) {
    Fail("expected " + std::to_string(names_.size()) + " fields (" + header + "), found " +
         std::to_string(fields_.size()));
  }
}

std::uint64_t CsvRow::Count(std::size_t column) const {
  const std::string& text = Text(column);
  char* end = nullptr;
  errno = 0;
  const std::uint64_t value = std::strtoull(text.c_str(), &end, 10);
  const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || errno != 0 || *end != '\0') Fail("expected a whole number as " + names_[column], column);
  return value;
}

int CsvRow::Index(std::size_t column) const {
  const std::uint64_t value = Count(column);
  if (value > 1'000'000) Fail("expected a thread's number as " + names_[column], column);
  return static_cast<int>(value);
}

double CsvRow::Real(std::size_t column) const {
  const std::string& text = Text(column);
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(value)) {
    Fail("expected a number as " + names_[column], column);
  }
  return value;
}

void CsvRow::Fail(const std::string& what, std::size_t column) const {
  Fail(what + ", found \"" + fields_[column] + "\"");
}

void CsvRow::Fail(const std::string& what) const {
  throw DamagedFolder(path_ + ":" + std::to_string(line_) + ": " + what);
}

}  // namespace scope
