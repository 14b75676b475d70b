// Packed inverse-Hessian algebra of the geometry driver: the product with a
// vector, the initial scaling of Shanno and Phua (D. F. Shanno and K. H.
// Phua, Math. Programming 14 (1978) 149; Nocedal & Wright, Numerical
// Optimization, 2nd ed., eq. 6.20), and the BFGS update (N&W eq. 6.17,
// expanded so that only H y is needed) with Powell's damping (M. J. D.
// Powell, Lecture Notes in Math. 630 (1978) 144; N&W procedure 18.2) in its
// inverse form: the roles of s and y swap, so s is damped towards H y.
// Before an update H may be scaled up when it is too small along y (the
// restricted self-scaling of Oren and Luenberger's factor, M. Al-Baali,
// J. Optim. Theory Appl. 96 (1998) 533, in its inverse form); the caller
// does so only in the first updates after a restart, as sizing studies
// advise (M. Contreras and R. A. Tapia, J. Optim. Theory Appl. 78 (1993) 93),
// so that later updates keep the pure BFGS end phase.
//
// Names: s = x_new - x_old (N&W s_k), y = g_new - g_old (y_k), rho = 1 / s.y.
#include <cmath>

#include "framework/internal.h"
#include "geomopt/geom_internal.h"

namespace LxOpt {
namespace geom {
namespace {

// Powell's damping: the pair is damped when s.y < kDampRatio y.Hy, to
// s.y = kDampRatio y.Hy.
constexpr double kDampRatio = 0.2;

}  // namespace

void ResetInverseHessian(double* h, unsigned int n, double scale) {
  detail::Zero(h, packed::Size(n));
  for (unsigned int i = 0; i < n; ++i) h[packed::Index(i, i)] = scale;
}

void MatXVec(const double* h, const double* v, double* out, unsigned int n) {
  detail::Zero(out, n);
  // Row i of the triangle holds H_ij for j <= i; each also stands for H_ji.
  for (unsigned int i = 0; i < n; ++i) {
    const double* row = h + packed::RowStart(i);
    double sum = 0.0;
    for (unsigned int j = 0; j < i; ++j) {
      sum += row[j] * v[j];
      out[j] += row[j] * v[i];
    }
    out[i] += sum + row[i] * v[i];
  }
}

void ScaleInverseHessian(double* h, unsigned int n, double factor) {
  const std::size_t size = packed::Size(n);
  for (std::size_t k = 0; k < size; ++k) h[k] *= factor;
}

bool ShannoPhuaScale(double* h, const double* s, const double* y, double* hy, unsigned int n) {
  MatXVec(h, y, hy, n);
  const double gamma = detail::Dot(s, y, n) / detail::Dot(y, hy, n);
  if (!(gamma > 0.0) || !std::isfinite(gamma)) return false;
  ScaleInverseHessian(h, n, gamma);
  return true;
}

double SelfScaleFactor(double sy, double yhy) {
  const double tau = sy / yhy;
  return tau > 1.0 && std::isfinite(tau) ? tau : 1.0;
}

bool UpdateInverseHessian(double* h, double* s, const double* y, double* hy, unsigned int n,
                          bool selfScale) {
  MatXVec(h, y, hy, n);
  double yhy = detail::Dot(y, hy, n);
  if (!(yhy > 0.0) || !std::isfinite(yhy)) return false;
  double sy = detail::Dot(s, y, n);
  // H is scaled by tau in the update loop below; H y and y.Hy scale with it.
  const double tau = selfScale ? SelfScaleFactor(sy, yhy) : 1.0;
  if (tau != 1.0) {
    for (unsigned int i = 0; i < n; ++i) hy[i] *= tau;
    yhy = sy;
  }
  if (!(sy >= kDampRatio * yhy)) {
    // theta = (1 - r) y.Hy / (y.Hy - s.y) gives s.y = r y.Hy for the new s.
    const double theta = (1.0 - kDampRatio) * yhy / (yhy - sy);
    for (unsigned int i = 0; i < n; ++i) s[i] = theta * s[i] + (1.0 - theta) * hy[i];
    sy = detail::Dot(s, y, n);
    if (!(sy > 0.0)) return false;
  }
  const double rho = 1.0 / sy;
  const double a = (1.0 + yhy * rho) * rho;  // coefficient of s s^T
  // H_ij = tau H_ij + a s_i s_j - rho (Hy_i s_j + s_i Hy_j)
  for (unsigned int i = 0; i < n; ++i) {
    double* row = h + packed::RowStart(i);
    const double asi = a * s[i], rhyi = rho * hy[i], rsi = rho * s[i];
    for (unsigned int j = 0; j <= i; ++j)
      row[j] = tau * row[j] + asi * s[j] - rhyi * s[j] - rsi * hy[j];
  }
  return true;
}

}  // namespace geom
}  // namespace LxOpt
