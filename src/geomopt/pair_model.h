// Model Hessian for Cartesian coordinates (x, y, z per atom) built from the
// interatomic distances alone, shared by the geometry driver and L-BFGS.
// Not part of the public interface.
#ifndef LXOPT_SRC_GEOMOPT_PAIR_MODEL_H
#define LXOPT_SRC_GEOMOPT_PAIR_MODEL_H

#include <cstddef>

namespace LxOpt {
namespace geom {

// Doubles of scratch the model of n coordinates needs (dense n x n factor
// and one vector).
inline std::size_t PairModelSize(unsigned int n) {
  return std::size_t(n) * n + n;
}

// Builds the model Hessian P at the coordinates x (n a multiple of 3) in
// model (dense, column-major n x n) and factors it in place (Cholesky, L in
// the lower triangle). Energy scale 1: callers scale P^-1 by what the first
// step measures. False when n is not a multiple of 3 or P is not positive
// definite to working precision.
// nearest: when not null, receives the mean nearest-neighbour distance the
// model was built with. radii: null, or one radius per atom (CovalentRadii):
// each pair's reference length is then the sum of its radii, rescaled so
// that nearest neighbours keep their mean ratio to it, instead of the mean
// nearest-neighbour distance.
bool FactorPairModel(const double* x, unsigned int n, double* model, double* nearest = nullptr,
                     const double* radii = nullptr);

// Covalent radius (in Angstrom; only their ratios are used) of each of the
// atoms with atomic numbers z into radii. False, radii undefined, when an
// atomic number is outside 1..96.
bool CovalentRadii(const int* z, unsigned int atoms, double* radii);

// True when an atom of x has moved from where the model was built (xModel)
// by more than a share of the nearest-neighbour distance it was built with:
// time to rebuild it.
bool PairModelIsStale(const double* x, const double* xModel, unsigned int n, double nearest);

// v = P^-1 v with the factor of FactorPairModel.
void SolvePairModel(const double* model, unsigned int n, double* v);

// Writes P^-1 packed (lower triangle by rows) into h; work: n doubles.
void PackedPairModelInverse(const double* model, unsigned int n, double* h, double* work);

// Mean over atoms of the distance to the nearest other atom; 0 when n is not
// a multiple of 3 or there are fewer than two atoms.
double MeanNearestDistance(const double* x, unsigned int n);

}  // namespace geom
}  // namespace LxOpt

#endif  // LXOPT_SRC_GEOMOPT_PAIR_MODEL_H
