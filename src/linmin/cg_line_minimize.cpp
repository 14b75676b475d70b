// Line search of the conjugate-gradient optimizers: safeguarded cubic
// interpolation with the sufficient-decrease and curvature (strong Wolfe)
// tests, where the first trial must land practically at the line minimum.
// Cubic step: Nocedal and Wright, Numerical Optimization, 2nd ed., eq. (3.59).
#include <cmath>

#include "linmin/cubic_search.h"
#include "lxopt/linmin.h"

namespace LxOpt {
namespace {

constexpr unsigned int kMaxTrials = 32;
constexpr double kMinStep = 1e-10;
constexpr double kSufficientDecrease = 1e-4;  // f(a) <= f0 + 1e-4 a slope0
constexpr double kCurvature = 0.9;            // |slope(a) / slope0| <= 0.9
constexpr double kFirstTrialCurvature = 1e-10;

}  // namespace

LxLineMinimize* LxCGLineMinimize::CreateCopy() const {
  return new LxCGLineMinimize();
}

bool LxCGLineMinimize::operator()(unsigned int n, const double* x0, double* dir, double* grad0,
                                  double* gradOut, double* fval, double* step,
                                  LxFunc1& func) const {
  const double f0 = *fval;
  detail::CubicSearch search(n, f0, std::fmax(kMinStep, *step));
  if (search.xt == nullptr) return false;

  for (unsigned int left = kMaxTrials; left > 0; --left) {
    const bool first = left == kMaxTrials;
    const detail::LineSample& trial = search.Sample(func, x0, dir, grad0);
    if (search.RetreatIfOvershot()) continue;
    // Negated tests: a ratio that is not a number (both slopes 0) passes them.
    // Deliberate: the first trial needs a practically zero slope, so the
    // curvature test alone never ends the search there.
    if (!(trial.value > f0 + kSufficientDecrease * search.a * search.slope0)) {
      const double r = std::fabs(trial.slope / search.slope0);
      if (!(r > kCurvature || (first && r > kFirstTrialCurvature))) break;
    }
    search.Interpolate();
  }

  // Deliberate: the caller's step, not the clamped one, is tested, so an entry
  // step below 1e-10 always fails; and after spent trials the step is the
  // next, unevaluated one, reported with the last trial's value and gradient.
  if (search.trial.value >= f0 || *step < kMinStep) return false;
  return search.Accept(gradOut, step, fval);
}

}  // namespace LxOpt
