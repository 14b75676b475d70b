// Passes over the packed lower triangle of the inverse-Hessian approximation.
// The rows follow one another without gaps, so a pass is one sequential stream
// (measured: reading the rows of the lower triangle in place in an n x n array
// costs about as much as reading the whole array). Each row is processed once: its dot product with a vector gives
// the row's own entry of the product, and an axpy adds the row's share to the
// entries above it (the upper triangle's contribution, by symmetry). Dot
// products use four partial sums so that they vectorise without reassociation
// flags; the results differ from a plain loop by rounding only.
#include "quasinewton/inverse_hessian.h"

namespace LxOpt {
namespace detail {
namespace {

// Returns sum_j row[j] v[j] over j < len and adds row[j] * w to out[j].
inline double DotAndAxpy(const double* __restrict row, std::size_t len,
                         const double* __restrict v, double w, double* __restrict out) {
  double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
  std::size_t j = 0;
  for (; j + 4 <= len; j += 4) {
    s0 += row[j] * v[j];
    s1 += row[j + 1] * v[j + 1];
    s2 += row[j + 2] * v[j + 2];
    s3 += row[j + 3] * v[j + 3];
    out[j] += row[j] * w;
    out[j + 1] += row[j + 1] * w;
    out[j + 2] += row[j + 2] * w;
    out[j + 3] += row[j + 3] * w;
  }
  for (; j < len; ++j) {
    s0 += row[j] * v[j];
    out[j] += row[j] * w;
  }
  return (s0 + s1) + (s2 + s3);
}

// row[j] += fs s[j] + fp p[j] (+ fu u[j]) for j < len; then as DotAndAxpy.
template <bool kThirdTerm>
inline double UpdateDotAndAxpy(double* __restrict row, std::size_t len,
                               const double* __restrict s, double fs,
                               const double* __restrict p, double fp,
                               const double* __restrict u, double fu,
                               const double* __restrict v, double w, double* __restrict out) {
  double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
  std::size_t j = 0;
  auto updated = [&](std::size_t k) {
    double h = row[k] + fs * s[k] + fp * p[k];
    if constexpr (kThirdTerm) h += fu * u[k];
    row[k] = h;
    out[k] += h * w;
    return h * v[k];
  };
  for (; j + 4 <= len; j += 4) {
    s0 += updated(j);
    s1 += updated(j + 1);
    s2 += updated(j + 2);
    s3 += updated(j + 3);
  }
  for (; j < len; ++j) s0 += updated(j);
  return (s0 + s1) + (s2 + s3);
}

inline std::size_t RowStart(unsigned int i) { return static_cast<std::size_t>(i) * (i + 1) / 2; }

template <bool kThirdTerm>
void UpdateRows(double* h, unsigned int n, const double* s, const double* p, const double* u,
                double a, double b, double c, const double* v, double* out) {
  for (unsigned int i = 0; i < n; ++i) out[i] = 0.0;
  for (unsigned int i = 0; i < n; ++i) {
    double* row = h + RowStart(i);
    const double fs = a * s[i], fp = b * p[i], fu = kThirdTerm ? c * u[i] : 0.0;
    const double below = UpdateDotAndAxpy<kThirdTerm>(row, i, s, fs, p, fp, u, fu, v, v[i], out);
    double diagonal = row[i] + fs * s[i] + fp * p[i];
    if constexpr (kThirdTerm) diagonal += fu * u[i];
    row[i] = diagonal;
    out[i] += below + diagonal * v[i];
  }
}

}  // namespace

void SetIdentityPacked(double* h, unsigned int n) {
  for (unsigned int i = 0; i < n; ++i) {
    double* row = h + RowStart(i);
    for (unsigned int j = 0; j < i; ++j) row[j] = 0.0;
    row[i] = 1.0;
  }
}

void SetIdentityFull(double* h, unsigned int n) {
  const std::size_t count = static_cast<std::size_t>(n) * n;
  for (std::size_t k = 0; k < count; ++k) h[k] = 0.0;
  for (unsigned int i = 0; i < n; ++i) h[static_cast<std::size_t>(i) * n + i] = 1.0;
}

void SymmetricProduct(const double* h, unsigned int n, const double* v, double* out) {
  for (unsigned int i = 0; i < n; ++i) out[i] = 0.0;
  for (unsigned int i = 0; i < n; ++i) {
    const double* row = h + RowStart(i);
    out[i] += DotAndAxpy(row, i, v, v[i], out) + row[i] * v[i];
  }
}

void UpdateAndMultiply(double* h, unsigned int n, const double* s, const double* p,
                       const double* u, double a, double b, double c, const double* v,
                       double* out) {
  if (u != nullptr)
    UpdateRows<true>(h, n, s, p, u, a, b, c, v, out);
  else
    UpdateRows<false>(h, n, s, p, u, a, b, c, v, out);
}

void PackInPlace(double* h, unsigned int n) {
  // Every value moves to a lower or equal index, in increasing order, so no
  // value is overwritten before it is read.
  for (unsigned int i = 1; i < n; ++i) {
    const double* from = h + static_cast<std::size_t>(i) * n;
    double* to = h + RowStart(i);
    for (unsigned int j = 0; j <= i; ++j) to[j] = from[j];
  }
}

void Unpack(const double* h, unsigned int n, double* full, std::size_t count) {
  // Tiles keep the columns being written in cache.
  constexpr unsigned int kTile = 64;
  for (unsigned int i0 = 0; i0 < n; i0 += kTile) {
    const unsigned int i1 = i0 + kTile < n ? i0 + kTile : n;
    for (unsigned int j0 = 0; j0 <= i0; j0 += kTile) {
      for (unsigned int i = i0; i < i1; ++i) {
        const double* row = h + RowStart(i);
        const unsigned int j1 = j0 + kTile < i + 1 ? j0 + kTile : i + 1;
        for (unsigned int j = j0; j < j1; ++j) {
          const std::size_t lower = static_cast<std::size_t>(i) * n + j;
          const std::size_t upper = static_cast<std::size_t>(j) * n + i;
          if (lower < count) full[lower] = row[j];
          if (upper < count) full[upper] = row[j];
        }
      }
    }
  }
}

}  // namespace detail
}  // namespace LxOpt
