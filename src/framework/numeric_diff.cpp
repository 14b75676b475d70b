// Central finite differences: f'(x) ~ (f(x + h) - f(x - h)) / 2h, exact for
// quadratics (and, applied to an exact gradient, for cubics); error O(h²).
// See any numerical analysis text, e.g. Nocedal & Wright, Numerical
// Optimization, 2nd ed., section 8.1.
#include <cstddef>
#include <limits>

#include "framework/internal.h"
#include "framework/packed.h"
#include "lxopt/host.h"
#include "lxopt/numeric.h"

namespace LxOpt {
namespace {

// Value and gradient at xp, the gradient into g zeroed first.
double GradientInto(LxFunc1& func, const double* xp, double* g, unsigned int n) {
  detail::Zero(g, n);
  return func(xp, g);
}

// One scratch block of `blocks` arrays of n doubles, the first holding a copy
// of x; nullptr after reporting the failure on behalf of `caller`.
double* WorkingBlock(LxMallocaPtr& block, const double* x, unsigned int n, unsigned int blocks,
                     const char* caller) {
  const std::size_t count = static_cast<std::size_t>(n) * blocks;
  double* const xp = block.AllocateDoubles(count);
  if (xp == nullptr) {
    LxThrow.Warning("out of memory allocating %d in %s", static_cast<int>(count * sizeof(double)),
                    caller);
    return nullptr;
  }
  detail::Copy(x, xp, n);
  return xp;
}

}  // namespace

double NumericGradients(LxFunc0& func, const double* x, double* grad, double h) {
  const unsigned int n = func.NumVar();
  LxMallocaPtr block;
  double* const xp = WorkingBlock(block, x, n, 1, "NumericGradients");
  if (xp == nullptr) return 0.0;
  for (unsigned int i = 0; i < n; ++i) {
    xp[i] += h;
    const double fplus = func(xp);
    xp[i] -= 2.0 * h;
    const double fminus = func(xp);
    xp[i] += h;  // restored by arithmetic, not copied back
    grad[i] += (fplus - fminus) / (2.0 * h);
  }
  return func(x);
}

double NumericHessian(LxFunc1& func, const double* x, double* hessian, double h) {
  const unsigned int n = func.NumVar();
  LxMallocaPtr block;
  double* const xp = WorkingBlock(block, x, n, 2, "NumericHessian");
  if (xp == nullptr) return 0.0;
  double* const g = xp + n;
  for (unsigned int i = 0; i < n; ++i) {
    for (unsigned int j = 0; j <= i; ++j) {
      // Deliberate: both gradients are evaluated afresh for every element,
      // n (n + 1) evaluations in all; the values do not depend on it.
      xp[i] += h;
      GradientInto(func, xp, g, n);
      const double gplus = g[j];
      xp[i] -= 2.0 * h;
      GradientInto(func, xp, g, n);
      const double gminus = g[j];
      xp[i] += h;
      hessian[packed::Index(i, j)] += (gplus - gminus) / (2.0 * h);
    }
  }
  return func(x);
}

double NumericHessianElement(LxFunc1& func, const double* x, unsigned int row, unsigned int column,
                             double h) {
  const unsigned int r = row > column ? row : column;
  const unsigned int c = row > column ? column : row;
  const unsigned int n = func.NumVar();
  // Deliberate: only r > n is rejected; r == n passes (callers keep r < n).
  if (n < r) {
    LxThrow.Warning("Hessian row or column number can't exceed Hessian dimension");
    return std::numeric_limits<double>::max();
  }
  LxMallocaPtr block;
  double* const xp = WorkingBlock(block, x, n, 2, "NumericHessianElement");
  if (xp == nullptr) return 0.0;
  double* const g = xp + n;
  xp[r] += h;
  GradientInto(func, xp, g, n);
  const double gplus = g[c];
  xp[r] -= 2.0 * h;
  GradientInto(func, xp, g, n);
  const double gminus = g[c];
  xp[r] += h;
  return (gplus - gminus) / (2.0 * h);
}

GradDiff DifferentialGradients(LxFunc1& func, const double* x, unsigned int index, double h) {
  const unsigned int n = func.NumVar();
  GradDiff record{index, 2.0 * h, {}, {}};
  if (index >= n) {
    LxThrow.Warning("Index passed is outside the variables range");
    return record;
  }
  LxMallocaPtr block;
  double* const xp = WorkingBlock(block, x, n, 1, "DifferentialGradients");
  if (xp == nullptr) return record;
  record.gplus.assign(n, 0.0);
  record.gminus.assign(n, 0.0);
  xp[index] += h;
  func(xp, record.gplus.data());
  xp[index] -= 2.0 * h;
  func(xp, record.gminus.data());
  xp[index] += h;
  return record;
}

bool NumericHessian(const std::vector<GradDiff>& records, double* hessian) {
  if (hessian == nullptr) {
    LxThrow.Warning("Hessian array is not allocated");
    return false;
  }
  if (records.empty()) {
    // Deliberate: the text, "Numeriv" included, is matched by callers.
    LxThrow.Warning("Numeriv Hessian failed: container with differential gradients is empty");
    return false;
  }
  for (const GradDiff& d : records) {
    const unsigned int i = d.index;
    // A failed record (empty arrays) or a short one has nothing to add.
    if (d.gplus.size() <= i || d.gminus.size() <= i) continue;
    for (unsigned int j = 0; j <= i; ++j)
      hessian[packed::Index(i, j)] += (d.gplus[j] - d.gminus[j]) / d.denominator;
  }
  return true;
}

double NumericFunc1::operator()(const double* x, double* grad) {
  detail::Zero(grad, func_->NumVar());
  return NumericGradients(*func_, x, grad);
}

}  // namespace LxOpt
