// SPDX-License-Identifier: Apache-2.0
#include "log_record.h"

#include <algorithm>
#include <array>

#include "program.h"

namespace {

constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kNameLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_:~";

bool Consists(std::string_view text, std::string_view letters) {
  return !text.empty() && text.find_first_not_of(letters) == std::string_view::npos;
}

// A digit in the form stands for any digit.
bool HasForm(std::string_view text, std::string_view form) {
  return std::equal(text.begin(), text.end(), form.begin(), form.end(), [](char letter, char wanted) {
    return wanted == '0' ? letter >= '0' && letter <= '9' : letter == wanted;
  });
}

// "path:12 Function"
bool IsLocation(std::string_view text) {
  const std::size_t colon = text.find(':');
  const std::size_t blank = text.find(' ', std::min(colon, text.size()));
  if (colon == 0 || blank == std::string_view::npos || text.find('(') != std::string_view::npos) return false;
  return Consists(text.substr(colon + 1, blank - colon - 1), kDigits) &&
         Consists(text.substr(blank + 1), kNameLetters);
}

}  // namespace

// Not a regular expression, which takes most of a test's time under a sanitizer.
std::optional<LogRecord> ParseLogLine(const std::string& line) {
  std::array<std::string_view, 5> columns;  // time, level, application, context, thread
  std::string_view rest = line;
  for (std::string_view& column : columns) {
    const std::size_t end = rest.find(' ');
    if (end == 0 || end == std::string_view::npos) return std::nullopt;
    column = rest.substr(0, end);
    rest.remove_prefix(end + 1);
  }
  const std::array<std::string_view, 6> levels = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG", "VERBOSE"};
  if (!HasForm(columns[0], "0000-00-00T00:00:00.000000Z") ||
      std::find(levels.begin(), levels.end(), columns[1]) == levels.end() || !Consists(columns[4], kDigits)) {
    return std::nullopt;
  }
  LogRecord record{std::string(columns[1]), std::string(columns[2]), std::string(columns[3]),
                   std::string(rest), ""};
  const std::size_t begin = rest.rfind(" (");
  if (begin != std::string_view::npos && rest.back() == ')' &&
      IsLocation(rest.substr(begin + 2, rest.size() - begin - 3))) {
    record.text = rest.substr(0, begin);
    record.location = rest.substr(begin + 2, rest.size() - begin - 3);
  }
  return record;
}

std::vector<LogRecord> ParseLog(std::string_view log) {
  std::vector<LogRecord> records;
  for (const std::string& line : SplitLines(log)) {
    records.push_back(ParseLogLine(line).value_or(LogRecord{"no record", "", "", line, ""}));
  }
  return records;
}

std::vector<std::string> Texts(const std::vector<LogRecord>& records, std::string_view context) {
  std::vector<std::string> texts;
  for (const LogRecord& record : records) {
    if (!context.empty() && record.level != "no record" && record.context != context) continue;
    texts.push_back(record.level + " " + record.text);
  }
  return texts;
}
