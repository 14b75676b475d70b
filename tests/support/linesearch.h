// Test support for line minimizers and the conjugate-gradient optimizers:
// one-variable polynomials that log where they were evaluated, an objective
// whose values are not numbers, and a line minimizer that fails on demand.
#ifndef LXOPT_TESTS_SUPPORT_LINESEARCH_H
#define LXOPT_TESTS_SUPPORT_LINESEARCH_H

#include <lxopt/lxopt.h>

#include <cmath>
#include <limits>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "support/problems.h"

namespace lxtest {

// f(x) = c0 + c1 x + c2 x^2 + c3 x^3 in one variable; logs every point.
class Poly1D : public Objective {
 public:
  using Objective::operator();
  Poly1D(double c0, double c1, double c2, double c3) : c_{c0, c1, c2, c3} {}
  unsigned int NumVar() const override { return 1; }
  double operator()(const double* x) override {
    values.push_back(x[0]);
    return F(x[0]);
  }
  double operator()(const double* x, double* g) override {
    gradients.push_back(x[0]);
    g[0] = Slope(x[0]);
    return F(x[0]);
  }
  double F(double t) const { return c_[0] + t * (c_[1] + t * (c_[2] + t * c_[3])); }
  double Slope(double t) const { return c_[1] + t * (2.0 * c_[2] + 3.0 * t * c_[3]); }
  std::vector<double> values, gradients;  // points of value-only and gradient calls

 private:
  double c_[4];
};

// Value NaN everywhere; gradient `slope` in every component.
class NotANumber : public Objective {
 public:
  using Objective::operator();
  NotANumber(unsigned int n, double slope) : n_(n), slope_(slope) {}
  unsigned int NumVar() const override { return n_; }
  double operator()(const double*) override {
    ++evaluations;
    return std::numeric_limits<double>::quiet_NaN();
  }
  double operator()(const double* x, double* g) override {
    for (unsigned int i = 0; i < n_; ++i) g[i] = slope_;
    return (*this)(x);
  }
  int evaluations = 0;

 private:
  unsigned int n_;
  double slope_;
};

// Delegates to a real line minimizer (by default LxCGLineMinimize) except on
// the calls (counted from 1) listed in failOn, where it returns false without
// touching anything. Logs the entry step and direction of every call. Copies
// share the log,
// so the copy that an optimizer keeps still reports to the test.
class FailOnDemand : public LxOpt::LxLineMinimize {
 public:
  explicit FailOnDemand(std::set<int> failOn = {},
                        const LxOpt::LxLineMinimize& inner = LxOpt::LxCGLineMinimize())
      : failOn_(std::move(failOn)),
        inner_(inner.CreateCopy()),
        steps_(std::make_shared<std::vector<double>>()),
        dirs_(std::make_shared<std::vector<std::vector<double>>>()) {}
  FailOnDemand(const FailOnDemand& o)
      : failOn_(o.failOn_), inner_(o.inner_->CreateCopy()), steps_(o.steps_), dirs_(o.dirs_) {}
  bool operator()(unsigned int n, const double* x0, double* dir, double* grad0,
                  double* gradOut, double* fval, double* step,
                  LxOpt::LxFunc1& func) const override {
    steps_->push_back(*step);
    dirs_->emplace_back(dir, dir + n);
    if (failOn_.count(static_cast<int>(steps_->size()))) return false;
    return (*inner_)(n, x0, dir, grad0, gradOut, fval, step, func);
  }
  LxOpt::LxLineMinimize* CreateCopy() const override { return new FailOnDemand(*this); }
  // Entry step of every call so far.
  const std::vector<double>& steps() const { return *steps_; }
  const std::vector<std::vector<double>>& dirs() const { return *dirs_; }

 private:
  std::set<int> failOn_;
  std::unique_ptr<LxOpt::LxLineMinimize> inner_;
  std::shared_ptr<std::vector<double>> steps_;
  std::shared_ptr<std::vector<std::vector<double>>> dirs_;
};

}  // namespace lxtest

#endif  // LXOPT_TESTS_SUPPORT_LINESEARCH_H
