// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "ara/log/logging.h"

/// A logging back end that records its calls. It replaces the real one in the test executable.
namespace fakeLog {

using Piece = std::variant<std::string, int, unsigned int>;

struct Record {
  std::string contextId;
  ara::log::LogLevel level;
  std::string file;
  std::string function;
  int line;
  std::vector<Piece> pieces;  ///< what was inserted, in order
  std::vector<char>
      kinds;  ///< type of each piece: 'c' const char*, 'v' view, 's' string, 'i' int, 'u' unsigned int

  std::string Text() const;  ///< the pieces as one text
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

/// Forgets all calls and records. The loggers stay.
void Reset();
/// All records that are complete, empty ones included.
std::vector<Record> Records();
/// The texts of the records of `level`, without the empty ones.
std::vector<std::string> Texts(ara::log::LogLevel level);
std::vector<LoggerCreation> Creations();
std::vector<Start> Starts();
/// The calls in order, such as "CreateLogger TPW", "InitLogging", "IsEnabled 5", "LogDebug".
std::vector<std::string> Calls();
/// Sets a function that runs just before each call is recorded. Reset removes it.
void OnCall(std::function<void()> hook);

}  // namespace fakeLog
