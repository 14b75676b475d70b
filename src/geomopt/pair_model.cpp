// Pair model Hessian for Cartesian coordinates: every pair of atoms closer
// than a cutoff is a spring whose stiffness decays exponentially with its
// length relative to the nearest-neighbour distance,
//   k_ij = exp(-A (r_ij / r_nn - 1)),
// contributing k_ij (s e e^T + (1 - s) I) to the 3 x 3 blocks (ii, jj: +,
// ij, ji: -), with e the unit vector along the pair and s the share of the
// stretch (along-the-bond) form. The isotropic part is the exponential
// preconditioner of D. Packwood et al., J. Chem. Phys. 144 (2016) 164109;
// the stretch part follows the bond terms of R. Lindh et al., Chem. Phys.
// Lett. 241 (1995) 423, whose force constants also fall off exponentially
// with distance. A small multiple of the identity keeps P positive definite
// (rigid translations and rotations cost nothing in the springs). The model
// uses lengths only as ratios, so it does not depend on the units of length;
// its energy scale is left to the caller.
#include "geomopt/pair_model.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "framework/internal.h"
#include "framework/packed.h"

namespace LxOpt {
namespace geom {
namespace {

constexpr double kDecay = 3.0;         // A
constexpr double kCutoffRatio = 2.0;   // pairs farther than kCutoffRatio r_nn are left out
constexpr double kStretchShare = 0.5;  // s
constexpr double kStabilizer = 0.1;    // identity added, relative to a unit spring
// The model is rebuilt once an atom has moved this share of r_nn.
constexpr double kStaleShare = 0.3;

double PairDistance2(const double* x, unsigned int a, unsigned int b) {
  double sum = 0.0;
  for (unsigned int k = 0; k < 3; ++k) {
    const double d = x[3 * a + k] - x[3 * b + k];
    sum += d * d;
  }
  return sum;
}

// Mean over atoms of the distance to the nearest other atom.
double NearestNeighbourDistance(const double* x, unsigned int atoms) {
  double sum = 0.0;
  for (unsigned int a = 0; a < atoms; ++a) {
    double nearest = std::numeric_limits<double>::infinity();
    for (unsigned int b = 0; b < atoms; ++b)
      if (b != a) nearest = std::min(nearest, PairDistance2(x, a, b));
    sum += std::sqrt(nearest);
  }
  return sum / atoms;
}

void AddSpring(const double* x, unsigned int a, unsigned int b, double k, double* p,
               unsigned int n) {
  double e[3];
  double r = 0.0;
  for (unsigned int t = 0; t < 3; ++t) {
    e[t] = x[3 * a + t] - x[3 * b + t];
    r += e[t] * e[t];
  }
  r = std::sqrt(r);
  for (double& v : e) v /= r;
  for (unsigned int u = 0; u < 3; ++u) {
    for (unsigned int v = 0; v < 3; ++v) {
      const double block = k * (kStretchShare * e[u] * e[v] + (u == v ? 1.0 - kStretchShare : 0.0));
      p[std::size_t(3 * a + v) * n + 3 * a + u] += block;
      p[std::size_t(3 * b + v) * n + 3 * b + u] += block;
      p[std::size_t(3 * b + v) * n + 3 * a + u] -= block;
      p[std::size_t(3 * a + v) * n + 3 * b + u] -= block;
    }
  }
}

// Cholesky in place on the column-major lower triangle; false when a pivot
// is not positive.
bool Cholesky(double* p, unsigned int n) {
  for (unsigned int j = 0; j < n; ++j) {
    double* colj = p + std::size_t(j) * n;
    for (unsigned int k = 0; k < j; ++k) {
      const double* colk = p + std::size_t(k) * n;
      const double ljk = colk[j];
      for (unsigned int i = j; i < n; ++i) colj[i] -= ljk * colk[i];
    }
    if (!(colj[j] > 0.0) || !std::isfinite(colj[j])) return false;
    const double d = std::sqrt(colj[j]);
    for (unsigned int i = j; i < n; ++i) colj[i] /= d;
  }
  return true;
}

}  // namespace

bool FactorPairModel(const double* x, unsigned int n, double* model, double* nearest) {
  if (n == 0 || n % 3 != 0) return false;
  const unsigned int atoms = n / 3;
  detail::Zero(model, std::size_t(n) * n);
  for (unsigned int i = 0; i < n; ++i) model[std::size_t(i) * n + i] = kStabilizer;
  if (atoms > 1) {
    const double rnn = NearestNeighbourDistance(x, atoms);
    if (!(rnn > 0.0) || !std::isfinite(rnn)) return false;
    if (nearest != nullptr) *nearest = rnn;
    const double cutoff2 = kCutoffRatio * kCutoffRatio * rnn * rnn;
    for (unsigned int a = 0; a < atoms; ++a) {
      for (unsigned int b = a + 1; b < atoms; ++b) {
        const double r2 = PairDistance2(x, a, b);
        if (r2 > cutoff2 || !(r2 > 0.0)) continue;
        AddSpring(x, a, b, std::exp(-kDecay * (std::sqrt(r2) / rnn - 1.0)), model, n);
      }
    }
  }
  return Cholesky(model, n);
}

bool PairModelIsStale(const double* x, const double* xModel, unsigned int n, double nearest) {
  double largest = 0.0;
  for (unsigned int i = 0; i + 2 < n; i += 3) {
    double d2 = 0.0;
    for (unsigned int k = i; k < i + 3; ++k) d2 += (x[k] - xModel[k]) * (x[k] - xModel[k]);
    largest = std::max(largest, d2);
  }
  return std::sqrt(largest) > kStaleShare * nearest;
}

void SolvePairModel(const double* model, unsigned int n, double* v) {
  // L z = v, then L^T v = z; L's column j is contiguous.
  for (unsigned int j = 0; j < n; ++j) {
    const double* col = model + std::size_t(j) * n;
    v[j] /= col[j];
    const double vj = v[j];
    for (unsigned int i = j + 1; i < n; ++i) v[i] -= col[i] * vj;
  }
  for (unsigned int j = n; j-- > 0;) {
    const double* col = model + std::size_t(j) * n;
    double sum = v[j];
    for (unsigned int i = j + 1; i < n; ++i) sum -= col[i] * v[i];
    v[j] = sum / col[j];
  }
}

void PackedPairModelInverse(const double* model, unsigned int n, double* h, double* work) {
  for (unsigned int j = 0; j < n; ++j) {
    detail::Zero(work, n);
    work[j] = 1.0;
    SolvePairModel(model, n, work);
    // Column j of P^-1 gives the elements (i, j), i >= j, of the triangle.
    for (unsigned int i = j; i < n; ++i) h[packed::Index(i, j)] = work[i];
  }
}

double MeanNearestDistance(const double* x, unsigned int n) {
  return n >= 6 && n % 3 == 0 ? NearestNeighbourDistance(x, n / 3) : 0.0;
}

}  // namespace geom
}  // namespace LxOpt
