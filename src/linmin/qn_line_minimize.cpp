// Line search of the quasi-Newton optimizers: safeguarded cubic interpolation
// with the sufficient-decrease and curvature (strong Wolfe) tests. Cubic step:
// Nocedal and Wright, Numerical Optimization, 2nd ed., eq. (3.59).
#include <cmath>

#include "linmin/cubic_search.h"
#include "lxopt/linmin.h"

namespace LxOpt {
namespace {

// True when a and b are equal or not comparable (a NaN among them).
bool SameOrUnordered(double a, double b) {
  return !(a < b || a > b);
}

}  // namespace

LxQNLineMinimize::LxQNLineMinimize(unsigned int maxTrials, double c1, double c2, double minStep)
    : c1_(c1), c2_(c2), minStep_(minStep), maxTrials_(maxTrials) {}

LxLineMinimize* LxQNLineMinimize::CreateCopy() const {
  return new LxQNLineMinimize(*this);
}

bool LxQNLineMinimize::operator()(unsigned int n, const double* x0, double* dir, double* grad0,
                                  double* gradOut, double* fval, double* step,
                                  LxFunc1& func) const {
  const double f0 = *fval;
  detail::CubicSearch search(n, f0, std::fmax(minStep_, *step));
  if (search.xt == nullptr) return false;

  // No trial at all (maxTrials 0) fails the final test.
  for (unsigned int t = 0; t < maxTrials_; ++t) {
    const detail::LineSample& trial = search.Sample(func, x0, dir, grad0);
    if (search.RetreatIfOvershot()) continue;
    // Negated tests: a ratio that is not a number passes them.
    if (!(trial.value > f0 + c1_ * search.a * search.slope0) &&
        !(std::fabs(trial.slope / search.slope0) > c2_))
      break;
    if (SameOrUnordered(search.prev.a, search.a) || SameOrUnordered(trial.slope, search.prev.s))
      return false;
    search.Interpolate();
  }

  // Deliberate: after spent trials the step is the next, unevaluated one; it
  // is reported while value and gradient are the last trial's.
  if (search.trial.value >= f0 || search.a < minStep_) return false;
  return search.Accept(gradOut, step, fval);
}

}  // namespace LxOpt
