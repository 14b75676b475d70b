// Packed inverse-Hessian algebra of the geometry driver: the product with a
// vector and the BFGS update (Nocedal & Wright, Numerical Optimization, 2nd
// ed., eq. 6.17, expanded so that only H y is needed).
//
// Names: s = x_new - x_old (N&W s_k), y = g_new - g_old (y_k), rho = 1 / s.y.
#include <cmath>

#include "framework/internal.h"
#include "geomopt/geom_internal.h"

namespace LxOpt {
namespace geom {
namespace {

// Curvature s.y must exceed this fraction of |s| |y| for an update.
constexpr double kMinCurvature = 1e-10;

}  // namespace

void ResetInverseHessian(double* h, unsigned int n, double scale) {
  detail::Zero(h, PackedSize(n));
  for (unsigned int i = 0; i < n; ++i) h[PackedSize(i) + i] = scale;
}

void MatXVec(const double* h, const double* v, double* out, unsigned int n) {
  detail::Zero(out, n);
  // Row i of the triangle holds H_ij for j <= i; each also stands for H_ji.
  for (unsigned int i = 0; i < n; ++i) {
    const double* row = h + PackedSize(i);
    double sum = 0.0;
    for (unsigned int j = 0; j < i; ++j) {
      sum += row[j] * v[j];
      out[j] += row[j] * v[i];
    }
    out[i] += sum + row[i] * v[i];
  }
}

void ScaleInverseHessian(double* h, unsigned int n, double factor) {
  const std::size_t size = PackedSize(n);
  for (std::size_t k = 0; k < size; ++k) h[k] *= factor;
}

bool UpdateInverseHessian(double* h, const double* s, const double* y, double* hy,
                          unsigned int n) {
  const double sy = detail::Dot(s, y, n);
  const double bound = kMinCurvature * std::sqrt(detail::SquaredNorm(s, n) *
                                                 detail::SquaredNorm(y, n));
  if (!(sy > bound)) return false;
  MatXVec(h, y, hy, n);
  const double yhy = detail::Dot(y, hy, n);
  const double rho = 1.0 / sy;
  const double a = (1.0 + yhy * rho) * rho;  // coefficient of s s^T
  // H_ij += a s_i s_j - rho (Hy_i s_j + s_i Hy_j)
  for (unsigned int i = 0; i < n; ++i) {
    double* row = h + PackedSize(i);
    for (unsigned int j = 0; j <= i; ++j)
      row[j] += a * s[i] * s[j] - rho * (hy[i] * s[j] + s[i] * hy[j]);
  }
  return true;
}

}  // namespace geom
}  // namespace LxOpt
