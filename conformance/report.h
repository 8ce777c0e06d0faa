// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "check_text.h"
#include "runner.h"

namespace conformance {

/// Writes results in the Test Anything Protocol, version 14: a line for each check, followed by what was
/// expected and what was found.
class TapReport {
 public:
  TapReport(std::ostream& out, std::size_t count);
  void Comment(const std::string& text);
  /// The run ends before its last check.
  void BailOut(const std::string& why);
  void Result(const CheckText& check, const Outcome& outcome, bool allowSkip);

 private:
  std::ostream& out_;
  std::size_t number_ = 0;
};

/// One check and how it went.
struct Result {
  CheckText check;
  Outcome outcome;
};

/// Writes results as JUnit XML. Returns false when the file cannot be written.
bool WriteJunit(const std::string& file, const std::vector<Result>& results, bool allowSkip);

/// True if the outcome fails the run.
bool Fails(const Outcome& outcome, bool allowSkip);

}  // namespace conformance
