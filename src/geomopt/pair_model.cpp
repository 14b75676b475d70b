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
// its energy scale is left to the caller. Given the elements, a pair's
// reference length is the sum of the atoms' covalent radii (B. Cordero et
// al., Dalton Trans. (2008) 2832), so that a C-C bond is as stiff in the
// model as a C-H bond, as in Lindh's model; the radii are rescaled to the
// geometry, so units of length still do not matter.
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

// Over the atoms of x, the mean distance to the nearest other atom and, with
// radii, the mean of that distance over the sum of the two atoms' radii: the
// factor from radius sums to lengths, so that nearest neighbours sit, on
// average, at their reference length (0 without radii).
struct NearestNeighbours {
  double meanDistance;
  double radiusScale;
};
NearestNeighbours MeasureNearest(const double* x, unsigned int atoms, const double* radii) {
  double distances = 0.0, ratios = 0.0;
  for (unsigned int a = 0; a < atoms; ++a) {
    double nearest = std::numeric_limits<double>::infinity();
    unsigned int b = a;
    for (unsigned int c = 0; c < atoms; ++c) {
      if (c == a) continue;
      const double r2 = PairDistance2(x, a, c);
      if (r2 < nearest) {
        nearest = r2;
        b = c;
      }
    }
    distances += std::sqrt(nearest);
    if (radii != nullptr) ratios += std::sqrt(nearest) / (radii[a] + radii[b]);
  }
  return {distances / atoms, ratios / atoms};
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

// Covalent radii for atomic numbers 1..96.
constexpr double kCovalentRadius[] = {
    0.31, 0.28, 1.28, 0.96, 0.84, 0.76, 0.71, 0.66, 0.57, 0.58, 1.66, 1.41, 1.21, 1.11, 1.07, 1.05,
    1.02, 1.06, 2.03, 1.76, 1.70, 1.60, 1.53, 1.39, 1.39, 1.32, 1.26, 1.24, 1.32, 1.22, 1.22, 1.20,
    1.19, 1.20, 1.20, 1.16, 2.20, 1.95, 1.90, 1.75, 1.64, 1.54, 1.47, 1.46, 1.42, 1.39, 1.45, 1.44,
    1.42, 1.39, 1.39, 1.38, 1.39, 1.40, 2.44, 2.15, 2.07, 2.04, 2.03, 2.01, 1.99, 1.98, 1.98, 1.96,
    1.94, 1.92, 1.92, 1.89, 1.90, 1.87, 1.87, 1.75, 1.70, 1.62, 1.51, 1.44, 1.41, 1.36, 1.36, 1.32,
    1.45, 1.46, 1.48, 1.40, 1.50, 1.50, 2.60, 2.21, 2.15, 2.06, 2.00, 1.96, 1.90, 1.87, 1.80, 1.69,
};
constexpr int kElements = sizeof(kCovalentRadius) / sizeof(kCovalentRadius[0]);

}  // namespace

bool CovalentRadii(const int* z, unsigned int atoms, double* radii) {
  for (unsigned int a = 0; a < atoms; ++a) {
    if (z[a] < 1 || z[a] > kElements) return false;
    radii[a] = kCovalentRadius[z[a] - 1];
  }
  return true;
}

bool FactorPairModel(const double* x, unsigned int n, double* model, double* nearest,
                     const double* radii) {
  if (n == 0 || n % 3 != 0) return false;
  const unsigned int atoms = n / 3;
  detail::Zero(model, std::size_t(n) * n);
  for (unsigned int i = 0; i < n; ++i) model[std::size_t(i) * n + i] = kStabilizer;
  if (atoms > 1) {
    const NearestNeighbours measured = MeasureNearest(x, atoms, radii);
    const double rnn = measured.meanDistance, scale = measured.radiusScale;
    if (!(rnn > 0.0) || !std::isfinite(rnn)) return false;
    if (nearest != nullptr) *nearest = rnn;
    if (radii != nullptr && !(scale > 0.0 && std::isfinite(scale))) return false;
    for (unsigned int a = 0; a < atoms; ++a) {
      for (unsigned int b = a + 1; b < atoms; ++b) {
        const double r2 = PairDistance2(x, a, b);
        const double reference = radii != nullptr ? scale * (radii[a] + radii[b]) : rnn;
        if (r2 > kCutoffRatio * kCutoffRatio * reference * reference || !(r2 > 0.0)) continue;
        AddSpring(x, a, b, std::exp(-kDecay * (std::sqrt(r2) / reference - 1.0)), model, n);
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
  return n >= 6 && n % 3 == 0 ? MeasureNearest(x, n / 3, nullptr).meanDistance : 0.0;
}

}  // namespace geom
}  // namespace LxOpt
