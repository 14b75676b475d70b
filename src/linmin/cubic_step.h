// The safeguarded cubic step shared by the CG and quasi-Newton line minimizers.
#ifndef LXOPT_SRC_LINMIN_CUBIC_STEP_H
#define LXOPT_SRC_LINMIN_CUBIC_STEP_H

#include <algorithm>
#include <cmath>

namespace LxOpt {
namespace detail {

// One end of the interpolation interval: step, value, slope.
struct LinePoint {
  double a;
  double f;
  double s;
};

constexpr double kInsideLow = 1.01;   // bracketed: stay above 1.01 * lower end
constexpr double kInsideHigh = 0.99;  // ... and below 0.99 * upper end

// Minimizer of the cubic through prev and cur (Hermite data), kept inside the
// bracket or pushed out of it by the signs of the two slopes:
//   d1 = s0 + s1 - 3 (f0 - f1) / (a0 - a1),  disc = d1^2 - s0 s1
//   disc > 0:  a = a1 - (a1 - a0) (s1 + sqrt(disc) - d1) / (s1 - s0 + 2 sqrt(disc))
//   else:      a = a1 - (a1 - a0) (s1 - d1) / (s1 - s0)          (secant)
inline double SafeguardedCubicStep(const LinePoint& prev, const LinePoint& cur) {
  const double d1 = prev.s + cur.s - 3.0 * (prev.f - cur.f) / (prev.a - cur.a);
  const double disc = d1 * d1 - prev.s * cur.s;
  double next;
  if (disc > 0.0) {
    const double d2 = std::sqrt(disc);
    next = cur.a - (cur.a - prev.a) * (cur.s + d2 - d1) / (cur.s - prev.s + 2.0 * d2);
  } else {
    next = cur.a - (cur.a - prev.a) * (cur.s - d1) / (cur.s - prev.s);
  }

  const double lo = std::min(prev.a, cur.a);
  const double hi = std::max(prev.a, cur.a);
  if (prev.s * cur.s <= 0.0) {
    // Case I: the minimum is bracketed; fall back to bisection near the ends.
    if (next < kInsideLow * lo || next > kInsideHigh * hi) next = 0.5 * (prev.a + cur.a);
  } else if (cur.s > 0.0) {
    // Case II: both slopes positive; the minimum lies before both points.
    if (next <= 0.0 || next > kInsideHigh * lo) next = 0.5 * lo;
  } else {
    // Case III: both slopes negative; extrapolate at least to twice the far end.
    if (next < kInsideLow * hi) next = 2.0 * hi;
  }
  return next;
}

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_LINMIN_CUBIC_STEP_H
