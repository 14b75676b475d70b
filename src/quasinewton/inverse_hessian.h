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

// Symmetric rank-two or rank-three update of the packed triangle, fused with the product
// of the new matrix and v, in one read-and-write pass over the triangle:
//   H_ij += (a s_i) s_j + (b p_i) p_j + (c u_i) u_j,   out := H_new v.
// With u == nullptr the third term is left out.
void UpdateAndMultiply(double* h, unsigned int n, const double* s, const double* p,
                       const double* u, double a, double b, double c, const double* v,
                       double* out);

// Turns the row-major n x n matrix in h into its packed lower triangle, in
// place.
void PackInPlace(double* h, unsigned int n);

// Writes the symmetric matrix whose packed lower triangle is h into the
// row-major n x n array full, skipping indices at or beyond count.
void Unpack(const double* h, unsigned int n, double* full, std::size_t count);

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_QUASINEWTON_INVERSE_HESSIAN_H
