// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "experiment.h"

/// experiment.json: two settings, and how much of their comparison is recorded (scope/FORMAT.md).
namespace scope {

constexpr const char* kExperimentName = "experiment.json";

bool IsExperimentFolder(const std::string& folder);
/// Throws UserError, which names the file and what was expected.
Experiment ReadExperiment(const std::string& folder);
/// Replaces experiment.json as a whole. Throws UserError.
void WriteExperiment(const std::string& folder, const Experiment& experiment);

}  // namespace scope
