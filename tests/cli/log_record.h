// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// One line of the program's log, split into its parts.
struct LogRecord {
  std::string level;        ///< "INFO"
  std::string application;  ///< "STBM"
  std::string context;      ///< "STBM", or "QET" for the platform's records
  std::string text;         ///< without the location
  std::string location;     ///< "stress_benchmark/src/a.cpp:12 Init"; empty where the line has none
};

/// Splits a line. Returns nothing when it does not have the form of a complete log line.
std::optional<LogRecord> ParseLogLine(const std::string& line);

/// The records of a log. A line without the form of a record becomes a record with the level "no record" and
/// the line as its text, so that a comparison fails.
std::vector<LogRecord> ParseLog(std::string_view log);

/// "LEVEL text" of each record of one context, in the log's order. An empty `context` stands for all
/// contexts.
std::vector<std::string> Texts(const std::vector<LogRecord>& records, std::string_view context = "STBM");
