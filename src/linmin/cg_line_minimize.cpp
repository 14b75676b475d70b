// Line search of the conjugate-gradient optimizers: safeguarded cubic
// interpolation with the sufficient-decrease and curvature (strong Wolfe)
// tests, where the first trial must land practically at the line minimum.
// Cubic step: Nocedal and Wright, Numerical Optimization, 2nd ed., eq. (3.59).
#include <cmath>

#include "linmin/cubic_step.h"
#include "linmin/trial_point.h"
#include "lxopt/linmin.h"

namespace LxOpt {
namespace {

constexpr unsigned int kMaxTrials = 32;
constexpr double kMinStep = 1e-10;
constexpr double kSufficientDecrease = 1e-4;  // f(a) <= f0 + 1e-4 a slope0
constexpr double kCurvature = 0.9;            // |slope(a) / slope0| <= 0.9
constexpr double kFirstTrialCurvature = 1e-10;

}  // namespace

LxLineMinimize* LxCGLineMinimize::CreateCopy() const { return new LxCGLineMinimize(); }

bool LxCGLineMinimize::operator()(unsigned int n, const double* x0, double* dir,
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
  double a = std::fmax(kMinStep, *step);
  detail::LineSample trial{f0, 0.0};

  for (unsigned int left = kMaxTrials; left > 0; --left) {
    const bool first = left == kMaxTrials;
    trial = detail::SampleLine(func, n, x0, dir, a, xt, gt, first ? grad0 : nullptr, &slope0);
    if (first) prev = origin = {0.0, f0, slope0};
    // Overshot while still descending: shorten and restart from the origin.
    if (trial.slope < 0.0 && trial.value > f0) {
      a /= 3.0;
      prev = origin;
      continue;
    }
    // Negated tests: a ratio that is not a number (both slopes 0) passes them.
    // Intended: the first trial needs a practically zero slope, so the
    // curvature test alone never ends the search there.
    if (!(trial.value > f0 + kSufficientDecrease * a * slope0)) {
      const double r = std::fabs(trial.slope / slope0);
      if (!(r > kCurvature || (first && r > kFirstTrialCurvature))) break;
    }
    const detail::LinePoint cur{a, trial.value, trial.slope};
    a = detail::SafeguardedCubicStep(prev, cur);
    prev = cur;
  }

  // Intended: the caller's step, not the clamped one, is tested, so an entry
  // step below 1e-10 always fails; and after spent trials a is the next,
  // unevaluated step, reported with the last trial's value and gradient.
  if (trial.value >= f0 || *step < kMinStep) return false;
  detail::Copy(gt, gradOut, n);
  *step = a;
  *fval = trial.value;
  return true;
}

}  // namespace LxOpt
