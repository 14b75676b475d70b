// Passes over the packed lower triangle of the inverse-Hessian approximation.
// The rows follow one another without gaps, so a pass is one sequential stream
// (measured: reading the rows of the lower triangle in place in an n x n array
// costs about as much as reading the whole array). Each row is processed once:
// its dot product with a vector gives the row's own entry of the product, and
// an axpy adds the row's share to the entries above it (the upper triangle's
// contribution, by symmetry). Sums are split into partial sums so that they
// vectorise without reassociation flags; results differ from plain loops by
// rounding only.
#include "quasinewton/inverse_hessian.h"

#include "framework/packed.h"

// On x86-64 the two passes are also compiled for AVX2 and chosen at load
// time. Without FMA the wider code does the same operations in the same order,
// so both give identical results.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define LXOPT_WIDE_VECTORS __attribute__((target_clones("avx2", "default")))
#else
#define LXOPT_WIDE_VECTORS
#endif

namespace LxOpt {
namespace detail {
namespace {

// The product kernels take the rows in pairs (i, i + 1): the two rows share
// every load of v and of out, and each row keeps two partial sums, so four
// independent sums are in flight.

// For j < len: d0 += r0[j] v[j], d1 += r1[j] v[j], out[j] += r0[j] w0 + r1[j] w1.
struct PairSums {
  double d0, d1;
};
inline PairSums DotPairAndAxpy(const double* __restrict r0, const double* __restrict r1,
                               std::size_t len, const double* __restrict v, double w0, double w1,
                               double* __restrict out) {
  double a0 = 0.0, a1 = 0.0, b0 = 0.0, b1 = 0.0;
  std::size_t j = 0;
  for (; j + 2 <= len; j += 2) {
    a0 += r0[j] * v[j];
    a1 += r0[j + 1] * v[j + 1];
    b0 += r1[j] * v[j];
    b1 += r1[j + 1] * v[j + 1];
    out[j] += r0[j] * w0 + r1[j] * w1;
    out[j + 1] += r0[j + 1] * w0 + r1[j + 1] * w1;
  }
  for (; j < len; ++j) {
    a0 += r0[j] * v[j];
    b0 += r1[j] * v[j];
    out[j] += r0[j] * w0 + r1[j] * w1;
  }
  return {a0 + a1, b0 + b1};
}

// The same after updating both rows: rk[j] += fsk s[j] + fpk p[j].
inline PairSums UpdatePairDotAndAxpy(double* __restrict r0, double* __restrict r1, std::size_t len,
                                     const double* __restrict s, const double* __restrict p,
                                     double fs0, double fp0, double fs1, double fp1,
                                     const double* __restrict v, double w0, double w1,
                                     double* __restrict out) {
  double a0 = 0.0, a1 = 0.0, b0 = 0.0, b1 = 0.0;
  std::size_t j = 0;
  for (; j + 2 <= len; j += 2) {
    const double h00 = r0[j] + fs0 * s[j] + fp0 * p[j];
    const double h01 = r0[j + 1] + fs0 * s[j + 1] + fp0 * p[j + 1];
    const double h10 = r1[j] + fs1 * s[j] + fp1 * p[j];
    const double h11 = r1[j + 1] + fs1 * s[j + 1] + fp1 * p[j + 1];
    r0[j] = h00;
    r0[j + 1] = h01;
    r1[j] = h10;
    r1[j + 1] = h11;
    a0 += h00 * v[j];
    a1 += h01 * v[j + 1];
    b0 += h10 * v[j];
    b1 += h11 * v[j + 1];
    out[j] += h00 * w0 + h10 * w1;
    out[j + 1] += h01 * w0 + h11 * w1;
  }
  for (; j < len; ++j) {
    const double h0 = r0[j] + fs0 * s[j] + fp0 * p[j];
    const double h1 = r1[j] + fs1 * s[j] + fp1 * p[j];
    r0[j] = h0;
    r1[j] = h1;
    a0 += h0 * v[j];
    b0 += h1 * v[j];
    out[j] += h0 * w0 + h1 * w1;
  }
  return {a0 + a1, b0 + b1};
}

}  // namespace

void SetIdentityPacked(double* h, unsigned int n) {
  for (unsigned int i = 0; i < n; ++i) {
    double* row = h + packed::RowStart(i);
    for (unsigned int j = 0; j < i; ++j) row[j] = 0.0;
    row[i] = 1.0;
  }
}

void SetIdentityFull(double* h, unsigned int n) {
  const std::size_t count = static_cast<std::size_t>(n) * n;
  for (std::size_t k = 0; k < count; ++k) h[k] = 0.0;
  for (unsigned int i = 0; i < n; ++i) h[static_cast<std::size_t>(i) * n + i] = 1.0;
}

LXOPT_WIDE_VECTORS
void SymmetricProduct(const double* h, unsigned int n, const double* v, double* out) {
  for (unsigned int i = 0; i < n; ++i) out[i] = 0.0;
  unsigned int i = 0;
  for (; i + 2 <= n; i += 2) {
    // Rows i and i + 1; e = H(i + 1, i) joins the 2 x 2 diagonal block.
    const double* r0 = h + packed::RowStart(i);
    const double* r1 = r0 + i + 1;
    const PairSums d = DotPairAndAxpy(r0, r1, i, v, v[i], v[i + 1], out);
    const double e = r1[i];
    out[i] += d.d0 + r0[i] * v[i] + e * v[i + 1];
    out[i + 1] += d.d1 + e * v[i] + r1[i + 1] * v[i + 1];
  }
  if (i < n) {
    // The last row of an odd n: its entries below the diagonal and H(i, i).
    const double* r = h + packed::RowStart(i);
    double sum = 0.0;
    for (unsigned int j = 0; j < i; ++j) {
      sum += r[j] * v[j];
      out[j] += r[j] * v[i];
    }
    out[i] += sum + r[i] * v[i];
  }
}

LXOPT_WIDE_VECTORS
void UpdateAndMultiply(double* h, unsigned int n, const double* s, const double* p,
                       const SymmetricUpdate& m, const double* v, double* out) {
  for (unsigned int i = 0; i < n; ++i) out[i] = 0.0;
  // Row factors: row k gains fs_k s + fp_k p.
  auto fs = [&](unsigned int k) { return m.ss * s[k] + m.sp * p[k]; };
  auto fp = [&](unsigned int k) { return m.sp * s[k] + m.pp * p[k]; };
  unsigned int i = 0;
  for (; i + 2 <= n; i += 2) {
    double* r0 = h + packed::RowStart(i);
    double* r1 = r0 + i + 1;
    const double fs0 = fs(i), fp0 = fp(i), fs1 = fs(i + 1), fp1 = fp(i + 1);
    const PairSums d =
        UpdatePairDotAndAxpy(r0, r1, i, s, p, fs0, fp0, fs1, fp1, v, v[i], v[i + 1], out);
    const double d0 = r0[i] + fs0 * s[i] + fp0 * p[i];
    const double e = r1[i] + fs1 * s[i] + fp1 * p[i];
    const double d1 = r1[i + 1] + fs1 * s[i + 1] + fp1 * p[i + 1];
    r0[i] = d0;
    r1[i] = e;
    r1[i + 1] = d1;
    out[i] += d.d0 + d0 * v[i] + e * v[i + 1];
    out[i + 1] += d.d1 + e * v[i] + d1 * v[i + 1];
  }
  if (i < n) {
    double* r = h + packed::RowStart(i);
    const double fsi = fs(i), fpi = fp(i);
    double sum = 0.0;
    for (unsigned int j = 0; j <= i; ++j) {
      r[j] += fsi * s[j] + fpi * p[j];
      sum += r[j] * v[j];
      if (j < i) out[j] += r[j] * v[i];
    }
    out[i] += sum;
  }
}

void PackInPlace(double* h, unsigned int n) {
  // Every value moves to a lower or equal index, in increasing order, so no
  // value is overwritten before it is read.
  for (unsigned int i = 1; i < n; ++i) {
    const double* from = h + static_cast<std::size_t>(i) * n;
    double* to = h + packed::RowStart(i);
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
        const double* row = h + packed::RowStart(i);
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
