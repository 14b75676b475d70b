// Test support for the geometry driver and annealing: a Lennard-Jones
// cluster with a perturbed icosahedral start and separable double wells.
#ifndef LXOPT_TESTS_SUPPORT_GEOM_H
#define LXOPT_TESTS_SUPPORT_GEOM_H

#include <algorithm>
#include <cmath>
#include <vector>

#include "../../bench/problems/clusters.h"
#include "support/problems.h"

namespace lxtest {

// E = 4 sum_{i<j} (r^-12 - r^-6) in reduced units over atoms given as
// (x, y, z) triples. The 13-atom icosahedron's minimum is -44.326801.
class LennardJones : public Objective {
 public:
  using Objective::operator();
  static constexpr double kIcosahedronMinimum = -44.326801;
  explicit LennardJones(unsigned int atoms) : atoms_(atoms) {}
  unsigned int NumVar() const override { return 3 * atoms_; }
  double operator()(const double* x) override {
    std::vector<double> g(NumVar());
    return (*this)(x, g.data());
  }
  double operator()(const double* x, double* g) override {
    double e = 0.0;
    std::fill(g, g + NumVar(), 0.0);
    for (unsigned int i = 0; i < NumVar(); i += 3)
      for (unsigned int j = i + 3; j < NumVar(); j += 3) {
        const double d[3] = {x[i] - x[j], x[i + 1] - x[j + 1], x[i + 2] - x[j + 2]};
        const double r2 = d[0] * d[0] + d[1] * d[1] + d[2] * d[2], inv6 = 1.0 / (r2 * r2 * r2);
        e += 4.0 * (inv6 * inv6 - inv6);
        for (int k = 0; k < 3; ++k) {  // dE/dr / r times d
          g[i + k] += (24.0 * inv6 - 48.0 * inv6 * inv6) / r2 * d[k];
          g[j + k] -= (24.0 * inv6 - 48.0 * inv6 * inv6) / r2 * d[k];
        }
      }
    return e;
  }

 private:
  unsigned int atoms_;
};

// A centred icosahedron of radius 1.1 with every coordinate moved by up to
// +-amplitude (fixed seed): 13 atoms, 39 values.
inline std::vector<double> PerturbedIcosahedron(double amplitude) {
  return lxbench::PerturbedCluster::Perturbed(lxbench::Icosahedron13(), 7, amplitude);
}

// Separable wells: f = sum_i w(x_i), w(t) = (t^2 - 4)^2 / 4 + 0.5 t, with a
// local minimum near t = +2 (w ~ +0.97) and the global one near t = -2
// (w ~ -1.03); the barrier between them is about 3 high.
class DoubleWells : public Objective {
 public:
  using Objective::operator();
  explicit DoubleWells(unsigned int n) : n_(n) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double* x) override {
    double f = 0.0;
    for (unsigned int i = 0; i < n_; ++i) f += 0.25 * std::pow(x[i] * x[i] - 4.0, 2) + 0.5 * x[i];
    return f;
  }
  double operator()(const double* x, double* g) override {
    for (unsigned int i = 0; i < n_; ++i) g[i] = x[i] * (x[i] * x[i] - 4.0) + 0.5;
    return (*this)(x);
  }

 private:
  unsigned int n_;
};

}  // namespace lxtest

#endif  // LXOPT_TESTS_SUPPORT_GEOM_H
