#pragma once

#include <optional>
#include <string>
#include <vector>

#include "run.h"

namespace scope {

/// One of the two that are compared.
struct Side {
  std::string name;  ///< as given
  std::vector<Run> runs;
  std::optional<double> warmupS;  ///< of the sweep that it is a point of
};

/// Reads what `argument` names: a run folder; a folder of runs, which are repeats; or a point of a sweep as
/// FOLDER:CPU=2,VENC=0, with a level for each swept section, whose runs that are done are repeats. Throws
/// UserError for anything else.
Side ReadSide(const std::string& argument);

}  // namespace scope
