// LxMoreThuenteLineMinimize, the line search of the geometry driver: the
// Moré-Thuente search for
// a step that meets the strong Wolfe conditions (J. J. Moré and D. J.
// Thuente, "Line search algorithms with guaranteed sufficient decrease", ACM
// Trans. Math. Software 20 (1994) 286-307; the safeguarded step of their
// section 4 and the two-stage driver of section 3).
//
// phi(a) = f(x + a dir), phi'(a) = g(x + a dir).dir. Accepted: a with
//   phi(a) <= phi(0) + c1 a phi'(0)   (sufficient decrease) and
//   |phi'(a)| <= c2 |phi'(0)|         (strong curvature).
// The search keeps an interval [stx, sty] (stx the best step so far) and a
// trial stp; each new trial comes from cubic or quadratic interpolation of
// the end points, safeguarded so that the interval shrinks geometrically once
// a minimiser is bracketed and extrapolates by a bounded factor before.
//
// Near a minimum, phi(a) - phi(0) sinks below the rounding error of the
// values while the slopes stay accurate. A trial whose value lies within a
// few ulps of phi(0) is therefore judged by its slope alone: it counts as
// level with the start when the interval is updated, and it is accepted when
// |phi'(a)| <= c2' |phi'(0)| with a tighter c2' (the approximate Wolfe
// conditions of W. W. Hager and H. Zhang, SIAM J. Optim. 16 (2005) 170, with
// an error bound of a few ulps instead of their relative 1e-6).
#include <algorithm>
#include <cmath>
#include <limits>

#include "linmin/trial_point.h"
#include "lxopt/linmin.h"

namespace LxOpt {
namespace {

constexpr double kC1 = 1e-4;  // sufficient decrease (ftol)
constexpr double kC2 = 0.9;   // strong curvature (gtol), the usual quasi-Newton choice
// Extrapolation before a bracket: the next trial lies in
// [stp + kExtrapLower (stp - stx), stp + kExtrapUpper (stp - stx)].
constexpr double kExtrapLower = 1.1;
constexpr double kExtrapUpper = 4.0;
// Once bracketed, an interval that did not shrink below this share of its
// width two trials ago is bisected.
constexpr double kShrink = 0.66;
// A trial with a value or slope that is not finite is pulled back to this
// share of its distance from stx.
constexpr double kNonFiniteBacktrack = 0.1;
constexpr unsigned int kMaxTrials = 20;
// Values within this many ulps of phi(0) are level with it (rounding of the
// objective's sum); such a trial is accepted when its slope has fallen to
// kLevelC2 of phi'(0).
constexpr double kLevelUlps = 16.0;
constexpr double kLevelC2 = 0.3;

// One end point or trial of the search: step, value, slope.
struct Sample {
  double a;
  double f;
  double d;
};

// Minimiser of the cubic through (u.a, u.f, u.d) and (v.a, v.f, v.d), in the
// form of Moré & Thuente's dcstep (scaled to avoid overflow). The square
// root's argument is clipped at 0 when clip is set.
double CubicMinimizer(const Sample& u, const Sample& v, bool clip) {
  const double theta = 3.0 * (u.f - v.f) / (v.a - u.a) + u.d + v.d;
  const double s = std::max({std::fabs(theta), std::fabs(u.d), std::fabs(v.d)});
  double arg = (theta / s) * (theta / s) - (u.d / s) * (v.d / s);
  if (clip) arg = std::max(0.0, arg);
  double gamma = s * std::sqrt(arg);
  if (v.a < u.a) gamma = -gamma;
  const double p = (gamma - u.d) + theta;
  const double q = ((gamma - u.d) + gamma) + v.d;
  return u.a + (p / q) * (v.a - u.a);
}

// Moré & Thuente's safeguarded step (dcstep): from the interval ends x (best)
// and y and the trial t, computes the next trial and updates the interval.
// bracketed becomes true once a minimiser is known to lie between x and y.
// lo, hi bound the next trial while nothing is bracketed.
double SafeguardedStep(Sample& x, Sample& y, const Sample& t, bool& bracketed, double lo,
                       double hi) {
  const double sgnd = t.d * std::copysign(1.0, x.d);
  double next;
  if (t.f > x.f) {
    // Case 1: higher value. The minimiser is bracketed; take the cubic step
    // if it is closer to x than the quadratic (value-based) one, else their
    // midpoint.
    const double cubic = CubicMinimizer(x, t, false);
    const double quad = x.a + ((x.d / ((x.f - t.f) / (t.a - x.a) + x.d)) / 2.0) * (t.a - x.a);
    next = std::fabs(cubic - x.a) < std::fabs(quad - x.a) ? cubic : cubic + (quad - cubic) / 2.0;
    bracketed = true;
  } else if (sgnd < 0.0) {
    // Case 2: lower value, slopes of opposite sign: bracketed; the step
    // farther from t of the cubic and the secant.
    const double cubic = CubicMinimizer(t, x, false);
    const double secant = t.a + (t.d / (t.d - x.d)) * (x.a - t.a);
    next = std::fabs(cubic - t.a) > std::fabs(secant - t.a) ? cubic : secant;
    bracketed = true;
  } else if (std::fabs(t.d) < std::fabs(x.d)) {
    // Case 3: lower value, same slope sign, the slope shrinks in size. The
    // cubic is used only if it tends to infinity in the search direction.
    const double theta = 3.0 * (x.f - t.f) / (t.a - x.a) + x.d + t.d;
    const double s = std::max({std::fabs(theta), std::fabs(x.d), std::fabs(t.d)});
    double gamma = s * std::sqrt(std::max(0.0, (theta / s) * (theta / s) - (x.d / s) * (t.d / s)));
    if (t.a > x.a) gamma = -gamma;
    const double p = (gamma - t.d) + theta;
    const double q = (gamma + (x.d - t.d)) + gamma;
    const double r = p / q;
    double cubic;
    if (r < 0.0 && gamma != 0.0) {
      cubic = t.a + r * (x.a - t.a);
    } else {
      cubic = t.a > x.a ? hi : lo;
    }
    const double secant = t.a + (t.d / (t.d - x.d)) * (x.a - t.a);
    if (bracketed) {
      next = std::fabs(cubic - t.a) < std::fabs(secant - t.a) ? cubic : secant;
      next = t.a > x.a ? std::min(t.a + kShrink * (y.a - t.a), next)
                       : std::max(t.a + kShrink * (y.a - t.a), next);
    } else {
      next = std::fabs(cubic - t.a) > std::fabs(secant - t.a) ? cubic : secant;
      next = std::max(lo, std::min(hi, next));
    }
  } else {
    // Case 4: lower value, same slope sign, the slope does not shrink: the
    // cubic through t and y when bracketed, else the bound.
    if (bracketed) {
      next = CubicMinimizer(t, y, false);
    } else {
      next = t.a > x.a ? hi : lo;
    }
  }
  if (t.f > x.f) {
    y = t;
  } else {
    if (sgnd < 0.0) y = x;
    x = t;
  }
  return next;
}

// |f - f0| is within the rounding of values of f0's size.
bool LevelWith(double f, double f0) {
  return std::fabs(f - f0) <= kLevelUlps * std::numeric_limits<double>::epsilon() * std::fabs(f0);
}

}  // namespace

LxLineMinimize* LxMoreThuenteLineMinimize::CreateCopy() const {
  return new LxMoreThuenteLineMinimize(*this);
}

bool LxMoreThuenteLineMinimize::operator()(unsigned int n, const double* x0, double* dir,
                                           double* grad0, double* gradOut, double* fval,
                                           double* step, LxFunc1& func) const {
  return Search(n, x0, dir, grad0, gradOut, fval, step, func, nullptr).found;
}

LxMoreThuenteLineMinimize::Outcome LxMoreThuenteLineMinimize::Search(
    unsigned int n, const double* x0, const double* dir, const double* grad0, double* gradOut,
    double* fval, double* step, LxFunc1& func, double* work) const {
  const double slope0 = detail::Dot(grad0, dir, n);
  if (!(slope0 < 0.0)) return {false, false};
  LxMallocaPtr block;
  if (work == nullptr) work = detail::AllocateLineWorkspace(block, n);
  if (work == nullptr) return {false, false};
  double* const xt = work;
  double* const gt = work + n;
  const double f0 = *fval;
  const double maxStep = stepLimit_;
  const Sample origin{0.0, f0, slope0};
  const double slopeTest = kC1 * origin.d;
  // x: best step of the interval, y: its other end; the next trial lies in
  // [lo, hi] and never beyond limit (maxStep, lowered past trials whose value
  // was not finite).
  Sample x = origin, y = origin;
  bool bracketed = false;
  bool stage1 = true;
  double limit = maxStep;
  double stp = std::min(*step, maxStep);
  double width = maxStep, previousWidth = 2.0 * maxStep;
  double lo = 0.0, hi = stp + kExtrapUpper * stp;
  // The lowest trial so far (its gradient in gradOut).
  double best = 0.0, fBest = f0;

  for (unsigned int trial = 0; trial < kMaxTrials; ++trial) {
    const detail::LineSample sample = detail::SampleLine(func, n, x0, dir, stp, xt, gt);
    const Sample found{stp, sample.value, sample.slope};
    if (!std::isfinite(found.f) || !std::isfinite(found.d)) {
      limit = stp;
      stp = x.a + kNonFiniteBacktrack * (stp - x.a);
      hi = std::min(hi, limit);
      continue;
    }
    if (found.f < fBest) {
      detail::Copy(gt, gradOut, n);
      best = stp;
      fBest = found.f;
    }
    // A level trial steers the search as if its value were phi(0).
    const bool level = LevelWith(found.f, f0);
    const Sample t{found.a, level ? f0 : found.f, found.d};
    const bool decrease = level || t.f <= f0 + stp * slopeTest;
    const bool wolfe = level ? std::fabs(t.d) <= -kLevelC2 * origin.d
                             : decrease && std::fabs(t.d) <= -kC2 * origin.d;
    // At the step limit and still going down steeply: the caller may widen
    // its limit.
    const bool capped = stp >= maxStep && decrease && t.d <= slopeTest;
    if (wolfe || capped) {
      detail::Copy(gt, gradOut, n);
      *step = stp;
      *fval = found.f;
      return {true, !wolfe};
    }
    if (stage1 && decrease && t.d >= std::min(kC1, kC2) * origin.d) stage1 = false;

    if (stage1 && t.f <= x.f && !decrease) {
      // Stage 1 works on psi(a) = phi(a) - phi(0) - c1 a phi'(0) until a step
      // with psi <= 0 and a slope no longer steeply downhill is seen.
      Sample xm{x.a, x.f - x.a * slopeTest, x.d - slopeTest};
      Sample ym{y.a, y.f - y.a * slopeTest, y.d - slopeTest};
      const Sample tm{t.a, t.f - t.a * slopeTest, t.d - slopeTest};
      stp = SafeguardedStep(xm, ym, tm, bracketed, lo, hi);
      x = {xm.a, xm.f + xm.a * slopeTest, xm.d + slopeTest};
      y = {ym.a, ym.f + ym.a * slopeTest, ym.d + slopeTest};
    } else {
      stp = SafeguardedStep(x, y, t, bracketed, lo, hi);
    }

    if (bracketed) {
      if (std::fabs(y.a - x.a) >= kShrink * previousWidth) stp = x.a + 0.5 * (y.a - x.a);
      previousWidth = width;
      width = std::fabs(y.a - x.a);
      lo = std::min(x.a, y.a);
      hi = std::max(x.a, y.a);
    } else {
      lo = stp + kExtrapLower * (stp - x.a);
      hi = stp + kExtrapUpper * (stp - x.a);
    }
    stp = std::max(0.0, std::min(stp, limit));
    // The interval has shrunk to the requested accuracy, rounding keeps the
    // trial from moving inside it, or the limit was reached: settle for the
    // lowest step.
    if (bracketed && (stp <= lo || stp >= hi || hi - lo <= accuracy_ * hi)) break;
    if (x.a >= limit) break;
  }
  if (!(best > 0.0)) return {false, false};
  *step = best;
  *fval = fBest;
  return {true, best >= maxStep};
}

}  // namespace LxOpt
