// Kernels on the dense inverse-Hessian approximation H of the quasi-Newton
// optimizers. H is symmetric and stored row-major in an n x n block, but the
// loops read and write only its lower triangle (row i, columns 0..i): every
// pass then touches half the matrix, row by row, contiguously. The upper
// triangle is filled only when the matrix leaves the run (Mirror).
#ifndef LXOPT_SRC_QUASINEWTON_INVERSE_HESSIAN_H
#define LXOPT_SRC_QUASINEWTON_INVERSE_HESSIAN_H

#include <cstddef>

namespace LxOpt {
namespace detail {

// Lower triangle of h := I.
void SetIdentityLower(double* h, unsigned int n);

// Full n x n identity (both triangles).
void SetIdentityFull(double* h, unsigned int n);

// out := H v, reading the lower triangle once.
void SymmetricProduct(const double* h, unsigned int n, const double* v, double* out);

// Symmetric rank-two (a, b, c) or rank-three update, fused with the product
// of the new matrix and v, in one read-and-write pass over the triangle:
//   H_ij += (a s_i) s_j + (b p_i) p_j + (c u_i) u_j,   out := H_new v.
// With u == nullptr the third term is left out.
void UpdateAndMultiply(double* h, unsigned int n, const double* s, const double* p,
                       const double* u, double a, double b, double c, const double* v,
                       double* out);

// Writes the symmetric matrix whose lower triangle is h into the row-major
// n x n array full, skipping indices at or beyond count.
void Mirror(const double* h, unsigned int n, double* full, std::size_t count);

}  // namespace detail
}  // namespace LxOpt

#endif  // LXOPT_SRC_QUASINEWTON_INVERSE_HESSIAN_H
