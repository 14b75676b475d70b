// The library's own test objective at a chosen size, and Lennard-Jones
// clusters, as benchmark problems with exact derivatives.
#ifndef LXBENCH_EXTRA_H
#define LXBENCH_EXTRA_H

#include <cmath>
#include <string>
#include <vector>

#include "lxopt/coordfunc.h"
#include "problem.h"

namespace lxbench {

// LxTestF(n): f = (x0 - 1)^2 + 4 sum_{i>=1} (x_i - x_{i-1}^2)^2, minimum 0 at
// (1, ..., 1). Value and gradient come from the library's class; the Hessian
// is tridiagonal:
//   d2f/dx_i^2         += 8 for i >= 1 (and 2 for i = 0),
//   d2f/dx_{i-1}^2     += 32 x_{i-1}^2 - 16 (x_i - x_{i-1}^2),
//   d2f/dx_i dx_{i-1}  =  -16 x_{i-1}.
// The start point is -1.2, 1, -1.2, 1, ... as for the extended Rosenbrock.
class TestFProblem : public Problem {
 public:
  explicit TestFProblem(unsigned int n) : f_(n), n_(n) {}

  using Problem::operator();
  unsigned int NumVar() const override { return n_; }
  std::string Name() const override { return "testf_n" + std::to_string(n_); }
  std::vector<double> Start() const override {
    std::vector<double> x(n_);
    for (unsigned int i = 0; i < n_; ++i) x[i] = i % 2 == 0 ? -1.2 : 1.0;
    return x;
  }
  double FStar() const override { return 0.0; }
  std::vector<double> Minimizer() const override { return std::vector<double>(n_, 1.0); }

  double operator()(const double* x) override { return f_(x); }
  double operator()(const double* x, double* grad) override { return f_(x, grad); }
  bool operator()(const double* x, double* hessian, double* grad) override {
    f_(x, grad);
    for (size_t k = 0; k < size_t(n_) * (n_ + 1) / 2; ++k) hessian[k] = 0.0;
    hessian[0] = 2.0;
    for (unsigned int i = 1; i < n_; ++i) {
      const size_t row = size_t(i) * (i + 1) / 2, previous = size_t(i - 1) * i / 2;
      const double u = x[i] - x[i - 1] * x[i - 1];
      hessian[row + i] += 8.0;
      hessian[row + i - 1] = -16.0 * x[i - 1];
      hessian[previous + i - 1] += 32.0 * x[i - 1] * x[i - 1] - 16.0 * u;
    }
    return true;
  }

 private:
  LxOpt::LxTestF f_;
  unsigned int n_;
};

// Lennard-Jones cluster of any size in reduced units:
//   f = sum_{i<j} 4 (r^-12 - r^-6),  r = |p_i - p_j|,
// with exact gradient and Hessian. Name, start and known minimum come from
// the derived problem.
class LennardJonesCluster : public Problem {
 public:
  explicit LennardJonesCluster(unsigned int atoms) : atoms_(atoms) {}

  using Problem::operator();
  unsigned int NumVar() const override { return 3 * atoms_; }

  double operator()(const double* x) override {
    double f = 0.0;
    for (unsigned int i = 0; i < atoms_; ++i)
      for (unsigned int j = i + 1; j < atoms_; ++j) {
        const double r2 = Distance2(x, i, j), s6 = 1.0 / (r2 * r2 * r2);
        f += 4.0 * (s6 * s6 - s6);
      }
    return f;
  }

  // With s = r^-6: df/dr / r = -24 (2 s^2 - s) / r^2 per pair.
  double operator()(const double* x, double* grad) override {
    double f = 0.0;
    for (unsigned int k = 0; k < NumVar(); ++k) grad[k] = 0.0;
    for (unsigned int i = 0; i < atoms_; ++i)
      for (unsigned int j = i + 1; j < atoms_; ++j) {
        const double r2 = Distance2(x, i, j), s6 = 1.0 / (r2 * r2 * r2);
        f += 4.0 * (s6 * s6 - s6);
        const double c = -24.0 * (2.0 * s6 * s6 - s6) / r2;
        for (int a = 0; a < 3; ++a) {
          const double d = c * (x[3 * i + a] - x[3 * j + a]);
          grad[3 * i + a] += d;
          grad[3 * j + a] -= d;
        }
      }
    return f;
  }

  // Per pair, with u = p_i - p_j, the 3 x 3 block
  //   B = c I + e u u',  c = -24 (2 s^2 - s) / r^2,  e = 96 (7 s^2 - 2 s) / r^4,
  // enters (i, i) and (j, j) with +B and (i, j) with -B.
  bool operator()(const double* x, double* hessian, double* grad) override {
    (*this)(x, grad);
    const unsigned int n = NumVar();
    for (unsigned int k = 0; k < n * (n + 1) / 2; ++k) hessian[k] = 0.0;
    for (unsigned int i = 0; i < atoms_; ++i)
      for (unsigned int j = i + 1; j < atoms_; ++j) {
        const double r2 = Distance2(x, i, j), s6 = 1.0 / (r2 * r2 * r2);
        const double c = -24.0 * (2.0 * s6 * s6 - s6) / r2;
        const double e = 96.0 * (7.0 * s6 * s6 - 2.0 * s6) / (r2 * r2);
        double u[3];
        for (int a = 0; a < 3; ++a) u[a] = x[3 * i + a] - x[3 * j + a];
        for (int a = 0; a < 3; ++a)
          for (int b = 0; b < 3; ++b) {
            const double block = (a == b ? c : 0.0) + e * u[a] * u[b];
            Add(hessian, 3 * i + a, 3 * i + b, block);
            Add(hessian, 3 * j + a, 3 * j + b, block);
            Add(hessian, 3 * j + a, 3 * i + b, -block);
          }
      }
    return true;
  }

 private:
  static double Distance2(const double* x, unsigned int i, unsigned int j) {
    double r2 = 0.0;
    for (int a = 0; a < 3; ++a) {
      const double d = x[3 * i + a] - x[3 * j + a];
      r2 += d * d;
    }
    return r2;
  }
  // Adds v at (row, col) of the full matrix when it lies in the lower
  // triangle; the diagonal blocks are visited in full, so their upper
  // halves are skipped here.
  static void Add(double* packed, unsigned int row, unsigned int col, double v) {
    if (col <= row) packed[row * (row + 1) / 2 + col] += v;
  }

  unsigned int atoms_;
};

// The 13-atom cluster, global minimum -44.326801 (the icosahedron). The
// start point is a slightly distorted fcc cuboctahedron (a centre and its 12
// nearest neighbours at distance 1.1), a standard local-optimization start
// that relaxes into the icosahedral minimum.
class LennardJones13 : public LennardJonesCluster {
 public:
  static constexpr unsigned int kAtoms = 13;
  static constexpr unsigned int kN = 3 * kAtoms;

  LennardJones13() : LennardJonesCluster(kAtoms) {}
  std::string Name() const override { return "lj13_cluster"; }
  std::vector<double> Start() const override {
    std::vector<double> x = {0.0, 0.0, 0.0};
    const double a = 1.1 / std::sqrt(2.0);
    const int pairs[3][2] = {{0, 1}, {0, 2}, {1, 2}};
    for (const auto& p : pairs)
      for (int s0 = -1; s0 <= 1; s0 += 2)
        for (int s1 = -1; s1 <= 1; s1 += 2) {
          double q[3] = {0.0, 0.0, 0.0};
          q[p[0]] = s0 * a;
          q[p[1]] = s1 * a;
          x.insert(x.end(), q, q + 3);
        }
    // A fixed small distortion so the start is not a symmetric saddle.
    for (unsigned int k = 0; k < kN; ++k) x[k] += 0.01 * std::sin(1.0 + 7.0 * k);
    return x;
  }
  double FStar() const override { return -44.326801; }
};

}  // namespace lxbench

#endif  // LXBENCH_EXTRA_H
