// Gaussian-process surrogate step (after the GPMin method of E. Garijo del
// Rio et al., J. Chem. Phys. 150 (2019) 094107): values and gradients of the
// points seen are fitted with a squared-exponential kernel around a constant
// prior mean, the largest value seen, and the model's mean is minimised from
// the best point with a small L-BFGS on the model alone. Everything is
// computed in scaled units, coordinates over the length l and values over the
// energy scale s, so the steps do not depend on the units. The factor of the
// kernel matrix is extended row by row for points added at the same noise,
// and rebuilt when the noise changes or the oldest point leaves.
#include "geomopt/surrogate_step.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "framework/internal.h"
#include "geomopt/pair_model.h"

namespace LxOpt {
namespace geom {
namespace {

// l = kLengthShare r_nn (Cartesian) or kLengthShare times the RMS coordinate.
constexpr double kLengthShare = 0.2;
// s = kWeightRatio l |largest atomic gradient at the start|.
constexpr double kWeightRatio = 1.0;
// Noise of values and gradients in scaled units at the start (what GPMin's
// defaults come to in its own units), then in proportion to the square root
// of the largest atomic gradient at the current point relative to the start:
// it keeps the kernel matrix positive definite and shrinks as the forces
// still to be resolved do.
constexpr double kNoise = 4e-4;
// At most kMaxPoints points are kept, and no more than make a kernel matrix
// of kMaxSystem rows.
constexpr unsigned int kMaxPoints = 40;
constexpr unsigned int kMaxSystem = 800;
// No atom moves farther than kStepCap length scales in one surrogate step.
constexpr double kStepCap = 2.0;
// Inner minimisation of the mean: L-BFGS memory, iterations, and the
// gradient reduction at which it stops.
constexpr unsigned int kInnerMemory = 5;
constexpr unsigned int kInnerIterations = 200;
constexpr double kInnerReduction = 1e-4;

unsigned int Capacity(unsigned int n) {
  return std::max(2u, std::min(kMaxPoints, kMaxSystem / (n + 1)));
}

// Largest gradient of an atom (triple), or component when n is not a
// multiple of 3.
double LargestAtomNorm(const double* v, unsigned int n) {
  const unsigned int width = n % 3 == 0 ? 3 : 1;
  double largest = 0.0;
  for (unsigned int a = 0; a + width <= n; a += width) {
    double sum = 0.0;
    for (unsigned int k = 0; k < width; ++k) sum += v[a + k] * v[a + k];
    largest = std::max(largest, sum);
  }
  return std::sqrt(largest);
}

}  // namespace

std::size_t Surrogate::ScratchSize(unsigned int n) {
  const std::size_t m = Capacity(n);
  const std::size_t rows = m * (n + 1);
  return m * n + rows + rows * rows + rows + 6 * std::size_t(n) +
         2 * std::size_t(kInnerMemory) * n + 2 * kInnerMemory;
}

Surrogate::Surrogate(unsigned int n, double* scratch) : n_(n), capacity_(Capacity(n)) {
  if (scratch == nullptr) return;
  const std::size_t rows = std::size_t(capacity_) * (n + 1);
  points_ = scratch;
  values_ = points_ + std::size_t(capacity_) * n;
  chol_ = values_ + rows;
  alpha_ = chol_ + rows * rows;
  work_ = alpha_ + rows;
}

void Surrogate::Start(const double* x, const double* g) {
  count_ = 0;
  factored_ = 0;
  double length = MeanNearestDistance(x, n_);
  if (!(length > 0.0)) length = std::sqrt(detail::SquaredNorm(x, n_) / std::max(n_, 1u));
  length_ = kLengthShare * length;
  weight_ = kWeightRatio * length_ * LargestAtomNorm(g, n_);
  usable_ = length_ > 0.0 && weight_ > 0.0 && std::isfinite(length_) && std::isfinite(weight_);
}

void Surrogate::Add(const double* x, double f, const double* g) {
  if (!usable_ || !std::isfinite(f)) return;
  if (count_ == capacity_) {
    // The oldest point leaves; the factor is rebuilt on the next proposal.
    std::memmove(points_, points_ + n_, sizeof(double) * (count_ - 1) * n_);
    std::memmove(values_, values_ + n_ + 1, sizeof(double) * (count_ - 1) * (n_ + 1));
    --count_;
    factored_ = 0;
  }
  double* p = points_ + std::size_t(count_) * n_;
  double* v = values_ + std::size_t(count_) * (n_ + 1);
  for (unsigned int i = 0; i < n_; ++i) p[i] = x[i] / length_;
  v[0] = f;
  detail::Copy(g, v + 1, n_);
  if (count_ == 0 || f > prior_) prior_ = f;
  ++count_;
}

// Rows of the kernel matrix for the points from firstPoint on, then their
// rows of the Cholesky factor (row-oriented: earlier rows stay valid).
bool Surrogate::ExtendFactor(unsigned int firstPoint) {
  const unsigned int b1 = n_ + 1;
  const std::size_t stride = std::size_t(capacity_) * b1;
  for (unsigned int a = firstPoint; a < count_; ++a) {
    const double* ua = points_ + std::size_t(a) * n_;
    for (unsigned int b = 0; b <= a; ++b) {
      const double* ub = points_ + std::size_t(b) * n_;
      double* d = work_;  // u_a - u_b
      double r2 = 0.0;
      for (unsigned int i = 0; i < n_; ++i) {
        d[i] = ua[i] - ub[i];
        r2 += d[i] * d[i];
      }
      const double e = std::exp(-0.5 * r2);
      for (unsigned int p = 0; p < b1; ++p) {
        double* row = chol_ + (std::size_t(a) * b1 + p) * stride + std::size_t(b) * b1;
        const unsigned int last = b == a ? p + 1 : b1;  // lower triangle only
        for (unsigned int q = 0; q < last; ++q) {
          double k;
          if (p == 0)
            k = q == 0 ? e : e * d[q - 1];
          else if (q == 0)
            k = -e * d[p - 1];
          else
            k = e * ((p == q ? 1.0 : 0.0) - d[p - 1] * d[q - 1]);
          row[q] = k;
        }
      }
    }
    for (unsigned int p = 0; p < b1; ++p) {
      const std::size_t r = std::size_t(a) * b1 + p;
      chol_[r * stride + r] += noise_ * noise_;
    }
  }
  const std::size_t first = std::size_t(firstPoint) * b1;
  const std::size_t rows = std::size_t(count_) * b1;
  for (std::size_t i = first; i < rows; ++i) {
    double* li = chol_ + i * stride;
    for (std::size_t j = 0; j <= i; ++j) {
      const double* lj = chol_ + j * stride;
      double sum = li[j];
      for (std::size_t k = 0; k < j; ++k) sum -= li[k] * lj[k];
      if (j < i) {
        li[j] = sum / lj[j];
      } else {
        if (!(sum > 0.0)) return false;
        li[i] = std::sqrt(sum);
      }
    }
  }
  return true;
}

bool Surrogate::Refactor() {
  if (!ExtendFactor(factored_)) {
    factored_ = 0;
    return false;
  }
  factored_ = count_;
  // alpha = K^-1 (y - prior), in scaled values.
  const unsigned int b1 = n_ + 1;
  const std::size_t stride = std::size_t(capacity_) * b1;
  const std::size_t rows = std::size_t(count_) * b1;
  for (std::size_t i = 0; i < rows; ++i) {
    const double y = values_[i];
    alpha_[i] = i % b1 == 0 ? (y - prior_) / weight_ : y * length_ / weight_;
  }
  for (std::size_t i = 0; i < rows; ++i) {
    const double* li = chol_ + i * stride;
    double sum = alpha_[i];
    for (std::size_t k = 0; k < i; ++k) sum -= li[k] * alpha_[k];
    alpha_[i] = sum / li[i];
  }
  for (std::size_t i = rows; i-- > 0;) {
    double sum = alpha_[i];
    for (std::size_t k = i + 1; k < rows; ++k) sum -= chol_[k * stride + i] * alpha_[k];
    alpha_[i] = sum / chol_[i * stride + i];
  }
  return true;
}

double Surrogate::Mean(const double* u, double* grad) const {
  const unsigned int b1 = n_ + 1;
  detail::Zero(grad, n_);
  double mean = 0.0;
  for (unsigned int b = 0; b < count_; ++b) {
    const double* ub = points_ + std::size_t(b) * n_;
    const double* ab = alpha_ + std::size_t(b) * b1;
    double r2 = 0.0;
    double ad = 0.0;  // alpha_g . d
    for (unsigned int i = 0; i < n_; ++i) {
      const double d = u[i] - ub[i];
      r2 += d * d;
      ad += ab[i + 1] * d;
    }
    const double e = std::exp(-0.5 * r2);
    mean += e * (ab[0] + ad);
    const double along = -e * (ab[0] + ad);
    for (unsigned int i = 0; i < n_; ++i) grad[i] += along * (u[i] - ub[i]) + e * ab[i + 1];
  }
  return mean;
}

// L-BFGS with a backtracking (Armijo) search on the mean.
void Surrogate::MinimiseMean(double* u) {
  double* g = work_;
  double* dir = g + n_;
  double* ut = dir + n_;
  double* gt = ut + n_;
  double* sMem = gt + n_ + 2 * std::size_t(n_);
  double* yMem = sMem + std::size_t(kInnerMemory) * n_;
  double* rho = yMem + std::size_t(kInnerMemory) * n_;
  double* coef = rho + kInnerMemory;
  unsigned int stored = 0;
  unsigned int next = 0;
  double f = Mean(u, g);
  const double g0 = std::sqrt(detail::SquaredNorm(g, n_));
  for (unsigned int it = 0; it < kInnerIterations; ++it) {
    const double gn = std::sqrt(detail::SquaredNorm(g, n_));
    if (!(gn > kInnerReduction * g0)) return;
    // Two-loop recursion; the first step moves one length scale at most.
    for (unsigned int i = 0; i < n_; ++i) dir[i] = -g[i];
    for (unsigned int k = 0; k < stored; ++k) {
      const unsigned int slot = (next + kInnerMemory - 1 - k) % kInnerMemory;
      coef[slot] = rho[slot] * detail::Dot(sMem + std::size_t(slot) * n_, dir, n_);
      detail::Axpy(-coef[slot], yMem + std::size_t(slot) * n_, dir, n_);
    }
    if (stored > 0) {
      const unsigned int newest = (next + kInnerMemory - 1) % kInnerMemory;
      const double* yn = yMem + std::size_t(newest) * n_;
      const double gamma = 1.0 / (rho[newest] * detail::SquaredNorm(yn, n_));
      for (unsigned int i = 0; i < n_; ++i) dir[i] *= gamma;
    } else {
      for (unsigned int i = 0; i < n_; ++i) dir[i] /= std::max(gn, 1.0);
    }
    for (unsigned int k = stored; k-- > 0;) {
      const unsigned int slot = (next + kInnerMemory - 1 - k) % kInnerMemory;
      const double beta = rho[slot] * detail::Dot(yMem + std::size_t(slot) * n_, dir, n_);
      detail::Axpy(coef[slot] - beta, sMem + std::size_t(slot) * n_, dir, n_);
    }
    double slope = detail::Dot(g, dir, n_);
    if (!(slope < 0.0)) {
      for (unsigned int i = 0; i < n_; ++i) dir[i] = -g[i] / std::max(gn, 1.0);
      slope = detail::Dot(g, dir, n_);
      stored = 0;
    }
    double step = 1.0;
    double ft = 0.0;
    bool accepted = false;
    for (int tries = 0; tries < 30 && !accepted; ++tries, step *= 0.5) {
      for (unsigned int i = 0; i < n_; ++i) ut[i] = u[i] + step * dir[i];
      ft = Mean(ut, gt);
      accepted = ft <= f + 1e-4 * step * slope;
    }
    if (!accepted) return;
    double* s = sMem + std::size_t(next) * n_;
    double* y = yMem + std::size_t(next) * n_;
    for (unsigned int i = 0; i < n_; ++i) {
      s[i] = ut[i] - u[i];
      y[i] = gt[i] - g[i];
    }
    const double sy = detail::Dot(s, y, n_);
    if (sy > 0.0) {
      rho[next] = 1.0 / sy;
      next = (next + 1) % kInnerMemory;
      stored = std::min(stored + 1, kInnerMemory);
    }
    detail::Copy(ut, u, n_);
    detail::Copy(gt, g, n_);
    f = ft;
  }
}

bool Surrogate::Propose(const double* x, const double* g, double* xTrial) {
  if (!usable_ || count_ == 0) return false;
  // The noise follows the gradient at the current point (see kNoise).
  const double noise =
      kNoise * std::sqrt(kWeightRatio * length_ * LargestAtomNorm(g, n_) / weight_);
  if (!(noise > 0.0) || !std::isfinite(noise)) return false;
  if (noise != noise_) {
    noise_ = noise;
    factored_ = 0;
  }
  if (!Refactor()) return false;
  double* u0 = work_ + 4 * std::size_t(n_);
  double* g0 = u0 + n_;
  for (unsigned int i = 0; i < n_; ++i) u0[i] = x[i] / length_;
  const double start = Mean(u0, g0);
  double* u = xTrial;
  detail::Copy(u0, u, n_);
  MinimiseMean(u);
  for (unsigned int i = 0; i < n_; ++i) g0[i] = u[i] - u0[i];
  const double move = LargestAtomNorm(g0, n_);
  if (!(move > 0.0) || !std::isfinite(move)) return false;
  const double shrink = move > kStepCap ? kStepCap / move : 1.0;
  for (unsigned int i = 0; i < n_; ++i) u[i] = u0[i] + shrink * g0[i];
  // work_ (the inner gradient) is free again here.
  if (!(Mean(u, work_) < start)) return false;
  for (unsigned int i = 0; i < n_; ++i) xTrial[i] = u[i] * length_;
  return true;
}

}  // namespace geom
}  // namespace LxOpt
