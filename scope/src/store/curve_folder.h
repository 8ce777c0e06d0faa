// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "curve.h"

/// curve.json: what a curve records and how much of it is done (scope/FORMAT-CURVE.md).
namespace scope {

constexpr const char* kCurveName = "curve.json";

bool IsCurveFolder(const std::string& folder);
/// Throws UserError, which names the file and what was expected.
Curve ReadCurve(const std::string& folder);
/// Replaces curve.json as a whole. Throws UserError.
void WriteCurve(const std::string& folder, const Curve& curve);

}  // namespace scope
