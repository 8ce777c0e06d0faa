// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "command_line.h"
#include "matrix.h"
#include "plan.h"
#include "signals.h"

namespace scope {

/// Records what is left of a matrix. matrix.json is up to date after each run.
class MatrixRecorder {
 public:
  /// `matrix` is that of `folder`, which the caller has locked.
  MatrixRecorder(std::string folder, Matrix& matrix, Output output);

  /// Records all runs, or those that the search for the worst mix asks for. True if nothing is left to
  /// record. Throws UserError if the recording cannot go on.
  bool Run();

 private:
  void TakeUp();
  std::optional<std::size_t> Next();
  std::optional<std::size_t> NextOfSearch();
  void TellOfRun(std::size_t index) const;
  bool PrepareControl(MatrixRun& run, RunSettings& settings) const;
  bool Record(std::size_t index);
  PlanCell CellOf(std::size_t index) const;

  std::string folder_;
  Matrix& matrix_;
  Output output_;
  Plan plan_;  ///< without cells
  std::vector<std::string> sections_;
  std::vector<bool> isTried_;  ///< by the index of the run, in this call of the program
  double runS_ = 0;
  bool isStuck_ = false;  ///< what ran last does not end
  // Lives across all runs: a signal between two runs must not leave matrix.json out of date.
  Signals signals_;
};

}  // namespace scope
