// The opening shared by the conjugate-gradient optimizers.
#ifndef LXOPT_SRC_CONJGRAD_RUN_START_H
#define LXOPT_SRC_CONJGRAD_RUN_START_H

#include <cstddef>
#include <cstring>

#include "framework/internal.h"
#include "lxopt/function.h"
#include "lxopt/host.h"

namespace LxOpt {
namespace detail {

// Checks the out array, sets *n = func.NumVar(), copies x0 to x (they may be
// the same array) and returns the 6n-double workspace of the run from block.
// Returns nullptr after a warning when x is null or the workspace cannot be
// had; outOfMemoryFormat is that warning, with %d for the byte count.
inline double* BeginConjGradRun(LxFunc1& func, const double* x0, double* x, LxMallocaPtr& block,
                                const char* outOfMemoryFormat, unsigned int* n) {
  if (x == nullptr) {
    LxThrow.Warning("memory not provided for optimized variables");
    return nullptr;
  }
  *n = func.NumVar();
  if (x != x0) std::memmove(x, x0, sizeof(double) * *n);
  double* const work = block.AllocateDoubles(6 * static_cast<std::size_t>(*n));
  if (work == nullptr)
    LxThrow.Warning(outOfMemoryFormat, static_cast<int>(48 * static_cast<std::size_t>(*n)));
  return work;
}

// One evaluation at x: g = its gradient (zeroed first), *gg = g . g and
// d = -g. Returns the value.
inline double SteepestDescentAt(LxFunc1& func, unsigned int n, const double* x, double* g,
                                double* d, double* gg) {
  Zero(g, n);
  const double f = func(x, g);
  *gg = SquaredNorm(g, n);
  for (unsigned int i = 0; i < n; ++i) d[i] = -g[i];
  return f;
}

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_CONJGRAD_RUN_START_H
