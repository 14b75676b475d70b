// The quasi-Newton iteration (variable-metric method): d = -H g, a line search
// along d, then an update of H from s = x_new - x_old and y = g_new - g_old.
// Reference: Press et al., Numerical Recipes, 3rd ed., section 10.9 (dfpmin);
// Nocedal and Wright, Numerical Optimization, 2nd ed., section 6.1 (the BFGS
// and DFP inverse updates). Names: s, y as in the books; Hy = H y; yHy = y.Hy;
// sy = s.y.
#include <climits>
#include <cmath>
#include <cstring>

#include "framework/internal.h"
#include "lxopt/host.h"
#include "quasinewton/inverse_hessian.h"
#include "quasinewton/quasi_newton_loop.h"

namespace LxOpt {
namespace detail {
namespace {

// The run's block holds seven vectors of n doubles, the size that has always
// decided between stack and heap: current gradient, direction, the line
// search's gradient at the accepted point, step, gradient change, H y, and one
// left unused because the BFGS vector u is never formed (inverse_hessian.h).
constexpr std::size_t kScratchVectors = 7;

void Negate(const double* from, double* to, unsigned int n) {
  for (unsigned int i = 0; i < n; ++i) to[i] = -from[i];
}

// Moves to the accepted point: s = step d, x += s, y = w - g, g = w.
void AcceptStep(unsigned int n, double step, const double* d, const double* w, double* x, double* g,
                double* s, double* y) {
  for (unsigned int i = 0; i < n; ++i) {
    s[i] = step * d[i];
    x[i] += s[i];
    y[i] = w[i] - g[i];
    g[i] = w[i];
  }
}

}  // namespace

int ByteCountForMessage(std::size_t bytes) {
  return bytes > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(bytes);
}

QuasiNewtonMatrix::~QuasiNewtonMatrix() = default;

double QuasiNewtonMatrix::FirstStep(double gg) const {
  return std::sqrt(1.0 / gg);
}

void QuasiNewtonMatrix::Restart(double* h, unsigned int n) {
  SetIdentityPacked(h, n);
}

void QuasiNewtonMatrix::Keep(const double*, unsigned int, double) {}

double RunQuasiNewton(const LxQNSettings& settings, QuasiNewtonMatrix& matrix, unsigned int n,
                      LxFunc1& func, LxCheckpoint1* checkpoint, const double* in, double* out) {
  const std::size_t vectorCount = kScratchVectors * static_cast<std::size_t>(n);
  LxMallocaPtr block;
  double* const g = block.AllocateDoubles(vectorCount);
  if (out == nullptr) {
    LxThrow.Warning("memory not provided for optimized variables");
    return 0.0;
  }
  if (g == nullptr) {
    LxThrow.Warning("out of memory allocating %d in LxBFGSOpt::operator()",
                    ByteCountForMessage(vectorCount * sizeof(double)));
    return 0.0;
  }
  double* const d = g + n;
  double* const w = d + n;
  double* const s = w + n;
  double* const y = s + n;
  double* const hy = y + n;

  double* const x = out;
  if (out != in && n != 0) std::memmove(out, in, sizeof(double) * n);
  Zero(g, n);
  double f = func(x, g);
  double gg = SquaredNorm(g, n);
  const double tolerance = settings.tolerance;
  if (gg < tolerance) {
    Report(checkpoint, 0, n, f, std::sqrt(gg), x, matrix.nullGradientOnNoOpt() ? nullptr : g,
           kLxNoOpt);
    return f;
  }

  double* const h = matrix.Acquire(n);
  if (h == nullptr) return 0.0;

  LxLineMinimize& search = *settings.lineMinimize;
  Negate(g, d, n);
  double slope = -gg;
  double step = matrix.FirstStep(gg);
  bool fresh = true;  // H has just been (re)started; d = -g
  search.SetMaxStep(n, x);

  auto finish = [&](unsigned int iter, unsigned int state) {
    matrix.Keep(h, n, step);
    Report(checkpoint, iter, n, f, std::sqrt(gg), x, g, state);
    return f;
  };

  unsigned int k = 0;
  for (; k < settings.iterLimit; ++k) {
    if (!search(n, x, d, g, w, &f, &step, func)) {
      if (fresh) return finish(k, kLxNotFound);
      // Restart along -g from the current point, re-evaluated because some
      // line minimizers leave the last trial's value in f when they fail.
      matrix.Restart(h, n);
      Zero(g, n);
      f = func(x, g);
      gg = SquaredNorm(g, n);
      if (gg < tolerance) return finish(k, kLxDone);
      Negate(g, d, n);
      slope = -gg;
      step = std::sqrt(1.0 / gg);
      fresh = true;
      continue;
    }

    AcceptStep(n, step, d, w, x, g, s, y);
    gg = SquaredNorm(g, n);
    if (!Report(checkpoint, k, n, f, std::sqrt(gg), x, g, kLxCont)) return finish(k, kLxDone);
    if (gg < tolerance) return finish(k, kLxDone);

    SymmetricProduct(h, n, y, hy);
    const double sy = Dot(s, y, n);
    const double yHy = Dot(y, hy, n);
    if (sy == 0.0 || yHy == 0.0) return finish(k, kLxDone);
    const double a = 1.0 / sy;
    const double b = -1.0 / yHy;
    SymmetricUpdate m{a, 0.0, b};
    if (matrix.update() == QuasiNewtonUpdate::kBFGS) {
      const double c = yHy;  // weight of u u', u = a s + b Hy
      m = {a + c * a * a, c * a * b, b + c * b * b};
    }
    UpdateAndMultiply(h, n, s, hy, m, g, d);
    Negate(d, d, n);  // d = -H g

    // Scale the trial step by the ratio of the previous slope to the new one.
    const double newSlope = Dot(g, d, n);
    if (k != 0) step *= slope / newSlope;
    slope = newSlope;
    fresh = false;
  }
  return finish(k, kLxExhaust);
}

}  // namespace detail
}  // namespace LxOpt
