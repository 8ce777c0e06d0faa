#pragma once

#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "ara/log/logging.h"

/// The logging interface as a record of what was asked of it. It takes the place of the real back end in the
/// test executable.
namespace fakeLog {

using Piece = std::variant<std::string, int, unsigned int>;

struct Record {
  std::string contextId;
  ara::log::LogLevel level;
  std::string file;
  std::string function;
  int line;
  std::vector<Piece> pieces;  ///< in the order and type of the insertions
  std::vector<char> kinds;    ///< 'c' const char*, 'v' view, 's' string, 'i' int, 'u' unsigned int

  std::string Text() const;  ///< the pieces put together
};

struct LoggerCreation {
  std::string contextId;
  std::string description;
  ara::log::LogLevel level;
};

struct Start {
  std::string appId;
  std::string description;
  ara::log::LogLevel level;
  ara::log::LogMode mode;
  std::string directory;
};

/// Forgets everything but the loggers that exist.
void Reset();
/// Every record that was opened and closed, empty ones included.
std::vector<Record> Records();
/// The texts of the records of `level` that are not empty.
std::vector<std::string> Texts(ara::log::LogLevel level);
std::vector<LoggerCreation> Creations();
std::vector<Start> Starts();
/// "CreateLogger TPW", "InitLogging", "IsEnabled 5", "LogDebug" in the order of the calls.
std::vector<std::string> Calls();
/// Runs before each call is noted; Reset removes it.
void OnCall(std::function<void()> hook);

}  // namespace fakeLog
