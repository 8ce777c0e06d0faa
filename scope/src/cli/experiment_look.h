// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>

#include "commands.h"
#include "experiment.h"

namespace scope {

/// The sides and the comparison of the first `count` runs of the experiment in `folder`, at least one of each
/// side. In a continued experiment later ones may be recorded already: a look at them would be one that was
/// not planned. Throws UserError.
ComparedSides LookAt(const std::string& folder, const Experiment& experiment, std::size_t count);

/// The look at which the experiment ended, or the last one so far. Before the first look, all that is
/// recorded. Throws UserError if a side has no run.
ComparedSides LastLook(const std::string& folder, const Experiment& experiment);

}  // namespace scope
