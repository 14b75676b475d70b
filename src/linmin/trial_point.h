// The one-dimensional view of an objective along x0 + a * dir, shared by the
// line minimizers.
#ifndef LXOPT_SRC_LINMIN_TRIAL_POINT_H
#define LXOPT_SRC_LINMIN_TRIAL_POINT_H

#include <cstddef>

#include "framework/internal.h"
#include "lxopt/function.h"
#include "lxopt/host.h"

namespace LxOpt {
namespace detail {

// Value and directional derivative dir . g at one trial point.
struct LineSample {
  double value;
  double slope;
};

// xt = x0 + a * dir
inline void FormTrialPoint(std::size_t n, const double* x0, const double* dir, double a,
                           double* xt) {
  for (std::size_t i = 0; i < n; ++i) xt[i] = x0[i] + a * dir[i];
}

// Forms xt = x0 + a * dir and zeroes gt in one pass, evaluates value and
// gradient there and returns the value with the slope dir . gt: one
// evaluation. When grad0 is given, the same pass also stores grad0 . dir, the
// slope at x0, in *slope0 (the first trial of a search).
inline LineSample SampleLine(LxFunc1& func, std::size_t n, const double* x0, const double* dir,
                             double a, double* xt, double* gt, const double* grad0 = nullptr,
                             double* slope0 = nullptr) {
  if (grad0 != nullptr) {
    double s0 = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
      xt[i] = x0[i] + a * dir[i];
      gt[i] = 0.0;
      s0 += grad0[i] * dir[i];
    }
    *slope0 = s0;
  } else {
    for (std::size_t i = 0; i < n; ++i) {
      xt[i] = x0[i] + a * dir[i];
      gt[i] = 0.0;
    }
  }
  const double value = func(xt, gt);
  return {value, Dot(dir, gt, n)};
}

// The 2n-double block (trial point, trial gradient) of a line search, or
// nullptr after the out-of-memory warning. The message names the
// conjugate-gradient optimizer for every line minimizer; the text is kept as
// clients know it.
inline double* AllocateLineWorkspace(LxMallocaPtr& block, std::size_t n) {
  double* const xt = block.AllocateDoubles(2 * n);
  if (xt == nullptr)
    LxThrow.Warning("out of memory allocating %d in LxConjGradOpt", static_cast<int>(16 * n));
  return xt;
}

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_LINMIN_TRIAL_POINT_H
