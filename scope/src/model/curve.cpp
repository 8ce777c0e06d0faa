// SPDX-License-Identifier: Apache-2.0
#include "curve.h"

namespace scope {

double LoadOf(const Curve& curve, int point) {
  return static_cast<double>(curve.most) * point / (curve.points - 1);
}

std::pair<SweepLevels, double> LevelsOf(const Curve& curve, int point) {
  const int steps = curve.points - 1;
  const int units = (curve.most * point + steps - 1) / steps;
  SweepLevels levels = curve.mix;
  for (auto& [section, level] : levels) level *= units;
  return {levels, units == 0 ? kWholeDuty : kWholeDuty * LoadOf(curve, point) / units};
}

}  // namespace scope
