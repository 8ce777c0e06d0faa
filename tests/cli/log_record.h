#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// One line of the program's log, taken apart.
struct LogRecord {
  std::string level;        ///< "INFO"
  std::string application;  ///< "STBM"
  std::string context;      ///< "STBM", or "QET" for the platform's own
  std::string text;         ///< without the location
  std::string location;     ///< "stress_benchmark/src/a.cpp:12 Init"; empty where the line has none
};

/// Takes a line apart; none when it is not a whole line of the log's form.
std::optional<LogRecord> ParseLogLine(const std::string& line);

/// The records of a log. A line that is none becomes a record whose level is "no record" and whose text is
/// the line, so that no comparison passes over it.
std::vector<LogRecord> ParseLog(std::string_view log);

/// "LEVEL text" of the records of one context, in the log's order; of all contexts when it is empty.
std::vector<std::string> Texts(const std::vector<LogRecord>& records, std::string_view context = "STBM");
