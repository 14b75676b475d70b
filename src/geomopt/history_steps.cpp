// History steps of the geometry driver, tried after each accepted line-search
// step when history is enabled:
//  - GDIIS (diis): Csaszar & Pulay, J. Mol. Struct. 114 (1984) 31. The
//    coefficients c minimise |sum c_i g_i| subject to sum c_i = 1 (Lagrange
//    system [B 1; 1^T 0][c; l] = [0; 1] with B_ij = g_i.g_j); the new point is
//    sum c_i x_i - H sum c_i g_i.
//  - subspace: the quasi-Newton step within the span of the displacements
//    S = [x - x_i] of the stored points. With Y = [g - g_i], a quadratic model
//    gives g(x + S c) ~ g + Y c; asking S^T g(x + S c) = 0 yields
//    sym(S^T Y) c = -S^T g, and the step is S c.
// Both solve systems of at most 16 unknowns on fixed-capacity matrices, so
// nothing is allocated.
#include <Eigen/Dense>
#include <cmath>

#include "framework/internal.h"
#include "geomopt/geom_internal.h"

namespace LxOpt {
namespace geom {
namespace {

constexpr unsigned int kMinEntries = 3;
// The history length never exceeds 15, so systems have at most 16 unknowns.
constexpr int kMaxSystem = 16;
// GDIIS coefficients larger than this mean an extrapolation far outside the
// stored points: not trusted.
constexpr double kMaxCoefficient = 10.0;

using SmallMatrix =
    Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::ColMajor, kMaxSystem, kMaxSystem>;
using SmallVector = Eigen::Matrix<double, Eigen::Dynamic, 1, Eigen::ColMajor, kMaxSystem, 1>;

const double* Point(const History& h, unsigned int slot) {
  return h.points + std::size_t(slot) * h.n;
}
const double* Gradient(const History& h, unsigned int slot) {
  return h.gradients + std::size_t(slot) * h.n;
}

// Slot of the k-th entry, oldest first.
unsigned int Slot(const History& h, unsigned int k) {
  return (h.next + h.m - h.count + k) % h.m;
}

bool WithinStep(const double* from, const double* to, unsigned int n, double maxStep) {
  for (unsigned int i = 0; i < n; ++i)
    if (!(std::fabs(to[i] - from[i]) <= maxStep)) return false;
  return true;
}

}  // namespace

void PushHistory(History& history, const double* x, const double* g) {
  if (history.m == 0) return;
  const std::size_t offset = std::size_t(history.next) * history.n;
  detail::Copy(x, history.points + offset, history.n);
  detail::Copy(g, history.gradients + offset, history.n);
  history.next = (history.next + 1) % history.m;
  if (history.count < history.m) ++history.count;
}

bool DiisPoint(History& history, const double* h, const double* x, double* xTrial, double* work,
               double maxStep) {
  const unsigned int k = history.count;
  const unsigned int n = history.n;
  if (k < kMinEntries) return false;
  SmallMatrix b(k + 1, k + 1);
  for (unsigned int i = 0; i < k; ++i) {
    for (unsigned int j = 0; j <= i; ++j)
      b(i, j) = b(j, i) =
          detail::Dot(Gradient(history, Slot(history, i)), Gradient(history, Slot(history, j)), n);
    b(i, k) = b(k, i) = 1.0;
  }
  b(k, k) = 0.0;
  SmallVector rhs = SmallVector::Zero(k + 1);
  rhs(k) = 1.0;
  const Eigen::FullPivLU<SmallMatrix> lu(b);
  if (!lu.isInvertible()) return false;
  const SmallVector c = lu.solve(rhs);
  for (unsigned int i = 0; i < k; ++i) {
    if (!(std::fabs(c(i)) <= kMaxCoefficient)) return false;
    history.coef[i] = c(i);
  }

  // xTrial = sum c_i x_i, work = sum c_i g_i, then xTrial -= H work.
  double* const gbar = work;
  double* const hg = work + n;
  detail::Zero(xTrial, n);
  detail::Zero(gbar, n);
  for (unsigned int i = 0; i < k; ++i) {
    const unsigned int slot = Slot(history, i);
    detail::Axpy(c(i), Point(history, slot), xTrial, n);
    detail::Axpy(c(i), Gradient(history, slot), gbar, n);
  }
  MatXVec(h, gbar, hg, n);
  detail::Axpy(-1.0, hg, xTrial, n);
  return WithinStep(x, xTrial, n, maxStep);
}

bool SubspacePoint(const History& history, const double* x, const double* g, double* xTrial,
                   double maxStep) {
  if (history.count < kMinEntries) return false;
  const unsigned int n = history.n;
  // Every stored entry but the newest, which is the current point.
  const unsigned int k = history.count - 1;
  auto sDotV = [&](unsigned int i, const double* v) {
    const double* xi = Point(history, Slot(history, i));
    double sum = 0.0;
    for (unsigned int t = 0; t < n; ++t) sum += (x[t] - xi[t]) * v[t];
    return sum;
  };
  SmallMatrix a(k, k);
  SmallVector rhs(k);
  for (unsigned int i = 0; i < k; ++i) {
    const double* xi = Point(history, Slot(history, i));
    for (unsigned int j = 0; j < k; ++j) {
      const double* gj = Gradient(history, Slot(history, j));
      double sum = 0.0;
      for (unsigned int t = 0; t < n; ++t) sum += (x[t] - xi[t]) * (g[t] - gj[t]);
      a(i, j) = sum;
    }
    rhs(i) = -sDotV(i, g);
  }
  const SmallMatrix sym = 0.5 * (a + a.transpose());
  const Eigen::LDLT<SmallMatrix> ldlt(sym);
  if (ldlt.info() != Eigen::Success || !(ldlt.vectorD().minCoeff() > 0.0)) return false;
  const SmallVector c = ldlt.solve(rhs);

  detail::Copy(x, xTrial, n);
  for (unsigned int i = 0; i < k; ++i) {
    const double* xi = Point(history, Slot(history, i));
    for (unsigned int t = 0; t < n; ++t) xTrial[t] += c(i) * (x[t] - xi[t]);
  }
  return WithinStep(x, xTrial, n, maxStep);
}

}  // namespace geom
}  // namespace LxOpt
