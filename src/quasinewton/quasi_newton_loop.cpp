// The quasi-Newton iteration: a line search along d, a move to the accepted
// point, a report, and the next direction from the policy; a failed search
// restarts once from the re-evaluated point.
#include "quasinewton/quasi_newton_loop.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "framework/internal.h"
#include "lxopt/host.h"

namespace LxOpt {
namespace detail {

int ByteCountForMessage(std::size_t bytes) {
  return bytes > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(bytes);
}

QuasiNewtonDirections::~QuasiNewtonDirections() = default;

const char* QuasiNewtonDirections::OutOfMemoryFormat() const {
  return "out of memory allocating %d in LxBFGSOpt::operator()";
}

bool QuasiNewtonDirections::NullGradientOnNoOpt() const {
  return false;
}

bool QuasiNewtonDirections::Begin() {
  return true;
}

void QuasiNewtonDirections::End(double) {}

double RunQuasiNewton(const SearchSettings& settings, QuasiNewtonDirections& directions,
                      LxFunc1& func, LxCheckpoint1* checkpoint, const double* in, double* out) {
  const unsigned int n = func.NumVar();
  const std::size_t count = directions.ScratchCount(n);
  LxMallocaPtr block;
  double* const g = block.AllocateDoubles(count);
  if (out == nullptr) {
    LxThrow.Warning("memory not provided for optimized variables");
    return 0.0;
  }
  if (g == nullptr) {
    const std::size_t bytes = count > SIZE_MAX / sizeof(double) ? SIZE_MAX : count * sizeof(double);
    LxThrow.Warning(directions.OutOfMemoryFormat(), ByteCountForMessage(bytes));
    return 0.0;
  }
  double* const d = g + n;
  double* const w = d + n;
  double* const x = out;
  if (out != in && n != 0) std::memmove(out, in, sizeof(double) * n);
  directions.Bind(w + n, n, x);

  Zero(g, n);
  double f = func(x, g);
  double gg = SquaredNorm(g, n);
  double step = 0.0;
  const auto finish = [&](unsigned int iter, unsigned int state) {
    directions.End(step);
    const bool noGradient = state == kLxNoOpt && directions.NullGradientOnNoOpt();
    return Finish(checkpoint, iter, n, f, std::sqrt(gg), x, noGradient ? nullptr : g, state);
  };
  const double tolerance = settings.tolerance;
  if (gg < tolerance) return finish(0, kLxNoOpt);
  if (!directions.Begin()) return 0.0;

  LxLineMinimize& search = settings.search;
  step = directions.StartDirection(g, gg, d, false);
  search.SetMaxStep(n, x);

  unsigned int k = 0;
  for (; k < settings.iterLimit; ++k) {
    if (!search(n, x, d, g, w, &f, &step, func)) {
      // Deliberate: f is whatever the failed search left.
      if (!directions.CanRestart()) return finish(k, kLxNotFound);
      // Restart from the current point, re-evaluated because some line
      // minimizers leave the last trial's value in f when they fail.
      directions.Forget();
      Zero(g, n);
      f = func(x, g);
      gg = SquaredNorm(g, n);
      if (gg < tolerance) return finish(k, kLxDone);
      step = directions.StartDirection(g, gg, d, true);
      continue;
    }
    gg = directions.Accept(step, d, w, x, g);
    if (!Report(checkpoint, k, n, f, std::sqrt(gg), x, g, kLxCont)) return finish(k, kLxDone);
    if (gg < tolerance) return finish(k, kLxDone);
    if (!directions.NextDirection(k, g, d, &step)) return finish(k, kLxDone);
  }
  return finish(k, kLxExhaust);
}

}  // namespace detail
}  // namespace LxOpt
