// Line search of the geometry driver (linemin): weak-Wolfe bracketing with
// safeguarded cubic interpolation (Nocedal & Wright, Numerical Optimization,
// 2nd ed., algorithms 3.5 and 3.6, eq. 3.59).
//
// phi(a) = f(x + a dir); phi'(a) = g(x + a dir).dir. A trial a is "too long"
// when it misses sufficient decrease, phi(a) > phi(0) + c1 a phi'(0), or does
// not improve on the lowest point so far; it is accepted when it also meets
// the curvature condition phi'(a) >= c2 phi'(0).
#include <algorithm>
#include <cmath>
#include <limits>

#include "framework/internal.h"
#include "geomopt/geom_internal.h"
#include "lxopt/geomopt.h"

namespace LxOpt {
namespace geom {
namespace {

constexpr double kC1 = 1e-4;            // sufficient decrease
constexpr double kC2 = 0.9;             // curvature (weak Wolfe)
constexpr double kExpand = 4.0;         // growth of a while no step is too long
constexpr double kSafeguard = 0.1;      // interpolated a keeps this share of the bracket away from its ends
constexpr unsigned int kMaxTrials = 30;

// phi(a) and phi'(a); the gradient is left in work.gt.
double Evaluate(const Line& line, const LineWork& work, double a, double& slope) {
  for (unsigned int i = 0; i < line.n; ++i) work.xt[i] = line.x[i] + a * line.dir[i];
  detail::Zero(work.gt, line.n);
  const double f = line.func(work.xt, work.gt);
  slope = detail::Dot(work.gt, line.dir, line.n);
  return f;
}

// Minimiser of the cubic through (lo, flo, dlo) and (hi, fhi, dhi) (N&W eq.
// 3.59), kept inside [lo + 0.1 w, hi - 0.1 w]; the midpoint when the cubic
// has no usable minimiser (for instance when fhi is not finite).
double Interpolate(double lo, double flo, double dlo, double hi, double fhi, double dhi) {
  const double w = hi - lo;
  const double d1 = dlo + dhi - 3.0 * (flo - fhi) / (lo - hi);
  const double root = d1 * d1 - dlo * dhi;
  double a = 0.5 * (lo + hi);
  if (root >= 0.0) {
    const double d2 = std::sqrt(root);
    const double candidate = hi - w * (dhi + d2 - d1) / (dhi - dlo + 2.0 * d2);
    if (std::isfinite(candidate)) a = candidate;
  }
  return std::min(std::max(a, lo + kSafeguard * w), hi - kSafeguard * w);
}

}  // namespace

LineResult LineMinimize(const Line& line, const LineWork& work, double firstStep,
                        double maxStep, double accuracy) {
  const unsigned int n = line.n;
  const double slope0 = detail::Dot(line.g, line.dir, n);
  // Bracket: lo is the lowest acceptable trial so far (0 = the origin), hi the
  // shortest trial known to be too long (infinite until there is one).
  double lo = 0.0, flo = line.f, dlo = slope0;
  double hi = std::numeric_limits<double>::infinity(), fhi = 0.0, dhi = 0.0;
  bool lowered = false;

  double a = std::min(firstStep, maxStep);
  for (unsigned int trial = 0; trial < kMaxTrials; ++trial) {
    double slope = 0.0;
    const double ft = Evaluate(line, work, a, slope);
    const bool tooLong =
        !(ft <= line.f + kC1 * a * slope0) || !(ft < flo) || !std::isfinite(slope);
    if (tooLong) {
      hi = a;
      fhi = ft;
      dhi = slope;
    } else {
      LxBFGSOptimizer::store(ft, flo, slope, dlo, work.gt, work.gBest, a, lo, n);
      lowered = true;
      // At the step limit there is no room to look further.
      if (slope >= kC2 * slope0 || a >= maxStep) return {true, a, ft};
    }
    if (std::isinf(hi)) {
      a = std::min(kExpand * lo, maxStep);
      continue;
    }
    if (hi - lo <= accuracy * hi) break;
    a = Interpolate(lo, flo, dlo, hi, fhi, dhi);
  }
  if (lowered) return {true, lo, flo};
  return {false, 0.0, line.f};
}

}  // namespace geom
}  // namespace LxOpt
