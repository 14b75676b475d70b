// Test support for the Newton optimizers: an objective scripted by one
// function, quadratics whose every step is accepted, seeded random matrices
// and plane or sphere constraints.
#ifndef LXOPT_TESTS_SUPPORT_NEWTON_H
#define LXOPT_TESTS_SUPPORT_NEWTON_H

#include <lxopt/lxopt.h>

#include <Eigen/Core>
#include <functional>
#include <vector>

#include "support/problems.h"

namespace lxtest {

// An objective from one function f(x, packed H, g) that writes H and g when
// g is not null, so value and derivatives can disagree on purpose. Its
// evaluations do not allocate.
class Scripted : public Objective {
 public:
  using Objective::operator();
  using Fn = std::function<double(const double* x, double* packed, double* g)>;
  Scripted(unsigned int n, Fn fn) : n_(n), fn_(std::move(fn)), packed_(n * (n + 1) / 2) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double* x) override { return fn_(x, nullptr, nullptr); }
  double operator()(const double* x, double* g) override { return fn_(x, packed_.data(), g); }
  bool operator()(const double* x, double* packed, double* g) override {
    return fn_(x, packed, g), true;
  }

 private:
  unsigned int n_;
  Fn fn_;
  std::vector<double> packed_;
};

// The lower triangle of h by rows.
inline std::vector<double> Packed(const Eigen::MatrixXd& h) {
  std::vector<double> packed;
  for (Eigen::Index i = 0; i < h.rows(); ++i)
    for (Eigen::Index j = 0; j <= i; ++j) packed.push_back(h(i, j));
  return packed;
}

// The derivatives of 1/2 x^T H x with a value that falls with every call, so
// that every step is accepted.
inline Scripted Descending(const Eigen::MatrixXd& h) {
  const auto n = static_cast<unsigned int>(h.rows());
  auto fn = [h, n, packed = Packed(h), calls = 0.0](const double* x, double* hp,
                                                    double* g) mutable {
    if (g)
      Eigen::Map<Eigen::VectorXd>(g, n).noalias() = h * Eigen::Map<const Eigen::VectorXd>(x, n);
    if (g) std::copy(packed.begin(), packed.end(), hp);
    return -(calls += 1.0);
  };
  return Scripted(n, fn);
}

// Entries uniform in (-1, 1) from the seeded generator.
inline Eigen::MatrixXd Random(int n, LxOpt::MtRng& rng) {
  LxOpt::LxUniformDoubleRNG uniform(-1.0, 1.0);
  return Eigen::MatrixXd::NullaryExpr(n, n,
                                      [&](Eigen::Index, Eigen::Index) { return uniform(rng); });
}

// c(x) = s |x|^2 + a^T x - b: a plane (s = 0) or a sphere.
class Quadric : public LxOpt::LxConstrFunc {
 public:
  Quadric(std::vector<double> a, double b, double s = 0.0) : a_(std::move(a)), b_(b), s_(s) {}
  double operator()(const double* x, double* grad) override {
    double v = -b_;
    for (size_t i = 0; i < a_.size(); ++i)
      v += (s_ * x[i] + a_[i]) * x[i], grad[i] = 2.0 * s_ * x[i] + a_[i];
    return v;
  }
  unsigned int NumVar() const override { return static_cast<unsigned int>(a_.size()); }

 private:
  std::vector<double> a_;
  double b_, s_;
};

}  // namespace lxtest

#endif  // LXOPT_TESTS_SUPPORT_NEWTON_H
