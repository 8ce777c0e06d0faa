// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Quantiles of the distributions that intervals and sample sizes need. Each function throws
/// std::invalid_argument for arguments outside its domain. Threads: any.
namespace scope {

/// The value that Student's t with `freedom` degrees of freedom does not exceed with probability `p`,
/// 0 < p < 1. `freedom` is at least 1 and need not be whole.
double StudentQuantile(double p, double freedom);

/// The probability that Student's t with `freedom` degrees of freedom exceeds `t`.
double StudentTail(double t, double freedom);

/// The value that chi-squared with `freedom` degrees of freedom does not exceed with probability `p`,
/// 0 < p < 1. The approximation of Wilson and Hilferty: for p from 0.1 to 0.9 it is within 2.5 % from 2
/// degrees of freedom on. `freedom` is at least 1.
double ChiSquaredQuantile(double p, double freedom);

}  // namespace scope
