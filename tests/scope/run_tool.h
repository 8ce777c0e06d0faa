// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "child_process.h"

/// How a program ended and what it wrote.
struct ToolResult {
  int status = -1;  ///< exit status, or the negative number of the signal that ended it
  std::string output;
  std::string errors;
};

/// Adds to `text` what the non-blocking `descriptor` has, whole: pages are lines of any length.
inline void ReadWhole(int descriptor, std::string& text) {
  char bytes[4096];
  for (ssize_t size = 0; (size = read(descriptor, bytes, sizeof bytes)) > 0;) {
    text.append(bytes, static_cast<std::size_t>(size));
  }
}

/// Waits for the end of `child`. Its standard error must be captured.
inline ToolResult WaitFor(scope::ChildProcess& child) {
  ToolResult result;
  bool ended = false;
  while (!ended) {
    ended = child.HasEnded();
    ReadWhole(child.Output(), result.output);
    ReadWhole(child.Errors(), result.errors);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  result.status = child.EndSignal() == 0 ? child.ExitStatus() : -child.EndSignal();
  return result;
}

inline scope::ChildProcess::Options ProgramOptions(const std::string& program,
                                                   std::vector<std::string> arguments) {
  scope::ChildProcess::Options options;
  options.program = program;
  options.arguments = std::move(arguments);
  options.takeErrors = true;
  return options;
}

inline ToolResult RunProgram(const std::string& program, std::vector<std::string> arguments) {
  scope::ChildProcess child(ProgramOptions(program, std::move(arguments)));
  return WaitFor(child);
}

/// The scope's program.
inline ToolResult RunTool(std::vector<std::string> arguments) {
  return RunProgram(STRESS_SCOPE, std::move(arguments));
}
