// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <vector>

/// Latency over bandwidth as a line that never falls: falls by scatter are removed.
namespace scope {

/// The closest values, by least squares, that never fall (pool adjacent violators).
std::vector<double> Rising(const std::vector<double>& values);

/// Values at rising loads, the first at idle. Both rise, and are joined by lines.
struct CurveFit {
  std::vector<double> gigabytesPerS;
  std::vector<double> latencyNs;
};

/// The fit of values in order of load. Needs two points.
CurveFit FitCurve(const std::vector<double>& gigabytesPerS, const std::vector<double>& latencyNs);

/// The latency at a bandwidth; none if the fit does not get so far.
std::optional<double> LatencyAtBandwidth(const CurveFit& fit, double gigabytesPerS);

/// The knee is where the latency is this many times that at idle.
constexpr double kKneeFactor = 1.5;

/// The bandwidth of the knee: where the line of the fit crosses the latency. None if the latency stays below.
std::optional<double> KneeOf(const CurveFit& fit);

}  // namespace scope
