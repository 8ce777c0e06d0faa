// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "text_style.h"

/// What the sub-commands share of the command line: the layout of the help, checks of values, output and
/// errors.
namespace scope {

/// What a command prints on standard output.
enum class Output {
  kText,
  kJson,  ///< only JSON, at its end
  kQuiet  ///< nothing
};

/// Adds --json and --quiet, which exclude each other.
void AddOutput(CLI::App& command, Output& output);

/// Adds --color, which sets the style of standard output.
void AddColour(CLI::App& command, TextStyle& style);

/// Prints `text` on standard output at once. RequireStandardOutput reports a failure at the program's end, so
/// that a closed pipe does not end a recording.
void Print(const std::string& text);

/// Sets the layout of the help of `app` and of all sub-commands that are added after this call.
void SetHelpLayout(CLI::App& app);

/// Accepts decimal numbers from `least` to `most`. Refuses NaN, infinity, and numbers that are too small or
/// too large for a double, such as 1e-320.
CLI::Validator NumberFrom(double least, double most);

/// Accepts whole decimal numbers from `least` to `most`. For Option::transform: it takes leading zeros away,
/// with which the library would read 010 as 8.
CLI::Validator WholeNumberFrom(std::uint64_t least, std::uint64_t most);

/// Accepts one of `words`.
CLI::Validator OneOf(std::vector<std::string> words);

/// The sentence for a user whose command line `app` refused with `error`: what is wrong and what to do.
std::string UsageError(const CLI::App& app, const CLI::ParseError& error);

}  // namespace scope
