// SPDX-License-Identifier: Apache-2.0
#include "log_record.h"

#include <regex>

#include "program.h"

std::optional<LogRecord> ParseLogLine(const std::string& line) {
  static const std::regex form(
      R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z (FATAL|ERROR|WARN|INFO|DEBUG|VERBOSE) (\S+) (\S+) \d+ )"
      R"((.*?)(?: \(([^():]+:\d+ [\w:~]+)\))?)");
  std::smatch parts;
  if (!std::regex_match(line, parts, form)) return std::nullopt;
  return LogRecord{parts[1], parts[2], parts[3], parts[4], parts[5]};
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
