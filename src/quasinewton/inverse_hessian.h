// Kernels on the dense inverse-Hessian approximation H of the quasi-Newton
// optimizers. H is symmetric; inside a run it lives as its lower triangle,
// packed by rows ((i, j), j <= i, at i(i+1)/2 + j) at the start of the n x n
// block the run allocates, so every pass touches half the matrix in one
// contiguous stream. The full row-major matrix is formed only when H leaves
// the run (Unpack) or enters it (PackInPlace).
#ifndef LXOPT_SRC_QUASINEWTON_INVERSE_HESSIAN_H
#define LXOPT_SRC_QUASINEWTON_INVERSE_HESSIAN_H

#include <cstddef>

namespace LxOpt {
namespace detail {

// Packed h := I.
void SetIdentityPacked(double* h, unsigned int n);

// Full n x n identity (both triangles).
void SetIdentityFull(double* h, unsigned int n);

// out := H v, reading the packed triangle once.
void SymmetricProduct(const double* h, unsigned int n, const double* v, double* out);

// The update H += [s p] M [s p]' with the symmetric 2 x 2 matrix
// M = [ss sp; sp pp]. Both formulas take this form:
//   DFP   H += a s s' + b p p'                      M = [a 0; 0 b]
//   BFGS  H += a s s' + b p p' + c u u',  u = a s + b p,
//                                   M = [a + c a^2, c a b; c a b, b + c b^2]
// (with p = H y, a = 1/s.y, b = -1/yHy, c = yHy), so each entry costs two
// products whichever formula is used.
struct SymmetricUpdate {
  double ss, sp, pp;
};

// Applies the update to the packed triangle and forms out := H_new v in the
// same read-and-write pass.
void UpdateAndMultiply(double* h, unsigned int n, const double* s, const double* p,
                       const SymmetricUpdate& m, const double* v, double* out);

// Turns the row-major n x n matrix in h into its packed lower triangle, in
// place.
void PackInPlace(double* h, unsigned int n);

// Writes the symmetric matrix whose packed lower triangle is h into the
// row-major n x n array full, skipping indices at or beyond count.
void Unpack(const double* h, unsigned int n, double* full, std::size_t count);

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_QUASINEWTON_INVERSE_HESSIAN_H
