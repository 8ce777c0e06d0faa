// SPDX-License-Identifier: Apache-2.0
#include "distributions.h"

#include <cmath>
#include <limits>
#include <stdexcept>

#include "statistics.h"

namespace scope {
namespace {

constexpr int kMostSteps = 200;
constexpr double kPi = 3.14159265358979323846;

void NeedArguments(double p, double freedom) {
  if (!(p > 0 && p < 1)) throw std::invalid_argument("a quantile needs a probability in (0, 1)");
  if (!(freedom >= 1)) throw std::invalid_argument("a quantile needs at least 1 degree of freedom");
}

// Logarithm of the gamma function. std::lgamma writes a global variable, so two threads may not call it.
double LogGamma(double x) {
  int sign = 0;
  return lgamma_r(x, &sign);
}

// The continued fraction of the incomplete beta function, evaluated from its front (Lentz). Converges
// quickly for x < (a + 1) / (a + b + 2).
double BetaFraction(double a, double b, double x) {
  constexpr double kLeast = std::numeric_limits<double>::min();
  const auto keepFromZero = [](double value) { return std::abs(value) < kLeast ? kLeast : value; };
  double c = 1;
  double d = 1 / keepFromZero(1 - (a + b) * x / (a + 1));
  double fraction = d;
  for (int m = 1; m < kMostSteps; ++m) {
    const double even = m * (b - m) * x / ((a + 2 * m - 1) * (a + 2 * m));
    const double odd = -(a + m) * (a + b + m) * x / ((a + 2 * m) * (a + 2 * m + 1));
    double change = 1;
    for (const double term : {even, odd}) {
      d = 1 / keepFromZero(1 + term * d);
      c = keepFromZero(1 + term / c);
      change = c * d;
      fraction *= change;
    }
    if (std::abs(change - 1) < 1e-15) break;
  }
  return fraction;
}

// The regularised incomplete beta function I_x(a, b), 0 < x < 1.
double IncompleteBeta(double a, double b, double x) {
  if (x > (a + 1) / (a + b + 2)) return 1 - IncompleteBeta(b, a, 1 - x);
  const double logFront = LogGamma(a + b) - LogGamma(a) - LogGamma(b) + a * std::log(x) + b * std::log1p(-x);
  return std::exp(logFront) * BetaFraction(a, b, x) / a;
}

double StudentDensity(double t, double freedom) {
  const double logFactor = LogGamma((freedom + 1) / 2) - LogGamma(freedom / 2) - std::log(freedom * kPi) / 2;
  return std::exp(logFactor - (freedom + 1) / 2 * std::log1p(t * t / freedom));
}

}  // namespace

double StudentTail(double t, double freedom) {
  if (!(freedom >= 1)) throw std::invalid_argument("Student's t needs at least 1 degree of freedom");
  if (t == 0) return 0.5;
  const double tail = IncompleteBeta(freedom / 2, 0.5, freedom / (freedom + t * t)) / 2;
  return t > 0 ? tail : 1 - tail;
}

double StudentQuantile(double p, double freedom) {
  NeedArguments(p, freedom);
  if (p == 0.5) return 0;
  if (p < 0.5) return -StudentQuantile(1 - p, freedom);
  // Newton's method. To the right of 0 the distribution function is concave and t has more weight in its tail
  // than the normal distribution. So the start is too small and no step goes too far.
  double t = NormalQuantile(p);
  for (int step = 0; step < kMostSteps; ++step) {
    const double change = (StudentTail(t, freedom) - (1 - p)) / StudentDensity(t, freedom);
    t += change;
    if (std::abs(change) <= 1e-12 * t) break;
  }
  return t;
}

double ChiSquaredQuantile(double p, double freedom) {
  NeedArguments(p, freedom);
  const double variance = 2 / (9 * freedom);
  const double root = 1 - variance + NormalQuantile(p) * std::sqrt(variance);
  return freedom * root * root * root;
}

}  // namespace scope
