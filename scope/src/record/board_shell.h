// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "errors.h"
#include "signals.h"

namespace scope {

/// The board cannot be reached now, or is in use. It may be later.
class BoardAway : public UserError {
 public:
  using UserError::UserError;
};

/// The board answered, and then no more. What ran there may still run.
class BoardLost : public UserError {
 public:
  BoardLost(const std::string& text, bool isAway) : UserError(text), isAway_(isAway) {}
  bool IsAway() const { return isAway_; }  ///< false: this program gave it up

 private:
  bool isAway_;
};

/// `text` as one word for a POSIX shell.
std::string ShellQuoted(const std::string& text);

/// Throws UserError if ssh could take `host` for an option or for several words.
void RequireHost(const std::string& host);

/// Runs scripts on another machine, by the system's ssh: with the user's configuration and keys, without a
/// question, and only where the host's key is known. Threads: one.
class BoardShell {
 public:
  /// `config` is ssh's configuration file; empty: the user's.
  BoardShell(std::string host, std::string config, Signals& signals)
      : host_(std::move(host)), config_(std::move(config)), signals_(signals) {}

  struct Script {
    std::string text;  ///< for a POSIX shell
    std::vector<std::string> arguments;
    int input = -1;     ///< what the script reads; -1: a pipe that ends when a signal comes, or at the limit
    int output = -1;    ///< where its standard output goes; -1: Result::output
    double limitS = 0;  ///< how long it may take; 0: without a limit
    double afterSignalS = 0;  ///< how long it may go on after that or a signal
  };
  struct Result {
    int status = 0;
    std::string output;
    std::vector<std::string> errors;  ///< lines of standard error, the last ones if they are many
    bool stopped = false;             ///< a signal came
    bool late = false;                ///< the limit was reached
  };

  /// Returns how the script ended. Throws BoardLost if the connection ended or was given up before the script
  /// did; BoardAway if the board cannot be reached; UserError, with the reason and what to do, if it refuses.
  /// Signals that come to ssh as well, from a scheduler for example, do not end it: the script has to.
  Result Run(const Script& script);

  const std::string& Host() const { return host_; }

 private:
  std::string host_;
  std::string config_;
  Signals& signals_;
};

}  // namespace scope
