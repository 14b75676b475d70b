// Test support for the geometry driver and annealing: a Lennard-Jones
// cluster with a perturbed icosahedral start, a general convex quadratic,
// and objectives built to reach particular exits.
#ifndef LXOPT_TESTS_SUPPORT_GEOM_H
#define LXOPT_TESTS_SUPPORT_GEOM_H

#include <cmath>
#include <random>
#include <utility>
#include <vector>

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
    for (unsigned int k = 0; k < NumVar(); ++k) g[k] = 0.0;
    double e = 0.0;
    for (unsigned int i = 0; i < atoms_; ++i) {
      for (unsigned int j = i + 1; j < atoms_; ++j) {
        double d[3], r2 = 0.0;
        for (int k = 0; k < 3; ++k) {
          d[k] = x[3 * i + k] - x[3 * j + k];
          r2 += d[k] * d[k];
        }
        const double inv6 = 1.0 / (r2 * r2 * r2);
        e += 4.0 * (inv6 * inv6 - inv6);
        const double dEdrOverR = (-48.0 * inv6 * inv6 + 24.0 * inv6) / r2;
        for (int k = 0; k < 3; ++k) {
          g[3 * i + k] += dEdrOverR * d[k];
          g[3 * j + k] -= dEdrOverR * d[k];
        }
      }
    }
    return e;
  }

 private:
  unsigned int atoms_;
};

// A centred icosahedron of radius 1.1 with every coordinate moved by up to
// +-amplitude (fixed seed): 13 atoms, 39 values.
inline std::vector<double> PerturbedIcosahedron(double amplitude, unsigned int seed = 7) {
  const double phi = (1.0 + std::sqrt(5.0)) / 2.0;
  const double scale = 1.1 / std::sqrt(1.0 + phi * phi);
  std::vector<double> x = {0.0, 0.0, 0.0};
  for (double a : {-1.0, 1.0})
    for (double b : {-phi, phi}) {
      for (double v : {0.0, a, b}) x.push_back(v * scale);
      for (double v : {a, b, 0.0}) x.push_back(v * scale);
      for (double v : {b, 0.0, a}) x.push_back(v * scale);
    }
  std::mt19937 engine(seed);
  std::uniform_real_distribution<double> shift(-amplitude, amplitude);
  for (double& v : x) v += shift(engine);
  return x;
}

// f = 1/2 (x - c)^T A (x - c) with A = M^T M + I for a fixed M: convex, with
// off-diagonal couplings.
class CoupledQuadratic : public Objective {
 public:
  using Objective::operator();
  explicit CoupledQuadratic(unsigned int n) : n_(n), a_(n * n, 0.0), c_(n) {
    std::mt19937 engine(11);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> m(n * n);
    for (double& v : m) v = u(engine);
    for (unsigned int i = 0; i < n; ++i) {
      c_[i] = u(engine);
      for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int k = 0; k < n; ++k) a_[i * n + j] += m[k * n + i] * m[k * n + j];
        if (i == j) a_[i * n + j] += 1.0;
      }
    }
  }
  unsigned int NumVar() const override { return n_; }
  double operator()(const double* x) override {
    std::vector<double> g(n_);
    return (*this)(x, g.data());
  }
  double operator()(const double* x, double* g) override {
    double f = 0.0;
    for (unsigned int i = 0; i < n_; ++i) {
      g[i] = 0.0;
      for (unsigned int j = 0; j < n_; ++j) g[i] += a_[i * n_ + j] * (x[j] - c_[j]);
      f += 0.5 * (x[i] - c_[i]) * g[i];
    }
    return f;
  }
  // A v
  std::vector<double> Apply(const std::vector<double>& v) const {
    std::vector<double> out(n_, 0.0);
    for (unsigned int i = 0; i < n_; ++i)
      for (unsigned int j = 0; j < n_; ++j) out[i] += a_[i * n_ + j] * v[j];
    return out;
  }
  const std::vector<double>& minimizer() const { return c_; }

 private:
  unsigned int n_;
  std::vector<double> a_, c_;
};

// f = slope |x_0| over n variables: the gradient never shrinks below slope,
// while the values near the kink barely change.
class Kink : public Objective {
 public:
  using Objective::operator();
  Kink(unsigned int n, double slope) : n_(n), slope_(slope) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double* x) override { return slope_ * std::fabs(x[0]); }
  double operator()(const double* x, double* g) override {
    for (unsigned int i = 0; i < n_; ++i) g[i] = 0.0;
    g[0] = x[0] >= 0.0 ? slope_ : -slope_;
    return (*this)(x);
  }

 private:
  unsigned int n_;
  double slope_;
};

// f = |x|^2 with the gradient's sign flipped: every direction the gradient
// calls downhill climbs.
class WrongGradient : public Objective {
 public:
  using Objective::operator();
  explicit WrongGradient(unsigned int n) : n_(n) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double* x) override {
    double f = 0.0;
    for (unsigned int i = 0; i < n_; ++i) f += x[i] * x[i];
    return f;
  }
  double operator()(const double* x, double* g) override {
    for (unsigned int i = 0; i < n_; ++i) g[i] = -2.0 * x[i];
    return (*this)(x);
  }

 private:
  unsigned int n_;
};

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
    for (unsigned int i = 0; i < n_; ++i) {
      const double q = x[i] * x[i] - 4.0;
      f += 0.25 * q * q + 0.5 * x[i];
    }
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
