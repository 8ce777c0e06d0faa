// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "curve.h"

namespace scope {

/// Parses "CPU,VPC:2": sections and their shares of a mix, 1 where none is given. Throws UserError.
SweepLevels ParseMix(const std::string& text);

/// The mix with the least whole numbers, and by how much they were divided: 2 of {CPU 2, VPC 4}.
int ReduceMix(SweepLevels& mix);

/// The fewest units of the mix that have five threads for each of `cpus`, as workers pause after each
/// operation. At least 1, no more than levels allow, and with no more than two threads for each CPU of an
/// engine that loads a file.
int UsualMost(const SweepLevels& mix, int cpus);

/// The most units that levels allow.
int GreatestMost(const SweepLevels& mix);

/// Plans each point of the curve as often as the settings repeat it: all points once, in random order, before
/// any of them is repeated. So each repeat is a whole curve.
void PlanRunsOf(Curve& curve);

/// "CPU,VPC:2", as ParseMix reads it: without sections that do not work.
std::string MixText(const SweepLevels& mix);

}  // namespace scope
