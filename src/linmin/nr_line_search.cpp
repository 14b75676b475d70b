// Backtracking line search with quadratic then cubic interpolation of the
// step and a cap on the direction's length (Dennis and Schnabel, Numerical
// Methods for Unconstrained Optimization, algorithm A6.3.1; Press et al.,
// Numerical Recipes, section 9.7).
#include <cfloat>
#include <cmath>

#include "linmin/trial_point.h"
#include "lxopt/linmin.h"

namespace LxOpt {
namespace {

constexpr double kSufficientDecrease = 1e-4;  // f <= fold + 1e-4 alam slope
constexpr double kStepTolerance = 1e-7;       // alamin = 1e-7 / relative length
constexpr double kLeastShrink = 0.5;          // new step at most 0.5 alam ...
constexpr double kMostShrink = 0.1;           // ... and at least 0.1 alam

// The longest component of dir relative to the size of x0 (|x0_i| below 1
// counts as 1); 0 for n = 0 or a zero direction.
double RelativeLength(unsigned int n, const double* x0, const double* dir) {
  double test = 0.0;
  for (unsigned int i = 0; i < n; ++i) {
    const double t = std::fabs(dir[i]) / std::fmax(std::fabs(x0[i]), 1.0);
    if (t > test) test = t;
  }
  return test;
}

// The next step after a rejected trial alam with value f (alam2, f2: the trial
// before it). From the full step the quadratic through f(0), f'(0) and f(1);
// otherwise the cubic through f(0), f'(0) and the last two trials.
double BacktrackStep(double alam, double f, double alam2, double f2, double fold, double slope) {
  if (alam == 1.0) return -slope / (2.0 * (f - fold - slope));
  const double rhs1 = f - fold - alam * slope;
  const double rhs2 = f2 - fold - alam2 * slope;
  const double a = (rhs1 / (alam * alam) - rhs2 / (alam2 * alam2)) / (alam - alam2);
  const double b = (-alam2 * rhs1 / (alam * alam) + alam * rhs2 / (alam2 * alam2)) / (alam - alam2);
  double tmplam;
  if (a == 0.0) {
    tmplam = -slope / (2.0 * b);
  } else {
    const double disc = b * b - 3.0 * a * slope;
    if (disc < 0.0) return kLeastShrink * alam;
    if (b <= 0.0) {
      // Deliberate: a product, not the textbook's (-b + sqrt(disc)) / (3a);
      // results depend on it.
      tmplam = (std::sqrt(disc) * (-b)) / (3.0 * a);
    } else {
      tmplam = -slope / (b + std::sqrt(disc));
    }
  }
  return std::fmin(tmplam, kLeastShrink * alam);
}

}  // namespace

LxNRLineSearch::LxNRLineSearch(int initialStepMode)
    : maxStep_(DBL_MAX), initialStepMode_(initialStepMode) {}

bool LxNRLineSearch::SetMaxStep(unsigned int n, double* x) {
  const double norm = x != nullptr ? std::sqrt(detail::SquaredNorm(x, n)) : 0.0;
  // Keep: the factor on the larger value is exactly 1, and n = 0 gives a cap
  // of 0.0 that fails every later search along a non-zero direction.
  maxStep_ = std::fmax(norm, static_cast<double>(n));
  return true;
}

// Deliberate: a copy starts with no cap; only SetMaxStep sets one.
LxLineMinimize* LxNRLineSearch::CreateCopy() const {
  return new LxNRLineSearch(initialStepMode_);
}

bool LxNRLineSearch::operator()(unsigned int n, const double* x0, double* dir, double* grad0,
                                double* gradOut, double* fval, double* step, LxFunc1& func) const {
  const double fold = *fval;
  double slope = 0.0, alamin = HUGE_VAL;
  if (n > 0) {
    // The direction is shortened in the caller's array.
    const double norm = std::sqrt(detail::SquaredNorm(dir, n));
    if (norm > maxStep_)
      for (unsigned int i = 0; i < n; ++i) dir[i] *= maxStep_ / norm;
    slope = detail::Dot(grad0, dir, n);
    alamin = kStepTolerance / RelativeLength(n, x0, dir);  // infinite for a zero dir
  }

  LxMallocaPtr block;
  double* const xt = block.AllocateDoubles(2 * static_cast<std::size_t>(n));
  if (xt == nullptr) {
    LxThrow.Warning("out of memory allocating %d in LxNRLineSearch",
                    static_cast<int>(16 * static_cast<std::size_t>(n)));
    return false;
  }
  double* const gt = xt + n;

  double alam = initialStepMode_ == 1 ? 1.0 : *step;
  double alam2 = 1.0, f2 = 0.0;
  bool found;
  bool fullStepTried = false;
  for (;;) {
    detail::FormTrialPoint(n, x0, dir, alam, xt);
    const double f = func(xt);
    *fval = f;
    // Guard: a step that is not a finite number fails instead of looping. So
    // do a second trial at the full step (the quadratic backtrack from it
    // depends on nothing else, so the search would cycle; possible along an
    // ascent direction) and a step shrunk to zero (never below an alamin of 0,
    // as for an infinite direction).
    if (!(alam >= alamin) || !std::isfinite(alam) || (alam == 1.0 && fullStepTried) ||
        alam == 0.0) {
      found = false;
      break;
    }
    fullStepTried = fullStepTried || alam == 1.0;
    if (f <= fold + kSufficientDecrease * alam * slope) {
      found = true;
      break;
    }
    const double tmplam = BacktrackStep(alam, f, alam2, f2, fold, slope);
    alam2 = alam;
    f2 = f;
    // fmax: a step that is not a number (from values that are not numbers)
    // yields the 0.1 shrink, so the search still ends at alamin.
    alam = std::fmax(tmplam, kMostShrink * alam);
  }

  // Both outcomes: value and gradient at the last trial point, not at x0.
  *step = alam;
  detail::Zero(gt, n);
  *fval = func(xt, gt);
  detail::Copy(gt, gradOut, n);
  return found;
}

}  // namespace LxOpt
