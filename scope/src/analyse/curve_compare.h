// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "compare.h"
#include "curve_table.h"

namespace scope {

/// Compares curve B with curve A. A repeat is a curve by itself, and has one value of each figure. Judged are
/// the median latency at idle and at two bandwidths that both curves reach, the knee if both have it, and the
/// most bandwidth. Shown and not judged are p99 and p99.9 there, and the latency where the curves saturate,
/// if both do. Throws UserError if a curve has no whole repeat.
Comparison CompareCurves(const CurveTable& a, const CurveTable& b, const CompareOptions& options);

}  // namespace scope
