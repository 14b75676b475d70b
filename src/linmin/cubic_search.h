// The frame the CG and quasi-Newton line searches share: their workspace, the
// trials along x0 + a * dir, the retreat after an overshoot and the cubic
// update of the step. Each search keeps its own loop with its acceptance test,
// exits and final test.
#ifndef LXOPT_SRC_LINMIN_CUBIC_SEARCH_H
#define LXOPT_SRC_LINMIN_CUBIC_SEARCH_H

#include <cstddef>

#include "framework/internal.h"
#include "linmin/cubic_step.h"
#include "linmin/trial_point.h"
#include "lxopt/function.h"
#include "lxopt/host.h"

namespace LxOpt {
namespace detail {

struct CubicSearch {
  // value0: f at x0; step: the first trial step. Allocates the 2n workspace
  // (xt is nullptr after the out-of-memory warning).
  CubicSearch(std::size_t count, double value0, double step)
      : n(count), xt(AllocateLineWorkspace(block, count)), f0(value0), a(step) {}

  // Evaluates the trial at a. The first call also forms slope0 from grad0 and
  // makes (0, f0, slope0) the origin and the previous point; later calls
  // ignore grad0.
  const LineSample& Sample(LxFunc1& func, const double* x0, const double* dir,
                           const double* grad0) {
    const bool first = !sampled;
    trial = SampleLine(func, n, x0, dir, a, xt, xt + n, first ? grad0 : nullptr, &slope0);
    if (first) prev = origin = {0.0, f0, slope0};
    sampled = true;
    return trial;
  }

  // Overshot while still descending: shortens a to a third, restarts the
  // interpolation from the origin and returns true.
  bool RetreatIfOvershot() {
    if (!(trial.slope < 0.0 && trial.value > f0)) return false;
    a /= 3.0;
    prev = origin;
    return true;
  }

  // a = the safeguarded cubic step through prev and the last trial, which
  // becomes prev.
  void Interpolate() {
    const LinePoint cur{a, trial.value, trial.slope};
    a = SafeguardedCubicStep(prev, cur);
    prev = cur;
  }

  // Out: gradOut = the last trial's gradient, *step = a, *fval = the last
  // trial's value. Returns true.
  bool Accept(double* gradOut, double* step, double* fval) const {
    Copy(xt + n, gradOut, n);
    *step = a;
    *fval = trial.value;
    return true;
  }

  LxMallocaPtr block;
  std::size_t n;
  double* xt;  // trial point; the trial gradient follows it
  double f0;
  double a;             // the step of the next trial
  double slope0 = 0.0;  // grad0 . dir, formed in the first trial's pass
  LinePoint origin{0.0, f0, 0.0};
  LinePoint prev = origin;
  LineSample trial{f0, 0.0};  // the last trial; (f0, 0) before any
  bool sampled = false;
};

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_LINMIN_CUBIC_SEARCH_H
