// Line search of the quasi-Newton optimizers: safeguarded cubic interpolation
// with the sufficient-decrease and curvature (strong Wolfe) tests. Cubic step:
// Nocedal and Wright, Numerical Optimization, 2nd ed., eq. (3.59).
#include <cmath>

#include "linmin/cubic_step.h"
#include "linmin/trial_point.h"
#include "lxopt/linmin.h"

namespace LxOpt {
namespace {

// True when a and b are equal or not comparable (a NaN among them).
bool SameOrUnordered(double a, double b) { return !(a < b || a > b); }

}  // namespace

LxQNLineMinimize::LxQNLineMinimize(unsigned int maxTrials, double c1, double c2,
                                   double minStep)
    : c1_(c1), c2_(c2), minStep_(minStep), maxTrials_(maxTrials) {}

LxLineMinimize* LxQNLineMinimize::CreateCopy() const { return new LxQNLineMinimize(*this); }

bool LxQNLineMinimize::operator()(unsigned int n, const double* x0, double* dir,
                                  double* grad0, double* gradOut, double* fval,
                                  double* step, LxFunc1& func) const {
  LxMallocaPtr block;
  double* const xt = detail::AllocateLineWorkspace(block, n);
  if (xt == nullptr) return false;
  double* const gt = xt + n;

  const double f0 = *fval;
  double slope0 = 0.0;  // grad0 . dir, formed in the first trial's pass
  detail::LinePoint origin{0.0, f0, 0.0};
  detail::LinePoint prev = origin;
  double a = std::fmax(minStep_, *step);
  detail::LineSample trial{f0, 0.0};  // no trial at all (maxTrials 0) fails

  for (unsigned int t = 0; t < maxTrials_; ++t) {
    const bool first = t == 0;
    trial = detail::SampleLine(func, n, x0, dir, a, xt, gt, first ? grad0 : nullptr, &slope0);
    if (first) prev = origin = {0.0, f0, slope0};
    // Overshot while still descending: shorten and restart from the origin.
    if (trial.slope < 0.0 && trial.value > f0) {
      a /= 3.0;
      prev = origin;
      continue;
    }
    // Negated tests: a ratio that is not a number passes them.
    if (!(trial.value > f0 + c1_ * a * slope0) &&
        !(std::fabs(trial.slope / slope0) > c2_))
      break;
    if (SameOrUnordered(prev.a, a) || SameOrUnordered(trial.slope, prev.s)) return false;
    const detail::LinePoint cur{a, trial.value, trial.slope};
    a = detail::SafeguardedCubicStep(prev, cur);
    prev = cur;
  }

  // After spent trials a is the next, unevaluated step; it is reported as the
  // step while value and gradient are the last trial's. Intended.
  if (trial.value >= f0 || a < minStep_) return false;
  detail::Copy(gt, gradOut, n);
  *step = a;
  *fval = trial.value;
  return true;
}

}  // namespace LxOpt
