// Directions from the dense inverse Hessian (variable-metric method): d = -H g
// and, after each search, an update of H from s = x_new - x_old and
// y = g_new - g_old. Reference: Press et al., Numerical Recipes, 3rd ed.,
// section 10.9 (dfpmin); Nocedal and Wright, Numerical Optimization, 2nd ed.,
// section 6.1 (the BFGS and DFP inverse updates). Names: s, y as in the books;
// Hy = H y; yHy = y.Hy; sy = s.y.
#include <cmath>

#include "framework/internal.h"
#include "quasinewton/dense_directions.h"
#include "quasinewton/inverse_hessian.h"

namespace LxOpt {
namespace detail {
namespace {

// The run's block holds seven vectors of n doubles, the size that has always
// decided between stack and heap: the loop's gradient, direction and search
// gradient, then step, gradient change, H y, and one left unused because the
// BFGS vector u is never formed (inverse_hessian.h).
constexpr std::size_t kScratchVectors = 7;

void Negate(const double* from, double* to, unsigned int n) {
  for (unsigned int i = 0; i < n; ++i) to[i] = -from[i];
}

}  // namespace

double QuasiNewtonMatrix::FirstStep(double gg) const {
  return std::sqrt(1.0 / gg);
}

void QuasiNewtonMatrix::Restart(double* h, unsigned int n) {
  SetIdentityPacked(h, n);
}

void QuasiNewtonMatrix::Keep(const double*, unsigned int, double) {}

std::size_t QuasiNewtonMatrix::ScratchCount(unsigned int n) const {
  return kScratchVectors * static_cast<std::size_t>(n);
}

void QuasiNewtonMatrix::Bind(double* scratch, unsigned int n, const double*) {
  n_ = n;
  s_ = scratch;
  y_ = s_ + n;
  hy_ = y_ + n;
}

bool QuasiNewtonMatrix::Begin() {
  h_ = Acquire(n_);
  return h_ != nullptr;
}

double QuasiNewtonMatrix::StartDirection(const double* g, double gg, double* d, bool restart) {
  Negate(g, d, n_);
  slope_ = -gg;
  fresh_ = true;
  return restart ? std::sqrt(1.0 / gg) : FirstStep(gg);
}

// Moves to the accepted point: s = step d, x += s, y = w - g, g = w.
double QuasiNewtonMatrix::Accept(double step, const double* d, const double* w, double* x,
                                 double* g) {
  for (unsigned int i = 0; i < n_; ++i) {
    s_[i] = step * d[i];
    x[i] += s_[i];
    y_[i] = w[i] - g[i];
    g[i] = w[i];
  }
  return SquaredNorm(g, n_);
}

bool QuasiNewtonMatrix::NextDirection(unsigned int k, const double* g, double* d, double* step) {
  SymmetricProduct(h_, n_, y_, hy_);
  const double sy = Dot(s_, y_, n_);
  const double yHy = Dot(y_, hy_, n_);
  if (sy == 0.0 || yHy == 0.0) return false;
  const double a = 1.0 / sy;
  const double b = -1.0 / yHy;
  SymmetricUpdate m{a, 0.0, b};
  if (update_ == QuasiNewtonUpdate::kBFGS) {
    const double c = yHy;  // weight of u u', u = a s + b Hy
    m = {a + c * a * a, c * a * b, b + c * b * b};
  }
  UpdateAndMultiply(h_, n_, s_, hy_, m, g, d);
  Negate(d, d, n_);  // d = -H g

  // Scale the trial step by the ratio of the previous slope to the new one.
  const double newSlope = Dot(g, d, n_);
  if (k != 0) *step *= slope_ / newSlope;
  slope_ = newSlope;
  fresh_ = false;
  return true;
}

void QuasiNewtonMatrix::End(double step) {
  if (h_ != nullptr) Keep(h_, n_, step);
}

}  // namespace detail
}  // namespace LxOpt
